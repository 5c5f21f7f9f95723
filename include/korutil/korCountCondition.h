// korCountCondition.h - a counter that threads wait for: it only goes up, and a wait ends once it has reached a target.
//
// A signal with nobody waiting is not lost, since the counter holds it.

#ifndef KORUTIL_KORCOUNTCONDITION_H
#define KORUTIL_KORCOUNTCONDITION_H

#include "korutil/korCondition.h"

KOR_BEGIN_DECLS

/// Read `count` under `mutex`.
typedef struct korCountCondition {
    int64_t count;          ///< signals so far, never reset
    korCondition condition; ///< what the waiters wait for
    korMutex mutex;         ///< guards `count`
} korCountCondition;

/// Makes a counter at 0 of a caller's storage. Does nothing with an error pending. Code 2 (no description) if the
/// system has no event left.
KOR_API void _korCountCondition_Init(korEx* ex, uint8_t depth, korCountCondition* counter);

/// Makes a counter on the heap. Gives NULL with an error pending, or with code 2 (no description) if there is no memory
/// or no event. Freed with _korCountCondition_Destroy.
KOR_API korCountCondition* _korCountCondition_Create(korEx* ex, uint8_t depth);

/// Frees a counter of _korCountCondition_Create that no thread waits for. NULL is accepted.
KOR_API void _korCountCondition_Destroy(uint8_t depth, korEx* ex, korCountCondition* counter);

/// Adds 1 to the counter and wakes all who wait. NULL is accepted. Any thread.
KOR_API void _korCountCondition_Signal(uint8_t depth, korEx* ex, korCountCondition* counter);

/// Waits until the counter is at `target` or above. NULL is accepted. If the system's wait fails the wait ends early:
/// code 6, "Condition wait". Any thread.
KOR_API void _korCountCondition_Wait(uint8_t depth, korEx* ex, korCountCondition* counter, int64_t target);

KOR_END_DECLS

#endif
