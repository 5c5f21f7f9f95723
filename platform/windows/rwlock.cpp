// rwlock.cpp (Windows) - the system's slim lock, which is a pointer-sized word.

#include "platform/rwlock.h"

#include <windows.h>

namespace kor::platform {
namespace {

static_assert(sizeof(SRWLOCK) == sizeof(uint64_t));

SRWLOCK* slim(uint64_t* word)
{
    return reinterpret_cast<SRWLOCK*>(word);
}

} // namespace

int32_t rwlockInit(uint64_t* word)
{
    SetLastError(0); // the call itself reports nothing
    InitializeSRWLock(slim(word));
    return static_cast<int32_t>(GetLastError());
}

void readLock(uint64_t* word)
{
    AcquireSRWLockShared(slim(word));
}

void readUnlock(uint64_t* word)
{
    ReleaseSRWLockShared(slim(word));
}

void writeLock(uint64_t* word)
{
    AcquireSRWLockExclusive(slim(word));
}

void writeUnlock(uint64_t* word)
{
    ReleaseSRWLockExclusive(slim(word));
}

} // namespace kor::platform
