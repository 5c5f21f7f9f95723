// korThreadPool.cpp - threads that start, stop and are joined together.

#include "korutil/korThreadPool.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "korutil/korText.h"
#include "sync/mutexGuard.h"

#include <atomic>

namespace kor {
namespace {

constexpr int32_t defaultSize = 4;
constexpr size_t nameSize = 100;

// Entries are read without the mutex by those who ask whether they are a thread of the pool.
korThread* threadAt(const korThreadPool* pool, int32_t index)
{
    return KOR_ATOMIC_LOAD_ACQUIRE(&pool->threads[index]);
}

void setThread(korThreadPool* pool, int32_t index, korThread* thread)
{
    KOR_ATOMIC_STORE_RELEASE(&pool->threads[index], thread);
}

korThread** makeThreadList(korEx* ex, uint8_t depth, int32_t size)
{
    if (size < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return nullptr;
    }
    return requestZeroed<korThread*>(KOR_AT(ex, depth), static_cast<size_t>(size));
}

// After the first failure the rest are no-ops that give NULL.
void startThreads(korEx* ex, uint8_t depth, korThreadPool* pool)
{
    for (int32_t i = 0; i < pool->maxSize; i++) {
        char name[nameSize];
        _kor_snprintf(name, sizeof name, "tPool%d.%s thread %d in pool", i, pool->name, i);
        setThread(pool, i,
                  _korThread_Create(KOR_AT(ex, depth), pool->threadMain, pool->closure, pool->threadType, name));
    }
    pool->state = ex->code == 0 ? KOR_POOL_RUNNING : KOR_POOL_FAILED;
}

// On an object of its own, so that the joining goes on whatever is pending.
void joinThread(uint8_t depth, korEx* ex, korThread* thread)
{
    KOR_EX_CHAINED(local, ex, depth);
    if (_korThread_IsCurrentThread(thread)) {
        _korThread_Detach(KOR_AT(&local, depth), thread);
    } else if (thread != nullptr) {
        _korThread_Join(KOR_AT(&local, depth), thread);
    }
}

void dropThreads(uint8_t depth, korEx* ex, korThreadPool* pool)
{
    for (int32_t i = 0; pool->threads != nullptr && i < pool->maxSize; i++) {
        korThread* thread = threadAt(pool, i);
        setThread(pool, i, nullptr);
        _korThread_Destroy(KOR_AT_D(depth, ex), thread);
    }
}

void _korThreadPoolDestroy(uint8_t depth, korEx* ex, korThreadPool* pool)
{
    dropThreads(KOR_AT_D(depth, ex), pool);
    _kor_free(KOR_AT_D(depth, ex), pool->threads);
    _korMutex_Destroy(KOR_AT_D(depth, ex), pool->mutex);
    _kor_free(KOR_AT_D(depth, ex), pool->name);
    _kor_free(KOR_AT_D(depth, ex), pool);
}

} // namespace
} // namespace kor

using namespace kor;

korThreadPool* _korThreadPool_Create(korEx* ex, uint8_t depth, korThreadFunction threadMain,
                                     korThreadPoolStopFunction stopFunction, void* closure, int32_t threadType,
                                     const char* name)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* pool = requestZeroed<korThreadPool>(KOR_AT(ex, depth));
    if (pool == nullptr) {
        return nullptr;
    }
    pool->refCount = 1;
    pool->maxSize = defaultSize;
    pool->threadMain = threadMain;
    pool->stopFunction = stopFunction;
    pool->closure = closure;
    pool->threadType = threadType;
    pool->mutex = _korMutex_Create(KOR_AT(ex, depth));
    pool->name = requestCopy(KOR_AT(ex, depth), name);
    if (ex->code != 0) {
        _korThreadPoolDestroy(KOR_AT_D(depth, ex), pool);
        return nullptr;
    }
    return pool;
}

void _korThreadPool_SetMaxSize(korEx* ex, uint8_t depth, korThreadPool* pool, int32_t size)
{
    if (ex->code != 0) {
        return;
    }
    MutexGuard guard(pool->mutex);
    if (pool->state != KOR_POOL_CREATED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Cannot set thread pool parameters after start.");
        return;
    }
    pool->maxSize = size;
}

int32_t _korThreadPool_GetMaxSize(korEx* ex, uint8_t, korThreadPool* pool)
{
    if (ex->code != 0) {
        return 0;
    }
    MutexGuard guard(pool->mutex);
    return pool->maxSize;
}

void _korThreadPool_Start(korEx* ex, uint8_t depth, korThreadPool* pool)
{
    if (ex->code != 0) {
        return;
    }
    korMutex_enter(pool->mutex);
    if (pool->state != KOR_POOL_CREATED) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Cannot restart thread pool after start.");
        korMutex_leave(pool->mutex);
        return;
    }
    pool->threads = makeThreadList(KOR_AT(ex, depth), pool->maxSize);
    if (ex->code != 0) {
        pool->state = KOR_POOL_FAILED;
        return; // the mutex stays entered: such a pool is only good for being released
    }
    startThreads(KOR_AT(ex, depth), pool);
    korMutex_leave(pool->mutex);
}

void _korThreadPool_Stop(uint8_t, korEx*, korThreadPool* pool)
{
    if (pool == nullptr) {
        return;
    }
    MutexGuard guard(pool->mutex);
    if (pool->state == KOR_POOL_RUNNING) {
        pool->state = KOR_POOL_STOPPING;
        pool->stopFunction(pool->closure);
    }
}

void _korThreadPool_Join(uint8_t depth, korEx* ex, korThreadPool* pool)
{
    if (pool == nullptr) {
        return;
    }
    MutexGuard guard(pool->mutex);
    if (pool->state != KOR_POOL_STOPPING) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Cannot join a thread pool that is not stopped.");
        return;
    }
    pool->state = KOR_POOL_JOINED;
    for (int32_t i = 0; i < pool->maxSize; i++) {
        joinThread(KOR_AT_D(depth, ex), threadAt(pool, i));
    }
    // Not before all have ended: until then they may ask whether they are of this pool.
    dropThreads(KOR_AT_D(depth, ex), pool);
}

void _korThreadPool_Retain(korEx*, uint8_t, korThreadPool* pool)
{
    std::atomic_ref(pool->refCount).fetch_add(1);
}

void _korThreadPool_Release(uint8_t depth, korEx* ex, korThreadPool* pool)
{
    if (pool != nullptr && std::atomic_ref(pool->refCount).fetch_sub(1) == 1) {
        _korThreadPoolDestroy(KOR_AT_D(depth, ex), pool);
    }
}

bool _korThreadPool_IsCurrentThreadInPool(uint8_t, korEx*, const korThreadPool* pool)
{
    for (int32_t i = 0; pool != nullptr && pool->threads != nullptr && i < pool->maxSize; i++) {
        if (_korThread_IsCurrentThread(threadAt(pool, i))) {
            return true;
        }
    }
    return false;
}
