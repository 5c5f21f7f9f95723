// korRWLock_test.cpp - exclusion, sharing, and that neither readers nor writers starve.

#include "korutil/korRWLock.h"
#include "support/failingHeap.h"
#include "support/korTest.h"
#include "support/meeting.h"

#include <atomic>
#include <thread>
#include <vector>

namespace kor::test {
namespace {

class korRWLockTest : public KorTest
{
protected:
    korRWLockTest() : lock(_korRWLock_Create(0, ex)) {}
    ~korRWLockTest() override { _korRWLock_Destroy(0, ex, lock); }

    void read() { _korRWLock_ReadLock(0, ex, lock); }
    void unread() { _korRWLock_UnlockReadLock(0, ex, lock); }
    void write() { _korRWLock_WriteLock(0, ex, lock); }
    void unwrite() { _korRWLock_UnlockWriteLock(0, ex, lock); }

    korRWLock* lock;
};

// Now and then a holder is slow, so that the others go from spinning to sleep.
void dawdle(int round)
{
    if (round % 16 == 0) {
        std::this_thread::yield();
    }
}

using Threads = std::vector<std::jthread>;

TEST_F(korRWLockTest, WritersAreAloneAndReadersSeeWholeChanges)
{
    constexpr int writers = 3, readers = 3, rounds = 10000;
    int64_t first = 0, second = 0; // plain on purpose: the lock is all that guards them
    std::atomic<int> torn = 0;
    {
        Threads threads;
        for (int i = 0; i < writers; i++) {
            threads.emplace_back([&] {
                for (int round = 0; round < rounds; round++) {
                    write();
                    first++;
                    dawdle(round);
                    second++;
                    unwrite();
                }
            });
        }
        for (int i = 0; i < readers; i++) {
            threads.emplace_back([&] {
                for (int round = 0; round < rounds; round++) {
                    read();
                    dawdle(round);
                    torn += first != second;
                    unread();
                }
            });
        }
    }
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(first, int64_t{writers} * rounds);
    EXPECT_EQ(second, first);
    EXPECT_EQ(lock->word & ~(uint64_t{1} << 31), 0u); // nobody is left inside or waiting
}

TEST_F(korRWLockTest, ReadersAreInsideTogether)
{
    constexpr int readers = 8;
    kor::test::Barrier inside(readers);
    Threads threads;
    for (int i = 0; i < readers; i++) {
        threads.emplace_back([&] {
            for (int round = 0; round < 20; round++) {
                read();
                inside.arrive_and_wait(); // nobody leaves before all have come in
                unread();
            }
        });
    }
}

// The lock is never without a reader until the writer has been in: each reader leaves only after another has entered.
TEST_F(korRWLockTest, AWriterGetsInAmongOverlappingReaders)
{
    constexpr int readers = 4;
    std::atomic<uint64_t> entries = 0;
    std::atomic<bool> written = false;
    Threads threads;
    for (int i = 0; i < readers; i++) {
        threads.emplace_back([&] {
            while (!written) {
                read();
                uint64_t mine = ++entries;
                for (int patience = 0; entries == mine && !written && patience < 1000; patience++) {
                    std::this_thread::yield();
                }
                unread();
            }
        });
    }
    while (entries < 100) {
        std::this_thread::yield();
    }
    for (int round = 0; round < 50; round++) {
        write();
        unwrite();
    }
    written = true;
}

TEST_F(korRWLockTest, AReaderGetsInAmongWriters)
{
    constexpr int writers = 3;
    std::atomic<uint64_t> entries = 0;
    std::atomic<bool> seen = false;
    Threads threads;
    for (int i = 0; i < writers; i++) {
        threads.emplace_back([&] {
            while (!seen) {
                write();
                entries++;
                unwrite();
            }
        });
    }
    while (entries < 100) {
        std::this_thread::yield();
    }
    for (int round = 0; round < 50; round++) {
        read();
        unread();
    }
    seen = true;
}

TEST_F(korRWLockTest, NullIsAcceptedAndAnErrorPendingStopsNothing)
{
    _korRWLock_Destroy(0, ex, nullptr);
    _korRWLock_ReadLock(0, ex, nullptr);
    _korRWLock_UnlockReadLock(0, ex, nullptr);
    _korRWLock_WriteLock(0, ex, nullptr);
    _korRWLock_UnlockWriteLock(0, ex, nullptr);

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    write();
    unwrite();
    write(); // would wait for ever if the pair above had done half its work
    unwrite();
    read();
    read();
    unread();
    unread();
    write();
    unwrite();
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
}

TEST_F(korRWLockTest, CreateFailsWhole)
{
    EXPECT_GE(sweepFailures(ex, [&] { _korRWLock_Destroy(0, ex, _korRWLock_Create(0, ex)); }), 1u);
}

} // namespace
} // namespace kor::test
