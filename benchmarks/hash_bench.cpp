// hash_bench.cpp - korHash beside the standard map and Abseil's: short and long texts, binary keys, small to large
// tables; and the worst single operation while a table grows to a million entries.
//
// Texts are given to every map as NUL-terminated strings, so each of them measures the length itself.

#include "korutil/korHash.h"

#include <benchmark/benchmark.h>
#ifdef KOR_HAVE_ABSL
#include <absl/container/flat_hash_map.h>
#endif

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

// What a key looks like, and how a caller passes it.
struct ShortText {
    static constexpr const char* name = "short";
    static constexpr uint32_t length = 0;
    static std::string make(uint64_t number) { return "topic" + std::to_string(number); }
    static std::string_view view(const char* key) { return key; }
};

struct LongText {
    static constexpr const char* name = "long";
    static constexpr uint32_t length = 0;
    static std::string make(uint64_t number) { return std::string(100, 'p') + std::to_string(number); }
    static std::string_view view(const char* key) { return key; }
};

struct Binary {
    static constexpr const char* name = "binary";
    static constexpr uint32_t length = 16;
    static std::string make(uint64_t number)
    {
        std::string key(16, '\x5a');
        std::memcpy(key.data(), &number, sizeof(number));
        return key;
    }
    static std::string_view view(const char* key) { return {key, length}; }
};

template <class Shape>
class KorMap
{
public:
    static constexpr const char* name = "korHash";
    explicit KorMap(korEx* ex) : ex_(ex), hash_(_korHash_Create(KOR_AT(ex, 0), 64)) {}
    ~KorMap() { _korHash_Destroy(KOR_AT_D(0, ex_), hash_); }
    KorMap(const KorMap&) = delete;
    KorMap& operator=(const KorMap&) = delete;
    void set(const char* key, uint64_t value) { _korHash_Set(KOR_AT(ex_, 0), hash_, key, Shape::length, 0, 1, value); }
    uint64_t get(const char* key) { return _korHash_Get(KOR_AT(ex_, 0), hash_, key, Shape::length, 0); }
    void remove(const char* key) { _korHash_Remove(KOR_AT_D(0, ex_), hash_, key, Shape::length, 0); }
    uint64_t walk()
    {
        uint64_t sum = 0;
        korHashIterator iterator;
        _korHash_IteratorInit(hash_, &iterator);
        for (uint64_t value; _korHash_Next(&iterator, nullptr, nullptr, &value);) {
            sum += value;
        }
        return sum;
    }

private:
    korEx* ex_;
    korHash* hash_;
};

struct ViewHash : std::hash<std::string_view> {
    using is_transparent = void;
};

struct StdTable {
    static constexpr const char* name = "std_unordered_map";
    using Map = std::unordered_map<std::string, uint64_t, ViewHash, std::equal_to<>>;
    static Map::iterator find(Map& map, std::string_view key) { return map.find(key); }
};

#ifdef KOR_HAVE_ABSL
struct AbslTable {
    static constexpr const char* name = "absl_flat_hash_map";
    using Map = absl::flat_hash_map<std::string, uint64_t>;
    static Map::iterator find(Map& map, std::string_view key)
    {
        return map.find(absl::string_view(key.data(), key.size())); // a distribution's build may have its own view type
    }
};
#endif

template <class Shape, class Table>
class PeerMap
{
public:
    static constexpr const char* name = Table::name;
    explicit PeerMap(korEx*) { map_.reserve(64); }
    void set(const char* key, uint64_t value) { map_.insert_or_assign(std::string(Shape::view(key)), value); }
    uint64_t get(const char* key)
    {
        auto found = Table::find(map_, Shape::view(key));
        return found == map_.end() ? 0 : found->second;
    }
    void remove(const char* key)
    {
        auto found = Table::find(map_, Shape::view(key));
        if (found != map_.end()) {
            map_.erase(found);
        }
    }
    uint64_t walk()
    {
        uint64_t sum = 0;
        for (const auto& pair : map_) {
            sum += pair.second;
        }
        return sum;
    }

private:
    typename Table::Map map_;
};

// Keys in order of insertion and in another one to ask with.
struct Keys {
    std::vector<std::string> stored, asked, absent;
};

template <class Shape>
Keys makeKeys(uint64_t count)
{
    Keys keys;
    for (uint64_t number = 0; number < count; number++) {
        keys.stored.push_back(Shape::make(number));
        keys.absent.push_back(Shape::make(number + count));
    }
    keys.asked = keys.stored;
    std::shuffle(keys.asked.begin(), keys.asked.end(), std::mt19937_64{1});
    std::shuffle(keys.absent.begin(), keys.absent.end(), std::mt19937_64{2});
    return keys;
}

template <class Map>
void fill(Map& map, const Keys& keys)
{
    uint64_t value = 0;
    for (const std::string& key : keys.stored) {
        map.set(key.c_str(), ++value);
    }
}

class Exception
{
public:
    Exception() : ex_(korEx_Create()) {}
    ~Exception() { korEx_Destroy(ex_); }
    Exception(const Exception&) = delete;
    Exception& operator=(const Exception&) = delete;
    operator korEx*() { return ex_; }

private:
    korEx* ex_;
};

// One iteration fills a table, from 64 slots up.
template <class Shape, class Map>
void runSet(benchmark::State& state)
{
    Exception ex;
    Keys keys = makeKeys<Shape>(static_cast<uint64_t>(state.range(0)));
    for (auto step : state) {
        auto map = std::make_unique<Map>(ex);
        fill(*map, keys);
        state.PauseTiming();
        map.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// One iteration removes all entries of a full table, in another order than they came.
template <class Shape, class Map>
void runRemove(benchmark::State& state)
{
    Exception ex;
    Keys keys = makeKeys<Shape>(static_cast<uint64_t>(state.range(0)));
    for (auto step : state) {
        state.PauseTiming();
        Map map(ex);
        fill(map, keys);
        state.ResumeTiming();
        for (const std::string& key : keys.asked) {
            map.remove(key.c_str());
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Map>
void lookUp(benchmark::State& state, const Keys& stored, const std::vector<std::string>& asked)
{
    Exception ex;
    Map map(ex);
    fill(map, stored);
    size_t at = 0;
    for (auto step : state) {
        benchmark::DoNotOptimize(map.get(asked[at].c_str()));
        at = at + 1 == asked.size() ? 0 : at + 1;
    }
}

template <class Shape, class Map>
void runHit(benchmark::State& state)
{
    Keys keys = makeKeys<Shape>(static_cast<uint64_t>(state.range(0)));
    lookUp<Map>(state, keys, keys.asked);
}

template <class Shape, class Map>
void runMiss(benchmark::State& state)
{
    Keys keys = makeKeys<Shape>(static_cast<uint64_t>(state.range(0)));
    lookUp<Map>(state, keys, keys.absent);
}

template <class Shape, class Map>
void runWalk(benchmark::State& state)
{
    Exception ex;
    Map map(ex);
    fill(map, makeKeys<Shape>(static_cast<uint64_t>(state.range(0))));
    for (auto step : state) {
        benchmark::DoNotOptimize(map.walk());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The thread's own time, in nanoseconds: the scheduler's pauses are longer than what is measured here.
int64_t threadTime()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// The time of one iteration is that of the slowest Set while a table grows to its size; `least_us` is the least of the
// iterations.
template <class Shape, class Map>
void runWorst(benchmark::State& state)
{
    Exception ex;
    Keys keys = makeKeys<Shape>(static_cast<uint64_t>(state.range(0)));
    int64_t least = INT64_MAX;
    for (auto step : state) {
        Map map(ex);
        int64_t worst = 0;
        for (const std::string& key : keys.stored) {
            int64_t start = threadTime();
            map.set(key.c_str(), 1);
            worst = std::max(worst, threadTime() - start);
        }
        state.SetIterationTime(static_cast<double>(worst) * 1e-9);
        least = std::min(least, worst);
    }
    state.counters["least_us"] = static_cast<double>(least) * 1e-3;
}

using Run = void (*)(benchmark::State&);

void add(const std::string& name, const char* who, Run run)
{
    for (int64_t size : {100, 10000, 1000000}) {
        benchmark::RegisterBenchmark((name + "/" + who).c_str(), run)->Arg(size);
    }
}

template <class Shape, class... Maps>
void addShape()
{
    std::string shape = Shape::name;
    (add("BM_Hash_set_" + shape, Maps::name, runSet<Shape, Maps>), ...);
    (add("BM_Hash_hit_" + shape, Maps::name, runHit<Shape, Maps>), ...);
    (add("BM_Hash_miss_" + shape, Maps::name, runMiss<Shape, Maps>), ...);
    (add("BM_Hash_remove_" + shape, Maps::name, runRemove<Shape, Maps>), ...);
    (add("BM_Hash_walk_" + shape, Maps::name, runWalk<Shape, Maps>), ...);
}

template <class Map>
void addWorst()
{
    std::string name = std::string("BM_Hash_worstSet_short/") + Map::name;
    benchmark::RegisterBenchmark(name.c_str(), runWorst<ShortText, Map>)->Arg(1000000)->Iterations(5)->UseManualTime();
}

template <class Shape>
void addPeers()
{
#ifdef KOR_HAVE_ABSL
    addShape<Shape, KorMap<Shape>, PeerMap<Shape, StdTable>, PeerMap<Shape, AbslTable>>();
#else
    addShape<Shape, KorMap<Shape>, PeerMap<Shape, StdTable>>();
#endif
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    addPeers<ShortText>();
    addPeers<LongText>();
    addPeers<Binary>();
    addWorst<KorMap<ShortText>>();
    addWorst<PeerMap<ShortText, StdTable>>();
#ifdef KOR_HAVE_ABSL
    addWorst<PeerMap<ShortText, AbslTable>>();
#endif
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
