// korPerf.cpp - the tick counter, running statistics, histograms and their bar chart.

#include "korutil/korPerf.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "platform/clock.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

static_assert(sizeof(korPerfStat) == 40 && offsetof(korPerfStat, sumSquares) == 32);
static_assert(sizeof(korPerfHist) == 32 && offsetof(korPerfHist, buckets) == 24);

namespace kor {
namespace {

constexpr int32_t histogramSlots = 1024;

// The exponent for engineering notation. What has no logarithm gets 0 and is printed by its name.
int engineeringExponent(double magnitude)
{
    return std::isfinite(magnitude) ? static_cast<int>(std::floor(std::log10(magnitude) / 3)) * 3 : 0;
}

double scaled(int64_t ticks, double scale)
{
    return static_cast<double>(ticks) * scale;
}

// A width that is no number of ticks from 1 up becomes the nearest one that is.
int64_t wholeTicks(double ticks)
{
    constexpr double beyond = 9223372036854775808.0;
    if (!(ticks >= 1.0)) {
        return 1;
    }
    return ticks < beyond ? static_cast<int64_t>(ticks) : INT64_MAX;
}

// Takes the entry out and sets it again.
void addToBucket(korEx* ex, uint8_t depth, korPerfHist* hist, int64_t index, uint64_t samples)
{
    uint64_t before = _korI64Hash_Remove(KOR_AT_D(depth, ex), hist->buckets, index);
    _korI64Hash_Set(KOR_AT(ex, depth), hist->buckets, index, before + samples);
}

// ---- Printing a histogram ----

struct Extent {
    int64_t lowest = INT64_MAX;
    int64_t highest = 0;
    uint64_t largest = 1; // samples in the fullest bucket
};

Extent extentOf(korEx* ex, uint8_t depth, const korPerfHist* hist)
{
    Extent extent;
    korI64HashIterator walk;
    int64_t index;
    uint64_t samples;
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), hist->buckets, &walk);
    while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, &index, &samples)) {
        extent.lowest = index < extent.lowest ? index : extent.lowest;
        extent.highest = index > extent.highest ? index : extent.highest;
        extent.largest = samples > extent.largest ? samples : extent.largest;
    }
    return extent;
}

struct Row {
    int64_t index;
    uint64_t samples;
    uint64_t total;    // samples up to here
    double upperEdge;  // in seconds
    double percentage; // of all samples up to here
};

void printCsvRow(FILE* stream, const Row& row)
{
    if (row.samples == 0) {
        return;
    }
    _korPerf_PrintEng(stream, row.upperEdge);
    std::fprintf(stream, ", %" PRIu64 ", %.12g\n", row.samples, row.percentage);
}

// The percentage of an empty histogram is 0 divided by 0; x86 converts that to the lowest integer.
int32_t wholePercent(double percentage)
{
    return std::isfinite(percentage) ? static_cast<int32_t>(percentage) : INT32_MIN;
}

void printBar(FILE* stream, const Row& row, uint64_t bar)
{
    _korPerf_PrintEng(stream, row.upperEdge);
    std::fprintf(stream, " (%2d%%) ", wholePercent(row.percentage));
    for (uint64_t star = 0; star <= bar; star++) {
        std::fputc('*', stream);
    }
    std::fputc('\n', stream);
}

// The chart, row by row; it remembers what it has left out.
class Chart
{
public:
    Chart(FILE* stream, const korPerfHist* hist, const Extent& extent, bool trim)
        : stream_(stream), hist_(hist), extent_(extent), trim_(trim)
    {}

    void print(const Row& row)
    {
        bool last = row.index == extent_.highest;
        if (trim_ && !last && isCut(row)) {
            return;
        }
        if (trim_ && last) {
            std::fputs("...\n", stream_);
        }
        uint64_t bar = row.samples * longestBar / extent_.largest;
        emptyRun_ = trim_ && bar == 0 ? emptyRun_ + 1 : 0;
        shown_ = row.total;
        if (!last && emptyRun_ >= longRun) {
            if (emptyRun_ == longRun) {
                std::fputs("... 10 or more similar rows\n", stream_);
            }
            return;
        }
        printBar(stream_, row, bar);
    }

private:
    static constexpr uint64_t longestBar = 61;
    static constexpr uint64_t longRun = 10;
    static constexpr double bulk = 0.98;

    // Below the lowest bucket, or in the tail behind the bulk of the samples.
    bool isCut(const Row& row) const
    {
        return row.index < extent_.lowest || static_cast<double>(shown_) > bulk * static_cast<double>(hist_->count);
    }

    FILE* stream_;
    const korPerfHist* hist_;
    const Extent& extent_;
    bool trim_;
    uint64_t emptyRun_ = 0; // rows with an empty bar, up to this one
    uint64_t shown_ = 0;    // samples up to the last row that was shown
};

Row rowOf(korEx* ex, uint8_t depth, const korPerfHist* hist, int64_t index, uint64_t before)
{
    uint64_t samples = _korI64Hash_Get(KOR_AT(ex, depth), hist->buckets, index);
    uint64_t total = before + samples;
    return {.index = index,
            .samples = samples,
            .total = total,
            .upperEdge =
                (static_cast<double>(index) + 1) * static_cast<double>(hist->bucketTicks) * hist->secondsPerTick,
            .percentage = static_cast<double>(total) * 100.0 / static_cast<double>(hist->count)};
}

} // namespace
} // namespace kor

using namespace kor;

// ---- The clock ------------------------------------------------------------------------------------------------------

int64_t _korPerf_TimerNow()
{
    return static_cast<int64_t>(platform::performanceCounter());
}

double _korPerf_TimerScale()
{
    return 1.0 / static_cast<double>(platform::performanceFrequency());
}

double _korPerf_TimerResolution()
{
    return _korPerf_TimerScale();
}

// ---- Statistics -----------------------------------------------------------------------------------------------------

uint64_t _korPerf_StatUpdate(korPerfStat* stat, int64_t value)
{
    if (stat->count == 0) {
        *stat = {.count = 0, .max = value, .min = value, .mean = 0, .sumSquares = 0};
    } else if (value < stat->min) {
        stat->min = value;
    } else if (value > stat->max) {
        stat->max = value;
    }
    stat->count++;
    double delta = static_cast<double>(value) - stat->mean;
    stat->mean += delta / static_cast<double>(stat->count);
    stat->sumSquares += (static_cast<double>(value) - stat->mean) * delta;
    return stat->count;
}

double _korPerf_StdDeviation(const korPerfStat* stat)
{
    if (stat->count == 0 || stat->sumSquares < 0) {
        return 0;
    }
    return std::sqrt(stat->sumSquares / static_cast<double>(stat->count));
}

void _korPerf_StatAccumulate(korPerfStat* destination, const korPerfStat* source)
{
    bool first = destination->count == 0;
    if (first || source->max > destination->max) {
        destination->max = source->max;
    }
    if (first || source->min < destination->min) {
        destination->min = source->min;
    }
    uint64_t count = destination->count + source->count;
    if (count != 0) {
        destination->mean = (destination->mean * static_cast<double>(destination->count) +
                             source->mean * static_cast<double>(source->count)) /
                            static_cast<double>(count);
    }
    destination->sumSquares += source->sumSquares;
    destination->count = count;
}

void _korPerf_PrintStat(FILE* stream, const korPerfStat* stat, double scale)
{
    std::fputs("min/max/avg/dev: ", stream);
    _korPerf_PrintEng(stream, scaled(stat->min, scale));
    std::fputs(" / ", stream);
    _korPerf_PrintEng(stream, scaled(stat->max, scale));
    std::fputs(" / ", stream);
    _korPerf_PrintEng(stream, stat->mean * scale);
    std::fputs(" / ", stream);
    _korPerf_PrintEng(stream, _korPerf_StdDeviation(stat) * scale);
}

void _korPerf_PrintStatForRegressionTest(FILE* stream, const korPerfStat* stat, double scale)
{
    std::fprintf(stream, "%12" PRIu64 ", %.12g, %.12g, %.12g, %.12g, %.12g", stat->count, scaled(stat->min, scale),
                 scaled(stat->max, scale), stat->mean * scale, _korPerf_StdDeviation(stat) * scale,
                 stat->sumSquares * scale);
}

void _korPerf_PrintEng(FILE* stream, double value)
{
    constexpr double naturalOfTen = 2.302585092994046;
    constexpr int width = 10;
    if (value == 0) {
        std::fputs("   0.00E+00", stream);
        return;
    }
    char text[16];
    double magnitude = std::fabs(value);
    int exponent = engineeringExponent(magnitude);
    std::snprintf(text, sizeof text, "%3.2fE%+03d", magnitude / std::exp(exponent * naturalOfTen), exponent);
    for (auto length = static_cast<int>(std::strlen(text)); length < width; length++) {
        std::fputc(' ', stream);
    }
    std::fprintf(stream, "%c%s", value < 0 ? '-' : ' ', text);
}

// ---- Histograms -----------------------------------------------------------------------------------------------------

korPerfHist* _korPerf_CreateHist(korEx* ex, uint8_t depth, double bucketSeconds, double secondsPerTick)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* hist = requestZeroed<korPerfHist>(KOR_AT(ex, depth));
    if (hist == nullptr) {
        return nullptr;
    }
    hist->bucketTicks = wholeTicks(bucketSeconds / secondsPerTick);
    hist->secondsPerTick = secondsPerTick;
    hist->buckets = _korI64Hash_Create(KOR_AT(ex, depth), histogramSlots);
    if (hist->buckets == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), hist);
        return nullptr;
    }
    return hist;
}

void _korPerf_DestroyHist(uint8_t depth, korEx* ex, korPerfHist* hist)
{
    if (hist != nullptr) {
        _korI64Hash_Destroy(KOR_AT_D(depth, ex), hist->buckets);
        _kor_free(KOR_AT_D(depth, ex), hist);
    }
}

void _korPerf_HistUpdate(korEx* ex, uint8_t depth, korPerfHist* hist, int64_t value)
{
    if (ex->code != 0) {
        return;
    }
    hist->count++;
    addToBucket(KOR_AT(ex, depth), hist, value / hist->bucketTicks, 1);
}

bool _korPerf_HistAccumulate(korEx* ex, uint8_t depth, korPerfHist* destination, const korPerfHist* source)
{
    if (ex->code != 0) {
        return false;
    }
    if (destination == source) { // the walk would meet its own changes
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return false;
    }
    destination->count += source->count;
    korI64HashIterator walk;
    int64_t index;
    uint64_t samples;
    bool more;
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), source->buckets, &walk);
    while ((more = _korI64Hash_Next(KOR_AT(ex, depth), &walk, &index, &samples))) {
        addToBucket(KOR_AT(ex, depth), destination, index, samples);
    }
    return more;
}

void _korPerf_PrintHist(korEx* ex, uint8_t depth, const korPerfHist* hist, FILE* stream, bool csv, bool trim)
{
    if (ex->code != 0) {
        return;
    }
    Extent extent = extentOf(KOR_AT(ex, depth), hist);
    Chart chart(stream, hist, extent, trim);
    Row row = {.index = -1, .samples = 0, .total = 0, .upperEdge = 0, .percentage = 0};
    while (row.index < extent.highest) {
        row = rowOf(KOR_AT(ex, depth), hist, row.index + 1, row.total);
        if (csv) {
            printCsvRow(stream, row);
        } else {
            chart.print(row);
        }
    }
}
