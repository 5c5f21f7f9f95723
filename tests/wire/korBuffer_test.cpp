// korBuffer_test.cpp - where records and areas come from and go back to, for each kind of area and each fit of cache
// and pool; growth and replacement; holders on several threads; failing allocations.

#include "korutil/korBuffer.h"

#include "korutil/korAlloc.h"
#include "korutil/korLib.h"
#include "support/failingHeap.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kor::test;

constexpr int32_t recordSize = sizeof(korBuffer);

class KorBuffer : public KorTest
{
protected:
    KorBuffer()
    {
        _korutil_Open(ex, 0, KORUTIL_LEVEL);
        pool = _korPool_Create(ex, 0, 10, recordSize + 100, nullptr, nullptr, 1, 1);
        _korPoolCache_Init(ex, 0, &cache, 2, pool);
    }

    ~KorBuffer() override
    {
        _korPoolCache_Clear(0, ex, &cache);
        _korPool_Destroy(0, ex, pool);
        _korutil_Close(0, ex);
    }

    korBuffer* makeInline() { return _korBuffer_CreateFromCacheOrPool(ex, 0, &cache, nullptr, 100); }
    korBuffer* makeOwn(int32_t size) { return _korBuffer_CreateWithData(ex, 0, nullptr, size); }
    void release(korBuffer* buffer, korPoolCache* to = nullptr) { _korBuffer_ReleaseToCache(0, ex, buffer, to); }

    static void expectArea(const korBuffer* buffer, const void* data, int32_t capacity)
    {
        EXPECT_EQ(buffer->data, data);
        EXPECT_EQ(buffer->position, data);
        EXPECT_EQ(buffer->end, buffer->data + capacity);
        EXPECT_EQ(buffer->capacity, capacity);
        EXPECT_EQ(buffer->refCount, 1);
    }

    korPool* pool = nullptr; // of records with 100 bytes
    korPoolCache cache = {}; // in front of it, for two
};

TEST_F(KorBuffer, TheChunkSizeDecidesWhatAPoolGives)
{
    struct Case {
        korPoolCache* cache;
        korPool* pool;
        int32_t size;
        korPool* from;
        int32_t capacity;
        bool inlineData;
    };
    void* data = _kor_malloc(ex, 0, 8);
    korBuffer* taken = _korBuffer_CreateWithData(ex, 0, data, 8);
    expectArea(taken, data, 8);
    korPool* defaultPool = taken->pool;
    release(taken); // and with it the data, as the leak checker sees
    korPool* tiny = _korBuffer_GetPoolWithData(ex, 0, 10, 5);
    korPool* bare = _korBuffer_GetPoolWithData(ex, 0, 10, 0);
    EXPECT_EQ(_korBuffer_GetPoolWithData(ex, 0, 10, 5), tiny);
    const Case cases[] = {
        {&cache, bare, 100, pool, 100, true}, // the cache's pool goes before the argument
        {&cache, nullptr, 99, defaultPool, 99, false},
        {nullptr, pool, 7, defaultPool, 32, false},
        {nullptr, tiny, 5, tiny, 5, true}, // inline: no least size
        {nullptr, bare, 5, bare, 32, false},
        {nullptr, tiny, -5, defaultPool, 32, false},
        {nullptr, nullptr, 33, nullptr, 33, false},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(&one - cases);
        korBuffer* buffer = _korBuffer_CreateFromCacheOrPool(ex, 0, one.cache, one.pool, one.size);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->pool, one.from);
        EXPECT_EQ(buffer->inlineData, one.inlineData);
        EXPECT_TRUE(!one.inlineData || buffer->data == reinterpret_cast<uint8_t*>(buffer + 1));
        expectArea(buffer, buffer->data, one.capacity);
        std::memset(buffer->data, 1, static_cast<size_t>(one.capacity));
        release(buffer);
    }
}

TEST_F(KorBuffer, ARecordGoesBackToAFittingCacheOrItsPool)
{
    korBuffer* buffers[] = {makeInline(), makeInline(), makeInline()};
    release(makeOwn(1), &cache);
    for (korBuffer* buffer : buffers) {
        release(buffer, &cache); // the third finds it full
    }
    EXPECT_EQ(cache.chunks.count, 2);
    korBuffer* again = makeInline();
    EXPECT_EQ(again, buffers[1]) << "the last one on the list";
    KOR_ATOMIC_ADD(&again->refCount, 1);
    release(again, &cache);
    EXPECT_EQ(cache.chunks.count, 1) << "there is another holder";
    release(again, &cache);
    EXPECT_EQ(cache.chunks.count, 2);
}

TEST_F(KorBuffer, GrowthAndCopiesKeepTheContents)
{
    for (korBuffer* buffer : {makeInline(), makeOwn(100)}) {
        const std::string digits = "0123456789";
        std::memcpy(buffer->data, digits.data(), 10);
        korBuffer* copy = _korBuffer_Copy(ex, 0, buffer, 3, 50, 5);
        EXPECT_EQ(std::string(copy->data, copy->end), "34567");
        release(copy);
        EXPECT_EQ(_korBuffer_Copy(ex, 0, buffer, 96, 5, 5), nullptr) << "beyond the end";
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);

        buffer->position += 60;
        buffer->end -= 10;
        _korBuffer_Expand(ex, 0, buffer, 5000);
        EXPECT_EQ(buffer->position, buffer->data + 60);
        EXPECT_EQ(std::string(buffer->data, buffer->data + 10), digits);
        std::memset(buffer->data, 'y', 5100);
        _korBuffer_Expand(ex, 0, buffer, INT32_MAX);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
        EXPECT_EQ(buffer->end, buffer->data + 5100);
        EXPECT_EQ(buffer->capacity, 5100);
        release(buffer, &cache);
    }
    EXPECT_EQ(cache.chunks.count, 1);
}

TEST_F(KorBuffer, AWrappedAreaIsNeitherFreedNorGrown)
{
    char first[] = "first";
    korBuffer* made = _korBuffer_ReplaceDataWrappedOrCreate(ex, 0, nullptr, first, 6);
    expectArea(made, first, 6);
    _korBuffer_Expand(ex, 0, made, 1);
    EXPECT_RAISED(KOR_ERROR_NOT_PERMITTED, "Cannot expand a wrapped buffer.");
    made->refCount = 2;
    korBuffer* another = _korBuffer_ReplaceDataWrappedOrCreate(ex, 0, made, nullptr, 0);
    expectArea(made, first, 6);
    expectArea(another, nullptr, 0);

    for (korBuffer* buffer : {made, another, makeOwn(100), makeInline()}) { // an own area is freed, a chunk stays whole
        EXPECT_EQ(_korBuffer_ReplaceDataWrappedOrCreate(ex, 0, buffer, first, 6), buffer);
        EXPECT_EQ(_korBuffer_ReplaceDataWrappedOrCreate(ex, 0, buffer, nullptr, 0), buffer);
        expectArea(buffer, nullptr, 0);
        release(buffer);
    }
}

TEST_F(KorBuffer, TheLastHolderOnAnyThreadReleases)
{
    constexpr int holders = 3;
    std::vector<korBuffer*> buffers;
    for (int i = 0; i < 2000; i++) { // inline, and an area that the leak checker counts
        buffers.push_back(_korBuffer_CreateFromCacheOrPool(ex, 0, nullptr, i % 2 == 0 ? pool : nullptr, 100));
        buffers.back()->refCount = holders;
        std::memset(buffers.back()->data, i, 100);
    }
    std::vector<std::jthread> threads;
    for (int t = 0; t < holders; t++) {
        threads.emplace_back([&] {
            korEx* own = korEx_Create();
            for (size_t i = 0; i < buffers.size(); i++) {
                EXPECT_EQ(buffers[i]->data[99], static_cast<uint8_t>(i));
                _korBuffer_ReleaseToCache(0, own, buffers[i], nullptr);
            }
            korEx_Destroy(own);
        });
    }
}

TEST_F(KorBuffer, EveryAllocationMayFail)
{
    char bytes[8] = "wrapped";
    auto scenario = [&] {
        korBuffer* own = _korBuffer_CreateFromCacheOrPool(ex, 0, nullptr, nullptr, 10);
        korBuffer* inlined = makeInline();
        if (own != nullptr && inlined != nullptr) {
            _korBuffer_Expand(ex, 0, own, 1000);
            _korBuffer_Expand(ex, 0, inlined, 1000);
            KOR_ATOMIC_ADD(&own->refCount, 1);
            korBuffer* shared = _korBuffer_ReplaceDataWrappedOrCreate(ex, 0, own, bytes, 8);
            release(_korBuffer_Copy(ex, 0, own, 0, 100, 32));
            release(shared);
        }
        release(own);
        release(inlined, &cache);
    };
    EXPECT_GT(sweepFailures(ex, scenario), 5u);
    EXPECT_EQ(sweepFailures(ex, scenario), 5u) << "the pools have grown";
    int32_t size = 5000; // another pool each time
    EXPECT_GT(sweepFailures(ex, [&] { _korBuffer_GetPoolWithData(ex, 0, 1, size++); }), 1u);
    EXPECT_GT(_korBuffer_PoolMemory(nullptr, nullptr), 100u * recordSize);
}

struct KorBufferClosed : KorTest {};

TEST_F(KorBufferClosed, WithoutTheLibraryOpenTheHeapServes)
{
    uint32_t total = 1;
    EXPECT_EQ(_korBuffer_PoolMemory(&total, nullptr) + total, 0u);
    EXPECT_EQ(_korBuffer_GetPoolWithData(ex, 0, 10, 10), nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_INITIALIZED, nullptr);
    korBuffer* buffer = _korBuffer_CreateWithData(ex, 0, nullptr, 5);
    EXPECT_EQ(buffer->pool, nullptr);
    _korBuffer_ReleaseToCache(0, ex, buffer, nullptr);
    auto startAndStop = [&] {
        _korBuffer_CreatePool(ex, 0);
        _korBuffer_GetPoolWithData(ex, 0, 1, 1);
        _korBuffer_DestroyPool(ex, 0);
    };
    EXPECT_GT(sweepFailures(ex, startAndStop), 5u);
}

} // namespace
