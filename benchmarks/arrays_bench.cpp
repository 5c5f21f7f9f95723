// arrays_bench.cpp - the dynamic pointer array beside std::vector: appending from nothing, searching.

#include "korutil/korDpa.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace {

class Exception
{
public:
    Exception() : ex_(korEx_Create()) {}
    ~Exception() { korEx_Destroy(ex_); }
    Exception(const Exception&) = delete;
    Exception& operator=(const Exception&) = delete;
    operator korEx*() const { return ex_; }

private:
    korEx* ex_;
};

void fill(korEx* ex, korDpa* array, int64_t count)
{
    _korDpa_Init(KOR_AT(ex, 0), array, 1);
    for (int64_t i = 0; i < count; i++) {
        _korDpa_AddSafe(KOR_AT(ex, 0), array, static_cast<uint64_t>(i));
    }
}

void fill(std::vector<uint64_t>& array, int64_t count)
{
    for (int64_t i = 0; i < count; i++) {
        array.push_back(static_cast<uint64_t>(i));
    }
}

void appendOurs(benchmark::State& state)
{
    Exception ex;
    for (auto step : state) {
        korDpa array;
        fill(ex, &array, state.range(0));
        benchmark::DoNotOptimize(array.items);
        benchmark::ClobberMemory();
        _korDpa_Clear(KOR_AT_D(0, ex), &array);
    }
}

void appendVector(benchmark::State& state)
{
    for (auto step : state) {
        std::vector<uint64_t> array;
        fill(array, state.range(0));
        benchmark::DoNotOptimize(array.data());
        benchmark::ClobberMemory();
    }
}

// A value in the middle of the array.
void findOurs(benchmark::State& state)
{
    Exception ex;
    korDpa array;
    fill(ex, &array, state.range(0));
    auto wanted = static_cast<uint64_t>(state.range(0) / 2);
    for (auto step : state) {
        benchmark::DoNotOptimize(wanted);
        benchmark::DoNotOptimize(_korDpa_Find(&array, wanted));
    }
    _korDpa_Clear(KOR_AT_D(0, ex), &array);
}

void findVector(benchmark::State& state)
{
    std::vector<uint64_t> array;
    fill(array, state.range(0));
    auto wanted = static_cast<uint64_t>(state.range(0) / 2);
    for (auto step : state) {
        benchmark::DoNotOptimize(wanted);
        benchmark::DoNotOptimize(std::find(array.begin(), array.end(), wanted));
    }
}

// Every value of a sorted array in a scattered order.
void findOrderedOurs(benchmark::State& state)
{
    Exception ex;
    korDpa array;
    fill(ex, &array, state.range(0));
    uint64_t wanted = 0;
    for (auto step : state) {
        wanted = (wanted + 7919) % static_cast<uint64_t>(state.range(0));
        benchmark::DoNotOptimize(_korDpa_FindOrdered(&array, wanted, nullptr));
    }
    _korDpa_Clear(KOR_AT_D(0, ex), &array);
}

void findOrderedVector(benchmark::State& state)
{
    std::vector<uint64_t> array;
    fill(array, state.range(0));
    uint64_t wanted = 0;
    for (auto step : state) {
        wanted = (wanted + 7919) % static_cast<uint64_t>(state.range(0));
        benchmark::DoNotOptimize(std::lower_bound(array.begin(), array.end(), wanted));
    }
}

BENCHMARK(appendOurs)->Name("BM_Dpa_append/korDpa")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(appendVector)->Name("BM_Dpa_append/std_vector")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(findOurs)->Name("BM_Dpa_find/korDpa")->Arg(10)->Arg(1000);
BENCHMARK(findVector)->Name("BM_Dpa_find/std_vector")->Arg(10)->Arg(1000);
BENCHMARK(findOrderedOurs)->Name("BM_Dpa_findOrdered/korDpa")->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(findOrderedVector)->Name("BM_Dpa_findOrdered/std_lower_bound")->Arg(10)->Arg(1000)->Arg(100000);

} // namespace

BENCHMARK_MAIN();
