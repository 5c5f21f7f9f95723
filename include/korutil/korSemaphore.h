// korSemaphore.h - a binary semaphore, within a process or, by a name, between processes.
//
// It starts at 0 and never counts beyond 1: a release lets one wait through, the present or the next one, and releasing
// twice equals releasing once. Whoever creates a semaphore by a name that is in use gets the same semaphore. A named
// semaphore goes with the last object of its name; one that a crashed process has left is taken over, at 0, by the next
// creator.
//
//     korSemaphore* ready = NULL;
//     _korSemaphore_Create(KOR_AT(ex, depth), "market-data-ready", &ready);
//     _korSemaphore_WaitOn(KOR_AT(ex, depth), ready);        // here
//     _korSemaphore_Release(KOR_AT_D(depth, ex), ready);     // there, perhaps in another process
//     _korSemaphore_Destroy(KOR_AT_D(depth, ex), ready);
//
// Any thread may wait and release. All errors of the system are code 6 with its number in `osError`.

#ifndef KORUTIL_KORSEMAPHORE_H
#define KORUTIL_KORSEMAPHORE_H

#include "korutil/korCondition.h"
#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// A semaphore. Made and freed by the library alone: what a system needs beyond `handle` lies behind the record.
typedef struct korSemaphore {
    uint64_t handle; ///< the system's handle
    char* name;      ///< own copy of the name; NULL for an unnamed one
    uint8_t unnamed; ///< 1 = unnamed
} korSemaphore;

/// Makes a semaphore of this name, or joins it if it exists, and puts the object in `*semaphore`, which stays as it was
/// on a failure. The caller destroys it. Errors: 6, no description: the system refuses, the name for instance; 2 (no
/// memory); 1 "semaphore name is missing".
KOR_API void _korSemaphore_Create(korEx* ex, uint8_t depth, const char* name, korSemaphore** semaphore);

/// Makes a semaphore that only this process knows, or gives NULL. The caller destroys it. Errors: 2, 6.
KOR_API korSemaphore* _korSemaphore_CreateUnnamed(korEx* ex, uint8_t depth);

/// Waits until the semaphore is released, and takes it. Errors: 1 "semaphore is missing"; 6, no description.
KOR_API void _korSemaphore_WaitOn(korEx* ex, uint8_t depth, korSemaphore* semaphore);

/// The same with a limit of `timeout` milliseconds; a negative one means no limit, and 0 only looks. `target` is the
/// caller's, zeroed before the first of a row of waits that share the limit: later waits get what is left; NULL for a
/// wait of its own. When the time is up, `*timedOut` becomes 1; it is not touched otherwise, and may be NULL. A
/// time-out is no error. Errors: 1 "semaphore is missing"; 6 "semaphore wait".
KOR_API void _korSemaphore_TimedWait(korEx* ex, uint8_t depth, korSemaphore* semaphore, int64_t timeout,
                                     korTargetTime* target, uint8_t* timedOut);

/// Lets one wait through. At 1 already, nothing changes. NULL is accepted. Works with an error pending.
KOR_API void _korSemaphore_Release(uint8_t depth, korEx* ex, korSemaphore* semaphore);
/// The same as _korSemaphore_Release.
KOR_API void _korSemaphore_ReleaseEx(uint8_t depth, korEx* ex, korSemaphore* semaphore);

/// Frees the object; nobody may wait on it. NULL is accepted. Works with an error pending.
KOR_API void _korSemaphore_Destroy(uint8_t depth, korEx* ex, korSemaphore* semaphore);

KOR_END_DECLS

#endif
