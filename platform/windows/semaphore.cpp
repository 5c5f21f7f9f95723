// semaphore.cpp (Windows) - the system's semaphores, with a maximum of 1.

#include "platform/semaphore.h"

#include "platform/error.h"

#include <windows.h>

namespace kor::platform {
namespace {

HANDLE handleOf(const Semaphore* semaphore)
{
    return reinterpret_cast<HANDLE>(semaphore->handle);
}

} // namespace

bool openSemaphore(Semaphore* semaphore, const char* name)
{
    HANDLE handle = CreateSemaphoreA(nullptr, 0, 1, name);
    semaphore->handle = reinterpret_cast<uint64_t>(handle);
    return handle != nullptr;
}

int32_t waitSemaphore(Semaphore* semaphore, uint32_t timeoutMs)
{
    DWORD result = WaitForSingleObject(handleOf(semaphore), timeoutMs);
    return result == WAIT_FAILED ? lastSystemError() : static_cast<int32_t>(result); // WAIT_OBJECT_0 is 0
}

void releaseSemaphore(Semaphore* semaphore)
{
    ReleaseSemaphore(handleOf(semaphore), 1, nullptr); // refused at the maximum, which is what is wanted
}

void closeSemaphore(Semaphore* semaphore, const char*)
{
    CloseHandle(handleOf(semaphore));
}

} // namespace kor::platform
