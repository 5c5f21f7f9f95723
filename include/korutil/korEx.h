// korEx.h - the exception object and the frame that every function of the library follows.
//
// There are no error return codes. An operation that can fail takes a korEx and a call depth as its first two
// arguments; a failure leaves a code, a description, the system's error number, the thread's name and a call trace in
// the object, and the operation gives a neutral value (NULL, 0, false). The same object is the call stack: each
// function stores its name and line in `frames[depth]` before it calls further, so a trace costs two stores a call and
// nothing at the raise.
//
// Recipe of use:
//
//     korEx* ex = korEx_Create();
//     doWork(KOR_AT(ex, 0), ...);                  // records this line, passes ex and depth 1
//     if (korEx_GetErrorCode(ex) != 0)
//         korEx_Print(ex);                         // code, description, thread and trace to standard error
//     korEx_Destroy(ex);
//
// Two orders of the leading arguments exist, and each function has exactly one. (ex, depth) is the normal form: with an
// error pending the operation does nothing. (depth, ex) is the form of clean-up operations, which do their work
// whatever is pending. A pending error is never overwritten: the first error stands.
//
// A korEx belongs to one thread at a time. Nothing in it is locked.

#ifndef KORUTIL_KOREX_H
#define KORUTIL_KOREX_H

#include "korutil/korBase.h"

#include <stdio.h>

KOR_BEGIN_DECLS

/// Every error code that has a word of its own: name, number, word. Other codes get their words from callbacks.
#define KOR_ERROR_CODES(entry)                                                                                    \
    entry(KOR_ERROR_NULL_VALUE, -1, "Null value exception") entry(KOR_OK, 0, "OK")                                \
        entry(KOR_ERROR_INVALID_ARGUMENT, 1, "Invalid Argument") entry(KOR_ERROR_NO_MEMORY, 2, "No memory")       \
            entry(KOR_ERROR_TIMEOUT, 4, "Timeout") entry(KOR_ERROR_NOT_INITIALIZED, 5, "Not initialized")         \
                entry(KOR_ERROR_OS, 6, "Operating system error") entry(KOR_ERROR_INTERRUPTED, 7, "Interrupted")   \
                    entry(KOR_ERROR_NOT_PERMITTED, 8, "Not permitted") entry(KOR_ERROR_NOT_FOUND, 9, "Not found") \
                        entry(KOR_ERROR_ILLEGAL_STATE, 10, "Illegal state")                                       \
                            entry(KOR_ERROR_NOT_SUPPORTED, 11, "Operation not supported")                         \
                                entry(KOR_ERROR_END_OF_BUFFER, 12, "End of buffer")                               \
                                    entry(KOR_ERROR_INCOMPATIBLE_LIBRARY, 13, "Incompatible library")             \
                                        entry(KOR_ERROR_ALREADY_EXISTS, 14, "Already exists")                     \
                                            entry(KOR_ERROR_FILE_IO, 15, "File I/O error")                        \
                                                entry(KOR_ERROR_INVALID_VALUE, 16, "Invalid value")               \
                                                    entry(KOR_ERROR_RESOURCE_LIMIT, 22, "Resource limit reached") \
                                                        entry(KOR_ERROR_EXCEPTION, 100, "Exception")

#define KOR_ERROR_ENUMERATOR(name, number, word) name = number,
/// The codes above as constants. `korEx.code` is a plain 32-bit number, since applications have codes of their own.
typedef enum korErrorCode { KOR_ERROR_CODES(KOR_ERROR_ENUMERATOR) } korErrorCode;
#undef KOR_ERROR_ENUMERATOR

/// Slots of a call trace. Deeper calls share the last slot.
#define KOR_MAX_FRAMES 255
#define KOR_DESCRIPTION_SIZE 256
#define KOR_THREAD_NAME_SIZE 64

/// One step of a call trace: a static function name and a line of its file.
typedef struct korFrame {
    const char* function;
    int32_t line;
} korFrame;

/// The exception object. Callers read `code`, `osError` and `description` and leave the rest to the library.
typedef struct korEx {
    int32_t code;                                 ///< error code; 0 = no error
    int32_t osError;                              ///< the system's error number; 0 = none. Set before the raise
    uint8_t baseDepth;                            ///< first frame that belongs to this object
    uint8_t own;                                  ///< 1 = stands alone: nothing travels to `next`, a clear stops here
    struct korEx* next;                           ///< next object of a chain, or NULL
    int32_t chainLine;                            ///< line of the frame that joins this object to `next`
    const char* chainFunction;                    ///< function of that frame; NULL = no such frame
    uint8_t chainDepth;                           ///< how many frames of `next` count, and where a copied trace starts
    korFrame frames[KOR_MAX_FRAMES];              ///< the call trace; valid from `baseDepth` up to `frameCount`
    char descriptionBuffer[KOR_DESCRIPTION_SIZE]; ///< private copy of a formatted description
    char threadName[KOR_THREAD_NAME_SIZE];        ///< thread that raised
    const char* description;                      ///< into `descriptionBuffer`, a static text, or NULL
    uint8_t frameCount;                           ///< one past the deepest valid frame; set by a raise
} korEx;

/// One record of a call key: 12 bytes, no gap. Keys tell call paths apart within one process.
typedef struct __attribute__((packed)) korKeyFrame {
    const char* function;
    int32_t line;
} korKeyFrame;

/// Gives the word for an application's own error code, or NULL if the code is not its own.
typedef const char* (*korErrorStringCallback)(int32_t code);

// ---- The frame ------------------------------------------------------------------------------------------------------

/// Records a frame unless an error is pending, so that the trace of a failure stays as it was. Depth 255 shares the
/// last slot: no depth writes outside `frames`. Use the macros below.
KOR_INLINE korEx* korEx_at(korEx* ex, uint8_t depth, const char* function, int32_t line)
{
    if (KOR_LIKELY(ex->code == 0)) {
        korFrame* frame = &ex->frames[depth - (depth == KOR_MAX_FRAMES)];
        frame->function = function;
        frame->line = line;
    }
    return ex;
}

/// Records this function and line in `frames[depth]` and stands for the two leading arguments `ex, depth + 1`.
#define KOR_AT(ex, depth) korEx_at((ex), (depth), __func__, __LINE__), (uint8_t)((depth) + 1)

/// The same for the clean-up family: stands for `depth + 1, ex`.
#define KOR_AT_D(depth, ex) (uint8_t)((depth) + 1), korEx_at((ex), (depth), __func__, __LINE__)

/// Raises `code` with a static description, or NULL, at this function and line. A pending error stays.
#define KOR_RAISE(ex, depth, code, text) _korEx_SetException((ex), (code), (text), 0, __func__, __LINE__, (depth))

/// Raises `code` with a formatted description, cut to 255 characters.
#define KOR_RAISE_F(ex, depth, code, ...) _korEx_FormatException((ex), (code), __func__, __LINE__, (depth), __VA_ARGS__)

/// Sets the head of a local object, and only the head: the frames acquire values as calls are made.
KOR_INLINE void korEx_initHead(korEx* ex, korEx* next, uint8_t depth, uint8_t own)
{
    ex->code = 0;
    ex->osError = 0;
    ex->baseDepth = depth;
    ex->own = own;
    ex->next = next;
    ex->chainLine = 0;
    ex->chainFunction = NULL;
    ex->chainDepth = depth;
}

/// A local object that stands alone, for a routine that has no caller to report to.
#define KOR_EX_LOCAL(name) \
    korEx name;            \
    korEx_initHead(&name, NULL, 0, 1)

/// A local object chained to the caller's: work goes on with an error pending, and a failure still reaches the caller
/// if the caller's object is clean.
#define KOR_EX_CHAINED(name, ex, depth) \
    korEx name;                         \
    korEx_initHead(&name, (ex), (depth), 0)

/// The same, but a failure stays private.
#define KOR_EX_PRIVATE(name, ex, depth) \
    korEx name;                         \
    korEx_initHead(&name, (ex), (depth), 1)

// ---- Objects --------------------------------------------------------------------------------------------------------

/// Makes an exception object: all zero, `own` set. Plain calloc, since it must work before the library is open and when
/// memory is short. The caller frees it with korEx_Destroy. NULL if there is no memory. Any thread.
KOR_API korEx* korEx_Create(void);
/// The same as korEx_Create.
KOR_API korEx* _korEx_Create(void);

/// Frees an object of korEx_Create or _korEx_Clone. NULL is accepted; the chain is not followed.
KOR_API void korEx_Destroy(korEx* ex);
/// The same as korEx_Destroy.
KOR_API void _korEx_Destroy(korEx* ex);

/// Forgets the error: sets `code` to 0 in `ex` and along `next`, up to and with the first object that has `own` set.
/// NULL is accepted.
KOR_API void korEx_Clear(korEx* ex);

/// The error code, 0 for none, -1 for NULL.
KOR_API int32_t korEx_GetErrorCode(const korEx* ex);

/// The word for the object's code: from the table, else from the first callback that knows it, else "Unknown". NULL
/// gives "Exception is NULL.\n". The text is static.
KOR_API const char* korEx_GetSummaryString(const korEx* ex);
/// The same as korEx_GetSummaryString.
KOR_API const char* _korEx_GetSummaryString(const korEx* ex);

/// A copy of the error on the heap, sharing what follows in the chain; freed with korEx_Destroy. NULL for NULL, or if
/// there is no memory.
KOR_API korEx* _korEx_Clone(const korEx* ex);

// ---- Raising --------------------------------------------------------------------------------------------------------

/// Raises an error; use KOR_RAISE. Does nothing if an error is pending.
///
/// `description` is kept by pointer and must be static, or NULL, unless `copy` is not 0: then up to 255 characters of
/// it are copied. Both names must live as long as the process. A `depth` of 255 or above is kept in the last frame. The
/// error travels along `next` until an object has `own` set or holds an error of its own. The system's last-error
/// values (errno, and on Windows the thread's two) read the same before and after; a raiser that wants one kept sets
/// `osError` first.
KOR_API void _korEx_SetException(korEx* ex, int32_t code, const char* description, uint8_t copy, const char* function,
                                 int32_t line, uint32_t depth) __attribute__((cold));

/// Raises an error with a formatted description, cut to 255 characters; use KOR_RAISE_F. Does nothing if an error is
/// pending.
KOR_API void _korEx_FormatException(korEx* ex, int32_t code, const char* function, int32_t line, uint32_t depth,
                                    const char* format, ...) __attribute__((cold)) KOR_PRINTF(6, 7);

// ---- Words of an application's own codes ----------------------------------------------------------------------------

/// Makes the list of callbacks. Called as the library starts. Code 2 if memory is short.
KOR_API void _korEx_Open(korEx* ex, uint8_t depth);

/// Forgets the callbacks. Called as the library stops. Works with an error pending; does nothing without a list.
KOR_API void _korEx_Close(korEx* ex, uint8_t depth);

/// Adds a callback that gives words for codes that have none in the table; the first one that knows a code is heard.
/// The list is not locked: a library adds its callback as it opens. Does nothing while the library is not started.
/// Code 2.
KOR_API void _korEx_AddErrorStringCallback(korEx* ex, uint8_t depth, korErrorStringCallback callback);

// ---- Texts ----------------------------------------------------------------------------------------------------------

/// Writes the error, with its trace, as text into `buffer` of `size` bytes, cut to fit and terminated. Gives the number
/// of characters and the terminator. With a NULL buffer only the length is told.
KOR_API int32_t korEx_ToString(const korEx* ex, char* buffer, int32_t size);

/// Prints the error, with its trace, to standard error.
KOR_API void korEx_Print(const korEx* ex);

/// Prints the error, with its trace, to a stream.
KOR_API void _korEx_Print(const korEx* ex, FILE* stream);

/// The engine of the texts above. With `*buffer` set it writes at most `size` bytes there; a size under 1 gives 0. With
/// `*buffer` NULL it allocates what is needed: if `keep` is not 0 the caller gets the text in `*buffer` and frees it
/// with _korUtil_Free, else the text is freed again and only its length told. A NULL `buffer` gives 0, and so does a
/// failed allocation. Result: characters written plus 1. Never changes `ex`.
KOR_API int32_t _korEx_PrintException(const korEx* ex, char** buffer, int32_t size, uint8_t keep);

/// One-line form: description, then " (Error Code = 9: Not found)" or, for code 6, the system's number and text. Gives
/// the length; for an object without error an empty text and 1; for a size under 1, 0.
KOR_API int32_t _korEx_PrintErrInfo(const korEx* ex, char* buffer, int32_t size);

/// The system's text for one of its error numbers, in one line, terminated. Not 0 if there is no such text (the buffer
/// then holds an empty text, if it has room for one). Any thread.
KOR_API int32_t _korEx_OsErrorString(char* buffer, int32_t size, int32_t osError);

// ---- Call keys ------------------------------------------------------------------------------------------------------

/// Collects the call path of a healthy object as a key: the frames from `depth` - 1 down to `baseDepth`, then along the
/// chain. `key` needs room for 256 records for each object of the chain. `*size` becomes the bytes written, `*hash` a
/// hash of the records that is never 0xFFFFFFFF. Keys hold pointers: they are valid within this process only.
KOR_API void _korEx_ToKey(const korEx* ex, uint32_t depth, korKeyFrame* key, uint32_t* size, uint32_t* hash);

/// Prints each record of a key as "\tname:line\n" to standard error. `size` is in bytes; under 12 prints nothing.
KOR_API void _korEx_PrintKey(const korKeyFrame* key, uint32_t size);

/// Prints the current call path below `depth` to standard error; with an error pending, the error. NULL does nothing.
KOR_API void _korEx_PrintStack(uint8_t depth, const korEx* ex);

KOR_END_DECLS

#endif
