// korMutex_test.cpp - mutexes, beyond what all locks promise: recursion, and the message at opening.

#include "korutil/korAlloc.h"
#include "sync/lockAdapters.h"

#include <utility>

using namespace kor::test;

using KorMutex = KorTest;

TEST_F(KorMutex, IsFreeOnceItWasLeftAsOftenAsEntered)
{
    MutexPair pair;
    pair.acquire();
    pair.acquire();
    ASSERT_TRUE(pair.tryAcquire());
    for (int left = 0; left < 3; left++) {
        EXPECT_TRUE(isHeld(pair));
        pair.release();
    }
    int plain = 0;
    inThreads(2, [&](korEx*, int) {
        for (int i = 0; i < stressRounds / 2; i++) {
            pair.acquire();
            pair.acquire();
            plain++;
            pair.release();
            plain++;
            pair.release();
        }
    });
    EXPECT_EQ(plain, 4 * (stressRounds / 2));
}

TEST_F(KorMutex, OpeningTellsThatContentionIsNotTracked)
{
    using Case = std::pair<const char*, bool>;
    for (auto [settings, told] : {Case{nullptr, false},
                                  {"threads=3", false},
                                  {"warnOnTaskDur", false},
                                  {"threads=3,warnOnTaskDur=5", true},
                                  {"warnOnLockHeldDur=1", true}}) {
        EnvironmentGuard guard("KOR_EXEC_CONF", settings);
        StreamCapture capture(StreamCapture::out);
        _korMutex_Open(ex, 0);
        EXPECT_EQ(capture.text(), told ? "Found settings for Thread contention, but not compiled for it\n" : "");
    }
}
