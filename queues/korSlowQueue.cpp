// korSlowQueue.cpp - the queue with nodes of its own. The dummy moves on with each pop, so consumers never touch the
// tail, not even at one value.

#include "korutil/korSlowQueue.h"
#include "queues/twoLockQueue.h"

static_assert(offsetof(korSlowQueueNode, next) == 8);
static_assert(offsetof(korSlowQueue, popLock) == 24 && offsetof(korSlowQueue, pushLock) == 24 + sizeof(korFastLock));

namespace kor {
namespace {

korSlowQueueNode* _createNode(korEx* ex, uint8_t depth, uint64_t value)
{
    auto* node = static_cast<korSlowQueueNode*>(allocate(KOR_AT(ex, depth), sizeof(korSlowQueueNode)));
    if (node == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, "No memory to create queue node");
        return nullptr;
    }
    *node = {.value = value, .next = nullptr};
    return node;
}

// Moves on to the next dummy, for which the caller holds `popLock`. Gives the old one, or NULL from an empty queue.
korSlowQueueNode* advance(korSlowQueue* queue, uint64_t* value)
{
    QueueCount count(queue->count);
    if (count.load() == 0) {
        return nullptr;
    }
    hostileYield();
    korSlowQueueNode* old = queue->head;
    korSlowQueueNode* dummy = old->next;
    KOR_INVARIANT(dummy != nullptr);
    queue->head = dummy;
    *value = dummy->value;
    dummy->value = 0;
    count.fetch_sub(1);
    return old;
}

} // namespace
} // namespace kor

using namespace kor;

korSlowQueue* _korSlowQueue_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    korSlowQueueNode* dummy = _createNode(KOR_AT(ex, depth), 0);
    if (dummy == nullptr) {
        return nullptr;
    }
    auto* queue = createAround<korSlowQueue>(KOR_AT(ex, depth), dummy);
    if (queue == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), dummy);
    }
    return queue;
}

void _korSlowQueue_Push(korEx* ex, uint8_t depth, korSlowQueue* queue, uint64_t value)
{
    if (ex->code != 0) {
        return;
    }
    korSlowQueueNode* node = _createNode(KOR_AT(ex, depth), value);
    if (node != nullptr) {
        append(queue, node);
    }
}

uint64_t _korSlowQueue_Pop(korEx* ex, uint8_t depth, korSlowQueue* queue)
{
    if (ex->code != 0) {
        return 0;
    }
    uint64_t value = 0;
    korFastLock_acquire(&queue->popLock);
    korSlowQueueNode* old = advance(queue, &value);
    korFastLock_release(&queue->popLock);
    if (old != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), old); // outside the lock: the heap has locks of its own
    }
    return value;
}

bool _korSlowQueue_IsEmpty(korEx* ex, uint8_t, korSlowQueue* queue)
{
    return isEmpty(ex, queue);
}

void _korSlowQueue_Destroy(uint8_t depth, korEx* ex, korSlowQueue* queue)
{
    if (queue == nullptr) {
        return;
    }
    for (korSlowQueueNode* node = queue->head; node != nullptr;) {
        korSlowQueueNode* next = node->next;
        _kor_free(KOR_AT_D(depth, ex), node);
        node = next;
    }
    _kor_free(KOR_AT_D(depth, ex), queue);
}
