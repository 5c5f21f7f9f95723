// korTime.h - the clock in the library's forms, dates as text, and sleep.
//
// Wall-clock times count from the first second of 1970 in UTC and come in steps of a millisecond. They follow the
// system's clock, hence jump when it is set. None of these takes a korEx. Any thread.

#ifndef KORUTIL_KORTIME_H
#define KORUTIL_KORTIME_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// An instant.
typedef struct korTime {
    int64_t seconds;      ///< since the first second of 1970, UTC
    uint32_t nanoseconds; ///< inside that second, 0 to 999999999
} korTime;

/// A broken-down local time.
typedef struct korDateTime {
    int32_t year;         ///< in full, 2024
    uint8_t month;        ///< 1 to 12
    uint8_t day;          ///< 1 to 31
    uint8_t hour;         ///< 0 to 23
    uint8_t minute;       ///< 0 to 59
    uint8_t second;       ///< 0 to 60; 60 in a leap second
    uint16_t millisecond; ///< 0 to 999
} korDateTime;

/// Room for the text of _kor_GetCurrentLocalTimeStr with its terminator, for years of four digits.
#define KOR_LOCAL_TIME_SIZE 24

/// The current time, in steps of a millisecond.
KOR_API void _kor_GetCurrentTime(korTime* time);

/// The current time in seconds, with the fraction behind the point.
KOR_API void _kor_GetCurrentTimeAsDouble(double* seconds);

/// The current time in milliseconds.
KOR_API uint64_t _kor_GetCurrentMilliseconds(void);

/// Breaks an instant down in the process's time zone, which is the one at the first use. An instant that the system's
/// calendar does not reach (on Windows before 1970 and after 3000) gives a record of zeros.
KOR_API void _kor_GetLocalTime(const korTime* time, korDateTime* local);

/// Breaks the current time down in the process's time zone.
KOR_API void _kor_GetCurrentLocalTime(korDateTime* local);

/// The current local time as "2024-02-29 23:59:59.999", cut to fit and terminated. Gives the length; 0 for a size of 0.
KOR_API uint32_t _kor_GetCurrentLocalTimeStr(char* buffer, size_t size);

/// The current local date as "2024-02-29" and time as "23-59-59-999", of one instant, fit for file names. A NULL buffer
/// is left out. Gives the length of the time, 0 without one.
KOR_API uint32_t _kor_GetCurrentLocalDateTimeStr(char* dateBuffer, size_t dateSize, char* timeBuffer, size_t timeSize);

/// Writes seconds since 1970 in UTC as "1970-01-01 00:00:00.000000000Z", in the Gregorian calendar carried on backwards
/// without end; the year before 1 is -1, as there is no year 0. Cut to fit and terminated; the Z goes first. Any 64-bit
/// number of seconds is taken. No system call and no library call that knows of time zones. Gives the end of the text,
/// where its NUL stands; for a size of 0 the buffer itself, untouched.
KOR_API char* _korDateTime_ConvertToString(int64_t seconds, int64_t nanoseconds, char* buffer, uint32_t size);

/// Sleeps at least that many milliseconds, at most 0x7FFFFFFF (24 days). A negative number does nothing; 0 gives way to
/// others.
KOR_API void _kor_Sleep(int64_t milliseconds);

KOR_END_DECLS

#endif
