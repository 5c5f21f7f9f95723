// korThread_test.cpp - threads, what they know of themselves, and the once-control.

#include "korutil/korThread.h"
#include "korutil/korThreadLocal.h"
#include "support/failingHeap.h"
#include "support/meeting.h"
#include "sync/lockAdapters.h"

#include <array>
#include <atomic>
#include <set>
#include <string>
#include <thread>

using namespace kor::test;

namespace {

// A main routine that is any callable. The callable must outlive the thread.
template <typename Body>
uint64_t runBody(void* body)
{
    (*static_cast<Body*>(body))();
    return 7;
}

auto idle = [] {};

// Uses more stack than a thread has by default.
auto deepStack = [] {
    volatile uint64_t room[20 << 17];
    for (size_t at = 0; at < std::size(room); at += 512) {
        room[at] = 1;
    }
};

} // namespace

class KorThread : public KorTest
{
protected:
    KorThread() { _korThread_InitThreads(ex, 0); }

    korThread* start(auto& body, const char* name = "tTest", int32_t type = 0)
    {
        return _korThread_Create(ex, 0, runBody<std::remove_reference_t<decltype(body)>>, &body, type, name);
    }

    uint64_t end(korThread* thread)
    {
        uint64_t result = _korThread_Join(ex, 0, thread);
        _korThread_Destroy(0, ex, thread);
        return result;
    }

    static std::string currentName()
    {
        const char* name = nullptr;
        KOR_EX_LOCAL(local);
        _korThread_GetCurrentName(0, &local, &name);
        return name;
    }
};

TEST_F(KorThread, IsJoinedByAnyNumberOfThreadsButNotByItself)
{
    kor::test::Semaphore go;
    korThread* thread = nullptr;
    std::atomic<uint64_t> sum = 0;
    auto join = [&] {
        KOR_EX_LOCAL(own);
        sum += _korThread_Join(&own, 0, thread);
        EXPECT_EQ(own.code, _korThread_IsCurrentThread(thread) ? KOR_ERROR_INVALID_ARGUMENT : 0);
    };
    auto body = [&] {
        go.acquire();
        join();
    };
    thread = start(body);
    auto joiners = inThreads(4, [&](korEx*, int) { join(); });
    _korThread_Detach(ex, 0, thread); // changes nothing
    go.release();
    joiners.clear();
    EXPECT_EQ(sum, 4 * 7u);
    EXPECT_EQ(end(thread), 7u);
    EXPECT_FALSE(_korThread_IsCurrentThread(nullptr));
}

static std::string nameInDestructor;
static kor::test::Semaphore destructed;

TEST_F(KorThread, KnowsItsNameTypeAndNumbers)
{
    korThread* thread = nullptr;
    kor::test::Semaphore ready;
    int32_t key = _korThreadLocal_Create(ex, 0, [](uint64_t) {
        nameInDestructor = currentName();
        destructed.release();
    });
    auto body = [&] {
        KOR_EX_LOCAL(own);
        EXPECT_EQ(currentName(), "tKnows");
        EXPECT_EQ(_korThread_Type(), -17);
        ready.acquire();
        EXPECT_TRUE(_korThread_IsCurrentThread(thread));
        EXPECT_EQ(thread->threadId, _korThread_CurrentSystemThreadID());
        _korThreadLocal_Set(&own, 0, key, 1);
        _korThread_SetCurrentName(&own, 0, "tRenamed");
        KOR_RAISE(&own, 0, KOR_ERROR_NOT_FOUND, NULL);
        EXPECT_STREQ(own.threadName, "tRenamed");
    };
    thread = start(body, "tKnows", -17);
    EXPECT_FALSE(_korThread_IsCurrentThread(thread));
    ready.release();
    end(thread);
    destructed.acquire();
    EXPECT_EQ(nameInDestructor, "tRenamed");
    auto outlivesItsObject = [&] {
        KOR_EX_LOCAL(own);
        ready.acquire();
        _korThreadLocal_Set(&own, 0, key, 1);
    };
    _korThread_Destroy(0, ex, start(outlivesItsObject, std::string("tEndsNamed").c_str()));
    ready.release();
    destructed.acquire();
    EXPECT_EQ(nameInDestructor, "tEndsNamed");
    _korThreadLocal_Destroy(0, ex, key);
}

TEST_F(KorThread, OfAnotherMakerHasTheProgramsNameAndASerialNumber)
{
    const char* program = nullptr;
    _korThread_GetProgname(0, ex, &program);
    EXPECT_TRUE(std::string(program).starts_with("sync_tests")) << program;
    std::array<uint64_t, 40> serials = {};
    inThreads(static_cast<int>(serials.size()), [&](korEx* own, int number) {
        uint64_t serial = serials[static_cast<size_t>(number)] = _korThread_Current(own, 0);
        EXPECT_EQ(_korThread_Current(own, 0), serial);
        EXPECT_EQ(currentName(), program);
        EXPECT_EQ(_korThread_Type() + _korCurrentThread_GetCoreAssignment(), 0);
    });
    std::set<uint64_t> seen(serials.begin(), serials.end());
    EXPECT_EQ(seen.size(), serials.size());
    EXPECT_FALSE(seen.contains(0));
}

TEST_F(KorThread, StackSizeIsReadAtEveryCreation)
{
    for (std::string size : {"x", "1", "33554432"}) {
        EnvironmentGuard guard("KOR_THREAD_STACK_SIZE", size.c_str());
        EXPECT_EQ(end(size == "33554432" ? start(deepStack) : start(idle)), 7u);
    }
}

TEST_F(KorThread, IsStartedThroughTheHook)
{
    _korThread_SetGlobalHook([](korThreadFunction function, void* argument) { return function(argument) + 100; });
    korThread* hooked = start(idle);
    _korThread_SetGlobalHook(nullptr);
    korThread* plain = start(idle);
    EXPECT_EQ(end(hooked), 107u);
    EXPECT_EQ(end(plain), 7u);
}

TEST_F(KorThread, IsNotMadeByHalves)
{
    static korThread storage; // what it refers to stays in use
    _korThread_CreateInBuffer(ex, 0, &storage, 3, sizeof storage, runBody<decltype(idle)>, &idle, "tBuffer");
    EXPECT_EQ(_korThread_Join(ex, 0, &storage), 7u);
    _korThread_CreateInBuffer(ex, 0, &storage, 3, sizeof storage - 1, runBody<decltype(idle)>, &idle, "tBuffer");
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    sweepFailures(ex, [&] {
        korThread* thread = start(idle);
        EXPECT_EQ(thread == nullptr, ex->code != 0);
        if (thread != nullptr) {
            end(thread);
        }
    });
}

static std::atomic<int> onceRuns;
static std::atomic<bool> onceEnded;

TEST_F(KorThread, OnceRunsOnceAndNobodyReturnsBefore)
{
    constexpr int threads = 4;
    constexpr int rounds = 300;
    std::array<korThreadOnce, rounds> controls = {};
    korThreadOnceRoutine routine = [] {
        onceRuns++;
        std::this_thread::yield();
        onceEnded = true;
    };
    kor::test::Barrier line(threads);
    onceRuns = 0;
    inThreads(threads, [&](korEx* own, int) {
        for (korThreadOnce& once : controls) {
            line.arrive_and_wait([] { onceEnded = false; });
            _korThread_Once(own, 0, &once, routine);
            EXPECT_TRUE(onceEnded);
            line.arrive_and_wait();
        }
    });
    EXPECT_EQ(onceRuns, rounds);
}
