// korFastLock_test.cpp - fast locks: what the word says, who parks, who comes first.

#include "korutil/korAlloc.h"
#include "support/failingHeap.h"
#include "sync/lockAdapters.h"

#include <atomic>
#include <vector>

using namespace kor::test;

class KorFastLock : public KorTest
{
protected:
    static uint64_t word(korFastLock* lock) { return std::atomic_ref(lock->word).load(); }
};

TEST_F(KorFastLock, TheWordIsOneWhileHeldAndZeroWhileFree)
{
    FastPair<0> pair;
    EXPECT_EQ(word(&pair.lock), 0u);
    pair.acquire();
    EXPECT_EQ(word(&pair.lock), 1u);
    EXPECT_FALSE(pair.tryAcquire());
    pair.release();
    EXPECT_EQ(word(&pair.lock), 0u);
}

TEST_F(KorFastLock, TheDefaultSpinIsShorterUnderAMemoryChecker)
{
    for (auto [checker, wanted, expected] : {std::tuple{0, 0u, 1024u}, {1, 0u, 10u}, {0, 7u, 7u}, {1, 7u, 7u}}) {
        gMemDebugExternalMemcheck = static_cast<uint8_t>(checker);
        korFastLock* lock = _korFastLock_Create(0, ex, wanted);
        ASSERT_CLEAN();
        EXPECT_EQ(lock->spinCount, expected);
        _korFastLock_Destroy(0, ex, lock);
    }
    gMemDebugExternalMemcheck = 0;
}

TEST_F(KorFastLock, ParkedThreadsCountTwoEachAndGetTheLockOnceEach)
{
    FastPair<1> pair;
    int turns = 0;
    pair.acquire();
    auto contender = [&] {
        pair.acquire();
        turns++;
        pair.release();
    };
    std::jthread first(contender);
    until([&] { return word(&pair.lock) == 3; });
    std::jthread second(contender);
    until([&] { return word(&pair.lock) == 5; });
    EXPECT_EQ(turns, 0);
    pair.release();
    first.join();
    second.join();
    EXPECT_EQ(turns, 2);
    EXPECT_EQ(word(&pair.lock), 0u);
}

TEST_F(KorFastLock, NobodyOvertakesAParkedThread)
{
    FastPair<0xFFFFFFFF> pair; // a thread that spins does so for minutes
    std::atomic_ref counted(pair.lock.word);
    counted += 2;                    // as one does who parks
    EXPECT_FALSE(pair.tryAcquire()); // free, and yet not for a newcomer
    counted += 1;
    std::jthread newcomer([&] {
        pair.acquire();
        pair.release();
    });
    until([&] { return word(&pair.lock) == 5; }); // it parked at once
    counted -= 2;
    pair.release();
}

TEST_F(KorFastLock, ObjectsAcceptNullAndPendingErrors)
{
    _korFastLock_Init(0, ex, nullptr, 0);
    _korFastLock_Clear(0, ex, nullptr);
    _korFastLock_Destroy(0, ex, nullptr);
    EXPECT_EQ(sweepFailures(ex, [&] { _korFastLock_Destroy(0, ex, _korFastLock_Create(0, ex, 0)); }), 1u);
    KOR_RAISE(ex, 0, KOR_ERROR_NOT_FOUND, nullptr);
    EXPECT_EQ(_korFastLock_Create(0, ex, 0), nullptr);
    FastPair<0> pair;
    _korFastLock_Clear(0, ex, &pair.lock);
    _korFastLock_Init(0, ex, &pair.lock, 3); // works all the same
    EXPECT_EQ(pair.lock.spinCount, 3u);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, nullptr);
}
