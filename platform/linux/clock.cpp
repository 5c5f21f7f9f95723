// clock.cpp (Linux) - the kernel's clocks; the performance counter is the monotonic clock in nanoseconds.

#include "platform/clock.h"

#include "platform/cpu.h"

#include <cerrno>
#include <ctime>

namespace kor::platform {

int64_t wallMilliseconds()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

uint64_t monotonicNanoseconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t performanceCounter()
{
    return monotonicNanoseconds();
}

uint64_t performanceFrequency()
{
    return 1'000'000'000;
}

bool localTime(int64_t seconds, LocalTime& local)
{
    time_t instant = seconds;
    tm parts;
    if (localtime_r(&instant, &parts) == nullptr || parts.tm_year > INT32_MAX - 1900) {
        return false;
    }
    local = {parts.tm_year + 1900,
             static_cast<uint8_t>(parts.tm_mon + 1),
             static_cast<uint8_t>(parts.tm_mday),
             static_cast<uint8_t>(parts.tm_hour),
             static_cast<uint8_t>(parts.tm_min),
             static_cast<uint8_t>(parts.tm_sec)};
    return true;
}

void sleepMilliseconds(uint32_t milliseconds)
{
    if (milliseconds == 0) {
        yieldThread();
        return;
    }
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += milliseconds / 1000;
    until.tv_nsec += milliseconds % 1000 * 1'000'000L;
    if (until.tv_nsec >= 1'000'000'000) {
        until.tv_sec++;
        until.tv_nsec -= 1'000'000'000;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace kor::platform
