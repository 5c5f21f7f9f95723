// mutex.cpp (Linux) - a free mutex is all zero and owns nothing.

#include "platform/mutex.h"

namespace kor::platform {

static_assert(sizeof(korMutex) == 40 && offsetof(korMutex, owner) == 8);

void mutexInit(korMutex* mutex)
{
    *mutex = {};
}

void mutexClear(korMutex*) {}

} // namespace kor::platform
