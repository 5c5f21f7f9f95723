// pollerFull.cpp - the poller of 64 handles: sockets and plain handles together, the lowest signalled one named.
//
// The used slots stand at the front, without gaps, since the system waits for an array of handles.

#include "foundation/request.h"
#include "net/pollerKinds.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "platform/error.h"

#include <utility>

namespace kor {
namespace {

constexpr int32_t slotCount = KOR_POLLER_MAX_HANDLES;

void checkSlots([[maybe_unused]] const korPoller* poller)
{
    if constexpr (hostile) {
        for (int32_t slot = 0; slot < slotCount; slot++) {
            KOR_INVARIANT((poller->waitHandles[slot] != platform::noHandle) == (slot < poller->count));
            KOR_INVARIANT((poller->slotEvents[slot] != nullptr) == (slot < poller->count));
        }
    }
}

bool isSame(const korPollerEvent* left, const korPollerEvent* right)
{
    if (left->network != right->network) {
        return false;
    }
    return left->network != 0 ? left->socket == right->socket : left->handle == right->handle;
}

bool coversFull(const korPoller* poller, const korPollerEvent* event)
{
    for (int32_t slot = 0; slot < poller->count; slot++) {
        if (isSame(poller->slotEvents[slot], event)) {
            return true;
        }
    }
    return false;
}

// The interest as the platform has it: the same bits.
static_assert(KOR_POLL_READ == platform::interestRead && KOR_POLL_WRITE == platform::interestWrite);

bool openWaitEvent(korEx* ex, uint8_t depth, korPollerEvent* event)
{
    if (platform::networkHandleOpen(event->socket, event->mask, &event->waitEvent)) {
        return true;
    }
    event->waitEvent = platform::noHandle;
    ex->osError = platform::lastSystemError();
    KOR_RAISE(ex, depth, KOR_ERROR_OS, "poller add failed");
    return false;
}

bool _pollAddEvent(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent* event)
{
    korPoller* poller = &object->record;
    if (ex->code != 0 || poller->count == slotCount) {
        return false;
    }
    if (event->network != 0 && !openWaitEvent(KOR_AT(ex, depth), event)) {
        return false;
    }
    int32_t slot = poller->count++;
    poller->waitHandles[slot] = event->network != 0 ? event->waitEvent : event->handle;
    poller->slotEvents[slot] = event;
    checkSlots(poller);
    return true;
}

int32_t slotOfFull(const korPoller* poller, const korPollerEvent* event)
{
    for (int32_t slot = 0; slot < poller->count; slot++) {
        if (poller->slotEvents[slot] == event) {
            return slot;
        }
    }
    return -1;
}

void closeWaitEvent(korPollerEvent* event)
{
    if (event->network != 0) {
        platform::networkHandleClose(event->waitEvent);
        event->waitEvent = platform::noHandle;
    }
}

// Takes a slot out of the row; those behind it move up.
void closeGap(korPoller* poller, int32_t gap)
{
    poller->count--;
    for (int32_t slot = gap; slot < poller->count; slot++) {
        poller->waitHandles[slot] = poller->waitHandles[slot + 1];
        poller->slotEvents[slot] = poller->slotEvents[slot + 1];
    }
    poller->waitHandles[poller->count] = platform::noHandle;
    poller->slotEvents[poller->count] = nullptr;
}

void _pollRemoveEvents_Full(uint8_t depth, korEx* ex, PollerObject* object)
{
    korPoller* poller = &object->record;
    for (int32_t i = 0; i < poller->pendingRemoves.count; i++) {
        int32_t slot = slotOfFull(poller, reinterpret_cast<korPollerEvent*>(poller->pendingRemoves.items[i]));
        if (slot >= 0) {
            korPollerEvent* event = poller->slotEvents[slot];
            closeWaitEvent(event);
            closeGap(poller, slot);
            _korPollerEvent_Release(KOR_AT_D(depth, ex), event);
        }
    }
}

void createFull(korEx* ex, uint8_t depth, PollerObject* object)
{
    korPoller* poller = &object->record;
    poller->interruptEvent = platform::noHandle;
    for (int64_t& handle : poller->waitHandles) {
        handle = platform::noHandle;
    }
    if (ex->code != 0) {
        return;
    }
    poller->slotEvents = requestZeroed<korPollerEvent*>(KOR_AT(ex, depth), slotCount);
    poller->readyList = requestZeroed<korPollerEvent*>(KOR_AT(ex, depth), 3 * slotCount);
    if (ex->code == 0 && !platform::interruptOpen(&poller->interruptEvent)) {
        poller->interruptEvent = platform::noHandle;
        KOR_RAISE(ex, depth, platform::lastSystemError(), "create event failed during poll create");
    }
    poller->interruptRecord =
        _korPollerEvent_CreateHandle(KOR_AT(ex, depth), nullptr, nullptr, 0, poller->interruptEvent);
    if (ex->code == 0) {
        _pollAddEvent(KOR_AT(ex, depth), object, poller->interruptRecord);
    }
}

void clearFull(uint8_t depth, korEx* ex, PollerObject* object)
{
    korPoller* poller = &object->record;
    for (int32_t slot = 0; slot < poller->count; slot++) {
        closeWaitEvent(poller->slotEvents[slot]); // the owner's events go on without their poller
    }
    if (poller->interruptEvent != platform::noHandle) {
        platform::interruptClose(poller->interruptEvent);
    }
    _korPollerEvent_Release(KOR_AT_D(depth, ex), poller->interruptRecord);
}

void interruptFull(uint8_t, korEx*, korPoller* poller)
{
    platform::interruptSet(poller->interruptEvent);
}

// A handle that was closed while its removal is under way is no error: the removal is the remedy.
int32_t failedWait(korEx* ex, uint8_t depth, PollerObject* object)
{
    int32_t error = platform::lastSystemError();
    if (error == platform::errorInvalidHandle && hasPendingRemoves(&object->record)) {
        _pollRemoveEvents(KOR_AT_D(depth, ex), object);
        return 0;
    }
    KOR_RAISE(ex, depth, error, "poll wait failed");
    return -1;
}

// Once for each thing that has come up, in this order.
void reportNetwork(PollerObject* object, korPollerEvent* event, uint32_t events)
{
    using namespace platform;
    for (uint32_t kind : {cameReadable, cameConnection, cameWritable, cameEnd}) {
        if ((events & kind) != 0) {
            report(object, event);
        }
    }
}

// The system names the lowest signalled slot. Without a turn, a busy one in front would starve those behind it.
void rotate(korPoller* poller, int32_t signalled)
{
    korMutex_enter(&poller->mutex);
    int32_t last = poller->count - 1;
    if (signalled < last) {
        std::swap(poller->waitHandles[signalled], poller->waitHandles[last]);
        std::swap(poller->slotEvents[signalled], poller->slotEvents[last]);
    }
    korMutex_leave(&poller->mutex);
}

// Makes the ready list, from the signalled slot on. The interrupt ends it, since it changes the slots. (It always
// stands in slot 0: it is placed first, and has no turn.)
void collectReady(korEx* ex, uint8_t depth, PollerObject* object, int32_t signalled, const platform::WaitView* view)
{
    korPoller* poller = &object->record;
    for (int32_t slot = signalled; slot < poller->count; slot++) {
        korPollerEvent* event = poller->slotEvents[slot];
        if (event == poller->interruptRecord) {
            KOR_INVARIANT(slot == 0); // nothing has been reported that the removals could free
            platform::interruptReset(poller->interruptEvent);
            _pollRemoveEvents(KOR_AT_D(depth, ex), object);
            _pollAddEvents(KOR_AT(ex, depth), object);
            return;
        }
        if (event->network != 0) {
            auto index = static_cast<uint32_t>(slot);
            reportNetwork(object, event, platform::networkEvents(event->waitEvent, event->socket, view, index));
        } else if (slot == signalled) {
            report(object, event);
        }
    }
    rotate(poller, signalled);
}

int32_t _poller_WaitFull(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent*** ready, int32_t timeoutMs)
{
    korPoller* poller = &object->record;
    platform::WaitView view;
    auto count = static_cast<uint32_t>(poller->count);
    int32_t signalled = platform::waitForAny(poller->waitHandles, count, timeoutMs, &view);
    if (KOR_ATOMIC_LOAD(&poller->destroyed) != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "poller destroyed");
        return -1;
    }
    if (signalled == platform::waitTimedOut) {
        return 0;
    }
    if (signalled == platform::waitFailed) {
        return failedWait(KOR_AT(ex, depth), object);
    }
    collectReady(KOR_AT(ex, depth), object, signalled, &view);
    *ready = poller->readyList;
    return object->readyCount;
}

} // namespace

const PollerKind pollerFull = {slotCount,       createFull, clearFull,     interruptFull,
                               coversFull,      slotOfFull, _pollAddEvent, _pollRemoveEvents_Full,
                               _poller_WaitFull};

} // namespace kor
