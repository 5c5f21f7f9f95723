// frame_bench.cpp - what the call trace costs: a chain of eight calls with and without it; and the allocation family
// beside the plain heap.

#include "korutil/korAlloc.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

// Eight functions that call each other, kept out of line. Each does a little that the compiler can't drop.
template <int level>
__attribute__((noinline)) uint64_t traced(korEx* ex, uint8_t depth, uint64_t value)
{
    if constexpr (level == 0) {
        benchmark::DoNotOptimize(value);
        return value + depth;
    } else {
        return traced<level - 1>(KOR_AT(ex, depth), value + level) + 1;
    }
}

template <int level>
__attribute__((noinline)) uint64_t plain(korEx* ex, uint8_t depth, uint64_t value)
{
    if constexpr (level == 0) {
        benchmark::DoNotOptimize(value);
        return value + depth;
    } else {
        return plain<level - 1>(ex, static_cast<uint8_t>(depth + 1), value + level) + 1;
    }
}

template <uint64_t (*chain)(korEx*, uint8_t, uint64_t)>
void eightCalls(benchmark::State& state)
{
    korEx* ex = korEx_Create();
    uint64_t value = 0;
    for (auto step : state) {
        value = chain(ex, 0, value);
        benchmark::DoNotOptimize(value);
    }
    korEx_Destroy(ex);
}

BENCHMARK(eightCalls<traced<7>>)->Name("BM_Frame_eightCalls/with_trace");
BENCHMARK(eightCalls<plain<7>>)->Name("BM_Frame_eightCalls/without");

void raiseAndClear(benchmark::State& state)
{
    korEx* ex = korEx_Create();
    for (auto step : state) {
        KOR_RAISE(ex, 0, KOR_ERROR_NOT_FOUND, "not there");
        korEx_Clear(ex);
    }
    korEx_Destroy(ex);
}

BENCHMARK(raiseAndClear)->Name("BM_Frame_raiseAndClear/korEx");

void familyPair(benchmark::State& state)
{
    korEx* ex = korEx_Create();
    auto size = static_cast<size_t>(state.range(0));
    for (auto step : state) {
        void* block = _kor_malloc(KOR_AT(ex, 0), size);
        benchmark::DoNotOptimize(block);
        _kor_free(KOR_AT_D(0, ex), block);
    }
    korEx_Destroy(ex);
}

void heapPair(benchmark::State& state)
{
    auto size = static_cast<size_t>(state.range(0));
    for (auto step : state) {
        void* block = malloc(size);
        benchmark::DoNotOptimize(block);
        free(block);
    }
}

BENCHMARK(familyPair)->Name("BM_Alloc_pair/kor_malloc")->Arg(64)->Arg(1024);
BENCHMARK(heapPair)->Name("BM_Alloc_pair/malloc")->Arg(64)->Arg(1024);

} // namespace

BENCHMARK_MAIN();
