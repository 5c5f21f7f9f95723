// korStatCounter.cpp - named counters, handed to the hooks of a product above.

#include "korutil/korStatCounter.h"
#include "diag/statHooks.h"

void _korStatCounter_Register(korEx* ex, uint8_t depth, void* first, void* second, void* third, uint64_t* counter)
{
    korStatRegisterHook hook = kor::statRegisterHook.load();
    if (hook == nullptr) {
        *counter = 0;
        return;
    }
    return hook(KOR_AT(ex, depth), first, second, third, counter);
}

void _korStatCounter_Unregister(korEx* ex, uint8_t depth, uint64_t counter)
{
    korStatUnregisterHook hook = kor::statUnregisterHook.load();
    if (hook != nullptr) {
        return hook(KOR_AT(ex, depth), counter);
    }
}
