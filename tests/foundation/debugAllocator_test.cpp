// debugAllocator_test.cpp - programs under KOR_MEM_DEBUG_CONF, each a process of its own: what is found, what is said,
// and how it ends.

#include "support/childProcess.h"
#include "support/korTest.h"

#include "korutil/korAlloc.h"
#include "korutil/korBuffer.h"
#include "korutil/korHash.h"
#include "korutil/korMemReserve.h"
#include "korutil/korPoller.h"
#include "korutil/korSemaphore.h"
#include "korutil/korUrl.h"

#include <cstring>
#include <thread>
#include <vector>

namespace {

using namespace kor::test;

// What a child ends with if nothing stops it.
class DebugAllocatorChild : public KorTest
{
protected:
    char* take(size_t size) { return static_cast<char*>(_kor_malloc(KOR_AT(ex, 0), size)); }
    // The compiler must not see which block it is: it would warn of the faults that are wanted here.
    void give(void* block)
    {
        void* volatile hidden = block;
        _kor_free(KOR_AT_D(0, ex), hidden);
    }
};

[[gnu::noinline]] void* plantedLeak(korEx* ex, uint8_t depth)
{
    return _kor_malloc(KOR_AT(ex, depth), 12345);
}

TEST_F(DebugAllocatorChild, DISABLED_Leaks)
{
    static void* lost[3]; // lost to the program, not to another leak checker
    for (void*& block : lost) {
        block = plantedLeak(KOR_AT(ex, 0));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400)); // some reports long
}

TEST_F(DebugAllocatorChild, DISABLED_FreesTwice)
{
    char* block = take(10);
    give(block);
    give(block);
}

TEST_F(DebugAllocatorChild, DISABLED_FreesWhatItNeverHad)
{
    static char foreign[64];
    give(foreign + 32);
}

TEST_F(DebugAllocatorChild, DISABLED_WritesInFront)
{
    char* block = take(10);
    volatile char* written = block - 1;
    *written = 0;
    give(block);
}

TEST_F(DebugAllocatorChild, DISABLED_WritesBehind)
{
    volatile char* block = take(13);
    block[12] = 0;
    block[13] = 0;
}

TEST_F(DebugAllocatorChild, DISABLED_ReadsWhatIsFree)
{
    volatile char* block = take(13);
    give(const_cast<char*>(block));
    EXPECT_EQ(block[0], 0);
}

TEST_F(DebugAllocatorChild, DISABLED_BehavesWell)
{
    char* fresh = take(3);
    bool scribbles = std::strstr(getenv("KOR_MEM_DEBUG_CONF"), "no-scribble") == nullptr;
    EXPECT_TRUE(!scribbles || std::string(fresh, 3) == "UUU");
    auto* zeroed = static_cast<char*>(_kor_calloc(KOR_AT(ex, 0), 3, 7));
    EXPECT_EQ(std::string(zeroed, 21), std::string(21, '\0'));
    std::memset(zeroed, 'z', 21);
    auto* moved = static_cast<char*>(_kor_realloc(KOR_AT(ex, 0), zeroed, 5)); // it moves although it shrinks
    moved = static_cast<char*>(_kor_realloc(KOR_AT(ex, 0), moved, 5000));
    EXPECT_EQ(std::string(moved, 5), "zzzzz");
    _kor_freealign(KOR_AT_D(0, ex), _kor_memalign(KOR_AT(ex, 0), 64, 100));
    for (char* block : {fresh, moved, take(0), _kor_strdup(KOR_AT(ex, 0), "text")}) {
        give(block);
    }
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([] {
            korEx* own = korEx_Create();
            std::vector<void*> blocks;
            for (size_t size = 0; size < 300; size++) {
                blocks.push_back(_kor_malloc(KOR_AT(own, 0), size));
            }
            for (void* block : blocks) {
                _kor_free(KOR_AT_D(0, own), block);
            }
            korEx_Destroy(own);
        });
    }
    threads.clear();
    _kor_allocPrintStat();
}

TEST_F(DebugAllocatorChild, DISABLED_PoolsAreOff)
{
    give(take(1));
    EXPECT_EQ(gPoolDisable, std::strstr(getenv("KOR_MEM_DEBUG_CONF"), "keep-pools") == nullptr ? 1 : 0);
    EXPECT_EQ(gMemNoDebug, 1); // and nothing else
}

TEST_F(DebugAllocatorChild, DISABLED_HitsTheLimit)
{
    give(take(1));
    char* first = take(5000); // the limit is passed by it
    EXPECT_EQ(take(1), nullptr);
    EXPECT_EQ(korEx_GetErrorCode(ex), 0); // and nothing is raised
    EXPECT_EQ(_kor_realloc(KOR_AT(ex, 0), first, 6000), nullptr);
    EXPECT_RAISED(2, nullptr);
    _korMemReserve_Alloc(KOR_AT(ex, 0), 1);
    EXPECT_RAISED(16, "Reserve allocation failed");
    for (auto create : {+[](korEx* own) -> void* { return _korUrl_Create(own, 0); },
                        +[](korEx* own) -> void* { return _korHash_Create(own, 0, 4); },
                        +[](korEx* own) -> void* { return _korSemaphore_CreateUnnamed(own, 0); },
                        +[](korEx* own) -> void* { return _korPoller_CreateEx(own, 0, 1); },
                        +[](korEx* own) -> void* { return _korBuffer_CreateWithData(own, 0, nullptr, 1); }}) {
        EXPECT_EQ(create(ex), nullptr);
        EXPECT_RAISED(2, nullptr); // everything above the family tells it
    }
    give(first);
    give(take(1));
}

struct Outcome {
    int exitCode;
    std::string output;
    bool says(const std::string& text) const { return output.find(text) != std::string::npos; }
};

Outcome run(const std::string& test, const std::string& configuration)
{
    ChildProcess child("DebugAllocatorChild.DISABLED_" + test, {{"KOR_MEM_DEBUG_CONF", configuration}});
    int exitCode = child.wait();
    return {exitCode, child.output()};
}

TEST(DebugAllocator, FindsWhatItIsThereFor)
{
    struct Fault {
        const char* test;
        const char* configuration;
        const char* words; // "" for a fault that the processor finds
    };
    const Fault faults[] = {
        {"FreesTwice", "double-free,protect,no-track", "freed twice"},
        {"FreesWhatItNeverHad", "double-free", "never allocated"},
        {"WritesInFront", "backset=16", "bytes in front of a block"},
        {"WritesInFront", "no-track,double-free,backset=1", "bytes in front of a block"},
        {"WritesBehind", "protect", ""},
        {"ReadsWhatIsFree", "protect,no-track", ""},
    };
    for (const Fault& fault : faults) {
        Outcome found = run(fault.test, fault.configuration);
        EXPECT_NE(found.exitCode, 0) << fault.test << " under " << fault.configuration;
        EXPECT_TRUE(found.says(fault.words)) << found.output;
        EXPECT_FALSE(found.says("[       OK ]")) << fault.test << " under " << fault.configuration;
    }
}

TEST(DebugAllocator, LeavesWellBehavedProgramsAlone)
{
    for (const char* configuration : {"double-free", "protect,double-free,timing=1:2:3", "backset=5,no-scribble",
                                      "no-track,double-free", "max-only,timing=1:1:1,display-threshold=0"}) {
        Outcome good = run("BehavesWell", configuration);
        EXPECT_EQ(good.exitCode, 0) << configuration << '\n' << good.output;
        EXPECT_TRUE(good.says("#memory_bytes_allocated: 0\n")) << good.output;
    }
    const std::pair<const char*, const char*> others[] = {
        {"WritesInFront", ","}, // the plain header has no room for the check
        {"HitsTheLimit", "fail-alloc-above=4096"},
        {"PoolsAreOff", "no-track,excess=10000"},
        {"PoolsAreOff", "no-track,keep-pools"},
    };
    for (auto [test, configuration] : others) {
        Outcome good = run(test, configuration);
        EXPECT_EQ(good.exitCode, 0) << good.output;
        EXPECT_TRUE(good.says("[       OK ]")) << good.output;
    }
}

TEST(DebugAllocator, ReportsALeakByItsCallPath)
{
    Outcome leak = run("Leaks", "timing=20:1:2,display-threshold=30000");
    EXPECT_EQ(leak.exitCode, 0);
    for (const char* words : {": 37035 bytes in 3 allocations at (up from last print)(max):\n\t_kor_malloc:",
                              "\tplantedLeak:", ": 37035 bytes in 3 allocations at (same as last print):\n",
                              "aloc  sum: 37035 total bytes in 3 allocations from 1 different stacks.\n"}) {
        EXPECT_TRUE(leak.says(words)) << words << "\nis not in\n" << leak.output;
    }
    EXPECT_FALSE(run("Leaks", "timing=20:1:2,display-threshold=30000,changed-only").says("same as last print"));
}

TEST(DebugAllocator, SaysWhatItWasTold)
{
    Outcome told = run("BehavesWell", "help;double-free;backset=3;timing=1:2:3;free-hold=2;excess=4000");
    EXPECT_TRUE(told.says("Settings for KOR_MEM_DEBUG_CONF:\n\tno-track   ")) << told.output;
    EXPECT_TRUE(told.says("KOR_MEM_DEBUG_CONF=\"double-free, backset=3, display-threshold=8000, "
                          "display-count-threshold=2147483647, free-hold=2, changed-only=false, excess=4000, "
                          "up-only=false, max-only=false, timing=1:2001:3 milliseconds, "
                          "fail-alloc-above=18446744073709551615\n"
                          "Set KOR_MEM_DEBUG_CONF to \"help\" for help on configuration.\n"))
        << told.output;
    EXPECT_TRUE(told.says("Excessive size of 5000 allocated at:\n")) << told.output;
    EXPECT_TRUE(run("BehavesWell", "timing=x").says("Settings for KOR_MEM_DEBUG_CONF:\n")) << "not understood";
}

} // namespace
