// korThreadPool_test.cpp - the states of a pool, and its threads seen from within.

#include "korutil/korThreadPool.h"
#include "support/failingHeap.h"
#include "support/korTest.h"
#include "support/meeting.h"

#include <atomic>
#include <set>

using namespace kor::test;

namespace {

/// What the threads of a pool share.
struct Shared {
    Semaphore arrived;
    Semaphore mayGo;
    std::atomic<int> stops = 0;
    std::atomic<int> threads = 0;
    korThreadPool* pool = nullptr;
    int size = 0;
    bool threadJoins = false;
    bool wasInPool = false;
};

uint64_t waitInPool(void* closure)
{
    auto* shared = static_cast<Shared*>(closure);
    shared->threads++;
    shared->arrived.release();
    shared->mayGo.acquire();
    return 0;
}

void stopAll(void* closure)
{
    auto* shared = static_cast<Shared*>(closure);
    shared->stops++;
    for (int i = 0; i < shared->size; i++) {
        shared->mayGo.release();
    }
}

uint64_t stopOwnPool(void* closure)
{
    auto* shared = static_cast<Shared*>(closure);
    KOR_EX_LOCAL(ex);
    shared->mayGo.acquire();
    shared->wasInPool = _korThreadPool_IsCurrentThreadInPool(KOR_AT_D(0, &ex), shared->pool);
    _korThreadPool_Stop(KOR_AT_D(0, &ex), shared->pool);
    _korThreadPool_Join(KOR_AT_D(0, &ex), shared->pool);
    EXPECT_TRUE(clean(&ex));
    shared->arrived.release();
    return 0;
}

} // namespace

class KorThreadPoolTest : public KorTest
{
protected:
    korThreadPool* make(korThreadFunction main, int size)
    {
        shared.size = size;
        shared.pool = _korThreadPool_Create(KOR_AT(ex, 0), main, stopAll, &shared, 7, "test");
        _korThreadPool_SetMaxSize(KOR_AT(ex, 0), shared.pool, size);
        return shared.pool;
    }
    void start(korThreadPool* pool) { _korThreadPool_Start(KOR_AT(ex, 0), pool); }
    void stop(korThreadPool* pool) { _korThreadPool_Stop(KOR_AT_D(0, ex), pool); }
    void join(korThreadPool* pool) { _korThreadPool_Join(KOR_AT_D(0, ex), pool); }
    void release(korThreadPool* pool) { _korThreadPool_Release(KOR_AT_D(0, ex), pool); }

    Shared shared;
};

TEST_F(KorThreadPoolTest, GoesThroughItsStatesOnce)
{
    constexpr int size = 3;
    korThreadPool* pool = make(waitInPool, size);
    EXPECT_EQ(_korThreadPool_GetMaxSize(KOR_AT(ex, 0), pool), size);
    stop(pool); // not started: nothing
    start(pool);
    for (int i = 0; i < size; i++) {
        shared.arrived.acquire();
    }
    start(pool);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Cannot restart thread pool after start.");
    _korThreadPool_SetMaxSize(KOR_AT(ex, 0), pool, 1);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Cannot set thread pool parameters after start.");
    EXPECT_EQ(pool->maxSize, size);
    join(pool);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Cannot join a thread pool that is not stopped.");
    EXPECT_EQ(pool->state, uint32_t{KOR_POOL_RUNNING});
    EXPECT_FALSE(_korThreadPool_IsCurrentThreadInPool(KOR_AT_D(0, ex), pool));
    stop(pool);
    stop(pool);
    EXPECT_EQ(shared.stops, 1);
    join(pool);
    EXPECT_EQ(pool->state, uint32_t{KOR_POOL_JOINED});
    EXPECT_EQ(shared.threads, size);
    _korThreadPool_Retain(KOR_AT(ex, 0), pool);
    release(pool);
    release(pool);
    release(nullptr);
}

TEST_F(KorThreadPoolTest, AThreadOfThePoolStopsAndJoinsIt)
{
    korThreadPool* pool = make(stopOwnPool, 1);
    start(pool);
    shared.mayGo.release();
    shared.arrived.acquire();
    EXPECT_TRUE(shared.wasInPool);
    EXPECT_EQ(pool->state, uint32_t{KOR_POOL_JOINED});
    release(pool);
}

// Threads that did start are told to go by hand: a failed pool stops nobody.
TEST_F(KorThreadPoolTest, EveryAllocationMayFail)
{
    sweepFailures(ex, [&] {
        korThreadPool* pool = _korThreadPool_Create(KOR_AT(ex, 0), waitInPool, stopAll, &shared, 7, "test");
        shared.size = 2;
        int before = shared.threads;
        _korThreadPool_SetMaxSize(KOR_AT(ex, 0), pool, shared.size);
        _korThreadPool_Start(KOR_AT(ex, 0), pool);
        if (ex->code != 0) {
            for (int i = 0; pool != nullptr && pool->threads != nullptr && i < shared.size; i++) {
                if (pool->threads[i] != nullptr) {
                    KOR_EX_LOCAL(local);
                    shared.mayGo.release();
                    _korThread_Join(KOR_AT(&local, 0), pool->threads[i]);
                }
            }
        } else {
            stop(pool);
            join(pool);
            EXPECT_EQ(shared.threads, before + shared.size);
        }
        release(pool);
        if (ex->code == KOR_ERROR_NOT_INITIALIZED) { // it was the system that had no memory for a thread
            korEx_Clear(ex);
        }
    });
}
