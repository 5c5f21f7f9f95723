// korSignalMonitor.cpp - the self-pipe: a handler sets a flag and writes one byte, the waiting thread polls for it.
//
// Flag and sockets are all that handler and waiter share, and a compare-and-swap on the flag is all that orders them: a
// handler can take no lock.

#include "korutil/korSignalMonitor.h"

#include "korutil/korPoller.h"
#include "korutil/korSignal.h"
#include "korutil/korSocket.h"
#include "platform/error.h"
#include "platform/socket.h"

#include <atomic>
#include <csignal>

namespace kor {
namespace {

korSocket readSocket = platform::noSocket;
constinit std::atomic<korSocket> writeSocket{platform::noSocket};
korPoller* poller;
korPollerEvent* readEvent;
constinit std::atomic<uint64_t> signalled{0};
constinit std::atomic<korSignalCallback> callback{nullptr};
constinit std::atomic<uint8_t> ready{0};

constexpr const char* uninitialized = "Signal Monitor uninitialized.";

static_assert(std::atomic<korSocket>::is_always_lock_free && std::atomic<uint64_t>::is_always_lock_free,
              "a handler can take no lock");

// True for the one caller who is the first since the start: he writes the byte.
bool claimSignal()
{
    uint64_t none = 0;
    return signalled.compare_exchange_strong(none, 1);
}

// The handler. An error would have nobody to go to, and raising one is more than a handler may do.
void __korSignalCb(int32_t)
{
    platform::LastErrors saved = platform::lastErrors();
    if (ready.load() != 0 && claimSignal()) {
        platform::send(writeSocket.load(), "*", 1, 0); // a mere system call, unlike _korSocket_Send
    }
    platform::restoreLastErrors(saved);
}

void tell(int32_t atStart)
{
    if (korSignalCallback told = callback.load()) {
        told(atStart);
    }
}

// The sockets, and the poller that watches the read side.
void openPipe(korEx* ex, uint8_t depth)
{
    korSocket second = platform::noSocket;
    readSocket = platform::noSocket;
    _korSocket_CreatePair(KOR_AT(ex, depth), &readSocket, &second);
    writeSocket.store(second);
    _korSocket_SetBlocking(KOR_AT(ex, depth), readSocket, 0);
    poller = _korPoller_Create(KOR_AT(ex, depth));
    readEvent = _korPollerEvent_CreateNetwork(KOR_AT(ex, depth), nullptr, nullptr, KOR_POLL_READ, readSocket);
    _korPoller_AddEvent(KOR_AT(ex, depth), poller, readEvent);
}

// Takes a byte that the poller has announced. A failure is seen by the next wait.
void drainByte(korEx* ex, uint8_t depth)
{
    char byte;
    _korSocket_Recv(KOR_AT(ex, depth), readSocket, &byte, 1, 0);
}

// Waits until the flag is set. False, and an error in `ex`, if a wait fails.
bool waitForFlag(korEx* ex, uint8_t depth)
{
    KOR_EX_PRIVATE(own, ex, depth);
    while (signalled.load() == 0) {
        korEx_Clear(&own);
        korPollerEvent** events;
        int32_t count = _korPoller_Wait(KOR_AT(&own, depth), poller, &events, 1, -1);
        if (own.code != 0) {
            KOR_RAISE(ex, depth, own.code, "Failed to Wait for Signal.");
            return false;
        }
        if (count > 0) {
            drainByte(KOR_AT(&own, depth));
        }
    }
    return true;
}

} // namespace
} // namespace kor

void _korSignalMonitor_Start(korEx* ex, uint8_t depth, korSignalCallback callback)
{
    if (ex->code != 0) {
        return;
    }
    _korSignalMonitor_Stop(KOR_AT_D(depth, ex));
    kor::openPipe(KOR_AT(ex, depth));
    kor::signalled.store(0);
    if (ex->code == 0) {
        kor::callback.store(callback);
        kor::ready.store(1);
        _korSignal_SetHandler(KOR_AT(ex, depth), SIGINT, kor::__korSignalCb, nullptr);
        _korSignal_SetHandler(KOR_AT(ex, depth), SIGTERM, kor::__korSignalCb, nullptr);
        if (ex->code == 0 && kor::signalled.load() != 0) {
            kor::tell(1);
        }
    }
    if (ex->code != 0) {
        _korSignalMonitor_Stop(KOR_AT_D(depth, ex));
    }
}

void _korSignalMonitor_Stop(uint8_t depth, korEx* ex)
{
    _korPoller_RemoveEvent(KOR_AT_D(depth, ex), kor::poller, kor::readEvent);
    _korPollerEvent_Release(KOR_AT_D(depth, ex), kor::readEvent);
    _korPoller_Destroy(KOR_AT_D(depth, ex), kor::poller);
    kor::readEvent = nullptr;
    kor::poller = nullptr;
    _korSocket_Close(KOR_AT_D(depth, ex), kor::readSocket);
    _korSocket_Close(KOR_AT_D(depth, ex), kor::writeSocket.exchange(kor::platform::noSocket));
    kor::readSocket = kor::platform::noSocket;
}

bool _korSignalMonitor_Signal(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return false;
    }
    if (kor::ready.load() == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, kor::uninitialized);
        return false;
    }
    if (kor::claimSignal()) {
        _korSocket_Send(KOR_AT(ex, depth), kor::writeSocket.load(), "*", 1, 0);
    }
    return ex->code == 0;
}

void _korSignalMonitor_WaitForSignal(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return;
    }
    if (kor::ready.load() == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, kor::uninitialized);
        return;
    }
    if (kor::waitForFlag(KOR_AT(ex, depth))) {
        kor::tell(0);
    }
}
