// korShmRegion_test.cpp - who made the memory, what can be mapped, and processes that come and go at the same moment.

#include "korutil/korShmRegion.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

namespace kor::test {
namespace {

constexpr uint64_t unit = 65536; // a multiple of every system's unit of mapping
constexpr uint64_t highBits = uint64_t{1} << 32;

struct Region {
    korShmRegion* region = nullptr;
    uint8_t created = 0;
};

Region create(korEx* ex, const std::string& name, uint64_t size)
{
    Region made;
    _korShmRegion_Create(ex, 0, name.c_str(), &made.created, size, &made.region);
    return made;
}

class korShmRegionTest : public KorTest
{
protected:
    char* map(korShmRegion* region, uint64_t size, uint64_t offset)
    {
        return static_cast<char*>(_korShmRegion_Map(ex, 0, region, size, offset));
    }

    void refused()
    {
        EXPECT_NE(ex->osError, 0);
        EXPECT_RAISED(KOR_ERROR_OS, nullptr);
    }

    std::string name = uniqueName("korutil test/region");
};

TEST_F(korShmRegionTest, TheFirstMakesItAndTheOthersJoin)
{
    Region first = create(ex, name, 2 * unit);
    Region second = create(ex, name, unit);
    ASSERT_CLEAN();
    EXPECT_EQ(first.created, 1);
    EXPECT_EQ(second.created, 0);
    EXPECT_EQ(second.region->name, name);

    char* here = map(first.region, 2 * unit, 0);
    char* there = map(second.region, 0, unit); // to the end
    ASSERT_CLEAN();
    EXPECT_EQ(std::string(here, 2 * unit), std::string(2 * unit, '\0'));
    std::strcpy(here + unit, "seen by the other");
    EXPECT_STREQ(there, "seen by the other");
    there[unit - 1] = 'z';
    EXPECT_EQ(here[2 * unit - 1], 'z');

    _korShmRegion_Unmap(ex, 0, first.region, here);
    _korShmRegion_Unmap(ex, 0, second.region, there);
    EXPECT_CLEAN();
    _korShmRegion_Unlink(0, ex, first.region); // does nothing: the name still leads here
    EXPECT_EQ(create(ex, name, 0).region, nullptr);
    refused();
    _korShmRegion_Destroy(0, ex, first.region);
    Region third = create(ex, name, unit);
    EXPECT_EQ(third.created, 0);
    _korShmRegion_Destroy(0, ex, second.region);
    _korShmRegion_Destroy(0, ex, third.region);
    _korShmRegion_Destroy(0, ex, nullptr);

    Region anew = create(ex, name, unit); // the last user took the old one along
    EXPECT_EQ(anew.created, 1);
    char* view = map(anew.region, 0, 0);
    EXPECT_EQ(view[0], '\0');
    _korShmRegion_Unmap(ex, 0, anew.region, view);
    _korShmRegion_Destroy(0, ex, anew.region);
}

TEST_F(korShmRegionTest, OfSizesAndOffsetsTheLow32BitsCount)
{
    Region made = create(ex, name, highBits + 2 * unit);
    ASSERT_CLEAN();
    char* view = map(made.region, unit, highBits + unit);
    char* whole = map(made.region, 2 * unit, 0);
    ASSERT_CLEAN();
    view[0] = 'v';
    EXPECT_EQ(whole[unit], 'v');
    EXPECT_EQ(map(made.region, 4 * unit, 0), nullptr);
    refused();
    EXPECT_EQ(map(made.region, 2 * unit, unit), nullptr);
    refused();
    EXPECT_EQ(map(made.region, 0, 8 * unit), nullptr);
    refused();
    EXPECT_EQ(map(made.region, unit, 1), nullptr); // no multiple of the system's unit
    refused();
    EXPECT_EQ(map(made.region, ~uint64_t{0}, 0), nullptr);
    refused();
    _korShmRegion_Unmap(ex, 0, made.region, view);
    _korShmRegion_Unmap(ex, 0, made.region, whole);
    EXPECT_CLEAN();
    _korShmRegion_Unmap(ex, 0, made.region, whole);
    refused();
    _korShmRegion_Destroy(0, ex, made.region);

    EXPECT_EQ(create(ex, uniqueName("korutil-empty"), highBits).region, nullptr); // a size of 0
    refused();
}

TEST_F(korShmRegionTest, RefusesWhatIsMissing)
{
    Region made;
    _korShmRegion_Create(ex, 0, nullptr, &made.created, unit, &made.region);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "region name is missing");
    EXPECT_EQ(map(nullptr, unit, 0), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "region is missing");
    EXPECT_EQ(create(ex, std::string(1000, 'n'), unit).region, nullptr);
    refused();
}

TEST_F(korShmRegionTest, FailsWhole)
{
    uint64_t requests = sweepFailures(ex, [&] {
        Region made = create(ex, name, unit);
        void* view = made.region != nullptr ? map(made.region, unit, 0) : nullptr;
        if (view != nullptr) {
            _korShmRegion_Unmap(ex, 0, made.region, view);
        }
        _korShmRegion_Destroy(0, ex, made.region);
    });
    EXPECT_GE(requests, 3u);
}

// ---- Coming and going -----------------------------------------------------------------------------------------------

constexpr int visits = 400;

// One visit: two regions of one name are one memory for as long as they are held, and a memory has one maker.
void visit(korEx* ex, const std::string& name, uint64_t token)
{
    Region outer = create(ex, name, unit);
    Region inner = create(ex, name, unit);
    ASSERT_TRUE(clean(ex));
    EXPECT_EQ(inner.created, 0);
    auto* here = static_cast<uint64_t*>(_korShmRegion_Map(ex, 0, outer.region, 0, 0));
    auto* there = static_cast<uint64_t*>(_korShmRegion_Map(ex, 0, inner.region, 0, 0));
    ASSERT_TRUE(clean(ex));
    if (outer.created) {
        EXPECT_EQ(std::atomic_ref(here[0]).fetch_add(1), 0u);
    }
    std::atomic_ref(here[token]).store(token);
    EXPECT_EQ(std::atomic_ref(there[token]).exchange(0), token);
    _korShmRegion_Unmap(ex, 0, outer.region, here);
    _korShmRegion_Unmap(ex, 0, inner.region, there);
    _korShmRegion_Destroy(0, ex, outer.region);
    _korShmRegion_Destroy(0, ex, inner.region);
    EXPECT_TRUE(clean(ex));
}

void visitFromThreads(const std::string& name, uint64_t firstToken)
{
    std::vector<std::jthread> threads;
    for (uint64_t token = firstToken; token < firstToken + 3; token++) {
        threads.emplace_back([&name, token] {
            korEx* own = korEx_Create();
            for (int round = 0; round < visits; round++) {
                visit(own, name, token);
            }
            korEx_Destroy(own);
        });
    }
}

TEST_F(korShmRegionTest, DISABLED_OtherVisitors)
{
    visitFromThreads(std::getenv("KOR_TEST_NAME"), 10);
}

TEST_F(korShmRegionTest, ProcessesComeAndGoAtTheSameMoment)
{
    std::string shared = uniqueName("korutil-visits");
    ChildProcess child("korShmRegionTest.DISABLED_OtherVisitors", {{"KOR_TEST_NAME", shared}});
    visitFromThreads(shared, 1);
    EXPECT_EQ(child.wait(), 0) << child.output();
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/kor.shm." + shared));
}

TEST_F(korShmRegionTest, DISABLED_EndsWithoutADestroy)
{
    Region made = create(ex, std::getenv("KOR_TEST_NAME"), unit);
    std::strcpy(map(made.region, 0, 0), "left behind");
    std::_Exit(made.created ? 3 : 4);
}

TEST_F(korShmRegionTest, ACrashLeavesNothingBehind)
{
    std::string shared = uniqueName("korutil-crash");
    for (int round = 0; round < 2; round++) {
        ChildProcess child("korShmRegionTest.DISABLED_EndsWithoutADestroy", {{"KOR_TEST_NAME", shared}});
        EXPECT_EQ(child.wait(), 3) << child.output();
    }
    Region made = create(ex, shared, unit);
    ASSERT_CLEAN();
    EXPECT_EQ(made.created, 1);
    EXPECT_STREQ(map(made.region, unit, 0), "");
    _korShmRegion_Destroy(0, ex, made.region);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/kor.shm." + shared));
}

} // namespace
} // namespace kor::test
