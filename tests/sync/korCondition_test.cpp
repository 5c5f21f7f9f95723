// korCondition_test.cpp - conditions: what a wake-up leaves behind, limits and their records, failures.

#include "korutil/korCondition.h"
#include "support/failingHeap.h"
#include "sync/lockAdapters.h"

#include <atomic>
#include <vector>

using namespace kor::test;

class KorCondition : public KorTest
{
protected:
    bool timesOut() { return _korCondition_TimedWait(0, ex, &pair.conditions[0], &pair.lock, 0); }
    uint32_t broadcastFlag() { return std::atomic_ref(pair.conditions[0].broadcast).load(); }
    void untilWaiting(uint32_t count)
    {
        until([&] { return std::atomic_ref(pair.conditions[0].waiters).load() == count; });
    }

    void expectMutexHeld()
    {
        std::jthread([&] { EXPECT_FALSE(pair.tryAcquire()); }).join();
    }

    MutexPair pair;
};

TEST_F(KorCondition, AWakeUpWithoutAWaiterLetsOneWaitPass)
{
    pair.acquire();
    EXPECT_TRUE(timesOut());
    pair.signal(ex);
    pair.signal(ex);
    EXPECT_FALSE(timesOut());
    EXPECT_TRUE(timesOut());

    pair.broadcast(ex);
    EXPECT_EQ(broadcastFlag(), 1u);
    EXPECT_FALSE(timesOut());
    EXPECT_EQ(broadcastFlag(), 0u);
    EXPECT_TRUE(timesOut());
    pair.release();
}

TEST_F(KorCondition, ABroadcastRunsThroughAllWaitersAndEnds)
{
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&] {
            korEx own = {};
            pair.acquire();
            pair.wait(&own);
            pair.release();
        });
    }
    untilWaiting(3);
    pair.acquire(); // which the last of the three has left, so that all are counted
    pair.broadcast(ex);
    pair.release();
    threads.clear();
    EXPECT_EQ(broadcastFlag(), 0u);
    EXPECT_EQ(pair.conditions[0].waiters, 0u);
}

TEST_F(KorCondition, ATimeOutWithoutAFlagIsAnError)
{
    korTargetTime target = {};
    pair.acquire();
    _korCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 1, &target, nullptr);
    expectMutexHeld();
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");

    uint8_t timedOut = 7;
    pair.signal(ex);
    _korCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 1, &target, &timedOut);
    EXPECT_EQ(timedOut, 7);
    _korCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 0, nullptr, &timedOut);
    EXPECT_EQ(timedOut, 1);
    pair.release();
}

TEST_F(KorCondition, ANegativeTimeOutIsNoLimit)
{
    korTargetTime target = {};
    uint8_t timedOut = 0;
    std::jthread signaller([&] {
        korEx own = {};
        untilWaiting(1);
        pair.signal(&own);
    });
    pair.acquire();
    _korCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, -1, &target, &timedOut);
    pair.release();
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(target.started, 0);
}

TEST_F(KorCondition, RepeatedWaitsShareOneTimeOut)
{
    korTargetTime target = {};
    uint8_t timedOut = 0;
    int64_t before = 20;
    pair.acquire();
    do {
        pair.signal(ex);
        _korCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 20, &target, &timedOut);
        ASSERT_LE(target.remaining, before);
        before = target.remaining;
    } while (before > 0);
    EXPECT_EQ(timedOut, 0);
    _korCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 1000000, &target, &timedOut);
    EXPECT_EQ(timedOut, 1);
    pair.release();
}

TEST_F(KorCondition, AClockSetBackNeitherAddsNorTakes)
{
    korTargetTime target = {};
    _korTargetTime_SetRemaining(&target, 5000);
    EXPECT_EQ(target.started, 1);
    EXPECT_EQ(target.remaining, 5000);
    target.startTime += 3600;
    _korTargetTime_SetRemaining(&target, 1);
    EXPECT_EQ(target.remaining, 5000);
    target.startTime -= 3600;
    _korTargetTime_SetRemaining(&target, 1);
    EXPECT_EQ(target.remaining, 0);
}

TEST_F(KorCondition, AFailedWaitRaisesAndHoldsTheMutex)
{
    korCondition ended;
    _korCondition_Init(0, ex, &ended);
    _korCondition_Clear(0, ex, &ended);
    _korCondition_Clear(0, ex, &ended);
    pair.acquire();
    _korCondition_Wait(0, ex, &ended, &pair.lock);
    expectMutexHeld();
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    EXPECT_FALSE(_korCondition_TimedWait(0, ex, &ended, &pair.lock, 5));
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    _korCondition_WaitEx(0, ex, &ended, &pair.lock, 5, nullptr, nullptr);
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    pair.release();
}

TEST_F(KorCondition, NullIsAccepted)
{
    _korCondition_Init(0, ex, nullptr);
    _korCondition_Clear(0, ex, nullptr);
    _korCondition_Destroy(0, ex, nullptr);
    _korCondition_SignalDebug(0, ex, nullptr);
    _korCondition_Broadcast(0, ex, nullptr);
    _korCondition_Wait(0, ex, nullptr, &pair.lock);
    _korCondition_Wait(0, ex, &pair.conditions[0], nullptr);
    EXPECT_FALSE(_korCondition_TimedWait(0, ex, nullptr, nullptr, 5));
    _korCondition_WaitEx(0, ex, nullptr, nullptr, 5, nullptr, nullptr);
}

TEST_F(KorCondition, EveryRequestMayFail)
{
    EXPECT_EQ(sweepFailures(ex, [&] { _korCondition_Destroy(0, ex, _korCondition_Create(0, ex)); }), 1u);
}

TEST_F(KorCondition, WaitsThatRunOutWhileSignalsComeLoseNone)
{
    constexpr int threads = 3;
    constexpr int rounds = stressRounds / 20;
    std::atomic<int> taken = 0;
    int64_t items = 0;
    std::vector<std::jthread> waiters;
    for (int i = 0; i < threads; i++) {
        waiters.emplace_back([&] {
            korEx own = {};
            pair.acquire();
            while (taken < rounds) {
                if (items > 0) {
                    items--;
                    taken++;
                } else {
                    _korCondition_TimedWait(0, &own, &pair.conditions[0], &pair.lock, taken % 2 == 0 ? 1 : 0xFFFFFFFF);
                }
            }
            pair.release();
            EXPECT_EQ(own.code, 0);
        });
    }
    for (int i = 0; i < rounds; i++) {
        pair.acquire();
        items++;
        pair.signal(ex);
        pair.release();
    }
    until([&] { return taken == rounds; });
    pair.acquire();
    pair.broadcast(ex);
    pair.release();
    waiters.clear();
    EXPECT_EQ(items, 0);
}
