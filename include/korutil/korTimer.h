// korTimer.h - tasks at a time: once after a delay, or again and again at an interval.
//
// A timer is one dispatcher thread with a heap of tasks. The dispatcher never runs a task's callback: a task that is
// due is handed to the timer's executor as a job, so a slow callback delays itself only. A repeating task goes back
// into the heap when its callback has ended: the interval runs from the end of one run to the start of the next, and no
// task ever runs twice at a time. Different tasks run in parallel, as far as the executor has threads.
//
// Recipe of use:
//
//     korTimer* timer = _korTimer_GetGlobal(KOR_AT_D(depth, ex));
//     uint64_t id = _korTimer_ScheduleTask(KOR_AT(ex, depth), timer, tick, freeClosure, closure, 0, 500);
//     ...
//     _korTimer_CancelTask(KOR_AT_D(depth, ex), timer, id);
//     _korTimer_Release(KOR_AT_D(depth, ex), timer);
//
// A timer of one's own has an executor (korExecutor.h), which must run for as long as the timer does:
//
//     korTimer* timer = _korTimer_Create(KOR_AT(ex, depth), executor, "name");
//     _korTimer_Start(KOR_AT(ex, depth), timer);
//     ...
//     _korTimer_Stop(KOR_AT_D(depth, ex), timer);
//     _korTimer_Release(KOR_AT_D(depth, ex), timer);
//
// All times are milliseconds of a clock that only goes forward. A task may be late, but it is never early.
//
// The environment variable KOR_EXEC_CONF may hold "warnOnOverrunDur=<ms>", read as the library opens: a callback that
// takes longer than its task's interval by more than that, or that starts later than it should by more than that, is
// logged at level 120 in component 12. Without it no clock is read around callbacks.

#ifndef KORUTIL_KORTIMER_H
#define KORUTIL_KORTIMER_H

#include "korutil/korCondition.h"
#include "korutil/korI64Hash.h"
#include "korutil/korRadixHeap.h"
#include "korutil/korThread.h"

KOR_BEGIN_DECLS

struct korExecutor;
struct korTimer;

/// A task's work, called by a thread of the timer's executor. A failure that it leaves in `ex` is logged at level 110
/// in component 12 and ends the task. It may call everything here but _korTimer_Stop on its own timer, which would wait
/// for it.
typedef void (*korTimerCallback)(korEx* ex, uint8_t depth, struct korTimer* timer, uint64_t task, void* closure);

/// Called once when a task has ended and will not run again: on a thread of the executor, on the dispatcher as the
/// timer stops, or on the thread that cancelled the task.
typedef void (*korTimerDestroyCallback)(korEx* ex, uint8_t depth, void* closure);

/// A timer. Its fields are the library's own.
typedef struct korTimer {
    uint64_t refCount;            ///< atomic: the creator's, one for the dispatcher, one for each task
    uint8_t isGlobal;             ///< 1 = the library's own timer
    uint8_t waiting;              ///< 1 = the dispatcher waits for `condition`
    uint8_t state;                ///< 1 created, 2 running, 3 stopping, 4 stopped, 0 being destroyed
    uint32_t runningTasks;        ///< tasks handed to the executor and not yet back
    struct korExecutor* executor; ///< runs the callbacks
    korMutex* mutex;              ///< guards all fields but `refCount`, and the tasks
    korCondition* condition;      ///< wakes the dispatcher
    korI64Hash* tasks;            ///< task id to task
    uint64_t lastTaskId;          ///< ids are 1, 2, 3 and so on
    korRadixHeap heap;            ///< the tasks that wait for their time
    korCondition* startCondition; ///< the dispatcher has begun
    korThread* thread;            ///< the dispatcher
    char* name;                   ///< owned
} korTimer;

// ---- The global timer -----------------------------------------------------------------------------------------------

/// Makes and starts "globalTimer" on the global internal executor and reads KOR_EXEC_CONF. Part of opening the library.
/// Errors: those of making and starting a timer.
KOR_API void _korTimer_Open(korEx* ex, uint8_t depth);

/// Stops the global timer without waiting for callbacks that run, and gives it up. Part of closing the library.
KOR_API void _korTimer_Close(uint8_t depth, korEx* ex);

/// The global timer with a reference of the caller's, for _korTimer_Release. Code 9 (no description) if the opening has
/// not come to it or the closing has passed it. While the library is not open, NULL without an error. Any thread.
KOR_API korTimer* _korTimer_GetGlobal(uint8_t depth, korEx* ex);

// ---- Making, starting, stopping -------------------------------------------------------------------------------------

/// A timer whose callbacks run on `executor`, of which it takes a reference; `name` is copied and names the
/// dispatcher's thread. Tasks can be scheduled before the start. NULL with an error pending, and on a failure: code 1
/// (no description) without an executor or a name; code 2 "No memory creating the timer". Given up with
/// _korTimer_Release.
KOR_API korTimer* _korTimer_Create(korEx* ex, uint8_t depth, struct korExecutor* executor, const char* name);

/// Starts the dispatcher and returns when it runs. A task that was scheduled before starts one interval from now,
/// whatever its delay; one without an interval is due at once. Code 10 "Illegal to call _korTimer_Start on a global
/// timer"; code 10 "Timer not in the right state" if it was started before; those of _korThread_Create.
KOR_API void _korTimer_Start(korEx* ex, uint8_t depth, korTimer* timer);

/// Stops a running timer: nothing is handed to the executor any more, callbacks that run or are with it already are
/// waited for, tasks end. A callback must not stop its own timer like this: it would wait for itself. On a timer that
/// does not run it does nothing, and NULL is accepted. Code 10 "Illegal to call _korTimer_Stop on a global timer".
KOR_API void _korTimer_Stop(uint8_t depth, korEx* ex, korTimer* timer);

/// The same without waiting for callbacks: those that run, or are with the executor already, end by themselves and keep
/// the timer's memory till then.
KOR_API void _korTimer_StopNoWait(uint8_t depth, korEx* ex, korTimer* timer);

/// Takes a further reference. NULL is accepted, and so is any `ex` and `depth`: neither is looked at.
KOR_API void _korTimer_Retain(korEx* ex, uint8_t depth, korTimer* timer);

/// Gives a reference back; true if the timer is gone with it. A running timer lives on until it is stopped, and one
/// that was never started until its tasks are cancelled. NULL is accepted.
KOR_API bool _korTimer_Release(uint8_t depth, korEx* ex, korTimer* timer);

// ---- Tasks ----------------------------------------------------------------------------------------------------------

/// Has `callback` called after `delay` milliseconds (0: after `interval`), and from then on `interval` milliseconds
/// after the end of each run; with an interval of 0 only once. `destroyCallback` may be NULL. Gives the task's id,
/// which is never used again, or 0 on a failure: code 1 "Negative values are not allowed"; code 10 "Timer is stopping
/// or has been stopped"; code 2. After code 2 `destroyCallback` has been called; after a refusal (1 or 10) the closure
/// is still the caller's. Any thread, callbacks included.
KOR_API uint64_t _korTimer_ScheduleTask(korEx* ex, uint8_t depth, korTimer* timer, korTimerCallback callback,
                                        korTimerDestroyCallback destroyCallback, void* closure, int64_t delay,
                                        int64_t interval);

/// Ends a task. True: it is out, will not run, and its `destroyCallback` has been called. False: its callback runs or
/// is about to, maybe on this very thread, and the task ends after that; or it had been cancelled before. A NULL timer
/// or an id of 0 gives true, and so does an error: code 9 "Task not found"; code 10 "Timer is stopping or has been
/// stopped". Works with an error pending. Any thread, callbacks included.
KOR_API bool _korTimer_CancelTask(uint8_t depth, korEx* ex, korTimer* timer, uint64_t task);

/// Gives a task another interval. A task that waits for its time is moved to `interval` milliseconds from now; for one
/// that runs the new interval counts from the end of this run. A one-shot task stays one. A NULL timer or an id of 0
/// does nothing. Code 1 "Negative values are not allowed"; code 9 "Task not found"; code 10 "Task has already been
/// canceled" or "Timer is stopping or has been stopped". Works with an error pending. Any thread, callbacks included.
KOR_API void _korTimer_AdjustTask(uint8_t depth, korEx* ex, korTimer* timer, uint64_t task, int64_t interval);

KOR_END_DECLS

#endif
