// korPoolCache_test.cpp - the stack in front of a pool: what it keeps, the pool's limit on all of them, its end.

#include "korutil/korAlloc.h"
#include "korutil/korPoolCache.h"
#include "korutil/korThreadLocal.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <array>
#include <vector>

using kor::test::KorTest;

namespace {

class PoolCacheTest : public KorTest
{
protected:
    korPool* createPool(int64_t maxCache = 0)
    {
        return _korPool_CreateWithMaxCache(KOR_AT(ex, 0), 100, 32, nullptr, nullptr, 1, 10, maxCache);
    }
    korPoolCache* create(int64_t size, korPool* pool) { return _korPoolCache_Create(KOR_AT(ex, 0), size, pool); }
    void* get(korPoolCache* cache) { return _korPoolCache_Get(KOR_AT(ex, 0), cache); }
    void giveBack(korPoolCache* cache, void* chunk) { _korPoolCache_Return(KOR_AT_D(0, ex), cache, chunk); }
    void destroy(korPoolCache* cache) { _korPoolCache_Destroy(KOR_AT_D(0, ex), cache); }
    // Ends the pool; every chunk must be back in it.
    void destroyWhole(korPool* pool)
    {
        uint32_t total, free;
        _korThreadLocal_ForceDestructors(KOR_AT_D(0, ex));
        _korPool_Memory(pool, &total, &free);
        EXPECT_EQ(free, total);
        EXPECT_EQ(pool->usedCache, 0);
        _korPool_Destroy(KOR_AT_D(0, ex), pool);
    }
};

TEST_F(PoolCacheTest, SizesAndTheLimitOfThePool)
{
    struct Case {
        int64_t limit, asked, first, second, third;
    };
    for (Case one : {Case{0, 0, 256, 256, 256}, Case{0, -1, 0, 0, 0}, Case{0, INT64_MIN, 0, 0, 0}, Case{0, 7, 7, 7, 7},
                     Case{300, 256, 256, 44, 0}, Case{300, INT64_MAX, 300, 0, 0}}) {
        korPool* pool = createPool(one.limit);
        korPoolCache* caches[] = {create(one.asked, pool), create(one.asked, pool), create(one.asked, pool)};
        ASSERT_CLEAN();
        EXPECT_EQ(caches[0]->maxSize, one.first);
        EXPECT_EQ(caches[1]->maxSize, one.second);
        EXPECT_EQ(caches[2]->maxSize, one.third);
        EXPECT_EQ(pool->usedCache, one.first + one.second + one.third);
        for (korPoolCache* cache : caches) {
            destroy(cache);
        }
        destroyWhole(pool);
    }
}

TEST_F(PoolCacheTest, KeepsWhatFitsAndPassesTheRestOn)
{
    korPool* pool = createPool();
    korPoolCache cache;
    _korPoolCache_Init(KOR_AT(ex, 0), &cache, 3, pool);
    std::vector<void*> chunks;
    for (int i = 0; i < 5; i++) {
        chunks.push_back(get(&cache));
    }
    for (void* chunk : chunks) {
        giveBack(&cache, chunk);
    }
    EXPECT_EQ(cache.chunks.count, 3);
    EXPECT_EQ(_korPool_Get(KOR_AT(ex, 0), pool), chunks[4]) << "the cache was full";
    EXPECT_EQ(_korPool_Get(KOR_AT(ex, 0), pool), chunks[3]);
    EXPECT_EQ(get(&cache), chunks[2]) << "the last returned comes first";
    giveBack(&cache, chunks[2]);

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    _korPoolCache_Clear(KOR_AT_D(0, ex), &cache);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(cache.chunks.count, 0);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(_korPool_Get(KOR_AT(ex, 0), pool), chunks[static_cast<size_t>(i)]) << "they went last in, first out";
    }
    for (void* chunk : chunks) {
        _korPool_Return(KOR_AT_D(0, ex), pool, chunk);
    }
    destroyWhole(pool);
}

TEST_F(PoolCacheTest, EveryRequestMayFail)
{
    auto scenario = [&] {
        korPool* pool = createPool(20);
        korPoolCache* cache = pool == nullptr ? nullptr : create(10, pool);
        if (cache != nullptr) {
            std::array<void*, 8> chunks; // a container would ask the failing heap
            auto end = chunks.begin();
            while (end != chunks.end() && (*end = get(cache)) != nullptr) {
                end++;
            }
            for (auto chunk = chunks.begin(); chunk != end; chunk++) {
                int32_t before = cache->chunks.count;
                giveBack(cache, *chunk);
                if (cache->chunks.count == before) { // could not grow: the chunk is still ours
                    EXPECT_EQ(ex->code, KOR_ERROR_NO_MEMORY);
                    _korPool_Return(KOR_AT_D(0, ex), pool, *chunk);
                }
            }
        }
        destroy(cache);
        if (pool != nullptr) {
            destroyWhole(pool);
        }
    };
    scenario(); // what a process makes once
    EXPECT_GT(kor::test::sweepFailures(ex, scenario), 5u);
}

} // namespace
