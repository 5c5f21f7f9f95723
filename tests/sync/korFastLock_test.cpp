// korFastLock_test.cpp - fast locks, beyond what all locks promise: what the word says, who parks, who comes first;
// fast conditions and fast reader-writer locks.

#include "korutil/korAlloc.h"
#include "korutil/korFastRWLock.h"
#include "sync/lockAdapters.h"

#include <atomic>

using namespace kor::test;

class KorFastLock : public KorTest
{
protected:
    static uint64_t word(korFastLock& lock) { return std::atomic_ref(lock.word).load(); }
};

TEST_F(KorFastLock, TheDefaultSpinIsShorterUnderAMemoryChecker)
{
    korFastLock lock;
    for (auto [checker, wanted, expected] : {std::tuple{0, 0u, 1024u}, {1, 0u, 10u}, {0, 7u, 7u}, {1, 7u, 7u}}) {
        gMemDebugExternalMemcheck = static_cast<uint8_t>(checker);
        _korFastLock_Init(0, ex, &lock, wanted);
        EXPECT_EQ(lock.spinCount, expected);
        _korFastLock_Clear(0, ex, &lock);
    }
    gMemDebugExternalMemcheck = 0;
}

TEST_F(KorFastLock, ParkedThreadsCountTwoEachAndGetTheLockOnceEach)
{
    FastPair<1> pair;
    int turns = 0;
    auto contender = [&](korEx*, int) {
        pair.acquire();
        turns++;
        pair.release();
    };
    pair.acquire();
    EXPECT_EQ(word(pair.lock), 1u);
    auto first = inThreads(1, contender);
    until([&] { return word(pair.lock) == 3; });
    auto second = inThreads(1, contender);
    until([&] { return word(pair.lock) == 5; });
    EXPECT_EQ(turns, 0);
    pair.release();
    first.clear();
    second.clear();
    EXPECT_EQ(turns, 2);
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
    until([&] { return counted == 5; }); // it parked at once
    counted -= 2;
    pair.release();
    newcomer.join();
}

TEST_F(KorFastLock, ASignalWithoutAnEventIsAnError)
{
    FastPair<0> pair;
    _korCondition_Clear(0, ex, &pair.plainCondition());
    pair.signal(ex);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    pair.broadcast(ex);
}

TEST_F(KorFastLock, AFastRWLockIsMadeOfFreeParts)
{
    korFastRWLock lock = {};
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, nullptr);
    _korFastRWLock_Init(ex, 0, &lock, 7);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
    EXPECT_EQ(lock.firstLock.spinCount, 0u); // not touched
    lock.readers = 1;
    _korFastRWLock_Init(ex, 0, &lock, 7);
    EXPECT_TRUE(lock.firstLock.spinCount == 7 && lock.secondLock.spinCount == 7 && lock.readers == 0);
    EXPECT_TRUE(korFastLock_tryAcquire(&lock.firstLock) && korFastLock_tryAcquire(&lock.secondLock));
    _korFastCondition_Signal(0, ex, &lock.condition);
    _korFastRWLock_Clear(0, ex, &lock);
}
