// pollerFdsOnly.cpp - the poller of any number of sockets: a poll array that doubles, with the interrupt in slot 0.
//
// Slots are never moved, so an event remembers its own. Free ones have socket -1 and are skipped by the system.

#include "foundation/request.h"
#include "net/pollerKinds.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "korutil/korSocket.h"
#include "platform/error.h"
#include "platform/socket.h"

#include <algorithm>

namespace kor {
namespace {

constexpr int32_t firstSize = 64;

struct Caller {
    korEx* ex;
    uint8_t depth;
};

// What the platform keeps beside the slots comes from the library's heap.
void* resizeBlock(void* owner, void* block, uint64_t size)
{
    auto* caller = static_cast<Caller*>(owner);
    return _kor_realloc(KOR_AT(caller->ex, caller->depth), block, size);
}

template <typename Element>
bool resizeArray(korEx* ex, uint8_t depth, Element** array, int32_t count)
{
    void* block = granted<void>(KOR_AT(ex, depth),
                                _kor_realloc(KOR_AT(ex, depth), *array, static_cast<size_t>(count) * sizeof(Element)));
    if (block != nullptr) {
        *array = static_cast<Element*>(block);
    }
    return block != nullptr;
}

// Grows all that has an element for each slot. On a failure some of it is larger than it need be.
bool _pollerFdArrayResize(korEx* ex, uint8_t depth, PollerObject* object, int32_t size)
{
    korPoller* poller = &object->record;
    Caller caller{ex, static_cast<uint8_t>(depth + 1)};
    if (!resizeArray(KOR_AT(ex, depth), &poller->pollArray, size) ||
        !resizeArray(KOR_AT(ex, depth), &poller->slotEvents, size) ||
        !resizeArray(KOR_AT(ex, depth), &poller->readyList, 3 * size) ||
        !platform::pollSetGrow(&object->set, static_cast<uint32_t>(size), {&caller, resizeBlock})) {
        return false;
    }
    for (int32_t slot = poller->pollSize; slot < size; slot++) {
        poller->pollArray[slot] = {platform::noSocket, 0, 0};
        poller->slotEvents[slot] = nullptr;
    }
    poller->pollSize = size;
    return true;
}

void freeSlot(PollerObject* object, int32_t slot)
{
    korPoller* poller = &object->record;
    poller->pollArray[slot] = {platform::noSocket, 0, 0};
    poller->slotEvents[slot] = nullptr;
    object->firstFree = std::min(object->firstFree, slot);
}

// Fills a slot and has it polled. On a failure it is free again.
bool occupy(korEx* ex, uint8_t depth, PollerObject* object, int32_t slot, int64_t socket, int16_t requested)
{
    korPoller* poller = &object->record;
    poller->pollArray[slot] = {socket, requested, 0};
    Caller caller{ex, static_cast<uint8_t>(depth + 1)};
    platform::Placing placing = platform::pollSetPlace(&object->set, poller->pollArray, slot, {&caller, resizeBlock});
    if (placing == platform::Placing::done) {
        poller->count++;
        return true;
    }
    if (placing == platform::Placing::failed) {
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "poller add failed");
    }
    freeSlot(object, slot);
    return false;
}

int16_t requestedBy(const korPollerEvent* event)
{
    int requested = (event->mask & KOR_POLL_WRITE) != 0 ? KOR_POLLFD_WRITE : 0;
    requested |= (event->mask & KOR_POLL_READ) != 0 ? KOR_POLLFD_READ : 0;
    return static_cast<int16_t>(requested);
}

// True if the event can stand in this poller; else an error of the waiter, who is the one that finds out.
bool isPollable(korEx* ex, uint8_t depth, const korPollerEvent* event)
{
    if (event->network == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Only fds supported by this poller");
    } else if (event->socket < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "invalid socket"); // it would look like a free slot
    }
    return ex->code == 0;
}

// The lowest free slot; with none free, the first one of a doubled array.
int32_t findFreeSlot(korEx* ex, uint8_t depth, PollerObject* object)
{
    korPoller* poller = &object->record;
    if (poller->count == poller->pollSize) {
        int32_t slot = poller->count;
        return _pollerFdArrayResize(KOR_AT(ex, depth), object, 2 * poller->pollSize) ? slot : -1;
    }
    int32_t slot = std::max(object->firstFree, 1);
    while (poller->pollArray[slot].socket != platform::noSocket) {
        slot++;
    }
    return slot;
}

bool _pollAddEvent(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent* event)
{
    if (!isPollable(KOR_AT(ex, depth), event)) {
        return false;
    }
    int32_t slot = findFreeSlot(KOR_AT(ex, depth), object);
    if (slot < 0 || !occupy(KOR_AT(ex, depth), object, slot, event->socket, requestedBy(event))) {
        return false;
    }
    object->firstFree = slot + 1;
    object->record.slotEvents[slot] = event;
    event->pollSlot = slot;
    return true;
}

// The slot of an event, or -1. The slot that it remembers is another poller's if it has been added there before this
// one's waiter let it go; then the slots are searched.
int32_t slotOfFdsOnly(const korPoller* poller, const korPollerEvent* event)
{
    int32_t remembered = event->pollSlot;
    if (remembered > 0 && remembered < poller->pollSize && poller->slotEvents[remembered] == event) {
        return remembered;
    }
    for (int32_t slot = 1; slot < poller->pollSize; slot++) {
        if (poller->slotEvents[slot] == event) {
            return slot;
        }
    }
    return -1;
}

// A socket may stand in several slots: only the event itself counts.
bool coversFdsOnly(const korPoller* poller, const korPollerEvent* event)
{
    return event->pollSlot != -1 && slotOfFdsOnly(poller, event) >= 0;
}

void _pollRemoveEvents_FdsOnly(uint8_t depth, korEx* ex, PollerObject* object)
{
    korPoller* poller = &object->record;
    for (int32_t i = 0; i < poller->pendingRemoves.count; i++) {
        auto* event = reinterpret_cast<korPollerEvent*>(poller->pendingRemoves.items[i]);
        int32_t slot = slotOfFdsOnly(poller, event);
        if (slot >= 0) {
            platform::pollSetRemove(&object->set, poller->pollArray, slot);
            freeSlot(object, slot);
            poller->count--;
            event->pollSlot = event->pollSlot == slot ? -1 : event->pollSlot;
            _korPollerEvent_Release(KOR_AT_D(depth, ex), event);
        }
    }
}

// What the waiter is woken by: a counter that can be polled, on both sides of the pair, or a real pair of sockets. A
// pair has room for so many unread wakes only; a counter never makes the waker wait.
void openInterrupt(korEx* ex, uint8_t depth, korPoller* poller)
{
    if (!platform::hasWakeCounter) {
        _korSocket_CreatePair(KOR_AT(ex, depth), &poller->socketPair[0], &poller->socketPair[1]);
        _korSocket_SetBlocking(KOR_AT(ex, depth), poller->socketPair[0], 0);
    } else if (platform::wakeCounterOpen(&poller->socketPair[0])) {
        poller->socketPair[1] = poller->socketPair[0];
    } else {
        poller->socketPair[0] = platform::noSocket;
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "poller create failed");
    }
    poller->interruptReadSocket = poller->socketPair[0];
}

void closeInterrupt(uint8_t depth, korEx* ex, korPoller* poller)
{
    if (!platform::hasWakeCounter) {
        _korSocket_Close(KOR_AT_D(depth, ex), poller->socketPair[0]);
        _korSocket_Close(KOR_AT_D(depth, ex), poller->socketPair[1]);
    } else if (poller->socketPair[0] != platform::noSocket) {
        platform::interruptClose(poller->socketPair[0]);
    }
}

void createFdsOnly(korEx* ex, uint8_t depth, PollerObject* object)
{
    korPoller* poller = &object->record;
    poller->kind = 1;
    poller->interruptEvent = platform::noHandle;
    poller->socketPair[0] = platform::noSocket;
    poller->socketPair[1] = platform::noSocket;
    object->set.system = platform::noHandle;
    if (ex->code != 0) {
        return;
    }
    openInterrupt(KOR_AT(ex, depth), poller);
    if (ex->code == 0 && !platform::pollSetOpen(&object->set)) {
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "poller create failed");
    }
    if (ex->code == 0 && _pollerFdArrayResize(KOR_AT(ex, depth), object, firstSize)) {
        occupy(KOR_AT(ex, depth), object, 0, poller->interruptReadSocket, KOR_POLLFD_READ);
        object->firstFree = 1;
    }
}

void clearFdsOnly(uint8_t depth, korEx* ex, PollerObject* object)
{
    korPoller* poller = &object->record;
    platform::PollSet* set = &object->set;
    if (set->system != platform::noHandle) {
        platform::pollSetClose(set);
    }
    void* blocks[] = {poller->pollArray, set->ready, set->reports, set->nextOf, set->firstOf};
    for (void* block : blocks) {
        _kor_free(KOR_AT_D(depth, ex), block);
    }
    closeInterrupt(KOR_AT_D(depth, ex), poller);
}

// A failure to wake is told to nobody.
void interruptFdsOnly(uint8_t depth, korEx* ex, korPoller* poller)
{
    if (platform::hasWakeCounter) {
        platform::interruptSet(poller->socketPair[1]);
        return;
    }
    KOR_EX_PRIVATE(own, ex, depth);
    _korSocket_Send(KOR_AT(&own, depth), poller->socketPair[1], "!", 1, 0);
}

// Takes one wake; those that are left make the waiter come again.
void takeWake(korEx* ex, uint8_t depth, const korPoller* poller)
{
    if (platform::hasWakeCounter) {
        platform::interruptReset(poller->interruptReadSocket);
        return;
    }
    KOR_EX_PRIVATE(own, ex, depth);
    char wake;
    _korSocket_Recv(KOR_AT(&own, depth), poller->interruptReadSocket, &wake, 1, 0);
}

void takeInterrupt(korEx* ex, uint8_t depth, PollerObject* object)
{
    takeWake(KOR_AT(ex, depth), &object->record);
    _pollRemoveEvents(KOR_AT_D(depth, ex), object);
    _pollAddEvents(KOR_AT(ex, depth), object);
}

// Once for each thing that has come up, in this order.
void reportSlot(PollerObject* object, int32_t slot)
{
    korPollerEvent* event = object->record.slotEvents[slot];
    for (int mask : {KOR_POLLFD_WRITE, KOR_POLLFD_READ, KOR_POLLFD_HUNG_UP}) {
        if ((object->record.pollArray[slot].returned & mask) != 0) {
            report(object, event);
        }
    }
}

// Makes the ready list. The interrupt comes first, so a slot may be free by the time of its turn, or another's: then
// nothing has been returned for it.
void collectReady(korEx* ex, uint8_t depth, PollerObject* object)
{
    for (uint32_t i = 0; i < object->set.readyCount; i++) {
        int32_t slot = object->set.ready[i];
        if (slot != 0) {
            reportSlot(object, slot);
        } else if ((object->record.pollArray[0].returned & KOR_POLLFD_READ) != 0) {
            takeInterrupt(KOR_AT(ex, depth), object);
        }
    }
}

// A socket that was closed before its removal was applied is no error.
void failedWait(korEx* ex, uint8_t depth, PollerObject* object)
{
    int32_t error = platform::lastSocketError();
    if (error == platform::errorNotASocket) {
        _pollRemoveEvents(KOR_AT_D(depth, ex), object);
        return;
    }
    ex->osError = error;
    KOR_RAISE(ex, depth, KOR_ERROR_OS, "poller wait failed");
}

int32_t _poller_WaitFdsOnly(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent*** ready, int32_t timeoutMs)
{
    korPoller* poller = &object->record;
    auto size = static_cast<uint32_t>(poller->pollSize);
    bool polled = platform::pollSetWait(&object->set, poller->pollArray, size, timeoutMs);
    if (KOR_ATOMIC_LOAD(&poller->destroyed) != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "poller destroyed"); // its lists go with this wait
        return 0;
    }
    if (polled) {
        collectReady(KOR_AT(ex, depth), object);
    } else {
        failedWait(KOR_AT(ex, depth), object);
    }
    *ready = poller->readyList;
    return object->readyCount;
}

} // namespace

const PollerKind pollerFdsOnly = {0,
                                  createFdsOnly,
                                  clearFdsOnly,
                                  interruptFdsOnly,
                                  coversFdsOnly,
                                  slotOfFdsOnly,
                                  _pollAddEvent,
                                  _pollRemoveEvents_FdsOnly,
                                  _poller_WaitFdsOnly};

} // namespace kor
