// korTime_test.cpp - the clock's forms agree with each other and with the standard library, dates hold at their
// extremes.

#include "korutil/korTime.h"

#include "support/korTest.h"

#include <chrono>
#include <ctime>
#include <string>

namespace {

int64_t standardMilliseconds()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

TEST(korTime, TheFormsOfNowLieBetweenTwoLooksAtTheClock)
{
    int64_t before = standardMilliseconds();
    korTime time;
    double seconds;
    _kor_GetCurrentTime(&time);
    _kor_GetCurrentTimeAsDouble(&seconds);
    auto milliseconds = static_cast<int64_t>(_kor_GetCurrentMilliseconds());
    int64_t after = standardMilliseconds();

    constexpr int64_t step = 16; // a system's clock may go in steps of its timer
    int64_t whole = time.seconds * 1000 + time.nanoseconds / 1'000'000;
    EXPECT_LT(time.nanoseconds, 1'000'000'000u);
    EXPECT_EQ(time.nanoseconds % 1'000'000, 0u) << "the clock goes in milliseconds";
    for (int64_t taken : {whole, static_cast<int64_t>(seconds * 1000 + 0.5), milliseconds}) {
        EXPECT_GE(taken, before - step);
        EXPECT_LE(taken, after + step);
    }
}

std::string dateText(const korDateTime& at)
{
    char text[64];
    _kor_snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", at.year, at.month, at.day, at.hour,
                  at.minute, at.second, at.millisecond);
    return text;
}

TEST(korTime, LocalTimeIsTheCLibrarys)
{
    korTime time = {1709251199, 987'654'321}; // the last second of a 29th of February in UTC
    time_t instant = 1709251199;
    char wanted[64];
    std::strftime(wanted, sizeof wanted, "%Y-%m-%d %H:%M:%S.987", std::localtime(&instant));
    korDateTime local;
    _kor_GetLocalTime(&time, &local);
    EXPECT_EQ(dateText(local), wanted);
}

TEST(korTime, TextsOfNowAreInOrderWithTheClock)
{
    korDateTime before, after;
    char text[KOR_LOCAL_TIME_SIZE], date[16], time[16];
    _kor_GetCurrentLocalTime(&before);
    EXPECT_EQ(_kor_GetCurrentLocalTimeStr(text, sizeof text), 23u);
    EXPECT_EQ(_kor_GetCurrentLocalDateTimeStr(date, sizeof date, time, sizeof time), 12u);
    _kor_GetCurrentLocalTime(&after);
    std::string both = std::string(date) + " " + time;
    both[13] = both[16] = ':';
    both[19] = '.';
    EXPECT_LE(dateText(before), text);
    EXPECT_LE(std::string(text), both);
    EXPECT_LE(both, dateText(after));
}

std::string converted(int64_t seconds, int64_t nanoseconds)
{
    char text[64];
    char* end = _korDateTime_ConvertToString(seconds, nanoseconds, text, sizeof text);
    EXPECT_EQ(*end, '\0');
    return {text, end};
}

TEST(korTime, DatesAtTheEndsOfTheRange)
{
    EXPECT_EQ(converted(-1, 999'999'999), "1969-12-31 23:59:59.999999999Z");
    EXPECT_EQ(converted(-62135596801, 0), "-001-12-31 23:59:59.000000000Z") << "there is no year 0";
    EXPECT_EQ(converted(INT64_MAX, 0), "292277026596-12-04 15:30:07.000000000Z");
    EXPECT_EQ(converted(INT64_MIN, 0), "-292277022658-01-27 08:29:52.000000000Z");
}

TEST(korTime, EveryDayOfEightHundredYearsIsTheStandardCalendars)
{
    using namespace std::chrono;
    for (sys_days day = year{1599} / 1 / 1; day <= sys_days{year{2401} / 12 / 31}; day += days{1}) {
        year_month_day date = day;
        char wanted[64];
        _kor_snprintf(wanted, sizeof wanted, "%04d-%02u-%02u 23:59:59.000000000Z", static_cast<int>(date.year()),
                      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
        int64_t seconds = duration_cast<std::chrono::seconds>(day.time_since_epoch()).count() + 86399;
        ASSERT_EQ(converted(seconds, 0), wanted);
    }
}

TEST(korTime, DatesAreCutAndTheMarkGoesFirst)
{
    const std::string whole = "1970-01-01 00:00:00.000000000";
    for (uint32_t size = 0; size <= whole.size() + 2; size++) {
        std::string buffer(64, '#');
        char* end = _korDateTime_ConvertToString(0, 0, buffer.data(), size);
        size_t length = static_cast<size_t>(end - buffer.data());
        EXPECT_EQ(buffer.substr(0, length), (whole + "Z").substr(0, size == 0 ? 0 : std::min<size_t>(size - 1, 30)));
        EXPECT_EQ(buffer.substr(size), std::string(64 - size, '#'));
    }
}

TEST(korTime, SleepTakesItsTimeOrNone)
{
    auto start = std::chrono::steady_clock::now();
    _kor_Sleep(20);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19)); // its timer may round down
    _kor_Sleep(-1); // for ever, if it were taken for an unsigned number
}

} // namespace
