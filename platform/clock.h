// clock.h - the wall clock, the clocks that never go back, local time and sleep.

#pragma once

#include <cstdint>

namespace kor::platform {

int64_t wallMilliseconds();      ///< since the first second of 1970, UTC; follows the system's clock
uint64_t monotonicNanoseconds(); ///< since some fixed moment; never goes back, is not set

/// The finest counter that the system offers, and how often it ticks in a second.
uint64_t performanceCounter();
uint64_t performanceFrequency();

/// A local time; the fields count as in a calendar (month 1 to 12, year in full).
struct LocalTime {
    int32_t year;
    uint8_t month, day, hour, minute, second;
};
/// Breaks seconds since 1970 down in the process's time zone; false if the system's calendar does not reach them.
bool localTime(int64_t seconds, LocalTime& local);

void sleepMilliseconds(uint32_t milliseconds); ///< at least that long, whatever interrupts it; 0 gives way to others

} // namespace kor::platform
