// korFastCondition_test.cpp - fast conditions and fast reader-writer locks, beyond what all locks promise.

#include "korutil/korFastRWLock.h"
#include "support/failingHeap.h"
#include "sync/lockAdapters.h"

#include <atomic>

using namespace kor::test;

using KorFastCondition = KorTest;

TEST_F(KorFastCondition, ASignalFromTheNextHolderWakesTheWaiter)
{
    FastPair<0> pair;
    for (int i = 0; i < stressRounds / 100; i++) {
        std::atomic<bool> held = false;
        bool signalled = false;
        std::jthread signaller([&] {
            korEx own = {};
            until([&] { return held.load(); });
            pair.acquire(); // which the waiter's release lets pass
            signalled = true;
            pair.signal(&own);
            pair.release();
        });
        pair.acquire();
        held = true;
        while (!signalled) {
            pair.wait(ex);
        }
        pair.release();
    }
}

TEST_F(KorFastCondition, LimitsWorkAsThoseOfAPlainCondition)
{
    FastPair<0> pair;
    korTargetTime target = {};
    uint8_t timedOut = 0;
    pair.acquire();
    _korFastCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 2, &target, &timedOut);
    EXPECT_EQ(timedOut, 1);
    EXPECT_EQ(target.started, 1);
    EXPECT_FALSE(pair.tryAcquire());
    _korFastCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, 2, &target, nullptr);
    EXPECT_RAISED(KOR_ERROR_OS, "Condition wait");
    pair.signal(ex);
    _korFastCondition_WaitEx(0, ex, &pair.conditions[0], &pair.lock, -1, nullptr, nullptr);
    EXPECT_FALSE(pair.tryAcquire());
    pair.release();
}

TEST_F(KorFastCondition, ASignalWithoutAnEventIsAnError)
{
    korFastCondition* condition = _korFastCondition_Create(0, ex);
    ASSERT_CLEAN();
    _korCondition_Clear(0, ex, &condition->condition);
    _korFastCondition_Signal(0, ex, condition);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    _korFastCondition_Broadcast(0, ex, condition);
    _korFastCondition_Destroy(0, ex, condition);
}

TEST_F(KorFastCondition, ObjectsAcceptNullAndEveryRequestMayFail)
{
    FastPair<0> pair;
    _korFastCondition_Init(0, ex, nullptr);
    _korFastCondition_Clear(0, ex, nullptr);
    _korFastCondition_Destroy(0, ex, nullptr);
    _korFastCondition_Signal(0, ex, nullptr);
    _korFastCondition_Broadcast(0, ex, nullptr);
    _korFastCondition_Wait(0, ex, nullptr, &pair.lock);
    _korFastCondition_WaitEx(0, ex, &pair.conditions[0], nullptr, 1, nullptr, nullptr);
    EXPECT_EQ(sweepFailures(ex, [&] { _korFastCondition_Destroy(0, ex, _korFastCondition_Create(0, ex)); }), 1u);
}

using KorFastRWLock = KorTest;

TEST_F(KorFastRWLock, IsMadeOfFreeParts)
{
    korFastRWLock* lock = _korFastRWLock_Create(ex, 0, 12);
    ASSERT_CLEAN();
    EXPECT_EQ(lock->readers, 0u);
    EXPECT_EQ(lock->firstLock.spinCount, 12u);
    EXPECT_EQ(lock->secondLock.spinCount, 12u);
    EXPECT_TRUE(korFastLock_tryAcquire(&lock->firstLock));
    EXPECT_TRUE(korFastLock_tryAcquire(&lock->secondLock));
    _korFastCondition_Signal(0, ex, &lock->condition);
    _korFastRWLock_Destroy(0, ex, lock);
    _korFastRWLock_Destroy(0, ex, nullptr);
    EXPECT_EQ(sweepFailures(ex, [&] { _korFastRWLock_Destroy(0, ex, _korFastRWLock_Create(ex, 0, 0)); }), 1u);
}

TEST_F(KorFastRWLock, LivesInTheCallersStorage)
{
    korFastRWLock lock;
    _korFastRWLock_Init(ex, 0, &lock, 7);
    ASSERT_CLEAN();
    EXPECT_TRUE(lock.firstLock.spinCount == 7 && lock.secondLock.spinCount == 7 && lock.readers == 0);
    _korFastRWLock_Clear(0, ex, &lock);
    korFastRWLock untouched = {};
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, nullptr);
    _korFastRWLock_Init(ex, 0, &untouched, 7);
    EXPECT_EQ(untouched.firstLock.spinCount, 0u);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
}
