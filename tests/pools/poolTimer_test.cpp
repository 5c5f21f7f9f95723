// poolTimer_test.cpp - a pool gives memory back by a task of the global timer, and is destroyed while that task runs.

#include "korutil/korLib.h"
#include "korutil/korPool.h"
#include "korutil/korTimer.h"
#include "log/loggerTest.h"
#include "support/failingHeap.h"
#include "support/meeting.h"

#include <thread>

using namespace kor::test;

namespace {

constexpr int32_t perBlock = 4;
constexpr int32_t blocks = 4;

Semaphore ended;        // once for each chunk that has gone
Semaphore gate;         // chunks wait for it before they go
std::atomic<bool> shut; // whether they do

void endChunk(korEx*, uint8_t, void*)
{
    bool waits = shut;
    ended.release();
    if (waits) {
        gate.acquire();
    }
}

void awaitEnds(int32_t chunks)
{
    while (chunks-- > 0) {
        ended.acquire();
    }
}

// Each test has a pool with as many blocks, all wholly free.
class PoolTimerTest : public LoggerTest
{
protected:
    void SetUp() override
    {
        LoggerTest::SetUp();
        receive(receiver);
        _korLogger_SetLogLevelWithLevel(1, KOR_LOG_DEBUG);
        _korutil_Open(ex, 0, KORUTIL_LEVEL);
        pool = _korPool_Create(ex, 0, perBlock, 16, nullptr, endChunk, 1, perBlock);
        ASSERT_CLEAN();
        std::vector<void*> chunks;
        for (int32_t i = 0; i < blocks * perBlock; i++) {
            chunks.push_back(_korPool_Get(ex, 0, pool));
        }
        std::jthread([&] { // one that never got a chunk returns them to their blocks
            KOR_EX_LOCAL(own);
            for (void* chunk : chunks) {
                _korPool_Return(0, &own, pool, chunk);
            }
        });
        receiver.take(); // what the opening says at this level
    }

    void hurry() { _korTimer_AdjustTask(0, ex, pool->timer, pool->task, 1); }

    Receiver receiver;
    korPool* pool = nullptr;
};

TEST_F(PoolTimerTest, IdleBlocksGoAndThePoolOutlivesTheLibrary)
{
    hurry();
    awaitEnds((blocks - 1) * perBlock);
    _korutil_Close(0, ex); // the task ends: no pass is under way behind this
    uint32_t total, free;
    _korPool_Memory(pool, &total, &free);
    EXPECT_TRUE(total == perBlock && free == total) << free << " of " << total;
    _korPool_Destroy(0, ex, pool);
    awaitEnds(perBlock);
    EXPECT_EQ(receiver.take().size(), 0u);
}

TEST_F(PoolTimerTest, ADestroyDoesNotWaitForAPass)
{
    shut = true;
    hurry();
    awaitEnds(1); // a pass waits at the gate
    _korPool_Destroy(0, ex, pool);
    Statements statements = receiver.take();
    ASSERT_EQ(statements.size(), 1u);
    EXPECT_NE(statements[0].find(": Delayed 'returnMemory' task cancellation for pool "), std::string::npos);
    shut = false;
    gate.release();
    awaitEnds(blocks * perBlock - 1); // the last ones go with the pool, which the task has kept
    _korutil_Close(0, ex);
}

// Whatever could not be had, the task's reference is not left behind.
TEST_F(PoolTimerTest, APoolWithoutATaskIsNone)
{
    sweepFailures(ex, [&] {
        korPool* own = _korPool_Create(ex, 0, perBlock, 16, nullptr, nullptr, 1, perBlock);
        EXPECT_EQ(own == nullptr, ex->code != 0);
        _korPool_Destroy(0, ex, own);
    });
    _korPool_Destroy(0, ex, pool);
    awaitEnds(blocks * perBlock);
    _korutil_Close(0, ex);
}

} // namespace
