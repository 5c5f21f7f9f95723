// korJobGroup_test.cpp - groups: the order of fetching and reaping, what is allowed within a job, cancelling, printing.

#include "korutil/korAlloc.h"
#include "korutil/korJobGroup.h"
#include "korutil/korLib.h"
#include "support/failingHeap.h"
#include "support/korTest.h"
#include "support/meeting.h"

#include <atomic>
#include <functional>
#include <thread>

using namespace kor::test;

namespace {

/// A job that ends when it is told to.
struct Gate {
    korJob job;
    Semaphore open;
    std::atomic<int> freed = 0;
};

void passGate(korEx*, uint8_t, korJob* job)
{
    reinterpret_cast<Gate*>(job)->open.acquire();
}

void countFree(korEx*, uint8_t, korJob* job)
{
    reinterpret_cast<Gate*>(job)->freed++;
}

void call(korEx* ex, uint8_t depth, void* closure)
{
    (*static_cast<std::function<void(korEx*, uint8_t)>*>(closure))(ex, depth);
}

void awaitState(const Gate& gate, uint64_t state)
{
    while (KOR_ATOMIC_LOAD(&gate.job.state) != state) {
        std::this_thread::yield();
    }
}

} // namespace

class KorJobGroupTest : public KorTest
{
protected:
    void SetUp() override
    {
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        executor = _korExecutor_Create(KOR_AT(ex, 0));
        _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, 3);
        _korExecutor_Start(KOR_AT(ex, 0), executor);
        ASSERT_CLEAN();
    }
    void TearDown() override
    {
        _korExecutor_Stop(KOR_AT_D(0, ex), executor);
        EXPECT_TRUE(_korJobGroup_Release(KOR_AT_D(0, ex), group)) << group->refCount;
        EXPECT_TRUE(_korExecutor_Release(KOR_AT_D(0, ex), executor)) << executor->refCount;
        _korutil_Close(KOR_AT_D(0, ex));
        KorTest::TearDown();
    }

    void makeGroup(uint8_t autoPop) { group = _korJobGroup_Create(KOR_AT(ex, 0), executor, autoPop); }
    void run(Gate& gate)
    {
        _korJob_Init(KOR_AT(ex, 0), &gate.job, 0, passGate, countFree);
        _korJobGroup_Run(KOR_AT(ex, 0), group, &gate.job);
    }
    korJob* get() { return _korJobGroup_Get(KOR_AT(ex, 0), group, KOR_NO_TIMEOUT, nullptr); }
    korJob* getNoWait() { return _korJobGroup_GetNoWait(KOR_AT(ex, 0), group); }
    bool isEmpty() { return _korJobGroup_IsEmpty(KOR_AT(ex, 0), group); }
    void join() { _korJobGroup_Join(KOR_AT(ex, 0), group); }
    void release(Gate& gate) { _korJob_Release(KOR_AT_D(0, ex), &gate.job); }
    std::string printed()
    {
        StreamCapture capture(StreamCapture::error);
        _korDebug_JobGroup_PrintSize(group, "here");
        return capture.text();
    }

    korExecutor* executor = nullptr;
    korJobGroup* group = nullptr;
};

TEST_F(KorJobGroupTest, FetchesWhatHasFinishedInTheOrderOfTheList)
{
    makeGroup(0);
    uint8_t timedOut = 7;
    EXPECT_EQ(_korJobGroup_Get(KOR_AT(ex, 0), group, 10, &timedOut), nullptr);
    EXPECT_TRUE(timedOut == 0 && isEmpty() && printed().empty());
    Gate gates[3];
    for (Gate& gate : gates) {
        run(gate);
    }
    EXPECT_EQ(printed(), "[ocDebug] here cnt=3\n");
    EXPECT_EQ(_korJobGroup_Get(KOR_AT(ex, 0), group, 0, &timedOut), nullptr);
    EXPECT_TRUE(timedOut == 1 && getNoWait() == nullptr);
    gates[2].open.release();
    EXPECT_EQ(get(), &gates[2].job);
    gates[1].open.release();
    awaitState(gates[1], KOR_JOB_DONE);
    gates[0].open.release();
    awaitState(gates[0], KOR_JOB_DONE);
    EXPECT_EQ(get(), &gates[0].job);
    EXPECT_EQ(getNoWait(), &gates[1].job);
    EXPECT_TRUE(isEmpty());
    _korExecutor_Stop(KOR_AT_D(0, ex), executor);
    for (Gate& gate : gates) {
        EXPECT_EQ(gate.job.refCount, 1u);
        release(gate);
        EXPECT_EQ(gate.freed, 1);
    }
}

TEST_F(KorJobGroupTest, NobodyWaitsWithinAJob)
{
    makeGroup(0);
    Gate running;
    run(running);
    std::function<void(korEx*, uint8_t)> look = [&](korEx* jobEx, uint8_t depth) {
        EXPECT_EQ(_korJobGroup_Get(KOR_AT(jobEx, depth), group, KOR_NO_TIMEOUT, nullptr), nullptr);
        EXPECT_TRUE(raised(jobEx, KOR_ERROR_NOT_PERMITTED, "This operation is not allowed  in the executor thread"));
        EXPECT_EQ(_korJobGroup_GetNoWait(KOR_AT(jobEx, depth), group), nullptr);
        _korJobGroup_Join(KOR_AT(jobEx, depth), group);
        EXPECT_FALSE(_korJobGroup_IsEmpty(KOR_AT(jobEx, depth), group));
        running.open.release();
    };
    _korExecutor_RunSimpleTaskWithGroup(KOR_AT(ex, 0), group, call, &look, nullptr);
    join();
    EXPECT_TRUE(isEmpty());
}

TEST_F(KorJobGroupTest, CancelEmptiesTheListOfWhatDoesNotRun)
{
    makeGroup(0);
    Gate running[3];
    Gate queued[2];
    for (Gate& gate : running) {
        run(gate);
        awaitState(gate, KOR_JOB_RUNNING);
    }
    run(queued[0]);
    _korExecutor_RunSimpleTaskWithGroup(KOR_AT(ex, 0), group, call, nullptr, nullptr); // never called
    run(queued[1]);
    _korJobGroup_Cancel(KOR_AT(ex, 0), group, 0);
    EXPECT_EQ(printed(), "[ocDebug] here cnt=3\n");
    EXPECT_TRUE(_korJob_IsCancelled(KOR_AT(ex, 0), &queued[1].job));

    std::atomic<bool> waits = false;
    std::thread waiter([&] {
        KOR_EX_LOCAL(own);
        waits = true;
        EXPECT_EQ(_korJobGroup_Get(KOR_AT(&own, 0), group, KOR_NO_TIMEOUT, nullptr), nullptr);
    });
    while (!waits) {
        std::this_thread::yield();
    }
    _korJobGroup_Cancel(KOR_AT(ex, 0), group, 1);
    waiter.join(); // nothing is left to wait for
    EXPECT_TRUE(isEmpty());
    for (Gate& gate : running) {
        gate.open.release();
    }
    _korExecutor_Stop(KOR_AT_D(0, ex), executor);
    for (Gate* gate : {&running[0], &running[1], &running[2], &queued[0], &queued[1]}) {
        EXPECT_EQ(gate->job.refCount, 1u) << "the creator's";
        release(*gate);
    }
}

TEST_F(KorJobGroupTest, FallsBackToTheLibrarysExecutors)
{
    makeGroup(0);
    std::string names;
    Semaphore done;
    std::function<void(korEx*, uint8_t)> tell = [&](korEx* jobEx, uint8_t depth) {
        const char* name = nullptr;
        _korThread_GetCurrentName(KOR_AT_D(depth, jobEx), &name);
        names += std::string(name).substr(7, 10) + " ";
        done.release();
    };
    for (uint8_t user : {uint8_t{0}, uint8_t{1}}) {
        _korExecutor_RunSimpleTaskWithGroupAndFallback(KOR_AT(ex, 0), nullptr, call, &tell, nullptr, user);
        done.acquire();
    }
    _korExecutor_RunSimpleTaskWithGroupAndFallback(KOR_AT(ex, 0), group, call, &tell, nullptr, 0);
    join();
    EXPECT_EQ(names, "giExecutor guExecutor Executor t ");
}

TEST_F(KorJobGroupTest, AFailedRunLeavesTheListAsItWas)
{
    makeGroup(0);
    _korExecutor_Stop(KOR_AT_D(0, ex), executor);
    Gate gate;
    run(gate);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Executor is not running, is stopping or has been stopped");
    EXPECT_TRUE(isEmpty() && gate.job.group == group && gate.job.state == KOR_JOB_INITIALIZED);
    release(gate);
    EXPECT_EQ(gate.freed, 1);
    korJobGroup* without = _korJobGroup_Create(KOR_AT(ex, 0), nullptr, 0);
    _korExecutor_RunSimpleTaskWithGroup(KOR_AT(ex, 0), without, call, nullptr, nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Executor is not running, is stopping or has been stopped");
    EXPECT_TRUE(_korJobGroup_Release(KOR_AT_D(0, ex), without));
}

TEST_F(KorJobGroupTest, EveryAllocationMayFail)
{
    makeGroup(0);
    std::atomic<int> ran = 0;
    std::function<void(korEx*, uint8_t)> count = [&](korEx*, uint8_t) { ran++; };
    int expected = 0;
    sweepFailures(ex, [&] {
        korJobGroup* own = _korJobGroup_Create(KOR_AT(ex, 0), executor, 0);
        if (own == nullptr) {
            return;
        }
        for (int i = 0; i < 10; i++) {
            _korExecutor_RunSimpleTaskWithGroup(KOR_AT(ex, 0), own, call, &count, nullptr);
            expected += ex->code == 0;
        }
        korEx failed = *ex;
        korEx_Clear(ex);
        join(); // another group: nothing to do
        _korJobGroup_Join(KOR_AT(ex, 0), own);
        *ex = failed;
        while (KOR_ATOMIC_LOAD(&own->refCount) != 1) { // a runner may hold it a little longer
            std::this_thread::yield();
        }
        EXPECT_TRUE(_korJobGroup_Release(KOR_AT_D(0, ex), own));
    });
    EXPECT_EQ(ran, expected);
}
