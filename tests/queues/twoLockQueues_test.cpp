// twoLockQueues_test.cpp - what the fast and the slow queue promise.

#include "korutil/korFastQueue.h"
#include "korutil/korSlowQueue.h"
#include "support/failingHeap.h"

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
constexpr uint64_t stressValues = 5000;
#else
constexpr uint64_t stressValues = 50000;
#endif

struct Item {
    korFastQueueItem link;
    uint64_t value;
};

struct Fast {
    Fast() : queue(_korFastQueue_Create(&ex, 0)) {}
    ~Fast() { _korFastQueue_Destroy(0, &ex, queue); }
    void push(korEx* of, uint64_t value) { _korFastQueue_Push(of, 0, queue, new Item{{}, value}); }
    uint64_t pop(korEx* of) { return take(static_cast<Item*>(_korFastQueue_Pop(of, 0, queue))); }
    bool isEmpty(korEx* of) { return _korFastQueue_IsEmpty(of, 0, queue); }
    uint64_t count() { return queue->count; }
    bool tailIsDummy() { return queue->tail == queue->head; }

    static uint64_t take(Item* item)
    {
        uint64_t value = item == nullptr ? 0 : item->value;
        delete item;
        return value;
    }

    korEx ex = {};
    korFastQueue* queue;
};

struct Slow {
    Slow() : queue(_korSlowQueue_Create(&ex, 0)) {}
    ~Slow() { _korSlowQueue_Destroy(0, &ex, queue); }
    void push(korEx* of, uint64_t value) { _korSlowQueue_Push(of, 0, queue, value); }
    uint64_t pop(korEx* of) { return _korSlowQueue_Pop(of, 0, queue); }
    bool isEmpty(korEx* of) { return _korSlowQueue_IsEmpty(of, 0, queue); }
    uint64_t count() { return queue->count; }
    bool tailIsDummy() { return queue->tail == queue->head; }

    korEx ex = {};
    korSlowQueue* queue;
};

template <class Queue>
class TwoLockQueues : public KorTest
{};

using Queues = testing::Types<Fast, Slow>;
TYPED_TEST_SUITE(TwoLockQueues, Queues);

TYPED_TEST(TwoLockQueues, ValuesComeOutInTheOrderOfThePushes)
{
    TypeParam queue;
    std::deque<uint64_t> model;
    Random random;
    for (uint64_t round = 1; round <= 4000; round++) {
        if (random.chance(round % 1000 < 500 ? 55 : 35)) {
            queue.push(this->ex, round);
            model.push_back(round);
        } else {
            ASSERT_EQ(queue.pop(this->ex), model.empty() ? 0 : model.front());
            if (!model.empty()) {
                model.pop_front();
            }
        }
        ASSERT_EQ(queue.count(), model.size());
        ASSERT_EQ(queue.isEmpty(this->ex), model.empty());
        ASSERT_EQ(queue.tailIsDummy(), model.empty());
    }
    while (queue.pop(this->ex) != 0) {
    }
}

// Each value is its producer and a number that rises with each push. Consumers stop once all values have come out.
template <class Queue>
void stress(int producers, int consumers)
{
    constexpr uint64_t numberBits = 32;
    Queue queue;
    uint64_t each = stressValues / static_cast<uint64_t>(producers);
    std::atomic<uint64_t> left = each * static_cast<uint64_t>(producers);
    std::atomic<uint64_t> sum = 0;
    std::vector<std::jthread> threads;
    for (int producer = 0; producer < producers; producer++) {
        threads.emplace_back([&, producer] {
            korEx own = {};
            for (uint64_t number = 1; number <= each; number++) {
                queue.push(&own, static_cast<uint64_t>(producer) << numberBits | number);
            }
            EXPECT_EQ(own.code, 0);
        });
    }
    for (int consumer = 0; consumer < consumers; consumer++) {
        threads.emplace_back([&] {
            korEx own = {};
            std::vector<uint64_t> last(static_cast<size_t>(producers));
            while (left.load() != 0) {
                uint64_t value = queue.pop(&own);
                if (value == 0) {
                    std::this_thread::yield();
                    continue;
                }
                uint64_t number = value & 0xFFFFFFFF;
                EXPECT_GT(number, last[value >> numberBits]);
                last[value >> numberBits] = number;
                sum += number;
                left--;
            }
            EXPECT_EQ(own.code, 0);
        });
    }
    threads.clear();
    EXPECT_EQ(sum, static_cast<uint64_t>(producers) * (each * (each + 1) / 2));
    EXPECT_EQ(queue.count(), 0u);
    EXPECT_TRUE(queue.tailIsDummy());
}

TYPED_TEST(TwoLockQueues, ManyProducersAndConsumersLoseNothing)
{
    stress<TypeParam>(1, 1);
    stress<TypeParam>(4, 1);
    stress<TypeParam>(1, 4);
    stress<TypeParam>(3, 3);
}

class KorFastQueue : public KorTest
{
protected:
    korFastQueue* queue = _korFastQueue_Create(ex, 0);
    ~KorFastQueue() override { _korFastQueue_Destroy(0, ex, queue); }

    void* pop() { return _korFastQueue_Pop(ex, 0, queue); }
};

TEST_F(KorFastQueue, UnpopPutsAnItemInFront)
{
    Item first = {}, second = {}, third = {};
    _korFastQueue_Unpop(ex, 0, queue, &first); // into an empty queue: it is the tail, too
    _korFastQueue_Push(ex, 0, queue, &second);
    _korFastQueue_Push(ex, 0, queue, &third);
    EXPECT_EQ(pop(), &first);
    _korFastQueue_Unpop(ex, 0, queue, &first);
    EXPECT_EQ(queue->count, 3u);
    EXPECT_EQ(pop(), &first);
    EXPECT_EQ(pop(), &second);
    EXPECT_EQ(pop(), &third);
    EXPECT_EQ(pop(), nullptr);
    EXPECT_EQ(queue->tail, queue->head);
}

// Few items, so that the count is 0 or 1 most of the time, where the two ends meet.
TEST_F(KorFastQueue, ItemsThatGoRoundAndRoundAreNeitherLostNorDoubled)
{
    constexpr size_t itemCount = 3;
    Item items[itemCount] = {};
    for (Item& item : items) {
        _korFastQueue_Push(ex, 0, queue, &item);
    }
    std::atomic<uint64_t> moves = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&, i] {
            korEx own = {};
            for (uint64_t round = 0; round < stressValues / 4; round++) {
                auto* item = static_cast<Item*>(_korFastQueue_Pop(&own, 0, queue));
                if (item == nullptr) {
                    std::this_thread::yield();
                    continue;
                }
                item->value++; // a plain counter: two threads with one item would be seen
                moves++;
                (i % 2 == 0 ? _korFastQueue_Push : _korFastQueue_Unpop)(&own, 0, queue, item);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(queue->count, itemCount);
    EXPECT_EQ(items[0].value + items[1].value + items[2].value, moves);
    for (size_t i = 0; i < itemCount; i++) {
        EXPECT_NE(pop(), nullptr);
    }
    EXPECT_EQ(pop(), nullptr);
    EXPECT_EQ(queue->tail, queue->head);
}

class QueueFailures : public KorTest
{};

TEST_F(QueueFailures, EveryRequestMayFail)
{
    EXPECT_EQ(sweepFailures(ex, [this] { _korFastQueue_Destroy(0, ex, _korFastQueue_Create(ex, 0)); }), 2u);
    uint64_t requests = sweepFailures(ex, [this] {
        korSlowQueue* queue = _korSlowQueue_Create(ex, 0);
        bool made = queue != nullptr;
        EXPECT_EQ(made, ex->code == 0);
        if (made) {
            _korSlowQueue_Push(ex, 0, queue, 7);
            EXPECT_EQ(queue->count, ex->code == 0 ? 1u : 0u);
        }
        _korSlowQueue_Destroy(0, ex, queue); // with a value in it
    });
    EXPECT_EQ(requests, 3u);
}

TEST_F(QueueFailures, TheTextsSayWhatCouldNotBeMade)
{
    const char* queueText = "No memory creating queue";
    const char* nodeText = "No memory to create queue node";
    for (uint64_t request = 1; request <= 2; request++) {
        FailingHeap heap(request);
        EXPECT_EQ(_korFastQueue_Create(ex, 0), nullptr);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, queueText);
    }
    for (uint64_t request = 1; request <= 2; request++) {
        FailingHeap heap(request);
        EXPECT_EQ(_korSlowQueue_Create(ex, 0), nullptr);
        EXPECT_EQ(std::string(ex->frames[ex->frameCount - 1].function) == "_createNode", request == 1);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, request == 1 ? nodeText : queueText);
    }
}

TEST_F(QueueFailures, APendingErrorStopsAllButDestroy)
{
    Slow slow;
    Fast fast;
    Item item = {};
    slow.push(ex, 1);
    fast.push(ex, 1);
    ex->code = KOR_ERROR_TIMEOUT;
    slow.push(ex, 2);
    _korFastQueue_Push(ex, 0, fast.queue, &item);
    _korFastQueue_Unpop(ex, 0, fast.queue, &item);
    EXPECT_TRUE(slow.pop(ex) == 0 && fast.pop(ex) == 0 && slow.isEmpty(ex) && fast.isEmpty(ex));
    EXPECT_TRUE(_korFastQueue_Create(ex, 0) == nullptr && _korSlowQueue_Create(ex, 0) == nullptr);
    EXPECT_TRUE(slow.count() == 1 && fast.count() == 1);
    korEx_Clear(ex);
    EXPECT_TRUE(slow.pop(ex) == 1 && fast.pop(ex) == 1);
}

} // namespace
