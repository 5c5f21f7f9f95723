// korAffinity.h - the interface through which threads would be placed on cores. It is neutral: no thread is ever bound,
// and the answers are those of one set of one core. The thread start is written against it. Any thread; nothing raises.

#ifndef KORUTIL_KORAFFINITY_H
#define KORUTIL_KORAFFINITY_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// The processors that are on line; at least 1. The one question here with a real answer.
KOR_API uint32_t _korAffinity_CoreCount(void);

/// Does nothing.
KOR_API void _korAffinity_Open(korEx* ex, uint8_t depth);
/// Does nothing.
KOR_API void _korAffinity_Close(uint8_t depth, korEx* ex);

/// Does nothing.
KOR_API void _korAffinity_Begin(korEx* ex, uint8_t depth);
/// Does nothing.
KOR_API void _korAffinity_SetSharedCoresMinSetSize(korEx* ex, uint8_t depth, uint32_t size);
/// Does nothing.
KOR_API void _korAffinity_AddCore(korEx* ex, uint8_t depth, uint32_t core);

/// The size of a core set: 1.
KOR_API uint32_t _korAffinity_CoreSetSize(void);
/// The number of executor cores: 1.
KOR_API uint32_t _korAffinity_executorSize(void);

/// The core that the calling thread was moved to: -1, none.
KOR_API int64_t _korAffinity_MigrateThisThread(korEx* ex, uint8_t depth);
/// Does nothing.
KOR_API void _korAffinity_ReturnCore(void);

/// Binds the calling thread to a named core: 0, nothing done.
KOR_API int32_t _korAffinity_SetCurrentCoreByName(korEx* ex, uint8_t depth, const char* name);
/// True: no core is ever taken.
KOR_API bool _korAffinity_IsCoreAvailable(korEx* ex, uint8_t depth, uint32_t core);

KOR_END_DECLS

#endif
