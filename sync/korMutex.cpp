// korMutex.cpp - mutexes as objects; what is done with them stands in line in the header.

#include "korutil/korMutex.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korProcess.h"
#include "platform/mutex.h"

#include <cstdio>
#include <cstring>

using namespace kor;

void _korMutex_Init(korEx*, uint8_t, korMutex* mutex)
{
    platform::mutexInit(mutex);
}

void _korMutex_Clear(korEx*, uint8_t, korMutex* mutex)
{
    platform::mutexClear(mutex);
}

korMutex* _korMutex_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* mutex = requestZeroed<korMutex>(KOR_AT(ex, depth));
    if (mutex == nullptr) {
        return nullptr;
    }
    _korMutex_Init(KOR_AT(ex, depth), mutex);
    return mutex;
}

void _korMutex_Destroy(uint8_t depth, korEx* ex, korMutex* mutex)
{
    if (mutex != nullptr) {
        _korMutex_Clear(KOR_AT(ex, depth), mutex);
        _kor_free(KOR_AT_D(depth, ex), mutex);
    }
}

void _korMutex_Open(korEx* ex, uint8_t)
{
    if (ex->code != 0) {
        return;
    }
    const char* settings = _kor_getenv("KOR_EXEC_CONF");
    if (settings != nullptr && (strstr(settings, "warnOnTaskDur=") || strstr(settings, "warnOnLockHeldDur="))) {
        std::printf("Found settings for Thread contention, but not compiled for it\n");
    }
}
