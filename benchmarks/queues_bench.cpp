// queues_bench.cpp - the unbounded queues and the ring beside their peers.
//
// A transfer moves a fixed number of values from some producers to as many consumers; a side that finds nothing to do
// gives way, the same for all. The unbounded queues carry pointers to items that exist beforehand.

#include "korutil/korFastQueue.h"
#include "korutil/korRQueue.h"
#include "korutil/korSlowQueue.h"

#include "secondThread.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#ifdef KOR_HAVE_BOOST
#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#endif
#ifdef KOR_HAVE_CONCURRENTQUEUE
#include <concurrentqueue/concurrentqueue.h>
#endif
#ifdef KOR_HAVE_TBB
#include <tbb/concurrent_queue.h>
#endif
#ifdef KOR_HAVE_ATOMIC_QUEUE
#include <atomic_queue/atomic_queue.h>
#endif

namespace {

const SecondThread secondThread;

constexpr uint64_t transferred = 1 << 16;
constexpr uint32_t ringSize = 512; // the ring has twice as many slots
constexpr uint64_t ringSlots = 2 * ringSize;

struct Item {
    korFastQueueItem link;
};

uint64_t valueOf(Item* item)
{
    return reinterpret_cast<uint64_t>(item);
}

// ---- The contenders, unbounded --------------------------------------------------------------------------------------

struct KorFast {
    ~KorFast() { _korFastQueue_Destroy(0, &gEx, queue); }
    bool push(Item* item) { return _korFastQueue_Push(&gEx, 0, queue, item), true; }
    bool pop() { return _korFastQueue_Pop(&gEx, 0, queue) != nullptr; }
    static inline thread_local korEx gEx = {};
    korFastQueue* queue = _korFastQueue_Create(&gEx, 0);
};

struct KorSlow {
    ~KorSlow() { _korSlowQueue_Destroy(0, &gEx, queue); }
    bool push(Item* item) { return _korSlowQueue_Push(&gEx, 0, queue, valueOf(item)), true; }
    bool pop() { return _korSlowQueue_Pop(&gEx, 0, queue) != 0; }
    static inline thread_local korEx gEx = {};
    korSlowQueue* queue = _korSlowQueue_Create(&gEx, 0);
};

struct MutexAndDeque {
    bool push(Item* item)
    {
        std::lock_guard hold(mutex);
        items.push_back(item);
        return true;
    }
    bool pop()
    {
        std::lock_guard hold(mutex);
        if (items.empty()) {
            return false;
        }
        benchmark::DoNotOptimize(items.front());
        items.pop_front();
        return true;
    }
    std::mutex mutex;
    std::deque<Item*> items;
};

#ifdef KOR_HAVE_BOOST
struct BoostUnbounded {
    bool push(Item* item) { return queue.push(item); }
    bool pop()
    {
        Item* item;
        return queue.pop(item);
    }
    boost::lockfree::queue<Item*> queue{ringSlots};
};
#endif
#ifdef KOR_HAVE_CONCURRENTQUEUE
struct Moodycamel {
    bool push(Item* item) { return queue.enqueue(item); }
    bool pop()
    {
        Item* item;
        return queue.try_dequeue(item);
    }
    moodycamel::ConcurrentQueue<Item*> queue;
};
#endif
#ifdef KOR_HAVE_TBB
struct Tbb {
    bool push(Item* item) { return queue.push(item), true; }
    bool pop()
    {
        Item* item;
        return queue.try_pop(item);
    }
    tbb::concurrent_queue<Item*> queue;
};
#endif

// ---- The contenders, bounded ----------------------------------------------------------------------------------------

template <bool manyProducers, bool manyConsumers>
struct KorRing {
    ~KorRing() { _korRQueue_Destroy(0, &ex, queue); }
    bool push(Item* item)
    {
        auto operation = manyProducers ? _korRQueue_Push : _korRQueue_SeqPush;
        return operation(queue, valueOf(item)) == KOR_RQUEUE_DONE;
    }
    bool pop()
    {
        uint64_t value;
        return manyConsumers ? _korRQueue_Pop(queue, &value) == 1 : _korRQueue_SeqPop(queue) != 0;
    }
    korEx ex = {};
    korRQueue* queue = _korRQueue_Create(&ex, 0, ringSize);
};

#ifdef KOR_HAVE_BOOST
template <bool single>
struct BoostBounded {
    bool push(Item* item) { return queue.push(item); }
    bool pop()
    {
        Item* item;
        return queue.pop(item);
    }
    using Capacity = boost::lockfree::capacity<ringSlots>;
    std::conditional_t<single, boost::lockfree::spsc_queue<Item*, Capacity>, boost::lockfree::queue<Item*, Capacity>>
        queue;
};
#endif
#ifdef KOR_HAVE_ATOMIC_QUEUE
template <bool single>
struct AtomicQueue {
    bool push(Item* item) { return queue.try_push(item); }
    bool pop()
    {
        Item* item;
        return queue.try_pop(item);
    }
    atomic_queue::AtomicQueue<Item*, ringSlots, nullptr, true, true, false, single> queue;
};
#endif

// ---- The measurements -----------------------------------------------------------------------------------------------

/// Holds the values inside a queue below what a ring takes, for queues that do not notice when they are full. Credit
/// goes over in batches, so that it costs little, and the same for all.
class Credit
{
public:
    static constexpr uint64_t batch = 32;

    void take()
    {
        while (inside_.fetch_add(batch) > ringSlots - batch) {
            inside_.fetch_sub(batch);
            std::this_thread::yield();
        }
    }
    void give() { inside_.fetch_sub(batch); }

private:
    std::atomic<uint64_t> inside_ = 0;
};

template <class Step>
void insist(Step step)
{
    for (int tries = 0; !step(); tries++) {
        if (tries % 16 == 15) {
            std::this_thread::yield();
        } else {
            __builtin_ia32_pause();
        }
    }
}

/// `credited` bounds what is inside; every contender of a case has it or none.
template <class Queue, bool credited>
void move(Queue& queue, std::vector<Item>& items, int producers, int consumers)
{
    Credit credit;
    std::vector<std::jthread> threads;
    uint64_t pushes = transferred / static_cast<uint64_t>(producers);
    uint64_t pops = transferred / static_cast<uint64_t>(consumers);
    for (int producer = 0; producer < producers; producer++) {
        threads.emplace_back([&, first = pushes * static_cast<uint64_t>(producer)] {
            for (uint64_t i = 0; i < pushes; i++) {
                if (credited && i % Credit::batch == 0) {
                    credit.take();
                }
                insist([&] { return queue.push(&items[first + i]); });
            }
        });
    }
    for (int consumer = 0; consumer < consumers; consumer++) {
        threads.emplace_back([&] {
            for (uint64_t i = 1; i <= pops; i++) {
                insist([&] { return queue.pop(); });
                if (credited && i % Credit::batch == 0) {
                    credit.give();
                }
            }
        });
    }
}

template <class Queue, bool credited>
void transfer(benchmark::State& state, int producers, int consumers)
{
    std::vector<Item> items(transferred);
    auto queue = std::make_unique<Queue>();
    for (auto _ : state) {
        move<Queue, credited>(*queue, items, producers, consumers);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(transferred));
}

template <class Queue>
void pushPop(benchmark::State& state)
{
    Item item;
    auto queue = std::make_unique<Queue>();
    for (auto _ : state) {
        queue->push(&item);
        benchmark::DoNotOptimize(queue->pop());
    }
}

template <class Queue, bool credited = false>
void addTransfer(const std::string& name, int producers, int consumers)
{
    auto run = [=](benchmark::State& state) { transfer<Queue, credited>(state, producers, consumers); };
    benchmark::RegisterBenchmark(name.c_str(), run)->UseRealTime()->Unit(benchmark::kMillisecond);
}

template <class Queue>
void addUnbounded(const std::string& who)
{
    benchmark::RegisterBenchmark(("BM_Queue_pushPop/" + who).c_str(), pushPop<Queue>);
    for (int threads : {1, 2, 4}) {
        addTransfer<Queue>("BM_Queue_transfer/" + who + "/" + std::to_string(threads), threads, threads);
    }
}

/// A pairing of the ring: two threads at an end that may have many.
template <class Queue, bool manyProducers, bool manyConsumers>
void addPairing(const std::string& who)
{
    std::string pairing = std::string(manyProducers ? "many" : "one") + (manyConsumers ? "ToMany" : "ToOne");
    benchmark::RegisterBenchmark(("BM_Ring_" + pairing + "PushPop/" + who).c_str(), pushPop<Queue>);
    addTransfer<Queue, manyConsumers>("BM_Ring_" + pairing + "/" + who, manyProducers ? 2 : 1, manyConsumers ? 2 : 1);
}

template <bool manyProducers, bool manyConsumers>
void addPairings()
{
    constexpr bool single = !manyProducers && !manyConsumers;
    addPairing<KorRing<manyProducers, manyConsumers>, manyProducers, manyConsumers>("korRQueue");
#ifdef KOR_HAVE_BOOST
    addPairing<BoostBounded<single>, manyProducers, manyConsumers>("boost_lockfree");
#endif
#ifdef KOR_HAVE_CONCURRENTQUEUE
    addPairing<Moodycamel, manyProducers, manyConsumers>("moodycamel");
#endif
#ifdef KOR_HAVE_ATOMIC_QUEUE
    addPairing<AtomicQueue<single>, manyProducers, manyConsumers>("atomic_queue");
#endif
}

} // namespace

int main(int argc, char** argv)
{
    addUnbounded<KorFast>("korFastQueue");
    addUnbounded<KorSlow>("korSlowQueue");
#ifdef KOR_HAVE_BOOST
    addUnbounded<BoostUnbounded>("boost_lockfree");
#endif
#ifdef KOR_HAVE_CONCURRENTQUEUE
    addUnbounded<Moodycamel>("moodycamel");
#endif
#ifdef KOR_HAVE_TBB
    addUnbounded<Tbb>("tbb");
#endif
    addUnbounded<MutexAndDeque>("mutex_deque");
    addPairings<false, false>();
    addPairings<false, true>();
    addPairings<true, false>();
    addPairings<true, true>();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
