// korPoller.h - one thread waits for many sockets and handles while other threads add and remove what it waits for.
//
// There are two kinds. A `Full` poller takes sockets and handles together, 63 of them. A `FdsOnly` poller takes sockets
// alone, without limit. Both report what is the case at the time of the wait: what is readable is reported again and
// again until it has been read. (On Windows a `Full` poller follows the system's network events instead: readable again
// after a read, writable again after a send that would have blocked. It makes the sockets non-blocking.)
//
// Recipe of use:
//
//     korPoller* poller = _korPoller_CreateEx(KOR_AT(ex, depth), 1);
//     korPollerEvent* event = _korPollerEvent_CreateNetwork(KOR_AT(ex, depth), context, NULL, KOR_POLL_READ, socket);
//     _korPoller_AddEvent(KOR_AT(ex, depth), poller, event);               // any thread
//
//     korPollerEvent** ready;                                              // the waiter
//     int32_t count = _korPoller_Wait(KOR_AT(ex, depth), poller, &ready, 1, -1);
//     for (int32_t i = 0; i < count; i++)
//         serve(_korPollerEvent_GetContext(KOR_AT(ex, depth), ready[i]));
//
//     _korPoller_RemoveEvent(KOR_AT_D(depth, ex), poller, event);          // any thread
//     _korPollerEvent_Release(KOR_AT_D(depth, ex), event);
//
// Only the waiter changes what is waited for: adding and removing put an event on a list, under the poller's mutex, and
// wake the waiter, who applies the lists between two waits. An event that has been removed must not be added again
// before the waiter has made a pass: it would leave its slot with the removal that still stands, and be active all the
// same. To a `Full` poller another event of the same socket or handle is the same event in this.

#ifndef KORUTIL_KORPOLLER_H
#define KORUTIL_KORPOLLER_H

#include "korutil/korDpa.h"
#include "korutil/korMutex.h"
#include "korutil/korPollerEvent.h"

KOR_BEGIN_DECLS

/// Objects that a `Full` poller can wait for. One is its own interrupt.
#define KOR_POLLER_MAX_HANDLES 64

/// Bits of a poll record.
#define KOR_POLLFD_HUNG_UP 2
#define KOR_POLLFD_WRITE 0x10
#define KOR_POLLFD_READ 0x100

/// One element of a poll array.
typedef struct korPollFd {
    int64_t socket;    ///< -1 = free
    int16_t requested; ///< KOR_POLLFD_READ, KOR_POLLFD_WRITE
    int16_t returned;  ///< what the last wait saw
} korPollFd;

/// A poller. Made and freed by the library alone; what a system needs beyond it lies behind the record.
typedef struct korPoller {
    int32_t count;                               ///< slots in use, the interrupt's included
    int64_t interruptEvent;                      ///< `Full`: what wakes the wait
    korPollerEvent* interruptRecord;             ///< `Full`: the event that stands in its slot
    int64_t waitHandles[KOR_POLLER_MAX_HANDLES]; ///< `Full`: the slots; -1 = free
    korPollerEvent** slotEvents;                 ///< the event of each slot
    korPollerEvent** readyList;                  ///< 3 entries a slot; what a wait hands out
    korMutex mutex;                              ///< guards the lists, and all writing to slots and active flags
    korDpa pendingAdds;                          ///< events for the waiter to place
    korDpa pendingRemoves;                       ///< events for the waiter to let go
    uint8_t destroyed;                           ///< atomic
    korPollFd* pollArray;                        ///< `FdsOnly`: the slots; slot 0 is the interrupt
    int32_t pollSize;                            ///< `FdsOnly`: elements of the poll array
    int64_t interruptReadSocket;                 ///< `FdsOnly`: the first of the pair
    int64_t socketPair[2];                       ///< `FdsOnly`: read and write side of the interrupt; may be the same
    uint8_t kind;                                ///< 1 = `FdsOnly`, 0 = `Full`
} korPoller;

/// Makes a `Full` poller; NULL on a failure. The caller destroys it. Errors: 2; the system's own number as the code,
/// with "create event failed during poll create".
KOR_API korPoller* _korPoller_Create(korEx* ex, uint8_t depth);

/// Makes a `FdsOnly` poller if `fdsOnly` is not 0, else as _korPoller_Create. Sockets must have been started. Errors:
/// 2; 6, of the interrupt's sockets, or "poller create failed".
KOR_API korPoller* _korPoller_CreateEx(korEx* ex, uint8_t depth, uint8_t fdsOnly);

/// Wakes the waiter and frees the poller, or leaves that to a waiter who is inside: his wait fails with code 10 "poller
/// destroyed". Events must have been removed: the references of events in slots, or not yet placed, are not given back.
/// NULL is accepted. Works with an error pending.
KOR_API void _korPoller_Destroy(uint8_t depth, korEx* ex, korPoller* poller);

/// Ends the present wait, or the next one, at once. Any thread, no lock; reports nothing. NULL is accepted.
KOR_API void _korPoller_Interrupt(uint8_t depth, korEx* ex, korPoller* poller);

/// Hands an event to the poller, which takes a reference. It is waited for after the next pass of the waiter, who gets
/// the errors of its placing: a handle event in a `FdsOnly` poller, for one. Any thread. Errors: 1 "event already
/// active", the event has not been removed; 10 "too many events", 63 are there or on their way; 1 "poller or event is
/// missing"; 2.
KOR_API void _korPoller_AddEvent(korEx* ex, uint8_t depth, korPoller* poller, korPollerEvent* event);

/// Takes an event back. The waiter applies it before his next wait, and gives the poller's reference back. Until then
/// the event may still be reported. Ignores an event that is not active; NULL is accepted for both. Works with an error
/// pending. Any thread. Errors: 2, the event stays.
KOR_API void _korPoller_RemoveEvent(uint8_t depth, korEx* ex, korPoller* poller, korPollerEvent* event);

/// True from the adding of an event to its removing.
KOR_API bool _korPoller_IsActiveEvent(korEx* ex, uint8_t depth, const korPollerEvent* event);

/// With `now` not 0, the waiter's thread applies the pending removals at once; with 0 nothing happens.
KOR_API void _korPoller_ProcessRemoveEvents(korEx* ex, uint8_t depth, korPoller* poller, uint8_t now);

/// Waits for at most `timeoutMs` milliseconds, -1 for ever, and gives the number of entries in `*ready`. The list is
/// the poller's and holds until the next wait, as do the events in it. 0 if the time ran out (a `Full` poller then
/// leaves `*ready` alone) or if the waiter was woken to apply additions and removals. `maxEvents` is ignored; pass 1.
///
/// A `FdsOnly` list is in the order of slots; an event stands in it once each for writable, readable, hung up, in this
/// order. A `Full` list runs from the first signalled slot on; a handle event stands in it only if it is that slot's,
/// a network event once each for readable, a connection to accept, writable, closed, in this order. What was signalled
/// first goes to the end of the slots, so that it does not starve the others.
///
/// One thread at a time. Errors: of a `Full` wait, with result -1: the system's own number as the code, with "poll wait
/// failed", a handle that was closed without having been removed; 10 "poller destroyed". Of a `FdsOnly` wait, with
/// result 0: 6 "poller wait failed". Of placing what was added, with the result as if it had not been: 1 "Only fds
/// supported by this poller"; 1 "invalid socket"; 6 "poller add failed"; 2.
KOR_API int32_t _korPoller_Wait(korEx* ex, uint8_t depth, korPoller* poller, korPollerEvent*** ready, int32_t maxEvents,
                                int32_t timeoutMs);

KOR_END_DECLS

#endif
