// korStat.h - the clock under the names that statistics use, and the hooks by which a product above takes over the
// registration of named counters (korStatCounter.h).

#ifndef KORUTIL_KORSTAT_H
#define KORUTIL_KORSTAT_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Registers a counter. What the three arguments mean is between the product and its callers; `counter` receives what
/// names the counter from then on, never 0.
typedef void (*korStatRegisterHook)(korEx* ex, uint8_t depth, void* first, void* second, void* third,
                                    uint64_t* counter);

/// Forgets a counter.
typedef void (*korStatUnregisterHook)(korEx* ex, uint8_t depth, uint64_t counter);

/// The same as _korPerf_TimerNow. Any thread.
KOR_API int64_t _korStat_NowFast(void);
/// The same as _korPerf_TimerNow. Any thread.
KOR_API int64_t _korStat_NowAccurate(void);

/// Stores the two hooks, either of which may be NULL. `ex` and `depth` are not looked at.
KOR_API void _korStat_RegisterHooks(korEx* ex, uint8_t depth, korStatRegisterHook registerHook,
                                    korStatUnregisterHook unregisterHook);

KOR_END_DECLS

#endif
