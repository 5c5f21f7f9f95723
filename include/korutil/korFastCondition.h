// korFastCondition.h - the condition that goes with a korFastLock.
//
// The condition has a mutex of its own. A waiter holds it from before it gives the lock up until it is counted as a
// waiter, and a signal needs it: who changes the state under the lock and signals afterwards never signals in between.

#ifndef KORUTIL_KORFASTCONDITION_H
#define KORUTIL_KORFASTCONDITION_H

#include "korutil/korFastLock.h"

KOR_BEGIN_DECLS

/// A mutex and a condition in place; callers touch neither.
typedef struct korFastCondition {
    korMutex mutex;         ///< orders waits and signals
    korCondition condition; ///< what the waiters wait for
} korFastCondition;

/// Makes a condition of a caller's storage. NULL is accepted. Code 2 (no description) if the system has no event left.
/// (depth, ex), as all of these: works with an error pending.
KOR_API void _korFastCondition_Init(uint8_t depth, korEx* ex, korFastCondition* condition);

/// Ends a condition that no thread waits for. NULL is accepted. The storage stays the caller's.
KOR_API void _korFastCondition_Clear(uint8_t depth, korEx* ex, korFastCondition* condition);

/// Makes a condition on the heap. Gives NULL with an error pending, or with code 2 (no description) if there is no
/// memory or no event. Freed with _korFastCondition_Destroy.
KOR_API korFastCondition* _korFastCondition_Create(uint8_t depth, korEx* ex);

/// Frees a condition of _korFastCondition_Create that no thread waits for. NULL is accepted.
KOR_API void _korFastCondition_Destroy(uint8_t depth, korEx* ex, korFastCondition* condition);

/// Waits for a signal or a broadcast. The caller holds `lock`: it is released for the time of the wait and held again
/// on return, whatever happens. A wake-up may come without a signal: wait in a loop. With NULL for either does nothing.
/// If the system's wait fails: code 6, "Condition wait".
KOR_API void _korFastCondition_Wait(uint8_t depth, korEx* ex, korFastCondition* condition, korFastLock* lock);

/// The same with a limit, which works as that of _korCondition_WaitEx: what is left of `target`, which the first of a
/// row of waits starts with `timeout` milliseconds; negative for none. If the time runs out, `*timedOut` becomes 1;
/// with a NULL `timedOut` that is an error: code 6, "Condition wait".
KOR_API void _korFastCondition_WaitEx(uint8_t depth, korEx* ex, korFastCondition* condition, korFastLock* lock,
                                      int64_t timeout, korTargetTime* target, uint8_t* timedOut);

/// Wakes one waiter; with none there, the next wait passes at once. NULL is accepted. Any thread, with or without the
/// lock. If the system refuses: code 1, no description.
KOR_API void _korFastCondition_Signal(uint8_t depth, korEx* ex, korFastCondition* condition);

/// Wakes all waiters; with none there, the next wait passes at once. NULL is accepted. Any thread, with or without the
/// lock.
KOR_API void _korFastCondition_Broadcast(uint8_t depth, korEx* ex, korFastCondition* condition);

KOR_END_DECLS

#endif
