// korSemaphore_test.cpp - the count of one, limits, names, and a second process.

#include "korutil/korSemaphore.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <filesystem>
#include <thread>
#include <vector>

namespace kor::test {
namespace {

class korSemaphoreTest : public KorTest
{
protected:
    // True if the semaphore was there.
    bool take(korSemaphore* semaphore, int64_t timeout = 0)
    {
        korTargetTime target = {};
        uint8_t timedOut = 0;
        _korSemaphore_TimedWait(ex, 0, semaphore, timeout, &target, &timedOut);
        return timedOut == 0;
    }

    korSemaphore* create(const std::string& name)
    {
        korSemaphore* semaphore = nullptr;
        _korSemaphore_Create(ex, 0, name.c_str(), &semaphore);
        return semaphore;
    }

    void release(korSemaphore* semaphore) { _korSemaphore_Release(0, ex, semaphore); }
    void destroy(korSemaphore* semaphore) { _korSemaphore_Destroy(0, ex, semaphore); }
};

TEST_F(korSemaphoreTest, StartsAtZeroAndStopsAtOne)
{
    korSemaphore* semaphore = _korSemaphore_CreateUnnamed(ex, 0);
    ASSERT_CLEAN();
    EXPECT_EQ(semaphore->name, nullptr);
    EXPECT_EQ(semaphore->unnamed, 1);
    EXPECT_FALSE(take(semaphore));
    release(semaphore);
    _korSemaphore_ReleaseEx(0, ex, semaphore);
    EXPECT_TRUE(take(semaphore));
    EXPECT_FALSE(take(semaphore));

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    release(semaphore);
    _korSemaphore_WaitOn(ex, 0, semaphore); // does nothing
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
    EXPECT_TRUE(take(semaphore, -1));
    destroy(semaphore);
    destroy(nullptr);
    release(nullptr);
    _korSemaphore_WaitOn(ex, 0, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "semaphore is missing");
}

TEST_F(korSemaphoreTest, WaitsWithOneTargetShareTheLimit)
{
    korSemaphore* semaphore = _korSemaphore_CreateUnnamed(ex, 0);
    korTargetTime target = {};
    uint8_t timedOut = 0;
    _korSemaphore_TimedWait(ex, 0, semaphore, 30, &target, &timedOut);
    EXPECT_EQ(timedOut, 1);
    _korSemaphore_TimedWait(ex, 0, semaphore, 1000000, &target, nullptr); // the limit of the first wait holds
    EXPECT_CLEAN();                                                       // and running into it is no error
    EXPECT_LT(target.remaining, 30);
    release(semaphore);
    timedOut = 0;
    _korSemaphore_TimedWait(ex, 0, semaphore, 1000000, &target, &timedOut); // what is there is had without time
    EXPECT_EQ(timedOut, 0);
    destroy(semaphore);
}

TEST_F(korSemaphoreTest, EachReleaseLetsOneWaiterThrough)
{
    constexpr int waiters = 4, rounds = 1000;
    korSemaphore* work = _korSemaphore_CreateUnnamed(ex, 0);
    korSemaphore* done = _korSemaphore_CreateUnnamed(ex, 0);
    std::vector<int> passes(waiters);
    std::vector<std::jthread> threads;
    for (int i = 0; i < waiters; i++) {
        threads.emplace_back([&, i] {
            korEx* own = korEx_Create();
            for (int round = 0; round < rounds; round++) {
                korTargetTime target = {};
                _korSemaphore_TimedWait(own, 0, work, i % 2 == 0 ? -1 : 1000000, &target, nullptr);
                passes[static_cast<size_t>(i)]++; // alone: the next release comes after this one's answer
                _korSemaphore_Release(0, own, done);
            }
            korEx_Destroy(own);
        });
    }
    for (int round = 0; round < waiters * rounds; round++) {
        release(work);
        _korSemaphore_WaitOn(ex, 0, done);
    }
    threads.clear();
    EXPECT_EQ(passes, std::vector<int>(waiters, rounds));
    EXPECT_FALSE(take(work));
    EXPECT_FALSE(take(done));
    destroy(work);
    destroy(done);
}

TEST_F(korSemaphoreTest, ANameIsOneSemaphoreUntilItsLastUserGoes)
{
    std::string name = uniqueName("korutil test/%\xC3\xBC");
    korSemaphore* first = create(name);
    korSemaphore* second = create(name);
    korSemaphore* other = create(name + "x");
    korSemaphore* encoded = create("korutil%20test" + name.substr(12));
    ASSERT_CLEAN();
    EXPECT_EQ(first->name, name);
    EXPECT_EQ(first->unnamed, 0);
    release(first);
    EXPECT_FALSE(take(other));
    EXPECT_FALSE(take(encoded));
    EXPECT_TRUE(take(second));
    release(second);
    destroy(first);
    EXPECT_TRUE(take(second));
    release(second);
    destroy(second);
    destroy(other);
    destroy(encoded);
    korSemaphore* anew = create(name);
    EXPECT_FALSE(take(anew));
    destroy(anew);
}

TEST_F(korSemaphoreTest, RefusesANameThatTheSystemRefuses)
{
    auto* untouched = reinterpret_cast<korSemaphore*>(uintptr_t{16});
    korSemaphore* semaphore = untouched;
    _korSemaphore_Create(ex, 0, std::string(1000, 'n').c_str(), &semaphore);
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(KOR_ERROR_OS, nullptr);
    _korSemaphore_Create(ex, 0, nullptr, &semaphore);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "semaphore name is missing");
    EXPECT_EQ(semaphore, untouched);
}

TEST_F(korSemaphoreTest, CreateFailsWhole)
{
    std::string name = uniqueName("korutil-sweep");
    EXPECT_GE(sweepFailures(ex, [&] { destroy(create(name)); }), 2u);
    EXPECT_GE(sweepFailures(ex, [&] { destroy(_korSemaphore_CreateUnnamed(ex, 0)); }), 1u);
}

// ---- Two processes --------------------------------------------------------------------------------------------------

constexpr int crossings = 2000;

TEST_F(korSemaphoreTest, DISABLED_OtherSide)
{
    std::string name = std::getenv("KOR_TEST_NAME");
    korSemaphore* ping = create(name + "-ping");
    korSemaphore* pong = create(name + "-pong");
    ASSERT_CLEAN();
    for (int round = 0; round < crossings; round++) {
        _korSemaphore_WaitOn(ex, 0, ping);
        release(pong);
    }
    destroy(ping);
    destroy(pong);
}

TEST_F(korSemaphoreTest, CrossesProcesses)
{
    std::string name = uniqueName("korutil-cross");
    korSemaphore* ping = create(name + "-ping");
    korSemaphore* pong = create(name + "-pong");
    ASSERT_CLEAN();
    {
        ChildProcess child("korSemaphoreTest.DISABLED_OtherSide", {{"KOR_TEST_NAME", name}});
        int answers = 0;
        for (int round = 0; round < crossings; round++) {
            release(ping);
            if (!take(pong, 60000)) {
                break;
            }
            answers++;
        }
        EXPECT_EQ(answers, crossings);
        EXPECT_EQ(child.wait(), 0) << child.output();
    }
    EXPECT_FALSE(take(pong));
    destroy(ping);
    destroy(pong);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/kor.sem." + name + "-ping"));
}

TEST_F(korSemaphoreTest, DISABLED_EndsWithoutADestroy)
{
    korSemaphore* semaphore = create(std::getenv("KOR_TEST_NAME"));
    release(semaphore);
    std::_Exit(take(semaphore) ? 3 : 4);
}

TEST_F(korSemaphoreTest, ACrashLeavesNothingBehind)
{
    std::string name = uniqueName("korutil-crash");
    for (int round = 0; round < 2; round++) {
        ChildProcess child("korSemaphoreTest.DISABLED_EndsWithoutADestroy", {{"KOR_TEST_NAME", name}});
        EXPECT_EQ(child.wait(), 3) << child.output();
    }
    korSemaphore* semaphore = create(name);
    ASSERT_CLEAN();
    EXPECT_FALSE(take(semaphore));
    destroy(semaphore);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/kor.sem." + name));
}

} // namespace
} // namespace kor::test
