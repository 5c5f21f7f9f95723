// execStress_test.cpp - executors, jobs and groups from many threads at once: every job handed over ends exactly once,
// every reference is given back, and nobody sleeps through a wake-up. All checks are of totals and end states.

#include "korutil/korAlloc.h"
#include "korutil/korExecutor.h"
#include "korutil/korJobGroup.h"
#include "support/korTest.h"
#include "support/meeting.h"

#include <atomic>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using kor::test::KorTest;

constexpr int producers = 4;
constexpr int jobsPerProducer = 3000;
constexpr uint64_t noLimit = UINT64_MAX;

std::atomic<int64_t> ran;
std::atomic<int64_t> freed;

/// A heap job. What ends its storage counts it.
struct Work {
    korJob job;
    std::atomic<int> times; ///< main function calls
};

Work* workOf(korJob* job)
{
    return reinterpret_cast<Work*>(job);
}

void runWork(korEx*, uint8_t, korJob* job)
{
    workOf(job)->times++;
    ran++;
}

void freeWork(korEx* ex, uint8_t depth, korJob* job)
{
    freed++;
    _kor_free(KOR_AT_D(depth, ex), job);
}

korJob* makeWork(korEx* ex)
{
    auto* work = static_cast<Work*>(_kor_calloc(KOR_AT(ex, 0), 1, sizeof(Work)));
    _korJob_Init(KOR_AT(ex, 0), &work->job, 1, runWork, freeWork);
    return &work->job;
}

class ExecStress : public KorTest
{
protected:
    ExecStress()
    {
        ran = 0;
        freed = 0;
    }

    void start(int32_t runners, int32_t spinCount)
    {
        executor = _korExecutor_Create(KOR_AT(ex, 0));
        _korExecutor_SetPoolSize(KOR_AT(ex, 0), executor, runners);
        _korExecutor_SetSpinCount(KOR_AT(ex, 0), executor, spinCount);
        _korExecutor_SetCountersEnabled(KOR_AT(ex, 0), executor, 1);
        _korExecutor_Start(KOR_AT(ex, 0), executor);
        ASSERT_CLEAN();
    }

    void stop() { _korExecutor_Stop(KOR_AT_D(0, ex), executor); }

    /// All that jobs, runners and groups held has come back.
    void expectGone() { EXPECT_TRUE(_korExecutor_Release(KOR_AT_D(0, ex), executor)); }

    /// Runs `body` on each of `count` threads, with an exception object and a number of its own, and joins them.
    static void together(int count, const std::function<void(korEx*, int)>& body)
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < count; i++) {
            threads.emplace_back([&body, i] {
                korEx* own = korEx_Create();
                body(own, i);
                EXPECT_TRUE(kor::test::clean(own));
                korEx_Destroy(own);
            });
        }
    }

    korExecutor* executor = nullptr;
};

/// What one producer did, for the totals.
struct Tally {
    int64_t handedOver = 0;
    int64_t cancelled = 0;
};

/// Fetches a job with ever new limits of no time at all; every time-out leaves it to be fetched.
void fetchPatiently(korEx* ex, korJob* job)
{
    uint8_t timedOut = 1;
    korJob* fetched = nullptr;
    while (timedOut != 0) {
        fetched = _korJob_Get(KOR_AT(ex, 0), job, 0, &timedOut);
        ASSERT_TRUE(kor::test::clean(ex));
        std::this_thread::yield();
    }
    EXPECT_EQ(fetched, job);
    EXPECT_EQ(workOf(job)->times, 1);
    _korJob_Release(KOR_AT_D(0, ex), job);
}

void fetch(korEx* ex, korJob* job)
{
    uint8_t timedOut = 0;
    EXPECT_EQ(_korJob_Get(KOR_AT(ex, 0), job, noLimit, &timedOut), job);
    EXPECT_EQ(workOf(job)->times, 1);
    _korJob_Release(KOR_AT_D(0, ex), job);
}

/// A cancel that comes too late leaves the job to be fetched, or with `dropReference` gives the handle up.
void cancel(korEx* ex, korJob* job, bool dropReference, Tally* tally)
{
    korJob* cancelled = _korJob_Cancel(KOR_AT(ex, 0), job, dropReference);
    if (cancelled != nullptr) {
        tally->cancelled++;
        EXPECT_TRUE(_korJob_IsCancelled(KOR_AT(ex, 0), job));
        EXPECT_EQ(workOf(job)->times, 0);
    } else if (!dropReference) {
        fetch(ex, job);
        return;
    }
    _korJob_Release(KOR_AT_D(0, ex), job);
}

void produce(korEx* ex, korExecutor* executor, std::mt19937& random, Tally* tally)
{
    for (int i = 0; i < jobsPerProducer; i++) {
        korJob* job = makeWork(ex);
        tally->handedOver++;
        auto way = random() % 5;
        if (way == 0) {
            _korJob_RunAndForget(KOR_AT(ex, 0), executor, job);
            continue;
        }
        EXPECT_EQ(_korJob_Run(KOR_AT(ex, 0), executor, job), job);
        switch (way) {
        case 1:
            fetch(ex, job);
            break;
        case 2:
            fetchPatiently(ex, job);
            break;
        case 3:
            cancel(ex, job, false, tally);
            break;
        default:
            cancel(ex, job, true, tally);
            break;
        }
    }
}

class ExecStressRunners : public ExecStress, public testing::WithParamInterface<std::pair<int32_t, int32_t>>
{};

INSTANTIATE_TEST_SUITE_P(RunnersAndSpins, ExecStressRunners,
                         testing::Values(std::pair(1, 0), std::pair(3, 0), std::pair(2, 500)));

TEST_P(ExecStressRunners, everyJobEndsExactlyOnce)
{
    start(GetParam().first, GetParam().second);
    Tally tallies[producers];
    together(producers, [&](korEx* own, int number) {
        std::mt19937 random(static_cast<unsigned>(number));
        produce(own, executor, random, &tallies[number]);
    });
    stop();
    Tally total;
    for (const Tally& tally : tallies) {
        total.handedOver += tally.handedOver;
        total.cancelled += tally.cancelled;
    }
    EXPECT_EQ(ran + total.cancelled, total.handedOver);
    EXPECT_EQ(freed, total.handedOver);
    EXPECT_EQ(_korExecutor_StartCountForType(KOR_AT(ex, 0), executor, 1), static_cast<uint64_t>(total.handedOver));
    EXPECT_EQ(_korExecutor_FinishCountForType(KOR_AT(ex, 0), executor, 1), static_cast<uint64_t>(ran));
    EXPECT_EQ(_korExecutor_CancelCountForType(KOR_AT(ex, 0), executor, 1), static_cast<uint64_t>(total.cancelled));
    expectGone();
}

// One job goes round and round: the fetch, the reset and the next run come while the runner is still about to let go.
TEST_P(ExecStressRunners, aJobIsFetchedResetAndRunAgain)
{
    start(GetParam().first, GetParam().second);
    together(2, [&](korEx* own, int) {
        korJob* job = makeWork(own);
        for (int i = 1; i <= jobsPerProducer; i++) {
            uint8_t timedOut = 0;
            _korJob_Run(KOR_AT(own, 0), executor, job);
            ASSERT_EQ(_korJob_Get(KOR_AT(own, 0), job, noLimit, &timedOut), job);
            ASSERT_EQ(workOf(job)->times, i);
            _korJob_Reset(KOR_AT(own, 0), job);
            ASSERT_TRUE(kor::test::clean(own));
        }
        _korJob_Release(KOR_AT_D(0, own), job);
    });
    stop();
    EXPECT_EQ(freed, 2);
    expectGone();
}

TEST_F(ExecStress, whatWasAcceptedBeforeTheStopRunsAndTheRestIsRefused)
{
    constexpr int rounds = 30;
    std::atomic<int64_t> accepted = 0;
    std::atomic<int64_t> made = 0;
    for (int round = 0; round < rounds; round++) {
        start(2, round % 2 == 0 ? 0 : 100);
        kor::test::Barrier begun(producers + 1);
        std::jthread stopper([&] {
            begun.arrive_and_wait();
            korEx* own = korEx_Create();
            _korExecutor_Stop(KOR_AT_D(0, own), executor);
            korEx_Destroy(own);
        });
        together(producers, [&](korEx* own, int) {
            begun.arrive_and_wait();
            while (own->code == 0) {
                made++;
                _korJob_RunAndForget(KOR_AT(own, 0), executor, makeWork(own));
                accepted += own->code == 0;
            }
            EXPECT_TRUE(kor::test::raised(own, KOR_ERROR_ILLEGAL_STATE,
                                          "Executor is not running, is stopping or has been stopped"));
        });
        stopper.join();
        EXPECT_EQ(ran, accepted);
        EXPECT_EQ(freed, made);
        expectGone();
    }
}

TEST_F(ExecStress, oneGroupManyProducersAndFetchers)
{
    constexpr int64_t all = static_cast<int64_t>(producers) * jobsPerProducer;
    start(2, 50);
    korJobGroup* group = _korJobGroup_Create(KOR_AT(ex, 0), executor, 0);
    std::atomic<int64_t> fetched = 0;
    together(2 * producers, [&](korEx* own, int number) {
        for (int i = 0; number < producers && i < jobsPerProducer; i++) {
            _korJobGroup_Run(KOR_AT(own, 0), group, makeWork(own));
        }
        while (number >= producers && fetched < all) {
            uint8_t timedOut = 0;
            korJob* job = number % 2 == 0 ? _korJobGroup_Get(KOR_AT(own, 0), group, 1, &timedOut)
                                          : _korJobGroup_GetNoWait(KOR_AT(own, 0), group);
            if (job != nullptr) {
                EXPECT_EQ(workOf(job)->times, 1);
                _korJob_Release(KOR_AT_D(0, own), job);
                fetched++;
            }
        }
    });
    EXPECT_TRUE(_korJobGroup_IsEmpty(KOR_AT(ex, 0), group));
    stop();
    EXPECT_EQ(fetched, all);
    EXPECT_EQ(ran, all);
    EXPECT_EQ(freed, all);
    EXPECT_TRUE(_korJobGroup_Release(KOR_AT_D(0, ex), group));
    expectGone();
}

void countRun(korEx*, uint8_t, void*)
{
    ran++;
}

// Runners reap from the front while tasks are added, cancelled and joined.
TEST_F(ExecStress, aGroupThatReapsItselfIsJoinedEmpty)
{
    start(3, 0);
    korJobGroup* group = _korJobGroup_Create(KOR_AT(ex, 0), executor, 1);
    together(producers, [&](korEx* own, int number) {
        for (int i = 0; i < jobsPerProducer; i++) {
            _korExecutor_RunSimpleTaskWithGroup(KOR_AT(own, 0), group, countRun, nullptr, nullptr);
            if (number == 0 && i % 100 == 0) {
                _korJobGroup_Cancel(KOR_AT(own, 0), group, i % 200 == 0);
            }
            if (number == 1 && i % 1000 == 0) {
                _korJobGroup_Join(KOR_AT(own, 0), group);
            }
        }
    });
    _korJobGroup_Join(KOR_AT(ex, 0), group);
    EXPECT_TRUE(_korJobGroup_IsEmpty(KOR_AT(ex, 0), group));
    stop();
    constexpr uint64_t all = static_cast<uint64_t>(producers) * jobsPerProducer;
    constexpr uint32_t simple = 3;
    uint64_t cancelled = _korExecutor_CancelCountForType(KOR_AT(ex, 0), executor, simple);
    EXPECT_EQ(static_cast<uint64_t>(ran) + cancelled, all);
    EXPECT_EQ(_korExecutor_FinishCountForType(KOR_AT(ex, 0), executor, simple), static_cast<uint64_t>(ran));
    EXPECT_TRUE(_korJobGroup_Release(KOR_AT_D(0, ex), group));
    expectGone();
}

} // namespace
