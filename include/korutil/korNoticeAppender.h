// korNoticeAppender.h - timestamped lines for a person, collected in an array that its owner reads.

#ifndef KORUTIL_KORNOTICEAPPENDER_H
#define KORUTIL_KORNOTICEAPPENDER_H

#include "korutil/korDpa.h"
#include "korutil/korMutex.h"

KOR_BEGIN_DECLS

/// Room for a notice with its terminator; a longer one is cut.
#define KOR_NOTICE_SIZE 2048

/// The appender.
typedef struct korNoticeAppender {
    korMutex mutex;  ///< orders the notices
    char* name;      ///< shown in brackets; NULL for none
    korDpa* notices; ///< the caller's array, or NULL
} korNoticeAppender;

/// Makes an appender with a copy of `name`, which may be NULL, on an array of the caller's that outlives it; without an
/// array notices are made and dropped. NULL after a failure (code 2), or for a NULL `ex`. Freed with
/// _korNoticeAppender_Destroy.
KOR_API korNoticeAppender* _korNoticeAppender_Create(korEx* ex, uint8_t depth, const char* name, korDpa* notices);

/// Appends "2024-02-29 23:59:59.999 - warn [name]: " and the text to the array, or the same without the brackets. The
/// array's owner frees the notices with _kor_free, and reads the array while no appender is at work. Cannot fail: a
/// notice for which there is no memory is lost. Any thread.
KOR_API void _korNoticeAppender_Append(korNoticeAppender* appender, int32_t level, const char* format, ...)
    KOR_PRINTF(3, 4);

/// Frees the appender; the array and its notices stay. NULL is accepted. Works with an error pending.
KOR_API void _korNoticeAppender_Destroy(uint8_t depth, korEx* ex, korNoticeAppender* appender);

KOR_END_DECLS

#endif
