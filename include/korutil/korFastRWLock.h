// korFastRWLock.h - the parts of a reader-writer lock made of two fast locks and a condition.
//
// The library makes and ends the object. How readers and writers use its parts is left to whoever needs one.

#ifndef KORUTIL_KORFASTRWLOCK_H
#define KORUTIL_KORFASTRWLOCK_H

#include "korutil/korFastCondition.h"

KOR_BEGIN_DECLS

/// The parts, in place.
typedef struct korFastRWLock {
    uint8_t
        gapBefore[KOR_LINE_GAP]; ///< unused; keeps `readers` alone on its cache line, as the gap in `firstLock` does
    uint64_t readers;            ///< starts at 0
    korFastLock firstLock;
    korFastLock secondLock;
    korFastCondition condition;
} korFastRWLock;

/// Makes the object on the heap; `spinCount` is that of both locks (see _korFastLock_Init). Gives NULL with an error
/// pending, or with code 2 (no description) if there is no memory or no event. Freed with _korFastRWLock_Destroy.
KOR_API korFastRWLock* _korFastRWLock_Create(korEx* ex, uint8_t depth, uint32_t spinCount);

/// Makes the object of a caller's storage. Does nothing with an error pending, and leaves nothing to clear when it
/// fails. Code 2 (no description) if the system has no event left.
KOR_API void _korFastRWLock_Init(korEx* ex, uint8_t depth, korFastRWLock* lock, uint32_t spinCount);

/// Frees an object of _korFastRWLock_Create that nobody uses. NULL is accepted.
KOR_API void _korFastRWLock_Destroy(uint8_t depth, korEx* ex, korFastRWLock* lock);

/// Ends an object that nobody uses. The storage stays the caller's.
KOR_API void _korFastRWLock_Clear(uint8_t depth, korEx* ex, korFastRWLock* lock);

KOR_END_DECLS

#endif
