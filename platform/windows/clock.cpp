// clock.cpp (Windows) - the C runtime's wall clock and zones; the performance counter is the system's own.

#include "platform/clock.h"

#include <sys/timeb.h>
#include <time.h>
#include <windows.h>

namespace kor::platform {

int64_t wallMilliseconds()
{
    struct __timeb64 now = {};
    _ftime64_s(&now);
    return now.time * 1000 + now.millitm;
}

uint64_t monotonicNanoseconds()
{
    uint64_t counter = performanceCounter();
    uint64_t frequency = performanceFrequency();
    // Whole seconds apart, so that the product stays inside 64 bits.
    return counter / frequency * 1'000'000'000 + counter % frequency * 1'000'000'000 / frequency;
}

uint64_t performanceCounter()
{
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<uint64_t>(counter.QuadPart);
}

uint64_t performanceFrequency()
{
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<uint64_t>(frequency.QuadPart);
}

bool localTime(int64_t seconds, LocalTime& local)
{
    __time64_t instant = seconds;
    struct tm parts;
    if (_localtime64_s(&parts, &instant) != 0) {
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
    Sleep(milliseconds);
}

} // namespace kor::platform
