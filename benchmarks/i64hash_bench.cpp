// i64hash_bench.cpp - the 64-bit integer hash beside other maps from 64-bit integers: setting, getting, walking,
// removing, with keys in sequence (ids, as they are handed out) and at random; and the memory that an entry takes.

#include "korutil/korI64Hash.h"

#include <benchmark/benchmark.h>

#ifdef KOR_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif
#ifdef KOR_HAVE_ROBIN_MAP
#include <tsl/robin_map.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <malloc.h>
#include <numeric>
#include <random>
#include <unordered_map>
#include <vector>

namespace {

korEx* sharedEx = korEx_Create();

class Ours
{
public:
    Ours() { _korI64Hash_Init(ex_, 0, &hash_, 1); }
    ~Ours() { _korI64Hash_Clear(0, ex_, &hash_); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    void set(int64_t key, uint64_t value) { _korI64Hash_Set(KOR_AT(ex_, 0), &hash_, key, value); }
    uint64_t get(int64_t key) const { return _korI64Hash_Get(KOR_AT(ex_, 0), &hash_, key); }
    void remove(int64_t key) { _korI64Hash_Remove(KOR_AT_D(0, ex_), &hash_, key); }
    uint64_t walk()
    {
        korI64HashIterator iterator;
        uint64_t sum = 0;
        int64_t key;
        uint64_t value;
        _korI64Hash_IteratorInit(KOR_AT(ex_, 0), &hash_, &iterator);
        while (_korI64Hash_Next(KOR_AT(ex_, 0), &iterator, &key, &value)) {
            sum += value;
        }
        return sum;
    }

private:
    korEx* ex_ = sharedEx;
    korI64Hash hash_;
};

template <class Map>
class Peer
{
public:
    void set(int64_t key, uint64_t value) { map_[key] = value; }
    uint64_t get(int64_t key) const
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

private:
    Map map_;
};

// ---- Keys ----

using Keys = std::vector<int64_t>;
enum Order { sequential, random };

Keys keysOf(Order order, int64_t count)
{
    Keys keys(static_cast<size_t>(count));
    std::iota(keys.begin(), keys.end(), 1);
    if (order == random) {
        std::mt19937_64 engine(7);
        std::generate(keys.begin(), keys.end(), [&] { return static_cast<int64_t>(engine()); });
    }
    return keys;
}

// The order of use: as the keys came if they are in sequence, else any other.
Keys usesOf(Order order, Keys keys)
{
    if (order == random) {
        std::shuffle(keys.begin(), keys.end(), std::mt19937_64(11));
    }
    return keys;
}

// Keys that are not there: behind a sequence, or others at random.
Keys missesOf(Order order, const Keys& keys)
{
    Keys misses = keys;
    std::mt19937_64 engine(13);
    auto count = static_cast<int64_t>(keys.size());
    for (int64_t& key : misses) {
        key = order == sequential ? key + count : static_cast<int64_t>(engine());
    }
    return misses;
}

template <class Table>
void fill(Table& table, const Keys& keys)
{
    for (int64_t key : keys) {
        table.set(key, static_cast<uint64_t>(key) | 1);
    }
}

size_t heapInUse()
{
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// ---- Cases ----

// A table filled from nothing and dropped again; the memory of an entry is told beside it.
template <class Table, Order order>
void set(benchmark::State& state)
{
    Keys keys = keysOf(order, state.range(0));
    for (auto step : state) {
        Table table;
        fill(table, keys);
        benchmark::DoNotOptimize(table);
    }
    size_t before = heapInUse();
    Table table;
    fill(table, keys);
    state.counters["bytes_per_entry"] = static_cast<double>(heapInUse() - before) / static_cast<double>(keys.size());
}

template <class Table>
void lookUp(benchmark::State& state, const Keys& keys, const Keys& uses)
{
    Table table;
    fill(table, keys);
    size_t next = 0;
    for (auto step : state) {
        benchmark::DoNotOptimize(table.get(uses[next]));
        next = next + 1 == uses.size() ? 0 : next + 1;
    }
}

template <class Table, Order order>
void getHit(benchmark::State& state)
{
    Keys keys = keysOf(order, state.range(0));
    lookUp<Table>(state, keys, usesOf(order, keys));
}

template <class Table, Order order>
void getMiss(benchmark::State& state)
{
    Keys keys = keysOf(order, state.range(0));
    lookUp<Table>(state, keys, missesOf(order, keys));
}

template <class Table, Order order>
void walk(benchmark::State& state)
{
    Table table;
    fill(table, keysOf(order, state.range(0)));
    for (auto step : state) {
        benchmark::DoNotOptimize(table.walk());
    }
}

// All entries removed, one by one, and only that timed. Of small tables there are as many as hold 10,000 entries
// together, and the time is that of all of them.
template <class Table, Order order>
void removeAll(benchmark::State& state)
{
    Keys keys = keysOf(order, state.range(0));
    Keys uses = usesOf(order, keys);
    std::vector<Table> tables(std::max<size_t>(1, 10000 / keys.size()));
    for (auto step : state) {
        for (Table& table : tables) {
            fill(table, keys);
        }
        auto start = std::chrono::steady_clock::now();
        for (Table& table : tables) {
            for (int64_t key : uses) {
                table.remove(key);
            }
        }
        std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
    }
}

using Case = void (*)(benchmark::State&);

template <class Table>
void addTable(const std::string& who, int64_t size)
{
    auto add = [&](const char* name, Case run) {
        std::string full = std::string("BM_I64Hash_") + name + "/" + who;
        return benchmark::RegisterBenchmark(full.c_str(), run)->Arg(size);
    };
    add("set_seq", set<Table, sequential>);
    add("set_random", set<Table, random>);
    add("get_hit_seq", getHit<Table, sequential>);
    add("get_hit_random", getHit<Table, random>);
    add("get_miss_seq", getMiss<Table, sequential>);
    add("get_miss_random", getMiss<Table, random>);
    add("walk_seq", walk<Table, sequential>);
    add("walk_random", walk<Table, random>);
    add("remove_seq", removeAll<Table, sequential>)->UseManualTime();
    add("remove_random", removeAll<Table, random>)->UseManualTime();
}

} // namespace

int main(int argc, char** argv)
{
    for (int64_t size : {100, 10000, 1000000}) {
        addTable<Ours>("korI64Hash", size);
        addTable<Peer<std::unordered_map<int64_t, uint64_t>>>("std_unordered_map", size);
#ifdef KOR_HAVE_ABSL
        addTable<Peer<absl::flat_hash_map<int64_t, uint64_t>>>("absl_flat_hash_map", size);
#endif
#ifdef KOR_HAVE_ROBIN_MAP
        addTable<Peer<tsl::robin_map<int64_t, uint64_t>>>("tsl_robin_map", size);
#endif
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
