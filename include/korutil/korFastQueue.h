// korFastQueue.h - an unbounded first-in first-out queue for many producers and many consumers whose links lie in the
// items themselves: nothing is allocated once the queue stands.
//
// The head and the tail have a lock each (Michael and Scott, "Simple, Fast, and Practical Non-Blocking and Blocking
// Concurrent Queue Algorithms", 1996, the two-lock queue), so a producer and a consumer meet only while the queue holds
// one item at most. An item is a record of the caller whose first 8 bytes are the link. It lies in one queue at a time,
// and from the push to the pop its link is the queue's.
//
//     struct Order { korFastQueueItem link; ... };
//
//     korFastQueue* queue = _korFastQueue_Create(KOR_AT(ex, depth));
//     _korFastQueue_Push(KOR_AT(ex, depth), queue, order);                     // any thread
//     Order* next = (Order*)_korFastQueue_Pop(KOR_AT(ex, depth), queue);       // any thread; NULL = empty
//     _korFastQueue_Destroy(KOR_AT_D(depth, ex), queue);
//
// Any number of threads may push, pop and put back at once; the items of one producer come out in the order in which it
// pushed them. Nothing waits for an item. A queue must not be destroyed while a thread is in it.

#ifndef KORUTIL_KORFASTQUEUE_H
#define KORUTIL_KORFASTQUEUE_H

#include "korutil/korFastLock.h"

KOR_BEGIN_DECLS

/// The link at the start of every item. Needs no initialisation.
typedef struct korFastQueueItem {
    struct korFastQueueItem* next; ///< the item behind; the queue's while the item is in it
} korFastQueueItem;

/// The queue. Made and freed by the library alone.
typedef struct korFastQueue {
    korFastQueueItem* head; ///< a dummy that stays for the queue's life; the first item is behind it
    korFastQueueItem* tail; ///< the last item, or `head` in an empty queue
    uint64_t count;         ///< atomic: items in the queue
    korFastLock popLock;    ///< taken first where both are needed
    korFastLock pushLock;   ///< guards `tail` and the link of the last item
} korFastQueue;

/// Makes an empty queue. The caller destroys it. NULL on an error: code 2 "No memory creating queue", or without a
/// description if the system has no lock left.
KOR_API korFastQueue* _korFastQueue_Create(korEx* ex, uint8_t depth);

/// Puts `item` at the end. It stays the caller's, and must stay where it is until it is popped. Does nothing with an
/// error pending.
KOR_API void _korFastQueue_Push(korEx* ex, uint8_t depth, korFastQueue* queue, void* item);

/// Takes the first item, or gives NULL if the queue is empty or an error is pending. The item's link stays as it was
/// and means nothing any more.
KOR_API void* _korFastQueue_Pop(korEx* ex, uint8_t depth, korFastQueue* queue);

/// Puts `item` at the front: the next pop gives it. Does nothing with an error pending.
KOR_API void _korFastQueue_Unpop(korEx* ex, uint8_t depth, korFastQueue* queue, void* item);

/// True if the queue holds nothing, or if an error is pending. Takes no lock: with others at work the answer may be old
/// when it arrives. What this thread stored before is visible to all before the queue is looked at, so that a consumer
/// can announce that it goes to sleep, ask, and not miss a producer that pushes first and then looks for sleepers.
KOR_API bool _korFastQueue_IsEmpty(korEx* ex, uint8_t depth, korFastQueue* queue);

/// Frees the queue, with nobody in it. Items still queued are the caller's and are not touched. NULL is accepted. Works
/// with an error pending.
KOR_API void _korFastQueue_Destroy(uint8_t depth, korEx* ex, korFastQueue* queue);

KOR_END_DECLS

#endif
