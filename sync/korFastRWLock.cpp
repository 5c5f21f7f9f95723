// korFastRWLock.cpp - makes and ends the parts of a fast reader-writer lock.

#include "korutil/korFastRWLock.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

static_assert(offsetof(korFastRWLock, readers) == 56);
static_assert(offsetof(korFastRWLock, firstLock) + offsetof(korFastLock, word) == 56 + 64); // the gap behind `readers`
static_assert(sizeof(korFastRWLock) == 64 + 2 * 184 + 56);

korFastRWLock* _korFastRWLock_Create(korEx* ex, uint8_t depth, uint32_t spinCount)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* lock = kor::request<korFastRWLock>(KOR_AT(ex, depth));
    if (lock == nullptr) {
        return nullptr;
    }
    _korFastRWLock_Init(KOR_AT(ex, depth), lock, spinCount);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), lock);
        return nullptr;
    }
    return lock;
}

void _korFastRWLock_Init(korEx* ex, uint8_t depth, korFastRWLock* lock, uint32_t spinCount)
{
    if (ex->code != 0) {
        return;
    }
    lock->readers = 0;
    _korFastLock_Init(KOR_AT_D(depth, ex), &lock->firstLock, spinCount);
    _korFastLock_Init(KOR_AT_D(depth, ex), &lock->secondLock, spinCount);
    _korFastCondition_Init(KOR_AT_D(depth, ex), &lock->condition);
    if (ex->code != 0) {
        _korFastRWLock_Clear(KOR_AT_D(depth, ex), lock);
    }
}

void _korFastRWLock_Destroy(uint8_t depth, korEx* ex, korFastRWLock* lock)
{
    if (lock != nullptr) {
        _korFastRWLock_Clear(KOR_AT_D(depth, ex), lock);
        _kor_free(KOR_AT_D(depth, ex), lock);
    }
}

void _korFastRWLock_Clear(uint8_t depth, korEx* ex, korFastRWLock* lock)
{
    if (lock != nullptr) {
        _korFastLock_Clear(KOR_AT_D(depth, ex), &lock->firstLock);
        _korFastLock_Clear(KOR_AT_D(depth, ex), &lock->secondLock);
        _korFastCondition_Clear(KOR_AT_D(depth, ex), &lock->condition);
    }
}
