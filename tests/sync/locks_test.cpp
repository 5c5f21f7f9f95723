// locks_test.cpp - what every lock promises, and every condition with its lock.

#include "sync/lockAdapters.h"

#include <atomic>
#include <deque>
#include <vector>

using namespace kor::test;

template <class Pair>
class Locks : public KorTest
{
protected:
    // Runs `body` in `count` threads, each with an exception object of its own that must stay clean.
    template <class Body>
    static void inThreads(int count, Body body)
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < count; i++) {
            threads.emplace_back([body] {
                korEx own = {};
                body(&own);
                EXPECT_EQ(own.code, 0);
            });
        }
    }

    Pair pair;
};

using Pairs = testing::Types<MutexPair, FastPair<0>, FastPair<1>, StandardPair>;
TYPED_TEST_SUITE(Locks, Pairs);

TYPED_TEST(Locks, OnlyOneThreadIsInside)
{
    auto& pair = this->pair;
    int64_t plain = 0;
    this->inThreads(4, [&](korEx*) {
        for (int i = 0; i < stressRounds / 4; i++) {
            pair.acquire();
            plain++;
            pair.release();
        }
    });
    EXPECT_EQ(plain, stressRounds / 4 * 4);
}

TYPED_TEST(Locks, TryGivesUpOnAHeldLock)
{
    auto& pair = this->pair;
    pair.acquire();
    std::jthread([&] { EXPECT_FALSE(pair.tryAcquire()); }).join();
    pair.release();
    std::jthread([&] {
        ASSERT_TRUE(pair.tryAcquire());
        pair.release();
    }).join();
}

TYPED_TEST(Locks, TwoThreadsHandOver)
{
    auto& pair = this->pair;
    int64_t turn = 0;
    std::atomic<int> nextPlayer = 0;
    this->inThreads(2, [&](korEx* ex) {
        int me = nextPlayer++;
        pair.acquire();
        for (int i = 0; i < stressRounds; i++) {
            while (turn % 2 != me) {
                pair.wait(ex);
            }
            turn++;
            pair.signal(ex);
        }
        pair.release();
    });
    EXPECT_EQ(turn, 2 * stressRounds);
}

TYPED_TEST(Locks, WorkersTakeAllThatIsSignalled)
{
    auto& pair = this->pair;
    std::deque<int> queue;
    int64_t sum = 0;
    std::jthread workers([&] {
        this->inThreads(3, [&](korEx* ex) {
            pair.acquire();
            for (int item = 0; item >= 0;) {
                while (queue.empty()) {
                    pair.wait(ex);
                }
                item = queue.front();
                queue.pop_front();
                sum += item > 0 ? item : 0;
            }
            pair.release();
        });
    });
    int64_t expected = 0;
    for (int i = 1; i <= stressRounds / 4; i++) {
        pair.acquire();
        queue.push_back(i);
        pair.release();
        pair.signal(this->ex);
        expected += i;
    }
    pair.acquire();
    queue.insert(queue.end(), 3, -1);
    pair.release();
    pair.broadcast(this->ex);
    workers.join();
    EXPECT_EQ(sum, expected);
}

TYPED_TEST(Locks, ABroadcastWakesAll)
{
    auto& pair = this->pair;
    constexpr int threads = 4;
    int waiting = 0;
    int round = 0;
    std::jthread waiters([&] {
        this->inThreads(threads, [&](korEx* ex) {
            pair.acquire();
            for (int i = 1; i <= stressRounds / 100; i++) {
                waiting++;
                while (round < i) {
                    pair.wait(ex);
                }
            }
            pair.release();
        });
    });
    for (int i = 1; i <= stressRounds / 100; i++) {
        until([&] {
            pair.acquire();
            bool all = waiting == threads;
            if (all) {
                waiting = 0;
                round = i;
                pair.broadcast(this->ex);
            }
            pair.release();
            return all;
        });
    }
}
