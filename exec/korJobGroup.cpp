// korJobGroup.cpp - jobs in a list: reaped, fetched, joined and cancelled together.
//
// A group's mutex guards its list, not the states of its jobs: runners change those without it. Hence `waiting`: a
// waiter sets it and looks once more before it sleeps, a runner changes the state and then looks at it.

#include "korutil/korJobGroup.h"
#include "foundation/request.h"

#include "exec/executorInternal.h"
#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "korutil/korLogger.h"
#include "sync/mutexGuard.h"

#include <cstdio>

namespace kor {
namespace {

enum Waiting : uint64_t { nobodySleeps = 0, somebodySleeps = 1, isWoken = 2 };

korJob* jobAt(const korDpq* jobs, int32_t index)
{
    return reinterpret_cast<korJob*>(jobs->items[index]);
}

// Takes the first job that is done, in the order of the list; only the very first if `firstOnly`. Two references go,
// the list's and the handle's; the creator's is left, so the job does not go with them. Under the mutex.
korJob* _getFirstReadyJobUnsafe(uint8_t depth, korEx* ex, korJobGroup* group, bool firstOnly)
{
    korDpq* jobs = group->jobs;
    int32_t looks = firstOnly && jobs->count > 1 ? 1 : jobs->count;
    for (int32_t i = 0; i < looks; i++) {
        int32_t index = korDpq_wrap(jobs, static_cast<uint32_t>(jobs->first + i));
        korJob* job = jobAt(jobs, index);
        if (stateOf(job) == KOR_JOB_DONE) {
            _korDpq_Remove(jobs, index);
            setState(job, KOR_JOB_PROCESSED);
            _korJob_Release(KOR_AT_D(depth, ex), job);
            _korJob_Release(KOR_AT_D(depth, ex), job);
            return job;
        }
    }
    return nullptr;
}

korJob* fetchReady(uint8_t depth, korEx* ex, korJobGroup* group, bool firstOnly)
{
    MutexGuard guard(group->mutex);
    return _getFirstReadyJobUnsafe(KOR_AT_D(depth, ex), group, firstOnly);
}

// Jobs are released without the mutex: their freeing is foreign code.
void _popReadyJobs(uint8_t depth, korEx* ex, korJobGroup* group, bool firstOnly)
{
    while (ex->code == 0) {
        korJob* job = fetchReady(KOR_AT_D(depth, ex), group, firstOnly);
        if (job == nullptr) {
            return;
        }
        _korJob_Release(KOR_AT_D(depth, ex), job);
    }
}

// From here on every runner that ends a job looks after this group; a job that ended before is found by the look that
// follows. Under the mutex.
void announceSleep(korJobGroup* group)
{
    KOR_ATOMIC_STORE(&group->waiting, somebodySleeps);
    hostileYield();
}

// The mutex closes the gap between a waiter's last look and its sleep.
void wakeSleepers(uint8_t depth, korEx* ex, korJobGroup* group)
{
    uint64_t seen = somebodySleeps;
    if (KOR_ATOMIC_LOAD(&group->waiting) == seen && KOR_ATOMIC_CAS(&group->waiting, &seen, isWoken)) {
        MutexGuard guard(group->mutex);
        _korCondition_Broadcast(KOR_AT_D(depth, ex), group->condition);
    }
}

// NULL when the list is empty, the time has run out or the wait has failed.
korJob* awaitReady(korEx* ex, uint8_t depth, korJobGroup* group, uint64_t timeout, uint8_t* timedOut)
{
    MutexGuard guard(group->mutex);
    while (ex->code == 0 && group->jobs->count > 0) {
        announceSleep(group);
        korJob* job = _getFirstReadyJobUnsafe(KOR_AT_D(depth, ex), group, false);
        if (job != nullptr) {
            return job;
        }
        if (waitWithLimit(KOR_AT_D(depth, ex), group->condition, group->mutex, timeout)) {
            *timedOut = 1;
            return nullptr;
        }
    }
    return nullptr;
}

// Sleeps until the first job is done or gone. False if the list is empty.
bool awaitFirst(korEx* ex, uint8_t depth, korJobGroup* group)
{
    MutexGuard guard(group->mutex);
    korDpq* jobs = group->jobs;
    if (jobs->count > 0) {
        announceSleep(group);
        if (stateOf(jobAt(jobs, jobs->first)) != KOR_JOB_DONE) {
            _korCondition_Wait(KOR_AT_D(depth, ex), group->condition, group->mutex);
        }
    }
    return jobs->count > 0;
}

// Room in the list first: a job that runs must be in it.
bool prepareRun(korEx* ex, uint8_t depth, korJobGroup* group, korJob* job)
{
    if (stateOf(job) != KOR_JOB_INITIALIZED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Job is not initialized");
        return false;
    }
    if (static_cast<uint32_t>(group->jobs->count) == group->jobs->mask) {
        _korDpq_Grow(KOR_AT(ex, depth), group->jobs);
    }
    if (ex->code != 0) {
        return false;
    }
    _korJobGroup_Retain(KOR_AT_D(depth, ex), group);
    _korJobGroup_Release(KOR_AT_D(depth, ex), job->group); // of a run that failed
    job->group = group;
    return true;
}

// Nobody else can release what the library made: a simple job goes with its place in the list.
void dropFromList(uint8_t depth, korEx* ex, korJob* job)
{
    bool isSimple = isSimpleJob(job);
    _korJob_Release(KOR_AT_D(depth, ex), job);
    if (isSimple) {
        _korJob_Release(KOR_AT_D(depth, ex), job);
    }
}

void cancelAll(korEx* ex, uint8_t depth, korJobGroup* group, uint8_t dropReference)
{
    MutexGuard guard(group->mutex);
    korDpq* jobs = group->jobs;
    for (int32_t i = 0; i < jobs->count;) {
        int32_t index = korDpq_wrap(jobs, static_cast<uint32_t>(jobs->first + i));
        korJob* job = jobAt(jobs, index);
        bool cancelled = _korJob_Cancel(KOR_AT(ex, depth), job, dropReference) != nullptr;
        if (cancelled || dropReference == 1) {
            _korDpq_Remove(jobs, index);
            dropFromList(KOR_AT_D(depth, ex), job);
        } else {
            i++;
        }
    }
}

void _jobGroup_Destroy(uint8_t depth, korEx* ex, korJobGroup* group)
{
    _korMutex_Destroy(KOR_AT_D(depth, ex), group->mutex);
    _korCondition_Destroy(KOR_AT_D(depth, ex), group->condition);
    _korDpq_Destroy(KOR_AT_D(depth, ex), group->jobs);
    _korExecutor_Release(KOR_AT_D(depth, ex), group->executor);
    _kor_free(KOR_AT_D(depth, ex), group);
}

} // namespace

void _notifyGroupGet(uint8_t depth, korEx* ex, korJobGroup* group)
{
    if (group->autoPop != 0) {
        _popReadyJobs(KOR_AT_D(depth, ex), group, true);
    }
    wakeSleepers(KOR_AT_D(depth, ex), group);
}

} // namespace kor

using namespace kor;

korJobGroup* _korJobGroup_Create(korEx* ex, uint8_t depth, korExecutor* executor, uint8_t autoPop)
{
    constexpr int32_t initialSize = 4;
    if (ex->code != 0) {
        return nullptr;
    }
    auto* group = requestZeroed<korJobGroup>(KOR_AT(ex, depth));
    if (group == nullptr) {
        return nullptr;
    }
    group->refCount = 1;
    group->autoPop = autoPop;
    group->executor = executor;
    _korExecutor_Retain(KOR_AT_D(depth, ex), executor);
    group->mutex = _korMutex_Create(KOR_AT(ex, depth));
    group->condition = _korCondition_Create(KOR_AT_D(depth, ex));
    group->jobs = _korDpq_Create(KOR_AT(ex, depth), initialSize);
    if (ex->code != 0) {
        _jobGroup_Destroy(KOR_AT_D(depth, ex), group);
        return nullptr;
    }
    return group;
}

void _korJobGroup_Retain(uint8_t, korEx*, korJobGroup* group)
{
    if (group != nullptr) {
        KOR_ATOMIC_ADD(&group->refCount, 1);
    }
}

bool _korJobGroup_Release(uint8_t depth, korEx* ex, korJobGroup* group)
{
    if (group == nullptr || KOR_ATOMIC_ADD(&group->refCount, static_cast<uint64_t>(-1)) != 1) {
        return false;
    }
    _jobGroup_Destroy(KOR_AT_D(depth, ex), group);
    return true;
}

// The mutex is held until the job is in the list, so a runner that is quicker finds it there.
void _korJobGroup_Run(korEx* ex, uint8_t depth, korJobGroup* group, korJob* job)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(group->mutex);
    if (!prepareRun(KOR_AT(ex, depth), group, job)) {
        return;
    }
    if (_korJob_Run(KOR_AT(ex, depth), group->executor, job) != nullptr) {
        _korDpq_Push(KOR_AT(ex, depth), group->jobs, reinterpret_cast<uint64_t>(job));
        _korJob_Retain(KOR_AT_D(depth, ex), job);
    }
}

korJob* _korJobGroup_Get(korEx* ex, uint8_t depth, korJobGroup* group, uint64_t timeout, uint8_t* timedOut)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (_korJob_GetActiveJob(ex) != nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_PERMITTED, "This operation is not allowed  in the executor thread");
        return nullptr;
    }
    if (timeout != KOR_NO_TIMEOUT) {
        *timedOut = 0;
    }
    korJob* job = fetchReady(KOR_AT_D(depth, ex), group, false);
    return job != nullptr ? job : awaitReady(KOR_AT(ex, depth), group, timeout, timedOut);
}

korJob* _korJobGroup_GetNoWait(korEx* ex, uint8_t depth, korJobGroup* group)
{
    return ex->code == 0 ? fetchReady(KOR_AT_D(depth, ex), group, false) : nullptr;
}

void _korJobGroup_Join(korEx* ex, uint8_t depth, korJobGroup* group)
{
    if (group == nullptr || ex->code != 0) {
        return;
    }
    if (korJob* active = _korJob_GetActiveJob(ex)) {
        KOR_LOG(executorComponent, KOR_LOG_DEBUG, "Calling GetNoWait - Already executing inside job: 0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(active)));
        _popReadyJobs(KOR_AT_D(depth, ex), group, false);
        return;
    }
    do {
        _popReadyJobs(KOR_AT_D(depth, ex), group, true);
    } while (ex->code == 0 && awaitFirst(KOR_AT(ex, depth), group));
}

bool _korJobGroup_IsEmpty(korEx* ex, uint8_t, korJobGroup* group)
{
    if (ex->code != 0) {
        return true;
    }
    MutexGuard guard(group->mutex);
    return group->jobs->count == 0;
}

void _korJobGroup_Cancel(korEx* ex, uint8_t depth, korJobGroup* group, uint8_t dropReference)
{
    if (ex->code != 0) {
        return;
    }
    cancelAll(KOR_AT(ex, depth), group, dropReference);
    wakeSleepers(KOR_AT_D(depth, ex), group);
}

void _korExecutor_RunSimpleTaskWithGroup(korEx* ex, uint8_t depth, korJobGroup* group, korSimpleFunction function,
                                         void* closure, void*)
{
    korJob* job = makeSimpleJob(KOR_AT(ex, depth), function, closure);
    if (job == nullptr) {
        return;
    }
    _korJobGroup_Run(KOR_AT(ex, depth), group, job);
    if (ex->code != 0) {
        _korJob_Release(KOR_AT_D(depth, ex), job);
    }
}

void _korExecutor_RunSimpleTaskWithGroupAndFallback(korEx* ex, uint8_t depth, korJobGroup* group,
                                                    korSimpleFunction function, void* closure, void* unused,
                                                    uint8_t useUserExecutor)
{
    if (group != nullptr) {
        _korExecutor_RunSimpleTaskWithGroup(KOR_AT(ex, depth), group, function, closure, unused);
    } else if (useUserExecutor == 1) {
        _korExecutor_RunSimpleUserTask(KOR_AT(ex, depth), function, closure);
    } else {
        _korExecutor_RunSimpleTask(KOR_AT(ex, depth), function, closure);
    }
}

void _korDebug_JobGroup_PrintSize(korJobGroup* group, const char* text)
{
    korMutex_enter(group->mutex);
    int32_t count = group->jobs->count;
    korMutex_leave(group->mutex);
    if (count > 0) {
        fflush(stdout);
        fflush(stderr);
        fprintf(stderr, "[ocDebug] %s cnt=%d\n", text, count);
        fflush(stderr);
    }
}
