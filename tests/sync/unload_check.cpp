// unload_check.cpp - loads the library, uses it from several threads, unloads it, a hundred times over. Some threads
// outlive every unloading, some end right after one. Nothing may crash, and under a leak checker nothing may be lost.
// A program of its own, since one that is linked to the library cannot unload it. Argument: the library's path.

#include "korutil/korLib.h"
#include "korutil/korLogger.h"
#include "korutil/korMemReserve.h"
#include "korutil/korPool.h"
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

#define LIBRARY_FUNCTIONS(entry)                                                                                     \
    entry(_korutil_Open) entry(_korutil_Close) entry(_korThreadLocal_Create) entry(_korThreadLocal_Set)              \
        entry(_korThreadLocal_GetRawDebug) entry(_korThread_Current) entry(_korThread_Create) entry(_korThread_Join) \
            entry(_korThread_Destroy) entry(_korPool_Create) entry(_korPool_Destroy) entry(_korPool_Get)             \
                entry(_korPool_Return) entry(_korEx_SetException) entry(_korMemReserve_Alloc)                        \
                    entry(_korLogger_SetLogCallbackForId) entry(_korLogger_LogByKey)

struct Library {
    Module module;
#define ENTRY(name) decltype(&name) name##_;
    LIBRARY_FUNCTIONS(ENTRY)
#undef ENTRY
    int32_t key;
    korPool* pool;
};

Library library;
std::atomic<int> destructors;
std::atomic<int> statements;
std::atomic<int> failures;

constexpr uint64_t logKey = 7;

void expect(bool condition, const char* what, int round)
{
    if (!condition) {
        std::fprintf(stderr, "round %d: %s\n", round, what);
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

// A value of this thread, which nobody has set since the library was loaded.
void* useLibrary(int round)
{
    KOR_EX_LOCAL(ex);
    expect(library._korThreadLocal_GetRawDebug_(library.key) == 0, "a value of an earlier life", round);
    void* value = std::malloc(16);
    library._korThreadLocal_Set_(&ex, 0, library.key, reinterpret_cast<uint64_t>(value));
    expect(library._korThreadLocal_GetRawDebug_(library.key) == reinterpret_cast<uint64_t>(value), "no value", round);
    expect(library._korThread_Current_(&ex, 0) != 0, "no serial number", round);
    library._korPool_Return_(0, &ex, library.pool, library._korPool_Get_(&ex, 0, library.pool)); // leaves a cache
    library._korLogger_LogByKey_(logKey, 1, nullptr, nullptr, KOR_LOG_WARN, nullptr, 0, "round %d", round);
    expect(ex.code == 0, "an error", round);
    library._korEx_SetException_(&ex, KOR_ERROR_NOT_FOUND, nullptr, 0, __func__, __LINE__, 0);
    expect(ex.code == KOR_ERROR_NOT_FOUND, "no error", round);
    return value;
}

uint64_t libraryThread(void* round)
{
    useLibrary(static_cast<int>(reinterpret_cast<intptr_t>(round)));
    return 3;
}

void load(const char* path, int round)
{
    library.module = loadModule(path);
    if (library.module == nullptr) {
        std::fprintf(stderr, "round %d: cannot load %s\n", round, path);
        std::exit(1);
    }
#define FIND(name) findSymbol(library.module, #name, library.name##_);
    LIBRARY_FUNCTIONS(FIND)
#undef FIND
    KOR_EX_LOCAL(ex);
    library._korutil_Open_(&ex, 0, KORUTIL_LEVEL);
    library.key = library._korThreadLocal_Create_(&ex, 0, freeValue);
    library.pool = library._korPool_Create_(&ex, 0, 16, 64, nullptr, nullptr, 1, 16);
    library._korMemReserve_Alloc_(&ex, 0, 100000);
    library._korLogger_SetLogCallbackForId_(&ex, 0, logKey, countStatement, nullptr);
    statements = 0;
    expect(ex.code == 0, "cannot open", round);
}

void unload(const char* path, int round)
{
    KOR_EX_LOCAL(ex);
    expect(statements >= shortThreads, "statements got lost", round);
    library._korPool_Destroy_(0, &ex, library.pool);
    library._korutil_Close_(0, &ex);
    expect(unloadModule(library.module) && !isLoaded(path), "cannot unload", round);
}

void shortLives(int round)
{
    KOR_EX_LOCAL(ex);
    std::vector<std::jthread> threads;
    for (int i = 0; i < shortThreads; i++) {
        threads.emplace_back(useLibrary, round);
    }
    korThread* own = library._korThread_Create_(&ex, 0, libraryThread,
                                                reinterpret_cast<void*>(static_cast<intptr_t>(round)), 0, "tShort");
    expect(library._korThread_Join_(&ex, 0, own) == 3, "no result", round);
    library._korThread_Destroy_(0, &ex, own);
}

// A thread that lives on with its value when the library goes: the value stays its own.
void lastingLife(kor::test::Barrier& loaded, kor::test::Barrier& used, kor::test::Barrier& unloaded, int lastRound)
{
    for (int round = 0; round <= lastRound; round++) {
        loaded.arrive_and_wait();
        void* value = useLibrary(round);
        used.arrive_and_wait();
        unloaded.arrive_and_wait();
        std::free(value);
    }
    loaded.arrive_and_drop();
    used.arrive_and_drop();
    unloaded.arrive_and_drop();
}

} // namespace

int main(int argc, char** argv)
{
    const char* path = argc > 1 ? argv[1] : "korutil.dll";
    kor::test::Barrier loaded(lastingThreads + 1);
    kor::test::Barrier used(lastingThreads + 1);
    kor::test::Barrier unloaded(lastingThreads + 1);
    std::vector<std::jthread> lasting;
    for (int i = 0; i < lastingThreads; i++) {
        lasting.emplace_back(lastingLife, std::ref(loaded), std::ref(used), std::ref(unloaded),
                             (i + 1) * roundsWithOneEnd - 1);
    }
    for (int round = 0; round < rounds; round++) {
        destructors = 0;
        load(path, round);
        loaded.arrive_and_wait();
        useLibrary(round);
        shortLives(round);
        used.arrive_and_wait();
        expect(destructors == shortThreads + 1, "the ends of threads", round);
        unload(path, round);
        expect(destructors == shortThreads + 2, "the unloading thread's own value, and no other", round);
        unloaded.arrive_and_wait();
    }
    return failures == 0 ? 0 : 1;
}
