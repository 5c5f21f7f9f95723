// poolMemory_test.cpp - what a pool gives back to the heap from time to time: which blocks a pass marks, spares, frees.
//
// A pass is the pool's own business and has no exported name, so the pool is compiled into this file once more, under
// names that leave the library's alone.

#define KOR_BUILDING_LIBRARY
#define _korPool_Create testedPool_Create
#define _korPool_CreateWithMaxCache testedPool_CreateWithMaxCache
#define _korPool_Destroy testedPool_Destroy
#define _korPool_Get testedPool_Get
#define _korPool_Return testedPool_Return
#define _korPool_RegisterThread testedPool_RegisterThread
#define _korPool_Memory testedPool_Memory
#define _korPool_ChunkSize testedPool_ChunkSize

#include "pools/korPool.cpp"

#include "support/korTest.h"

#include <vector>

// Hands on the error of a refill that found nothing to give, which no test here lets happen.
void kor::passToChain(korEx*)
{
    FAIL() << "a refill failed";
}

namespace {

constexpr int32_t perBlock = 4;

std::vector<void*> ended;

void endChunk(korEx* ex, uint8_t depth, void* chunk)
{
    EXPECT_EQ(ex->code, 0);
    ended.push_back(chunk);
    KOR_RAISE(ex, depth, KOR_ERROR_EXCEPTION, "ended");
}

class PoolMemoryTest : public kor::test::KorTest
{
protected:
    using Blocks = std::vector<korPoolBlock*>;

    PoolMemoryTest() { ended.clear(); }
    ~PoolMemoryTest() override { _korPool_Destroy(KOR_AT_D(0, ex), pool_); }

    void create(int32_t minBlocks, int32_t refillTarget = perBlock)
    {
        pool_ = _korPool_Create(KOR_AT(ex, 0), perBlock, 16, nullptr, nullptr, minBlocks, refillTarget);
        ASSERT_CLEAN();
    }
    std::vector<void*> get(int32_t count)
    {
        std::vector<void*> chunks;
        while (count-- > 0) {
            chunks.push_back(_korPool_Get(KOR_AT(ex, 0), pool_));
        }
        return chunks;
    }
    // The chunks go home to their blocks, with whatever else this thread has.
    void giveHome(const std::vector<void*>& chunks)
    {
        for (void* chunk : chunks) {
            _korPool_Return(KOR_AT_D(0, ex), pool_, chunk);
        }
        _korThreadLocal_ForceDestructors(KOR_AT_D(0, ex));
    }
    // A pool without blocks to keep that has `count` blocks, wholly free.
    void createFree(int32_t count)
    {
        create(0);
        giveHome(get(count * perBlock));
        ASSERT_EQ(blocks().size(), static_cast<size_t>(count));
    }
    void pass() { _korPool_ReturnMemory(KOR_AT(ex, 0), nullptr, 0, pool_); }
    Blocks blocks()
    {
        Blocks all;
        for (korPoolBlock* block = pool_->head; block != nullptr; block = block->next) {
            all.push_back(block);
        }
        EXPECT_EQ(all.size(), pool_->blockCount);
        EXPECT_EQ(all.empty() ? nullptr : all.back(), pool_->tail);
        return all;
    }
    std::string marks()
    {
        std::string text;
        for (korPoolBlock* block : blocks()) {
            text += block->idle ? 'x' : '-';
        }
        return text;
    }

    korPool* pool_ = nullptr;
};

TEST_F(PoolMemoryTest, ABlockGoesOnThePassAfterItsMark)
{
    createFree(3);
    Blocks before = blocks();
    pass();
    EXPECT_EQ(marks(), "-xx") << "the first one is spared";
    EXPECT_EQ(blocks(), before);
    pass();
    EXPECT_EQ(blocks(), Blocks{before[0]});
    EXPECT_EQ(pool_->freeChunks, perBlock);
    pass();
    pass();
    EXPECT_EQ(marks(), "-") << "a lone block is spared in every pass";
    std::vector<void*> chunks = get(2 * perBlock);
    EXPECT_EQ(pool_->freeChunks, 0);
    giveHome(chunks);
    EXPECT_EQ(pool_->freeChunks, 2 * perBlock);
}

TEST_F(PoolMemoryTest, ABlockInUseIsPassedOver)
{
    create(0);
    std::vector<void*> chunks = get(3 * perBlock);
    void* kept = chunks.back();
    chunks.pop_back();
    giveHome(chunks);
    korPoolBlock* used = *backPointer(pool_, kept);
    for (int i = 0; i < 3; i++) {
        pass();
        EXPECT_EQ(used->idle, 0);
    }
    EXPECT_EQ(blocks().size(), 2u) << "the one in use and the one that is spared";
    giveHome({kept});
}

// Blocks that are carved in part count as free when all that was carved is back; what was not carved meets no end. An
// end finds no error, neither the caller's nor that of another chunk.
TEST_F(PoolMemoryTest, OnlyCarvedChunksMeetTheirEnd)
{
    create(0, 2);
    giveHome(get(perBlock + 2));
    pool_->destroyChunk = endChunk;
    Blocks before = blocks();
    ASSERT_EQ(before.size(), 2u);
    korPoolBlock* whole = before[0]->carved == perBlock ? before[0] : before[1];
    korPoolBlock* partly = whole == before[0] ? before[1] : before[0];
    ASSERT_EQ(partly->carved, 2u);
    uint8_t* first = partly->memory;

    partly->idle = 1;
    EXPECT_EQ(pool_->freeChunks, 2 * perBlock);
    pass();
    EXPECT_RAISED(KOR_ERROR_EXCEPTION, "ended");
    EXPECT_EQ(blocks(), Blocks{whole});
    EXPECT_EQ(pool_->freeChunks, perBlock);
    EXPECT_EQ(ended, (std::vector<void*>{first, first + pool_->stride}));

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    _korPool_Destroy(KOR_AT_D(0, ex), pool_);
    pool_ = nullptr;
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(ended.size(), 2u + perBlock);
}

} // namespace
