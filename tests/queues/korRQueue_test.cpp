// korRQueue_test.cpp - the ring queue in its four pairings: fullness by the rules of each, order, nothing lost.

#include "korutil/korRQueue.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
constexpr uint64_t stressValues = 10000;
#else
constexpr uint64_t stressValues = 100000;
#endif

template <bool manyProducers, bool manyConsumers>
struct Pairing {
    static constexpr int producers = manyProducers ? 3 : 1;
    static constexpr int consumers = manyConsumers ? 3 : 1;
    static constexpr bool publishes = !manyConsumers; // how far producers may run

    explicit Pairing(uint32_t size) : queue(_korRQueue_Create(&ex, 0, size)) {}
    ~Pairing() { _korRQueue_Destroy(0, &ex, queue); }

    int32_t push(uint64_t value)
    {
        return manyProducers ? _korRQueue_Push(queue, value) : _korRQueue_SeqPush(queue, value);
    }
    uint64_t pop()
    {
        uint64_t value = 0;
        if (!manyConsumers) {
            return _korRQueue_SeqPop(queue);
        }
        return _korRQueue_Pop(queue, &value) == 1 ? value : 0;
    }

    korEx ex = {};
    korRQueue* queue;
};

template <class Pair>
class RingQueues : public KorTest
{};

using Pairings = testing::Types<Pairing<false, false>, Pairing<false, true>, Pairing<true, false>, Pairing<true, true>>;
TYPED_TEST_SUITE(RingQueues, Pairings);

TYPED_TEST(RingQueues, AreFullAtTwiceTheirSizeAndTakeNoZero)
{
    for (uint32_t size : {1u, 64u}) {
        TypeParam pair(size);
        for (uint64_t value = 0; value < 2 * size; value++) {
            EXPECT_EQ(pair.push(UINT64_MAX - value), KOR_RQUEUE_DONE);
        }
        EXPECT_EQ(pair.push(99), KOR_RQUEUE_FULL);
        for (uint64_t value = 0; value < 2 * size; value++) {
            EXPECT_EQ(pair.pop(), UINT64_MAX - value);
        }
        EXPECT_EQ(pair.push(0), KOR_RQUEUE_FULL); // would look like an emptied slot
        EXPECT_EQ(pair.pop(), 0u);
    }
}

// The model knows when a push must be refused: a single consumer has published a limit, at every `size` of its pops;
// many consumers leave the first limit where it was, and the test keeps within the ring.
TYPED_TEST(RingQueues, AgainstAModel)
{
    constexpr uint64_t size = 4, ring = 2 * size;
    TypeParam pair(size);
    Random random;
    std::deque<uint64_t> model;
    uint64_t pushed = 0, popped = 0, limit = ring;
    for (uint64_t round = 0; round < 5000; round++) {
        if (random.chance(round % 100 < 50 ? 70 : 30)) {
            bool full = pushed == limit && (TypeParam::publishes || popped == pushed - ring);
            if (!TypeParam::publishes && model.size() == ring && !full) {
                continue;
            }
            ASSERT_EQ(pair.push(pushed + 1), full ? KOR_RQUEUE_FULL : KOR_RQUEUE_DONE) << pushed;
            if (!full) {
                model.push_back(++pushed);
            }
        } else {
            if (TypeParam::publishes && popped % size == 0 && popped != 0) {
                limit = popped + ring;
            }
            ASSERT_EQ(pair.pop(), model.empty() ? 0 : model.front());
            if (!model.empty()) {
                model.pop_front();
                popped++;
            }
        }
        ASSERT_EQ(pair.queue->pushPosition, ring + pushed);
        ASSERT_EQ(pair.queue->popPosition, ring + popped);
    }
}

// Each value is its producer and a number that rises. What it stands for was written before the push and is read after
// the pop, without any other order between the two. Where the queue does not, the test keeps within the ring.
template <class Pair>
void passThrough(int64_t size)
{
    constexpr uint64_t each = stressValues / Pair::producers;
    Pair pair(static_cast<uint32_t>(size));
    std::vector<std::vector<uint64_t>> plain(Pair::producers, std::vector<uint64_t>(each + 1));
    std::atomic<uint64_t> left = each * Pair::producers;
    std::atomic<int64_t> inside = 0;
    std::vector<std::jthread> threads;
    for (uint64_t producer = 0; producer < Pair::producers; producer++) {
        threads.emplace_back([&, producer] {
            for (uint64_t number = 1; number <= each; number++) {
                plain[producer][number] = number;
                while (!Pair::publishes && inside.fetch_add(1) >= 2 * size) {
                    inside.fetch_sub(1);
                    std::this_thread::yield();
                }
                while (pair.push(producer << 32 | number) != KOR_RQUEUE_DONE) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int consumer = 0; consumer < Pair::consumers; consumer++) {
        threads.emplace_back([&] {
            std::vector<uint64_t> last(Pair::producers);
            while (left.load() != 0) {
                uint64_t value = pair.pop();
                if (value == 0) {
                    std::this_thread::yield();
                    continue;
                }
                inside.fetch_sub(1);
                uint64_t number = value & 0xFFFFFFFF;
                uint64_t& known = plain[value >> 32][number];
                EXPECT_EQ(known, number); // else it was popped twice
                EXPECT_GT(number, last[value >> 32]);
                last[value >> 32] = number;
                known = 0;
                left--;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(pair.queue->pushPosition, static_cast<uint64_t>(2 * size) + each * Pair::producers);
    EXPECT_EQ(pair.queue->popPosition, pair.queue->pushPosition);
    for (const auto& numbers : plain) {
        EXPECT_EQ(std::count(numbers.begin(), numbers.end(), 0u), static_cast<ptrdiff_t>(numbers.size()));
    }
}

TYPED_TEST(RingQueues, LoseAndDoubleNothing)
{
    passThrough<TypeParam>(1); // a slow consumer sees the next round of its slot
    passThrough<TypeParam>(16);
}

class KorRQueue : public KorTest
{};

TEST_F(KorRQueue, RefusesWhatItCanNotBe)
{
    for (uint32_t size : {0u, 3u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(_korRQueue_Create(ex, 0, size), nullptr) << size;
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Queue size must be a positive power of two");
    }
    EXPECT_EQ(sweepFailures(ex, [this] { _korRQueue_Destroy(0, ex, _korRQueue_Create(ex, 0, 8)); }), 2u);
    ex->code = KOR_ERROR_TIMEOUT;
    EXPECT_EQ(_korRQueue_Create(ex, 0, 8), nullptr);
    _korRQueue_Destroy(0, ex, nullptr);
    korEx_Clear(ex);
}

TEST(KorRQueueChild, DISABLED_CallsAReservedName)
{
    (std::getenv("KOR_TEST_PUSH") != nullptr ? _korRQueue_PushMany : _korRQueue_PopMany)();
}

TEST_F(KorRQueue, ReservedNamesEndTheProcess)
{
    ChildProcess push("KorRQueueChild.DISABLED_CallsAReservedName", {{"KOR_TEST_PUSH", "1"}});
    ChildProcess pop("KorRQueueChild.DISABLED_CallsAReservedName");
    EXPECT_NE(push.wait(), 0) << push.output();
    EXPECT_NE(pop.wait(), 0) << pop.output();
}

} // namespace
