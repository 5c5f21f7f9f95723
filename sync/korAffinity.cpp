// korAffinity.cpp - the neutral affinity: threads stay where the system puts them.

#include "korutil/korAffinity.h"

#include "platform/cpu.h"

uint32_t _korAffinity_CoreCount()
{
    return kor::platform::activeProcessors();
}

void _korAffinity_Open(korEx*, uint8_t) {}

void _korAffinity_Close(uint8_t, korEx*) {}

void _korAffinity_Begin(korEx*, uint8_t) {}

void _korAffinity_SetSharedCoresMinSetSize(korEx*, uint8_t, uint32_t) {}

void _korAffinity_AddCore(korEx*, uint8_t, uint32_t) {}

uint32_t _korAffinity_CoreSetSize()
{
    return 1;
}

uint32_t _korAffinity_executorSize()
{
    return 1;
}

int64_t _korAffinity_MigrateThisThread(korEx*, uint8_t)
{
    return -1;
}

void _korAffinity_ReturnCore() {}

int32_t _korAffinity_SetCurrentCoreByName(korEx*, uint8_t, const char*)
{
    return 0;
}

bool _korAffinity_IsCoreAvailable(korEx*, uint8_t, uint32_t)
{
    return true;
}
