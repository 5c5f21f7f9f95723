// korSemaphore_test.cpp - the count of one, limits, names, and a second process.

#include "korutil/korSemaphore.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "sync/lockAdapters.h"

#include <filesystem>

using namespace kor::test;

namespace {

// An object with what its tests do with it.
class Handle
{
public:
    explicit Handle(korEx* of) : ex(of), semaphore(_korSemaphore_CreateUnnamed(ex, 0)) {}
    Handle(korEx* of, const std::string& name) : ex(of) { _korSemaphore_Create(ex, 0, name.c_str(), &semaphore); }
    ~Handle() { destroy(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    // True if the semaphore was there.
    bool take(int64_t timeout = 0, korTargetTime* target = nullptr)
    {
        korTargetTime own = {};
        uint8_t timedOut = 0;
        _korSemaphore_TimedWait(ex, 0, semaphore, timeout, target != nullptr ? target : &own, &timedOut);
        return timedOut == 0;
    }
    void release() { _korSemaphore_Release(0, ex, semaphore); }
    void destroy() { _korSemaphore_Destroy(0, ex, std::exchange(semaphore, nullptr)); }

    korEx* ex;
    korSemaphore* semaphore = nullptr;
};

} // namespace

using KorSemaphore = KorTest;

TEST_F(KorSemaphore, StartsAtZeroAndStopsAtOne)
{
    Handle one(ex);
    EXPECT_FALSE(one.take());
    one.release();
    _korSemaphore_ReleaseEx(0, ex, one.semaphore);
    EXPECT_TRUE(one.take());
    EXPECT_FALSE(one.take());
    korTargetTime target = {};
    EXPECT_FALSE(one.take(30, &target));
    EXPECT_FALSE(one.take(1000000, &target)); // the limit of the first wait holds
    EXPECT_LT(target.remaining, 30);
    one.release();
    EXPECT_TRUE(one.take(1000000, &target)); // what is there is had without time
    EXPECT_CLEAN();                          // to run out was no error
    _korSemaphore_WaitOn(ex, 0, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "semaphore is missing");
    _korSemaphore_Create(ex, 0, nullptr, &one.semaphore);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "semaphore name is missing");
}

TEST_F(KorSemaphore, EachReleaseLetsOneWaiterThrough)
{
    constexpr int waiters = 4, rounds = 1000;
    Handle work(ex), done(ex);
    int passes = 0;
    auto threads = inThreads(waiters, [&](korEx* own, int me) {
        for (int round = 0; round < rounds; round++) {
            korTargetTime target = {};
            _korSemaphore_TimedWait(own, 0, work.semaphore, me % 2 == 0 ? -1 : 1000000, &target, nullptr);
            passes++; // alone: the next release comes after this one's answer
            _korSemaphore_Release(0, own, done.semaphore);
        }
    });
    for (int round = 0; round < waiters * rounds; round++) {
        work.release();
        _korSemaphore_WaitOn(ex, 0, done.semaphore);
    }
    threads.clear();
    EXPECT_EQ(passes, waiters * rounds);
    EXPECT_FALSE(work.take() || done.take());
}

TEST_F(KorSemaphore, OfANameIsMadeWholeAndIsOneUntilItsLastUserGoes)
{
    std::string name = uniqueName("korutil test/%\xC3\xBC");
    EXPECT_EQ(sweepFailures(ex, [&] { Handle(ex, name); }), 2u);
    Handle first(ex, name), second(ex, name), encoded(ex, "korutil%20test" + name.substr(12));
    ASSERT_CLEAN();
    first.release();
    EXPECT_FALSE(encoded.take());
    EXPECT_TRUE(second.take());
    first.destroy();
    second.release();
    second.destroy();
    EXPECT_FALSE(Handle(ex, name).take()); // a new one
    EXPECT_EQ(Handle(ex, std::string(1000, 'n')).semaphore, nullptr);
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(KOR_ERROR_OS, nullptr);
}

// ---- Two processes --------------------------------------------------------------------------------------------------

constexpr int crossings = 2000;

TEST_F(KorSemaphore, DISABLED_OtherSide)
{
    std::string name = std::getenv("KOR_TEST_NAME");
    Handle ping(ex, name + "-ping"), pong(ex, name + "-pong");
    for (int round = 0; round < crossings; round++) {
        ASSERT_TRUE(ping.take(-1));
        pong.release();
    }
}

TEST_F(KorSemaphore, CrossesProcesses)
{
    std::string name = uniqueName("korutil-cross");
    {
        Handle ping(ex, name + "-ping"), pong(ex, name + "-pong");
        ASSERT_CLEAN();
        ChildProcess child("KorSemaphore.DISABLED_OtherSide", {{"KOR_TEST_NAME", name}});
        int answers = 0;
        for (bool answered = true; answered && answers < crossings; answers += answered) {
            ping.release();
            answered = pong.take(60000);
        }
        EXPECT_EQ(answers, crossings);
        EXPECT_EQ(child.wait(), 0) << child.output();
        EXPECT_FALSE(pong.take());
    }
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/kor.sem." + name + "-ping"));
}
