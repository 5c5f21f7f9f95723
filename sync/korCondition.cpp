// korCondition.cpp - waits, signals and broadcasts on an auto-reset event, and the time-out of repeated waits.
//
// Waits with and without a limit are one routine, waitOnce; the exported ones differ in how they report its result.

#include "korutil/korCondition.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korTime.h"
#include "platform/error.h"
#include "platform/event.h"

#include <algorithm>
#include <atomic>
#include <cmath>

static_assert(sizeof(korCondition) == 16 && offsetof(korCondition, waiters) == 8);
static_assert(sizeof(korTargetTime) == 24 && offsetof(korTargetTime, remaining) == 16);

namespace kor {
namespace {

constexpr const char* waitText = "Condition wait";

// The caller holds `mutex`. A signal between the leave and the wait stays in the event until a thread takes it. Gives
// what the event's wait gave.
int32_t waitOnce(korCondition* condition, korMutex* mutex, uint32_t timeoutMs)
{
    std::atomic_ref waiters(condition->waiters);
    std::atomic_ref broadcast(condition->broadcast);
    waiters.fetch_add(1);
    uint64_t ticket = platform::eventEnlist(&condition->event);
    korMutex_leave(mutex);
    hostileYield();
    int32_t error = platform::eventWaitEnlisted(&condition->event, ticket, timeoutMs);
    hostileYield();
    korMutex_enter(mutex);
    uint32_t others = waiters.fetch_sub(1) - 1;
    if (broadcast.load() != 0) {
        if (others != 0) {
            platform::eventSet(&condition->event); // one event wakes all of them: each waiter passes it on
        } else {
            broadcast.exchange(0);
        }
    }
    return error;
}

// Keeps the system's number with the error that is about to be raised, not with one that is pending.
void noteOsError(korEx* ex, int32_t error)
{
    if (ex->code == 0) {
        ex->osError = error;
    }
}

} // namespace
} // namespace kor

using namespace kor;

void _korTargetTime_SetRemaining(korTargetTime* target, int64_t timeout)
{
    auto now = static_cast<int64_t>(_kor_GetCurrentMilliseconds());
    if (!target->started) {
        *target = {.started = 1, .startTime = static_cast<double>(now) / 1000, .remaining = timeout};
        return;
    }
    // Whole milliseconds at both ends: however often a wait is repeated, no fraction gets lost.
    int64_t elapsed = now - std::llround(target->startTime * 1000);
    target->startTime = static_cast<double>(now) / 1000;
    if (elapsed > 0) { // not so if the clock was set back
        target->remaining = std::max<int64_t>(target->remaining - elapsed, 0);
    }
}

void _korCondition_Init(uint8_t depth, korEx* ex, korCondition* condition)
{
    if (condition == nullptr) {
        return;
    }
    *condition = {};
    if (!platform::eventCreate(&condition->event)) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
    }
}

void _korCondition_Clear(uint8_t, korEx*, korCondition* condition)
{
    if (condition != nullptr && condition->event != 0) {
        platform::eventClose(&condition->event);
    }
}

korCondition* _korCondition_Create(uint8_t depth, korEx* ex)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* condition = requestZeroed<korCondition>(KOR_AT(ex, depth));
    if (condition == nullptr) {
        return nullptr;
    }
    _korCondition_Init(KOR_AT_D(depth, ex), condition);
    if (ex->code != 0) {
        _korCondition_Destroy(KOR_AT_D(depth, ex), condition);
        return nullptr;
    }
    return condition;
}

void _korCondition_Destroy(uint8_t depth, korEx* ex, korCondition* condition)
{
    if (condition != nullptr) {
        _korCondition_Clear(KOR_AT_D(depth, ex), condition);
        _kor_free(KOR_AT_D(depth, ex), condition);
    }
}

void _korCondition_SignalDebug(uint8_t, korEx*, korCondition* condition)
{
    if (condition != nullptr) {
        platform::eventSet(&condition->event);
    }
}

void _korCondition_Broadcast(uint8_t, korEx*, korCondition* condition)
{
    if (condition != nullptr) {
        std::atomic_ref(condition->broadcast).exchange(1); // before the event: who takes it must find the flag
        hostileYield();
        platform::eventSet(&condition->event);
    }
}

void _korCondition_Wait(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex)
{
    if (condition == nullptr || mutex == nullptr) {
        return;
    }
    int32_t error = waitOnce(condition, mutex, platform::waitForEver);
    if (error != 0) {
        noteOsError(ex, error);
        KOR_RAISE(ex, depth, KOR_ERROR_OS, waitText);
    }
}

bool _korCondition_TimedWait(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex, uint32_t timeout)
{
    if (condition == nullptr || mutex == nullptr) {
        return false;
    }
    int32_t error = waitOnce(condition, mutex, timeout);
    if (error != 0 && error != platform::errorTimedOut) {
        noteOsError(ex, error);
        KOR_RAISE(ex, depth, KOR_ERROR_OS, waitText);
    }
    return error == platform::errorTimedOut;
}

void _korCondition_WaitEx(uint8_t depth, korEx* ex, korCondition* condition, korMutex* mutex, int64_t timeout,
                          korTargetTime* target, uint8_t* timedOut)
{
    if (condition == nullptr || mutex == nullptr) {
        return;
    }
    if (timeout < 0) {
        _korCondition_Wait(KOR_AT_D(depth, ex), condition, mutex);
        return;
    }
    korTargetTime once = {};
    target = target != nullptr ? target : &once; // a wait that is not repeated needs no record
    _korTargetTime_SetRemaining(target, timeout);
    int64_t longest = platform::waitForEver - 1; // 49 days; one more would be no limit at all
    int64_t left = std::clamp<int64_t>(target->remaining, 0, longest);
    int32_t error = waitOnce(condition, mutex, static_cast<uint32_t>(left));
    if (error == platform::errorTimedOut && timedOut != nullptr) {
        *timedOut = 1;
    } else if (error != 0) {
        noteOsError(ex, error);
        KOR_RAISE(ex, depth, KOR_ERROR_OS, waitText);
    }
}
