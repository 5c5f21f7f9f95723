// korPoolCache.cpp - a stack of free chunks for one owner. What all caches of a pool may keep is counted in the pool,
// under its lock; nothing else of a cache is shared.

#include "korutil/korPoolCache.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <algorithm>

namespace {

static_assert(offsetof(korPoolCache, pool) == 24 && sizeof(korPoolCache) == 40);

constexpr int64_t defaultSize = 256;

int64_t wantedSize(int64_t size)
{
    return size == 0 ? defaultSize : std::max<int64_t>(size, 0);
}

// Takes up to `wanted` of what the pool's limit leaves, and gives how much it was.
int64_t claim(korPool* pool, int64_t wanted)
{
    korFastLock_acquire(&pool->lock);
    int64_t size = std::min(wanted, std::max<int64_t>(pool->maxCache - pool->usedCache, 0));
    pool->usedCache += size;
    korFastLock_release(&pool->lock);
    return size;
}

} // namespace

void _korPoolCache_Init(korEx* ex, uint8_t depth, korPoolCache* cache, int64_t size, korPool* pool)
{
    if (ex->code != 0) {
        return;
    }
    cache->pool = pool;
    cache->maxSize = claim(pool, wantedSize(size));
    if (pool->disabled) {
        cache->maxSize = 0; // what was claimed stays claimed
    }
    _korDpa_Init(KOR_AT(ex, depth), &cache->chunks, 1);
    if (ex->code != 0) {
        _korPoolCache_Clear(KOR_AT_D(depth, ex), cache);
    }
}

korPoolCache* _korPoolCache_Create(korEx* ex, uint8_t depth, int64_t size, korPool* pool)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* cache = kor::requestZeroed<korPoolCache>(KOR_AT(ex, depth));
    if (cache == nullptr) {
        return nullptr;
    }
    _korPoolCache_Init(KOR_AT(ex, depth), cache, size, pool);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), cache);
        return nullptr;
    }
    return cache;
}

void _korPoolCache_Clear(uint8_t depth, korEx* ex, korPoolCache* cache)
{
    if (cache == nullptr) {
        return;
    }
    while (cache->chunks.count > 0) {
        void* chunk = reinterpret_cast<void*>(cache->chunks.items[--cache->chunks.count]);
        _korPool_Return(KOR_AT_D(depth, ex), cache->pool, chunk);
    }
    _korDpa_Clear(KOR_AT_D(depth, ex), &cache->chunks);
    if (cache->pool != nullptr) {
        korFastLock_acquire(&cache->pool->lock);
        cache->pool->usedCache -= cache->maxSize;
        korFastLock_release(&cache->pool->lock);
    }
}

void _korPoolCache_Destroy(uint8_t depth, korEx* ex, korPoolCache* cache)
{
    if (cache != nullptr) {
        _korPoolCache_Clear(KOR_AT_D(depth, ex), cache);
        _kor_free(KOR_AT_D(depth, ex), cache);
    }
}
