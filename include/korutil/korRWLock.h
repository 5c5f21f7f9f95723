// korRWLock.h - a slim reader-writer lock: many readers or one writer.
//
//     korRWLock* lock = _korRWLock_Create(KOR_AT_D(depth, ex));
//     _korRWLock_ReadLock(KOR_AT_D(depth, ex), lock);
//     ... look ...
//     _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), lock);
//     _korRWLock_Destroy(KOR_AT_D(depth, ex), lock);
//
// Locking cannot fail and costs no system call while nobody has to wait. A writer that waits keeps new readers out, and
// the readers that wait come in together when a writer leaves: neither side starves the other. Not recursive, for
// readers neither: a second read lock of one thread waits behind a writer that waits for the first. The thread that
// locked is the one that unlocks.
//
// Every function works with an error pending.

#ifndef KORUTIL_KORRWLOCK_H
#define KORUTIL_KORRWLOCK_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The lock: one word, the system's or the library's own. 0 is a free lock.
typedef struct korRWLock {
    uint64_t word;
} korRWLock;

/// Makes a free lock on the heap, or gives NULL. The caller destroys it. Errors: 2 (no memory); 6 with the system's
/// number and no description.
KOR_API korRWLock* _korRWLock_Create(uint8_t depth, korEx* ex);

/// Frees a lock that nobody holds or waits for. NULL is accepted.
KOR_API void _korRWLock_Destroy(uint8_t depth, korEx* ex, korRWLock* lock);

/// Waits until no writer holds the lock or waits for it, and holds it beside other readers. NULL is accepted.
KOR_API void _korRWLock_ReadLock(uint8_t depth, korEx* ex, korRWLock* lock);

/// Waits until nobody holds the lock, and holds it alone. NULL is accepted.
KOR_API void _korRWLock_WriteLock(uint8_t depth, korEx* ex, korRWLock* lock);

/// Gives a read lock back. NULL is accepted.
KOR_API void _korRWLock_UnlockReadLock(uint8_t depth, korEx* ex, korRWLock* lock);

/// Gives the write lock back. NULL is accepted.
KOR_API void _korRWLock_UnlockWriteLock(uint8_t depth, korEx* ex, korRWLock* lock);

KOR_END_DECLS

#endif
