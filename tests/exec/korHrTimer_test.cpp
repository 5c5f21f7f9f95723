// korHrTimer_test.cpp - what fires, in which order, and what ends a wait. Nothing here measures how late a callback is.

#include "korutil/korHrTimer.h"

#include "korutil/korPerf.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace {

using namespace kor::test;

struct Fired {
    uint64_t id;
    void* argument;
    int64_t tick;
};

class KorHrTimerTest : public KorTest
{
protected:
    KorHrTimerTest() : timer(_korHrTimer_Create(KOR_AT(ex, 0))) {}
    ~KorHrTimerTest() override { _korHrTimer_Destroy(KOR_AT_D(0, ex), timer); }

    static void record(korEx*, uint8_t, uint64_t id, void* argument, void* closure)
    {
        static_cast<KorHrTimerTest*>(closure)->fired.push_back({id, argument, _korPerf_TimerNow()});
    }

    static void fail(korEx* ex, uint8_t depth, uint64_t, void*, void*)
    {
        KOR_RAISE(ex, depth, KOR_ERROR_EXCEPTION, "of the callback");
    }

    static void shutDown(korEx* ex, uint8_t depth, uint64_t, void*, void* closure)
    {
        _korHrTimer_Shutdown(KOR_AT_D(depth, ex), static_cast<KorHrTimerTest*>(closure)->timer);
    }

    uint64_t arm(double timeout, korHrTimerCallback callback = record, void* argument = nullptr)
    {
        return _korHrTimer_Arm(KOR_AT(ex, 0), timer, timeout, callback, argument, this);
    }

    void process(korEx* own)
    {
        korMutex_enter(timer->mutex);
        _korHrTimer_ProcessTimers(KOR_AT(own, 0), timer);
        korMutex_leave(timer->mutex);
    }

    korHrTimer* timer;
    std::vector<Fired> fired;
};

TEST_F(KorHrTimerTest, FiresInTheOrderOfDeadlinesAndNeverEarly)
{
    constexpr double threshold = 2e-5;
    Random random;
    struct Armed {
        double timeout;
        int64_t before;
    };
    std::vector<Armed> armed(200);
    uint64_t first = 0;
    for (Armed& one : armed) {
        one = {static_cast<double>(random.below(20000)) * 1e-6, _korPerf_TimerNow()};
        uint64_t id = arm(one.timeout, record, &one);
        first = first == 0 ? id : first;
        EXPECT_EQ(id, first + static_cast<uint64_t>(&one - armed.data())); // ids go up
    }
    arm(0.03, shutDown);
    process(ex);
    ASSERT_EQ(fired.size(), armed.size());
    for (const Fired& one : fired) {
        auto* its = static_cast<Armed*>(one.argument);
        double elapsed = static_cast<double>(one.tick - its->before) * _korPerf_TimerScale();
        EXPECT_GE(elapsed, its->timeout - threshold);
    }
    EXPECT_EQ(timer->nodes->count, 0);
    EXPECT_EQ(timer->timers->entryCount, 0U);
}

TEST_F(KorHrTimerTest, ServiceFiresWhatIsDueAndLeavesTheRest)
{
    arm(100);
    arm(0, fail);
    uint64_t due = arm(1e-5); // within the threshold
    _korHrTimer_ServiceTimers(KOR_AT(ex, 0), timer);
    ASSERT_EQ(fired.size(), 1U); // after a callback that failed
    EXPECT_EQ(fired[0].id, due);
    EXPECT_EQ(timer->nodes->count, 1);
}

TEST_F(KorHrTimerTest, RefusesWhatMakesNoSense)
{
    EXPECT_EQ(arm(-1), 0U);
    EXPECT_RAISED(1, nullptr);
    EXPECT_EQ(arm(std::nan("")), 0U);
    EXPECT_RAISED(1, nullptr);
    EXPECT_EQ(arm(1, nullptr), 0U);
    EXPECT_RAISED(1, nullptr);
    EXPECT_NE(arm(1e300), 0U);
    _korHrTimer_Shutdown(KOR_AT_D(0, ex), timer);
    _korHrTimer_Shutdown(KOR_AT_D(0, ex), timer);
    EXPECT_EQ(arm(1), 0U);
    EXPECT_RAISED(10, "Timer is stopping or has been stopped");
    process(ex); // returns at once
    _korHrTimer_Shutdown(KOR_AT_D(0, ex), nullptr);
    _korHrTimer_Destroy(KOR_AT_D(0, ex), nullptr);
}

TEST_F(KorHrTimerTest, AnEarlierNodeAndTheShutdownEndAWait)
{
    uint64_t late = arm(100);
    std::atomic<bool> ended = false;
    std::thread lent([&] {
        korEx* own = korEx_Create();
        process(own);
        EXPECT_TRUE(clean(own));
        korEx_Destroy(own);
        ended = true;
    });
    uint64_t early = arm(0.001, shutDown); // would come after a hundred seconds if the wait were not cut short
    lent.join();
    EXPECT_TRUE(ended);
    EXPECT_TRUE(fired.empty());
    EXPECT_FALSE(_korHrTimer_Cancel(KOR_AT_D(0, ex), timer, early));
    EXPECT_TRUE(_korHrTimer_Cancel(KOR_AT_D(0, ex), timer, late));
}

std::atomic<int> count;

void countOne(korEx*, uint8_t, uint64_t, void*, void*)
{
    count++;
}

TEST_F(KorHrTimerTest, ArmedAndCancelledFromManyThreads)
{
    constexpr int threads = 3;
    constexpr int each = 1000;
    count = 0;
    std::atomic<int> cancelled = 0;
    std::thread lent([&] {
        korEx* own = korEx_Create();
        process(own);
        EXPECT_TRUE(clean(own));
        korEx_Destroy(own);
    });
    std::vector<std::thread> callers;
    for (int thread = 0; thread < threads; thread++) {
        callers.emplace_back([&] {
            korEx* own = korEx_Create();
            for (int i = 0; i < each; i++) {
                uint64_t id = _korHrTimer_Arm(KOR_AT(own, 0), timer, i % 3 * 1e-4, countOne, nullptr, nullptr);
                if (i % 2 != 0 && _korHrTimer_Cancel(KOR_AT_D(0, own), timer, id)) {
                    cancelled++;
                }
            }
            EXPECT_TRUE(clean(own));
            korEx_Destroy(own);
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    arm(0.01, shutDown); // behind all others
    lent.join();
    EXPECT_EQ(count + cancelled, threads * each);
}

TEST_F(KorHrTimerTest, AnyRequestMayFail)
{
    sweepFailures(ex, [&] {
        korHrTimer* own = _korHrTimer_Create(KOR_AT(ex, 0));
        for (int i = 0; own != nullptr && i < 40 && korEx_GetErrorCode(ex) == 0; i++) {
            _korHrTimer_Arm(KOR_AT(ex, 0), own, 1, record, nullptr, this);
        }
        EXPECT_TRUE(own == nullptr || own->timers->entryCount == static_cast<uint32_t>(own->nodes->count));
        _korHrTimer_Destroy(KOR_AT_D(0, ex), own);
    });
}

} // namespace
