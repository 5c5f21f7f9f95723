// korThread.cpp - threads over the system's, and the once-control.
//
// A thread and its object share a counted start record: either may go first.

#include "korutil/korThread.h"
#include "foundation/request.h"

#include "foundation/hostile.h"
#include "foundation/unload.h"
#include "korutil/korAffinity.h"
#include "korutil/korAlloc.h"
#include "korutil/korThreadLocal.h"
#include "platform/cpu.h"
#include "platform/environment.h"
#include "platform/thread.h"
#include "sync/threadStore.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

enum OnceState : uint64_t { notBegun, claimed, running, done };

constexpr const char* unnamed = "Unnamed";

korThreadOnce moduleOnce;
korThreadHook globalHook = nullptr; // atomic
uint64_t nextSerial = 1;            // atomic
char* cachedProgname = nullptr;     // atomic

void freeProgname()
{
    KOR_EX_LOCAL(ex);
    _kor_free(KOR_AT_D(0, &ex), cachedProgname);
    cachedProgname = nullptr;
}

UnloadStep freesProgname = {freeProgname, nullptr};

// Keys of the values that a thread has here; 0 before the module has started. Atomic: names are asked for at any time.
struct {
    int32_t name, serial, type, core;
} keys;

int32_t load(int32_t& key)
{
    return std::atomic_ref(key).load(std::memory_order_relaxed);
}

void createKey(int32_t& key)
{
    KOR_EX_LOCAL(ex);
    std::atomic_ref(key).store(_korThreadLocal_CreateRaw(KOR_AT(&ex, 0)), std::memory_order_relaxed);
}

void thread_onceling()
{
    KOR_EX_LOCAL(ex);
    _korThreadLocal_InitProcess(KOR_AT(&ex, 0));
    if (ex.code == 0) {
        createKey(keys.name);
        createKey(keys.serial);
        createKey(keys.type);
        createKey(keys.core);
    }
}

// The debug allocator starts a thread at its first request. That must not be one of the module's own, made while its
// once-control is held.
void wakeAllocator()
{
    KOR_EX_LOCAL(ex);
    _kor_free(KOR_AT_D(0, &ex), _kor_malloc(KOR_AT(&ex, 0), 1));
}

// ---- The running thread ---------------------------------------------------------------------------------------------

void releaseStart(uint8_t depth, korEx* ex, korThreadStart* start)
{
    if (std::atomic_ref(start->refCount).fetch_sub(1) == 1) {
        _kor_free(KOR_AT_D(depth, ex), start->name);
        _kor_free(KOR_AT_D(depth, ex), start);
    }
}

// The destructors that are still to come find the thread's name, though the start record may be gone by then.
void keepName(korEx* ex, uint8_t depth, const char* name)
{
    char* room = threadNameRoom();
    if (room == nullptr || _korThreadLocal_Get(load(keys.name)) != reinterpret_cast<uint64_t>(name)) {
        return;
    }
    strncpy(room, name, KOR_THREAD_NAME_SIZE - 1); // the room comes zeroed
    _korThreadLocal_SetRaw(KOR_AT(ex, depth), load(keys.name), reinterpret_cast<uint64_t>(room));
}

uint32_t __korThread_Start(void* argument)
{
    auto* start = static_cast<korThreadStart*>(argument);
    KOR_EX_LOCAL(ex);
    _korThreadLocal_SetRaw(KOR_AT(&ex, 0), load(keys.type), static_cast<uint32_t>(start->type));
    korEx_Clear(&ex);
    _korThread_SetCurrentName(KOR_AT(&ex, 0), start->name);
    korEx_Clear(&ex);
    int64_t core = _korAffinity_MigrateThisThread(KOR_AT(&ex, 0));
    korEx_Clear(&ex);
    _korThreadLocal_SetRaw(KOR_AT(&ex, 0), load(keys.core), static_cast<uint64_t>(core));
    korEx_Clear(&ex);
    start->result = start->function(start->argument);
    _korAffinity_ReturnCore();
    keepName(KOR_AT(&ex, 0), start->name);
    releaseStart(KOR_AT_D(0, &ex), start);
    return 0;
}

// ---- Creation -------------------------------------------------------------------------------------------------------

struct HookedCall {
    korThreadHook hook;
    korThreadFunction function;
    void* argument;
};

uint64_t hookedMain(void* argument)
{
    auto* pair = static_cast<HookedCall*>(argument);
    uint64_t result = pair->hook(pair->function, pair->argument);
    free(pair);
    return result;
}

uint32_t stackSize()
{
    const char* text = platform::getEnvironment("KOR_THREAD_STACK_SIZE");
    int32_t size = text != nullptr ? atoi(text) : 0;
    return size > 0 ? static_cast<uint32_t>(size) : 0;
}

void freeParts(uint8_t depth, korEx* ex, korThread* thread, korThreadStart* start)
{
    if (start != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), start->name);
    }
    _kor_free(KOR_AT_D(depth, ex), start);
    _kor_free(KOR_AT_D(depth, ex), thread->name);
    thread->name = nullptr;
    thread->start = nullptr;
}

void _createThread(korEx* ex, uint8_t depth, korThread* thread, korThreadFunction function, void* argument,
                   int32_t type, const char* name)
{
    auto* start = request<korThreadStart>(KOR_AT(ex, depth));
    if (start == nullptr) {
        return;
    }
    // Two sides from the start, since the thread may be gone before the system's call has returned.
    *start = {.refCount = 2, .function = function, .argument = argument, .result = 0, .type = type, .name = nullptr};
    start->name = requestCopy(KOR_AT(ex, depth), name);
    thread->name = ex->code == 0 ? requestCopy(KOR_AT(ex, depth), name) : nullptr;
    thread->start = start;
    if (ex->code == 0 &&
        !platform::threadStart(__korThread_Start, start, stackSize(), &thread->handle, &thread->threadId)) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_INITIALIZED, NULL);
    }
    if (ex->code != 0) {
        freeParts(KOR_AT_D(depth, ex), thread, start);
    }
}

void _createThreadWithHook(korEx* ex, uint8_t depth, korThread* thread, korThreadHook hook, korThreadFunction function,
                           void* argument, int32_t type, const char* name)
{
    auto* pair = static_cast<HookedCall*>(malloc(sizeof(HookedCall)));
    if (pair == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, NULL);
        return;
    }
    *pair = {hook, function, argument};
    _createThread(KOR_AT(ex, depth), thread, hookedMain, pair, type, name);
    if (ex->code != 0) {
        free(pair);
    }
}

void startThread(korEx* ex, uint8_t depth, korThread* thread, korThreadFunction function, void* argument, int32_t type,
                 const char* name)
{
    korThreadHook hook = std::atomic_ref(globalHook).load(std::memory_order_relaxed);
    if (hook != nullptr) {
        _createThreadWithHook(KOR_AT(ex, depth), thread, hook, function, argument, type, name);
    } else {
        _createThread(KOR_AT(ex, depth), thread, function, argument, type, name);
    }
}

// ---- The program's name ---------------------------------------------------------------------------------------------

// Threads that find the name at once agree on one copy.
const char* cacheProgname(uint8_t depth, korEx* ex, const char* name)
{
    char* known = nullptr;
    char* copy = ex->code == 0 ? requestCopy(KOR_AT(ex, depth), name) : nullptr;
    if (copy == nullptr) {
        return nullptr;
    }
    if (std::atomic_ref(cachedProgname).compare_exchange_strong(known, copy)) {
        atUnload(freesProgname);
        return copy;
    }
    _kor_free(KOR_AT_D(depth, ex), copy);
    return known;
}

} // namespace
} // namespace kor

using namespace kor;

void _korThread_InitThreads(korEx* ex, uint8_t depth)
{
    if (std::atomic_ref(moduleOnce.state).load() != done) {
        wakeAllocator();
    }
    _korThread_Once(KOR_AT(ex, depth), &moduleOnce, thread_onceling);
}

void _korThread_Once(korEx* ex, uint8_t depth, korThreadOnce* once, korThreadOnceRoutine routine)
{
    std::atomic_ref state(once->state);
    if (ex->code != 0 || state.load() == done) {
        return;
    }
    uint64_t expected = notBegun;
    if (state.compare_exchange_strong(expected, claimed)) {
        _korMutex_Init(KOR_AT(ex, depth), &once->lock);
        korMutex_enter(&once->lock);
        state = running;
        routine();
        state = done;
        korMutex_leave(&once->lock);
        return;
    }
    while (state.load() == claimed) { // until there is a mutex to wait for: a few steps of the winner
        platform::yieldThread();
    }
    while (state.load() != done) {
        korMutex_enter(&once->lock);
        hostileYield();
        korMutex_leave(&once->lock);
    }
}

void _korThread_SetGlobalHook(korThreadHook hook)
{
    std::atomic_ref(globalHook).store(hook, std::memory_order_relaxed);
}

korThread* _korThread_Create(korEx* ex, uint8_t depth, korThreadFunction function, void* argument, int32_t type,
                             const char* name)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (function == nullptr || name == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, NULL);
        return nullptr;
    }
    _korThread_InitThreads(KOR_AT(ex, depth));
    auto* thread = requestZeroed<korThread>(KOR_AT(ex, depth));
    if (thread == nullptr) {
        return nullptr;
    }
    startThread(KOR_AT(ex, depth), thread, function, argument, type, name);
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), thread);
        return nullptr;
    }
    return thread;
}

void _korThread_CreateInBuffer(korEx* ex, uint8_t depth, korThread* buffer, int32_t type, uint32_t size,
                               korThreadFunction function, void* argument, const char* name)
{
    if (ex->code != 0) {
        return;
    }
    if (buffer == nullptr || size < sizeof(korThread) || function == nullptr || name == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, NULL);
        return;
    }
    memset(static_cast<void*>(buffer), 0, size);
    _korThread_InitThreads(KOR_AT(ex, depth));
    startThread(KOR_AT(ex, depth), buffer, function, argument, type, name);
}

uint64_t _korThread_Join(korEx* ex, uint8_t depth, korThread* thread)
{
    if (ex->code != 0) {
        return 0;
    }
    if (thread == nullptr || _korThread_IsCurrentThread(thread)) { // a thread would wait for itself for ever
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, NULL);
        return 0;
    }
    platform::threadJoin(&thread->handle);
    return thread->start->result;
}

void _korThread_Destroy(uint8_t depth, korEx* ex, korThread* thread)
{
    if (thread == nullptr) {
        return;
    }
    platform::threadClose(&thread->handle);
    releaseStart(KOR_AT_D(depth, ex), thread->start);
    _kor_free(KOR_AT_D(depth, ex), thread->name);
    _kor_free(KOR_AT_D(depth, ex), thread);
}

void _korThread_Detach(korEx*, uint8_t, korThread*) {}

bool _korThread_IsCurrentThread(const korThread* thread)
{
    return thread != nullptr && platform::threadIsCurrent(const_cast<void**>(&thread->handle), thread->threadId);
}

void _korThread_SetCurrentName(korEx* ex, uint8_t depth, const char* name)
{
    _korThreadLocal_SetRaw(KOR_AT(ex, depth), load(keys.name), reinterpret_cast<uint64_t>(name));
    if (name != nullptr) {
        platform::threadName(name);
    }
}

void _korThread_GetCurrentName(uint8_t depth, korEx* ex, const char** name)
{
    int32_t key = load(keys.name);
    if (key == 0) {
        *name = unnamed;
        return;
    }
    *name = reinterpret_cast<const char*>(_korThreadLocal_Get(key));
    if (*name == nullptr) {
        _korThread_GetProgname(KOR_AT_D(depth, ex), name);
    }
    if (*name == nullptr) {
        *name = unnamed;
    }
}

void _korThread_GetProgname(uint8_t depth, korEx* ex, const char** name)
{
    char found[512];
    *name = std::atomic_ref(cachedProgname).load();
    if (*name == nullptr) {
        *name = platform::programName(found, sizeof found) ? cacheProgname(KOR_AT_D(depth, ex), found) : unnamed;
    }
}

uint64_t _korThread_Current(korEx* ex, uint8_t depth)
{
    uint64_t serial = _korThreadLocal_Get(load(keys.serial));
    if (serial != 0 || ex->code != 0) {
        return ex->code == 0 ? serial : 0;
    }
    serial = std::atomic_ref(nextSerial).fetch_add(1);
    _korThreadLocal_Set(KOR_AT(ex, depth), load(keys.serial), serial);
    return ex->code == 0 ? serial : 0;
}

int32_t _korThread_Type(void)
{
    return static_cast<int32_t>(_korThreadLocal_Get(load(keys.type)));
}

uint32_t _korThread_CurrentSystemThreadID(void)
{
    return platform::threadId();
}

int64_t _korCurrentThread_GetCoreAssignment(void)
{
    return static_cast<int64_t>(_korThreadLocal_Get(load(keys.core)));
}
