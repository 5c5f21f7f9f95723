// korCountCondition.cpp - a counter that only goes up, under a mutex, with a broadcast at each step.

#include "korutil/korCountCondition.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

static_assert(sizeof(korCountCondition) == 64 && offsetof(korCountCondition, mutex) == 24);

void _korCountCondition_Init(korEx* ex, uint8_t depth, korCountCondition* counter)
{
    if (ex->code != 0) {
        return;
    }
    counter->count = 0;
    _korCondition_Init(KOR_AT_D(depth, ex), &counter->condition);
    _korMutex_Init(KOR_AT(ex, depth), &counter->mutex);
}

korCountCondition* _korCountCondition_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* counter = kor::requestZeroed<korCountCondition>(KOR_AT(ex, depth));
    if (counter == nullptr) {
        return nullptr;
    }
    _korCountCondition_Init(KOR_AT(ex, depth), counter);
    if (ex->code != 0) {
        _korCountCondition_Destroy(KOR_AT_D(depth, ex), counter);
        return nullptr;
    }
    return counter;
}

void _korCountCondition_Destroy(uint8_t depth, korEx* ex, korCountCondition* counter)
{
    if (counter != nullptr) {
        _korCondition_Clear(KOR_AT_D(depth, ex), &counter->condition);
        _korMutex_Clear(KOR_AT(ex, depth), &counter->mutex);
        _kor_free(KOR_AT_D(depth, ex), counter);
    }
}

void _korCountCondition_Signal(uint8_t depth, korEx* ex, korCountCondition* counter)
{
    if (counter == nullptr) {
        return;
    }
    korMutex_enter(&counter->mutex);
    counter->count++;
    _korCondition_Broadcast(KOR_AT_D(depth, ex), &counter->condition);
    korMutex_leave(&counter->mutex);
}

void _korCountCondition_Wait(uint8_t depth, korEx* ex, korCountCondition* counter, int64_t target)
{
    if (counter == nullptr) {
        return;
    }
    KOR_EX_CHAINED(local, ex, depth); // clean even if the caller's is not, so that a failing wait ends the loop
    korMutex_enter(&counter->mutex);
    while (counter->count < target && local.code == 0) {
        _korCondition_Wait(KOR_AT_D(depth, &local), &counter->condition, &counter->mutex);
    }
    korMutex_leave(&counter->mutex);
}
