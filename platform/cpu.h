// cpu.h - giving way to others, and questions to the processor.

#pragma once

#include <cstdint>

namespace kor::platform {

void yieldThread(); ///< lets another ready thread run: SwitchToThread, sched_yield

/// The processor's hint that this is a spinning loop.
inline void spinHint()
{
    __builtin_ia32_pause();
}

/// What CPUID answers for a leaf; all zero if the processor does not know the leaf.
struct CpuId {
    uint32_t eax, ebx, ecx, edx;
};
CpuId cpuId(uint32_t leaf);

uint64_t timeStampCounter(); ///< RDTSC
uint32_t activeProcessors(); ///< processors that are on line, of all groups; at least 1

} // namespace kor::platform
