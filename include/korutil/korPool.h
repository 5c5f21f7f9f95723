// korPool.h - chunks of one size, from a cache of the calling thread.
//
// A get and a return on a thread that knows the pool are a thread-local read and a pop or a push: no lock, no atomic
// instruction, no heap. Threads take chunks from the pool's blocks in batches and give them back there when they hold
// some 256. A chunk may be returned on another thread than the one that got it. Blocks are carved into chunks as they
// are needed, so the pages of a large block stay untouched until then.
//
// Recipe of use:
//
//     korPool* pool = _korPool_Create(KOR_AT(ex, depth), 100, sizeof(record), NULL, NULL, 1, 10);
//     record* one = (record*)_korPool_Get(KOR_AT(ex, depth), pool);
//     ...
//     _korPool_Return(KOR_AT_D(depth, ex), pool, one);
//     _korPool_Destroy(KOR_AT_D(depth, ex), pool);
//
// A chunk must not outlive its pool. Its first bytes are aligned to 8.

#ifndef KORUTIL_KORPOOL_H
#define KORUTIL_KORPOOL_H

#include "korutil/korDpa.h"
#include "korutil/korFastLock.h"

KOR_BEGIN_DECLS

/// Prepares a chunk when it is first carved, or ends it when its block goes away. A failure to prepare, left in `ex`,
/// is that of the get that needed the chunk.
typedef void (*korPoolChunkFunction)(korEx* ex, uint8_t depth, void* chunk);

/// Memory for `chunksPerBlock` chunks.
typedef struct korPoolBlock {
    struct korPool* pool;          ///< whose block it is
    struct korPoolBlock* previous; ///< towards the head of the list
    struct korPoolBlock* next;     ///< towards its tail
    korDpa* freeList;              ///< chunks of this block that are free in the pool
    uint8_t* memory;               ///< `bytes` long
    uint32_t carved;               ///< chunks made ready so far, from the start of `memory`
    uint32_t bytes;                ///< the pool's `blockBytes`
    uint8_t idle;                  ///< was wholly free when memory was last given back
} korPoolBlock;

/// A pool. Its fields are the library's own.
struct korPool {
    korFastLock lock;                  ///< guards the block list and the counts
    uint8_t disabled;                  ///< 1 = every get is a heap allocation
    uint16_t threadKey;                ///< thread-local key of the threads' caches
    uint64_t id;                       ///< the pool's id in the object map
    uint32_t blockBytes;               ///< `stride` times `chunksPerBlock`
    uint32_t chunkSize;                ///< as the user asked for it
    uint32_t stride;                   ///< distance between chunks: `backPointerOffset` + 8
    uint32_t chunksPerBlock;           ///< at least 1
    uint32_t backPointerOffset;        ///< `chunkSize` rounded up to 8; a pointer to the chunk's block stands there
    uint32_t minBlocks;                ///< blocks that the pool makes up front and keeps
    uint32_t refillTarget;             ///< chunks that a thread takes at once; at least 1
    uint32_t blockCount;               ///< blocks in the list
    korPoolBlock* head;                ///< of the block list
    korPoolBlock* tail;                ///< of the block list
    korPoolChunkFunction initChunk;    ///< or NULL
    korPoolChunkFunction destroyChunk; ///< or NULL
    int32_t freeChunks;                ///< chunks that no thread has, carved or not
    uint64_t chunksOut;                ///< chunks handed to threads so far
    uint64_t chunksIn;                 ///< chunks back from threads so far
    struct korTimer* timer;            ///< of `task`
    uint64_t task;                     ///< gives memory back from time to time; 0 = none
    int64_t maxCache;                  ///< the most that the pool's korPoolCaches may hold together
    int64_t usedCache;                 ///< what they may hold so far
};

// ---- Making and ending ----------------------------------------------------------------------------------------------

/// Makes a pool of chunks of `chunkSize` bytes, `chunksPerBlock` in each block of memory. `minBlocks` blocks are made
/// at once and kept for the pool's life. A thread takes `refillTarget` chunks at a time (below 1 means 1). `initChunk`
/// and `destroyChunk` may be NULL; a chunk keeps its contents between them, across returns and gets.
///
/// NULL on a failure: code 1 (no description) for a chunk size or a number of chunks below 1, a negative number of
/// blocks, or blocks that reach 4 GiB; code 2; code 9 (no description) while the library opens or closes; what
/// `initChunk` raised. Given up with _korPool_Destroy.
KOR_API korPool* _korPool_Create(korEx* ex, uint8_t depth, int32_t chunksPerBlock, int32_t chunkSize,
                                 korPoolChunkFunction initChunk, korPoolChunkFunction destroyChunk, int32_t minBlocks,
                                 int32_t refillTarget);

/// The same with a limit on what the pool's korPoolCaches may hold together, in chunks; 0 = no limit.
KOR_API korPool* _korPool_CreateWithMaxCache(korEx* ex, uint8_t depth, int32_t chunksPerBlock, int32_t chunkSize,
                                             korPoolChunkFunction initChunk, korPoolChunkFunction destroyChunk,
                                             int32_t minBlocks, int32_t refillTarget, int64_t maxCache);

/// Gives the pool up: all its memory goes, chunks in use included. Threads that still cache chunks of it may live on.
/// NULL is accepted.
KOR_API void _korPool_Destroy(uint8_t depth, korEx* ex, korPool* pool);

// ---- Chunks ---------------------------------------------------------------------------------------------------------

/// A chunk, its contents as they were left or as `initChunk` made them; the one returned last comes first. NULL with an
/// error pending or on a failure: code 2, or what `initChunk` raised. Any thread.
KOR_API void* _korPool_Get(korEx* ex, uint8_t depth, korPool* pool);

/// Gives a chunk back. NULL for either is accepted. Any thread. Works with an error pending; if the thread's cache
/// cannot grow, chunks go to the pool instead.
KOR_API void _korPool_Return(uint8_t depth, korEx* ex, korPool* pool, void* chunk);

/// Makes the calling thread known to the pool, which its first get would do. Code 2.
KOR_API void _korPool_RegisterThread(korEx* ex, uint8_t depth, korPool* pool);

// ---- Questions ------------------------------------------------------------------------------------------------------

/// The bytes of the pool's chunks, with their number in `*total` and, in `*free`, how many of them no thread has.
/// Either pointer may be NULL.
KOR_API uint32_t _korPool_Memory(korPool* pool, uint32_t* total, uint32_t* free);

/// The size of a chunk, as it was asked for.
KOR_API uint32_t _korPool_ChunkSize(const korPool* pool);

KOR_END_DECLS

#endif
