// cpu.cpp (Linux) - the scheduler and the processor's own instructions.

#include "platform/cpu.h"

#include <cpuid.h>
#include <sched.h>
#include <unistd.h>
#include <x86intrin.h>

namespace kor::platform {

void yieldThread()
{
    sched_yield();
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
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? static_cast<uint32_t>(count) : 1;
}

} // namespace kor::platform
