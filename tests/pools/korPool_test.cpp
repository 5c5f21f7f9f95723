// korPool_test.cpp - chunks: their sizes and order, the way between threads and blocks, failures, ends of threads and
// pools in either order.

#include "korutil/korAlloc.h"
#include "korutil/korPool.h"
#include "korutil/korThreadLocal.h"
#include "support/failingHeap.h"
#include "support/korTest.h"
#include "support/meeting.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

using kor::test::FailingHeap;
using kor::test::KorTest;

namespace {

std::atomic<int> prepared, ended;
std::atomic<int> failingPreparation; // which one fails from here on, 0 = none

void prepareChunk(korEx* ex, uint8_t depth, void* chunk)
{
    if (failingPreparation > 0 && --failingPreparation == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "not prepared");
        return;
    }
    prepared++;
    *static_cast<uint64_t*>(chunk) = 0xC0FFEE;
}

void endChunk(korEx*, uint8_t, void* chunk)
{
    EXPECT_EQ(*static_cast<uint64_t*>(chunk), 0xC0FFEEu);
    ended++;
}

class PoolTest : public KorTest
{
protected:
    PoolTest() { prepared = ended = failingPreparation = 0; }

    korPool* create(int32_t perBlock, int32_t size, int32_t minBlocks, int32_t refill)
    {
        return _korPool_Create(KOR_AT(ex, 0), perBlock, size, nullptr, nullptr, minBlocks, refill);
    }
    korPool* createCounted(int32_t perBlock, int32_t minBlocks, int32_t refill)
    {
        return _korPool_Create(KOR_AT(ex, 0), perBlock, 32, prepareChunk, endChunk, minBlocks, refill);
    }
    void* get(korPool* pool) { return _korPool_Get(KOR_AT(ex, 0), pool); }
    std::vector<void*> get(korPool* pool, size_t count)
    {
        std::vector<void*> chunks(count);
        std::generate(chunks.begin(), chunks.end(), [&] { return get(pool); });
        return chunks;
    }
    void giveBack(korPool* pool, void* chunk) { _korPool_Return(KOR_AT_D(0, ex), pool, chunk); }
    void giveBack(korPool* pool, const std::vector<void*>& chunks)
    {
        for (void* chunk : chunks) {
            giveBack(pool, chunk);
        }
    }
    void destroy(korPool* pool) { _korPool_Destroy(KOR_AT_D(0, ex), pool); }
    // What this thread caches goes back to its pools.
    void flushThread() { _korThreadLocal_ForceDestructors(KOR_AT_D(0, ex)); }
};

uint32_t freeChunks(korPool* pool)
{
    uint32_t free;
    _korPool_Memory(pool, nullptr, &free);
    return free;
}

uint32_t totalChunks(korPool* pool)
{
    uint32_t total;
    _korPool_Memory(pool, &total, nullptr);
    return total;
}

std::vector<const korPoolBlock*> blocksOf(const korPool* pool)
{
    std::vector<const korPoolBlock*> blocks;
    for (const korPoolBlock* block = pool->head; block != nullptr; block = block->next) {
        blocks.push_back(block);
    }
    EXPECT_TRUE(blocks.empty() || blocks.back() == pool->tail);
    return blocks;
}

// A raise names the thread, which asks the heap once in a process: before a test counts requests.
void nameThread(korEx* ex)
{
    KOR_RAISE(ex, 0, KOR_ERROR_EXCEPTION, nullptr);
    korEx_Clear(ex);
}

// ---- Sizes and arguments --------------------------------------------------------------------------------------------

TEST_F(PoolTest, SizesFollowFromTheChunkSize)
{
    const std::pair<int32_t, uint32_t> strides[] = {{1, 16}, {8, 16}, {24, 32}, {25, 40}};
    for (auto [size, stride] : strides) {
        korPool* pool = create(10, size, 2, 0);
        EXPECT_EQ(pool->stride, stride);
        EXPECT_EQ(_korPool_ChunkSize(pool), static_cast<uint32_t>(size));
        EXPECT_EQ(_korPool_Memory(pool, nullptr, nullptr), 20 * stride);
        EXPECT_TRUE(totalChunks(pool) == 20 && freeChunks(pool) == 20);
        destroy(pool);
    }
    const int32_t wrong[][3] = {{0, 8, 0}, {1, 0, 0}, {1, 8, -1}, {INT32_MAX, INT32_MAX, 0}, {1 << 28, 8, 0}};
    for (auto [perBlock, size, minBlocks] : wrong) {
        EXPECT_EQ(create(perBlock, size, minBlocks, 1), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
}

TEST_F(PoolTest, ChunksAreApartAndTheLastReturnedComesFirst)
{
    korPool* pool = create(7, 25, 0, 3);
    std::vector<void*> chunks = get(pool, 40);
    for (size_t i = 0; i < chunks.size(); i++) {
        ASSERT_EQ(reinterpret_cast<uintptr_t>(chunks[i]) % 8, 0u);
        std::memset(chunks[i], static_cast<int>(i), 25);
    }
    for (size_t i = 0; i < chunks.size(); i++) {
        EXPECT_EQ(std::string(static_cast<char*>(chunks[i]), 25), std::string(25, static_cast<char>(i)));
    }
    giveBack(pool, chunks);
    std::reverse(chunks.begin(), chunks.end());
    EXPECT_EQ(get(pool, 40), chunks);
    destroy(pool);
}

TEST_F(PoolTest, ErrorsThatPendAndNothings)
{
    korPool* pool = create(10, 8, 0, 2);
    void* chunk = get(pool);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(get(pool), nullptr);
    EXPECT_EQ(create(10, 8, 0, 2), nullptr);
    giveBack(pool, chunk);
    giveBack(pool, nullptr);
    giveBack(nullptr, chunk);
    destroy(nullptr);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(get(pool), chunk) << "the return did not work with an error pending";
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    destroy(pool);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
}

// ---- Blocks ---------------------------------------------------------------------------------------------------------

TEST_F(PoolTest, EmptiedBlocksSinkToTheEnd)
{
    korPool* pool = create(4, 8, 3, 4);
    std::vector<const korPoolBlock*> made = blocksOf(pool);
    ASSERT_EQ(made.size(), 3u);
    using Blocks = std::vector<const korPoolBlock*>;
    std::vector<void*> first = get(pool, 4);
    EXPECT_EQ(blocksOf(pool), (Blocks{made[1], made[2], made[0]}));
    get(pool, 4);
    EXPECT_EQ(blocksOf(pool), (Blocks{made[2], made[0], made[1]}));
    get(pool, 4);
    EXPECT_EQ(blocksOf(pool), (Blocks{made[2], made[0], made[1]})) << "no block behind it has anything";
    get(pool);
    Blocks now = blocksOf(pool);
    ASSERT_EQ(now.size(), 4u);
    EXPECT_EQ(Blocks(now.begin() + 1, now.end()), (Blocks{made[2], made[0], made[1]})) << "a new block comes first";

    giveBack(pool, first);
    flushThread();
    EXPECT_EQ(blocksOf(pool), (Blocks{now[0], made[0], made[2], made[1]}))
        << "a block that had nothing comes to the front: first that of the returned chunks, then that of the fresh "
           "ones";
    destroy(pool);
}

// ---- Threads --------------------------------------------------------------------------------------------------------

TEST_F(PoolTest, The256thReturnGivesHalfBack)
{
    korPool* pool = create(512, 8, 1, 300);
    std::vector<void*> chunks = get(pool, 300);
    uint32_t before = freeChunks(pool);
    for (size_t i = 0; i < 255; i++) {
        giveBack(pool, chunks[i]);
    }
    EXPECT_EQ(freeChunks(pool), before);
    giveBack(pool, chunks[255]);
    EXPECT_EQ(freeChunks(pool), before + 128);
    for (size_t i = 128; i-- > 0;) {
        EXPECT_EQ(get(pool), chunks[i]) << "the last ones went, the first ones stayed";
    }
    destroy(pool);
}

TEST_F(PoolTest, AThreadWithoutACacheReturnsToTheBlock)
{
    korPool* pool = create(10, 8, 1, 5);
    void* chunk = get(pool);
    uint32_t before = freeChunks(pool);
    std::jthread([&] {
        KOR_EX_LOCAL(own);
        _korPool_Return(KOR_AT_D(0, &own), pool, chunk);
        EXPECT_EQ(freeChunks(pool), before + 1);
        EXPECT_EQ(_korThreadLocal_Get(pool->threadKey), 0u) << "a return registers nobody";
        _korPool_RegisterThread(KOR_AT(&own, 0), pool);
        EXPECT_NE(_korThreadLocal_Get(pool->threadKey), 0u);
    }).join();
    destroy(pool);
}

TEST_F(PoolTest, AThreadThatEndsGivesAllBack)
{
    korPool* pool = create(50, 8, 1, 20);
    void* kept = nullptr;
    std::thread([&] {
        korEx* own = korEx_Create();
        kept = _korPool_Get(KOR_AT(own, 0), pool);
        void* other = _korPool_Get(KOR_AT(own, 0), pool);
        _korPool_Return(KOR_AT_D(0, own), pool, other);
        EXPECT_EQ(freeChunks(pool), 0u) << "all free chunks of a block go to a thread at once";
        korEx_Destroy(own);
    }).join();
    EXPECT_EQ(freeChunks(pool), 49u) << "all but the chunk in use";
    giveBack(pool, kept);
    EXPECT_EQ(freeChunks(pool), 50u);
    destroy(pool);
}

TEST_F(PoolTest, AThreadMayOutliveThePool)
{
    korPool* pool = create(50, 8, 1, 20);
    korPool* next = nullptr;
    kor::test::Barrier step(2);
    std::thread late([&] {
        korEx* own = korEx_Create();
        _korPool_Return(KOR_AT_D(0, own), pool, _korPool_Get(KOR_AT(own, 0), pool));
        step.arrive_and_wait(); // cached
        step.arrive_and_wait(); // gone, and its key is another pool's
        EXPECT_EQ(_korThreadLocal_Get(next->threadKey), 0u);
        _korPool_Return(KOR_AT_D(0, own), next, _korPool_Get(KOR_AT(own, 0), next));
        EXPECT_EQ(own->code, 0);
        korEx_Destroy(own);
    });
    step.arrive_and_wait();
    uint16_t key = pool->threadKey;
    destroy(pool);
    next = create(50, 8, 1, 20);
    EXPECT_EQ(next->threadKey, key);
    step.arrive_and_wait();
    late.join();
    EXPECT_EQ(freeChunks(next), 50u);
    destroy(next);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(PoolTest, EveryRequestMayFail)
{
    auto scenario = [&] {
        korPool* pool = createCounted(8, 1, 3);
        if (pool != nullptr) {
            std::array<void*, 20> chunks; // a container would ask the failing heap
            auto end = chunks.begin();
            while (end != chunks.end() && (*end = get(pool)) != nullptr) {
                end++;
            }
            EXPECT_EQ(end == chunks.end(), ex->code == 0) << "a chunk comes without an error, an error without a chunk";
            std::sort(chunks.begin(), end);
            EXPECT_EQ(std::adjacent_find(chunks.begin(), end), end);
            std::for_each(chunks.begin(), end, [&](void* chunk) { giveBack(pool, chunk); });
            flushThread();
            EXPECT_EQ(freeChunks(pool), totalChunks(pool)) << "a chunk was lost";
        }
        destroy(pool);
        EXPECT_EQ(prepared.exchange(0), ended.exchange(0));
    };
    scenario(); // what a process makes once
    EXPECT_GT(kor::test::sweepFailures(ex, scenario), 5u);
}

TEST_F(PoolTest, AListThatCannotGrowLosesNothing)
{
    nameThread(ex);
    for (int32_t refill : {1, 2, 10}) {
        korPool* pool = create(100, 32, 1, refill);
        std::vector<void*> chunks = get(pool, 60);
        {
            FailingHeap heap(1, UINT64_MAX);
            giveBack(pool, chunks);
            EXPECT_TRUE(heap.fired());
        }
        EXPECT_CLEAN();
        std::vector<void*> again = get(pool, 100);
        std::set<void*> all(again.begin(), again.end());
        EXPECT_EQ(all.size(), 100u) << refill;
        EXPECT_EQ(totalChunks(pool), 100u) << refill;
        for (void* chunk : chunks) {
            EXPECT_EQ(all.count(chunk), 1u) << refill;
        }
        destroy(pool);
    }
}

TEST_F(PoolTest, AChunkThatCannotBePreparedIsTriedAgain)
{
    korPool* pool = createCounted(8, 0, 4);
    failingPreparation = 1;
    EXPECT_EQ(get(pool), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "not prepared");
    failingPreparation = 3; // the two before it stand ready
    EXPECT_NE(get(pool), nullptr);
    EXPECT_CLEAN();
    get(pool, 5);
    EXPECT_CLEAN();
    EXPECT_EQ(prepared, 6);
    EXPECT_EQ(totalChunks(pool), 8u);
    destroy(pool);
    EXPECT_EQ(prepared, ended);

    failingPreparation = 3;
    EXPECT_EQ(createCounted(8, 1, 4), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "not prepared");
    EXPECT_EQ(prepared, ended);
}

TEST_F(PoolTest, SwitchedOffEveryChunkIsOfTheHeap)
{
    KOR_ATOMIC_STORE(&gPoolDisable, uint8_t{1});
    korPool* pool = createCounted(8, 3, 4);
    KOR_ATOMIC_STORE(&gPoolDisable, uint8_t{0});
    EXPECT_EQ(pool->blockCount, 0u);
    void* chunk = get(pool);
    EXPECT_EQ(prepared, 1);
    EXPECT_EQ(totalChunks(pool), 0u);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    giveBack(pool, chunk);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(ended, 1);
    failingPreparation = 1;
    EXPECT_EQ(get(pool), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "not prepared");
    destroy(pool);
}

// ---- Stress ---------------------------------------------------------------------------------------------------------

constexpr int rounds = 5000;

// Swaps chunks with whoever comes by, so that most return on another thread than the one that got them.
void swapChunks(korPool* pool, std::array<std::atomic<uint64_t*>, 64>& places, uint64_t seed)
{
    korEx* own = korEx_Create();
    std::mt19937_64 random(seed);
    for (int i = 0; i < rounds; i++) {
        auto* chunk = static_cast<uint64_t*>(_korPool_Get(KOR_AT(own, 0), pool));
        ASSERT_NE(chunk, nullptr);
        chunk[0] = random();
        chunk[1] = ~chunk[0];
        if (uint64_t* other = places[random() % places.size()].exchange(chunk)) {
            ASSERT_EQ(other[0], ~other[1]) << "two owners of one chunk";
            other[1] = other[0];
            _korPool_Return(KOR_AT_D(0, own), pool, other);
        }
    }
    EXPECT_EQ(own->code, 0);
    korEx_Destroy(own);
}

TEST_F(PoolTest, ChunksCrossThreadsAndThreadsEnd)
{
    korPool* pool = create(64, 16, 1, 16);
    std::array<std::atomic<uint64_t*>, 64> places{};
    for (uint64_t generation = 0; generation < 3; generation++) {
        std::vector<std::thread> threads;
        for (uint64_t i = 0; i < 4; i++) {
            threads.emplace_back([&, i] { swapChunks(pool, places, generation * 10 + i); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    uint32_t out = 0;
    for (auto& place : places) {
        out += place != nullptr;
    }
    EXPECT_EQ(freeChunks(pool) + out, totalChunks(pool));
    for (auto& place : places) {
        giveBack(pool, place.load());
    }
    EXPECT_EQ(freeChunks(pool), totalChunks(pool));
    EXPECT_EQ(pool->chunksOut, pool->chunksIn);
    destroy(pool);
}

// The end of a pool and the ends of threads with caches of it meet at the pool's last reference.
TEST_F(PoolTest, APoolEndsWhileThreadsEnd)
{
    for (int round = 0; round < 50; round++) {
        korPool* pool = createCounted(16, 1, 4);
        kor::test::Barrier together(4);
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; i++) {
            threads.emplace_back([&] {
                korEx* own = korEx_Create();
                std::array<void*, 10> chunks;
                for (void*& chunk : chunks) {
                    chunk = _korPool_Get(KOR_AT(own, 0), pool);
                }
                for (void* chunk : chunks) {
                    _korPool_Return(KOR_AT_D(0, own), pool, chunk);
                }
                korEx_Destroy(own);
                together.arrive_and_wait();
            });
        }
        together.arrive_and_wait();
        destroy(pool);
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(prepared, ended) << "round " << round;
    }
}

} // namespace
