// korExecutor.cpp - executors: their start, their stop, their settings and counters. Jobs are in korJob.cpp, the runner
// threads in runner.cpp.

#include "korutil/korExecutor.h"
#include "foundation/request.h"

#include "exec/executorInternal.h"
#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "sync/mutexGuard.h"

#include <cstring>

namespace kor {
namespace {

constexpr int32_t runnerType = 3; // for _korThread_Type
constexpr uint32_t defaultRunners = 4;

// ---- Records --------------------------------------------------------------------------------------------------------

void* allocateZeroed(korEx* ex, uint8_t depth, size_t count, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return granted<void>(KOR_AT(ex, depth), _kor_calloc(KOR_AT(ex, depth), count, size));
}

korThreadInfo* _ThreadInfo_Create(korEx* ex, uint8_t depth)
{
    auto* info = static_cast<korThreadInfo*>(allocateZeroed(KOR_AT(ex, depth), 1, sizeof(korThreadInfo)));
    if (info == nullptr) {
        return nullptr;
    }
    info->refCount = 1;
    info->mutex = _korMutex_Create(KOR_AT(ex, depth));
    info->condition = _korCondition_Create(KOR_AT_D(depth, ex));
    if (ex->code != 0) {
        _ThreadInfo_Release(KOR_AT_D(depth, ex), info);
        return nullptr;
    }
    return info;
}

void destroyExecutor(uint8_t depth, korEx* ex, korExecutor* executor)
{
    _korThreadPool_Release(KOR_AT_D(depth, ex), executor->threadPool);
    for (uint32_t i = 0; executor->threadInfos != nullptr && i < executor->poolSize; i++) {
        _ThreadInfo_Release(KOR_AT_D(depth, ex), executor->threadInfos[i]);
    }
    _kor_free(KOR_AT_D(depth, ex), executor->threadInfos);
    _korFastQueue_Destroy(KOR_AT_D(depth, ex), executor->jobQueue);
    _korCondition_Destroy(KOR_AT_D(depth, ex), executor->idleCondition);
    _korMutex_Destroy(KOR_AT_D(depth, ex), executor->idleMutex);
    _korCondition_Destroy(KOR_AT_D(depth, ex), executor->startCondition);
    _korMutex_Destroy(KOR_AT_D(depth, ex), executor->mutex);
    _kor_free(KOR_AT_D(depth, ex), executor->counterStore);
    _kor_free(KOR_AT_D(depth, ex), executor);
}

// ---- Start and stop -------------------------------------------------------------------------------------------------

void job_killer(void* closure)
{
    KOR_EX_LOCAL(ex);
    auto* executor = static_cast<korExecutor*>(closure);
    for (uint32_t i = 0; i < executor->poolSize; i++) {
        korThreadInfo* info = executor->threadInfos[i];
        MutexGuard guard(info->mutex);
        info->kill = 1;
        _korCondition_Broadcast(KOR_AT_D(0, &ex), info->condition);
    }
}

void makeThreadInfos(korEx* ex, uint8_t depth, korExecutor* executor)
{
    if (executor->poolSize > INT32_MAX) { // it was set to a negative number
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return;
    }
    executor->threadInfos =
        static_cast<korThreadInfo**>(allocateZeroed(KOR_AT(ex, depth), executor->poolSize, sizeof(korThreadInfo*)));
    for (uint32_t i = 0; ex->code == 0 && i < executor->poolSize; i++) {
        executor->threadInfos[i] = _ThreadInfo_Create(KOR_AT(ex, depth));
    }
}

// What the threads will give back when they end.
void retainForThreads(korExecutor* executor)
{
    KOR_ATOMIC_ADD(&executor->refCount, executor->poolSize);
    for (uint32_t i = 0; i < executor->poolSize; i++) {
        KOR_ATOMIC_ADD(&executor->threadInfos[i]->refCount, 1);
    }
}

uint32_t startedThreads(const korThreadPool* pool)
{
    uint32_t started = 0;
    for (int32_t i = 0; pool->threads != nullptr && i < pool->maxSize; i++) {
        started += pool->threads[i] != nullptr;
    }
    return started;
}

// Threads that were started come, find that there is nothing to run, and give their references back themselves.
void releaseThreads(uint8_t depth, korEx* ex, korExecutor* executor)
{
    for (uint32_t i = startedThreads(executor->threadPool); i < executor->poolSize; i++) {
        _ThreadInfo_Release(KOR_AT_D(depth, ex), executor->threadInfos[i]);
        _korExecutor_Release(KOR_AT_D(depth, ex), executor);
    }
}

void startRunners(korEx* ex, uint8_t depth, korExecutor* executor)
{
    retainForThreads(executor);
    setState(executor, KOR_EXECUTOR_RUNNING);
    _korThreadPool_Start(KOR_AT(ex, depth), executor->threadPool);
    while (ex->code == 0 && executor->nextThreadIndex < executor->poolSize) {
        _korCondition_Wait(KOR_AT_D(depth, ex), executor->startCondition, executor->mutex);
    }
    if (ex->code != 0) {
        setState(executor, KOR_EXECUTOR_FAILED);
        job_killer(executor);
        releaseThreads(KOR_AT_D(depth, ex), executor);
    }
}

bool runsHere(const korExecutor* executor)
{
    const ActiveRunner* runner = activeRunner();
    return runner != nullptr && runner->executor == executor;
}

// A runner must not sleep for the mutex: whoever stops the executor holds it, and waits for the runner. False if
// somebody else does the stop.
bool enterToStop(korExecutor* executor)
{
    if (!runsHere(executor)) {
        korMutex_enter(executor->mutex);
        return true;
    }
    bool entered = false;
    spinUntil([&] {
        entered = korMutex_tryEnter(executor->mutex);
        return entered || stateOf(executor) != KOR_EXECUTOR_RUNNING;
    });
    return entered;
}

void stopRunners(uint8_t depth, korEx* ex, korExecutor* executor)
{
    setState(executor, KOR_EXECUTOR_STOPPING);
    hostileYield();
    spinUntil([&] { return KOR_ATOMIC_LOAD(&executor->runsInProgress) == 0; });
    _korThreadPool_Stop(KOR_AT_D(depth, ex), executor->threadPool);
    _korThreadPool_Join(KOR_AT_D(depth, ex), executor->threadPool);
    setState(executor, KOR_EXECUTOR_STOPPED);
}

// ---- Counters -------------------------------------------------------------------------------------------------------

// The store outlives a switching off: a runner may be about to count just then.
void enableCounters(korEx* ex, uint8_t depth, korExecutor* executor)
{
    constexpr size_t kinds = 3;
    if (executor->startCounts != nullptr) {
        return;
    }
    if (executor->counterStore == nullptr) {
        executor->counterStore =
            static_cast<uint64_t*>(allocateZeroed(KOR_AT(ex, depth), kinds * KOR_JOB_TYPES, sizeof(uint64_t)));
    }
    uint64_t* store = executor->counterStore;
    if (store == nullptr) {
        return;
    }
    for (size_t i = 0; i < kinds * KOR_JOB_TYPES; i++) {
        KOR_ATOMIC_STORE_RELAXED(&store[i], 0);
    }
    KOR_ATOMIC_STORE_RELEASE(&executor->startCounts, store);
    KOR_ATOMIC_STORE_RELEASE(&executor->finishCounts, store + KOR_JOB_TYPES);
    KOR_ATOMIC_STORE_RELEASE(&executor->cancelCounts, store + size_t{2} * KOR_JOB_TYPES);
}

void disableCounters(korExecutor* executor)
{
    KOR_ATOMIC_STORE_RELAXED(&executor->startCounts, nullptr);
    KOR_ATOMIC_STORE_RELAXED(&executor->finishCounts, nullptr);
    KOR_ATOMIC_STORE_RELAXED(&executor->cancelCounts, nullptr);
}

uint64_t counted(const korEx* ex, const korExecutor* executor, uint64_t* korExecutor::*counters, uint32_t type)
{
    if (ex->code != 0 || type >= KOR_JOB_TYPES) {
        return 0;
    }
    const uint64_t* present = KOR_ATOMIC_LOAD_ACQUIRE(&(executor->*counters));
    return present != nullptr ? KOR_ATOMIC_LOAD(&present[type]) : 0;
}

} // namespace

void _ThreadInfo_Release(uint8_t depth, korEx* ex, korThreadInfo* info)
{
    if (info == nullptr || KOR_ATOMIC_ADD(&info->refCount, static_cast<uint64_t>(-1)) != 1) {
        return;
    }
    _korCondition_Destroy(KOR_AT_D(depth, ex), info->condition);
    _korMutex_Destroy(KOR_AT_D(depth, ex), info->mutex);
    _kor_free(KOR_AT_D(depth, ex), info);
}

void _korExecutor_WarnOnTaskDuration(korEx* ex, uint8_t depth, korExecutor* executor, int64_t milliseconds)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(executor->mutex);
    if (stateOf(executor) != KOR_EXECUTOR_CREATED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE,
                  "Cannot set Warn on task duration for an executor after it has been started or stopped.");
    } else if (milliseconds < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Cannot set Warn on task duration to a negative value..");
    }
    KOR_ATOMIC_STORE_RELAXED(&executor->warnOnTaskDur, milliseconds);
}

} // namespace kor

using namespace kor;

korExecutor* _korExecutor_Create(korEx* ex, uint8_t depth)
{
    auto* executor = static_cast<korExecutor*>(allocateZeroed(KOR_AT(ex, depth), 1, sizeof(korExecutor)));
    if (executor == nullptr) {
        return nullptr;
    }
    executor->refCount = 1;
    executor->poolSize = defaultRunners;
    executor->threadPool =
        _korThreadPool_Create(KOR_AT(ex, depth), job_runner, job_killer, executor, runnerType, "Executor");
    _korThreadPool_SetMaxSize(KOR_AT(ex, depth), executor->threadPool, static_cast<int32_t>(executor->poolSize));
    executor->jobQueue = _korFastQueue_Create(KOR_AT(ex, depth));
    executor->startCondition = _korCondition_Create(KOR_AT_D(depth, ex));
    executor->mutex = _korMutex_Create(KOR_AT(ex, depth));
    executor->idleCondition = _korCondition_Create(KOR_AT_D(depth, ex));
    executor->idleMutex = _korMutex_Create(KOR_AT(ex, depth));
    if (ex->code != 0) {
        destroyExecutor(KOR_AT_D(depth, ex), executor);
        return nullptr;
    }
    return executor;
}

void _korExecutor_Retain(uint8_t, korEx*, korExecutor* executor)
{
    if (executor != nullptr) {
        KOR_ATOMIC_ADD(&executor->refCount, 1);
    }
}

bool _korExecutor_Release(uint8_t depth, korEx* ex, korExecutor* executor)
{
    if (executor == nullptr || KOR_ATOMIC_ADD(&executor->refCount, static_cast<uint64_t>(-1)) != 1) {
        return false;
    }
    destroyExecutor(KOR_AT_D(depth, ex), executor);
    return true;
}

void _korExecutor_Start(korEx* ex, uint8_t depth, korExecutor* executor)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(executor->mutex);
    if (executor->isGlobal != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korExecutor_Start on a global executor");
        return;
    }
    if (stateOf(executor) != KOR_EXECUTOR_CREATED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Cannot restart an executor after start.");
        return;
    }
    makeThreadInfos(KOR_AT(ex, depth), executor);
    if (ex->code != 0) {
        setState(executor, KOR_EXECUTOR_FAILED);
        return;
    }
    startRunners(KOR_AT(ex, depth), executor);
}

void _korExecutor_Stop(uint8_t depth, korEx* ex, korExecutor* executor)
{
    if (executor == nullptr || !enterToStop(executor)) {
        return;
    }
    if (stateOf(executor) == KOR_EXECUTOR_RUNNING) {
        stopRunners(KOR_AT_D(depth, ex), executor);
    }
    korMutex_leave(executor->mutex);
}

void _korExecutor_SetPoolSize(korEx* ex, uint8_t depth, korExecutor* executor, int32_t size)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(executor->mutex);
    if (stateOf(executor) != KOR_EXECUTOR_CREATED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE,
                  "Cannot set the pool size for an executor after it has been started or stopped.");
        return;
    }
    if (size == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT,
                  "Cannot set the pool size to 0. Create an executor with no thread pool instead.");
        return;
    }
    executor->poolSize = static_cast<uint32_t>(size);
    _korThreadPool_SetMaxSize(KOR_AT(ex, depth), executor->threadPool, size);
}

void _korExecutor_SetSpinCount(korEx* ex, uint8_t, korExecutor* executor, int32_t count)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(executor->mutex);
    KOR_ATOMIC_STORE_RELAXED(&executor->spinCount, count);
}

void _korExecutor_SetCountersEnabled(korEx* ex, uint8_t depth, korExecutor* executor, bool enabled)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(executor->mutex);
    if (enabled) {
        enableCounters(KOR_AT(ex, depth), executor);
    } else {
        disableCounters(executor);
    }
}

uint64_t _korExecutor_StartCountForType(korEx* ex, uint8_t, korExecutor* executor, uint32_t type)
{
    return counted(ex, executor, &korExecutor::startCounts, type);
}

uint64_t _korExecutor_FinishCountForType(korEx* ex, uint8_t, korExecutor* executor, uint32_t type)
{
    return counted(ex, executor, &korExecutor::finishCounts, type);
}

uint64_t _korExecutor_CancelCountForType(korEx* ex, uint8_t, korExecutor* executor, uint32_t type)
{
    return counted(ex, executor, &korExecutor::cancelCounts, type);
}
