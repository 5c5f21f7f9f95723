// cpu.cpp (Windows) - the scheduler and the processor's own instructions.

#include "platform/cpu.h"

#include <cpuid.h>
#include <windows.h>
#include <x86intrin.h>

namespace kor::platform {

void yieldThread()
{
    SwitchToThread();
}

CpuId cpuId(uint32_t leaf)
{
    CpuId answer = {};
    __get_cpuid(leaf, &answer.eax, &answer.ebx, &answer.ecx, &answer.edx);
    return answer;
}

uint64_t timeStampCounter()
{
    return __rdtsc();
}

uint32_t activeProcessors()
{
    DWORD count = GetActiveProcessorCount(ALL_PROCESSOR_GROUPS);
    return count > 0 ? count : 1;
}

} // namespace kor::platform
