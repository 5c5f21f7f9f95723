// korJobGroup.h - an ordered list of jobs on one executor: fetch whichever has finished, wait for all, cancel all,
// without a handle to each.
//
//     korJobGroup* group = _korJobGroup_Create(KOR_AT(ex, depth), executor, 0);
//     _korJobGroup_Run(KOR_AT(ex, depth), group, &first->job);
//     _korJobGroup_Run(KOR_AT(ex, depth), group, &second->job);
//     uint8_t timedOut;
//     korJob* done;
//     while ((done = _korJobGroup_Get(KOR_AT(ex, depth), group, 1000, &timedOut)) != NULL)
//         _korJob_Release(KOR_AT_D(depth, ex), done);
//     _korJobGroup_Release(KOR_AT_D(depth, ex), group);
//
// A group made with `autoPop` reaps itself: runners take finished jobs from its front, in order, and release them. It
// can still be joined. Without it, a group lives until its jobs have been fetched, joined or cancelled.
//
// A fetched job is the caller's, who owes it one _korJob_Release: that of the creator's reference. Nothing here lets a
// runner wait, so that a pool of one thread stays live.
//
// Any thread may call anything here.

#ifndef KORUTIL_KORJOBGROUP_H
#define KORUTIL_KORJOBGROUP_H

#include "korutil/korDpq.h"
#include "korutil/korExecutor.h"

KOR_BEGIN_DECLS

/// The group. Written by the library alone.
struct korJobGroup {
    uint64_t refCount;       ///< atomic; each job of the group holds one
    korMutex* mutex;         ///< guards the list and the sleeping
    korCondition* condition; ///< waiters sleep here
    korDpq* jobs;            ///< in the order of the runs; holds a reference on each
    korExecutor* executor;   ///< holds a reference; NULL in a group that never runs a job
    uint8_t autoPop;         ///< 1 = runners reap finished jobs
    uint64_t waiting;        ///< atomic: 0 nobody sleeps, 1 a thread sleeps or is about to, 2 it is being woken
};

/// Makes an empty group with one reference. NULL after a failure: code 2.
KOR_API korJobGroup* _korJobGroup_Create(korEx* ex, uint8_t depth, korExecutor* executor, uint8_t autoPop);

/// Adds a reference. NULL is accepted. Works with an error pending.
KOR_API void _korJobGroup_Retain(uint8_t depth, korEx* ex, korJobGroup* group);
/// Drops a reference; true if that was the last one, and the group is gone. NULL is accepted.
KOR_API bool _korJobGroup_Release(uint8_t depth, korEx* ex, korJobGroup* group);

/// Runs a job in the group. After a failure the list is as it was, and the job the caller's, ready as before. Errors of
/// _korJob_Run; code 2.
KOR_API void _korJobGroup_Run(korEx* ex, uint8_t depth, korJobGroup* group, korJob* job);

/// Takes the first finished job in the order of the list, waiting for one for at most `timeout` milliseconds
/// (KOR_NO_TIMEOUT: as long as it takes). NULL at once if the group is empty, and as soon as others have emptied it. If
/// the time runs out: NULL and `*timedOut` 1; with a limit `*timedOut` is 0 otherwise. Each job of the group that ends
/// starts the limit anew. Code 8 "This operation is not allowed  in the executor thread", within a job.
KOR_API korJob* _korJobGroup_Get(korEx* ex, uint8_t depth, korJobGroup* group, uint64_t timeout, uint8_t* timedOut);

/// Takes the first finished job in the order of the list, or gives NULL. Never waits, and may be called within a job.
KOR_API korJob* _korJobGroup_GetNoWait(korEx* ex, uint8_t depth, korJobGroup* group);

/// Waits until all jobs have ended and releases them in order, those that are added meanwhile included. Within a job it
/// does not wait: it releases those that have ended and leaves the others. NULL is accepted.
KOR_API void _korJobGroup_Join(korEx* ex, uint8_t depth, korJobGroup* group);

/// True if no job is left in the list, and with an error pending.
KOR_API bool _korJobGroup_IsEmpty(korEx* ex, uint8_t depth, korJobGroup* group);

/// Cancels all jobs that do not run yet; they leave the group, and their creators' references stay with the creators.
/// Jobs that run or have ended stay in the group, or with `dropReference` 1 leave it too: nobody fetches them then.
/// Whoever waits for an empty group goes on.
KOR_API void _korJobGroup_Cancel(korEx* ex, uint8_t depth, korJobGroup* group, uint8_t dropReference);

/// Runs `function(closure)` in the group. `unused` is not looked at. Errors of _korJobGroup_Run.
KOR_API void _korExecutor_RunSimpleTaskWithGroup(korEx* ex, uint8_t depth, korJobGroup* group,
                                                 korSimpleFunction function, void* closure, void* unused);
/// The same; with a NULL group on the library's executor for users' code if `useUserExecutor` is 1, else on that for
/// internal work. Errors of _korJobGroup_Run, _korExecutor_RunSimpleUserTask or _korExecutor_RunSimpleTask.
KOR_API void _korExecutor_RunSimpleTaskWithGroupAndFallback(korEx* ex, uint8_t depth, korJobGroup* group,
                                                            korSimpleFunction function, void* closure, void* unused,
                                                            uint8_t useUserExecutor);

/// If the group is not empty, prints "[ocDebug] TEXT cnt=COUNT\n" to standard error and flushes both standard streams.
KOR_API void _korDebug_JobGroup_PrintSize(korJobGroup* group, const char* text);

KOR_END_DECLS

#endif
