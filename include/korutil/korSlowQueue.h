// korSlowQueue.h - an unbounded first-in first-out queue of 64-bit values for many producers and many consumers. It
// allocates a node for each value; where the items can hold their own link, korFastQueue.h does without.
//
// The head and the tail have a lock each (Michael and Scott, "Simple, Fast, and Practical Non-Blocking and Blocking
// Concurrent Queue Algorithms", 1996, the two-lock queue): a producer and a consumer never take the same lock.
//
//     korSlowQueue* queue = _korSlowQueue_Create(KOR_AT(ex, depth));
//     _korSlowQueue_Push(KOR_AT(ex, depth), queue, value);                     // any thread
//     uint64_t next = _korSlowQueue_Pop(KOR_AT(ex, depth), queue);             // any thread; 0 = empty
//     _korSlowQueue_Destroy(KOR_AT_D(depth, ex), queue);
//
// Any number of threads may push and pop at once; the values of one producer come out in the order in which it pushed
// them. Nothing waits for a value. A value of 0 can be queued, but its pop looks like that of an empty queue. A queue
// must not be destroyed while a thread is in it.

#ifndef KORUTIL_KORSLOWQUEUE_H
#define KORUTIL_KORSLOWQUEUE_H

#include "korutil/korFastLock.h"

KOR_BEGIN_DECLS

/// A node of the queue.
typedef struct korSlowQueueNode {
    uint64_t value;                ///< the value; 0 in the dummy
    struct korSlowQueueNode* next; ///< the node behind, or NULL
} korSlowQueueNode;

/// The queue. Made and freed by the library alone.
typedef struct korSlowQueue {
    korSlowQueueNode* head; ///< the dummy; the first value is in the node behind it, which is the next dummy
    korSlowQueueNode* tail; ///< the last node, or `head` in an empty queue
    uint64_t count;         ///< atomic: values in the queue
    korFastLock popLock;    ///< guards `head`
    korFastLock pushLock;   ///< guards `tail` and the link of the last node
} korSlowQueue;

/// Makes an empty queue. The caller destroys it. NULL on an error: code 2 "No memory creating queue" or "No memory to
/// create queue node", or without a description if the system has no lock left.
KOR_API korSlowQueue* _korSlowQueue_Create(korEx* ex, uint8_t depth);

/// Puts `value` at the end. Does nothing with an error pending. Code 2 "No memory to create queue node": the value is
/// not queued.
KOR_API void _korSlowQueue_Push(korEx* ex, uint8_t depth, korSlowQueue* queue, uint64_t value);

/// Takes the first value, or gives 0 if the queue is empty or an error is pending.
KOR_API uint64_t _korSlowQueue_Pop(korEx* ex, uint8_t depth, korSlowQueue* queue);

/// True if the queue holds nothing, or if an error is pending. Takes no lock: with others at work the answer may be old
/// when it arrives. What this thread stored before is visible to all before the queue is looked at.
KOR_API bool _korSlowQueue_IsEmpty(korEx* ex, uint8_t depth, korSlowQueue* queue);

/// Frees the queue and its nodes, with nobody in it; the values are the caller's. The queue's locks are not cleared, so
/// on Windows their system objects stay behind until the process ends. NULL is accepted. Works with an error pending.
KOR_API void _korSlowQueue_Destroy(uint8_t depth, korEx* ex, korSlowQueue* queue);

KOR_END_DECLS

#endif
