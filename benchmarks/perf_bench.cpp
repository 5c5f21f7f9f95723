// perf_bench.cpp - what measuring costs: a sample added to running statistics, beside two passes over stored samples; a
// sample added to a histogram, beside a std::map; a reading of the clock, beside std::chrono's.

#include "korutil/korPerf.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

namespace {

korEx* sharedEx = korEx_Create();

std::vector<int64_t> samples()
{
    constexpr size_t count = 4096;
    std::mt19937_64 engine(7);
    std::vector<int64_t> made(count);
    for (int64_t& sample : made) {
        sample = static_cast<int64_t>(engine() % 100000);
    }
    return made;
}

void runningStatistics(benchmark::State& state)
{
    std::vector<int64_t> all = samples();
    for (auto step : state) {
        korPerfStat stat = {};
        for (int64_t sample : all) {
            _korPerf_StatUpdate(&stat, sample);
        }
        benchmark::DoNotOptimize(_korPerf_StdDeviation(&stat));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}

void storedSamples(benchmark::State& state)
{
    std::vector<int64_t> all = samples();
    for (auto step : state) {
        std::vector<int64_t> kept;
        double sum = 0;
        double squares = 0;
        for (int64_t sample : all) {
            kept.push_back(sample);
        }
        for (int64_t sample : kept) {
            sum += static_cast<double>(sample);
        }
        double mean = sum / static_cast<double>(kept.size());
        for (int64_t sample : kept) {
            squares += (static_cast<double>(sample) - mean) * (static_cast<double>(sample) - mean);
        }
        benchmark::DoNotOptimize(std::sqrt(squares / static_cast<double>(kept.size())));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}

void histogram(benchmark::State& state)
{
    std::vector<int64_t> all = samples();
    korPerfHist* hist = _korPerf_CreateHist(sharedEx, 0, 100, 1);
    for (auto step : state) {
        for (int64_t sample : all) {
            _korPerf_HistUpdate(KOR_AT(sharedEx, 0), hist, sample);
        }
    }
    _korPerf_DestroyHist(0, sharedEx, hist);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}

void histogramInMap(benchmark::State& state)
{
    std::vector<int64_t> all = samples();
    std::map<int64_t, uint64_t> buckets;
    for (auto step : state) {
        for (int64_t sample : all) {
            buckets[sample / 100]++;
        }
    }
    benchmark::DoNotOptimize(buckets);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.size()));
}

void clockNow(benchmark::State& state)
{
    for (auto step : state) {
        benchmark::DoNotOptimize(_korPerf_TimerNow());
    }
}

void clockNowStd(benchmark::State& state)
{
    for (auto step : state) {
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    }
}

BENCHMARK(runningStatistics)->Name("BM_Perf_stat_update/korPerf");
BENCHMARK(storedSamples)->Name("BM_Perf_stat_update/stored_samples");
BENCHMARK(histogram)->Name("BM_Perf_hist_update/korPerf");
BENCHMARK(histogramInMap)->Name("BM_Perf_hist_update/std_map");
BENCHMARK(clockNow)->Name("BM_Perf_now/korPerf");
BENCHMARK(clockNowStd)->Name("BM_Perf_now/std_steady_clock");

} // namespace

BENCHMARK_MAIN();
