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
}

TEST_F(KorMutex, OpeningTellsThatContentionIsNotTracked)
{
    for (auto [settings, told] : {std::pair{"threads=3,warnOnTaskDur", false}, {"threads=3,warnOnTaskDur=5", true}}) {
        EnvironmentGuard guard("KOR_EXEC_CONF", settings);
        StreamCapture capture(StreamCapture::out);
        _korMutex_Open(ex, 0);
        EXPECT_EQ(capture.text(), told ? "Found settings for Thread contention, but not compiled for it\n" : "");
    }
}
