// debugConfiguration.h - the settings of the debug allocator, as KOR_MEM_DEBUG_CONF has them.

#pragma once

#include <cstdint>

namespace kor::debugAllocator {

struct Configuration {
    bool track = true;       ///< call paths are recorded
    bool scribble = true;    ///< memory is overwritten when it is handed out and given back
    bool doubleFree = false; ///< live blocks are known one by one
    bool protect = false;    ///< a page without access follows each block, and freed memory is held without access
    bool keepPools = false;  ///< chunk pools stay pools
    bool externalMemcheck = false;
    bool changedOnly = false; ///< reports leave out call paths whose count is the same as in the last one
    bool upOnly = false;      ///< ... or has not risen
    bool maxOnly = false;     ///< ... or is not the highest so far
    uint64_t backset = 16;    ///< bytes of header in front of a block
    int64_t displayBytes = 8000;
    int64_t displayCount = INT32_MAX;
    int64_t wakeMilliseconds = 250; ///< the background task's period
    int64_t holdWakes = 121;        ///< for how many of them freed memory is held
    int64_t printWakes = 41;        ///< after how many of them call paths are printed
    uint64_t excess = UINT64_MAX;
    uint64_t failAbove = UINT64_MAX;

    /// Nothing but pools off, and the report of excess.
    bool isPlain() const { return !track && !protect && !doubleFree; }
};

/// Reads the settings out of a text, by plain search: anything between and around them is passed over. "help" and a
/// "timing" that cannot be read print the help to standard error.
Configuration readConfiguration(const char* text);

/// Says on standard error what was read.
void printConfiguration(const Configuration& configuration);

} // namespace kor::debugAllocator
