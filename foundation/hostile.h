// hostile.h - the hostile build: structures check themselves, sizes shrink, contended paths give way at every step.
//
// In every other build all of this is nothing.

#pragma once

#include "korutil/korBase.h"

#ifdef KOR_HOSTILE
#include "platform/cpu.h"

#include <cstdio>
#include <cstdlib>
#endif

namespace kor {

#ifdef KOR_HOSTILE
inline constexpr bool hostile = true;

/// Gives another thread the chance to step in between two steps of a contended path.
inline void hostileYield()
{
    platform::yieldThread();
}

[[noreturn]] inline void hostileFail(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "korutil: broken invariant: %s (%s:%d)\n", what, file, line);
    std::abort();
}
#define KOR_INVARIANT(condition) ((condition) ? (void)0 : ::kor::hostileFail(#condition, __FILE__, __LINE__))
#else
inline constexpr bool hostile = false;
inline void hostileYield() {}
#define KOR_INVARIANT(condition) ((void)0)
#endif

} // namespace kor
