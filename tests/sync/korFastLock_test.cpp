// korFastLock_test.cpp - fast locks, beyond what all locks promise: how long it spins and who comes first; and
// fast reader-writer locks.

#include "korutil/korAlloc.h"
#include "korutil/korFastRWLock.h"
#include "sync/lockAdapters.h"

#include <atomic>
#include <utility>

using namespace kor::test;

using KorFastLock = KorTest;

TEST_F(KorFastLock, TheDefaultSpinIsShorterUnderAMemoryChecker)
{
    for (auto [checker, expected] : {std::pair{1, 10u}, {0, 1024u}}) {
        gMemDebugExternalMemcheck = static_cast<uint8_t>(checker);
        FastPair<0> pair;
        EXPECT_EQ(pair.lock.spinCount, expected);
    }
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
    until([&] { return counted == 5; }); // it parked at once, and counts as two as well
    counted -= 2;
    pair.release();
    newcomer.join();
}

TEST_F(KorFastLock, AFastRWLockIsMadeOfFreeParts)
{
    korFastRWLock lock = {};
    lock.readers = 1;
    _korFastRWLock_Init(ex, 0, &lock, 7);
    EXPECT_TRUE(lock.firstLock.spinCount == 7 && lock.secondLock.spinCount == 7 && lock.readers == 0);
    EXPECT_TRUE(korFastLock_tryAcquire(&lock.firstLock) && korFastLock_tryAcquire(&lock.secondLock));
    _korCondition_Clear(0, ex, &lock.condition.condition);
    _korFastCondition_Signal(0, ex, &lock.condition);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    _korFastRWLock_Clear(0, ex, &lock);
}
