// event.cpp (Windows) - the system's auto-reset event; the field holds its handle.

#include "platform/event.h"
#include "platform/error.h"

#include <windows.h>

namespace kor::platform {
namespace {

static_assert(waitForEver == INFINITE);

HANDLE handleOf(const uint64_t* event)
{
    return reinterpret_cast<HANDLE>(*event);
}

} // namespace

bool eventCreate(uint64_t* event)
{
    *event = reinterpret_cast<uint64_t>(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    return *event != 0;
}

void eventClose(uint64_t* event)
{
    CloseHandle(handleOf(event));
    *event = 0;
}

bool eventSet(uint64_t* event)
{
    return SetEvent(handleOf(event)) != FALSE;
}

bool eventReset(uint64_t* event)
{
    return ResetEvent(handleOf(event)) != FALSE;
}

int32_t eventWait(uint64_t* event, uint32_t timeoutMs)
{
    DWORD result = WaitForSingleObject(handleOf(event), timeoutMs);
    if (result == WAIT_OBJECT_0) {
        return 0;
    }
    return result == WAIT_TIMEOUT ? errorTimedOut : lastSystemError();
}

uint64_t eventEnlist(uint64_t*)
{
    return 0;
}

int32_t eventWaitEnlisted(uint64_t* event, uint64_t, uint32_t timeoutMs)
{
    return eventWait(event, timeoutMs);
}

} // namespace kor::platform
