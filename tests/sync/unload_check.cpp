// unload_check.cpp - loads the library, uses it from several threads, unloads it, a hundred times over. Some threads
// outlive every unloading, some end right after one. Nothing may crash, and under a leak checker nothing may be lost.
// A program of its own, since one that is linked to the library cannot unload it. Arguments: the library's path, and
// "debug" for the same under the debug allocator.

#include "korutil/korLib.h"
#include "korutil/korLogger.h"
#include "korutil/korMemReserve.h"
#include "korutil/korPool.h"
#include "korutil/korProcess.h"
#include "korutil/korThread.h"
#include "korutil/korThreadLocal.h"
#include "support/meeting.h"
#include "support/module.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

constexpr int rounds = 100;
constexpr int roundsWithOneEnd = 10; // after each so many rounds a lasting thread ends
constexpr int lastingThreads = rounds / roundsWithOneEnd;
constexpr int shortThreads = 3;

Module library;
int32_t key;
korPool* pool;
std::atomic<int> destructors, statements, failures;
std::atomic<int> current; // round

constexpr uint64_t logKey = 7;

template <typename Function>
Function* find(const char* name)
{
    Function* function;
    findSymbol(library, name, function);
    return function;
}

// The library's function: it cannot be linked.
#define LIB(name) find<decltype(name)>(#name)

void expect(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "round %d: %s\n", current.load(), what);
        failures++;
    }
}

void freeValue(uint64_t value)
{
    destructors++;
    std::free(reinterpret_cast<void*>(value));
}

void countStatement(korDateTime, const char*, void*)
{
    statements++;
}

// Leaves a value of this thread, which nobody has set since the library was loaded. Gives it.
uint64_t useLibrary(void*)
{
    KOR_EX_LOCAL(ex);
    expect(LIB(_korThreadLocal_GetRawDebug)(key) == 0, "a value of an earlier life");
    auto value = reinterpret_cast<uint64_t>(std::malloc(16));
    LIB(_korThreadLocal_Set)(&ex, 0, key, value);
    expect(LIB(_korThreadLocal_GetRawDebug)(key) == value, "no value");
    expect(LIB(_korThread_Current)(&ex, 0) != 0, "no serial number");
    LIB(_korPool_Return)(0, &ex, pool, LIB(_korPool_Get)(&ex, 0, pool)); // leaves a cache
    LIB(_korLogger_LogByKey)(logKey, 1, nullptr, nullptr, KOR_LOG_WARN, nullptr, 0, "round %d", current.load());
    expect(ex.code == 0, "an error");
    LIB(_korEx_SetException)(&ex, KOR_ERROR_NOT_FOUND, nullptr, 0, __func__, __LINE__, 0);
    expect(ex.code == KOR_ERROR_NOT_FOUND, "no error");
    return value;
}

void load(const char* path)
{
    library = loadModule(path);
    if (library == nullptr) {
        std::fprintf(stderr, "cannot load %s\n", path);
        std::exit(1);
    }
    KOR_EX_LOCAL(ex);
    LIB(_korutil_Open)(&ex, 0, KORUTIL_LEVEL);
    key = LIB(_korThreadLocal_Create)(&ex, 0, freeValue);
    pool = LIB(_korPool_Create)(&ex, 0, 16, 64, nullptr, nullptr, 1, 16);
    LIB(_korMemReserve_Alloc)(&ex, 0, 100000);
    LIB(_korLogger_SetLogCallbackForId)(&ex, 0, logKey, countStatement, nullptr);
    statements = 0;
    expect(ex.code == 0, "cannot open");
}

void unload(const char* path)
{
    KOR_EX_LOCAL(ex);
    expect(statements >= shortThreads, "statements got lost");
    LIB(_korPool_Destroy)(0, &ex, pool);
    LIB(_korutil_Close)(0, &ex);
    expect(unloadModule(library) && !isLoaded(path), "cannot unload");
}

void shortLives()
{
    KOR_EX_LOCAL(ex);
    std::vector<std::jthread> threads;
    for (int i = 0; i < shortThreads; i++) {
        threads.emplace_back(useLibrary, nullptr);
    }
    korThread* own = LIB(_korThread_Create)(&ex, 0, useLibrary, nullptr, 0, "tShort");
    expect(LIB(_korThread_Join)(&ex, 0, own) != 0, "no result");
    LIB(_korThread_Destroy)(0, &ex, own);
}

// A thread that lives on with its value when the library goes: the value stays its own.
void lastingLife(kor::test::Barrier& step, int lastRound)
{
    while (current <= lastRound) {
        step.arrive_and_wait(); // loaded
        void* value = reinterpret_cast<void*>(useLibrary(nullptr));
        step.arrive_and_wait(); // used
        step.arrive_and_wait(); // unloaded
        std::free(value);
    }
    step.arrive_and_drop();
}

// The debug allocator's thread never leaves the library, so the library stays.
int staysUnderDebugAllocator(const char* path)
{
    KOR_EX_LOCAL(ex);
    library = loadModule(path);
    expect(library != nullptr && LIB(_kor_setenv)("KOR_MEM_DEBUG_CONF", "double-free,timing=5000:1:1") == 0,
           "no variable");
    expect(unloadModule(library) && !isLoaded(path), "cannot unload before an allocation");
    load(path);
    useLibrary(nullptr);
    LIB(_korPool_Destroy)(0, &ex, pool);
    LIB(_korutil_Close)(0, &ex);
    expect(unloadModule(library) && isLoaded(path), "the debug allocator's library is gone");
    return failures == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    const char* path = argc > 1 ? argv[1] : "korutil.dll";
    if (argc > 2) {
        return staysUnderDebugAllocator(path);
    }
    kor::test::Barrier step(lastingThreads + 1);
    std::vector<std::jthread> lasting;
    for (int i = 0; i < lastingThreads; i++) {
        lasting.emplace_back(lastingLife, std::ref(step), (i + 1) * roundsWithOneEnd - 1);
    }
    while (current < rounds) {
        destructors = 0;
        load(path);
        step.arrive_and_wait();
        useLibrary(nullptr);
        shortLives();
        step.arrive_and_wait();
        expect(destructors == shortThreads + 1, "the ends of threads");
        unload(path);
        expect(destructors == shortThreads + 2, "the unloading thread's own value, and no other");
        current++;
        step.arrive_and_wait();
    }
    return failures == 0 ? 0 : 1;
}
