// korPool.cpp - chunks of one size: the threads' caches, the blocks behind them, and the way between.
//
// A free chunk stands in one list: a thread's `returned` or `fresh`, or its block's `freeList`. `lock` guards the block
// list, the free lists and the counts; a thread's own lists belong to it. A block's `freeList` has room for all its
// chunks from the start, so giving a chunk to its block cannot fail.

#include "korutil/korPool.h"
#include "foundation/chain.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korLogger.h"
#include "korutil/korObjectMap.h"
#include "korutil/korThreadLocal.h"
#include "korutil/korTimer.h"
#include "pools/chunkGuard.h"

#include <algorithm>
#include <atomic>

namespace {

// What one thread has of one pool. It names the pool by id: the pool may be gone when the thread ends.
struct korPoolThread {
    int32_t returnedCount; // chunks in `returned`: its count, once more
    korDpa returned;       // chunks that this thread gave back
    uint64_t poolId;
    korDpa fresh; // chunks taken from the pool
};

static_assert(offsetof(korPool, id) == 192 && offsetof(korPool, initChunk) == 248 && sizeof(korPool) == 320);
static_assert(sizeof(korPoolBlock) == 56 && sizeof(korPoolThread) == 64);

constexpr int32_t returnedLimit = 255; // one more chunk, and half of them go back to the pool

// The store's read without its tests of the key and the value: the key is the store's own, and its values are records.
KOR_INLINE korPoolThread* threadRecord(const korPool* pool)
{
    uint64_t* values = korThreadLocal_array();
    return values == nullptr ? nullptr
                             : reinterpret_cast<korPoolThread*>(KOR_ATOMIC_LOAD_RELAXED(&values[pool->threadKey]));
}

uint8_t* chunkAt(const korPool* pool, const korPoolBlock* block, uint32_t index)
{
    return block->memory + static_cast<size_t>(index) * pool->stride;
}

korPoolBlock** backPointer(const korPool* pool, void* chunk)
{
    return reinterpret_cast<korPoolBlock**>(static_cast<uint8_t*>(chunk) + pool->backPointerOffset);
}

uint64_t valueOf(void* chunk)
{
    return reinterpret_cast<uint64_t>(chunk);
}

void* chunkOf(uint64_t value)
{
    return reinterpret_cast<void*>(value);
}

bool fullyCarved(const korPool* pool, const korPoolBlock* block)
{
    return block->carved == pool->chunksPerBlock;
}

bool whollyFree(const korPoolBlock* block)
{
    return static_cast<uint32_t>(block->freeList->count) == block->carved;
}

// ---- The block list. The caller holds `lock`. -----------------------------------------------------------------------

void linkFirst(korPool* pool, korPoolBlock* block)
{
    block->previous = nullptr;
    block->next = pool->head;
    (pool->head != nullptr ? pool->head->previous : pool->tail) = block;
    pool->head = block;
}

void unlink(korPool* pool, korPoolBlock* block)
{
    (block->previous != nullptr ? block->previous->next : pool->head) = block->next;
    (block->next != nullptr ? block->next->previous : pool->tail) = block->previous;
}

// The part of the list behind `block` moves to the front, and `block` becomes the tail.
void rotateBehind(korPool* pool, korPoolBlock* block)
{
    korPoolBlock* first = block->next;
    pool->tail->next = pool->head;
    pool->head->previous = pool->tail;
    pool->head = first;
    first->previous = nullptr;
    pool->tail = block;
    block->next = nullptr;
}

// Sinks what the walk has emptied to the end of the list; `block` is where the walk stopped.
void rotate(korPool* pool, korPoolBlock* block)
{
    if (!fullyCarved(pool, block)) {
        block = block->previous;
    }
    if (block == nullptr || block == pool->tail) {
        return;
    }
    if (!fullyCarved(pool, block->next) || block->next->freeList->count != 0) {
        rotateBehind(pool, block);
    }
}

#ifdef KOR_HOSTILE
// The list leads both ways to its ends, and no block has more free chunks than it has chunks.
void checkBlocks(const korPool* pool)
{
    uint32_t blocks = 0;
    const korPoolBlock* before = nullptr;
    for (const korPoolBlock* block = pool->head; block != nullptr; before = block, block = block->next) {
        KOR_INVARIANT(block->previous == before && block->pool == pool);
        KOR_INVARIANT(static_cast<uint32_t>(block->freeList->count) <= block->carved);
        KOR_INVARIANT(block->carved <= pool->chunksPerBlock);
        blocks++;
    }
    KOR_INVARIANT(pool->tail == before && pool->blockCount == blocks);
}
#else
void checkBlocks(const korPool*) {}
#endif

// ---- Making blocks --------------------------------------------------------------------------------------------------

void destroyBlock(uint8_t depth, korEx* ex, korPoolBlock* block)
{
    if (block->memory != nullptr) {
        kor::openMemory(block->memory, block->bytes);
    }
    _kor_free(KOR_AT_D(depth, ex), block->memory);
    _korDpa_DestroyPooled(KOR_AT_D(depth, ex), block->freeList, nullptr);
    _kor_free(KOR_AT_D(depth, ex), block);
}

void allocChunks(korEx* ex, uint8_t depth, korPoolBlock* block)
{
    if (ex->code == 0) {
        block->memory = kor::request<uint8_t>(KOR_AT(ex, depth), block->bytes);
    }
}

// A block with its memory, which is not touched here.
korPoolBlock* createBlock(korEx* ex, uint8_t depth, korPool* pool)
{
    auto* block = kor::requestZeroed<korPoolBlock>(KOR_AT(ex, depth));
    if (block == nullptr) {
        return nullptr;
    }
    block->pool = pool;
    block->bytes = pool->blockBytes;
    block->freeList = _korDpa_Create(KOR_AT(ex, depth), static_cast<int32_t>(pool->chunksPerBlock));
    allocChunks(KOR_AT(ex, depth), block);
    if (ex->code != 0) {
        destroyBlock(KOR_AT_D(depth, ex), block);
        return nullptr;
    }
    return block;
}

// Makes up to `count` further chunks of the block ready. With an error pending only what needs no preparing: when there
// is no memory for a further block, the rest of those at hand serves.
void initChunks(korEx* ex, uint8_t depth, korPool* pool, korPoolBlock* block, uint32_t count)
{
    uint32_t end = block->carved + std::min(count, pool->chunksPerBlock - block->carved);
    while (block->carved < end) {
        uint8_t* chunk = chunkAt(pool, block, block->carved);
        if (pool->initChunk != nullptr) {
            if (ex->code == 0) {
                pool->initChunk(KOR_AT(ex, depth), chunk);
            }
            if (ex->code != 0) {
                return;
            }
        }
        *backPointer(pool, chunk) = block;
        block->freeList->items[block->freeList->count++] = valueOf(chunk);
        block->carved++;
        kor::closeChunk(pool, chunk);
    }
}

// A failure to prepare a chunk leaves the block in the list: what is carved of it serves, the rest is tried again
// later.
void addBlockToPool(korEx* ex, uint8_t depth, korPool* pool, uint32_t carve)
{
    korPoolBlock* block = createBlock(KOR_AT(ex, depth), pool);
    if (block == nullptr) {
        return;
    }
    initChunks(KOR_AT(ex, depth), pool, block, carve);
    linkFirst(pool, block);
    pool->blockCount++;
    pool->freeChunks += static_cast<int32_t>(pool->chunksPerBlock);
}

void removeBlockFromPool(uint8_t depth, korEx* ex, korPool* pool, korPoolBlock* block)
{
    pool->freeChunks -= static_cast<int32_t>(pool->chunksPerBlock);
    pool->blockCount--;
    unlink(pool, block);
    kor::openMemory(block->memory, block->bytes);
    for (uint32_t index = 0; pool->destroyChunk != nullptr && index < block->carved; index++) {
        KOR_EX_CHAINED(local, ex,
                       depth); // an error that pends, or another chunk's failure, keeps no chunk from its end
        pool->destroyChunk(KOR_AT(&local, depth), chunkAt(pool, block, index));
    }
    destroyBlock(KOR_AT_D(depth, ex), block);
}

// ---- Chunks from the pool to a thread -------------------------------------------------------------------------------

// All free chunks of the block go to `fresh`.
void takeFreeList(korEx* ex, uint8_t depth, korPool* pool, korPoolBlock* block, korDpa* fresh)
{
    int32_t count = block->freeList->count;
    _korDpa_AddDpa(KOR_AT(ex, depth), fresh, block->freeList);
    if (ex->code == 0) {
        block->freeList->count = 0;
        pool->freeChunks -= count;
        pool->chunksOut += static_cast<uint64_t>(count);
    }
}

// Fills `fresh` from the blocks, front to back. Gives the block where it had enough, or NULL at the end of the list.
korPoolBlock* collectChunks(korEx* ex, uint8_t depth, korPool* pool, korDpa* fresh)
{
    for (korPoolBlock* block = pool->head; block != nullptr; block = block->next) {
        if (!fullyCarved(pool, block) && static_cast<uint32_t>(block->freeList->count) < pool->refillTarget) {
            initChunks(KOR_AT(ex, depth), pool, block, pool->refillTarget);
        }
        if (block->freeList->count == 0) {
            continue;
        }
        KOR_EX_CHAINED(local, ex, depth); // chunks that stand ready go out even if others could not be made
        takeFreeList(KOR_AT(&local, depth), pool, block, fresh);
        if (local.code != 0) {
            return nullptr; // the block still has its chunks: it stays where it is
        }
        if (static_cast<uint32_t>(fresh->count) >= pool->refillTarget) {
            return block;
        }
    }
    return nullptr;
}

void refreshDpa(korEx* ex, uint8_t depth, korPool* pool, korDpa* fresh)
{
    korFastLock_acquire(&pool->lock);
    while (ex->code == 0 && pool->freeChunks < static_cast<int32_t>(pool->refillTarget)) {
        addBlockToPool(KOR_AT(ex, depth), pool, pool->refillTarget);
    }
    korPoolBlock* last = collectChunks(KOR_AT(ex, depth), pool, fresh);
    if (last != nullptr) {
        rotate(pool, last);
    }
    checkBlocks(pool);
    korFastLock_release(&pool->lock);
}

void* popChunk(const korPool* pool, korDpa* chunks)
{
    void* chunk = chunkOf(chunks->items[--chunks->count]);
    kor::openChunk(pool, chunk);
    return chunk;
}

// A failure is the caller's only if there is nothing to give: one who found both a chunk and an error would lose the
// chunk.
void* refillAndGet(korEx* ex, uint8_t depth, korPool* pool, korPoolThread* thread)
{
    KOR_EX_PRIVATE(local, ex, depth);
    refreshDpa(KOR_AT(&local, depth), pool, &thread->fresh);
    if (thread->fresh.count == 0) {
        kor::passToChain(&local);
        return nullptr;
    }
    return popChunk(pool, &thread->fresh);
}

void* getFromHeap(korEx* ex, uint8_t depth, korPool* pool)
{
    void* chunk = kor::request<void>(KOR_AT(ex, depth), pool->chunkSize);
    if (chunk != nullptr && pool->initChunk != nullptr) {
        pool->initChunk(KOR_AT(ex, depth), chunk);
        if (ex->code != 0) {
            _kor_free(KOR_AT_D(depth, ex), chunk);
            return nullptr;
        }
    }
    return chunk;
}

__attribute__((noinline)) void* getSlow(korEx* ex, uint8_t depth, korPool* pool, korPoolThread* thread)
{
    if (pool->disabled) {
        return getFromHeap(KOR_AT(ex, depth), pool);
    }
    if (thread == nullptr) {
        _korPool_RegisterThread(KOR_AT(ex, depth), pool);
        thread = threadRecord(pool);
    }
    return ex->code == 0 && thread != nullptr ? refillAndGet(KOR_AT(ex, depth), pool, thread) : nullptr;
}

// ---- Chunks from a thread to the pool -------------------------------------------------------------------------------

// The caller holds `lock`, and counts what it gives.
KOR_INLINE void giveToBlock(korPoolBlock* block, void* chunk)
{
    korDpa* list = block->freeList;
    list->items[list->count++] = valueOf(chunk);
}

void countReturned(korPool* pool, int32_t count)
{
    pool->freeChunks += count;
    pool->chunksIn += static_cast<uint64_t>(count);
}

// The last `count` chunks of a thread's list go to their blocks. A block that had none comes to the front, to be found
// by the next refill.
void giveLast(korPool* pool, korDpa* chunks, int32_t count)
{
    int32_t rest = chunks->count - count;
    korFastLock_acquire(&pool->lock);
    for (int32_t index = chunks->count; index-- > rest;) {
        void* chunk = chunkOf(chunks->items[index]);
        korPoolBlock* block = *backPointer(pool, chunk);
        if (block->freeList->count == 0 && block != pool->head) {
            unlink(pool, block);
            linkFirst(pool, block);
        }
        giveToBlock(block, chunk);
    }
    chunks->count = rest;
    countReturned(pool, count);
    checkBlocks(pool);
    korFastLock_release(&pool->lock);
}

void returnChunks(korPool* pool, korPoolThread* thread, bool all)
{
    int32_t count = all ? thread->returnedCount : thread->returnedCount / 2;
    thread->returnedCount -= count;
    giveLast(pool, &thread->returned, count);
    if (all) {
        giveLast(pool, &thread->fresh, thread->fresh.count);
    }
}

void giveBack(korPool* pool, void* chunk)
{
    korFastLock_acquire(&pool->lock);
    giveToBlock(*backPointer(pool, chunk), chunk);
    countReturned(pool, 1);
    korFastLock_release(&pool->lock);
}

void keepChunk(uint8_t depth, korEx* ex, korPool* pool, korPoolThread* thread, void* chunk)
{
    KOR_EX_PRIVATE(local, ex, depth);
    _korDpa_AddSafe(KOR_AT(&local, depth), &thread->returned, valueOf(chunk));
    if (local.code != 0) { // no memory for a longer list: make room in this one
        local.code = 0;
        returnChunks(pool, thread, false);
        _korDpa_AddSafe(KOR_AT(&local, depth), &thread->returned, valueOf(chunk));
    }
    if (local.code != 0) { // half of a single slot is none
        giveBack(pool, chunk);
        return;
    }
    if (thread->returnedCount++ >= returnedLimit) {
        returnChunks(pool, thread, false);
    }
}

void returnToHeap(uint8_t depth, korEx* ex, korPool* pool, void* chunk)
{
    KOR_EX_CHAINED(local, ex, depth);
    if (pool->destroyChunk != nullptr) {
        pool->destroyChunk(KOR_AT(&local, depth), chunk);
    }
    _kor_free(KOR_AT_D(depth, &local), chunk);
}

__attribute__((noinline)) void returnSlow(uint8_t depth, korEx* ex, korPool* pool, korPoolThread* thread, void* chunk)
{
    if (pool->disabled) {
        returnToHeap(KOR_AT_D(depth, ex), pool, chunk);
        return;
    }
    kor::closeChunk(pool, chunk);
    if (thread != nullptr) {
        keepChunk(KOR_AT_D(depth, ex), pool, thread, chunk);
        return;
    }
    giveBack(pool, chunk);
}

// ---- Giving memory back ---------------------------------------------------------------------------------------------

// One pass: a block that was wholly free before, and is again, goes unless it is one of those that the pool keeps. The
// first wholly free block that is not marked yet is spared the mark, so that a pool at rest keeps one block at hand.
// A task of the global timer.
void _korPool_ReturnMemory(korEx* ex, uint8_t depth, korTimer*, uint64_t, void* closure)
{
    auto* pool = static_cast<korPool*>(closure);
    bool spare = true;
    korFastLock_acquire(&pool->lock);
    for (korPoolBlock *block = pool->head, *next; block != nullptr; block = next) {
        next = block->next;
        if (!whollyFree(block)) {
            continue;
        }
        if (block->idle) {
            if (pool->blockCount > pool->minBlocks) {
                removeBlockFromPool(KOR_AT_D(depth, ex), pool, block);
            }
        } else if (spare) {
            spare = false;
        } else {
            block->idle = 1;
        }
    }
    checkBlocks(pool);
    korFastLock_release(&pool->lock);
}

// ---- The end of a pool ----------------------------------------------------------------------------------------------

void freePool(uint8_t depth, korEx* ex, korPool* pool)
{
    korFastLock_acquire(&pool->lock);
    while (pool->head != nullptr) {
        removeBlockFromPool(KOR_AT_D(depth, ex), pool, pool->head);
    }
    korFastLock_release(&pool->lock);
    _korFastLock_Clear(KOR_AT_D(depth, ex), &pool->lock);
    _korThreadLocal_Destroy(KOR_AT_D(depth, ex), pool->threadKey);
    _kor_free(KOR_AT_D(depth, ex), pool);
}

// Drops one reference; the last one frees the pool.
void releasePool(uint8_t depth, korEx* ex, korPool* pool)
{
    if (pool->id == 0 || _korObjectMap_Release(KOR_AT_D(depth, ex), pool->id)) {
        freePool(KOR_AT_D(depth, ex), pool);
    }
}

// The end of that task, whose reference lets a pool be destroyed while the task runs.
void _korPool_ReleaseReturnMemory(korEx* ex, uint8_t depth, void* closure)
{
    releasePool(KOR_AT_D(depth, ex), static_cast<korPool*>(closure));
}

// A pool of the time before the opening has no task: its memory goes with the pool.
void startReturningMemory(korEx* ex, uint8_t depth, korPool* pool)
{
    constexpr int64_t delay = 30000; // milliseconds, as the period
    constexpr int64_t period = 60000;
    if (ex->code != 0) {
        return;
    }
    pool->timer = _korTimer_GetGlobal(KOR_AT_D(depth, ex));
    if (pool->timer == nullptr) {
        return;
    }
    _korObjectMap_Get(KOR_AT(ex, depth), pool->id); // the task's reference
    pool->task = _korTimer_ScheduleTask(KOR_AT(ex, depth), pool->timer, _korPool_ReturnMemory,
                                        _korPool_ReleaseReturnMemory, pool, delay, period);
    if (ex->code == KOR_ERROR_ILLEGAL_STATE) { // refused: the reference is still ours
        releasePool(KOR_AT_D(depth, ex), pool);
    }
}

// The library may have been closed since: then the task is gone, and only the timer's memory is still there.
void stopReturningMemory(uint8_t depth, korEx* ex, korPool* pool)
{
    constexpr uint8_t component = 1;
    KOR_EX_PRIVATE(local, ex, depth);
    if (!_korTimer_CancelTask(KOR_AT_D(depth, &local), pool->timer, pool->task)) {
        KOR_LOG(component, KOR_LOG_DEBUG, "Delayed 'returnMemory' task cancellation for pool %llx.",
                static_cast<unsigned long long>(valueOf(pool)));
    }
    _korTimer_Release(KOR_AT_D(depth, &local), pool->timer);
}

// ---- The end of a thread --------------------------------------------------------------------------------------------

void _korPool_DestroyLC(uint8_t depth, korEx* ex, korPoolThread* thread)
{
    auto* pool = static_cast<korPool*>(_korObjectMap_Get(KOR_AT(ex, depth), thread->poolId));
    if (pool != nullptr) { // else its chunks went with it
        returnChunks(pool, thread, true);
    }
    _korDpa_Clear(KOR_AT_D(depth, ex), &thread->returned);
    _korDpa_Clear(KOR_AT_D(depth, ex), &thread->fresh);
    if (pool != nullptr) {
        releasePool(KOR_AT_D(depth, ex), pool);
    }
    _kor_free(KOR_AT_D(depth, ex), thread);
}

void _korPoolLC_Destructor(uint64_t value)
{
    KOR_EX_LOCAL(local);
    _korPool_DestroyLC(KOR_AT_D(0, &local), reinterpret_cast<korPoolThread*>(value));
}

// ---- Making a pool --------------------------------------------------------------------------------------------------

// Stride and block size; false if a block would reach 4 GiB.
bool setSizes(korPool* pool, uint32_t chunksPerBlock, uint32_t chunkSize)
{
    pool->chunkSize = chunkSize;
    pool->chunksPerBlock = chunksPerBlock;
    pool->backPointerOffset = (chunkSize + 7) & ~7u;
    pool->stride = pool->backPointerOffset + 8;
    return !__builtin_mul_overflow(pool->stride, chunksPerBlock, &pool->blockBytes);
}

void fillPool(korEx* ex, uint8_t depth, korPool* pool)
{
    pool->id = _korObjectMap_Register(KOR_AT(ex, depth), pool);
    pool->threadKey = static_cast<uint16_t>(_korThreadLocal_Create(KOR_AT(ex, depth), _korPoolLC_Destructor));
    while (ex->code == 0 && pool->blockCount < pool->minBlocks) {
        addBlockToPool(KOR_AT(ex, depth), pool, pool->chunksPerBlock);
    }
    startReturningMemory(KOR_AT(ex, depth), pool);
}

} // namespace

korPool* _korPool_CreateWithMaxCache(korEx* ex, uint8_t depth, int32_t chunksPerBlock, int32_t chunkSize,
                                     korPoolChunkFunction initChunk, korPoolChunkFunction destroyChunk,
                                     int32_t minBlocks, int32_t refillTarget, int64_t maxCache)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (chunksPerBlock < 1 || chunkSize < 1 || minBlocks < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    auto* pool = kor::requestZeroed<korPool>(KOR_AT(ex, depth));
    if (pool == nullptr) {
        return nullptr;
    }
    pool->disabled = KOR_ATOMIC_LOAD_RELAXED(&gPoolDisable);
    pool->minBlocks = pool->disabled ? 0 : static_cast<uint32_t>(minBlocks);
    pool->refillTarget = static_cast<uint32_t>(std::max(refillTarget, 1));
    pool->initChunk = initChunk;
    pool->destroyChunk = destroyChunk;
    pool->maxCache = maxCache > 0 ? maxCache : INT64_MAX;
    _korFastLock_Init(KOR_AT_D(depth, ex), &pool->lock, 0);
    if (!setSizes(pool, static_cast<uint32_t>(chunksPerBlock), static_cast<uint32_t>(chunkSize))) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
    fillPool(KOR_AT(ex, depth), pool);
    if (ex->code != 0) {
        _korPool_Destroy(KOR_AT_D(depth, ex), pool);
        return nullptr;
    }
    return pool;
}

korPool* _korPool_Create(korEx* ex, uint8_t depth, int32_t chunksPerBlock, int32_t chunkSize,
                         korPoolChunkFunction initChunk, korPoolChunkFunction destroyChunk, int32_t minBlocks,
                         int32_t refillTarget)
{
    return _korPool_CreateWithMaxCache(KOR_AT(ex, depth), chunksPerBlock, chunkSize, initChunk, destroyChunk, minBlocks,
                                       refillTarget, 0);
}

void _korPool_Destroy(uint8_t depth, korEx* ex, korPool* pool)
{
    if (pool == nullptr) {
        return;
    }
    stopReturningMemory(KOR_AT_D(depth, ex), pool);
    if (pool->id != 0) {
        KOR_EX_CHAINED(local, ex, depth);
        _korObjectMap_Unregister(KOR_AT(&local, depth), pool->id); // from here on no thread finds the pool
    }
    releasePool(KOR_AT_D(depth, ex), pool);
}

void* _korPool_Get(korEx* ex, uint8_t depth, korPool* pool)
{
    if (KOR_UNLIKELY(ex->code != 0)) {
        return nullptr;
    }
    korPoolThread* thread = threadRecord(pool);
    if (KOR_UNLIKELY(thread == nullptr)) {
        return getSlow(KOR_AT(ex, depth), pool, thread);
    }
    int32_t count = thread->returnedCount;
    if (KOR_LIKELY(count > 0)) {
        thread->returnedCount = thread->returned.count = --count;
        void* chunk = chunkOf(thread->returned.items[count]);
        kor::openChunk(pool, chunk);
        return chunk;
    }
    return thread->fresh.count > 0 ? popChunk(pool, &thread->fresh) : getSlow(KOR_AT(ex, depth), pool, thread);
}

void _korPool_Return(uint8_t depth, korEx* ex, korPool* pool, void* chunk)
{
    if (KOR_UNLIKELY(pool == nullptr || chunk == nullptr)) {
        return;
    }
    korPoolThread* thread = threadRecord(pool);
    int32_t count = thread != nullptr ? thread->returnedCount : returnedLimit;
    if (KOR_UNLIKELY(count >= returnedLimit || count == thread->returned.capacity)) {
        returnSlow(KOR_AT_D(depth, ex), pool, thread, chunk);
        return;
    }
    kor::closeChunk(pool, chunk);
    thread->returned.items[count] = valueOf(chunk);
    thread->returnedCount = thread->returned.count = count + 1;
}

void _korPool_RegisterThread(korEx* ex, uint8_t depth, korPool* pool)
{
    if (ex->code != 0 || pool->disabled || threadRecord(pool) != nullptr) {
        return;
    }
    auto* thread = kor::requestZeroed<korPoolThread>(KOR_AT(ex, depth));
    if (thread == nullptr) {
        return;
    }
    auto capacity = static_cast<int32_t>(pool->refillTarget);
    thread->poolId = pool->id;
    _korDpa_Init(KOR_AT(ex, depth), &thread->returned, capacity);
    _korDpa_Init(KOR_AT(ex, depth), &thread->fresh, capacity);
    _korThreadLocal_Set(KOR_AT(ex, depth), pool->threadKey, reinterpret_cast<uint64_t>(thread));
    if (ex->code != 0) {
        _korDpa_Clear(KOR_AT_D(depth, ex), &thread->returned);
        _korDpa_Clear(KOR_AT_D(depth, ex), &thread->fresh);
        _kor_free(KOR_AT_D(depth, ex), thread);
    }
}

uint32_t _korPool_Memory(korPool* pool, uint32_t* total, uint32_t* free)
{
    korFastLock_acquire(&pool->lock);
    uint32_t chunks = pool->chunksPerBlock * pool->blockCount;
    uint32_t freeChunks = static_cast<uint32_t>(pool->freeChunks);
    korFastLock_release(&pool->lock);
    if (total != nullptr) {
        *total = chunks;
    }
    if (free != nullptr) {
        *free = freeChunks;
    }
    return chunks * pool->stride;
}

uint32_t _korPool_ChunkSize(const korPool* pool)
{
    return pool->chunkSize;
}
