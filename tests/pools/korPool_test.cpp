// korPool_test.cpp - chunks: their sizes and order, the way between threads and blocks, failures, ends of threads and
// pools in either order.

#include "korutil/korAlloc.h"
#include "korutil/korPool.h"
#include "korutil/korThreadLocal.h"
#include "support/failingHeap.h"
#include "support/meeting.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

std::atomic<int> prepared, ended;
std::atomic<int> failingPreparation; // which one fails from here on, 0 = none
bool failingEnds;

void prepareChunk(korEx* ex, uint8_t depth, void*)
{
    if (failingPreparation > 0 && --failingPreparation == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "not prepared");
        return;
    }
    prepared++;
}

// No end finds an error, neither the caller's nor that of another chunk.
void endChunk(korEx* ex, uint8_t depth, void*)
{
    EXPECT_EQ(ex->code, 0);
    ended++;
    if (failingEnds) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "ended");
    }
}

using Chunks = std::vector<void*>;

// A thread's work.
void getAndReturn(korPool* pool)
{
    KOR_EX_LOCAL(own);
    void* chunks[10];
    _korPool_RegisterThread(&own, 0, pool);
    _korPool_RegisterThread(&own, 0, pool);
    for (void*& chunk : chunks) {
        chunk = _korPool_Get(&own, 0, pool);
    }
    for (void* chunk : chunks) {
        _korPool_Return(0, &own, pool, chunk);
    }
    EXPECT_EQ(own.code, 0);
}

// Ends with a check that what was prepared, and nothing else, has met its end.
class PoolTest : public KorTest
{
protected:
    PoolTest()
    {
        prepared = ended = failingPreparation = failingEnds = 0;
        KOR_RAISE(ex, 0, KOR_ERROR_EXCEPTION, nullptr); // names the thread, which asks the heap once
        korEx_Clear(ex);
    }
    void TearDown() override
    {
        destroy();
        KorTest::TearDown();
    }

    void create(int32_t perBlock, int32_t minBlocks, int32_t refill, int32_t size = 32)
    {
        pool = _korPool_Create(ex, 0, perBlock, size, prepareChunk, endChunk, minBlocks, refill);
    }
    void destroy()
    {
        _korPool_Destroy(0, ex, std::exchange(pool, nullptr));
        EXPECT_EQ(prepared, ended);
    }
    void* get() { return _korPool_Get(ex, 0, pool); }
    Chunks get(size_t count)
    {
        Chunks chunks(count);
        std::generate(chunks.begin(), chunks.end(), [&] { return get(); });
        return chunks;
    }
    void giveBack(const Chunks& chunks)
    {
        std::for_each(chunks.begin(), chunks.end(), [&](void* chunk) { _korPool_Return(0, ex, pool, chunk); });
    }
    // What this thread caches goes back to its pools.
    void flushThread() { _korThreadLocal_ForceDestructors(0, ex); }

    // The chunks that are not in their blocks.
    uint32_t out()
    {
        uint32_t total, free;
        _korPool_Memory(pool, &total, &free);
        return total - free;
    }

    korPool* pool = nullptr;
};

// ---- One thread -----------------------------------------------------------------------------------------------------

TEST_F(PoolTest, ChunksOfAnySizeAreApartAndTheLastReturnedComesFirst)
{
    const std::pair<int32_t, uint32_t> strides[] = {{1, 16}, {8, 16}, {24, 32}, {25, 40}};
    for (auto [size, stride] : strides) {
        SCOPED_TRACE(size);
        create(7, 2, 0, size);
        EXPECT_EQ(_korPool_ChunkSize(pool), static_cast<uint32_t>(size));
        EXPECT_EQ(_korPool_Memory(pool, nullptr, nullptr), 14 * stride);
        EXPECT_EQ(prepared - ended, 14) << "the blocks made up front are carved at once";
        Chunks chunks = get(40);
        EXPECT_EQ(prepared - ended, 40) << "others as their chunks are needed";
        for (size_t i = 0; i < chunks.size(); i++) {
            ASSERT_EQ(reinterpret_cast<uintptr_t>(chunks[i]) % 8, 0u);
            std::memset(chunks[i], static_cast<int>(i), static_cast<size_t>(size));
        }
        for (size_t i = 0; i < chunks.size(); i++) {
            auto* bytes = static_cast<uint8_t*>(chunks[i]);
            EXPECT_EQ(std::count(bytes, bytes + size, i), size);
        }
        giveBack(chunks);
        EXPECT_EQ(get(40), Chunks(chunks.rbegin(), chunks.rend()));
        destroy();
    }

    struct {
        int32_t perBlock, size, minBlocks;
    } refused[] = {{0, 8, 0},      {-1, 8, 0}, {1, 0, 0}, {1, -8, 0}, {1, 8, -1}, {INT32_MAX, INT32_MAX, 0},
                   {1 << 28, 8, 0}};
    for (const auto& c : refused) {
        create(c.perBlock, c.minBlocks, 1, c.size);
        EXPECT_EQ(pool, nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    }
}

TEST_F(PoolTest, ErrorsThatPendAndNothings)
{
    create(10, 0, 2);
    void* chunk = get();
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(get(), nullptr);
    EXPECT_EQ(_korPool_Create(ex, 0, 10, 8, nullptr, nullptr, 0, 2), nullptr);
    giveBack({chunk, nullptr});
    _korPool_Return(0, ex, nullptr, chunk);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(get(), chunk) << "the return did not work with an error pending";
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    failingEnds = true;
    destroy();
    destroy();
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    create(10, 1, 2);
    destroy();
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "ended");
}

TEST_F(PoolTest, AnEmptiedBlockSinksToTheEndUntilItsChunksReturn)
{
    create(4, 3, 4);
    const korPoolBlock* blocks[] = {pool->head, pool->head->next, pool->tail};
    Chunks chunks = get(4);
    EXPECT_TRUE(pool->head == blocks[1] && pool->tail == blocks[0]);
    get(4);
    EXPECT_TRUE(pool->head == blocks[2] && pool->tail == blocks[1]);
    giveBack(chunks);
    flushThread();
    EXPECT_EQ(pool->head, blocks[0]);
    get(4);
    EXPECT_TRUE(pool->head == blocks[2] && pool->tail == blocks[0]) << "and in this order the pool ends";
}

TEST_F(PoolTest, The256thReturnGivesHalfBack)
{
    create(512, 1, 300);
    Chunks chunks = get(256);
    EXPECT_EQ(out(), 512u) << "all free chunks of a block go to a thread at once";
    giveBack(Chunks(chunks.begin(), chunks.end() - 1));
    EXPECT_EQ(out(), 512u);
    giveBack({chunks.back()});
    EXPECT_EQ(out(), 384u);
    EXPECT_EQ(get(128), Chunks(chunks.rbegin() + 128, chunks.rend())) << "the last ones went, the first ones stayed";
}

// ---- Threads --------------------------------------------------------------------------------------------------------

TEST_F(PoolTest, AThreadMayOutliveThePool)
{
    create(50, 1, 20);
    Barrier step(2);
    std::thread late([&] {
        getAndReturn(pool);
        step.arrive_and_wait(); // cached
        step.arrive_and_wait(); // gone, and its key is another pool's
        EXPECT_EQ(_korThreadLocal_Get(pool->threadKey), 0u);
        getAndReturn(pool);
    });
    step.arrive_and_wait();
    uint16_t key = pool->threadKey;
    destroy();
    create(50, 1, 20);
    EXPECT_EQ(pool->threadKey, key);
    step.arrive_and_wait();
    late.join();
    EXPECT_EQ(out(), 0u);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(PoolTest, EveryRequestMayFail)
{
    int32_t refill = 1;
    auto scenario = [&] {
        create(8, 1, refill);
        if (pool != nullptr) {
            std::array<void*, 20> chunks; // a container would ask the failing heap
            std::generate(chunks.begin(), chunks.end(), [&] { return get(); });
            auto end = std::find(chunks.begin(), chunks.end(), nullptr);
            EXPECT_EQ(end == chunks.end(), ex->code == 0) << "a chunk comes without an error, an error without a chunk";
            std::sort(chunks.begin(), end);
            EXPECT_EQ(std::adjacent_find(chunks.begin(), end), end);
            std::for_each(chunks.begin(), end, [&](void* chunk) { _korPool_Return(0, ex, pool, chunk); });
            flushThread();
            EXPECT_EQ(out(), 0u) << "a chunk was lost";
        }
        destroy();
    };
    for (; refill <= 4; refill++) {
        scenario(); // what a process makes once
        uint64_t requests = sweepFailures(ex, scenario);
        EXPECT_GT(requests, 5u);
        for (uint64_t first = 1; first <= requests; first++) {
            FailingHeap heap(first, UINT64_MAX); // and all behind it
            scenario();
            EXPECT_TRUE(heap.fired());
            korEx_Clear(ex);
        }
    }
}

TEST_F(PoolTest, WithoutMemoryTheBlocksAtHandServe)
{
    pool = _korPool_Create(ex, 0, 14, 32, nullptr, nullptr, 0, 10);
    get(10);
    {
        FailingHeap heap(1, UINT64_MAX);
        for (int i = 0; i < 4; i++) {
            EXPECT_NE(get(), nullptr);
            EXPECT_TRUE(heap.fired());
            EXPECT_CLEAN();
        }
        EXPECT_EQ(get(), nullptr);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    }
    EXPECT_NE(get(), nullptr);
}

TEST_F(PoolTest, AChunkThatCannotBePreparedIsTriedAgain)
{
    create(8, 0, 4);
    failingPreparation = 1;
    EXPECT_EQ(get(), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "not prepared");
    failingPreparation = 3; // the two before it stand ready
    EXPECT_NE(get(), nullptr);
    get(5);
    EXPECT_CLEAN();
    EXPECT_EQ(prepared, 6);
    EXPECT_EQ(pool->blockCount, 1u);
    destroy();

    failingPreparation = 3;
    create(8, 1, 4);
    EXPECT_EQ(pool, nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "not prepared");
}

TEST_F(PoolTest, SwitchedOffEveryChunkIsOfTheHeap)
{
    KOR_ATOMIC_STORE(&gPoolDisable, uint8_t{1});
    create(8, 3, 4);
    KOR_ATOMIC_STORE(&gPoolDisable, uint8_t{0});
    void* chunk = get();
    EXPECT_EQ(prepared, 1);
    EXPECT_EQ(pool->blockCount, 0u);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    giveBack({chunk});
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(ended, 1);
    failingPreparation = 1;
    EXPECT_EQ(get(), nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "not prepared");
}

// ---- Stress ---------------------------------------------------------------------------------------------------------

// Threads swap chunks with whoever comes by, so that most return on another thread than the one that got them.
TEST_F(PoolTest, ChunksCrossThreadsAndThreadsEnd)
{
    create(64, 1, 16);
    std::array<std::atomic<uint64_t*>, 64> places{};
    auto swapChunks = [&](uint64_t seed) {
        KOR_EX_LOCAL(own);
        std::mt19937_64 random(seed);
        for (int i = 0; i < 5000; i++) {
            auto* chunk = static_cast<uint64_t*>(_korPool_Get(&own, 0, pool));
            ASSERT_NE(chunk, nullptr);
            chunk[0] = random();
            chunk[1] = ~chunk[0];
            if (uint64_t* other = places[random() % places.size()].exchange(chunk)) {
                ASSERT_EQ(other[0], ~other[1]) << "two owners of one chunk";
                other[1] = other[0];
                _korPool_Return(0, &own, pool, other);
            }
        }
        EXPECT_EQ(own.code, 0);
    };
    for (uint64_t generation = 0; generation < 3; generation++) {
        std::vector<std::jthread> threads;
        for (uint64_t i = 0; i < 4; i++) {
            threads.emplace_back(swapChunks, generation * 10 + i);
        }
    }
    EXPECT_EQ(out(), std::count_if(places.begin(), places.end(), [](const auto& place) { return place != nullptr; }));
    for (auto& place : places) {
        giveBack({place.load()});
    }
    EXPECT_EQ(out(), 0u);
    EXPECT_EQ(pool->chunksOut, pool->chunksIn);
}

// The end of a pool and the ends of threads with caches of it meet at the pool's last reference.
TEST_F(PoolTest, APoolEndsWhileThreadsEnd)
{
    for (int round = 0; round < 50; round++) {
        create(16, 1, 4);
        Barrier together(4);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 3; i++) {
            threads.emplace_back([&] {
                getAndReturn(pool);
                together.arrive_and_wait();
            });
        }
        together.arrive_and_wait();
        _korPool_Destroy(0, ex, pool);
        threads.clear();
        pool = nullptr;
        ASSERT_EQ(prepared, ended) << "round " << round;
    }
}

} // namespace
