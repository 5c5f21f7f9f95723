// korCountCondition_test.cpp - counters that are waited for.

#include "korutil/korCountCondition.h"
#include "support/failingHeap.h"

#include <thread>
#include <vector>

using namespace kor::test;

using KorCountCondition = KorTest;

TEST_F(KorCountCondition, ATargetAlreadyReachedIsNotWaitedFor)
{
    korCountCondition* counter = _korCountCondition_Create(ex, 0);
    ASSERT_CLEAN();
    _korCountCondition_Wait(0, ex, counter, 0);
    _korCountCondition_Signal(0, ex, counter);
    _korCountCondition_Signal(0, ex, counter);
    _korCountCondition_Wait(0, ex, counter, 2);
    EXPECT_EQ(counter->count, 2);
    _korCountCondition_Destroy(0, ex, counter);
}

TEST_F(KorCountCondition, EachWaiterLeavesAtItsTarget)
{
    constexpr int64_t targets = 5;
    korCountCondition* counter = _korCountCondition_Create(ex, 0);
    ASSERT_CLEAN();
    std::vector<std::jthread> waiters;
    for (int64_t target = 1; target <= targets; target++) {
        waiters.emplace_back([=] {
            korEx own = {};
            _korCountCondition_Wait(0, &own, counter, target);
            korMutex_enter(&counter->mutex);
            EXPECT_GE(counter->count, target);
            korMutex_leave(&counter->mutex);
            EXPECT_EQ(own.code, 0);
        });
    }
    for (size_t i = 0; i < targets; i++) {
        _korCountCondition_Signal(0, ex, counter);
        waiters[i].join(); // though those with higher targets go on passing the broadcast to each other
    }
    _korCountCondition_Destroy(0, ex, counter);
}

TEST_F(KorCountCondition, WaitsWithAnErrorPendingAndEndsWhenTheWaitFails)
{
    korCountCondition* counter = _korCountCondition_Create(ex, 0);
    ASSERT_CLEAN();
    _korCondition_Clear(0, ex, &counter->condition);
    _korCountCondition_Wait(0, ex, counter, 1);
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    KOR_RAISE(ex, 0, KOR_ERROR_NOT_FOUND, nullptr);
    _korCountCondition_Wait(0, ex, counter, 1);
    EXPECT_EQ(_korCountCondition_Create(ex, 0), nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, nullptr);
    _korCountCondition_Destroy(0, ex, counter);
}

TEST_F(KorCountCondition, EveryRequestMayFail)
{
    EXPECT_EQ(sweepFailures(ex, [&] { _korCountCondition_Destroy(0, ex, _korCountCondition_Create(ex, 0)); }), 1u);
    _korCountCondition_Destroy(0, ex, nullptr);
    _korCountCondition_Signal(0, ex, nullptr);
    _korCountCondition_Wait(0, ex, nullptr, 1);
}

TEST_F(KorCountCondition, LivesInTheCallersStorage)
{
    korCountCondition counter;
    _korCountCondition_Init(ex, 0, &counter);
    ASSERT_CLEAN();
    std::jthread other([&] {
        korEx own = {};
        _korCountCondition_Signal(0, &own, &counter);
    });
    _korCountCondition_Wait(0, ex, &counter, 1);
    other.join();
    EXPECT_EQ(counter.count, 1);
    _korCondition_Clear(0, ex, &counter.condition);
    _korMutex_Clear(ex, 0, &counter.mutex);
}
