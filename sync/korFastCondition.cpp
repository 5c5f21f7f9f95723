// korFastCondition.cpp - a condition for a fast lock: its own mutex is held from before the lock is released until the
// waiter is counted, and a signal needs that mutex.

#include "korutil/korFastCondition.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "platform/event.h"

static_assert(sizeof(korFastCondition) == 56 && offsetof(korFastCondition, condition) == 40);

namespace kor {
namespace {

// In this order: a thread that takes the lock in between cannot signal before the wait has begun.
void beginWait(korFastCondition* condition, korFastLock* lock)
{
    korMutex_enter(&condition->mutex);
    korFastLock_release(lock);
    hostileYield();
}

// In this order: a thread that waits for the lock must not keep others from signalling.
void endWait(korFastCondition* condition, korFastLock* lock)
{
    korMutex_leave(&condition->mutex);
    hostileYield();
    korFastLock_acquire(lock);
}

} // namespace
} // namespace kor

using namespace kor;

void _korFastCondition_Init(uint8_t depth, korEx* ex, korFastCondition* condition)
{
    if (condition != nullptr) {
        _korMutex_Init(KOR_AT(ex, depth), &condition->mutex);
        _korCondition_Init(KOR_AT_D(depth, ex), &condition->condition);
    }
}

void _korFastCondition_Clear(uint8_t depth, korEx* ex, korFastCondition* condition)
{
    if (condition != nullptr) {
        _korMutex_Clear(KOR_AT(ex, depth), &condition->mutex);
        _korCondition_Clear(KOR_AT_D(depth, ex), &condition->condition);
    }
}

korFastCondition* _korFastCondition_Create(uint8_t depth, korEx* ex)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* condition = requestZeroed<korFastCondition>(KOR_AT(ex, depth));
    if (condition == nullptr) {
        return nullptr;
    }
    _korFastCondition_Init(KOR_AT_D(depth, ex), condition);
    if (ex->code != 0) {
        _korFastCondition_Destroy(KOR_AT_D(depth, ex), condition);
        return nullptr;
    }
    return condition;
}

void _korFastCondition_Destroy(uint8_t depth, korEx* ex, korFastCondition* condition)
{
    if (condition != nullptr) {
        _korFastCondition_Clear(KOR_AT_D(depth, ex), condition);
        _kor_free(KOR_AT_D(depth, ex), condition);
    }
}

void _korFastCondition_Wait(uint8_t depth, korEx* ex, korFastCondition* condition, korFastLock* lock)
{
    if (condition == nullptr || lock == nullptr) {
        return;
    }
    beginWait(condition, lock);
    _korCondition_Wait(KOR_AT_D(depth, ex), &condition->condition, &condition->mutex);
    endWait(condition, lock);
}

void _korFastCondition_WaitEx(uint8_t depth, korEx* ex, korFastCondition* condition, korFastLock* lock, int64_t timeout,
                              korTargetTime* target, uint8_t* timedOut)
{
    if (condition == nullptr || lock == nullptr) {
        return;
    }
    beginWait(condition, lock);
    _korCondition_WaitEx(KOR_AT_D(depth, ex), &condition->condition, &condition->mutex, timeout, target, timedOut);
    endWait(condition, lock);
}

void _korFastCondition_Signal(uint8_t depth, korEx* ex, korFastCondition* condition)
{
    if (condition == nullptr) {
        return;
    }
    korMutex_enter(&condition->mutex);
    bool set = platform::eventSet(&condition->condition.event);
    korMutex_leave(&condition->mutex);
    if (!set) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
}

void _korFastCondition_Broadcast(uint8_t depth, korEx* ex, korFastCondition* condition)
{
    if (condition == nullptr) {
        return;
    }
    korMutex_enter(&condition->mutex);
    _korCondition_Broadcast(KOR_AT_D(depth, ex), &condition->condition);
    korMutex_leave(&condition->mutex);
}
