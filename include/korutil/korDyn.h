// korDyn.h - shared libraries opened at run time, and whole tables of their symbols bound in one call.
//
//     static double (*cosine)(double);
//     const korDynBinding table[] = {{(void**)&cosine, "cos"}, {NULL, NULL}};
//     void* math = _korDyn_Open(KOR_AT(ex, depth), "libm.so.6");
//     _korDyn_BindAll(KOR_AT(ex, depth), math, table, NULL);
//
// A handle is the system's and holds a reference. The exception does not carry the system's number: straight after a
// failure, _korDyn_DescribeError tells the cause. Any thread.

#ifndef KORUTIL_KORDYN_H
#define KORUTIL_KORDYN_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// A row of a binding table: where the address of the symbol goes. A row with NULL in either place ends the table.
typedef struct korDynBinding {
    void** target;
    const char* name;
} korDynBinding;

/// Opens a library by its file name; NULL or an empty name is the process itself. Closed with _korDyn_Close. NULL after
/// a failure: code 9 "Unable to open dynamic library.".
KOR_API void* _korDyn_Open(korEx* ex, uint8_t depth, const char* name);

/// The handle of a library that is loaded, with a reference of its own; closed with _korDyn_Close. NULL is the process
/// itself. Errors as _korDyn_Open.
KOR_API void* _korDyn_GetHandle(korEx* ex, uint8_t depth, const char* name);

/// Gives a handle back. NULL is accepted. Works with an error pending. Code 1 "Invalid dynamic library handle".
KOR_API void _korDyn_Close(uint8_t depth, korEx* ex, void* handle);

/// The address of a function. Works with an error pending. NULL after a failure: code 9 "Unable to find symbol".
KOR_API void* _korDyn_Symbol(korEx* ex, uint8_t depth, void* handle, const char* name);

/// The address of a data object; as _korDyn_Symbol.
KOR_API void* _korDyn_Object(korEx* ex, uint8_t depth, void* handle, const char* name);

/// Binds every row of `table`, in order. A symbol that is missing leaves NULL in its target, raises code 9 "Unable to
/// find symbol" and ends the walk; `*failedRow`, if given, is then its row, and NULL otherwise.
KOR_API void _korDyn_BindAll(korEx* ex, uint8_t depth, void* handle, const korDynBinding* table,
                             const korDynBinding** failedRow);

/// The system's text for this thread's last failure, cut to `size` and terminated. Gives its length, 0 for none. The
/// first two arguments are not used.
KOR_API uint32_t _korDyn_DescribeError(korEx* ex, uint8_t depth, char* buffer, uint32_t size);

KOR_END_DECLS

#endif
