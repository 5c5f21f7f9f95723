// hashfunctions_bench.cpp - SpookyHash beside xxHash, from keys of a table to a page; bytes a second and time a hash.

#include "korutil/korSpookyHash.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#ifdef KOR_HAVE_XXHASH
#include <xxhash.h>
#endif

namespace {

uint64_t spooky(const void* data, size_t length)
{
    return length < KOR_SPOOKY_LONG_LENGTH ? _korSpookyHash_Short(data, length, nullptr)
                                           : _korSpookyHash_Long(data, length, nullptr);
}

#ifdef KOR_HAVE_XXHASH
uint64_t xxh64(const void* data, size_t length)
{
    return XXH64(data, length, 0);
}

uint64_t xxh3Of64Bits(const void* data, size_t length)
{
    return XXH3_64bits(data, length);
}

uint64_t xxh3Of128Bits(const void* data, size_t length)
{
    return XXH3_128bits(data, length).low64;
}
#endif

using Hash = uint64_t (*)(const void* data, size_t length);

// Each hash goes into the next input, so that one has to end before the next begins, as in a lookup.
template <Hash hash>
void hashOneByOne(benchmark::State& state)
{
    auto length = static_cast<size_t>(state.range(0));
    std::vector<char> data(length, 'k');
    uint64_t result = 0;
    for (auto _ : state) {
        std::memcpy(data.data(), &result, sizeof result);
        benchmark::ClobberMemory();
        result = hash(data.data(), length);
    }
    benchmark::DoNotOptimize(result);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void lengths(benchmark::internal::Benchmark* bench)
{
    for (int64_t length : {8, 32, 100, 191, 192, 4096}) {
        bench->Arg(length);
    }
}

BENCHMARK(hashOneByOne<spooky>)->Apply(lengths)->Name("hash/korSpookyHash");
#ifdef KOR_HAVE_XXHASH
BENCHMARK(hashOneByOne<xxh64>)->Apply(lengths)->Name("hash/XXH64");
BENCHMARK(hashOneByOne<xxh3Of64Bits>)->Apply(lengths)->Name("hash/XXH3_64");
BENCHMARK(hashOneByOne<xxh3Of128Bits>)->Apply(lengths)->Name("hash/XXH3_128");
#endif

} // namespace

BENCHMARK_MAIN();
