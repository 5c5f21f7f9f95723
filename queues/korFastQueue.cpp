// korFastQueue.cpp - the queue whose links lie in the items. Its dummy stays in front for good, so the consumer that
// takes the last item has to lead the tail back to it: the one place where both locks are held.

#include "korutil/korFastQueue.h"
#include "queues/twoLockQueue.h"

static_assert(sizeof(korFastQueueItem) == 8);
static_assert(offsetof(korFastQueue, popLock) == 24 && offsetof(korFastQueue, pushLock) == 24 + sizeof(korFastLock));

namespace kor {
namespace {

korFastQueueItem* unlinkFirst(korFastQueue* queue)
{
    korFastQueueItem* item = queue->head->next;
    KOR_INVARIANT(item != nullptr);
    queue->head->next = item->next;
    return item;
}

// For a count of 1: a producer may be at work behind this very item. Once `pushLock` is had it is either done, and the
// tail is its item, or has not begun, and will find the dummy.
korFastQueueItem* unlinkLast(korFastQueue* queue)
{
    LockHold hold(&queue->pushLock);
    if (queue->tail == queue->head->next) {
        queue->tail = queue->head;
    }
    return unlinkFirst(queue);
}

void linkFirst(korFastQueue* queue, korFastQueueItem* item)
{
    item->next = queue->head->next;
    queue->head->next = item;
    QueueCount(queue->count).fetch_add(1);
}

} // namespace
} // namespace kor

using namespace kor;

korFastQueue* _korFastQueue_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* dummy = static_cast<korFastQueueItem*>(allocate(KOR_AT(ex, depth), sizeof(korFastQueueItem)));
    if (dummy == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, "No memory creating queue");
        return nullptr;
    }
    dummy->next = nullptr;
    auto* queue = createAround<korFastQueue>(KOR_AT(ex, depth), dummy);
    if (queue == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), dummy);
    }
    return queue;
}

void _korFastQueue_Push(korEx* ex, uint8_t, korFastQueue* queue, void* item)
{
    if (ex->code != 0) {
        return;
    }
    auto* link = static_cast<korFastQueueItem*>(item);
    link->next = nullptr;
    append(queue, link);
}

void* _korFastQueue_Pop(korEx* ex, uint8_t, korFastQueue* queue)
{
    if (ex->code != 0) {
        return nullptr;
    }
    LockHold hold(&queue->popLock);
    QueueCount count(queue->count);
    uint64_t seen = count.load();
    if (seen == 0) {
        return nullptr;
    }
    hostileYield();
    korFastQueueItem* item = seen > 1 ? unlinkFirst(queue) : unlinkLast(queue);
    hostileYield();
    count.fetch_sub(1);
    return item;
}

void _korFastQueue_Unpop(korEx* ex, uint8_t, korFastQueue* queue, void* item)
{
    if (ex->code != 0) {
        return;
    }
    auto* link = static_cast<korFastQueueItem*>(item);
    LockHold hold(&queue->popLock);
    if (QueueCount(queue->count).load() != 0) {
        linkFirst(queue, link);
        return;
    }
    hostileYield();
    LockHold holdPush(&queue->pushLock);
    if (queue->tail == queue->head) { // else a producer came in between
        queue->tail = link;
    }
    linkFirst(queue, link);
}

bool _korFastQueue_IsEmpty(korEx* ex, uint8_t, korFastQueue* queue)
{
    return isEmpty(ex, queue);
}

void _korFastQueue_Destroy(uint8_t depth, korEx* ex, korFastQueue* queue)
{
    if (queue != nullptr) {
        clearLocks(KOR_AT_D(depth, ex), queue);
        _kor_free(KOR_AT_D(depth, ex), queue->head);
        _kor_free(KOR_AT_D(depth, ex), queue);
    }
}
