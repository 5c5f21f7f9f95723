// korThread_test.cpp - threads, what they know of themselves, and the once-control.

#include "korutil/korThread.h"
#include "korutil/korThreadLocal.h"
#include "support/failingHeap.h"
#include "support/meeting.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

uint64_t givesArgument(void* argument)
{
    return reinterpret_cast<uint64_t>(argument);
}

void* number(uint64_t value)
{
    return reinterpret_cast<void*>(value);
}

// A main routine that is any callable. The callable must outlive the thread.
template <typename Body>
uint64_t runBody(void* body)
{
    (*static_cast<Body*>(body))();
    return 7;
}

} // namespace

class KorThread : public KorTest
{
protected:
    void SetUp() override { _korThread_InitThreads(ex, 0); }

    template <typename Body>
    korThread* start(Body& body, const char* name = "tTest", int32_t type = 0)
    {
        return _korThread_Create(ex, 0, runBody<Body>, &body, type, name);
    }

    template <typename Body>
    void run(Body body, const char* name = "tTest", int32_t type = 0)
    {
        korThread* thread = start(body, name, type);
        ASSERT_CLEAN();
        EXPECT_EQ(_korThread_Join(ex, 0, thread), 7u);
        _korThread_Destroy(0, ex, thread);
    }

    std::string currentName()
    {
        const char* name = nullptr;
        KOR_EX_LOCAL(local);
        _korThread_GetCurrentName(0, &local, &name);
        return name;
    }
};

TEST_F(KorThread, IsJoinedByAnyNumberOfThreads)
{
    kor::test::Semaphore go;
    auto body = [&] { go.acquire(); };
    korThread* thread = start(body);
    std::vector<std::jthread> joiners;
    std::atomic<uint64_t> sum = 0;
    for (int i = 0; i < 4; i++) {
        joiners.emplace_back([&] {
            KOR_EX_LOCAL(own);
            sum += _korThread_Join(&own, 0, thread);
        });
    }
    go.release();
    joiners.clear();
    EXPECT_EQ(sum, 4 * 7u);
    EXPECT_EQ(_korThread_Join(ex, 0, thread), 7u);
    _korThread_Destroy(0, ex, thread);
}

TEST_F(KorThread, OutlivesItsObject)
{
    constexpr size_t count = 50;
    std::mutex mutex;
    std::condition_variable changed;
    bool go = false;
    std::multiset<std::string> names;
    auto body = [&] {
        std::unique_lock hold(mutex);
        changed.wait(hold, [&] { return go; });
        names.insert(currentName());
        changed.notify_all();
    };
    for (size_t i = 0; i < count; i++) {
        std::string name = "tOutlives" + std::to_string(i); // gone before the thread asks for it
        _korThread_Destroy(0, ex, start(body, name.c_str()));
    }
    std::unique_lock hold(mutex);
    go = true;
    changed.notify_all();
    changed.wait(hold, [&] { return names.size() == count; });
    for (size_t i = 0; i < count; i++) {
        EXPECT_EQ(names.count("tOutlives" + std::to_string(i)), 1u);
    }
}

TEST_F(KorThread, JoinRefusesInsteadOfWaitingForEver)
{
    kor::test::Semaphore go;
    int32_t code = 0;
    korThread* thread = nullptr;
    auto body = [&] {
        go.acquire();
        KOR_EX_LOCAL(own);
        _korThread_Join(&own, 0, thread);
        code = own.code;
    };
    thread = start(body);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, NULL);
    EXPECT_EQ(_korThread_Join(ex, 0, thread), 0u); // the thread has not even begun
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
    go.release();
    _korThread_Join(ex, 0, thread);
    EXPECT_EQ(code, KOR_ERROR_INVALID_ARGUMENT);
    _korThread_Destroy(0, ex, thread);
    _korThread_Destroy(0, ex, nullptr);
    EXPECT_FALSE(_korThread_IsCurrentThread(nullptr));
}

TEST_F(KorThread, KnowsItsNameTypeAndNumbers)
{
    korThread* thread = nullptr;
    kor::test::Semaphore ready;
    auto body = [&] {
        KOR_EX_LOCAL(own);
        EXPECT_EQ(currentName(), "tKnows");
        EXPECT_EQ(_korThread_Type(), 17);
        ready.acquire();
        EXPECT_TRUE(_korThread_IsCurrentThread(thread));
        EXPECT_EQ(thread->threadId, _korThread_CurrentSystemThreadID());
        _korThread_SetCurrentName(&own, 0, "tRenamed");
        EXPECT_EQ(currentName(), "tRenamed");
        KOR_RAISE(&own, 0, KOR_ERROR_NOT_FOUND, NULL);
        EXPECT_STREQ(own.threadName, "tRenamed");
    };
    thread = start(body, "tKnows", 17);
    EXPECT_FALSE(_korThread_IsCurrentThread(thread));
    ready.release();
    _korThread_Join(ex, 0, thread);
    _korThread_Destroy(0, ex, thread);
    run([&] { EXPECT_EQ(_korThread_Type(), -2); }, "tNegative", -2);
}

TEST_F(KorThread, OfAnotherMakerHasTheProgramsName)
{
    const char* program = nullptr;
    _korThread_GetProgname(0, ex, &program);
    EXPECT_EQ(std::string(program).rfind("sync_tests", 0), 0u) << program;
    std::jthread([&] {
        EXPECT_EQ(currentName(), program);
        EXPECT_EQ(_korThread_Type(), 0);
        EXPECT_EQ(_korCurrentThread_GetCoreAssignment(), 0);
    }).join();
}

TEST_F(KorThread, SerialNumbersStayAndNeverComeAgain)
{
    constexpr size_t count = 40;
    std::array<uint64_t, count> serials = {};
    std::vector<std::jthread> threads;
    for (uint64_t& serial : serials) {
        threads.emplace_back([&serial] {
            KOR_EX_LOCAL(own);
            serial = _korThread_Current(&own, 0);
            EXPECT_EQ(_korThread_Current(&own, 0), serial);
        });
    }
    threads.clear();
    std::set<uint64_t> seen(serials.begin(), serials.end());
    EXPECT_EQ(seen.size(), count);
    EXPECT_FALSE(seen.contains(0));
    EXPECT_GT(_korThread_Current(ex, 0), 0u);
}

static std::string nameInDestructor;

TEST_F(KorThread, IsStillNamedWhenItsDestructorsRun)
{
    int32_t key = _korThreadLocal_Create(ex, 0, [](uint64_t) {
        KOR_EX_LOCAL(own);
        KOR_RAISE(&own, 0, KOR_ERROR_NOT_FOUND, NULL);
        nameInDestructor = own.threadName;
    });
    kor::test::Semaphore go;
    auto body = [&] {
        KOR_EX_LOCAL(own);
        _korThreadLocal_Set(&own, 0, key, 1);
    };
    run(body, "tEndsNamed");
    EXPECT_EQ(nameInDestructor, "tEndsNamed");
    _korThreadLocal_Destroy(0, ex, key);
}

// Uses more stack than a thread has by default.
static uint64_t deepStack(void* argument)
{
    constexpr size_t size = 20 << 20;
    volatile char room[size];
    for (size_t at = 0; at < size; at += 4096) {
        room[at] = 1;
    }
    return static_cast<uint64_t>(room[4096]) + reinterpret_cast<uint64_t>(argument);
}

TEST_F(KorThread, StackSizeIsReadAtEveryCreation)
{
    for (const char* size : {"33554432", "x", "-5", "1", static_cast<const char*>(nullptr)}) {
        EnvironmentGuard guard("KOR_THREAD_STACK_SIZE", size);
        bool large = size != nullptr && *size == '3';
        korThread* thread = _korThread_Create(ex, 0, large ? deepStack : givesArgument, number(1), 0, "tStack");
        ASSERT_CLEAN();
        EXPECT_EQ(_korThread_Join(ex, 0, thread), large ? 2u : 1u);
        _korThread_Destroy(0, ex, thread);
    }
}

TEST_F(KorThread, IsStartedThroughTheHook)
{
    _korThread_SetGlobalHook([](korThreadFunction function, void* argument) { return function(argument) + 100; });
    korThread* hooked = _korThread_Create(ex, 0, givesArgument, number(5), 0, "tHooked");
    _korThread_SetGlobalHook(nullptr);
    korThread* plain = _korThread_Create(ex, 0, givesArgument, number(5), 0, "tPlain");
    EXPECT_EQ(_korThread_Join(ex, 0, hooked), 105u);
    EXPECT_EQ(_korThread_Join(ex, 0, plain), 5u);
    _korThread_Destroy(0, ex, hooked);
    _korThread_Destroy(0, ex, plain);
}

TEST_F(KorThread, StartsInACallersStorage)
{
    static korThread storage; // what it refers to stays in use
    _korThread_CreateInBuffer(ex, 0, &storage, 3, sizeof storage, givesArgument, number(9), "tBuffer");
    ASSERT_CLEAN();
    EXPECT_EQ(_korThread_Join(ex, 0, &storage), 9u);
    korThread small;
    _korThread_CreateInBuffer(ex, 0, &small, 3, sizeof small - 1, givesArgument, number(9), "tBuffer");
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
}

TEST_F(KorThread, IsNotMadeByHalves)
{
    EXPECT_EQ(_korThread_Create(ex, 0, nullptr, nullptr, 0, "t"), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    sweepFailures(ex, [&] {
        korThread* thread = _korThread_Create(ex, 0, givesArgument, number(1), 0, "tSweep");
        EXPECT_EQ(thread == nullptr, ex->code != 0);
        if (thread != nullptr) {
            _korThread_Join(ex, 0, thread);
        }
        _korThread_Destroy(0, ex, thread);
    });
}

// ---- The once-control -----------------------------------------------------------------------------------------------

static std::atomic<int> onceRuns;
static std::atomic<bool> onceEnded;

TEST_F(KorThread, OnceRunsOnceAndNobodyReturnsBefore)
{
    constexpr int threads = 4;
    constexpr int rounds = 300;
    std::array<korThreadOnce, rounds> controls = {};
    std::atomic<int> early = 0;
    kor::test::Barrier line(threads);
    auto body = [&] {
        KOR_EX_LOCAL(own);
        for (korThreadOnce& once : controls) {
            line.arrive_and_wait([] { onceEnded = false; });
            _korThread_Once(&own, 0, &once, [] {
                onceRuns++;
                std::this_thread::yield();
                onceEnded = true;
            });
            early += !onceEnded;
            line.arrive_and_wait();
        }
    };
    {
        std::vector<std::jthread> racers;
        for (int i = 0; i < threads; i++) {
            racers.emplace_back(body);
        }
    }
    EXPECT_EQ(onceRuns, rounds);
    EXPECT_EQ(early, 0);
}

TEST_F(KorThread, OnceWaitsForACleanObject)
{
    korThreadOnce once = {};
    onceRuns = 0;
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, NULL);
    _korThread_Once(ex, 0, &once, [] { onceRuns++; });
    EXPECT_EQ(onceRuns, 0);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
    _korThread_Once(ex, 0, &once, [] { onceRuns++; });
    EXPECT_EQ(onceRuns, 1);
    EXPECT_EQ(once.state, 3u);
}

TEST_F(KorThread, ADetachedThreadIsJoinedAllTheSame)
{
    korThread* thread = _korThread_Create(ex, 0, givesArgument, number(4), 0, "tDetached");
    _korThread_Detach(ex, 0, thread);
    EXPECT_EQ(_korThread_Join(ex, 0, thread), 4u);
    _korThread_Destroy(0, ex, thread);
}
