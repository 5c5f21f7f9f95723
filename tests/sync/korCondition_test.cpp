// korCondition_test.cpp - conditions, beyond what those of all locks promise, and counters that are waited for.

#include "korutil/korCountCondition.h"
#include "sync/lockAdapters.h"

using namespace kor::test;

using KorCondition = KorTest;

TEST_F(KorCondition, AWakeUpWithoutAWaiterLetsOneTimedWaitPass)
{
    MutexPair pair;
    auto timesOut = [&](uint32_t limit) {
        return _korCondition_TimedWait(0, ex, &pair.conditions[0], &pair.lock, limit);
    };
    pair.acquire();
    EXPECT_TRUE(timesOut(0));
    for (auto wake : {&MutexPair::signal, &MutexPair::broadcast}) {
        (pair.*wake)(ex, 0);
        (pair.*wake)(ex, 0);
        EXPECT_FALSE(timesOut(0xFFFFFFFF));
        EXPECT_TRUE(timesOut(1));
    }
    _korCondition_Clear(0, ex, &pair.conditions[0]);
    EXPECT_FALSE(timesOut(5));
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    pair.release();
}

TEST_F(KorCondition, AClockSetBackTakesNothingFromALimit)
{
    korTargetTime target = {};
    _korTargetTime_SetRemaining(&target, 5000);
    target.startTime += 3600;
    _korTargetTime_SetRemaining(&target, 1);
    EXPECT_EQ(target.remaining, 5000);
}

using KorCountCondition = KorTest;

TEST_F(KorCountCondition, EachWaiterLeavesAtItsTarget)
{
    korCountCondition counter;
    _korCountCondition_Init(ex, 0, &counter);
    ASSERT_CLEAN();
    auto waiters = inThreads(5, [&](korEx* own, int target) {
        _korCountCondition_Wait(0, own, &counter, target);
        korMutex_enter(&counter.mutex);
        EXPECT_GE(counter.count, target);
        korMutex_leave(&counter.mutex);
    });
    for (auto& waiter : waiters) {
        waiter.join(); // though those with higher targets go on passing the broadcast to each other
        _korCountCondition_Signal(0, ex, &counter);
    }
    _korCountCondition_Wait(0, ex, &counter, 5); // reached already
    _korCondition_Clear(0, ex, &counter.condition);
    _korCountCondition_Wait(0, ex, &counter, 6);
    _korCountCondition_Wait(0, ex, &counter, 6); // a wait that fails ends it with an error pending too
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    _korMutex_Clear(ex, 0, &counter.mutex);
}
