// korTime.cpp - the wall clock in the library's forms, dates as text, sleep.

#include "korutil/korTime.h"

#include "korutil/korText.h"
#include "platform/clock.h"

#include <cinttypes>
#include <cstddef>

static_assert(offsetof(korTime, nanoseconds) == 8 && sizeof(korTime) == 16);
static_assert(offsetof(korDateTime, millisecond) == 10 && sizeof(korDateTime) == 12);

namespace {

constexpr uint32_t nanosecondsInMillisecond = 1'000'000;

struct Division {
    int64_t quotient;
    int64_t remainder; // never negative
};

constexpr Division divideFloored(int64_t value, int64_t divisor)
{
    int64_t borrow = value % divisor < 0 ? 1 : 0;
    return {value / divisor - borrow, value % divisor + borrow * divisor};
}

} // namespace

uint64_t _kor_GetCurrentMilliseconds()
{
    return static_cast<uint64_t>(kor::platform::wallMilliseconds());
}

void _kor_GetCurrentTime(korTime* time)
{
    Division now = divideFloored(kor::platform::wallMilliseconds(), 1000);
    time->seconds = now.quotient;
    time->nanoseconds = static_cast<uint32_t>(now.remainder) * nanosecondsInMillisecond;
}

void _kor_GetCurrentTimeAsDouble(double* seconds)
{
    korTime now;
    _kor_GetCurrentTime(&now);
    *seconds = static_cast<double>(now.seconds) + now.nanoseconds / 1e9;
}

void _kor_GetLocalTime(const korTime* time, korDateTime* local)
{
    kor::platform::LocalTime parts;
    if (!kor::platform::localTime(time->seconds, parts)) {
        *local = {};
        return;
    }
    *local = {parts.year,
              parts.month,
              parts.day,
              parts.hour,
              parts.minute,
              parts.second,
              static_cast<uint16_t>(time->nanoseconds / nanosecondsInMillisecond)};
}

void _kor_GetCurrentLocalTime(korDateTime* local)
{
    korTime now;
    _kor_GetCurrentTime(&now);
    _kor_GetLocalTime(&now, local);
}

uint32_t _kor_GetCurrentLocalTimeStr(char* buffer, size_t size)
{
    korDateTime now;
    _kor_GetCurrentLocalTime(&now);
    return _kor_snprintf(buffer, size, "%04d-%02d-%02d %02d:%02d:%02d.%03d", now.year, now.month, now.day, now.hour,
                         now.minute, now.second, now.millisecond);
}

uint32_t _kor_GetCurrentLocalDateTimeStr(char* dateBuffer, size_t dateSize, char* timeBuffer, size_t timeSize)
{
    korDateTime now;
    _kor_GetCurrentLocalTime(&now);
    if (dateBuffer != nullptr) {
        _kor_snprintf(dateBuffer, dateSize, "%04d-%02d-%02d", now.year, now.month, now.day);
    }
    if (timeBuffer == nullptr) {
        return 0;
    }
    return _kor_snprintf(timeBuffer, timeSize, "%02d-%02d-%02d-%03d", now.hour, now.minute, now.second,
                         now.millisecond);
}

void _kor_Sleep(int64_t milliseconds)
{
    constexpr int64_t longest = 0x7FFFFFFF;
    if (milliseconds >= 0) {
        kor::platform::sleepMilliseconds(static_cast<uint32_t>(milliseconds < longest ? milliseconds : longest));
    }
}

// ---- Dates without a time zone --------------------------------------------------------------------------------------

namespace {

constexpr int64_t daysInYears(int64_t years) // from the start of a span of 400 years: leap years stand at its start
{
    return years == 0 ? 0 : years * 365 + (years - 1) / 4 - (years - 1) / 100 + 1;
}

constexpr int64_t daysInSpan = 400 * 365 + 97;
constexpr int64_t days1970To2000 = 30 * 365 + 7; // 2000 starts a span

constexpr int32_t daysBeforeMonth[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

constexpr bool isLeapYear(int64_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

struct Date {
    int64_t year; // counted through zero
    int32_t month, day;
};

// Whole spans of 400 years go in one division, so that no count of days, however far, costs more than another.
constexpr Date dateOf(int64_t daysSince1970)
{
    Division span = divideFloored(daysSince1970 - days1970To2000, daysInSpan);
    int64_t year = span.remainder / 366; // at most one year behind in a span
    year += daysInYears(year + 1) <= span.remainder ? 1 : 0;
    int64_t dayOfYear = span.remainder - daysInYears(year);
    const int32_t* before = daysBeforeMonth[isLeapYear(year)];
    int32_t month = 1;
    while (dayOfYear >= before[month]) {
        month++;
    }
    return {2000 + span.quotient * 400 + year, month, static_cast<int32_t>(dayOfYear) - before[month - 1] + 1};
}

} // namespace

char* _korDateTime_ConvertToString(int64_t seconds, int64_t nanoseconds, char* buffer, uint32_t size)
{
    Division days = divideFloored(seconds, 86400);
    Date date = dateOf(days.quotient);
    int64_t printedYear = date.year < 1 ? date.year - 1 : date.year; // there is no year 0
    auto second = static_cast<int32_t>(days.remainder);
    uint32_t length = _kor_snprintf(buffer, size, "%04" PRIi64 "-%02d-%02d %02d:%02d:%02d.%09" PRIi64, printedYear,
                                    date.month, date.day, second / 3600, second / 60 % 60, second % 60, nanoseconds);
    if (length + 2 <= size) {
        buffer[length++] = 'Z';
        buffer[length] = '\0';
    }
    return buffer + length;
}
