// statHooks.h - the hooks for named counters: korStat.cpp stores them, korStatCounter.cpp calls them.

#pragma once

#include "korutil/korStat.h"

#include <atomic>

namespace kor {

inline constinit std::atomic<korStatRegisterHook> statRegisterHook{nullptr};
inline constinit std::atomic<korStatUnregisterHook> statUnregisterHook{nullptr};

} // namespace kor
