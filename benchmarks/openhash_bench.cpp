// openhash_bench.cpp - the plain tables for 32-bit and 128-bit keys beside other hash maps: setting, getting, walking,
// removing, with 32-bit keys in sequence and 128-bit keys at random; and the memory that an entry takes.

#include "korutil/kor128Hash.h"
#include "korutil/korI32Hash.h"

#include <benchmark/benchmark.h>

#ifdef KOR_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#include <absl/container/node_hash_map.h>
#endif
#ifdef KOR_HAVE_ROBIN_MAP
#include <tsl/robin_map.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <malloc.h>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

korEx* sharedEx = korEx_Create();

struct Wide {
    uint64_t low, high;
    bool operator==(const Wide&) const = default;
};

// The peers' hash for wide keys: as many multiplications as ours needs, no fewer bits.
struct WideHash {
    size_t operator()(const Wide& key) const
    {
        constexpr uint64_t factor = 0x9ddfea08eb382d69;
        uint64_t x = (key.low ^ key.high) * factor;
        uint64_t y = (x ^ key.high ^ (x >> 47)) * factor;
        return (y ^ (y >> 47)) * factor;
    }
};

class Ours32
{
public:
    using Key = uint32_t;
    Ours32() : hash_(_korI32Hash_Create(ex_, 0, 16)) {}
    ~Ours32() { _korI32Hash_Destroy(0, ex_, hash_); }
    Ours32(const Ours32&) = delete;
    Ours32& operator=(const Ours32&) = delete;
    void set(Key key, uint64_t value) { _korI32Hash_Set(KOR_AT(ex_, 0), hash_, key, value); }
    uint64_t get(Key key) { return _korI32Hash_Get(KOR_AT(ex_, 0), hash_, key); }
    void remove(Key key) { _korI32Hash_Remove(KOR_AT_D(0, ex_), hash_, key); }
    uint64_t walk()
    {
        korHashChainIterator iterator;
        uint64_t sum = 0;
        uint64_t value = 0;
        _korI32Hash_IteratorInit(hash_, &iterator);
        while (_korI32Hash_Next(&iterator, nullptr, &value)) {
            sum += value;
        }
        return sum;
    }

private:
    korEx* ex_ = sharedEx;
    korI32Hash* hash_;
};

class Ours128
{
public:
    using Key = Wide;
    Ours128()
    {
        _kor128Hash_CreatePools(ex_, 0, nullptr, &cache_, 10000, 0);
        hash_ = _kor128Hash_CreatePooled(ex_, 0, 16, nullptr, cache_);
    }
    ~Ours128()
    {
        korPool* pool = cache_->pool;
        _kor128Hash_DestroyPooled(0, ex_, hash_, nullptr);
        _korPoolCache_Destroy(0, ex_, cache_);
        _korPool_Destroy(0, ex_, pool);
    }
    Ours128(const Ours128&) = delete;
    Ours128& operator=(const Ours128&) = delete;
    void set(const Key& key, uint64_t value) { _kor128Hash_Set2(KOR_AT(ex_, 0), hash_, key.low, key.high, value); }
    uint64_t get(const Key& key) { return _kor128Hash_Get2(KOR_AT(ex_, 0), hash_, key.low, key.high); }
    void remove(const Key& key) { _kor128Hash_Remove2(KOR_AT_D(0, ex_), hash_, key.low, key.high); }
    uint64_t walk()
    {
        korHashChainIterator iterator;
        uint64_t sum = 0;
        uint64_t value = 0;
        _kor128Hash_IteratorInit(hash_, &iterator);
        while (_kor128Hash_Next2(&iterator, nullptr, nullptr, &value)) {
            sum += value;
        }
        return sum;
    }

private:
    korEx* ex_ = sharedEx;
    korPoolCache* cache_ = nullptr;
    kor128Hash* hash_;
};

template <class Map>
class Peer
{
public:
    using Key = typename Map::key_type;
    void set(const Key& key, uint64_t value) { map_[key] = value; }
    uint64_t get(const Key& key)
    {
        auto found = map_.find(key);
        return found != map_.end() ? found->second : 0;
    }
    void remove(const Key& key) { map_.erase(key); }
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

// ---- Keys: those of a table, and others that are not there ----

void makeKeys(std::vector<uint32_t>& keys, std::vector<uint32_t>& misses)
{
    for (size_t i = 0; i < keys.size(); i++) {
        keys[i] = static_cast<uint32_t>(i + 1);
        misses[i] = static_cast<uint32_t>(i + 1 + keys.size());
    }
}

void makeKeys(std::vector<Wide>& keys, std::vector<Wide>& misses)
{
    std::mt19937_64 engine(7);
    for (size_t i = 0; i < keys.size(); i++) {
        keys[i] = {engine(), engine()};
        misses[i] = {engine(), engine()};
    }
}

template <class Table>
struct Work {
    explicit Work(int64_t size) : keys(static_cast<size_t>(size)), misses(keys.size())
    {
        makeKeys(keys, misses);
        uses = keys;
        std::shuffle(uses.begin(), uses.end(), std::mt19937_64(11));
        std::shuffle(misses.begin(), misses.end(), std::mt19937_64(13));
    }
    void fill(Table& table) const
    {
        for (size_t i = 0; i < keys.size(); i++) {
            table.set(keys[i], i + 1);
        }
    }

    std::vector<typename Table::Key> keys, misses, uses;
};

size_t heapInUse()
{
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// ---- Cases ----

template <class Table>
void set(benchmark::State& state)
{
    Work<Table> work(state.range(0));
    size_t bytes = 0;
    for (auto step : state) {
        size_t before = heapInUse();
        Table table;
        auto start = std::chrono::steady_clock::now();
        work.fill(table);
        std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
        bytes = heapInUse() - before;
    }
    state.counters["bytes_per_entry"] = static_cast<double>(bytes) / static_cast<double>(work.keys.size());
}

template <class Table, bool hit>
void get(benchmark::State& state)
{
    Work<Table> work(state.range(0));
    Table table;
    work.fill(table);
    const auto& keys = hit ? work.uses : work.misses;
    size_t next = 0;
    for (auto step : state) {
        benchmark::DoNotOptimize(table.get(keys[next]));
        next = next + 1 == keys.size() ? 0 : next + 1;
    }
}

template <class Table>
void walk(benchmark::State& state)
{
    Work<Table> work(state.range(0));
    Table table;
    work.fill(table);
    for (auto step : state) {
        benchmark::DoNotOptimize(table.walk());
    }
}

template <class Table>
void removeAll(benchmark::State& state)
{
    Work<Table> work(state.range(0));
    for (auto step : state) {
        Table table;
        work.fill(table);
        auto start = std::chrono::steady_clock::now();
        for (const auto& key : work.uses) {
            table.remove(key);
        }
        std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
    }
}

using Case = void (*)(benchmark::State&);

template <class Table>
void addTable(const std::string& kind, const std::string& who, int64_t size)
{
    auto add = [&](const char* name, Case run) {
        std::string full = "BM_OpenHash_" + kind + "_" + name + "/" + who;
        return benchmark::RegisterBenchmark(full.c_str(), run)->Arg(size);
    };
    add("set", set<Table>)->UseManualTime();
    add("get_hit", get<Table, true>);
    add("get_miss", get<Table, false>);
    add("walk", walk<Table>);
    add("remove", removeAll<Table>)->UseManualTime();
}

template <class Ours, class... HashOf>
void addKind(const std::string& kind, const std::string& who, int64_t size)
{
    using Key = typename Ours::Key;
    addTable<Ours>(kind, who, size);
    addTable<Peer<std::unordered_map<Key, uint64_t, HashOf...>>>(kind, "std_unordered_map", size);
#ifdef KOR_HAVE_ABSL
    addTable<Peer<absl::flat_hash_map<Key, uint64_t, HashOf...>>>(kind, "absl_flat_hash_map", size);
    addTable<Peer<absl::node_hash_map<Key, uint64_t, HashOf...>>>(kind, "absl_node_hash_map", size);
#endif
#ifdef KOR_HAVE_ROBIN_MAP
    addTable<Peer<tsl::robin_map<Key, uint64_t, HashOf...>>>(kind, "tsl_robin_map", size);
#endif
}

} // namespace

int main(int argc, char** argv)
{
    for (int64_t size : {1000, 1000000}) {
        addKind<Ours32>("32", "korI32Hash", size);
        addKind<Ours128, WideHash>("128", "kor128Hash", size);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
