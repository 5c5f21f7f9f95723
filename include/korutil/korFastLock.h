// korFastLock.h - a lock whose free path is one atomic instruction in line for each direction. A contended acquire
// spins, then yields, then parks.
//
// `word` is 0 for a free lock with nobody parked, 1 for a held one; each parked thread adds 2. A free lock with parked
// threads belongs to them: a newcomer needs a word of 0 and goes to the end of the line. The lock is not recursive.
//
// Recipe of use:
//
//     korFastLock_acquire(&lock);
//     ...                                          // short: others spin meanwhile
//     korFastLock_release(&lock);

#ifndef KORUTIL_KORFASTLOCK_H
#define KORUTIL_KORFASTLOCK_H

#include "korutil/korCondition.h"

KOR_BEGIN_DECLS

/// Bytes that keep what lies before and behind an 8-byte word off its cache line of 64 bytes, wherever the line begins.
#define KOR_LINE_GAP 56

/// `word` is alone on its cache line, so that a spinning thread disturbs nothing else: padding does it, not alignment,
/// since the heap aligns to 16 bytes only.
typedef struct korFastLock {
    uint8_t gapBefore[KOR_LINE_GAP]; ///< unused
    uint64_t word;                   ///< atomic: bit 0 = held; above it twice the number of parked threads
    uint8_t gapBehind[KOR_LINE_GAP]; ///< unused
    uint32_t spinCount;              ///< rounds of each of the two spinning phases; does not change after the init
    korMutex mutex;                  ///< guards the parking
    korCondition condition;          ///< the parked threads wait for it
} korFastLock;

/// Makes a free lock of a caller's storage. A `spinCount` of 0 is the default: 1024 rounds, or 10 under an outside
/// memory checker. NULL is accepted. Code 2 (no description) if the system has no event left. (depth, ex), as all of
/// these: works with an error pending.
KOR_API void _korFastLock_Init(uint8_t depth, korEx* ex, korFastLock* lock, uint32_t spinCount);

/// Ends a lock that nobody holds or waits for. NULL is accepted. The storage stays the caller's.
KOR_API void _korFastLock_Clear(uint8_t depth, korEx* ex, korFastLock* lock);

/// Makes a free lock on the heap; see _korFastLock_Init. Gives NULL with an error pending, or with code 2 (no
/// description) if there is no memory or no event. Freed with _korFastLock_Destroy.
KOR_API korFastLock* _korFastLock_Create(uint8_t depth, korEx* ex, uint32_t spinCount);

/// Frees a lock of _korFastLock_Create that nobody holds or waits for. NULL is accepted.
KOR_API void _korFastLock_Destroy(uint8_t depth, korEx* ex, korFastLock* lock);

/// The slow acquire; use korFastLock_acquire. Returns with the lock held.
KOR_API void _korFastLock_LockSpin(korFastLock* lock);

/// The slow release; use korFastLock_release. Wakes a parked thread.
KOR_API void _korFastLock_Notify(korFastLock* lock);

/// Takes the lock if it is free and nobody is parked; false if not. Never waits.
KOR_INLINE bool korFastLock_tryAcquire(korFastLock* lock)
{
    uint64_t expected = 0;
    return KOR_ATOMIC_CAS(&lock->word, &expected, 1);
}

/// Takes the lock, waiting for as long as it is held. A thread that holds it already waits for ever.
KOR_INLINE void korFastLock_acquire(korFastLock* lock)
{
    if (KOR_UNLIKELY(!korFastLock_tryAcquire(lock))) {
        _korFastLock_LockSpin(lock);
    }
}

/// Gives the lock back. A value of 2 or more before the step is that of parked threads: each counts itself before it
/// looks at the held bit, so either this release sees it, or it sees this release.
KOR_INLINE void korFastLock_release(korFastLock* lock)
{
    if (KOR_UNLIKELY(KOR_ATOMIC_ADD(&lock->word, (uint64_t)-1) >= 2)) {
        _korFastLock_Notify(lock);
    }
}

KOR_END_DECLS

#endif
