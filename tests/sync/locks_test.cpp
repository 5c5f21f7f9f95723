// locks_test.cpp - what every lock promises, and every condition with its lock.

#include "korutil/korCountCondition.h"
#include "korutil/korFastRWLock.h"
#include "korutil/korRWLock.h"
#include "korutil/korSemaphore.h"
#include "support/failingHeap.h"
#include "sync/lockAdapters.h"

using namespace kor::test;

template <class>
class Locks : public KorTest
{};

using Pairs = testing::Types<MutexPair, FastPair<0>, FastPair<1>>;
TYPED_TEST_SUITE(Locks, Pairs);

TYPED_TEST(Locks, OnlyOneThreadIsInside)
{
    TypeParam pair;
    int plain = 0;
    inThreads(4, [&](korEx*, int) {
        for (int i = 0; i < stressRounds / 4; i++) {
            pair.acquire();
            plain++;
            pair.release();
        }
    });
    EXPECT_EQ(plain, stressRounds / 4 * 4);
    EXPECT_FALSE(isHeld(pair));
    pair.acquire();
    EXPECT_TRUE(isHeld(pair));
    pair.release();
}

TYPED_TEST(Locks, TwoThreadsHandOver)
{
    TypeParam pair;
    int turn = 0;
    inThreads(2, [&](korEx* own, int me) {
        pair.acquire();
        for (int i = 0; i < stressRounds; i++) {
            while (turn % 2 != me) {
                pair.wait(own, me);
            }
            turn++;
            pair.signal(own, 1 - me);
        }
        pair.release();
    });
    EXPECT_EQ(turn, 2 * stressRounds);
}

TYPED_TEST(Locks, WorkersTakeAllThatIsSignalledThoughSomeWaitsRunOut)
{
    constexpr int rounds = stressRounds / 4;
    TypeParam pair;
    int put = 0, taken = 0;
    auto workers = inThreads(3, [&](korEx* own, int me) {
        uint8_t timedOut = 0;
        pair.acquire();
        while (taken < rounds) {
            if (taken < put) {
                taken++;
            } else {
                pair.waitEx(own, me == 0 ? 1 : -1, nullptr, &timedOut);
            }
        }
        pair.release();
        pair.broadcast(own);
    });
    for (int i = 0; i < rounds; i++) {
        pair.acquire();
        put++;
        pair.release();
        pair.signal(this->ex);
    }
    workers.clear();
    EXPECT_EQ(taken, put);
}

TYPED_TEST(Locks, ABroadcastWakesAllAndEnds)
{
    constexpr int threads = 4;
    constexpr int rounds = stressRounds / 25;
    TypeParam pair;
    int waiting = 0;
    int round = 0;
    auto waiters = inThreads(threads, [&](korEx* own, int) {
        pair.acquire();
        for (int i = 1; i <= rounds; i++) {
            waiting++;
            while (round < i) {
                pair.wait(own, i % 2); // in turns: who waited again at once would be woken by the same broadcast
            }
        }
        pair.release();
    });
    while (round < rounds) {
        pair.acquire();
        if (waiting == threads) {
            waiting = 0;
            round++;
            pair.broadcast(this->ex, round % 2);
        }
        pair.release();
        std::this_thread::yield();
    }
    waiters.clear();
    for (int which : {0, 1}) {
        EXPECT_EQ(pair.plainCondition(which).waiters, 0u);
        EXPECT_EQ(pair.plainCondition(which).broadcast, 0u);
    }
}

TYPED_TEST(Locks, AWakeUpWithoutAWaiterLetsOneWaitPass)
{
    TypeParam pair;
    auto timesOut = [&] {
        uint8_t timedOut = 0;
        pair.waitEx(this->ex, 0, nullptr, &timedOut);
        return timedOut == 1;
    };
    pair.acquire();
    EXPECT_TRUE(timesOut());
    pair.signal(this->ex);
    pair.signal(this->ex);
    EXPECT_FALSE(timesOut());
    EXPECT_TRUE(timesOut());
    pair.broadcast(this->ex);
    EXPECT_FALSE(timesOut());
    EXPECT_TRUE(timesOut());
    EXPECT_EQ(pair.plainCondition().broadcast, 0u);
    pair.release();
}

TYPED_TEST(Locks, WaitsShareALimitAndHoldTheLockWhenTheyFail)
{
    TypeParam pair;
    korTargetTime target = {};
    uint8_t timedOut = 0;
    auto failed = [&] { return raised(this->ex, KOR_ERROR_OS, "Condition wait"); };
    pair.acquire();
    pair.signal(this->ex);
    pair.waitEx(this->ex, -1, &target, nullptr); // no limit, and no need of a record
    EXPECT_EQ(target.started, 0);
    for (int64_t before = 20; before > 0; before = target.remaining) {
        pair.signal(this->ex);
        pair.waitEx(this->ex, 20, &target, &timedOut);
        ASSERT_LE(target.remaining, before);
    }
    EXPECT_EQ(timedOut, 0);
    pair.waitEx(this->ex, 1000000, &target, &timedOut);
    EXPECT_EQ(timedOut, 1);
    pair.waitEx(this->ex, 1000000, &target, nullptr);
    EXPECT_TRUE(failed());
    _korCondition_Clear(0, this->ex, &pair.plainCondition());
    pair.waitEx(this->ex, 5, nullptr, &timedOut);
    EXPECT_TRUE(failed());
    pair.wait(this->ex);
    EXPECT_NE(this->ex->osError, 0);
    EXPECT_TRUE(failed());
    EXPECT_TRUE(isHeld(pair));
    pair.release();
}

// ---- Objects on the heap --------------------------------------------------------------------------------------------

using LockObjects = KorTest;

TEST_F(LockObjects, AreMadeWholeOrNotAtAll)
{
    auto check = [this](const char* what, auto create, auto destroy) {
        SCOPED_TRACE(what);
        EXPECT_EQ(sweepFailures(ex, [&] { destroy(0, ex, create()); }), 1u);
        KOR_RAISE(ex, 0, KOR_ERROR_NOT_FOUND, nullptr);
        EXPECT_EQ(create(), nullptr);
        destroy(0, ex, nullptr);
        EXPECT_RAISED(KOR_ERROR_NOT_FOUND, nullptr);
    };
    check(
        "mutex", [&] { return _korMutex_Create(ex, 0); }, _korMutex_Destroy);
    check(
        "condition", [&] { return _korCondition_Create(0, ex); }, _korCondition_Destroy);
    check(
        "counter", [&] { return _korCountCondition_Create(ex, 0); }, _korCountCondition_Destroy);
    check(
        "fast lock", [&] { return _korFastLock_Create(0, ex, 0); }, _korFastLock_Destroy);
    check(
        "fast condition", [&] { return _korFastCondition_Create(0, ex); }, _korFastCondition_Destroy);
    check(
        "fast rw lock", [&] { return _korFastRWLock_Create(ex, 0, 0); }, _korFastRWLock_Destroy);
    check(
        "semaphore", [&] { return _korSemaphore_CreateUnnamed(ex, 0); }, _korSemaphore_Destroy);
}

TEST_F(LockObjects, MayBeNull)
{
    MutexPair pair;
    FastPair<0> fastPair;
    _korCondition_Init(0, ex, nullptr);
    _korCondition_Clear(0, ex, nullptr);
    _korCondition_SignalDebug(0, ex, nullptr);
    _korCondition_Broadcast(0, ex, nullptr);
    _korCondition_Wait(0, ex, nullptr, &pair.lock);
    _korCondition_Wait(0, ex, &pair.conditions[0], nullptr);
    _korCondition_WaitEx(0, ex, nullptr, nullptr, 5, nullptr, nullptr);
    EXPECT_FALSE(_korCondition_TimedWait(0, ex, nullptr, nullptr, 5));
    _korCountCondition_Signal(0, ex, nullptr);
    _korCountCondition_Wait(0, ex, nullptr, 1);
    _korFastLock_Init(0, ex, nullptr, 0);
    _korFastLock_Clear(0, ex, nullptr);
    _korFastCondition_Init(0, ex, nullptr);
    _korFastCondition_Clear(0, ex, nullptr);
    _korFastCondition_Signal(0, ex, nullptr);
    _korFastCondition_Broadcast(0, ex, nullptr);
    _korFastCondition_Wait(0, ex, nullptr, &fastPair.lock);
    _korFastCondition_WaitEx(0, ex, &fastPair.conditions[0], nullptr, 1, nullptr, nullptr);
    _korRWLock_ReadLock(0, ex, nullptr);
    _korRWLock_UnlockReadLock(0, ex, nullptr);
    _korRWLock_WriteLock(0, ex, nullptr);
    _korRWLock_UnlockWriteLock(0, ex, nullptr);
    _korSemaphore_Release(0, ex, nullptr);
    EXPECT_CLEAN();
}
