// korCPU_test.cpp - the processor's answers beside the compiler's and the system's own; the measured rate.

#include "korutil/korCPU.h"

#include "support/korTest.h"

#include <chrono>
#include <cmath>
#include <x86intrin.h>

namespace {

TEST(korCPU, TheWideCompareAndSwapIsThere)
{
    EXPECT_TRUE(_korCPU_SupportsDCAS()); // every 64-bit system of today demands it
}

TEST(korCPU, TheCounterTicksAtTheRateThatAnotherClockShows)
{
    if (!_korCPU_SupportsTSC()) {
        GTEST_SKIP() << "no steady time-stamp counter here";
    }
    auto start = std::chrono::steady_clock::now();
    uint64_t startTicks = __rdtsc();
    double measured = _korCPU_TSCFreq(0.05);
    uint64_t ticks = __rdtsc() - startTicks;
    std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    double wanted = static_cast<double>(ticks) / passed.count();
    EXPECT_NEAR(measured / wanted, 1.0, 0.1);
}

TEST(korCPU, NoTimeGivesNoNonsense)
{
    for (double seconds : {0.0, -1.0, std::nan("")}) {
        double frequency = _korCPU_TSCFreq(seconds);
        EXPECT_TRUE(std::isfinite(frequency) && frequency >= 0) << seconds;
    }
}

} // namespace
