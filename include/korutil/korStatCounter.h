// korStatCounter.h - named counters, which a product above keeps; without its hooks (_korStat_RegisterHooks) there are
// none.

#ifndef KORUTIL_KORSTATCOUNTER_H
#define KORUTIL_KORSTATCOUNTER_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Passes everything to the register hook, which fills `counter` and raises what it raises. Without a hook `counter`
/// becomes 0.
KOR_API void _korStatCounter_Register(korEx* ex, uint8_t depth, void* first, void* second, void* third,
                                      uint64_t* counter);

/// Passes everything to the unregister hook. Without a hook it does nothing.
KOR_API void _korStatCounter_Unregister(korEx* ex, uint8_t depth, uint64_t counter);

KOR_END_DECLS

#endif
