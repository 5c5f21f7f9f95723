// latency.cpp - the table of microseconds, and what is read from it.

#include "latency.h"

#include <korutil/korAlloc.h>

#include <cmath>
#include <cstdio>
#include <initializer_list>

namespace {

constexpr uint32_t bucketCount = 1000001;
constexpr double microsecond = 1e-6;
constexpr double rowsWanted = 20;

// The least of 1, 2, 5, 10, 20, ... microseconds with which the rows reach to nearly all samples.
double rowWidth(const Latency* latency)
{
    double wanted = latencyOf(latency, 0.98) / rowsWanted;
    double width = std::pow(10.0, std::floor(std::log10(wanted < 1 ? 1 : wanted)));
    for (double step : {1.0, 2.0, 5.0}) {
        if (width * step >= wanted) {
            return width * step * microsecond;
        }
    }
    return width * 10 * microsecond;
}

void fill(korEx* ex, uint8_t depth, const Latency* latency, korPerfHist* hist)
{
    for (uint32_t i = 0; i < bucketCount; i++) {
        auto ticks = static_cast<int64_t>((i + 0.5) * microsecond / latency->secondsPerTick);
        for (uint32_t count = latency->counts[i]; count > 0; count--) {
            _korPerf_HistUpdate(KOR_AT(ex, depth), hist, ticks);
        }
    }
}

} // namespace

void openLatency(korEx* ex, uint8_t depth, Latency* latency)
{
    *latency = {};
    latency->secondsPerTick = _korPerf_TimerScale();
    latency->counts = static_cast<uint32_t*>(_kor_calloc(KOR_AT(ex, depth), bucketCount, sizeof(uint32_t)));
}

void closeLatency(uint8_t depth, korEx* ex, Latency* latency)
{
    _kor_free(KOR_AT_D(depth, ex), latency->counts);
    *latency = {};
}

void addLatency(Latency* latency, int64_t ticks)
{
    double bucket = static_cast<double>(ticks) * latency->secondsPerTick / microsecond;
    bool isLong = bucket >= bucketCount - 1;
    latency->counts[isLong ? bucketCount - 1 : bucket < 0 ? 0 : static_cast<uint32_t>(bucket)]++;
    latency->samples++;
    latency->longest = ticks > latency->longest ? ticks : latency->longest;
}

double longestLatency(const Latency* latency)
{
    return static_cast<double>(latency->longest) * latency->secondsPerTick / microsecond;
}

double latencyOf(const Latency* latency, double share)
{
    auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(latency->samples)));
    uint64_t reached = 0;
    for (uint32_t i = 0; i + 1 < bucketCount && wanted > 0; i++) {
        reached += latency->counts[i];
        if (reached >= wanted) {
            return std::fmin(i + 1, longestLatency(latency));
        }
    }
    return longestLatency(latency);
}

void drawLatency(korEx* ex, uint8_t depth, const Latency* latency)
{
    korPerfHist* hist = _korPerf_CreateHist(KOR_AT(ex, depth), rowWidth(latency), latency->secondsPerTick);
    if (hist != nullptr) {
        fill(KOR_AT(ex, depth), latency, hist);
        _korPerf_PrintHist(KOR_AT(ex, depth), hist, stdout, false, true);
    }
    _korPerf_DestroyHist(KOR_AT_D(depth, ex), hist);
}
