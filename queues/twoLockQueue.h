// twoLockQueue.h - what the fast and the slow queue share: creation, the append at the tail, the look at the count.
//
// Invariant: an item is counted after its link stands and before `tail` names it. So what is counted can be reached
// from `head`, and with a count above 1 the first item is no producer's tail: a consumer needs `popLock` alone.
// `popLock` comes before `pushLock`; nothing takes them the other way.

#pragma once

#include "foundation/barrier.h"
#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "korutil/korFastLock.h"

namespace kor {

using QueueCount = std::atomic_ref<uint64_t>;

/// Holds a lock for a scope.
class LockHold
{
public:
    explicit LockHold(korFastLock* lock) : lock_(lock) { korFastLock_acquire(lock_); }
    ~LockHold() { korFastLock_release(lock_); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    korFastLock* lock_;
};

/// Memory of the heap, or NULL with nothing raised: the request runs on an exception object of its own, since
/// the allocator's error, which has no description, would stand before the caller's.
inline void* allocate(korEx* ex, uint8_t depth, size_t size)
{
    KOR_EX_PRIVATE(own, ex, depth);
    return _kor_malloc(KOR_AT(&own, depth), size);
}

template <class Queue>
void clearLocks(uint8_t depth, korEx* ex, Queue* queue)
{
    _korFastLock_Clear(KOR_AT_D(depth, ex), &queue->popLock);
    _korFastLock_Clear(KOR_AT_D(depth, ex), &queue->pushLock);
}

/// Makes an empty queue around `dummy`, which stays the caller's on a failure.
template <class Queue, class Node>
Queue* createAround(korEx* ex, uint8_t depth, Node* dummy)
{
    auto* queue = static_cast<Queue*>(allocate(KOR_AT(ex, depth), sizeof(Queue)));
    if (queue == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, "No memory creating queue");
        return nullptr;
    }
    *queue = {};
    queue->head = dummy;
    queue->tail = dummy;
    _korFastLock_Init(KOR_AT_D(depth, ex), &queue->pushLock, 0);
    _korFastLock_Init(KOR_AT_D(depth, ex), &queue->popLock, 0);
    if (ex->code != 0) {
        clearLocks(KOR_AT_D(depth, ex), queue);
        _kor_free(KOR_AT_D(depth, ex), queue);
        return nullptr;
    }
    return queue;
}

/// Puts an item, whose link is NULL, behind the last one.
template <class Queue, class Item>
void append(Queue* queue, Item* item)
{
    LockHold hold(&queue->pushLock);
    queue->tail->next = item;
    hostileYield();
    QueueCount(queue->count).fetch_add(1);
    hostileYield(); // a consumer may take the old tail now, and free it: only the pointer changes from here on
    queue->tail = item;
}

/// The barrier keeps what the caller announced before from passing the look at the count.
template <class Queue>
bool isEmpty(const korEx* ex, Queue* queue)
{
    if (ex->code != 0) {
        return true;
    }
    fullBarrier();
    return QueueCount(queue->count).load() == 0;
}

} // namespace kor
