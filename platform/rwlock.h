// rwlock.h - a reader-writer lock in one 64-bit word of the caller's: many readers or one writer, neither side starved.
//
// Windows' word is its slim lock; Linux has the library's own.

#pragma once

#include <cstdint>

namespace kor::platform {

int32_t rwlockInit(uint64_t* word); ///< makes a free lock; gives 0, or the system's error number
void readLock(uint64_t* word);      ///< waits until no writer holds the lock or waits for it
void readUnlock(uint64_t* word);    ///< gives a read lock back
void writeLock(uint64_t* word);     ///< waits until nobody holds the lock
void writeUnlock(uint64_t* word);   ///< gives the write lock back

} // namespace kor::platform
