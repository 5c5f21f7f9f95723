// korRQueue.cpp - the ring queue.
//
// A slot of position p is filled when its sequence is p and its value is not 0; emptied when a consumer of many has put
// 0 there; and not yet filled when its sequence is p - slotCount, that of the round before. The slot decides every
// race: the two positions are hints, written by whoever has won a slot, and a late store of one makes others lose, no
// more.

#include "korutil/korRQueue.h"
#include "foundation/barrier.h"
#include "foundation/hostile.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korCPU.h"
#include "platform/cpu.h"

#include <cstdlib>

static_assert(sizeof(korRQueueSlot) == 128 && offsetof(korRQueueSlot, value) == 8);
static_assert(sizeof(korRQueue) == 256 && offsetof(korRQueue, pushRing) == 32);
static_assert(offsetof(korRQueue, popPosition) == 128 && offsetof(korRQueue, queueSize) == 160);

// In functions marked with it the compiler expands the 16-byte swap to the processor's instruction; elsewhere it would
// call a library that korutil does without.
#define KOR_WIDE_SWAP __attribute__((target("cx16")))

namespace kor {
namespace {

constexpr int attempts = 2;
constexpr uint64_t neverFilled = UINT64_MAX; // a value that is no emptied slot's
constexpr uint64_t nobodysTurn = UINT64_MAX; // a sequence that no position has

uint64_t load(uint64_t& word)
{
    return std::atomic_ref(word).load(std::memory_order_acquire);
}

void store(uint64_t& word, uint64_t value)
{
    std::atomic_ref(word).store(value, std::memory_order_release);
}

__extension__ typedef unsigned __int128 Wide __attribute__((may_alias));

struct SlotState {
    uint64_t sequence;
    uint64_t value;
};

Wide wide(SlotState state)
{
    return static_cast<Wide>(state.value) << 64 | state.sequence;
}

KOR_WIDE_SWAP bool swapSlot(korRQueueSlot* slot, SlotState expected, SlotState desired)
{
    hostileYield();
    bool won = __sync_bool_compare_and_swap(reinterpret_cast<Wide*>(slot), wide(expected), wide(desired));
    hostileYield();
    return won;
}

// A producer looks at the limit at that position alone. A slot there that was emptied lets it pass, for good.
bool isFull(korRQueue* queue, uint64_t position, uint64_t slotValue)
{
    return slotValue != 0 && position == load(queue->pushLimit);
}

// Even memory that is not aligned, as a debug allocator gives it, has room for an aligned ring: it is one slot longer.
korRQueueSlot* alignedRing(void* allocation)
{
    constexpr uintptr_t mask = alignof(korRQueueSlot) - 1;
    return reinterpret_cast<korRQueueSlot*>((reinterpret_cast<uintptr_t>(allocation) + mask) & ~mask);
}

// Positions begin in the second round, so that the first fill of slot i expects the sequence i.
void initRing(korRQueue* queue, uint32_t size)
{
    uint64_t slotCount = uint64_t{2} * size;
    korRQueueSlot* ring = alignedRing(queue->allocation);
    for (uint64_t i = 0; i < slotCount; i++) {
        ring[i].sequence = i;
        ring[i].value = neverFilled;
    }
    queue->queueSize = size;
    queue->slotCount = slotCount;
    queue->pushRing = queue->popRing = ring;
    queue->pushMask = queue->popMask = slotCount - 1;
    queue->pushPosition = queue->popPosition = slotCount;
    queue->pushLimit = 2 * slotCount;
    queue->popLimit = slotCount + size;
}

} // namespace
} // namespace kor

using namespace kor;

korRQueue* _korRQueue_Create(korEx* ex, uint8_t depth, uint32_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (!_korCPU_SupportsDCAS()) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_SUPPORTED, "CPU must support double compare and swap");
        return nullptr;
    }
    if (size == 0 || size > INT32_MAX || (size & (size - 1)) != 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Queue size must be a positive power of two");
        return nullptr;
    }
    auto* queue = requestZeroed<korRQueue>(KOR_AT(ex, depth));
    if (queue == nullptr) {
        return nullptr;
    }
    size_t bytes = (2 * static_cast<size_t>(size) + 1) * sizeof(korRQueueSlot);
    queue->allocation =
        granted<void>(KOR_AT(ex, depth), _kor_memalign(KOR_AT(ex, depth), alignof(korRQueueSlot), bytes));
    if (queue->allocation == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), queue);
        return nullptr;
    }
    initRing(queue, size);
    fullBarrier();
    return queue;
}

void _korRQueue_Destroy(uint8_t depth, korEx* ex, korRQueue* queue)
{
    if (queue != nullptr) {
        _kor_freealign(KOR_AT_D(depth, ex), queue->allocation);
        _kor_free(KOR_AT_D(depth, ex), queue);
    }
}

// The position is read before the limit, and stored after it was read: who sees a position sees the limit that let it
// be reached, so nobody compares it with an older one and passes.
KOR_WIDE_SWAP int32_t _korRQueue_Push(korRQueue* queue, uint64_t value)
{
    if (KOR_UNLIKELY(value == 0)) {
        return KOR_RQUEUE_FULL;
    }
    for (int attempt = 0; attempt < attempts; attempt++) {
        uint64_t position = load(queue->pushPosition);
        korRQueueSlot* slot = &queue->pushRing[position & queue->pushMask];
        uint64_t before = load(slot->value);
        if (isFull(queue, position, before)) {
            return KOR_RQUEUE_FULL;
        }
        if (swapSlot(slot, {position - queue->slotCount, before}, {position, value})) {
            store(queue->pushPosition, position + 1);
            return KOR_RQUEUE_DONE;
        }
        platform::spinHint();
    }
    return KOR_RQUEUE_LOST;
}

int32_t _korRQueue_SeqPush(korRQueue* queue, uint64_t value)
{
    if (KOR_UNLIKELY(value == 0)) {
        return KOR_RQUEUE_FULL;
    }
    uint64_t position = load(queue->pushPosition);
    korRQueueSlot* slot = &queue->pushRing[position & queue->pushMask];
    if (isFull(queue, position, load(slot->value))) {
        return KOR_RQUEUE_FULL;
    }
    KOR_INVARIANT(load(slot->sequence) == position - queue->slotCount);
    store(slot->sequence, nobodysTurn); // who still looks for the last round must not take the new value for the old
    store(slot->value, value);
    hostileYield();
    store(slot->sequence, position); // only now is the value a consumer's: it comes after
    fullBarrier();
    store(queue->pushPosition, position + 1);
    return KOR_RQUEUE_DONE;
}

KOR_WIDE_SWAP int32_t _korRQueue_Pop(korRQueue* queue, uint64_t* value)
{
    for (int attempt = 0; attempt < attempts; attempt++) {
        uint64_t position = load(queue->popPosition);
        korRQueueSlot* slot = &queue->popRing[position & queue->popMask];
        hostileYield();
        uint64_t found = load(slot->value);
        if (found == 0) {
            fullBarrier();
        } else if (swapSlot(slot, {position, found}, {position, 0})) { // not so if it was not filled for this position
            store(queue->popPosition, position + 1);
            *value = found;
            return 1;
        }
        platform::spinHint();
    }
    return 0;
}

uint64_t _korRQueue_SeqPop(korRQueue* queue)
{
    uint64_t position = load(queue->popPosition);
    if (position == queue->popLimit) {
        queue->popLimit = position + queue->queueSize;
        store(queue->pushLimit, position + 2 * queue->queueSize); // one whole ring ahead: the slot before it is read
    }
    korRQueueSlot* slot = &queue->popRing[position & queue->popMask];
    if (load(slot->sequence) != position) {
        return 0;
    }
    uint64_t value = load(slot->value);
    store(queue->popPosition, position + 1);
    return value;
}

void _korRQueue_PushMany(void)
{
    abort();
}

void _korRQueue_PopMany(void)
{
    abort();
}
