// korTimer_test.cpp - tasks at a time: when they run, who may stop what, and what becomes of a task on every way.

#include "korutil/korExecutor.h"
#include "korutil/korLib.h"
#include "korutil/korTime.h"
#include "korutil/korTimer.h"
#include "log/loggerTest.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/meeting.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

using namespace kor::test;

namespace {

constexpr int64_t never = 3'600'000; // milliseconds

using Clock = std::chrono::steady_clock;

// A closure that sees what becomes of its task.
struct Watch {
    std::atomic<int> runs = 0;
    std::atomic<int> inside = 0; // runs at this moment
    std::atomic<int> ends = 0;
    std::atomic<bool> broken = false; // it ran twice at a time, or after its end
    std::atomic<bool> onDispatcher = false;
    int raiseAt = 0; // the run that fails
    Semaphore* ran = nullptr;
    Semaphore* gate = nullptr; // a run waits for it
    Semaphore* ended = nullptr;
    Clock::time_point earliest; // set before the schedule, and by each run
    int64_t interval = 0;
    std::atomic<bool> early = false;

    static void run(korEx* ex, uint8_t depth, korTimer* timer, uint64_t, void* closure)
    {
        auto* self = static_cast<Watch*>(closure);
        self->early = self->early || Clock::now() < self->earliest;
        self->broken = self->broken || self->inside++ != 0 || self->ends != 0;
        self->onDispatcher = self->onDispatcher || _korThread_IsCurrentThread(timer->thread);
        int run = ++self->runs;
        if (self->ran != nullptr) {
            self->ran->release();
        }
        if (self->gate != nullptr) {
            self->gate->acquire();
        }
        if (run == self->raiseAt) {
            KOR_RAISE(ex, depth, KOR_ERROR_INTERRUPTED, "had enough");
        }
        self->inside--;
        self->earliest = Clock::now() + std::chrono::milliseconds(self->interval);
    }
    static void end(korEx*, uint8_t, void* closure)
    {
        auto* self = static_cast<Watch*>(closure);
        self->broken = self->broken || self->ends++ != 0;
        if (self->ended != nullptr) {
            self->ended->release();
        }
    }
};

} // namespace

class KorTimerTest : public LoggerTest
{
protected:
    void SetUp() override
    {
        LoggerTest::SetUp();
        receive(receiver);
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        executor = _korExecutor_Create(KOR_AT(ex, 0));
        _korExecutor_Start(KOR_AT(ex, 0), executor);
        timer = _korTimer_Create(KOR_AT(ex, 0), executor, "test");
        ASSERT_CLEAN();
    }
    void TearDown() override
    {
        stop();
        _korExecutor_Stop(KOR_AT_D(0, ex), executor); // behind it no runner is still giving up a task
        EXPECT_TRUE(_korTimer_Release(KOR_AT_D(0, ex), timer)) << "somebody still holds the timer";
        EXPECT_TRUE(_korExecutor_Release(KOR_AT_D(0, ex), executor)) << "somebody still holds the executor";
        _korutil_Close(KOR_AT_D(0, ex));
        LoggerTest::TearDown();
    }

    void start()
    {
        _korTimer_Start(KOR_AT(ex, 0), timer);
        ASSERT_CLEAN();
    }
    /// Before the watches of a test go.
    void stop() { _korTimer_Stop(KOR_AT_D(0, ex), timer); }
    bool isStopping()
    {
        korMutex_enter(timer->mutex);
        bool stopping = timer->state == 3;
        korMutex_leave(timer->mutex);
        return stopping;
    }
    uint64_t schedule(Watch& watch, int64_t delay, int64_t interval)
    {
        watch.interval = std::min(interval, never);
        watch.earliest = Clock::now() + std::chrono::milliseconds(std::min(delay != 0 ? delay : interval, never));
        return _korTimer_ScheduleTask(KOR_AT(ex, 0), timer, Watch::run, Watch::end, &watch, delay, interval);
    }
    bool cancel(uint64_t id) { return _korTimer_CancelTask(KOR_AT_D(0, ex), timer, id); }
    void adjust(uint64_t id, int64_t interval) { _korTimer_AdjustTask(KOR_AT_D(0, ex), timer, id, interval); }

    Receiver receiver;
    korExecutor* executor = nullptr;
    korTimer* timer = nullptr;
    Semaphore ran;
    Semaphore gate;
    Semaphore ended;
};

TEST_F(KorTimerTest, RunsOnceOrAgainAndNeverEarly)
{
    start();
    std::deque<Watch> once(40);
    for (size_t i = 0; i < once.size(); i++) {
        once[i].ended = &ended;
        EXPECT_EQ(schedule(once[i], static_cast<int64_t>(i % 20), 0), i + 1);
    }
    Watch often;
    often.ran = &ran;
    uint64_t id = schedule(often, 0, 3);
    EXPECT_EQ(id, once.size() + 1);
    for (size_t i = 0; i < once.size(); i++) {
        ended.acquire();
    }
    for (int i = 0; i < 5; i++) {
        ran.acquire();
    }
    cancel(id);
    stop();
    EXPECT_CLEAN();
    for (Watch& watch : once) {
        EXPECT_TRUE(watch.runs == 1 && watch.ends == 1 && !watch.early && !watch.broken && !watch.onDispatcher);
    }
    EXPECT_TRUE(!often.early && !often.broken && !often.onDispatcher);
}

TEST_F(KorTimerTest, TasksOfTheTimeBeforeTheStartBeginAnIntervalAfterIt)
{
    Watch once, again, gone;
    once.ran = again.ran = &ran;
    schedule(once, never, 0); // due at once
    uint64_t id = schedule(again, never, never);
    adjust(id, 2);
    EXPECT_TRUE(cancel(schedule(gone, 0, 1)));
    EXPECT_TRUE(gone.ends == 1 && gone.runs == 0);
    EXPECT_EQ(timer->heap.buckets[0].head, nullptr);
    start();
    ran.acquire();
    ran.acquire();
    ran.acquire();
    stop();
    EXPECT_GE(again.runs, 2);
    EXPECT_FALSE(once.onDispatcher || again.onDispatcher);
}

TEST_F(KorTimerTest, CancelTellsWhetherTheTaskIsFinished)
{
    start();
    Watch placed, runs;
    runs.ran = &ran;
    runs.gate = &gate;
    runs.ended = &ended;
    uint64_t id = schedule(placed, never, never);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, nullptr);
    EXPECT_TRUE(cancel(id)); // with an error pending, too
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
    EXPECT_TRUE(placed.ends == 1 && placed.runs == 0);
    EXPECT_TRUE(cancel(id));
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Task not found");
    EXPECT_TRUE(cancel(0) && _korTimer_CancelTask(KOR_AT_D(0, ex), nullptr, 1));
    EXPECT_CLEAN();

    id = schedule(runs, 0, 1);
    ran.acquire();
    EXPECT_FALSE(cancel(id));
    EXPECT_FALSE(cancel(id)) << "the second time";
    adjust(id, 5);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Task has already been canceled");
    EXPECT_EQ(runs.ends, 0);
    gate.release();
    ended.acquire();
    EXPECT_TRUE(runs.runs == 1 && !runs.broken);
}

TEST_F(KorTimerTest, AnAdjustedTaskMoves)
{
    start();
    Watch once, far, inside;
    once.ended = &ended;
    far.ran = inside.ran = &ran;
    adjust(schedule(once, never, 0), 1);
    ended.acquire();
    EXPECT_EQ(once.runs, 1) << "a one-shot stays one";
    uint64_t id = schedule(far, never, never);
    adjust(id, 0); // a tight loop
    for (int i = 0; i < 20; i++) {
        ran.acquire();
    }
    adjust(id, never);
    cancel(id);
    korEx_Clear(ex);

    inside.gate = &gate;
    id = schedule(inside, 1, never);
    while (inside.runs == 0) {
        ran.acquire();
    }
    adjust(id, 1); // counts from the end of this run
    gate.release();
    while (inside.runs == 1) {
        ran.acquire();
    }
    cancel(id);
    gate.release();
    adjust(99, 1);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Task not found");
    adjust(99, -1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Negative values are not allowed");
    adjust(0, 1);
    EXPECT_CLEAN();
    stop();
}

TEST_F(KorTimerTest, AFailingCallbackEndsItsTask)
{
    start();
    Watch failing;
    failing.raiseAt = 3;
    failing.ended = &ended;
    uint64_t id = schedule(failing, 0, 1);
    ended.acquire();
    EXPECT_TRUE(failing.runs == 3 && !failing.broken);
    EXPECT_TRUE(cancel(id));
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Task not found");
    Statements statements = receiver.take();
    ASSERT_EQ(statements.size(), 1u);
    EXPECT_EQ(statements[0].rfind("warn tmrs: Timer (0x", 0), 0u) << statements[0];
    EXPECT_NE(statements[0].find("): Got exception from callback\n"), std::string::npos);
    EXPECT_NE(statements[0].find("had enough"), std::string::npos);
}

TEST_F(KorTimerTest, RefusalsLeaveTheClosureAlone)
{
    Watch watch;
    const char* negative = "Negative values are not allowed";
    EXPECT_EQ(schedule(watch, -1, 5), 0u);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, negative);
    EXPECT_EQ(schedule(watch, 5, -1), 0u);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, negative);
    EXPECT_EQ(schedule(watch, INT64_MAX, INT64_MAX), 1u) << "a long time is no negative one";
    EXPECT_TRUE(cancel(1));
    EXPECT_EQ(watch.ends.exchange(0), 1);
    start();
    cancel(schedule(watch, INT64_MAX, 0));
    EXPECT_EQ(watch.ends.exchange(0), 1);
    _korTimer_Start(KOR_AT(ex, 0), timer);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Timer not in the right state");
    stop();
    stop();
    _korTimer_Stop(KOR_AT_D(0, ex), nullptr);
    EXPECT_CLEAN();
    const char* gone = "Timer is stopping or has been stopped";
    EXPECT_EQ(schedule(watch, 0, 1), 0u);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, gone);
    EXPECT_TRUE(cancel(1));
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, gone);
    adjust(1, 1);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, gone);
    _korTimer_Start(KOR_AT(ex, 0), timer);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Timer not in the right state");
    EXPECT_EQ(watch.ends, 0);
    EXPECT_EQ(_korTimer_Create(KOR_AT(ex, 0), nullptr, "none"), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
}

TEST_F(KorTimerTest, StopWaitsForWhatRunsAndStopNoWaitDoesNot)
{
    start();
    Watch runs, waits;
    runs.ran = &ran;
    runs.gate = &gate;
    schedule(runs, 0, 1);
    schedule(waits, never, 0);
    ran.acquire();
    std::jthread opener([this] { // once the stop has begun: a second run would wait at the gate for good
        while (!isStopping()) {
            std::this_thread::yield();
        }
        gate.release();
    });
    stop();
    EXPECT_TRUE(runs.runs == 1 && runs.ends == 1 && runs.inside == 0);
    EXPECT_TRUE(waits.runs == 0 && waits.ends == 1);

    korTimer* other = _korTimer_Create(KOR_AT(ex, 0), executor, "other");
    _korTimer_Start(KOR_AT(ex, 0), other);
    Watch late;
    late.ran = &ran;
    late.gate = &gate;
    late.ended = &ended;
    _korTimer_ScheduleTask(KOR_AT(ex, 0), other, Watch::run, Watch::end, &late, 0, 0);
    ran.acquire();
    _korTimer_StopNoWait(KOR_AT_D(0, ex), other);
    EXPECT_TRUE(late.inside == 1 && late.ends == 0);
    EXPECT_FALSE(_korTimer_Release(KOR_AT_D(0, ex), other)) << "the task that runs keeps it";
    gate.release();
    ended.acquire();
}

TEST_F(KorTimerTest, AnExecutorThatIsGoneIsLoggedAndCostsOneShotsTheirLife)
{
    _korExecutor_Stop(KOR_AT_D(0, ex), executor);
    Watch once, again;
    once.ended = &ended;
    start();
    uint64_t id = schedule(again, 0, 1);
    schedule(once, 1, 0);
    ended.acquire();
    EXPECT_EQ(once.runs, 0);
    EXPECT_TRUE(cancel(id)) << "a repeating task has gone back to wait for its time";
    _korTimer_Stop(KOR_AT_D(0, ex), timer); // nothing counts as running
    Statements statements = receiver.take();
    ASSERT_GE(statements.size(), 2u);
    EXPECT_NE(statements[0].find("): Error executing task\n"), std::string::npos) << statements[0];
    EXPECT_NE(statements[1].find("): Error in timer thread\n"), std::string::npos) << statements[1];
}

// Once on a timer that is made and given up, and once on one that runs.
TEST_F(KorTimerTest, EveryAllocationMayFail)
{
    start();
    for (bool runs : {false, true}) {
        uint64_t requests = sweepFailures(ex, [&] {
            korTimer* own = runs ? timer : _korTimer_Create(KOR_AT(ex, 0), executor, "sweep");
            if (own == nullptr) {
                EXPECT_STREQ(ex->description, "No memory creating the timer");
                return;
            }
            Watch watches[6];
            for (Watch& watch : watches) {
                bool asked = ex->code == 0;
                uint64_t id = _korTimer_ScheduleTask(KOR_AT(ex, 0), own, Watch::run, Watch::end, &watch, never, 0);
                EXPECT_EQ(watch.ends == 1, asked && id == 0) << "without memory the closure is ended, and only then";
                watch.ends = 0;
                EXPECT_TRUE(_korTimer_CancelTask(KOR_AT_D(0, ex), own, id));
                EXPECT_EQ(watch.ends == 1, id != 0);
            }
            EXPECT_EQ(own->tasks->entryCount, 0u);
            if (!runs) {
                EXPECT_TRUE(_korTimer_Release(KOR_AT_D(0, ex), own));
            }
        });
        EXPECT_GE(requests, runs ? 6u : 13u);
    }
}

// Threads schedule, adjust and cancel what fires meanwhile. Each task ends once and never runs after that.
TEST_F(KorTimerTest, TasksAreCancelledAndAdjustedWhileTheyFire)
{
    constexpr int threads = 3;
    constexpr int tasksOfEach = 1500;
    start();
    std::deque<Watch> watches(threads * tasksOfEach);
    std::atomic<int> finished = 0, left = 0;
    {
        std::vector<std::jthread> users;
        for (int number = 0; number < threads; number++) {
            uint64_t seed = Random().next();
            users.emplace_back([&, number, seed] {
                KOR_EX_LOCAL(own);
                std::mt19937_64 random(seed);
                std::vector<uint64_t> ids;
                for (int i = 0; i < tasksOfEach; i++) {
                    Watch& watch = watches[static_cast<size_t>(number * tasksOfEach + i)];
                    watch.raiseAt = random() % 4 == 0 ? 2 : 0;
                    watch.ended = &ended;
                    ids.push_back(_korTimer_ScheduleTask(KOR_AT(&own, 0), timer, Watch::run, Watch::end, &watch,
                                                         static_cast<int64_t>(random() % 3),
                                                         static_cast<int64_t>(random() % 4)));
                    uint64_t other = ids[random() % ids.size()];
                    _korTimer_AdjustTask(KOR_AT_D(0, &own), timer, other, static_cast<int64_t>(random() % 5));
                    korEx_Clear(&own);
                    other = ids[random() % ids.size()];
                    bool out = _korTimer_CancelTask(KOR_AT_D(0, &own), timer, other);
                    finished += out && own.code == 0;
                    left += !out;
                    korEx_Clear(&own);
                }
                for (uint64_t id : ids) {
                    _korTimer_CancelTask(KOR_AT_D(0, &own), timer, id);
                    korEx_Clear(&own);
                }
            });
        }
    }
    for (size_t i = 0; i < watches.size(); i++) {
        ended.acquire();
    }
    stop();
    EXPECT_TRUE(timer->runningTasks == 0 && timer->tasks->entryCount == 0);
    EXPECT_EQ(timer->lastTaskId, watches.size());
    int failed = 0;
    for (Watch& watch : watches) {
        ASSERT_TRUE(watch.ends == 1 && !watch.broken && !watch.onDispatcher);
        ASSERT_TRUE(watch.raiseAt == 0 || watch.runs <= watch.raiseAt);
        failed += watch.raiseAt != 0 && watch.runs == watch.raiseAt;
    }
    EXPECT_GT(finished, 0);
    EXPECT_EQ(receiver.take().size(), static_cast<size_t>(failed)) << "each failure is logged, nothing else";
}

class KorGlobalTimerTest : public KorTest
{};

TEST_F(KorGlobalTimerTest, IsTheLibrarys)
{
    EXPECT_EQ(_korTimer_GetGlobal(KOR_AT_D(0, ex)), nullptr); // not open
    _korExecutor_Open(KOR_AT(ex, 0));
    _korTimer_Open(KOR_AT(ex, 0));
    _korTimer_Close(KOR_AT_D(0, ex));
    _korExecutor_Close(KOR_AT(ex, 0));
    EXPECT_CLEAN();
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL); // the first timer of a process is held for good, by counted arrays
    _korutil_Close(KOR_AT_D(0, ex));
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    korTimer* global = _korTimer_GetGlobal(KOR_AT_D(0, ex));
    EXPECT_STREQ(global->name, "globalTimer");
    _korTimer_Start(KOR_AT(ex, 0), global);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korTimer_Start on a global timer");
    for (auto stop : {_korTimer_Stop, _korTimer_StopNoWait}) {
        stop(KOR_AT_D(0, ex), global);
        EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korTimer_Stop on a global timer");
    }
    Watch watch;
    _korTimer_ScheduleTask(KOR_AT(ex, 0), global, Watch::run, Watch::end, &watch, never, 0);
    auto asks = [](korEx* own, uint8_t depth, void* answer) {
        *static_cast<korTimer**>(answer) = _korTimer_GetGlobal(KOR_AT_D(depth, own));
        EXPECT_EQ(own->code, KOR_ERROR_NOT_FOUND);
        korEx_Clear(own);
    };
    korTimer* answer = global;
    _korTimer_ScheduleTask(KOR_AT(ex, 0), global, Watch::run, asks, &answer, never, 0);
    _korutil_Close(KOR_AT_D(0, ex));
    EXPECT_EQ(watch.ends, 1) << "the closing ends its tasks";
    EXPECT_EQ(answer, nullptr) << "and waits for none that asks for the timer";
    EXPECT_TRUE(_korTimer_Release(KOR_AT_D(0, ex), global));
}

// ---- Overruns -------------------------------------------------------------------------------------------------------

namespace {

constexpr int64_t slow = 60; // milliseconds

void slowCallback(korEx* ex, uint8_t depth, korTimer*, uint64_t, void* closure)
{
    _korThread_Current(KOR_AT(ex, depth)); // leaves a trace of who called
    _kor_Sleep(slow);
    static_cast<Semaphore*>(closure)->release();
}

void lazyCallback(korEx*, uint8_t, korTimer*, uint64_t, void* closure)
{
    _kor_Sleep(slow);
    static_cast<Semaphore*>(closure)->release();
}

} // namespace

class KorTimerOverrunTest : public LoggerTest
{};

// One runner for two tasks: the one makes the other late.
TEST_F(KorTimerOverrunTest, DISABLED_Child)
{
    Receiver receiver;
    receive(receiver);
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    korExecutor* executor = _korExecutor_Create(KOR_AT(ex, 0));
    _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, 1);
    _korExecutor_Start(KOR_AT(ex, 0), executor);
    korTimer* timer = _korTimer_Create(KOR_AT(ex, 0), executor, "overrun");
    _korTimer_Start(KOR_AT(ex, 0), timer);
    Semaphore done, lazyDone;
    _korTimer_ScheduleTask(KOR_AT(ex, 0), timer, slowCallback, nullptr, &done, 0, 1);
    _korTimer_ScheduleTask(KOR_AT(ex, 0), timer, lazyCallback, nullptr, &lazyDone, 5, 5);
    for (int i = 0; i < 3; i++) {
        done.acquire();
        lazyDone.acquire();
    }
    _korTimer_Stop(KOR_AT_D(0, ex), timer);
    _korTimer_Release(KOR_AT_D(0, ex), timer);
    _korExecutor_Stop(KOR_AT_D(0, ex), executor);
    _korExecutor_Release(KOR_AT_D(0, ex), executor);
    _korutil_Close(KOR_AT_D(0, ex));
    for (const std::string& statement : receiver.take()) {
        printf("|%s\n", statement.c_str());
    }
}

TEST_F(KorTimerOverrunTest, OverrunsAndLateStartsAreReported)
{
    ChildProcess child("KorTimerOverrunTest.DISABLED_Child", {{"KOR_EXEC_CONF", "x,warnOnOverrunDur=10,help"}});
    ASSERT_EQ(child.wait(), 0) << child.output();
    for (const char* text :
         {"KOR_EXEC_CONF:[warnOnOverrunDur=<ms>]\nwarnOnOverrunDur: Grace period for timer overruns. If the execution "
          "time of the timer callback exceeds the timer interval by more than the grace period, or, the timer callback "
          "is late by more than the grace period, print a warning.\n"
          "Found settings for timer overruns: warnOnOverrunDur=10\n",
          "|seve tmrs: overrun for task id 1 on timer ", " ms, interval=1 ms, callback=",
          "tmrs: late first exec for task id 2 on timer ", " ms, delay=5 ms, callback=", "tmrs: late exec for task id ",
          "tmrs: callback invoked: slowCallback\n", "tmrs: callback invoked: <unknown>\n"}) {
        EXPECT_NE(child.output().find(text), std::string::npos) << text << "\nin\n" << child.output();
    }
}
