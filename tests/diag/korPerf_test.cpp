// korPerf_test.cpp - statistics against the plain formulas, the engineering notation, histograms and their chart, the
// clocks, and counters with and without hooks.

#include "korutil/korCPU.h"
#include "korutil/korHiResPerf.h"
#include "korutil/korPerf.h"
#include "korutil/korStat.h"
#include "korutil/korStatCounter.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <vector>

using kor::test::KorTest;
using kor::test::Random;
using kor::test::StreamCapture;
using kor::test::sweepFailures;

namespace {

std::string printed(const std::function<void(FILE*)>& print)
{
    StreamCapture capture(StreamCapture::out);
    print(stdout);
    return capture.text();
}

class KorPerf : public KorTest
{
protected:
    ~KorPerf() override { _korPerf_DestroyHist(0, ex, hist); }

    void make(double bucketSeconds, double secondsPerTick)
    {
        _korPerf_DestroyHist(0, ex, hist);
        hist = _korPerf_CreateHist(ex, 0, bucketSeconds, secondsPerTick);
        ASSERT_CLEAN();
    }

    // `samples` samples in the bucket `index`.
    void fill(int64_t index, int samples)
    {
        for (int i = 0; i < samples; i++) {
            _korPerf_HistUpdate(ex, 0, hist, index * hist->bucketTicks);
        }
    }

    std::string chart(bool csv, bool trim)
    {
        return printed([&](FILE* stream) { _korPerf_PrintHist(ex, 0, hist, stream, csv, trim); });
    }

    static std::string bar(const char* edge, const char* percent, size_t stars)
    {
        return std::string(edge) + " (" + percent + "%) " + std::string(stars, '*') + "\n";
    }

    korPerfHist* hist = nullptr;
};

TEST_F(KorPerf, StatisticsMatchThePlainFormulas)
{
    Random random;
    korPerfStat stat = {};
    EXPECT_EQ(_korPerf_StdDeviation(&stat), 0);
    std::vector<double> samples;
    double sum = 0;
    double squares = 0;
    for (int i = 0; i < 5000; i++) {
        auto value = static_cast<int64_t>(random.below(100000)) - 20000;
        sum += static_cast<double>(value);
        samples.push_back(static_cast<double>(value));
        EXPECT_EQ(_korPerf_StatUpdate(&stat, value), samples.size());
    }
    double mean = sum / 5000;
    for (double sample : samples) {
        squares += (sample - mean) * (sample - mean);
    }
    EXPECT_EQ(static_cast<double>(stat.min), *std::min_element(samples.begin(), samples.end()));
    EXPECT_EQ(static_cast<double>(stat.max), *std::max_element(samples.begin(), samples.end()));
    EXPECT_NEAR(stat.mean, mean, 1e-6);
    EXPECT_NEAR(_korPerf_StdDeviation(&stat), std::sqrt(squares / 5000), 1e-6);
}

TEST_F(KorPerf, MergingLeavesOutTheDifferenceOfTheMeans)
{
    korPerfStat low = {};
    korPerfStat high = {};
    korPerfStat merged = {};
    _korPerf_StatAccumulate(&merged, &low);
    EXPECT_EQ(merged.mean, 0) << "nothing and nothing";
    for (int64_t value : {1, 3}) {
        _korPerf_StatUpdate(&low, value);
        _korPerf_StatUpdate(&high, value + 100);
        _korPerf_StatUpdate(&high, value + 100);
    }
    _korPerf_StatAccumulate(&merged, &low);
    _korPerf_StatAccumulate(&merged, &high);
    EXPECT_EQ(merged.min, 1);
    EXPECT_EQ(merged.max, 103);
    EXPECT_NEAR(merged.sumSquares, 6, 1e-9) << "each sample lies 1 from the mean of its own record";
    EXPECT_EQ(printed([&](FILE* stream) { _korPerf_PrintStatForRegressionTest(stream, &merged, 0.5); }),
              "           6, 0.5, 51.5, 34.3333333333, 0.5, 3");
    EXPECT_EQ(printed([&](FILE* stream) { _korPerf_PrintStat(stream, &low, 1e-6); }),
              "min/max/avg/dev:    1.00E-06 /    3.00E-06 /    2.00E-06 /    1.00E-06");
}

TEST_F(KorPerf, EngineeringNotation)
{
    std::string text = printed([](FILE* stream) {
        for (double value : {0.0, -1500.0, 0.00012, 12.5, 1e300}) {
            _korPerf_PrintEng(stream, value);
        }
    });
    EXPECT_EQ(text, "   0.00E+00  -1.50E+03 120.00E-06  12.50E+00  1.00E+300");
}

TEST_F(KorPerf, HistogramsCountAndMergeLikeAMap)
{
    Random random;
    make(7, 1);
    korPerfHist* total = _korPerf_CreateHist(ex, 0, 7, 1);
    std::map<int64_t, uint64_t> model;
    for (int round = 0; round < 2; round++) {
        for (int i = 0; i < 3000; i++) {
            auto value = static_cast<int64_t>(random.below(30000)) - 3000;
            _korPerf_HistUpdate(ex, 0, hist, value);
            model[value / 7] += static_cast<uint64_t>(round == 0 ? 2 : 1); // the first ones are merged twice
        }
        EXPECT_FALSE(_korPerf_HistAccumulate(ex, 0, total, hist));
    }
    EXPECT_EQ(total->count, 9000u);
    EXPECT_EQ(total->buckets->entryCount, model.size());
    for (auto [index, samples] : model) {
        EXPECT_EQ(_korI64Hash_Get(ex, 0, total->buckets, index), samples);
    }
    _korPerf_HistAccumulate(ex, 0, total, total);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    _korPerf_DestroyHist(0, ex, total);
}

TEST_F(KorPerf, ChartAndCsv)
{
    make(1000, 1);
    fill(-2, 1); // counted, and out of the print's reach
    fill(0, 2);
    fill(2, 1);
    EXPECT_EQ(chart(false, false),
              bar("   1.00E+03", "50", 62) + bar("   2.00E+03", "50", 1) + bar("   3.00E+03", "75", 31));
    EXPECT_EQ(chart(true, false), "   1.00E+03, 2, 50\n   3.00E+03, 1, 75\n");
    make(1, 1);
    EXPECT_EQ(chart(false, false), bar("   1.00E+00", "-2147483648", 1)) << "an empty one has one row";
    fill(3, 60);
    fill(15, 39);
    fill(16, 2);
    fill(25, 1);
    std::string text = bar("   4.00E+00", "58", 62);
    for (const char* edge : {"   5", "   6", "   7", "   8", "   9", "  10", "  11", "  12", "  13"}) {
        text += bar((edge + std::string(".00E+00")).c_str(), "58", 1);
    }
    text += "... 10 or more similar rows\n";
    text += bar("  16.00E+00", "97", 40) + bar("  17.00E+00", "99", 3); // 101 of 102 are more than the bulk
    text += "...\n" + bar("  26.00E+00", "100", 2);
    EXPECT_EQ(chart(false, true), text) << "the head, the tail and long runs are trimmed";
}

TEST_F(KorPerf, AFailedRequestLeaksNothing)
{
    sweepFailures(ex, [&] {
        korPerfHist* made = _korPerf_CreateHist(ex, 0, 1, 1);
        for (int64_t value : {5, 5 + 1024, 5 + 2048, 5 + 1024}) {
            if (made != nullptr) {
                _korPerf_HistUpdate(ex, 0, made, value);
            }
        }
        _korPerf_DestroyHist(0, ex, made);
    });
}

TEST_F(KorPerf, ClocksMoveOn)
{
    int64_t before = _korPerf_TimerNow();
    int64_t middle = _korStat_NowFast();
    EXPECT_LE(before, middle);
    EXPECT_LE(middle, _korStat_NowAccurate());
    EXPECT_GT(_korPerf_TimerScale(), 0);
    EXPECT_LT(_korPerf_TimerScale(), 1e-3);
    EXPECT_EQ(_korPerf_TimerResolution(), _korPerf_TimerScale());

    EXPECT_EQ(_korHiResPerf_GetTimerScale(), 0);
    bool calibrated = _korHiResPerf_CalibrateTimer();
    EXPECT_EQ(calibrated, _korCPU_SupportsTSC());
    EXPECT_EQ(_korHiResPerf_GetTimerScale() > 0, calibrated);
    EXPECT_LT(_korHiResPerf_GetTimerScale(), 1e-6);
}

// ---- Counters ----

uint64_t forgottenCounter = 0;

void registerCounter(korEx* ex, uint8_t depth, void* first, void* second, void* third, uint64_t* counter)
{
    for (void* argument : {first, second, third}) {
        *counter = *counter * 10 + *static_cast<uint64_t*>(argument);
    }
    KOR_RAISE(ex, depth, KOR_ERROR_ALREADY_EXISTS, "from the hook");
}

TEST_F(KorPerf, CountersGoToTheHooks)
{
    uint64_t numbers[] = {1, 2, 3};
    uint64_t counter = 9;
    _korStatCounter_Register(ex, 3, numbers, numbers + 1, numbers + 2, &counter);
    EXPECT_EQ(counter, 0u);
    _korStatCounter_Unregister(ex, 3, 5);
    _korStat_RegisterHooks(ex, 0, registerCounter,
                           [](korEx*, uint8_t, uint64_t forgotten) { forgottenCounter = forgotten; });
    _korStatCounter_Register(ex, 3, numbers, numbers + 1, numbers + 2, &counter);
    EXPECT_EQ(counter, 123u);
    EXPECT_RAISED(KOR_ERROR_ALREADY_EXISTS, "from the hook");
    _korStatCounter_Unregister(ex, 3, counter);
    EXPECT_EQ(forgottenCounter, 123u);
    _korStat_RegisterHooks(ex, 0, nullptr, nullptr);
}

} // namespace
