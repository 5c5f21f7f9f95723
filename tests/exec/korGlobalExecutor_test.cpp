// korGlobalExecutor_test.cpp - the library's own executors: what KOR_EXEC_CONF makes of them, the drain, and a last
// release by one of their own threads.

#include "korutil/korExecutor.h"
#include "korutil/korLib.h"
#include "korutil/korThread.h"
#include "support/childProcess.h"
#include "support/korTest.h"
#include "support/meeting.h"

#include <atomic>
#include <functional>
#include <thread>

using namespace kor::test;

namespace {

void call(korEx* ex, uint8_t depth, void* closure)
{
    (*static_cast<std::function<void(korEx*, uint8_t)>*>(closure))(ex, depth);
}

using Work = std::function<void(korEx*, uint8_t)>;

} // namespace

class KorGlobalExecutorTest : public KorTest
{
protected:
    korExecutor* internal() { return _korExecutor_GetGlobal(KOR_AT_D(0, ex)); }
    korExecutor* user() { return _korExecutor_GetGlobalUser(KOR_AT_D(0, ex)); }
    void release(korExecutor* executor) { _korExecutor_Release(KOR_AT_D(0, ex), executor); }
    bool runsHere() { return _korExecutor_IsCurrentThreadInAnyGlobalExecutor(KOR_AT_D(0, ex)); }
};

// ---- The configuration ----------------------------------------------------------------------------------------------

TEST_F(KorGlobalExecutorTest, DISABLED_PrintsWhatItHas)
{
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    std::string error = describe(ex);
    korEx_Clear(ex);
    printf("has");
    for (korExecutor* executor : {internal(), user()}) {
        if (executor != nullptr) {
            printf(" %d,%d,%d", static_cast<int>(executor->poolSize), static_cast<int>(executor->spinCount),
                   static_cast<int>(executor->warnOnTaskDur));
            release(executor);
        }
    }
    printf(";\n%s\n", error.c_str());
    korEx_Clear(ex);
    _korutil_Close(KOR_AT_D(0, ex));
}

TEST_F(KorGlobalExecutorTest, TheVariableIsSearchedAsText)
{
    const std::string usage = "=<threadcnt>[,<spincnt>][,next_executor=<threadcnt>[,<spincnt>]][,warnOnTaskDur=<ms>]\n";
    struct {
        const char* variable;
        std::string has;
        std::vector<std::string> printed;
    } const cases[] = {
        {"nothing=3", "4,0,0 1,0,0", {}},
        {"giExecutor=8,1000",
         "8,1000,0 1,0,0",
         {"Found settings for executor giExecutor: threadcnt=8 spinCnt=1000 \n"}},
        {"giExecutor=8,guExecutor=2,500",
         "8,0,0 2,500,0",
         {"giExecutor: threadcnt=8 spinCnt=0 \n", "guExecutor: threadcnt=2 spinCnt=500 \n"}},
        {"guExecutor=3,7,giExecutor=2,5,warnOnTaskDur=100",
         "2,5,100 3,7,100",
         {"Found setting warnOnTaskDur=100\n", "giExecutor: threadcnt=2 spinCnt=5 \n"}},
        {"giExecutor=0,9", "4,9,0 1,0,0", {"giExecutor: threadcnt=0 spinCnt=9 \n"}},
        {"giExecutor=", "4,0,0 1,0,0", {}},
        {"my_giExecutor=2 guExecutor 5", "2,0,0 1,0,0", {}},
        {"help", "4,0,0 1,0,0", {"KOR_EXEC_CONF:giExecutor" + usage, "KOR_EXEC_CONF:guExecutor" + usage}},
        {"warnOnTaskDur=-1", ";", {"Cannot set Warn on task duration to a negative value.."}},
        {"giExecutor=-1", ";", {}},
    };
    for (const auto& [variable, has, printed] : cases) {
        ChildProcess child("KorGlobalExecutorTest.DISABLED_PrintsWhatItHas", {{"KOR_EXEC_CONF", variable}});
        EXPECT_EQ(child.wait(), 0) << child.output();
        std::string line = has == ";" ? "has;\n" : "has " + has + ";\n";
        EXPECT_NE(child.output().find(line), std::string::npos) << variable << "\n" << child.output();
        for (const std::string& text : printed) {
            EXPECT_NE(child.output().find(text), std::string::npos) << variable << "\n" << child.output();
        }
        EXPECT_EQ(child.output().find("Found settings for executor gi") != std::string::npos,
                  std::string(variable).find("giExecutor=") != std::string::npos && *strchr(variable, '=') != 0 &&
                      std::string(variable) != "giExecutor=")
            << variable;
    }
}

// ---- Access ---------------------------------------------------------------------------------------------------------

TEST_F(KorGlobalExecutorTest, ExistsWhileTheLibraryIsOpen)
{
    EXPECT_TRUE(internal() == nullptr && user() == nullptr && !runsHere());
    _korExecutor_DrainGlobalExecutors(KOR_AT_D(0, ex));
    for (int round = 0; round < 2; round++) {
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        korExecutor* executor = internal();
        _korExecutor_Start(KOR_AT(ex, 0), executor);
        EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korExecutor_Start on a global executor");
        EXPECT_FALSE(runsHere());
        release(executor);
        struct {
            void (*run)(korEx*, uint8_t, korSimpleFunction, void*);
            const char* name;
        } const roads[] = {{_korExecutor_RunSimpleTask, ".giExecutor thread "},
                           {_korExecutor_RunSimpleUserTask, ".guExecutor thread "}};
        for (const auto& [run, name] : roads) {
            Semaphore done;
            Work work = [&](korEx* own, uint8_t depth) {
                const char* thread = nullptr;
                _korThread_GetCurrentName(KOR_AT_D(depth, own), &thread);
                EXPECT_NE(std::string(thread).find(name), std::string::npos) << thread;
                EXPECT_TRUE(_korExecutor_IsCurrentThreadInAnyGlobalExecutor(KOR_AT_D(depth, own)));
                done.release();
            };
            run(KOR_AT(ex, 0), call, &work);
            done.acquire();
        }
        _korutil_Close(KOR_AT_D(0, ex));
        EXPECT_TRUE(internal() == nullptr && user() == nullptr);
        EXPECT_CLEAN();
    }
}

// ---- Coming to rest -------------------------------------------------------------------------------------------------

TEST_F(KorGlobalExecutorTest, ADrainWaitsForJobsButNotForItself)
{
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    Semaphore gate, begun;
    std::atomic<int> done = 0;
    Work waits = [&](korEx*, uint8_t) {
        begun.release();
        gate.acquire();
        done++;
    };
    Work drains = [&](korEx* own, uint8_t depth) {
        _korExecutor_DrainGlobalExecutors(KOR_AT_D(depth, own)); // of the other one
        gate.release();
        gate.release();
        done++;
    };
    _korExecutor_RunSimpleTask(KOR_AT(ex, 0), call, &waits);
    _korExecutor_RunSimpleTask(KOR_AT(ex, 0), call, &waits);
    begun.acquire();
    begun.acquire(); // a job that no runner has yet is not waited for
    _korExecutor_RunSimpleTask(KOR_AT(ex, 0), call, &drains);
    std::vector<std::jthread> others;
    for (int i = 0; i < 2; i++) {
        others.emplace_back([&] {
            KOR_EX_LOCAL(own);
            _korExecutor_DrainGlobalExecutors(KOR_AT_D(0, &own));
            EXPECT_EQ(done, 3);
        });
    }
    others.clear();
    _korutil_Close(KOR_AT_D(0, ex)); // drains once more
}

namespace {

Semaphore* offloadedEnds;

uint64_t watchThread(korThreadFunction function, void* argument)
{
    uint64_t result = function(argument);
    if (_korThread_Type() == 5) {
        offloadedEnds->release();
    }
    return result;
}

} // namespace

TEST_F(KorGlobalExecutorTest, ALastReleaseByAWorkerIsLeftToAThreadOfItsOwn)
{
    Semaphore released, offloaded;
    offloadedEnds = &offloaded;
    _korThread_SetGlobalHook(watchThread);
    for (auto run : {_korExecutor_RunSimpleTask, _korExecutor_RunSimpleUserTask}) {
        _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
        _korutil_Retain(KOR_AT_D(0, ex));
        _korutil_Close(KOR_AT_D(0, ex));
        Work work = [&](korEx* own, uint8_t depth) {
            _korutil_Release(KOR_AT_D(depth, own));
            EXPECT_EQ(own->code, 0);
            released.release();
        };
        run(KOR_AT(ex, 0), call, &work);
        released.acquire(); // the release returned although the stop waits for this job
        offloaded.acquire();
        EXPECT_EQ(internal(), nullptr);
        EXPECT_CLEAN();
    }
    _korThread_SetGlobalHook(nullptr);
}
