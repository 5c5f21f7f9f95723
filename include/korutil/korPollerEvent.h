// korPollerEvent.h - one thing that a poller waits for: a socket, or a handle of the system.
//
// An event is made by its owner, counted, and handed to one poller at a time. The count starts at 1; the poller takes a
// reference of its own when the event is added, and gives it back when its waiter has applied the removal.
//
// On Windows a handle is a wait handle (an event, a semaphore, a process, ...). On Linux it is any file descriptor that
// can be polled (an eventfd, a timerfd, a pidfd, a pipe, ...), and it is signalled while it is readable.

#ifndef KORUTIL_KORPOLLEREVENT_H
#define KORUTIL_KORPOLLEREVENT_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// What a network event may be interested in: bits of its mask. The end of a connection is told to all but mask 0.
#define KOR_POLL_READ 1u
#define KOR_POLL_WRITE 2u

/// One thing to wait for. Callers use the functions below; the fields are the poller's.
typedef struct korPollerEvent {
    uint64_t refCount; ///< atomic; starts at 1
    uint32_t mask;     ///< KOR_POLL_READ, KOR_POLL_WRITE
    int64_t socket;    ///< of a network event
    uint8_t network;   ///< 1 = network event, 0 = handle event
    uint8_t active;    ///< atomic: 1 from the adding to the removing
    int64_t handle;    ///< the wait handle of a handle event
    int64_t waitEvent; ///< what stands for the socket among wait handles, while it is in a slot of a `Full` poller
    void* context;     ///< the caller's
    void* closure;     ///< the caller's
    int32_t type;      ///< the caller's tag; no poller reads it
    int32_t pollSlot;  ///< index in the poll array of a `FdsOnly` poller, -1 = none
} korPollerEvent;

/// Makes a network event for `socket`, with count 1, type 0, inactive. The caller releases it. The socket stays the
/// caller's, and should be open until its removal. NULL on a failure. Errors: 2.
KOR_API korPollerEvent* _korPollerEvent_CreateNetwork(korEx* ex, uint8_t depth, void* context, void* closure,
                                                      uint32_t mask, int64_t socket);

/// Fills a record of the caller's the same way, but leaves its type and its active flag as they are, so that a record
/// may be filled anew: a fresh one is zeroed first. It must stay where it is until the poller has let it go, and its
/// last reference, the owner's, is never released, since the storage is not the library's.
KOR_API void _korPollerEvent_InitNetwork(korEx* ex, uint8_t depth, korPollerEvent* event, void* context, void* closure,
                                         uint32_t mask, int64_t socket);

/// Makes a handle event, for `Full` pollers. The mask is kept and has no effect. NULL on a failure. Errors: 2.
KOR_API korPollerEvent* _korPollerEvent_CreateHandle(korEx* ex, uint8_t depth, void* context, void* closure,
                                                     uint32_t mask, int64_t handle);

/// Fills a record of the caller's as a handle event; otherwise as _korPollerEvent_InitNetwork.
KOR_API void _korPollerEvent_InitHandle(korEx* ex, uint8_t depth, korPollerEvent* event, void* context, void* closure,
                                        uint32_t mask, int64_t handle);

/// One reference more. NULL is accepted. Any thread that holds a reference.
KOR_API void _korPollerEvent_Retain(korEx* ex, uint8_t depth, korPollerEvent* event);

/// One reference less; true if it was the last one and the event is gone. NULL is accepted. Works with an error
/// pending. Any thread.
KOR_API bool _korPollerEvent_Release(uint8_t depth, korEx* ex, korPollerEvent* event);

/// The caller's tag. 0 with an error pending.
KOR_API int32_t _korPollerEvent_GetType(korEx* ex, uint8_t depth, const korPollerEvent* event);

/// Sets the caller's tag.
KOR_API void _korPollerEvent_SetType(korEx* ex, uint8_t depth, korPollerEvent* event, int32_t type);

/// The context that the event was made with. NULL with an error pending.
KOR_API void* _korPollerEvent_GetContext(korEx* ex, uint8_t depth, const korPollerEvent* event);
/// The closure that the event was made with. NULL with an error pending.
KOR_API void* _korPollerEvent_GetClosure(korEx* ex, uint8_t depth, const korPollerEvent* event);

KOR_END_DECLS

#endif
