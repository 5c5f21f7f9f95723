// korSemaphore.cpp - binary semaphores as objects; counting and waiting are the platform's.

#include "korutil/korSemaphore.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "platform/error.h"
#include "platform/event.h"
#include "platform/semaphore.h"

#include <algorithm>

using kor::platform::waitForEver;

namespace kor {
namespace {

// What lies behind a korSemaphore.
struct SemaphoreObject {
    korSemaphore record;
    platform::Semaphore state;
};

SemaphoreObject* objectOf(korSemaphore* semaphore)
{
    return reinterpret_cast<SemaphoreObject*>(semaphore);
}

// The rest of a create, once the object has its name, or none. On a failure the object is freed.
korSemaphore* openSemaphore(korEx* ex, uint8_t depth, SemaphoreObject* object)
{
    korSemaphore* record = &object->record;
    if (!platform::openSemaphore(&object->state, record->name)) {
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
        _kor_free(KOR_AT_D(depth, ex), record->name);
        _kor_free(KOR_AT_D(depth, ex), object);
        return nullptr;
    }
    record->handle = object->state.handle;
    record->unnamed = record->name == nullptr;
    return record;
}

// True if there is a semaphore to wait for.
bool mayWait(korEx* ex, uint8_t depth, const korSemaphore* semaphore)
{
    if (ex->code == 0 && semaphore == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "semaphore is missing");
    }
    return ex->code == 0;
}

} // namespace
} // namespace kor

void _korSemaphore_Create(korEx* ex, uint8_t depth, const char* name, korSemaphore** semaphore)
{
    if (ex->code != 0) {
        return;
    }
    if (name == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "semaphore name is missing");
        return;
    }
    auto* object = kor::requestZeroed<kor::SemaphoreObject>(KOR_AT(ex, depth));
    if (object == nullptr) {
        return;
    }
    object->record.name = kor::requestCopy(KOR_AT(ex, depth), name);
    if (object->record.name == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), object);
        return;
    }
    if (korSemaphore* created = kor::openSemaphore(KOR_AT(ex, depth), object)) {
        *semaphore = created;
    }
}

korSemaphore* _korSemaphore_CreateUnnamed(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* object = kor::requestZeroed<kor::SemaphoreObject>(KOR_AT(ex, depth));
    return object == nullptr ? nullptr : kor::openSemaphore(KOR_AT(ex, depth), object);
}

void _korSemaphore_WaitOn(korEx* ex, uint8_t depth, korSemaphore* semaphore)
{
    if (!kor::mayWait(KOR_AT(ex, depth), semaphore)) {
        return;
    }
    int32_t error = kor::platform::waitSemaphore(&kor::objectOf(semaphore)->state, waitForEver);
    if (error != 0) {
        ex->osError = error;
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
    }
}

void _korSemaphore_TimedWait(korEx* ex, uint8_t depth, korSemaphore* semaphore, int64_t timeout, korTargetTime* target,
                             uint8_t* timedOut)
{
    if (timeout < 0) {
        _korSemaphore_WaitOn(KOR_AT(ex, depth), semaphore);
        return;
    }
    if (!kor::mayWait(KOR_AT(ex, depth), semaphore)) {
        return;
    }
    korTargetTime once = {};
    target = target != nullptr ? target : &once; // a wait that is not repeated needs no record
    _korTargetTime_SetRemaining(target, timeout);
    auto limit = static_cast<uint32_t>(std::clamp<int64_t>(target->remaining, 0, int64_t{waitForEver} - 1));
    int32_t error = kor::platform::waitSemaphore(&kor::objectOf(semaphore)->state, limit);
    if (error == kor::platform::errorTimedOut) {
        if (timedOut != nullptr) {
            *timedOut = 1;
        }
    } else if (error != 0) {
        ex->osError = error;
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "semaphore wait");
    }
}

void _korSemaphore_Release(uint8_t, korEx*, korSemaphore* semaphore)
{
    if (semaphore != nullptr) {
        kor::platform::releaseSemaphore(&kor::objectOf(semaphore)->state);
    }
}

void _korSemaphore_ReleaseEx(uint8_t depth, korEx* ex, korSemaphore* semaphore)
{
    _korSemaphore_Release(KOR_AT_D(depth, ex), semaphore);
}

void _korSemaphore_Destroy(uint8_t depth, korEx* ex, korSemaphore* semaphore)
{
    if (semaphore != nullptr) {
        kor::platform::closeSemaphore(&kor::objectOf(semaphore)->state, semaphore->name);
        _kor_free(KOR_AT_D(depth, ex), semaphore->name);
        _kor_free(KOR_AT_D(depth, ex), semaphore);
    }
}
