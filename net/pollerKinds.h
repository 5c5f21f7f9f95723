// pollerKinds.h - what lies behind a korPoller, and the two kinds: how each places, removes and waits.

#pragma once

#include "korutil/korPoller.h"
#include "platform/poll.h"

#include <atomic>

namespace kor {

struct PollerKind;

/// A poller as it lies in memory. `record`, `set` and `firstFree` are written by the waiter alone, under the mutex
/// where other threads read them.
struct PollerObject {
    korPoller record;
    const PollerKind* kind;
    platform::PollSet set; ///< `FdsOnly`
    int32_t firstFree;     ///< `FdsOnly`: no slot between the interrupt's and this one is free
    int32_t readyCount;    ///< entries of the ready list that is being made
    uint32_t holders;      ///< atomic: the owner, and a waiter while it is inside; the last one frees the poller
    bool revived;          ///< under the mutex: an event was added while its removal was pending
};

inline PollerObject* objectOf(korPoller* poller)
{
    return reinterpret_cast<PollerObject*>(poller);
}

/// All of these but `interrupt` and `wait` run under the mutex, or while nobody else knows the poller.
struct PollerKind {
    /// The largest number of slots, 0 for no limit.
    int32_t maxSlots;
    /// The parts of the record that are this kind's. What has been made before a failure is left to `clear`.
    void (*create)(korEx* ex, uint8_t depth, PollerObject* object);
    void (*clear)(uint8_t depth, korEx* ex, PollerObject* object);
    void (*interrupt)(uint8_t depth, korEx* ex, korPoller* poller);
    /// True if a slot holds the event, or one that counts as the same: what it is about is waited for already.
    bool (*covers)(const korPoller* poller, const korPollerEvent* event);
    /// The slot that holds this very event, or -1.
    int32_t (*slotOf)(const korPoller* poller, const korPollerEvent* event);
    /// Puts an event in a slot. False if it is in none; not every such case is an error.
    bool (*place)(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent* event);
    /// Applies the pending removals; their list stays.
    void (*remove)(uint8_t depth, korEx* ex, PollerObject* object);
    int32_t (*wait)(korEx* ex, uint8_t depth, PollerObject* object, korPollerEvent*** ready, int32_t timeoutMs);
};

extern const PollerKind pollerFull;
extern const PollerKind pollerFdsOnly;

/// Applies the pending removals. Takes the mutex.
void _pollRemoveEvents(uint8_t depth, korEx* ex, PollerObject* object);
/// Places the pending additions. One that fails does not keep the others from their slots. Takes the mutex.
void _pollAddEvents(korEx* ex, uint8_t depth, PollerObject* object);

/// True if there are pending removals. Takes the mutex.
bool hasPendingRemoves(korPoller* poller);

/// Puts an event on the ready list, which has three entries for each slot.
inline void report(PollerObject* object, korPollerEvent* event)
{
    object->record.readyList[object->readyCount++] = event;
}

} // namespace kor
