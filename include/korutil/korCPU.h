// korCPU.h - questions to the processor: its time-stamp counter and its wide compare-and-swap. No korEx, any thread.

#ifndef KORUTIL_KORCPU_H
#define KORUTIL_KORCPU_H

#include "korutil/korBase.h"

KOR_BEGIN_DECLS

/// True if the time-stamp counter can serve as a clock: it can be read in order (RDTSCP), and it ticks at one rate
/// whatever the processor's speed.
KOR_API bool _korCPU_SupportsTSC(void);

/// Measures the ticks of the time-stamp counter in a second, against the system's finest counter. Sleeps for `seconds`,
/// in whole milliseconds; the longer, the better the answer. 0 if there is no such counter, or if no time passed.
KOR_API double _korCPU_TSCFreq(double seconds);

/// True if the processor has a compare-and-swap of 16 bytes (CMPXCHG16B).
KOR_API bool _korCPU_SupportsDCAS(void);

KOR_END_DECLS

#endif
