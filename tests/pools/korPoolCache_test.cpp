// korPoolCache_test.cpp - the stack in front of a pool: what it keeps, the pool's limit on all of them, its end.

#include "korutil/korAlloc.h"
#include "korutil/korPoolCache.h"
#include "korutil/korThreadLocal.h"
#include "support/failingHeap.h"

#include <array>

using namespace kor::test;

namespace {

class PoolCacheTest : public KorTest
{
protected:
    void createPool(int64_t maxCache, bool disabled = false)
    {
        KOR_ATOMIC_STORE(&gPoolDisable, static_cast<uint8_t>(disabled));
        pool = _korPool_CreateWithMaxCache(ex, 0, 100, 32, nullptr, nullptr, 1, 10, maxCache);
        KOR_ATOMIC_STORE(&gPoolDisable, uint8_t{0});
    }
    // Ends the pool; every chunk must be back in it.
    void destroyPool()
    {
        uint32_t total, free;
        _korThreadLocal_ForceDestructors(0, ex);
        _korPool_Memory(pool, &total, &free);
        EXPECT_EQ(free, total);
        EXPECT_TRUE(pool->disabled || pool->usedCache == 0) << pool->usedCache;
        _korPool_Destroy(0, ex, pool);
    }
    korPoolCache* create(int64_t size) { return _korPoolCache_Create(ex, 0, size, pool); }

    korPool* pool = nullptr;
};

TEST_F(PoolCacheTest, SizesAndTheLimitOfThePool)
{
    struct {
        int64_t limit, asked, sizes[3];
        bool disabled = false;
    } cases[] = {{0, 0, {256, 256, 256}}, {0, -1, {0, 0, 0}},       {0, INT64_MIN, {0, 0, 0}},
                 {0, 7, {7, 7, 7}},       {300, 256, {256, 44, 0}}, {300, INT64_MAX, {300, 0, 0}},
                 {0, 7, {0, 0, 0}, true}};
    for (const auto& c : cases) {
        createPool(c.limit, c.disabled);
        korPoolCache* caches[] = {create(c.asked), create(c.asked), create(c.asked)};
        for (size_t i = 0; i < 3; i++) {
            EXPECT_EQ(caches[i]->maxSize, c.sizes[i]) << c.asked << " of " << c.limit;
        }
        _korPoolCache_Return(0, ex, caches[1], _korPoolCache_Get(ex, 0, caches[1]));
        EXPECT_EQ(caches[1]->chunks.count, caches[1]->maxSize > 0);
        for (korPoolCache* cache : caches) {
            _korPoolCache_Destroy(0, ex, cache);
        }
        destroyPool();
    }
    _korPoolCache_Destroy(0, ex, nullptr);
}

TEST_F(PoolCacheTest, KeepsWhatFitsAndPassesTheRestOn)
{
    createPool(0);
    korPoolCache cache;
    _korPoolCache_Init(ex, 0, &cache, 3, pool);
    std::array<void*, 5> chunks;
    for (void*& chunk : chunks) {
        chunk = _korPoolCache_Get(ex, 0, &cache);
    }
    for (void* chunk : chunks) {
        _korPoolCache_Return(0, ex, &cache, chunk);
    }
    EXPECT_EQ(cache.chunks.count, 3);
    EXPECT_EQ(_korPool_Get(ex, 0, pool), chunks[4]) << "the cache was full";
    EXPECT_EQ(_korPool_Get(ex, 0, pool), chunks[3]);
    EXPECT_EQ(_korPoolCache_Get(ex, 0, &cache), chunks[2]) << "the last returned comes first";
    _korPoolCache_Return(0, ex, &cache, chunks[2]);

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(create(1), nullptr);
    _korPoolCache_Clear(0, ex, &cache);
    _korPoolCache_Clear(0, ex, nullptr);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    _korPool_Return(0, ex, pool, chunks[3]);
    _korPool_Return(0, ex, pool, chunks[4]);
    destroyPool();
}

TEST_F(PoolCacheTest, EveryRequestMayFail)
{
    auto scenario = [&] {
        createPool(20);
        korPoolCache* cache = create(10);
        if (cache != nullptr) {
            std::array<void*, 8> chunks; // a container would ask the failing heap
            for (void*& chunk : chunks) {
                chunk = _korPoolCache_Get(ex, 0, cache);
            }
            for (void* chunk : chunks) {
                int32_t before = cache->chunks.count;
                if (chunk != nullptr) {
                    _korPoolCache_Return(0, ex, cache, chunk);
                }
                if (cache->chunks.count == before) { // could not grow: the chunk is still ours
                    EXPECT_EQ(ex->code, KOR_ERROR_NO_MEMORY);
                    _korPool_Return(0, ex, pool, chunk);
                }
            }
        }
        _korPoolCache_Destroy(0, ex, cache);
        if (pool != nullptr) {
            destroyPool();
        }
    };
    scenario(); // what a process makes once
    EXPECT_GT(sweepFailures(ex, scenario), 5u);
}

} // namespace
