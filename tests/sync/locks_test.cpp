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
};

using Pairs = testing::Types<MutexPair, FastPair<0>, FastPair<1>, StandardPair>;
TYPED_TEST_SUITE(Locks, Pairs);

TYPED_TEST(Locks, OnlyOneThreadIsInside)
{
    TypeParam pair;
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
    TypeParam pair;
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
    TypeParam pair;
    int64_t turn = 0;
    std::atomic<int> nextPlayer = 0;
    this->inThreads(2, [&](korEx* own) {
        int me = nextPlayer++;
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

TYPED_TEST(Locks, WorkersTakeAllThatIsSignalled)
{
    TypeParam pair;
    std::deque<int> queue;
    int64_t sum = 0;
    std::jthread workers([&] {
        this->inThreads(3, [&](korEx* own) {
            pair.acquire();
            for (int item = 0; item >= 0;) {
                while (queue.empty()) {
                    pair.wait(own);
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
    constexpr int threads = 4;
    constexpr int rounds = stressRounds / 25;
    TypeParam pair;
    int waiting = 0;
    int round = 0;
    std::jthread waiters([&] {
        this->inThreads(threads, [&](korEx* own) {
            pair.acquire();
            for (int i = 1; i <= rounds; i++) {
                waiting++;
                while (round < i) {
                    pair.wait(own, i % 2); // in turns: who waited again at once would be woken by the same broadcast
                }
            }
            pair.release();
        });
    });
    for (int i = 1; i <= rounds; i++) {
        until([&] {
            pair.acquire();
            bool all = waiting == threads;
            if (all) {
                waiting = 0;
                round = i;
                pair.broadcast(this->ex, i % 2);
            }
            pair.release();
            return all;
        });
    }
}
