// cachedChunk.h - a chunk given back to a pool cache, by owners that have no place to keep one that the cache refuses.
// A cache that could not grow leaves the chunk with its caller; the pool takes it then.

#pragma once

#include "korutil/korPoolCache.h"

namespace kor {

/// Tells the caller that the cache could not grow.
inline void returnToCacheOpenly(uint8_t depth, korEx* ex, korPoolCache* cache, void* chunk)
{
    int32_t cached = cache->chunks.count;
    bool keeps = cached < cache->maxSize;
    _korPoolCache_Return(KOR_AT_D(depth, ex), cache, chunk);
    if (keeps && cache->chunks.count == cached) {
        _korPool_Return(KOR_AT_D(depth, ex), cache->pool, chunk);
    }
}

/// Tells nobody: what the caller wanted to be rid of is gone.
inline void returnToCache(uint8_t depth, korEx* ex, korPoolCache* cache, void* chunk)
{
    KOR_EX_PRIVATE(own, ex, depth);
    returnToCacheOpenly(KOR_AT_D(depth, &own), cache, chunk);
}

} // namespace kor
