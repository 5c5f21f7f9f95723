// korText.h - bounded text: copies that always terminate, formatting that reports a usable length, conversions.
//
// None of these takes a korEx; they report by the result. A `length` of 0 means "measure the source"; then a
// source of NULL is empty. Any thread.

#ifndef KORUTIL_KORTEXT_H
#define KORUTIL_KORTEXT_H

#include "korutil/korBase.h"

#include <stdarg.h>

KOR_BEGIN_DECLS

/// Formats into `buffer` of `size` bytes, cut to fit and always terminated. Formats are those of C99 on every platform.
/// Gives the length of what stands in the buffer, so that a caller can add lengths; 0 for a size of 0.
KOR_API uint32_t _kor_vsnprintf(char* buffer, size_t size, const char* format, va_list arguments) KOR_PRINTF(3, 0);
/// The same with the arguments in the call.
KOR_API uint32_t _kor_snprintf(char* buffer, size_t size, const char* format, ...) KOR_PRINTF(3, 4);

/// The length of `text`, at most `maximum`; never reads beyond `maximum` bytes.
KOR_API size_t _kor_strnlen(const char* text, size_t maximum);

/// The length of `text`.
KOR_API size_t _kor_strlen(const char* text);

/// The length up to the first NUL inside `size` bytes. With none inside, the last byte becomes NUL and the result is
/// `size` - 1. 0 for a size of 0.
KOR_API uint32_t _kor_bufnlen(char* buffer, size_t size);

/// Copies `length` bytes of `source`, or up to its end, cut to `size` - 1 and terminated. A NUL inside a given length
/// is copied through. Gives the length written; 0 for a size of 0, with nothing touched.
KOR_API uint32_t _kor_StringCopy(char* destination, size_t size, const char* source, size_t length);

/// Appends `length` bytes of `source`, or all of it, cut to `size` - 1 and terminated. A destination without a NUL
/// inside `size` is terminated in its last byte first. Gives the length of the whole; 0 for a size of 0.
KOR_API uint32_t _kor_StringCat(char* destination, size_t size, const char* source, size_t length);

/// Copies `source` without the white space at its two ends, cut to `size` - 1 and terminated. Gives the length written.
/// An empty or blank source gives 0 and leaves the destination untouched, as does a size of 0. Source and destination
/// may be the same.
KOR_API uint32_t _kor_TrimWhitespace(char* destination, size_t size, const char* source, size_t length);

/// Reads an unsigned number: decimal, hexadecimal behind 0x, octal behind a leading 0. `*end` gets where reading
/// stopped. A number beyond 64 bits gives the largest one.
KOR_API uint64_t _kor_parseU64(const char* text, char** end);

/// Reads a floating-point number, "inf", "infinity" and "nan" (with a bracketed suffix) in any case included. `end` may
/// be NULL; else `*end` gets where reading stopped, the text itself if there is no number.
KOR_API double _kor_strtod(const char* text, char** end);

/// A static text for a C library error number or a Windows socket number (10004 and on). Not for display to the byte:
/// texts of the C library differ between systems. The text may be overwritten by the thread's next call.
KOR_API const char* _kor_strerror(int32_t number);

KOR_END_DECLS

#endif
