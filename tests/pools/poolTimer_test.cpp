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

Semaphore* ended; // once for each chunk that has gone
Semaphore* gate;  // or NULL: chunks wait for it before they go

void endChunk(korEx*, uint8_t, void*)
{
    ended->release();
    if (gate != nullptr) {
        gate->acquire();
    }
}

class PoolTimerTest : public LoggerTest
{
protected:
    void SetUp() override
    {
        LoggerTest::SetUp();
        receive(receiver);
        _korLogger_SetLogLevelWithLevel(1, KOR_LOG_DEBUG);
        ended = &endedChunks;
        gate = nullptr;
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        pool = _korPool_Create(KOR_AT(ex, 0), perBlock, 16, nullptr, endChunk, 1, perBlock);
        ASSERT_CLEAN();
        receiver.take(); // what the opening says at this level
    }

    /// Leaves `blocks` wholly free blocks: a thread that never got a chunk returns them to their blocks.
    void useAll()
    {
        std::vector<void*> chunks;
        for (int32_t i = 0; i < blocks * perBlock; i++) {
            chunks.push_back(_korPool_Get(KOR_AT(ex, 0), pool));
        }
        std::jthread([&] {
            KOR_EX_LOCAL(own);
            for (void* chunk : chunks) {
                _korPool_Return(KOR_AT_D(0, &own), pool, chunk);
            }
        });
    }
    void hurry() { _korTimer_AdjustTask(KOR_AT_D(0, ex), pool->timer, pool->task, 1); }
    void await(int32_t chunks)
    {
        for (int32_t i = 0; i < chunks; i++) {
            endedChunks.acquire();
        }
    }

    Receiver receiver;
    Semaphore endedChunks;
    Semaphore chunkGate;
    korPool* pool = nullptr;
};

} // namespace

TEST_F(PoolTimerTest, IdleBlocksGoAndThePoolOutlivesTheLibrary)
{
    useAll();
    uint32_t total, free;
    _korPool_Memory(pool, &total, &free);
    EXPECT_TRUE(total == blocks * perBlock && free == total);
    hurry();
    await((blocks - 1) * perBlock);
    _korutil_Close(KOR_AT_D(0, ex)); // the task ends: no pass is under way behind this
    _korPool_Memory(pool, &total, &free);
    EXPECT_TRUE(total == perBlock && free == total);
    _korPool_Destroy(KOR_AT_D(0, ex), pool);
    await(perBlock);
    EXPECT_EQ(receiver.take().size(), 0u);
}

TEST_F(PoolTimerTest, ADestroyDoesNotWaitForAPass)
{
    useAll();
    gate = &chunkGate;
    hurry();
    endedChunks.acquire(); // a pass waits for the gate
    char expected[120];
    snprintf(expected, sizeof expected, ": Delayed 'returnMemory' task cancellation for pool %llx.",
             static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pool)));
    _korPool_Destroy(KOR_AT_D(0, ex), pool);
    Statements statements = receiver.take();
    ASSERT_EQ(statements.size(), 1u);
    EXPECT_TRUE(statements[0].ends_with(expected)) << statements[0];
    for (int32_t i = 0; i < blocks * perBlock; i++) {
        chunkGate.release();
    }
    await(blocks * perBlock - 1); // the last ones go with the pool, which the task has kept
    _korutil_Close(KOR_AT_D(0, ex));
}
