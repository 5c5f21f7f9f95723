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

using Chunks = std::vector<void*>;

class PoolMemoryTest : public kor::test::KorTest
{
protected:
    ~PoolMemoryTest() override { _korPool_Destroy(0, ex, pool); }

    void create(int32_t minBlocks, int32_t refillTarget = perBlock)
    {
        pool = _korPool_Create(ex, 0, perBlock, 16, nullptr, nullptr, minBlocks, refillTarget);
    }
    Chunks get(int32_t count)
    {
        Chunks chunks;
        while (count-- > 0) {
            chunks.push_back(_korPool_Get(ex, 0, pool));
        }
        return chunks;
    }
    // The chunks go home to their blocks, with whatever else this thread has.
    void giveHome(const Chunks& chunks)
    {
        for (void* chunk : chunks) {
            _korPool_Return(0, ex, pool, chunk);
        }
        _korThreadLocal_ForceDestructors(0, ex);
    }
    // Runs a pass. Gives the marks of the blocks that are left.
    std::string pass()
    {
        std::string marks;
        _korPool_ReturnMemory(ex, 0, nullptr, 0, pool);
        for (korPoolBlock* block = pool->head; block != nullptr; block = block->next) {
            marks += block->idle ? 'x' : '-';
        }
        EXPECT_EQ(marks.size(), pool->blockCount);
        return marks;
    }

    korPool* pool = nullptr;
};

TEST_F(PoolMemoryTest, AFreeBlockGoesOnThePassAfterItsMarkUnlessItIsKept)
{
    struct {
        int32_t minBlocks, refill, got;
        std::vector<std::string> passes;
    } cases[] = {{0, 4, 4, {"-", "-", "-"}},
                 {0, 4, 12, {"-xx", "-", "-"}},
                 {2, 4, 12, {"-xx", "-x", "-x"}},
                 {0, 2, 6, {"-x", "-"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.got << " chunks, " << c.minBlocks << " blocks kept");
        create(c.minBlocks, c.refill);
        giveHome(get(c.got)); // with a refill of 2 a block is carved in part
        korPoolBlock* spared = pool->head;
        for (const std::string& marks : c.passes) {
            EXPECT_EQ(pass(), marks);
            EXPECT_EQ(pool->head, spared);
            EXPECT_EQ(pool->freeChunks, static_cast<int32_t>(marks.size()) * perBlock);
        }
        giveHome(get(4 * perBlock)); // what is left serves
        EXPECT_EQ(pool->freeChunks, 4 * perBlock);
        _korPool_Destroy(0, ex, std::exchange(pool, nullptr));
    }
}

TEST_F(PoolMemoryTest, ABlockInUseStaysAndSoDoesItsMark)
{
    create(0);
    giveHome(get(2 * perBlock));
    EXPECT_EQ(pass(), "-x");
    korPoolBlock* marked = pool->tail;
    Chunks chunks = get(2 * perBlock);
    giveHome(Chunks(chunks.begin() + 1, chunks.end() - 1)); // one of each block is kept
    pass();
    EXPECT_EQ(pass().size(), 2u);
    EXPECT_EQ(pool->head->idle + pool->tail->idle, 1);
    EXPECT_EQ(marked->idle, 1);
    giveHome({chunks.front(), chunks.back()});
    EXPECT_EQ(pass(), "-");
    EXPECT_NE(pool->head, marked);
}

} // namespace
