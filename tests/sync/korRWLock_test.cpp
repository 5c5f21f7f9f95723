// korRWLock_test.cpp - exclusion, sharing, and that neither readers nor writers starve.

#include "korutil/korRWLock.h"
#include "sync/lockAdapters.h"

#include <atomic>

using namespace kor::test;

class KorRWLock : public KorTest
{
protected:
    KorRWLock() : lock(_korRWLock_Create(0, ex)) {}
    ~KorRWLock() override { _korRWLock_Destroy(0, ex, lock); }

    void read() { _korRWLock_ReadLock(0, ex, lock); }
    void unread() { _korRWLock_UnlockReadLock(0, ex, lock); }
    void write() { _korRWLock_WriteLock(0, ex, lock); }
    void unwrite() { _korRWLock_UnlockWriteLock(0, ex, lock); }

    korRWLock* lock;
};

TEST_F(KorRWLock, WritersAreAloneAndReadersSeeWholeChanges)
{
    constexpr int writers = 3, rounds = 10000;
    int first = 0, second = 0; // plain on purpose: the lock is all that guards them
    auto dawdle = [](int round) {
        if (round % 16 == 0) { // so that the others go from spinning to sleep
            std::this_thread::yield();
        }
    };
    inThreads(2 * writers, [&](korEx*, int me) {
        for (int round = 0; round < rounds; round++) {
            if (me < writers) {
                write();
                first++;
                dawdle(round);
                second++;
                unwrite();
            } else {
                read();
                dawdle(round);
                EXPECT_EQ(first, second);
                unread();
            }
        }
    });
    EXPECT_EQ(first, writers * rounds);
    EXPECT_EQ(second, first);
    EXPECT_EQ(lock->word & ~(uint64_t{1} << 31), 0u); // nobody is left inside or waiting
}

TEST_F(KorRWLock, NobodyStarves)
{
    std::atomic<int> visits = 0;
    std::atomic<bool> done = false;
    // The lock is hardly ever without a reader until a writer has been in: each leaves only after another has entered.
    auto readInTurns = [&] {
        read();
        int mine = ++visits;
        for (int patience = 0; visits == mine && !done && patience < 1000; patience++) {
            std::this_thread::yield();
        }
        unread();
    };
    auto writeOnce = [this] {
        write();
        unwrite();
    };
    auto crowd = inThreads(7, [&](korEx*, int me) {
        while (!done) {
            me < 3 ? writeOnce() : readInTurns();
        }
    });
    until([&] { return visits >= 100; });
    for (int round = 0; round < 50; round++) {
        writeOnce();
        read();
        unread();
    }
    done = true;
}

TEST_F(KorRWLock, ReadersAreInsideTogetherAndAnErrorPendingStopsNothing)
{
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    for (int round = 0; round < 2; round++) { // would wait for ever if the first had done half its work
        write();
        unwrite();
        read();
        std::jthread([this] { read(); }).join();
        unread();
        unread();
    }
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
}
