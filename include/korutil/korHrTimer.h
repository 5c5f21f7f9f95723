// korHrTimer.h - timers for waits that are shorter than what the system's own timers can do.
//
// The timer has no thread: a thread lends itself by calling _korHrTimer_ProcessTimers. It sleeps in the kernel while
// the next deadline is a millisecond away or more, spins on the tick counter below that, and fires the callbacks. Times
// are seconds. A callback fires up to 20 microseconds before its deadline, and else as late as the thread gets to it.
//
//     korHrTimer* timer = _korHrTimer_Create(KOR_AT(ex, depth));
//     uint64_t id = _korHrTimer_Arm(KOR_AT(ex, depth), timer, 0.0005, send, packet, connection);   // any thread
//     ...
//     korMutex_enter(timer->mutex);                                     // the thread that lends itself
//     _korHrTimer_ProcessTimers(KOR_AT(ex, depth), timer);              // until the shutdown
//     korMutex_leave(timer->mutex);
//
// Arming, cancelling and the shutdown may come from any thread, callbacks included.

#ifndef KORUTIL_KORHRTIMER_H
#define KORUTIL_KORHRTIMER_H

#include "korutil/korCondition.h"
#include "korutil/korDpq.h"
#include "korutil/korFastLock.h"
#include "korutil/korI64Hash.h"
#include "korutil/korPool.h"

KOR_BEGIN_DECLS

/// Called on the lent thread, with no lock of the timer's held but its `mutex`. A failure that it leaves is dropped.
typedef void (*korHrTimerCallback)(korEx* ex, uint8_t depth, uint64_t id, void* argument, void* closure);

/// An armed timer.
typedef struct korHrTimerNode {
    uint64_t id;                 ///< key in `timers`
    double timeout;              ///< seconds from `start`
    int64_t start;               ///< tick at arming
    int64_t deadline;            ///< tick at which it is due
    void* argument;              ///< the callback's
    void* closure;               ///< the callback's
    korHrTimerCallback callback; ///< what fires
} korHrTimerNode;

/// The timer service. Written by the library alone.
typedef struct korHrTimer {
    uint64_t lastId;          ///< of the node armed last; 1024 at creation
    korI64Hash* timers;       ///< id to node; under `lock`
    uint64_t running;         ///< atomic: 1 until the shutdown
    uint64_t kick;            ///< atomic: ends a spin early
    double currentTimeout;    ///< of the node that is next, or the default
    int64_t currentStart;     ///< its start
    uint64_t nowMilliseconds; ///< time of the last service
    korFastLock* lock;        ///< guards `nodes` and `timers`
    korDpq* nodes;            ///< in the order of their deadlines
    double scale;             ///< seconds a tick
    korCondition* condition;  ///< the wait in the kernel
    korMutex* mutex;          ///< held by the thread that lends itself, but for that wait
    uint8_t waiting;          ///< atomic: that wait is under way
    uint8_t servicing;        ///< due nodes are being fired
    korPool* nodePool;        ///< of the nodes
} korHrTimer;

/// Makes a timer. NULL after a failure: code 2 "Failed to create timer.", or what its parts raise, which is logged,
/// too.
KOR_API korHrTimer* _korHrTimer_Create(korEx* ex, uint8_t depth);

/// Shuts a timer down and frees it; nothing is fired any more, and nobody may be processing it. NULL is accepted. Works
/// with an error pending.
KOR_API void _korHrTimer_Destroy(uint8_t depth, korEx* ex, korHrTimer* timer);

/// Ends the processing. NULL is accepted. Works with an error pending.
KOR_API void _korHrTimer_Shutdown(uint8_t depth, korEx* ex, korHrTimer* timer);

/// Lends the calling thread, which holds `mutex` once, until the shutdown. Ends with an error if the wait in the kernel
/// fails.
KOR_API void _korHrTimer_ProcessTimers(korEx* ex, uint8_t depth, korHrTimer* timer);

/// Fires all that is due and returns. One thread at a time.
KOR_API void _korHrTimer_ServiceTimers(korEx* ex, uint8_t depth, korHrTimer* timer);

/// Has `callback` called once, `timeout` seconds from now; of equal deadlines the one armed first fires first. Gives an
/// id, never 0 and never used again; 0 after a failure. Code 1 without description for a NULL timer or callback, or a
/// time that is negative or no number; code 10 "Timer is stopping or has been stopped"; code 2.
KOR_API uint64_t _korHrTimer_Arm(korEx* ex, uint8_t depth, korHrTimer* timer, double timeout,
                                 korHrTimerCallback callback, void* argument, void* closure);

/// Takes an armed timer back. False if there is none of that id: it has fired, is being fired at this moment, or was
/// taken back before. Works with an error pending.
KOR_API bool _korHrTimer_Cancel(uint8_t depth, korEx* ex, korHrTimer* timer, uint64_t id);

KOR_END_DECLS

#endif
