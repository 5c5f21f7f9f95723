// korHiResPerf.cpp - the scale of the time-stamp counter, measured once and read often.

#include "korutil/korHiResPerf.h"
#include "korutil/korCPU.h"

#include <atomic>

namespace {

constexpr double calibrationSeconds = 0.1;

constinit std::atomic<double> timerScale{0.0};

} // namespace

bool _korHiResPerf_CalibrateTimer()
{
    if (!_korCPU_SupportsTSC()) {
        return false;
    }
    double frequency = _korCPU_TSCFreq(calibrationSeconds);
    if (frequency <= 0.0) {
        return false;
    }
    timerScale.store(1.0 / frequency, std::memory_order_relaxed);
    return true;
}

double _korHiResPerf_GetTimerScale()
{
    return timerScale.load(std::memory_order_relaxed);
}
