// korPoller.cpp - what the two kinds of poller share: the pending lists, the waking, the life of the object.
//
// The waiter alone changes slots, under the mutex, so it may read them without. Everybody else changes the pending
// lists and the active flags, under the mutex, leaves it, and wakes the waiter.

#include "korutil/korPoller.h"
#include "foundation/request.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "net/pollerKinds.h"

namespace kor {
namespace {

constexpr int32_t pendingCapacity = 64;

uint64_t valueOf(korPollerEvent* event)
{
    return reinterpret_cast<uint64_t>(event);
}

korPollerEvent* eventAt(const korDpa* list, int32_t index)
{
    return reinterpret_cast<korPollerEvent*>(list->items[index]);
}

bool isActive(const korPollerEvent* event)
{
    return KOR_ATOMIC_LOAD(&event->active) != 0;
}

void setActive(korPollerEvent* event, uint8_t active)
{
    KOR_ATOMIC_STORE(&event->active, active);
}

// Gives back what has been made, in whatever state a failed create left it.
void freePoller(uint8_t depth, korEx* ex, PollerObject* object)
{
    KOR_EX_PRIVATE(own, ex, depth); // the mutex is given back with an error pending too
    korPoller* poller = &object->record;
    object->kind->remove(KOR_AT_D(depth, &own), object);
    _korDpa_Clear(KOR_AT_D(depth, &own), &poller->pendingAdds);
    _korDpa_Clear(KOR_AT_D(depth, &own), &poller->pendingRemoves);
    _korMutex_Clear(KOR_AT(&own, depth), &poller->mutex);
    object->kind->clear(KOR_AT_D(depth, &own), object);
    _kor_free(KOR_AT_D(depth, &own), poller->slotEvents);
    _kor_free(KOR_AT_D(depth, &own), poller->readyList);
    _kor_free(KOR_AT_D(depth, &own), object);
}

korPoller* createPoller(korEx* ex, uint8_t depth, const PollerKind* kind)
{
    auto* object = requestZeroed<PollerObject>(KOR_AT(ex, depth));
    if (object == nullptr) {
        return nullptr;
    }
    korPoller* poller = &object->record;
    object->kind = kind;
    object->holders = 1;
    _korMutex_Init(KOR_AT(ex, depth), &poller->mutex);
    _korDpa_Init(KOR_AT(ex, depth), &poller->pendingAdds, pendingCapacity);
    _korDpa_Init(KOR_AT(ex, depth), &poller->pendingRemoves, pendingCapacity);
    kind->create(KOR_AT(ex, depth), object);
    if (ex->code != 0) {
        freePoller(KOR_AT_D(depth, ex), object);
        return nullptr;
    }
    return poller;
}

korPoller* _poller_CreateFull(korEx* ex, uint8_t depth)
{
    return createPoller(KOR_AT(ex, depth), &pollerFull);
}

korPoller* _poller_CreateFdsOnly(korEx* ex, uint8_t depth)
{
    return createPoller(KOR_AT(ex, depth), &pollerFdsOnly);
}

// One holder less. A waiter who is inside when the poller is destroyed is the last one, so nothing is freed under him.
void leavePoller(uint8_t depth, korEx* ex, PollerObject* object)
{
    if (std::atomic_ref(object->holders).fetch_sub(1) == 1) {
        freePoller(KOR_AT_D(depth, ex), object);
    }
}

// False, and an error, if the limit of the kind is reached. Slots that are about to be free count as free.
bool hasRoom(korEx* ex, uint8_t depth, const PollerObject* object)
{
    const korPoller* poller = &object->record;
    int32_t coming = poller->count - poller->pendingRemoves.count + poller->pendingAdds.count;
    if (object->kind->maxSlots == 0 || coming < object->kind->maxSlots) {
        return true;
    }
    KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "too many events");
    return false;
}

// Notes an event for the waiter, under the mutex. An event that still stands in a slot is not noted again. (The list
// need not be searched for it: what is on the list is active.)
void enlist(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent* event)
{
    korDpa* adds = &object->record.pendingAdds;
    if (isActive(event)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "event already active");
        return;
    }
    if (!hasRoom(KOR_AT(ex, depth), object)) {
        return;
    }
    KOR_INVARIANT(_korDpa_Find(adds, valueOf(event)) < 0);
    if (adds->count == 0 && object->kind->covers(&object->record, event)) {
        object->revived = true;
    } else {
        _korPollerEvent_Retain(KOR_AT(ex, depth), event);
        _korDpa_AddSafe(KOR_AT(ex, depth), adds, valueOf(event));
        if (ex->code != 0) {
            _korPollerEvent_Release(KOR_AT_D(depth, ex), event);
            return;
        }
    }
    setActive(event, 1);
}

// An active event can be on its way out already only if it was added once more after its removal.
bool isLeaving(const PollerObject* object, korPollerEvent* event)
{
    return object->revived && _korDpa_Find(&object->record.pendingRemoves, valueOf(event)) >= 0;
}

// Notes a removal, under the mutex. The slot's reference keeps the event while it is on the list; one without a slot is
// not noted, though another may stand for it in a slot. True if the waiter has something to do about it.
bool delist(uint8_t depth, korEx* ex, PollerObject* object, korPollerEvent* event)
{
    korPoller* poller = &object->record;
    int32_t index = _korDpa_Find(&poller->pendingAdds, valueOf(event));
    if (index >= 0) {
        _korDpa_RemoveIndexOrdered(&poller->pendingAdds, index);
        setActive(event, 0);
        _korPollerEvent_Release(KOR_AT_D(depth, ex), event);
        return false;
    }
    if (object->kind->slotOf(poller, event) < 0 || isLeaving(object, event)) {
        setActive(event, 0);
        return false;
    }
    int32_t before = poller->pendingRemoves.count;
    _korDpa_AddSafe(KOR_AT(ex, depth), &poller->pendingRemoves, valueOf(event));
    if (poller->pendingRemoves.count == before) {
        return false; // no memory: the event stays
    }
    setActive(event, 0);
    return true;
}

// Places one pending event, with an exception object of its own, so that a failure stops none of the others.
void placePending(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent* event)
{
    KOR_EX_CHAINED(own, ex, depth);
    if (!object->kind->place(KOR_AT(&own, depth), object, event)) {
        _korPollerEvent_Release(KOR_AT_D(depth, &own), event);
    }
}

} // namespace

void _pollRemoveEvents(uint8_t depth, korEx* ex, PollerObject* object)
{
    korPoller* poller = &object->record;
    korMutex_enter(&poller->mutex);
    object->kind->remove(KOR_AT_D(depth, ex), object);
    poller->pendingRemoves.count = 0;
    object->revived = false;
    korMutex_leave(&poller->mutex);
}

void _pollAddEvents(korEx* ex, uint8_t depth, PollerObject* object)
{
    korPoller* poller = &object->record;
    korMutex_enter(&poller->mutex);
    for (int32_t i = 0; i < poller->pendingAdds.count; i++) {
        placePending(KOR_AT(ex, depth), object, eventAt(&poller->pendingAdds, i));
    }
    poller->pendingAdds.count = 0;
    korMutex_leave(&poller->mutex);
}

bool hasPendingRemoves(korPoller* poller)
{
    korMutex_enter(&poller->mutex);
    bool has = poller->pendingRemoves.count != 0;
    korMutex_leave(&poller->mutex);
    return has;
}

} // namespace kor

korPoller* _korPoller_Create(korEx* ex, uint8_t depth)
{
    return ex->code != 0 ? nullptr : kor::_poller_CreateFull(KOR_AT(ex, depth));
}

korPoller* _korPoller_CreateEx(korEx* ex, uint8_t depth, uint8_t fdsOnly)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return fdsOnly != 0 ? kor::_poller_CreateFdsOnly(KOR_AT(ex, depth)) : _korPoller_Create(KOR_AT(ex, depth));
}

void _korPoller_Destroy(uint8_t depth, korEx* ex, korPoller* poller)
{
    if (poller != nullptr) {
        KOR_ATOMIC_STORE(&poller->destroyed, 1);
        _korPoller_Interrupt(KOR_AT_D(depth, ex), poller);
        kor::leavePoller(KOR_AT_D(depth, ex), kor::objectOf(poller));
    }
}

void _korPoller_Interrupt(uint8_t depth, korEx* ex, korPoller* poller)
{
    if (poller != nullptr) {
        kor::objectOf(poller)->kind->interrupt(KOR_AT_D(depth, ex), poller);
    }
}

void _korPoller_AddEvent(korEx* ex, uint8_t depth, korPoller* poller, korPollerEvent* event)
{
    if (ex->code != 0) {
        return;
    }
    if (poller == nullptr || event == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "poller or event is missing");
        return;
    }
    korMutex_enter(&poller->mutex);
    kor::enlist(KOR_AT(ex, depth), kor::objectOf(poller), event);
    korMutex_leave(&poller->mutex);
    if (ex->code == 0) {
        kor::hostileYield();
        _korPoller_Interrupt(KOR_AT_D(depth, ex), poller);
    }
}

void _korPoller_RemoveEvent(uint8_t depth, korEx* ex, korPoller* poller, korPollerEvent* event)
{
    if (poller == nullptr || event == nullptr || !kor::isActive(event)) {
        return;
    }
    korMutex_enter(&poller->mutex);
    bool changed = kor::delist(KOR_AT_D(depth, ex), kor::objectOf(poller), event);
    korMutex_leave(&poller->mutex);
    if (changed) {
        kor::hostileYield();
        _korPoller_Interrupt(KOR_AT_D(depth, ex), poller);
    }
}

bool _korPoller_IsActiveEvent(korEx* ex, uint8_t, const korPollerEvent* event)
{
    return ex->code == 0 && kor::isActive(event);
}

void _korPoller_ProcessRemoveEvents(korEx* ex, uint8_t depth, korPoller* poller, uint8_t now)
{
    if (ex->code == 0 && now != 0) {
        kor::_pollRemoveEvents(KOR_AT_D(depth, ex), kor::objectOf(poller));
    }
}

int32_t _korPoller_Wait(korEx* ex, uint8_t depth, korPoller* poller, korPollerEvent*** ready, int32_t,
                        int32_t timeoutMs)
{
    if (ex->code != 0) {
        return 0;
    }
    if (poller == nullptr || ready == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "poller or ready list is missing");
        return 0;
    }
    kor::PollerObject* object = kor::objectOf(poller);
    std::atomic_ref(object->holders).fetch_add(1);
    int32_t count = object->kind->wait(KOR_AT(ex, depth), object, ready, timeoutMs);
    object->readyCount = 0;
    kor::leavePoller(KOR_AT_D(depth, ex), object);
    return count;
}
