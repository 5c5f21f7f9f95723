// korExecutor_test.cpp - executors and jobs: states, references at every step, refusals, what a runner logs. The races
// are in execStress_test.cpp.

#include "korutil/korExecutor.h"
#include "korutil/korJobGroup.h"
#include "korutil/korLib.h"
#include "korutil/korTimer.h"
#include "log/loggerTest.h"
#include "support/failingHeap.h"
#include "support/meeting.h"

#include <atomic>
#include <functional>
#include <regex>

using namespace kor::test;

namespace {

using Work = std::function<void(korEx*, uint8_t)>;

/// A job on the test's stack, whose main function is a lambda, and which counts its freeing.
struct TestJob {
    korJob job;
    Work work;
    Work atFree;
    std::atomic<int> freed = 0;
    bool takeBack = false;
};

void runWork(korEx* ex, uint8_t depth, korJob* job)
{
    auto& work = reinterpret_cast<TestJob*>(job)->work;
    if (work) {
        work(ex, depth);
    }
}

void countFree(korEx* ex, uint8_t depth, korJob* job)
{
    auto* test = reinterpret_cast<TestJob*>(job);
    if (test->atFree) {
        test->atFree(ex, depth);
    }
    test->freed++;
}

bool takeBack(korEx*, uint8_t, korJob* job)
{
    return reinterpret_cast<TestJob*>(job)->takeBack;
}

uint64_t stateOf(const TestJob& job)
{
    return KOR_ATOMIC_LOAD(&job.job.state);
}

uint64_t referencesOf(const TestJob& job)
{
    return KOR_ATOMIC_LOAD(&job.job.refCount);
}

} // namespace

class KorExecutorTest : public LoggerTest
{
protected:
    void SetUp() override
    {
        LoggerTest::SetUp();
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        executor = _korExecutor_Create(KOR_AT(ex, 0));
        _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, 1);
        ASSERT_CLEAN();
    }
    void TearDown() override
    {
        stop();
        EXPECT_TRUE(_korExecutor_Release(KOR_AT_D(0, ex), executor)) << executor->refCount;
        _korutil_Close(KOR_AT_D(0, ex));
        LoggerTest::TearDown();
    }

    void start() { _korExecutor_Start(KOR_AT(ex, 0), executor); }
    void stop() { _korExecutor_Stop(KOR_AT_D(0, ex), executor); }
    void init(TestJob& job) { _korJob_Init(KOR_AT(ex, 0), &job.job, 2, runWork, countFree); }
    korJob* run(TestJob& job) { return _korJob_Run(KOR_AT(ex, 0), executor, &job.job); }
    korJob* get(TestJob& job) { return _korJob_Get(KOR_AT(ex, 0), &job.job, KOR_NO_TIMEOUT, nullptr); }
    bool release(TestJob& job) { return _korJob_Release(KOR_AT_D(0, ex), &job.job); }
    korJob* cancel(TestJob& job, uint8_t drop = 0) { return _korJob_Cancel(KOR_AT(ex, 0), &job.job, drop); }

    /// Keeps the only runner busy until letGo().
    void block()
    {
        blocker.work = [this](korEx*, uint8_t) {
            blocked.release();
            mayGo.acquire();
        };
        init(blocker);
        run(blocker);
        blocked.acquire();
    }
    void letGo()
    {
        mayGo.release();
        EXPECT_EQ(get(blocker), &blocker.job);
        stop(); // the runner has let go of all jobs
        EXPECT_TRUE(release(blocker));
    }

    korExecutor* executor = nullptr;
    TestJob blocker;
    Semaphore blocked;
    Semaphore mayGo;
};

TEST_F(KorExecutorTest, SettingsAndStates)
{
    EXPECT_EQ(executor->threadPool->threadType, 3);
    _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT,
                  "Cannot set the pool size to 0. Create an executor with no thread pool instead.");
    executor->isGlobal = 1;
    start();
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korExecutor_Start on a global executor");
    executor->isGlobal = 0;
    TestJob job;
    init(job);
    EXPECT_EQ(run(job), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Executor is not running, is stopping or has been stopped");
    EXPECT_TRUE(stateOf(job) == KOR_JOB_INITIALIZED && referencesOf(job) == 1);
    start();
    EXPECT_EQ(executor->nextThreadIndex, 1u);
    start();
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Cannot restart an executor after start.");
    _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, 2);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE,
                  "Cannot set the pool size for an executor after it has been started or stopped.");
    stop();
    stop();
    EXPECT_EQ(executor->state, uint64_t{KOR_EXECUTOR_STOPPED});
    EXPECT_TRUE(_korJob_RunAndForget(KOR_AT(ex, 0), executor, &job.job)) << "the creator's reference goes all the same";
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Executor is not running, is stopping or has been stopped");
    EXPECT_EQ(job.freed, 1);
}

TEST_F(KorExecutorTest, ReferencesAtEveryStep)
{
    start();
    block();
    TestJob job;
    init(job);
    EXPECT_EQ(run(job), &job.job);
    EXPECT_TRUE(stateOf(job) == KOR_JOB_QUEUED && referencesOf(job) == 3 && job.job.executor == executor);
    EXPECT_EQ(run(job), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Job is not initialized");
    TestJob forgotten;
    init(forgotten);
    _korJob_RunAndForget(KOR_AT(ex, 0), executor, &forgotten.job);
    EXPECT_EQ(referencesOf(forgotten), 1u);
    uint8_t timedOut = 7;
    EXPECT_EQ(_korJob_Get(KOR_AT(ex, 0), &job.job, 0, &timedOut), nullptr);
    EXPECT_TRUE(timedOut == 1 && referencesOf(job) == 3);
    letGo();
    EXPECT_EQ(forgotten.freed, 1);
    EXPECT_TRUE(stateOf(job) == KOR_JOB_DONE && referencesOf(job) == 2);
    EXPECT_EQ(_korJob_Get(KOR_AT(ex, 0), &job.job, 0, &timedOut), &job.job);
    EXPECT_TRUE(timedOut == 0 && stateOf(job) == KOR_JOB_PROCESSED && referencesOf(job) == 1);
    EXPECT_EQ(get(job), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Job is not in the right state");
    _korJob_Reset(KOR_AT(ex, 0), &job.job);
    EXPECT_TRUE(stateOf(job) == KOR_JOB_INITIALIZED && job.job.executor == nullptr);
    EXPECT_TRUE(release(job));
    EXPECT_TRUE(job.freed == 1 && stateOf(job) == KOR_JOB_FREE);
}

TEST_F(KorExecutorTest, CancelInEachState)
{
    start();
    block();
    TestJob job;
    init(job);
    EXPECT_EQ(cancel(job), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "The job is not in the right state");
    EXPECT_EQ(cancel(blocker), nullptr); // it runs
    EXPECT_FALSE(_korJob_IsCancelled(KOR_AT(ex, 0), &blocker.job));
    _korJob_Reset(KOR_AT(ex, 0), &blocker.job);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE,
                  "Illegal to call _korJob_Reset() on a job that has not been fully processed");
    EXPECT_EQ(stateOf(blocker), uint64_t{KOR_JOB_RUNNING});

    run(job);
    EXPECT_EQ(cancel(job), &job.job);
    EXPECT_TRUE(_korJob_IsCancelled(KOR_AT(ex, 0), &job.job) && referencesOf(job) == 2);
    EXPECT_EQ(get(job), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Job has been cancelled");
    EXPECT_EQ(_korJob_Cancel(KOR_AT(ex, 0), nullptr, 1), nullptr);

    TestJob dropped;
    init(dropped);
    run(dropped);
    letGo();
    EXPECT_EQ(referencesOf(job), 1u) << "the runner has dropped what was cancelled";
    EXPECT_EQ(cancel(dropped, 1), nullptr);
    EXPECT_EQ(referencesOf(dropped), 1u);
    EXPECT_TRUE(release(job) && release(dropped));
}

// A cancelled job stays in the queue until a runner comes to it, and must not get there twice.
TEST_F(KorExecutorTest, AForgottenJobThatWasCancelledIsResetOnceTheQueueHasLetItGo)
{
    start();
    block();
    TestJob job;
    init(job);
    _korJob_Retain(KOR_AT_D(0, ex), &job.job);
    _korJob_Retain(KOR_AT_D(0, ex), &job.job);
    _korJob_RunAndForget(KOR_AT(ex, 0), executor, &job.job);
    EXPECT_EQ(cancel(job), &job.job);
    EXPECT_EQ(stateOf(job), uint64_t{KOR_JOB_PROCESSED});
    _korJob_Reset(KOR_AT(ex, 0), &job.job);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE,
                  "Illegal to call _korJob_Reset() on a job that has not been fully processed");
    letGo();
    EXPECT_EQ(stateOf(job), uint64_t{KOR_JOB_PROCESSED});
    _korJob_Reset(KOR_AT(ex, 0), &job.job);
    EXPECT_EQ(stateOf(job), uint64_t{KOR_JOB_INITIALIZED});
    EXPECT_TRUE(release(job));
}

TEST_F(KorExecutorTest, AFreeFunctionMayRaiseAndMayStopTheExecutor)
{
    start();
    block();
    TestJob raises, stops, last;
    std::atomic<bool> stopping = false;
    raises.atFree = [](korEx* jobEx, uint8_t depth) { KOR_RAISE(jobEx, depth, KOR_ERROR_FILE_IO, nullptr); };
    stops.atFree = [&](korEx*, uint8_t) {
        KOR_EX_LOCAL(own);
        while (KOR_ATOMIC_LOAD(&executor->state) != KOR_EXECUTOR_STOPPING) {
            std::this_thread::yield();
        }
        _korExecutor_Stop(KOR_AT_D(0, &own), executor); // beside the other one, which waits for this thread
        stopping = true;
    };
    for (TestJob* job : {&raises, &stops, &last}) {
        init(*job);
        run(*job);
    }
    cancel(raises);
    EXPECT_FALSE(release(raises)); // the runner drops the last reference, and so frees it
    cancel(stops);
    EXPECT_FALSE(release(stops));
    letGo();
    EXPECT_TRUE(stopping);
    EXPECT_TRUE(raises.freed == 1 && stops.freed == 1);
    EXPECT_EQ(get(last), &last.job); // a stop runs what is queued
    EXPECT_TRUE(release(last));
}

TEST_F(KorExecutorTest, AWaiterHearsOfACancel)
{
    start();
    block();
    TestJob job;
    init(job);
    run(job);
    std::thread waiter([&] {
        KOR_EX_LOCAL(own);
        EXPECT_EQ(_korJob_Get(KOR_AT(&own, 0), &job.job, KOR_NO_TIMEOUT, nullptr), nullptr);
        EXPECT_TRUE(raised(&own, KOR_ERROR_ILLEGAL_STATE, "Job has been cancelled"));
    });
    while (KOR_ATOMIC_LOAD(&job.job.waitState) != 2) {
        std::this_thread::yield();
    }
    EXPECT_EQ(get(job), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Job is not in the right state"); // somebody waits already
    cancel(job);
    waiter.join();
    letGo();
    EXPECT_TRUE(release(job));
}

TEST_F(KorExecutorTest, AFailureStaysWithItsJob)
{
    Receiver receiver;
    receive(receiver);
    _korLogger_SetLogLevelWithLevel(5, KOR_LOG_DEBUG);
    start();
    TestJob fails;
    fails.work = [](korEx* jobEx, uint8_t depth) { KOR_RAISE_F(jobEx, depth, KOR_ERROR_FILE_IO, "file %d", 1); };
    init(fails);
    run(fails);
    EXPECT_EQ(get(fails), &fails.job);
    korEx* failure = _korJob_GetException(KOR_AT(ex, 0), &fails.job);
    ASSERT_NE(failure, nullptr);
    EXPECT_STREQ(failure->description, "file 1");
    EXPECT_STREQ(failure->frames[0].function, "job_runner");
    EXPECT_TRUE(receiver.take().empty()) << "the caller is told";
    _korJob_Reset(KOR_AT(ex, 0), &fails.job);
    EXPECT_EQ(_korJob_GetException(KOR_AT(ex, 0), &fails.job), nullptr);
    _korJob_RunAndForget(KOR_AT(ex, 0), executor, &fails.job);
    stop();
    EXPECT_EQ(fails.freed, 1);
    Statements statements = receiver.take();
    ASSERT_EQ(statements.size(), 1u) << "nobody else would be";
    EXPECT_NE(statements[0].find("Exception inside run and forget job."), std::string::npos) << statements[0];
    EXPECT_NE(statements[0].find("file 1"), std::string::npos) << statements[0];
    _korLogger_SetLogLevelToDefault(5);
}

TEST_F(KorExecutorTest, ALongJobIsReportedWithItsFrames)
{
    Receiver receiver;
    receive(receiver);
    executor->warnOnTaskDur = 20;
    start();
    TestJob slow;
    slow.work = [](korEx* jobEx, uint8_t depth) {
        korEx_at(jobEx, depth, "deep", 42);
        _kor_Sleep(60);
    };
    TestJob quick;
    init(quick);
    init(slow);
    for (TestJob* job : {&quick, &slow}) {
        run(*job);
        get(*job);
    }
    stop();
    Statements statements = receiver.take();
    ASSERT_EQ(statements.size(), 3u);
    EXPECT_TRUE(
        std::regex_search(statements[0], std::regex("function (0x)?[0-9a-fA-F]+ took [0-9]+ ms \\(Explore prints "
                                                    "[^]*further away from job_runner, [^]*nm exec_tests")))
        << statements[0];
    EXPECT_NE(statements[1].find("job_runner:"), std::string::npos);
    EXPECT_NE(statements[2].find("deep:42"), std::string::npos);
    EXPECT_TRUE(release(slow) && release(quick));
}

TEST_F(KorExecutorTest, ARecyclableJobIsTakenBackOrFreed)
{
    start();
    TestJob job;
    job.takeBack = true;
    _korJob_Recyclable(KOR_AT(ex, 0), &job.job, 0, runWork, takeBack, countFree);
    run(job);
    EXPECT_EQ(get(job), &job.job);
    stop();
    EXPECT_FALSE(release(job));
    EXPECT_TRUE(stateOf(job) == KOR_JOB_INITIALIZED && referencesOf(job) == 1 && job.job.executor == nullptr);
    job.takeBack = false;
    EXPECT_TRUE(release(job));
    EXPECT_EQ(job.freed, 1);
}

TEST_F(KorExecutorTest, AJobKnowsItselfAndMayStopItsExecutor)
{
    start();
    EXPECT_EQ(_korJob_GetActiveJob(ex), nullptr);
    TestJob stops;
    TestJob queued;
    korJob* active = nullptr;
    stops.work = [&](korEx* jobEx, uint8_t depth) {
        active = _korJob_GetActiveJob(jobEx);
        _korJob_Run(KOR_AT(jobEx, depth), executor, &queued.job);
        _korExecutor_Stop(KOR_AT_D(depth, jobEx), executor);
        _korExecutor_Stop(KOR_AT_D(depth, jobEx), executor);
    };
    init(stops);
    init(queued);
    run(stops);
    EXPECT_EQ(get(stops), &stops.job);
    EXPECT_EQ(active, &stops.job);
    EXPECT_EQ(get(queued), &queued.job) << "what was queued still runs";
    while (KOR_ATOMIC_LOAD(&executor->refCount) != 3) { // ours and those of the two jobs: the runner has left
        std::this_thread::yield();
    }
    EXPECT_TRUE(release(stops) && release(queued));
}

TEST_F(KorExecutorTest, ASpinCountIsTakenOverAtTheNextSleepAndCountersGoOnAndOff)
{
    start();
    _korExecutor_SetSpinCount(KOR_AT(ex, 0), executor, 10);
    for (bool enabled : {true, false, true}) {
        _korExecutor_SetCountersEnabled(KOR_AT(ex, 0), executor, enabled);
        TestJob job;
        init(job);
        run(job);
        get(job);
        uint64_t expected = enabled ? 1 : 0;
        EXPECT_EQ(_korExecutor_StartCountForType(KOR_AT(ex, 0), executor, 2), expected);
        EXPECT_EQ(_korExecutor_FinishCountForType(KOR_AT(ex, 0), executor, 2), expected);
        EXPECT_EQ(_korExecutor_FinishCountForType(KOR_AT(ex, 0), executor, 99), 0u);
        while (referencesOf(job) != 1) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(release(job));
    }
}

TEST_F(KorExecutorTest, EveryAllocationMayFail)
{
    sweepFailures(ex, [&] {
        korExecutor* own = _korExecutor_Create(KOR_AT(ex, 0));
        if (own == nullptr) {
            return;
        }
        _korExecutor_SetPoolSize(KOR_AT(ex, 0), own, 2);
        _korExecutor_SetCountersEnabled(KOR_AT(ex, 0), own, true);
        _korExecutor_Start(KOR_AT(ex, 0), own);
        TestJob job = {}; // while an error is pending nothing makes it ready
        init(job);
        _korJob_Run(KOR_AT(ex, 0), own, &job.job);
        _korJob_Get(KOR_AT(ex, 0), &job.job, KOR_NO_TIMEOUT, nullptr);
        _korExecutor_Stop(KOR_AT_D(0, ex), own);
        _korJob_Release(KOR_AT_D(0, ex), &job.job);
        while (KOR_ATOMIC_LOAD(&own->refCount) != 1) { // runners of a start that failed end by themselves
            std::this_thread::yield();
        }
        EXPECT_TRUE(_korExecutor_Release(KOR_AT_D(0, ex), own));
        if (ex->code == KOR_ERROR_NOT_INITIALIZED) { // it was the system that had no memory for a thread
            korEx_Clear(ex);
        }
    });
}

TEST_F(KorExecutorTest, WhoRetainsLetsGoLast)
{
    TestJob job;
    init(job);
    _korJob_Retain(KOR_AT_D(0, ex), &job.job);
    EXPECT_FALSE(release(job));
    EXPECT_TRUE(release(job));
    EXPECT_EQ(job.freed, 1);
    _korExecutor_Retain(KOR_AT_D(0, ex), executor);
    EXPECT_FALSE(_korExecutor_Release(KOR_AT_D(0, ex), executor));
    korTimer* timer = _korTimer_Create(KOR_AT(ex, 0), executor, "kept");
    _korTimer_Retain(KOR_AT(ex, 0), timer);
    EXPECT_FALSE(_korTimer_Release(KOR_AT_D(0, ex), timer));
    EXPECT_TRUE(_korTimer_Release(KOR_AT_D(0, ex), timer));
    korJobGroup* group = _korJobGroup_Create(KOR_AT(ex, 0), executor, 0);
    _korJobGroup_Retain(KOR_AT_D(0, ex), group);
    EXPECT_FALSE(_korJobGroup_Release(KOR_AT_D(0, ex), group));
    EXPECT_TRUE(_korJobGroup_Release(KOR_AT_D(0, ex), group));
}
