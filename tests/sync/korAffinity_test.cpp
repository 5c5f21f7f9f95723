// korAffinity_test.cpp - the neutral answers, which the thread start stores, and the one real one.

#include "korutil/korAffinity.h"

#include "support/korTest.h"

#include <thread>

namespace {

using korAffinity = kor::test::KorTest;

TEST_F(korAffinity, AnswersAreNeutralWithAnErrorPendingToo)
{
    for (int32_t pending : {0, 9}) {
        ex->code = pending;
        _korAffinity_Open(ex, 0);
        _korAffinity_Begin(ex, 0);
        _korAffinity_SetSharedCoresMinSetSize(ex, 0, 4);
        _korAffinity_AddCore(ex, 0, 2);
        EXPECT_EQ(_korAffinity_CoreSetSize(), 1u);
        EXPECT_EQ(_korAffinity_executorSize(), 1u);
        EXPECT_EQ(_korAffinity_MigrateThisThread(ex, 0), -1);
        EXPECT_EQ(_korAffinity_SetCurrentCoreByName(ex, 0, "main"), 0);
        EXPECT_TRUE(_korAffinity_IsCoreAvailable(ex, 0, 2));
        _korAffinity_ReturnCore();
        _korAffinity_Close(0, ex);
        EXPECT_EQ(ex->code, pending);
    }
    korEx_Clear(ex);
}

TEST_F(korAffinity, CoresAreThoseOfTheMachine)
{
    EXPECT_GE(_korAffinity_CoreCount(), std::max(1u, std::thread::hardware_concurrency()));
}

} // namespace
