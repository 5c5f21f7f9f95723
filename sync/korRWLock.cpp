// korRWLock.cpp - the reader-writer lock as an object; the lock itself is the platform's.

#include "korutil/korRWLock.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "platform/rwlock.h"

korRWLock* _korRWLock_Create(uint8_t depth, korEx* ex)
{
    auto* lock = kor::requestZeroed<korRWLock>(KOR_AT(ex, depth));
    if (lock == nullptr) {
        return nullptr;
    }
    int32_t error = kor::platform::rwlockInit(&lock->word);
    if (error != 0) {
        ex->osError = error;
        KOR_RAISE(ex, depth, KOR_ERROR_OS, nullptr);
        _kor_free(KOR_AT_D(depth, ex), lock);
        return nullptr;
    }
    return lock;
}

void _korRWLock_Destroy(uint8_t depth, korEx* ex, korRWLock* lock)
{
    if (lock != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), lock);
    }
}

void _korRWLock_ReadLock(uint8_t, korEx*, korRWLock* lock)
{
    if (lock != nullptr) {
        kor::platform::readLock(&lock->word);
    }
}

void _korRWLock_WriteLock(uint8_t, korEx*, korRWLock* lock)
{
    if (lock != nullptr) {
        kor::platform::writeLock(&lock->word);
    }
}

void _korRWLock_UnlockReadLock(uint8_t, korEx*, korRWLock* lock)
{
    if (lock != nullptr) {
        kor::platform::readUnlock(&lock->word);
    }
}

void _korRWLock_UnlockWriteLock(uint8_t, korEx*, korRWLock* lock)
{
    if (lock != nullptr) {
        kor::platform::writeUnlock(&lock->word);
    }
}
