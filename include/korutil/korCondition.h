// korCondition.h - a condition made of an auto-reset event, a count of waiters and a broadcast flag; and korTargetTime,
// the time-out of a wait that is repeated.
//
// One event wakes one waiter. A broadcast sets the flag and wakes the first; under the mutex each waiter wakes the
// next, and the last one ends the broadcast. An event keeps its state until a thread takes it, so no wake-up is lost,
// and a signal or a broadcast that found nobody lets one later wait pass: every caller waits in a loop.
//
// Recipe of use:
//
//     korMutex_enter(&mutex);
//     while (!ready)
//         _korCondition_Wait(KOR_AT_D(depth, ex), &condition, &mutex);
//     korMutex_leave(&mutex);
//
// All functions take (depth, ex): they do their work with an error pending. A NULL condition is accepted everywhere.

#ifndef KORUTIL_KORCONDITION_H
#define KORUTIL_KORCONDITION_H

#include "korutil/korMutex.h"

KOR_BEGIN_DECLS

/// All waiters of a condition, and all who change what it is about, use one mutex.
typedef struct korCondition {
    uint64_t event;     ///< the system's auto-reset event; 0 = none
    uint32_t waiters;   ///< atomic: threads inside a wait
    uint32_t broadcast; ///< atomic: set by a broadcast, cleared by the last waiter to leave
} korCondition;

/// What is left of a time-out over repeated waits. A zeroed record is unstarted; the caller of the waits keeps it.
typedef struct korTargetTime {
    uint8_t started;   ///< 1 = the fields below hold
    double startTime;  ///< seconds; when `remaining` was last brought up to date
    int64_t remaining; ///< milliseconds left, at least 0
} korTargetTime;

/// Starts an unstarted record with `timeout` milliseconds, or takes the time that has gone by since the last call off a
/// started one, down to 0: repeated waits with one record add up to the first time-out. A clock that was set back takes
/// nothing off, and adds nothing. Follows the wall clock.
KOR_API void _korTargetTime_SetRemaining(korTargetTime* target, int64_t timeout);

/// Makes a condition of a caller's storage. Raises code 2 (no description) if the system has no event left.
KOR_API void _korCondition_Init(uint8_t depth, korEx* ex, korCondition* condition);

/// Ends a condition that no thread waits for. One without an event is accepted. The storage stays the caller's.
KOR_API void _korCondition_Clear(uint8_t depth, korEx* ex, korCondition* condition);

/// Makes a condition on the heap. Gives NULL with an error pending, or with code 2 (no description) if there is no
/// memory or no event. Freed with _korCondition_Destroy.
KOR_API korCondition* _korCondition_Create(uint8_t depth, korEx* ex);

/// Frees a condition of _korCondition_Create that no thread waits for.
KOR_API void _korCondition_Destroy(uint8_t depth, korEx* ex, korCondition* condition);

/// Wakes one waiter; with none there, the next wait passes at once. Any thread, with or without the mutex. Reports
/// nothing.
KOR_API void _korCondition_SignalDebug(uint8_t depth, korEx* ex, korCondition* condition);

/// Wakes all waiters, one after the other; with none there, the next wait passes at once. Any thread, with or without
/// the mutex. A thread that begins to wait before the last one has left may be woken too.
KOR_API void _korCondition_Broadcast(uint8_t depth, korEx* ex, korCondition* condition);

/// Waits for a signal or a broadcast. The caller holds `mutex` exactly once: it is left for the time of the wait and
/// held again on return, whatever happens. A NULL `mutex` returns at once. If the system's wait fails: code 6,
/// "Condition wait".
KOR_API void _korCondition_Wait(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex);

/// The same for at most `timeout` milliseconds; 0xFFFFFFFF is no limit. True if the time ran out.
KOR_API bool _korCondition_TimedWait(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex,
                                     uint32_t timeout);

/// The same for what is left of `target`, which the first of a row of waits starts with `timeout` milliseconds. A
/// negative time-out is no limit and leaves `target` alone. If the time runs out, `*timedOut` becomes 1 (it is not
/// written otherwise); with a NULL `timedOut` that is an error: code 6, "Condition wait".
KOR_API void _korCondition_WaitEx(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex, int64_t timeout,
                                  korTargetTime* target, uint8_t* timedOut);

KOR_END_DECLS

#endif
