// process.h - who and what this process is, and what it has used so far.

#pragma once

#include <cstdint>

namespace kor::platform {

uint32_t processId();

// Names, written terminated and cut to fit; `size` is at least 512. False, and nothing written, if there is none.
bool systemUser(char* buffer, uint32_t size);     ///< who started the process
bool effectiveUser(char* buffer, uint32_t size);  ///< with whose rights it runs
bool systemGroup(char* buffer, uint32_t size);    ///< the starter's group
bool effectiveGroup(char* buffer, uint32_t size); ///< with whose group's rights it runs
bool systemName(char* buffer, uint32_t size);     ///< the system's name for display

/// Processor time used so far, in microseconds.
struct ProcessTimes {
    uint64_t user, kernel;
};
bool processTimes(ProcessTimes& times);

/// Memory used, in bytes: in main memory now, at most, and shared with no other process.
struct ProcessMemory {
    uint64_t resident, peakResident, unshared;
};
bool processMemory(ProcessMemory& memory);

} // namespace kor::platform
