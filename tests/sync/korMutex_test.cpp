// korMutex_test.cpp - mutexes: recursion, objects, the message at opening.

#include "korutil/korAlloc.h"
#include "support/failingHeap.h"
#include "sync/lockAdapters.h"

using namespace kor::test;

class KorMutex : public KorTest
{
protected:
    static bool freeForOthers(korMutex* mutex)
    {
        bool taken = false;
        std::jthread([&] {
            taken = korMutex_tryEnter(mutex);
            if (taken) {
                korMutex_leave(mutex);
            }
        }).join();
        return taken;
    }
};

TEST_F(KorMutex, IsFreeOnceItWasLeftAsOftenAsEntered)
{
    korMutex* mutex = _korMutex_Create(ex, 0);
    ASSERT_CLEAN();
    korMutex_enter(mutex);
    korMutex_enter(mutex);
    ASSERT_TRUE(korMutex_tryEnter(mutex));
    for (int left = 0; left < 3; left++) {
        EXPECT_FALSE(freeForOthers(mutex));
        korMutex_leave(mutex);
    }
    EXPECT_TRUE(freeForOthers(mutex));
    _korMutex_Destroy(0, ex, mutex);
}

TEST_F(KorMutex, ARecursiveHolderAndAContenderTakeTurns)
{
    MutexPair pair;
    int64_t plain = 0;
    auto body = [&] {
        for (int i = 0; i < stressRounds / 2; i++) {
            pair.acquire();
            pair.acquire();
            plain++;
            pair.release();
            plain++;
            pair.release();
        }
    };
    std::jthread other(body);
    body();
    other.join();
    EXPECT_EQ(plain, 4 * (stressRounds / 2));
}

TEST_F(KorMutex, IsNotMadeWithAnErrorPending)
{
    KOR_RAISE(ex, 0, KOR_ERROR_NOT_FOUND, nullptr);
    EXPECT_EQ(_korMutex_Create(ex, 0), nullptr);
    _korMutex_Destroy(0, ex, nullptr);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, nullptr);
}

TEST_F(KorMutex, EveryRequestMayFail)
{
    EXPECT_EQ(sweepFailures(ex, [&] { _korMutex_Destroy(0, ex, _korMutex_Create(ex, 0)); }), 1u);
}

TEST_F(KorMutex, OpeningTellsThatContentionIsNotTracked)
{
    const char* message = "Found settings for Thread contention, but not compiled for it\n";
    const struct {
        const char* settings;
        const char* printed;
    } cases[] = {
        {nullptr, ""},
        {"threads=3", ""},
        {"warnOnTaskDur", ""},
        {"threads=3,warnOnTaskDur=5", message},
        {"warnOnLockHeldDur=1", message},
    };
    for (const auto& c : cases) {
        EnvironmentGuard guard("KOR_EXEC_CONF", c.settings);
        StreamCapture capture(StreamCapture::out);
        _korMutex_Open(ex, 0);
        EXPECT_EQ(capture.text(), c.printed);
    }
}
