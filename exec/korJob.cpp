// korJob.cpp - jobs: their states, their references, and the hand-shake between a runner and whoever waits for the end.
//
// The states of a job change by compare-and-swap wherever two threads can want to change them: runner and canceller,
// or two who fetch. Whoever moves a job out of a state owns what follows.

#include "exec/executorInternal.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korThreadLocal.h"
#include "sync/mutexGuard.h"

#include <cstring>

static_assert(offsetof(korJob, next) == 0 && offsetof(korJob, refCount) == 8,
              "the queue links through the first field");

namespace kor {
namespace {

// Of `korJob.waitState`. The runner moves 0 to 3, the waiter 0 to 1 and on to 2: whoever comes first decides whether
// there is somebody to wake.
enum WaitState : uint64_t { nobodyWaits = 0, waiterArrives = 1, waiterIsThere = 2, jobEndedFirst = 3 };

constexpr uint64_t handleAndQueue = 2; // references that a run adds
constexpr uint64_t creatorsIsQueues = 0;

constexpr char notRunning[] = "Executor is not running, is stopping or has been stopped";

int32_t activeRunnerKey = 0; // atomic

// ---- The life of a job ----------------------------------------------------------------------------------------------

void initialize(korJob* job, int32_t type, korJobFunction mainFunction, korJobRecycleFunction recycleFunction,
                korJobFunction freeFunction)
{
    memset(job, 0, sizeof *job);
    job->refCount = 1;
    job->freeFunction = freeFunction;
    job->mainFunction = mainFunction;
    job->recycleFunction = recycleFunction;
    job->type = type;
    setState(job, KOR_JOB_INITIALIZED);
}

// A forgotten job that was cancelled is processed at once, but a queue that holds it must not get it again.
bool beginReset(korJob* job)
{
    if (!moveState(job, KOR_JOB_PROCESSED, KOR_JOB_FREE)) {
        return false;
    }
    if (KOR_ATOMIC_LOAD_ACQUIRE(&job->runnerHas) == runnerWillTake) {
        setState(job, KOR_JOB_PROCESSED);
        return false;
    }
    return true;
}

void dropRun(uint8_t depth, korEx* ex, korJob* job)
{
    korJobGroup* group = job->group;
    korExecutor* executor = job->executor;
    korEx* exception = job->exception;
    job->group = nullptr;
    job->executor = nullptr;
    job->exception = nullptr;
    _korEx_Destroy(exception);
    _korJobGroup_Release(KOR_AT_D(depth, ex), group);
    _korExecutor_Release(KOR_AT_D(depth, ex), executor);
}

// Mutex and condition stay for the next use.
void _jobReset(uint8_t depth, korEx* ex, korJob* job)
{
    dropRun(KOR_AT_D(depth, ex), job);
    job->runAndForget = 0;
    setState(job, KOR_JOB_INITIALIZED);
}

// True if the job lives on; it may then be at work again already.
bool recycle(uint8_t depth, korEx* ex, korJob* job)
{
    if (job->recycleFunction == nullptr) {
        return false;
    }
    KOR_ATOMIC_STORE_RELAXED(&job->refCount, 1);
    _jobReset(KOR_AT_D(depth, ex), job);
    if (job->recycleFunction(KOR_AT(ex, depth), job)) {
        return true;
    }
    KOR_ATOMIC_ADD(&job->refCount, static_cast<uint64_t>(-1));
    return false;
}

void destroyJob(uint8_t depth, korEx* ex, korJob* job)
{
    KOR_ATOMIC_STORE_RELAXED(&job->state, KOR_JOB_FREE);
    _korCondition_Destroy(KOR_AT_D(depth, ex), job->condition);
    _korMutex_Destroy(KOR_AT_D(depth, ex), job->mutex);
    dropRun(KOR_AT_D(depth, ex), job);
    job->freeFunction(KOR_AT(ex, depth), job);
}

// ---- The run --------------------------------------------------------------------------------------------------------

// While one lives, a stop waits: no job is pushed behind its back.
class RunInProgress
{
public:
    explicit RunInProgress(korExecutor* executor) : count_(executor->runsInProgress) { count_.fetch_add(1); }
    ~RunInProgress() { count_.fetch_sub(1); }
    RunInProgress(const RunInProgress&) = delete;
    RunInProgress& operator=(const RunInProgress&) = delete;

private:
    std::atomic_ref<uint64_t> count_;
};

// The push comes before the look at the sleepers, and a runner announces its sleep before its last look at the queue:
// one of the two sees the other. A look without a compare-and-swap leaves the records of busy runners in their caches.
void wakeRunners(uint8_t depth, korEx* ex, korExecutor* executor)
{
    for (uint32_t i = 0; i < executor->poolSize; i++) {
        korThreadInfo* info = executor->threadInfos[i];
        uint64_t announced = 1;
        if (KOR_ATOMIC_LOAD(&info->sleepState) == announced && KOR_ATOMIC_CAS(&info->sleepState, &announced, 2)) {
            hostileYield();
            MutexGuard guard(info->mutex);
            info->wake = 1;
            _korCondition_Broadcast(KOR_AT_D(depth, ex), info->condition);
        }
    }
}

// From the push on the job belongs to the runners, and may be gone.
void enqueue(korEx* ex, uint8_t depth, korExecutor* executor, korJob* job, uint64_t references)
{
    if (references != creatorsIsQueues) {
        KOR_ATOMIC_ADD(&job->refCount, references);
    }
    _korExecutor_Retain(KOR_AT_D(depth, ex), executor);
    job->executor = executor;
    job->runAndForget = references == creatorsIsQueues;
    KOR_ATOMIC_STORE_RELAXED(&job->waitState, nobodyWaits);
    KOR_ATOMIC_STORE_RELAXED(&job->runnerHas, runnerWillTake);
    setState(job, KOR_JOB_QUEUED);
    countJob(executor->startCounts, job->type);
    hostileYield();
    _korFastQueue_Push(KOR_AT(ex, depth), executor->jobQueue, job);
    wakeRunners(KOR_AT_D(depth, ex), executor);
}

bool handOver(korEx* ex, uint8_t depth, korExecutor* executor, korJob* job, uint64_t references)
{
    if (executor == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, notRunning);
        return false;
    }
    RunInProgress inProgress(executor);
    hostileYield();
    if (stateOf(executor) != KOR_EXECUTOR_RUNNING) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, notRunning);
        return false;
    }
    if (stateOf(job) != KOR_JOB_INITIALIZED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Job is not initialized");
        return false;
    }
    enqueue(KOR_AT(ex, depth), executor, job, references);
    return true;
}

// ---- The end and those who wait for it ------------------------------------------------------------------------------

void wakeWaiter(uint8_t depth, korEx* ex, korJob* job)
{
    uint64_t seen = nobodyWaits;
    if (KOR_ATOMIC_CAS(&job->waitState, &seen, jobEndedFirst)) {
        return;
    }
    hostileYield();
    spinUntil([&] { return (seen = KOR_ATOMIC_LOAD(&job->waitState)) != waiterArrives; });
    if (seen == waiterIsThere) {
        MutexGuard guard(job->mutex);
        _korCondition_Broadcast(KOR_AT_D(depth, ex), job->condition);
    }
}

bool hasEnded(const korJob* job)
{
    uint64_t state = stateOf(job);
    return state == KOR_JOB_DONE || state == KOR_JOB_CANCELLED;
}

void makeWaitable(korEx* ex, uint8_t depth, korJob* job)
{
    if (job->mutex == nullptr) {
        job->mutex = _korMutex_Create(KOR_AT(ex, depth));
    }
    if (job->condition == nullptr) {
        job->condition = _korCondition_Create(KOR_AT_D(depth, ex));
    }
}

// True if the time ran out. Whoever finds the job ended, or another waiter there, does not wait.
bool awaitEnd(korEx* ex, uint8_t depth, korJob* job, uint64_t timeout)
{
    uint64_t seen = nobodyWaits;
    if (!KOR_ATOMIC_CAS(&job->waitState, &seen, waiterArrives)) {
        return false;
    }
    hostileYield();
    makeWaitable(KOR_AT(ex, depth), job);
    if (ex->code != 0) {
        KOR_ATOMIC_STORE(&job->waitState, nobodyWaits);
        _korJob_Release(KOR_AT_D(depth, ex), job);
        return false;
    }
    MutexGuard guard(job->mutex);
    KOR_ATOMIC_STORE(&job->waitState, waiterIsThere);
    bool timedOut = false;
    while (!hasEnded(job) && !timedOut && ex->code == 0) {
        timedOut = waitWithLimit(KOR_AT_D(depth, ex), job->condition, job->mutex, timeout);
    }
    if (timedOut || ex->code != 0) {
        KOR_ATOMIC_STORE(&job->waitState, nobodyWaits);
    }
    return timedOut;
}

// Drops the handle's reference of a job that is done.
korJob* takeDone(korEx* ex, uint8_t depth, korJob* job)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (moveState(job, KOR_JOB_DONE, KOR_JOB_PROCESSED)) {
        return _korJob_Release(KOR_AT_D(depth, ex), job) ? nullptr : job;
    }
    KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE,
              stateOf(job) == KOR_JOB_CANCELLED ? "Job has been cancelled" : "Job is not in the right state");
    return nullptr;
}

// The job is kept meanwhile: a cancel drops the handle's reference, and its caller may then give up the last one.
korJob* awaitAndTake(korEx* ex, uint8_t depth, korJob* job, uint64_t timeout, uint8_t* timedOut)
{
    _korJob_Retain(KOR_AT_D(depth, ex), job);
    korJob* result = nullptr;
    if (awaitEnd(KOR_AT(ex, depth), job, timeout) && !hasEnded(job)) {
        *timedOut = 1;
    } else {
        result = takeDone(KOR_AT(ex, depth), job);
    }
    return _korJob_Release(KOR_AT_D(depth, ex), job) ? nullptr : result;
}

// ---- Simple jobs ----------------------------------------------------------------------------------------------------

void _korSimpleJob_Main(korEx* ex, uint8_t depth, korJob* job)
{
    auto* simple = reinterpret_cast<korSimpleJob*>(job);
    simple->function(KOR_AT(ex, depth), simple->closure);
}

void _korSimpleJob_Free(korEx* ex, uint8_t depth, korJob* job)
{
    _kor_free(KOR_AT_D(depth, ex), job);
}

void runSimpleJob(korEx* ex, uint8_t depth, korExecutor* executor, korSimpleFunction function, void* closure)
{
    korJob* job = makeSimpleJob(KOR_AT(ex, depth), function, closure);
    if (job != nullptr) {
        _korJob_RunAndForget(KOR_AT(ex, depth), executor, job);
    }
}

} // namespace

void _notifyJobGet(uint8_t depth, korEx* ex, korJob* job, bool done)
{
    if (job->runAndForget != 0) {
        setState(job, KOR_JOB_PROCESSED);
        return;
    }
    if (!done) {
        wakeWaiter(KOR_AT_D(depth, ex), job);
        return;
    }
    // Whoever sees the new state may fetch the job, reset it and run it again. The reset waits for this to be over,
    // else the hand-shake would be taken for one of the next run.
    KOR_ATOMIC_STORE_RELAXED(&job->runnerHas, runnerTellsEnd);
    setState(job, KOR_JOB_DONE);
    hostileYield();
    wakeWaiter(KOR_AT_D(depth, ex), job);
    KOR_ATOMIC_STORE_RELEASE(&job->runnerHas, runnerHasNothing);
}

void _notifyJobOfGroupGet(uint8_t depth, korEx* ex, korJob* job)
{
    KOR_ATOMIC_STORE_RELAXED(&job->runnerHas, runnerTellsEnd);
    setState(job, KOR_JOB_DONE);
    if (KOR_ATOMIC_LOAD(&job->waitState) != nobodyWaits) {
        wakeWaiter(KOR_AT_D(depth, ex), job);
    }
    KOR_ATOMIC_STORE_RELEASE(&job->runnerHas, runnerHasNothing);
}

bool waitWithLimit(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex, uint64_t timeout)
{
    constexpr uint64_t longest = UINT32_MAX - 1;
    if (timeout == KOR_NO_TIMEOUT) {
        _korCondition_Wait(KOR_AT_D(depth, ex), condition, mutex);
        return false;
    }
    auto limit = static_cast<uint32_t>(timeout < longest ? timeout : longest);
    return _korCondition_TimedWait(KOR_AT_D(depth, ex), condition, mutex, limit);
}

korJob* makeSimpleJob(korEx* ex, uint8_t depth, korSimpleFunction function, void* closure)
{
    constexpr int32_t simpleType = 3;
    if (ex->code != 0) {
        return nullptr;
    }
    auto* simple = request<korSimpleJob>(KOR_AT(ex, depth));
    if (simple == nullptr) {
        return nullptr;
    }
    initialize(&simple->job, simpleType, _korSimpleJob_Main, nullptr, _korSimpleJob_Free);
    simple->closure = closure;
    simple->function = function;
    return &simple->job;
}

bool isSimpleJob(const korJob* job)
{
    return job->mainFunction == _korSimpleJob_Main;
}

// ---- The active runner ----------------------------------------------------------------------------------------------

void openActiveRunner(korEx* ex, uint8_t depth)
{
    KOR_ATOMIC_STORE(&activeRunnerKey, _korThreadLocal_Create(KOR_AT(ex, depth), nullptr));
}

void closeActiveRunner(uint8_t depth, korEx* ex)
{
    _korThreadLocal_Destroy(KOR_AT_D(depth, ex), KOR_ATOMIC_EXCHANGE(&activeRunnerKey, 0));
}

// The value is the place, not the job: a set takes a lock, and jobs change all the time.
void keepActiveRunner(korEx* ex, uint8_t depth, ActiveRunner* runner)
{
    int32_t key = KOR_ATOMIC_LOAD_RELAXED(&activeRunnerKey);
    auto value = reinterpret_cast<uint64_t>(runner);
    if (key != 0 && _korThreadLocal_Get(key) != value) {
        _korThreadLocal_Set(KOR_AT(ex, depth), key, value);
    }
}

const ActiveRunner* activeRunner()
{
    return reinterpret_cast<ActiveRunner*>(_korThreadLocal_Get(KOR_ATOMIC_LOAD_RELAXED(&activeRunnerKey)));
}

} // namespace kor

using namespace kor;

korJob* _korJob_GetActiveJob(korEx*)
{
    const ActiveRunner* runner = activeRunner();
    return runner != nullptr ? runner->job : nullptr;
}

void _korJob_Init(korEx* ex, uint8_t depth, korJob* job, int32_t type, korJobFunction mainFunction,
                  korJobFunction freeFunction)
{
    _korJob_Recyclable(KOR_AT(ex, depth), job, type, mainFunction, nullptr, freeFunction);
}

void _korJob_Recyclable(korEx* ex, uint8_t, korJob* job, int32_t type, korJobFunction mainFunction,
                        korJobRecycleFunction recycleFunction, korJobFunction freeFunction)
{
    if (ex->code == 0) {
        initialize(job, type, mainFunction, recycleFunction, freeFunction);
    }
}

void _korJob_Reset(korEx* ex, uint8_t depth, korJob* job)
{
    if (ex->code != 0) {
        return;
    }
    if (!beginReset(job)) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE,
                  "Illegal to call _korJob_Reset() on a job that has not been fully processed");
        return;
    }
    spinUntil([&] { return KOR_ATOMIC_LOAD_ACQUIRE(&job->runnerHas) != runnerTellsEnd; });
    _jobReset(KOR_AT_D(depth, ex), job);
}

void _korJob_Retain(uint8_t, korEx*, korJob* job)
{
    if (job != nullptr) {
        KOR_ATOMIC_ADD(&job->refCount, 1);
    }
}

bool _korJob_Release(uint8_t depth, korEx* ex, korJob* job)
{
    if (job == nullptr || KOR_ATOMIC_ADD(&job->refCount, static_cast<uint64_t>(-1)) != 1) {
        return false;
    }
    if (recycle(KOR_AT_D(depth, ex), job)) {
        return false;
    }
    destroyJob(KOR_AT_D(depth, ex), job);
    return true;
}

korJob* _korJob_Run(korEx* ex, uint8_t depth, korExecutor* executor, korJob* job)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return handOver(KOR_AT(ex, depth), executor, job, handleAndQueue) ? job : nullptr;
}

// The handle's reference and the creator's would go at once: the creator's becomes the queue's instead.
bool _korJob_RunAndForget(korEx* ex, uint8_t depth, korExecutor* executor, korJob* job)
{
    if (ex->code == 0 && handOver(KOR_AT(ex, depth), executor, job, creatorsIsQueues)) {
        return false;
    }
    return _korJob_Release(KOR_AT_D(depth, ex), job);
}

korJob* _korJob_Get(korEx* ex, uint8_t depth, korJob* job, uint64_t timeout, uint8_t* timedOut)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (timeout != KOR_NO_TIMEOUT) {
        *timedOut = 0;
    }
    uint64_t state = stateOf(job);
    bool mayWait = state == KOR_JOB_QUEUED || state == KOR_JOB_RUNNING;
    return mayWait ? awaitAndTake(KOR_AT(ex, depth), job, timeout, timedOut) : takeDone(KOR_AT(ex, depth), job);
}

korEx* _korJob_GetException(korEx* ex, uint8_t, korJob* job)
{
    return ex->code == 0 && job != nullptr ? job->exception : nullptr;
}

korJob* _korJob_Cancel(korEx* ex, uint8_t depth, korJob* job, uint8_t dropReference)
{
    if (job == nullptr || ex->code != 0) {
        return nullptr;
    }
    if (stateOf(job) <= KOR_JOB_INITIALIZED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "The job is not in the right state");
        return nullptr;
    }
    if (!moveState(job, KOR_JOB_QUEUED, KOR_JOB_CANCELLED)) {
        if (dropReference == 1) {
            _korJob_Release(KOR_AT_D(depth, ex), job);
        }
        return nullptr;
    }
    countJob(job->executor->cancelCounts, job->type);
    _notifyJobGet(KOR_AT_D(depth, ex), job, false);
    return _korJob_Release(KOR_AT_D(depth, ex), job) ? nullptr : job;
}

bool _korJob_IsCancelled(korEx* ex, uint8_t, korJob* job)
{
    return ex->code == 0 && stateOf(job) == KOR_JOB_CANCELLED;
}

void _korExecutor_RunSimpleTask(korEx* ex, uint8_t depth, korSimpleFunction function, void* closure)
{
    if (ex->code == 0) {
        korExecutor* executor = _korExecutor_GetGlobal(KOR_AT_D(depth, ex));
        runSimpleJob(KOR_AT(ex, depth), executor, function, closure);
        _korExecutor_Release(KOR_AT_D(depth, ex), executor);
    }
}

void _korExecutor_RunSimpleUserTask(korEx* ex, uint8_t depth, korSimpleFunction function, void* closure)
{
    if (ex->code == 0) {
        korExecutor* executor = _korExecutor_GetGlobalUser(KOR_AT_D(depth, ex));
        runSimpleJob(KOR_AT(ex, depth), executor, function, closure);
        _korExecutor_Release(KOR_AT_D(depth, ex), executor);
    }
}
