// korGlobalExecutor.cpp - the library's own two executors: "giExecutor" for internal work, "guExecutor" for work that
// runs users' code. What KOR_EXEC_CONF says of them, who gets them, and how they come to rest.

#include "exec/executorInternal.h"
#include "exec/globalSlot.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korExecutor.h"
#include "korutil/korProcess.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

using ExecutorSlot = GlobalSlot<korExecutor>;

constexpr char internalName[] = "giExecutor";
constexpr char userName[] = "guExecutor";
constexpr int internalThreads = 4;
constexpr int userThreads = 1;
constexpr uint32_t drainPatience = 60000; // milliseconds without a runner going to sleep

ExecutorSlot internalSlot;
ExecutorSlot userSlot;
UnloadStep clearsInternal = {[] { internalSlot.clear(); }, nullptr};
UnloadStep clearsUser = {[] { userSlot.clear(); }, nullptr};

// ---- The configuration ----------------------------------------------------------------------------------------------

struct Settings {
    int threads;
    int spinCount;
    int warnOnTaskDur; // milliseconds
};

// Entries are found by plain search: their order is free, and what is not recognised is passed over. A comma before the
// next "=" leads to the entry's own spin count; a later one belongs to another entry.
void readEntry(const char* text, const char* name, Settings* settings)
{
    const char* entry = strstr(text, name);
    const char* value = entry != nullptr ? entry + strlen(name) : "";
    if (value[0] != '=' || value[1] == '\0') {
        return;
    }
    value++;
    const char* comma = strchr(value, ',');
    const char* equals = strchr(value, '=');
    bool hasSpinCount = comma != nullptr && (equals == nullptr || comma < equals);
    settings->threads = atoi(value);
    settings->spinCount = hasSpinCount ? atoi(comma + 1) : 0;
    printf("Found settings for executor %s: threadcnt=%d spinCnt=%d \n", name, settings->threads, settings->spinCount);
}

Settings readSettings(const char* name, int defaultThreads)
{
    constexpr char warnKey[] = "warnOnTaskDur=";
    Settings settings = {.threads = defaultThreads, .spinCount = 0, .warnOnTaskDur = 0};
    const char* text = _kor_getenv("KOR_EXEC_CONF");
    if (text == nullptr) {
        return settings;
    }
    if (strstr(text, "help") != nullptr) {
        printf("KOR_EXEC_CONF:%s=<threadcnt>[,<spincnt>][,next_executor=<threadcnt>[,<spincnt>]]"
               "[,warnOnTaskDur=<ms>]\n",
               name);
    }
    if (const char* found = strstr(text, warnKey)) {
        settings.warnOnTaskDur = atoi(found + strlen(warnKey));
        printf("Found setting warnOnTaskDur=%d\n", settings.warnOnTaskDur);
    }
    readEntry(text, name, &settings);
    if (settings.threads == 0) {
        settings.threads = defaultThreads;
    }
    return settings;
}

// ---- Start and stop -------------------------------------------------------------------------------------------------

// The runners carry the executor's name, which the pool gives its threads as it starts.
void renamePool(korEx* ex, uint8_t depth, korThreadPool* pool, const char* name)
{
    char* copy = requestCopy(KOR_AT(ex, depth), name);
    if (copy != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), pool->name);
        pool->name = copy;
    }
}

// The slot opens last: nobody ever sees an executor that is half made.
void _initGlobalExecutor(korEx* ex, uint8_t depth, ExecutorSlot& slot, UnloadStep& unload, const char* name,
                         int defaultThreads)
{
    if (ex->code != 0) {
        return;
    }
    slot.prepare(KOR_AT_D(depth, ex), unload);
    korExecutor* executor = _korExecutor_Create(KOR_AT(ex, depth));
    if (executor == nullptr) {
        return;
    }
    Settings settings = readSettings(name, defaultThreads);
    _korExecutor_SetPoolSize(KOR_AT(ex, depth), executor, settings.threads);
    _korExecutor_SetSpinCount(KOR_AT(ex, depth), executor, settings.spinCount);
    _korExecutor_WarnOnTaskDuration(KOR_AT(ex, depth), executor, settings.warnOnTaskDur);
    renamePool(KOR_AT(ex, depth), executor->threadPool, name);
    _korExecutor_Start(KOR_AT(ex, depth), executor);
    if (ex->code != 0) {
        _korExecutor_Release(KOR_AT_D(depth, ex), executor);
        return;
    }
    executor->isGlobal = 1;
    slot.fill(executor);
    slot.open();
}

void setLocal(korExecutor* executor)
{
    korMutex_enter(executor->mutex);
    executor->isGlobal = 0;
    korMutex_leave(executor->mutex);
}

void _destroyGlobalExecutor(uint8_t depth, korEx* ex, korExecutor* executor)
{
    setLocal(executor);
    _korExecutor_Stop(KOR_AT_D(depth, ex), executor);
    _korExecutor_Release(KOR_AT_D(depth, ex), executor);
}

// ---- Access ---------------------------------------------------------------------------------------------------------

// A job finds its own executor without the lock, which is held while that executor is stopped: the stop waits for the
// job, and the job must not wait for the stop.
korExecutor* executorOfThisThread(ExecutorSlot& slot)
{
    const ActiveRunner* runner = activeRunner();
    return runner != nullptr && runner->executor == slot.peek() ? runner->executor : nullptr;
}

korExecutor* getExecutor(uint8_t depth, korEx* ex, ExecutorSlot& slot)
{
    korExecutor* executor = executorOfThisThread(slot);
    if (executor != nullptr) {
        _korExecutor_Retain(KOR_AT_D(depth, ex), executor);
        return executor;
    }
    executor = slot.get();
    if (executor == nullptr && slot.isOpen()) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, nullptr);
    }
    return executor;
}

bool runsHere(uint8_t depth, korEx* ex, ExecutorSlot& slot)
{
    KOR_EX_PRIVATE(local, ex, depth);
    korExecutor* executor = getExecutor(KOR_AT_D(depth, &local), slot);
    bool here =
        executor != nullptr && _korThreadPool_IsCurrentThreadInPool(KOR_AT_D(depth, &local), executor->threadPool);
    _korExecutor_Release(KOR_AT_D(depth, &local), executor);
    return here;
}

// ---- The drain ------------------------------------------------------------------------------------------------------

bool isIdle(korExecutor* executor)
{
    return std::atomic_ref(executor->idleCount).load() >= executor->poolSize;
}

// Gives up after a minute in which no runner went to sleep. One signal wakes one thread: it hands on what it found.
void awaitIdle(uint8_t depth, korEx* ex, korExecutor* executor)
{
    bool timedOut = false;
    korMutex_enter(executor->idleMutex);
    while (!isIdle(executor) && !timedOut) {
        timedOut =
            _korCondition_TimedWait(KOR_AT_D(depth, ex), executor->idleCondition, executor->idleMutex, drainPatience);
    }
    _korCondition_SignalDebug(KOR_AT_D(depth, ex), executor->idleCondition);
    korMutex_leave(executor->idleMutex);
}

// A runner cannot wait for itself.
void _drainGlobalExecutor(uint8_t depth, korEx* ex, ExecutorSlot& slot)
{
    KOR_EX_PRIVATE(local, ex, depth);
    korExecutor* executor = getExecutor(KOR_AT_D(depth, &local), slot);
    if (executor == nullptr) {
        return;
    }
    if (!_korThreadPool_IsCurrentThreadInPool(KOR_AT_D(depth, &local), executor->threadPool)) {
        awaitIdle(KOR_AT_D(depth, &local), executor);
    }
    _korExecutor_Release(KOR_AT_D(depth, &local), executor);
}

} // namespace
} // namespace kor

using namespace kor;

void _korExecutor_Open(korEx* ex, uint8_t depth)
{
    _initGlobalExecutor(KOR_AT(ex, depth), internalSlot, clearsInternal, internalName, internalThreads);
    _initGlobalExecutor(KOR_AT(ex, depth), userSlot, clearsUser, userName, userThreads);
    openActiveRunner(KOR_AT(ex, depth));
}

void _korExecutor_Close(korEx* ex, uint8_t depth)
{
    internalSlot.close(KOR_AT_D(depth, ex), _destroyGlobalExecutor);
    userSlot.close(KOR_AT_D(depth, ex), _destroyGlobalExecutor);
    closeActiveRunner(KOR_AT_D(depth, ex));
}

korExecutor* _korExecutor_GetGlobal(uint8_t depth, korEx* ex)
{
    return getExecutor(KOR_AT_D(depth, ex), internalSlot);
}

korExecutor* _korExecutor_GetGlobalUser(uint8_t depth, korEx* ex)
{
    return getExecutor(KOR_AT_D(depth, ex), userSlot);
}

bool _korExecutor_IsCurrentThreadInAnyGlobalExecutor(uint8_t depth, korEx* ex)
{
    return runsHere(KOR_AT_D(depth, ex), internalSlot) || runsHere(KOR_AT_D(depth, ex), userSlot);
}

void _korExecutor_DrainGlobalExecutors(uint8_t depth, korEx* ex)
{
    _drainGlobalExecutor(KOR_AT_D(depth, ex), internalSlot);
    _drainGlobalExecutor(KOR_AT_D(depth, ex), userSlot);
}
