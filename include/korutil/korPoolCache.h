// korPoolCache.h - a stack of free chunks in front of a pool, for one owner that gets and returns them in bursts.
//
// The owner serialises its use: a cache has no lock, and reaching it needs no thread-local read.
//
// Recipe of use:
//
//     korPoolCache cache;
//     _korPoolCache_Init(KOR_AT(ex, depth), &cache, 0, pool);
//     void* chunk = _korPoolCache_Get(KOR_AT(ex, depth), &cache);
//     _korPoolCache_Return(KOR_AT_D(depth, ex), &cache, chunk);
//     _korPoolCache_Clear(KOR_AT_D(depth, ex), &cache);      // once; before the pool goes

#ifndef KORUTIL_KORPOOLCACHE_H
#define KORUTIL_KORPOOLCACHE_H

#include "korutil/korPool.h"

KOR_BEGIN_DECLS

/// The cache: in place in its owner, or on the heap. A zeroed record is an empty cache without a pool.
typedef struct korPoolCache {
    korDpa chunks;   ///< the cached chunks
    korPool* pool;   ///< where they come from
    int64_t maxSize; ///< the most that the cache keeps; 0 = keeps nothing
} korPoolCache;

/// Makes a cache in a caller's storage. `size` is the most chunks that it keeps: 0 means 256, -1 means none. It is cut
/// to what the pool's limit leaves; a cache on a disabled pool keeps nothing. With an error pending nothing happens,
/// and there is nothing to clear. Code 2. Ended with _korPoolCache_Clear.
KOR_API void _korPoolCache_Init(korEx* ex, uint8_t depth, korPoolCache* cache, int64_t size, korPool* pool);

/// The same on the heap; NULL and code 2 if memory is short. Ended with _korPoolCache_Destroy.
KOR_API korPoolCache* _korPoolCache_Create(korEx* ex, uint8_t depth, int64_t size, korPool* pool);

/// Gives every chunk back to the pool, and its share of the pool's limit. NULL is accepted. Once for each init.
KOR_API void _korPoolCache_Clear(uint8_t depth, korEx* ex, korPoolCache* cache);

/// Clears a cache of _korPoolCache_Create and frees it. NULL is accepted.
KOR_API void _korPoolCache_Destroy(uint8_t depth, korEx* ex, korPoolCache* cache);

/// The chunk cached last, or one of the pool. NULL and the pool's error on a failure.
KOR_INLINE void* _korPoolCache_Get(korEx* ex, uint8_t depth, korPoolCache* cache)
{
    if (KOR_LIKELY(cache->chunks.count > 0)) {
        return (void*)(uintptr_t)cache->chunks.items[--cache->chunks.count];
    }
    return _korPool_Get(KOR_AT(ex, depth), cache->pool);
}

/// Gives a chunk to the cache, or to the pool if the cache is full. Works with an error pending. If the cache cannot
/// grow: code 2, and the chunk is still the caller's.
KOR_INLINE void _korPoolCache_Return(uint8_t depth, korEx* ex, korPoolCache* cache, void* chunk)
{
    if (KOR_UNLIKELY(cache->chunks.count >= cache->maxSize)) {
        _korPool_Return(KOR_AT_D(depth, ex), cache->pool, chunk);
    } else {
        _korDpa_AddSafe(KOR_AT(ex, depth), &cache->chunks, (uint64_t)(uintptr_t)chunk);
    }
}

KOR_END_DECLS

#endif
