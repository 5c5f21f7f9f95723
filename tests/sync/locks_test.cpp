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

TYPED_TEST(Locks, WaitsShareALimitAndHoldTheLockWhenTheyFail)
{
    TypeParam pair;
    korTargetTime target = {};
    uint8_t timedOut = 0;
    pair.acquire();
    for (int64_t before = 20; before > 0; before = target.remaining) {
        pair.signal(this->ex);
        pair.waitEx(this->ex, 20, &target, &timedOut);
        ASSERT_LE(target.remaining, before);
    }
    EXPECT_EQ(timedOut, 0);
    pair.waitEx(this->ex, 1000000, &target, &timedOut);
    EXPECT_EQ(timedOut, 1);
    _korCondition_Clear(0, this->ex, &pair.plainCondition());
    for (int64_t limit : {5, -1}) {
        pair.waitEx(this->ex, limit, nullptr, &timedOut);
        EXPECT_NE(this->ex->osError, 0);
        EXPECT_TRUE(raised(this->ex, KOR_ERROR_OS, "Condition wait"));
    }
    EXPECT_TRUE(isHeld(pair));
    pair.release();
}

// ---- Objects on the heap --------------------------------------------------------------------------------------------

using LockObjects = KorTest;

TEST_F(LockObjects, AreMadeWholeOrNotAtAll)
{
    uint64_t requests = sweepFailures(ex, [this] {
        auto* mutex = _korMutex_Create(ex, 0);
        auto* condition = _korCondition_Create(0, ex);
        auto* counter = _korCountCondition_Create(ex, 0);
        auto* fastLock = _korFastLock_Create(0, ex, 0);
        auto* fastCondition = _korFastCondition_Create(0, ex);
        auto* fastRWLock = _korFastRWLock_Create(ex, 0, 0);
        auto* rwLock = _korRWLock_Create(0, ex);
        auto* semaphore = _korSemaphore_CreateUnnamed(ex, 0);
        EXPECT_EQ(semaphore == nullptr, ex->code != 0) << "not after one that failed";
        _korMutex_Destroy(0, ex, mutex);
        _korCondition_Destroy(0, ex, condition);
        _korCountCondition_Destroy(0, ex, counter);
        _korFastLock_Destroy(0, ex, fastLock);
        _korFastCondition_Destroy(0, ex, fastCondition);
        _korFastRWLock_Destroy(0, ex, fastRWLock);
        _korRWLock_Destroy(0, ex, rwLock);
        _korSemaphore_Destroy(0, ex, semaphore);
    });
    EXPECT_EQ(requests, 8u);
}
