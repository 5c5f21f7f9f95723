// korHiResPerf.h - the scale of the processor's time-stamp counter, for callers that read the counter themselves.
//
// Any thread.

#ifndef KORUTIL_KORHIRESPERF_H
#define KORUTIL_KORHIRESPERF_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// Measures the seconds in a tick of the time-stamp counter and stores them; sleeps for a tenth of a second meanwhile.
/// False, with nothing stored, if the processor's counter can not serve as a clock (_korCPU_SupportsTSC).
KOR_API bool _korHiResPerf_CalibrateTimer(void);

/// The stored scale; 0 before the first calibration.
KOR_API double _korHiResPerf_GetTimerScale(void);

KOR_END_DECLS

#endif
