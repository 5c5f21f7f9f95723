// korStat.cpp - the clock for statistics, and where the hooks for named counters are stored.

#include "korutil/korStat.h"
#include "diag/statHooks.h"
#include "korutil/korPerf.h"

int64_t _korStat_NowFast()
{
    return _korPerf_TimerNow();
}

int64_t _korStat_NowAccurate()
{
    return _korPerf_TimerNow();
}

void _korStat_RegisterHooks(korEx*, uint8_t, korStatRegisterHook registerHook, korStatUnregisterHook unregisterHook)
{
    kor::statRegisterHook.store(registerHook);
    kor::statUnregisterHook.store(unregisterHook);
}
