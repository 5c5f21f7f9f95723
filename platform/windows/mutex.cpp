// mutex.cpp (Windows) - the mutex is a critical section.

#include "platform/mutex.h"

#include <windows.h>

namespace kor::platform {

static_assert(sizeof(korMutex) == sizeof(CRITICAL_SECTION) && alignof(korMutex) == alignof(CRITICAL_SECTION));

void mutexInit(korMutex* mutex)
{
    InitializeCriticalSection(reinterpret_cast<CRITICAL_SECTION*>(mutex->section));
}

void mutexClear(korMutex* mutex)
{
    DeleteCriticalSection(reinterpret_cast<CRITICAL_SECTION*>(mutex->section));
}

} // namespace kor::platform
