// korCPU.cpp - what the processor can do, from its CPUID leaves, and the rate of its time-stamp counter.

#include "korutil/korCPU.h"

#include "korutil/korTime.h"
#include "platform/clock.h"
#include "platform/cpu.h"

namespace {

constexpr uint32_t bit(int number)
{
    return uint32_t{1} << number;
}

// Both counters, always read in this order, so that the time between the two reads cancels out.
struct Counters {
    uint64_t performance;
    uint64_t timeStamp;
};

Counters readCounters()
{
    uint64_t performance = kor::platform::performanceCounter();
    return {performance, kor::platform::timeStampCounter()};
}

int64_t wholeMilliseconds(double seconds)
{
    constexpr double longest = 0x7FFFFFFF;
    double milliseconds = seconds * 1000;
    if (!(milliseconds > 0)) { // not a number, too
        return 0;
    }
    return static_cast<int64_t>(milliseconds < longest ? milliseconds : longest);
}

} // namespace

bool _korCPU_SupportsTSC()
{
    bool readInOrder = (kor::platform::cpuId(0x80000001).edx & bit(27)) != 0;
    bool invariant = (kor::platform::cpuId(0x80000007).edx & bit(8)) != 0;
    return readInOrder && invariant;
}

double _korCPU_TSCFreq(double seconds)
{
    Counters before = readCounters();
    _kor_Sleep(wholeMilliseconds(seconds));
    Counters after = readCounters();
    uint64_t passed = after.performance - before.performance;
    if (passed == 0) {
        return 0;
    }
    double tick = 1.0 / static_cast<double>(kor::platform::performanceFrequency());
    return static_cast<double>(after.timeStamp - before.timeStamp) / (tick * static_cast<double>(passed));
}

bool _korCPU_SupportsDCAS()
{
    return (kor::platform::cpuId(1).ecx & bit(13)) != 0;
}
