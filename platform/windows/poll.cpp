// poll.cpp (Windows) - the system's events, its wait for any of 64 objects, and its poll over an array of sockets.

#include "platform/poll.h"

#include "platform/error.h"

#include <cstddef>
#include <winsock2.h>

#include <windows.h>

namespace kor::platform {
namespace {

static_assert(maxWaitHandles == MAXIMUM_WAIT_OBJECTS);
static_assert(sizeof(HANDLE) == sizeof(int64_t));
static_assert(sizeof(PollSlot) == sizeof(WSAPOLLFD) && offsetof(PollSlot, returned) == offsetof(WSAPOLLFD, revents));
static_assert(KOR_POLLFD_HUNG_UP == POLLHUP && KOR_POLLFD_WRITE == POLLWRNORM && KOR_POLLFD_READ == POLLRDNORM);

HANDLE handleOf(int64_t handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

// What an interest asks the system to tell.
long networkMask(uint32_t interest)
{
    long mask = interest != 0 ? FD_CLOSE : 0;
    mask |= (interest & interestRead) != 0 ? FD_READ | FD_ACCEPT : 0;
    mask |= (interest & interestWrite) != 0 ? FD_WRITE : 0;
    return mask;
}

} // namespace

const int32_t errorInvalidHandle = ERROR_INVALID_HANDLE;

bool interruptOpen(int64_t* handle)
{
    *handle = reinterpret_cast<int64_t>(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    return *handle != 0;
}

void interruptClose(int64_t handle)
{
    CloseHandle(handleOf(handle));
}

void interruptSet(int64_t handle)
{
    SetEvent(handleOf(handle));
}

void interruptReset(int64_t handle)
{
    ResetEvent(handleOf(handle));
}

const bool hasWakeCounter = false;

bool wakeCounterOpen(int64_t*)
{
    return false;
}

int32_t waitForAny(const int64_t* handles, uint32_t count, int32_t timeoutMs, WaitView*)
{
    auto* objects = reinterpret_cast<const HANDLE*>(handles);
    DWORD result = WaitForMultipleObjects(count, objects, FALSE, static_cast<DWORD>(timeoutMs));
    if (result == WAIT_FAILED) {
        return waitFailed;
    }
    return result == WAIT_TIMEOUT ? waitTimedOut : static_cast<int32_t>(result - WAIT_OBJECT_0);
}

bool networkHandleOpen(int64_t socket, uint32_t interest, int64_t* handle)
{
    WSAEVENT event = WSACreateEvent();
    if (event == WSA_INVALID_EVENT) {
        return false;
    }
    if (WSAEventSelect(static_cast<SOCKET>(socket), event, networkMask(interest)) != 0) {
        int32_t error = WSAGetLastError();
        WSACloseEvent(event);
        setLastSystemError(error);
        return false;
    }
    *handle = reinterpret_cast<int64_t>(event);
    return true;
}

void networkHandleClose(int64_t handle)
{
    WSACloseEvent(handleOf(handle));
}

uint32_t networkEvents(int64_t handle, int64_t socket, const WaitView*, uint32_t)
{
    WSANETWORKEVENTS seen;
    if (WaitForSingleObject(handleOf(handle), 0) != WAIT_OBJECT_0 ||
        WSAEnumNetworkEvents(static_cast<SOCKET>(socket), handleOf(handle), &seen) != 0) {
        return 0;
    }
    uint32_t events = (seen.lNetworkEvents & FD_READ) != 0 ? cameReadable : 0;
    events |= (seen.lNetworkEvents & FD_ACCEPT) != 0 ? cameConnection : 0;
    events |= (seen.lNetworkEvents & FD_WRITE) != 0 ? cameWritable : 0;
    events |= (seen.lNetworkEvents & FD_CLOSE) != 0 ? cameEnd : 0;
    return events;
}

bool pollSetOpen(PollSet*)
{
    return true;
}

void pollSetClose(PollSet*) {}

bool pollSetGrow(PollSet* set, uint32_t size, const PollMemory& memory)
{
    void* ready = memory.resize(memory.owner, set->ready, size * sizeof(int32_t));
    set->ready = ready != nullptr ? static_cast<int32_t*>(ready) : set->ready;
    return ready != nullptr;
}

Placing pollSetPlace(PollSet*, PollSlot*, int32_t, const PollMemory&)
{
    return Placing::done;
}

void pollSetRemove(PollSet*, PollSlot*, int32_t) {}

bool pollSetWait(PollSet* set, PollSlot* slots, uint32_t size, int32_t timeoutMs)
{
    int count = WSAPoll(reinterpret_cast<WSAPOLLFD*>(slots), size, timeoutMs);
    set->readyCount = 0;
    for (uint32_t slot = 0; slot < size && count > 0; slot++) {
        if (slots[slot].socket != -1 && slots[slot].returned != 0) {
            set->ready[set->readyCount++] = static_cast<int32_t>(slot);
        }
    }
    return count >= 0;
}

} // namespace kor::platform
