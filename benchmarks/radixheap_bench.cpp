// radixheap_bench.cpp - the radix heap beside std::priority_queue: filling it and taking everything out again in order,
// and the life of a timer, where each item that is taken comes back with a later key.

#include "korutil/korRadixHeap.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <queue>
#include <random>
#include <string>
#include <vector>

namespace {

korEx* sharedEx = korEx_Create();

struct Task {
    korRadixItem item;
    int64_t delay;
};

class Ours
{
public:
    Ours() { _korRadixHeap_Init(ex_, 0, &heap_, 0); }
    ~Ours() { _korRadixHeap_Clear(0, ex_, &heap_); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    void insert(Task* task, int64_t key) { _korRadixHeap_Insert(KOR_AT(ex_, 0), &heap_, &task->item, key); }
    Task* removeMin()
    {
        // The item is the task's first member.
        return reinterpret_cast<Task*>(_korRadixHeap_ExtractMin(KOR_AT(ex_, 0), &heap_));
    }

private:
    korEx* ex_ = sharedEx;
    korRadixHeap heap_;
};

class Peer
{
public:
    void insert(Task* task, int64_t key)
    {
        task->item.key = key;
        queue_.emplace(key, task);
    }
    Task* removeMin()
    {
        Task* task = queue_.top().second;
        queue_.pop();
        return task;
    }

private:
    using Entry = std::pair<int64_t, Task*>;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> queue_;
};

std::vector<Task> tasks(int64_t count)
{
    constexpr uint64_t longest = 10'000'000; // ten seconds in microseconds
    std::mt19937_64 engine(7);
    std::vector<Task> made(static_cast<size_t>(count));
    for (Task& task : made) {
        task.delay = static_cast<int64_t>(engine() % longest);
    }
    return made;
}

template <class Queue>
void fillAndDrain(benchmark::State& state)
{
    std::vector<Task> all = tasks(state.range(0));
    for (auto step : state) {
        Queue queue;
        for (Task& task : all) {
            queue.insert(&task, task.delay);
        }
        for (size_t i = 0; i < all.size(); i++) {
            benchmark::DoNotOptimize(queue.removeMin());
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// One step: the next task leaves and is set again, its delay later.
template <class Queue>
void hold(benchmark::State& state)
{
    std::vector<Task> all = tasks(state.range(0));
    Queue queue;
    for (Task& task : all) {
        queue.insert(&task, task.delay);
    }
    for (auto step : state) {
        Task* task = queue.removeMin();
        queue.insert(task, task->item.key + task->delay);
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Queue>
void addQueue(const std::string& peer, int64_t size)
{
    auto add = [&](const char* what, void (*run)(benchmark::State&)) {
        benchmark::RegisterBenchmark(("BM_RadixHeap_" + std::string(what) + "/" + peer).c_str(), run)->Arg(size);
    };
    add("insert_remove_min", fillAndDrain<Queue>);
    add("hold", hold<Queue>);
}

} // namespace

int main(int argc, char** argv)
{
    for (int64_t size : {1000, 1000000}) {
        addQueue<Ours>("korRadixHeap", size);
        addQueue<Peer>("std_priority_queue", size);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
