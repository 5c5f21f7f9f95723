// korCPU_test.cpp - the processor's answers beside the compiler's and the system's own; the measured rate; the neutral
// answers of the cores, which the thread start stores, and the one real one.

#include "korutil/korAffinity.h"
#include "korutil/korCPU.h"
#include "support/korTest.h"

#include <chrono>
#include <thread>
#include <x86intrin.h>

using KorCPU = kor::test::KorTest;

TEST_F(KorCPU, TheCounterTicksAtTheRateThatAnotherClockShows)
{
    EXPECT_TRUE(_korCPU_SupportsDCAS()); // every 64-bit system of today demands it
    if (!_korCPU_SupportsTSC()) {
        GTEST_SKIP() << "no steady time-stamp counter here";
    }
    auto start = std::chrono::steady_clock::now();
    uint64_t startTicks = __rdtsc();
    double measured = _korCPU_TSCFreq(0.05);
    auto ticks = static_cast<double>(__rdtsc() - startTicks);
    std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    EXPECT_NEAR(measured * passed.count() / ticks, 1.0, 0.1);
}

TEST_F(KorCPU, CoresAreThoseOfTheMachineAndAllElseIsNeutral)
{
    EXPECT_GE(_korAffinity_CoreCount(), std::max(1u, std::thread::hardware_concurrency()));
    _korAffinity_Open(ex, 0);
    _korAffinity_Begin(ex, 0);
    _korAffinity_SetSharedCoresMinSetSize(ex, 0, 4);
    _korAffinity_AddCore(ex, 0, 2);
    EXPECT_EQ(_korAffinity_CoreSetSize() + _korAffinity_executorSize(), 2u);
    EXPECT_EQ(_korAffinity_MigrateThisThread(ex, 0), -1);
    EXPECT_EQ(_korAffinity_SetCurrentCoreByName(ex, 0, "main"), 0);
    EXPECT_TRUE(_korAffinity_IsCoreAvailable(ex, 0, 2));
    _korAffinity_ReturnCore();
    _korAffinity_Close(0, ex);
    EXPECT_CLEAN();
}
