// debugalloc_bench.cpp - what the debug allocator costs an allocation, for the record: the configuration of the
// environment, tracking alone if there is none, beside plain malloc.

#include "korutil/korAlloc.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

namespace {

korEx ex;

void pairOfOurs(benchmark::State& state)
{
    auto size = static_cast<size_t>(state.range(0));
    for (auto step : state) {
        void* block = _kor_malloc(KOR_AT(&ex, 0), size);
        benchmark::DoNotOptimize(block);
        _kor_free(KOR_AT_D(0, &ex), block);
    }
}

void pairOfMalloc(benchmark::State& state)
{
    auto size = static_cast<size_t>(state.range(0));
    for (auto step : state) {
        void* block = std::malloc(size);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
}

BENCHMARK(pairOfOurs)->Name("BM_DebugAlloc_pair/korutil")->Arg(64)->Arg(4096);
BENCHMARK(pairOfMalloc)->Name("BM_DebugAlloc_pair/malloc")->Arg(64)->Arg(4096);

} // namespace

int main(int argc, char** argv)
{
    setenv("KOR_MEM_DEBUG_CONF", "timing=1000000:1:1", 0); // before the first block, and no report meanwhile
    korEx_initHead(&ex, nullptr, 0, 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
