// runner.cpp - what a runner thread of an executor does: it takes jobs while there are any, looks for more as often as
// it is told to, and then sleeps.
//
// The main path of a job takes no mutex. A runner never takes the executor's mutex once it has started: a stop holds it
// while it waits for the runners.

#include "exec/executorInternal.h"
#include "foundation/hostile.h"
#include "korutil/korLogger.h"
#include "korutil/korTime.h"
#include "sync/mutexGuard.h"

namespace kor {
namespace {

constexpr char runnerName[] = "job_runner";
constexpr int32_t neverWritten = -1; // line of a frame

/// A runner's own state. `forJobs` is handed to jobs: what they leave in it stays theirs and never reaches `own`.
struct Runner {
    korExecutor* executor;
    korThreadInfo* info;
    int32_t spinCount;
    ActiveRunner active;
    korLogSource source;
    korEx own;
    korEx forJobs;
};

void prepare(Runner* runner, korExecutor* executor)
{
    runner->executor = executor;
    runner->active = {.executor = executor, .job = nullptr};
    korEx_initHead(&runner->own, nullptr, 0, 1);
    korEx_initHead(&runner->forJobs, &runner->own, 0, 1);
    for (korFrame& frame : runner->forJobs.frames) {
        frame = {.function = "", .line = neverWritten};
    }
    korEx_at(&runner->own, 0, runnerName, __LINE__);
    _korLogger_CopyLogSourceEx(KOR_AT_D(1, &runner->own), executorComponent, nullptr, &runner->source);
}

// The start waits until all have done this.
void registerRunner(Runner* runner)
{
    korExecutor* executor = runner->executor;
    MutexGuard guard(executor->mutex);
    runner->spinCount = KOR_ATOMIC_LOAD_RELAXED(&executor->spinCount);
    runner->info = executor->threadInfos[executor->nextThreadIndex++];
    _korCondition_Broadcast(KOR_AT_D(1, &runner->own), executor->startCondition);
}

void log(Runner* runner, int32_t level, const korEx* logEx, const char* text)
{
    if (korLogger_isLoggable(executorComponent, level)) {
        _korLogger_LogExN_v3(executorComponent, runner->source.name, runner->source.label, level, logEx, 0, "%s", text);
    }
}

// ---- One job --------------------------------------------------------------------------------------------------------

// Only frames that some job has written by now, deepest call paths included: the first ones are this job's.
void logFrames(Runner* runner)
{
    for (const korFrame& frame : runner->forJobs.frames) {
        if (frame.line != neverWritten && korLogger_isLoggable(executorComponent, KOR_LOG_SEVERE)) {
            _korLogger_LogExN_v3(executorComponent, runner->source.name, runner->source.label, KOR_LOG_SEVERE, nullptr,
                                 0, "%s:%d", frame.function, frame.line);
        }
    }
}

void warnOfDuration(Runner* runner, korJobFunction mainFunction, int64_t elapsed)
{
    const char* program = nullptr;
    _korThread_GetProgname(KOR_AT_D(1, &runner->own), &program);
    program = program != nullptr ? program : "<program>";
    auto address = reinterpret_cast<uintptr_t>(mainFunction);
    if (korLogger_isLoggable(executorComponent, KOR_LOG_SEVERE)) {
        _korLogger_LogExN_v3(
            executorComponent, runner->source.name, runner->source.label, KOR_LOG_SEVERE, nullptr, 0,
            "function %p took %lld ms (Explore prints below for called function name. This prints what remains on the "
            "exception objects call stack. The further away from %s, the more un-likely it was triggered by the "
            "function causing the delay.  The last entries of the stack are from the deepest call stack that ever "
            "occurred. First 3 or 4 should be fine and contain the name of the mainFunction executed) (if nothing else "
            "helps try: nm %s | grep %llx)",
            reinterpret_cast<void*>(address), static_cast<long long>(elapsed), runnerName, program,
            static_cast<unsigned long long>(address));
    }
    logFrames(runner);
}

void callMain(Runner* runner, korJob* job)
{
    korJobFunction mainFunction = job->mainFunction;
    int64_t limit = KOR_ATOMIC_LOAD_RELAXED(&runner->executor->warnOnTaskDur);
    uint64_t begin = limit != 0 ? _kor_GetCurrentMilliseconds() : 0;
    mainFunction(korEx_at(&runner->forJobs, 0, runnerName, __LINE__), 1, job);
    if (limit != 0) {
        auto elapsed = static_cast<int64_t>(_kor_GetCurrentMilliseconds() - begin);
        if (elapsed > limit) {
            warnOfDuration(runner, mainFunction, elapsed);
        }
    }
}

// The job's copy leads nowhere: what follows in the chain ends with this thread.
void keepFailure(Runner* runner, korJob* job)
{
    if (job->runAndForget != 0) {
        log(runner, KOR_LOG_DEBUG, &runner->forJobs, "Exception inside run and forget job.");
    }
    job->exception = _korEx_Clone(&runner->forJobs);
    if (job->exception != nullptr) {
        job->exception->next = nullptr;
    }
    korEx_Clear(&runner->forJobs);
}

// The group is kept: whoever fetches the job may end its hold on it at once.
void announceEnd(Runner* runner, korJob* job)
{
    korJobGroup* group = job->group;
    if (group == nullptr) {
        _notifyJobGet(KOR_AT_D(1, &runner->own), job, true);
        return;
    }
    _korJobGroup_Retain(KOR_AT_D(1, &runner->own), group);
    _notifyJobOfGroupGet(KOR_AT_D(1, &runner->own), job);
    _notifyGroupGet(KOR_AT_D(1, &runner->own), group);
    _korJobGroup_Release(KOR_AT_D(1, &runner->own), group);
}

void dropOwnFailure(Runner* runner)
{
    if (KOR_UNLIKELY(runner->own.code != 0)) {
        log(runner, KOR_LOG_DEBUG, &runner->own, "Exception during job execution.");
        korEx_Clear(&runner->own);
    }
}

void runJob(Runner* runner, korJob* job)
{
    runner->active.job = job;
    callMain(runner, job);
    runner->active.job = nullptr;
    if (KOR_UNLIKELY(runner->forJobs.code != 0)) {
        keepFailure(runner, job);
    }
    countJob(runner->executor->finishCounts, job->type);
    announceEnd(runner, job);
}

// ---- The queue ------------------------------------------------------------------------------------------------------

// A look at the count before the pop: a runner that spins leaves the queue's lock to those that have something to do.
korJob* takeJob(Runner* runner)
{
    korFastQueue* queue = runner->executor->jobQueue;
    if (KOR_ATOMIC_LOAD(&queue->count) == 0) {
        return nullptr;
    }
    return static_cast<korJob*>(_korFastQueue_Pop(KOR_AT(&runner->own, 1), queue));
}

// One that was cancelled is only given up.
void serveJob(Runner* runner, korJob* job)
{
    keepActiveRunner(KOR_AT(&runner->own, 1), &runner->active);
    bool runs = moveState(job, KOR_JOB_QUEUED, KOR_JOB_RUNNING);
    KOR_ATOMIC_STORE_RELEASE(&job->runnerHas, runnerHasNothing); // from here on it may be reset, and queued anew
    if (runs) {
        runJob(runner, job);
    }
    _korJob_Release(KOR_AT_D(1, &runner->own), job);
    dropOwnFailure(runner);
}

// From then on nobody pushes: a run that saw the executor running has ended, a later one finds it stopping.
bool takesNoJobs(korExecutor* executor)
{
    return stateOf(executor) != KOR_EXECUTOR_RUNNING && KOR_ATOMIC_LOAD(&executor->runsInProgress) == 0;
}

// Runs jobs until it has found the queue empty often enough. False when that is for good.
bool serveQueue(Runner* runner)
{
    for (int32_t misses = 0;;) {
        bool last = takesNoJobs(runner->executor); // asked before the look, which then is the last one
        korJob* job = takeJob(runner);
        hostileYield();
        if (job != nullptr) {
            misses = 0;
            serveJob(runner, job);
        } else if (last) {
            return false;
        } else if (++misses >= runner->spinCount) {
            return true;
        } else {
            platform::spinHint();
        }
    }
}

// ---- The sleep ------------------------------------------------------------------------------------------------------

void countIdle(Runner* runner)
{
    korExecutor* executor = runner->executor;
    MutexGuard guard(executor->idleMutex);
    KOR_ATOMIC_ADD(&executor->idleCount, 1);
    _korCondition_SignalDebug(KOR_AT_D(1, &runner->own), executor->idleCondition);
}

void awaitWake(Runner* runner)
{
    korThreadInfo* info = runner->info;
    while (KOR_ATOMIC_LOAD(&runner->executor->jobQueue->count) == 0 && info->wake == 0 && info->kill == 0 &&
           runner->own.code == 0) {
        hostileYield();
        _korCondition_Wait(KOR_AT_D(1, &runner->own), info->condition, info->mutex);
    }
}

// The sleep is announced before the last look at the queue, and a producer pushes before it looks for sleepers. A
// producer that comes late leaves a wake behind, which costs the next sleep.
void sleepUntilWoken(Runner* runner)
{
    korThreadInfo* info = runner->info;
    runner->spinCount = KOR_ATOMIC_LOAD_RELAXED(&runner->executor->spinCount);
    uint64_t awake = 0;
    if (KOR_ATOMIC_CAS(&info->sleepState, &awake, 1)) {
        hostileYield();
        MutexGuard guard(info->mutex);
        if (info->wake == 0) {
            countIdle(runner);
            awaitWake(runner);
            KOR_ATOMIC_ADD(&runner->executor->idleCount, static_cast<uint64_t>(-1));
        }
        info->wake = 0;
    }
    KOR_ATOMIC_STORE(&info->sleepState, 0);
    dropOwnFailure(runner);
}

} // namespace

uint64_t job_runner(void* argument)
{
    Runner runner;
    prepare(&runner, static_cast<korExecutor*>(argument));
    registerRunner(&runner);
    while (serveQueue(&runner)) {
        sleepUntilWoken(&runner);
    }
    keepActiveRunner(KOR_AT(&runner.own, 0), nullptr); // what ends with the thread must not look into this frame
    _ThreadInfo_Release(KOR_AT_D(0, &runner.own), runner.info);
    _korExecutor_Release(KOR_AT_D(0, &runner.own), runner.executor);
    return 0;
}

} // namespace kor
