// btree_bench.cpp - the B-tree, with 16, 64 and 256 items a node, beside other ordered maps: filling in order,
// backwards and at random, getting, walking both ways, removing; and the memory that an entry takes.

#include "korutil/korBtree.h"

#include <benchmark/benchmark.h>

#ifdef KOR_HAVE_ABSL
#include <absl/container/btree_map.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <malloc.h>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

korEx* sharedEx = korEx_Create();

template <uint16_t itemsPerNode>
class Ours
{
public:
    Ours() { _korBtree_Init(ex_, 0, &tree_, nullptr, itemsPerNode, 0); }
    ~Ours() { _korBtree_Clear(0, ex_, &tree_); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    void set(int64_t key, uint64_t value) { _korBtree_Set(KOR_AT(ex_, 0), &tree_, key, value); }
    uint64_t get(int64_t key) { return _korBtree_Get(KOR_AT(ex_, 0), &tree_, key); }
    void remove(int64_t key) { _korBtree_Remove(KOR_AT_D(0, ex_), &tree_, key); }
    uint64_t walk()
    {
        int64_t key = tree_.minKey;
        uint64_t value = get(key);
        uint64_t sum = value;
        while (_korBtree_GetNext(KOR_AT(ex_, 0), &tree_, key, &key, &value)) {
            sum += value;
        }
        return sum;
    }
    uint64_t walkBack()
    {
        int64_t key = tree_.maxKey;
        uint64_t value = get(key);
        uint64_t sum = value;
        while (_korBtree_GetPrevious(KOR_AT(ex_, 0), &tree_, key, &key, &value)) {
            sum += value;
        }
        return sum;
    }

private:
    korEx* ex_ = sharedEx;
    korBtree tree_;
};

template <class Map>
class Peer
{
public:
    void set(int64_t key, uint64_t value) { map_[key] = value; }
    uint64_t get(int64_t key)
    {
        auto found = map_.find(key);
        return found != map_.end() ? found->second : 0;
    }
    void remove(int64_t key) { map_.erase(key); }
    uint64_t walk()
    {
        uint64_t sum = 0;
        for (const auto& entry : map_) {
            sum += entry.second;
        }
        return sum;
    }
    uint64_t walkBack()
    {
        uint64_t sum = 0;
        for (auto entry = map_.rbegin(); entry != map_.rend(); ++entry) {
            sum += entry->second;
        }
        return sum;
    }

private:
    Map map_;
};

using Keys = std::vector<int64_t>;
enum Order { ascending, descending, shuffled };

Keys keysOf(Order order, int64_t count)
{
    Keys keys(static_cast<size_t>(count));
    std::iota(keys.begin(), keys.end(), 1);
    if (order == descending) {
        std::reverse(keys.begin(), keys.end());
    } else if (order == shuffled) {
        std::shuffle(keys.begin(), keys.end(), std::mt19937_64(7));
    }
    return keys;
}

template <class Map>
void fill(Map& map, const Keys& keys)
{
    for (int64_t key : keys) {
        map.set(key, static_cast<uint64_t>(key));
    }
}

size_t heapInUse()
{
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void countEntries(benchmark::State& state)
{
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// A map filled from nothing, its end left out of the time; the memory of an entry is told beside it.
template <class Map, Order order>
void set(benchmark::State& state)
{
    Keys keys = keysOf(order, state.range(0));
    size_t bytes = 0;
    for (auto step : state) {
        size_t before = heapInUse();
        Map map;
        auto start = std::chrono::steady_clock::now();
        fill(map, keys);
        std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
        bytes = heapInUse() - before;
    }
    state.counters["bytes_per_entry"] = static_cast<double>(bytes) / static_cast<double>(keys.size());
    countEntries(state);
}

// Of a map that was filled at random.
template <class Map, Order order>
void get(benchmark::State& state)
{
    Map map;
    fill(map, keysOf(shuffled, state.range(0)));
    Keys uses = keysOf(order, state.range(0));
    std::rotate(uses.begin(), uses.begin() + static_cast<ptrdiff_t>(uses.size() / 3), uses.end());
    size_t next = 0;
    for (auto step : state) {
        benchmark::DoNotOptimize(map.get(uses[next]));
        next = next + 1 == uses.size() ? 0 : next + 1;
    }
}

template <class Map, Order order>
void walk(benchmark::State& state)
{
    Map map;
    fill(map, keysOf(shuffled, state.range(0)));
    for (auto step : state) {
        benchmark::DoNotOptimize(order == ascending ? map.walk() : map.walkBack());
    }
    countEntries(state);
}

template <class Map, Order order>
void removeAll(benchmark::State& state)
{
    Keys keys = keysOf(shuffled, state.range(0));
    Keys uses = keysOf(order, state.range(0));
    std::rotate(uses.begin(), uses.begin() + static_cast<ptrdiff_t>(order == shuffled ? uses.size() / 3 : 0),
                uses.end());
    for (auto step : state) {
        Map map;
        fill(map, keys);
        auto start = std::chrono::steady_clock::now();
        for (int64_t key : uses) {
            map.remove(key);
        }
        std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
    }
    countEntries(state);
}

using Case = void (*)(benchmark::State&);

template <class Map>
void addMap(const std::string& node, const std::string& who, int64_t size)
{
    auto add = [&](const char* name, Case run) {
        std::string full = "BM_Btree_" + std::string(name) + node + "/" + who;
        return benchmark::RegisterBenchmark(full.c_str(), run)->Arg(size);
    };
    add("set_ascending", set<Map, ascending>)->UseManualTime();
    add("set_descending", set<Map, descending>)->UseManualTime();
    add("set_random", set<Map, shuffled>)->UseManualTime();
    add("get_ascending", get<Map, ascending>);
    add("get_descending", get<Map, descending>);
    add("get_random", get<Map, shuffled>);
    add("walk", walk<Map, ascending>);
    add("walk_back", walk<Map, descending>);
    add("remove_ascending", removeAll<Map, ascending>)->UseManualTime();
    add("remove_descending", removeAll<Map, descending>)->UseManualTime();
    add("remove_random", removeAll<Map, shuffled>)->UseManualTime();
}

// The peers run once more for each size of our nodes: a case is one of theirs beside one of ours.
template <uint16_t itemsPerNode>
void addNodeSize(int64_t size)
{
    std::string node = "_node" + std::to_string(itemsPerNode);
    addMap<Ours<itemsPerNode>>(node, "korBtree", size);
#ifdef KOR_HAVE_ABSL
    addMap<Peer<absl::btree_map<int64_t, uint64_t>>>(node, "absl_btree_map", size);
#endif
    addMap<Peer<std::map<int64_t, uint64_t>>>(node, "std_map", size);
}

} // namespace

int main(int argc, char** argv)
{
    for (int64_t size : {10000, 10000000}) {
        addNodeSize<16>(size);
        addNodeSize<64>(size);
        addNodeSize<256>(size);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
