// typicalRoad_test.cpp - one repeating task from its schedule to the log, with somebody watching at every station.

#include "korutil/korExecutor.h"
#include "korutil/korLib.h"
#include "korutil/korTimer.h"
#include "log/loggerTest.h"
#include "support/meeting.h"

#include <regex>

using namespace kor::test;

namespace {

constexpr int lastRun = 3;

// What the callback found on its way, for the test to look at afterwards.
struct Traveller {
    int runs = 0;
    int ends = 0;
    korExecutor* executor = nullptr;
    std::string trouble;
    std::string trace;
    Semaphore ended;

    void expect(bool condition, const char* what)
    {
        if (!condition) {
            trouble += std::string(what) + "\n";
        }
    }
};

void lookAround(korEx* ex, uint8_t depth, korTimer* timer, uint64_t id, Traveller* self)
{
    const char* thread = nullptr;
    _korThread_GetCurrentName(KOR_AT_D(depth, ex), &thread);
    self->expect(strstr(thread, ".giExecutor thread ") != nullptr, "on a runner of the internal executor");
    korJob* job = _korJob_GetActiveJob(ex);
    self->expect(job != nullptr && job->type == 2 && job->runAndForget == 1, "as a job, run and forgotten");
    self->expect(job != nullptr && job->state == 3 && job->refCount == 1, "running, and held by the runner alone");
    self->expect(job != nullptr && job->executor == self->executor, "of that executor");
    korMutex_enter(timer->mutex);
    self->expect(timer->runningTasks == 1, "counted as running");
    self->expect(_korI64Hash_Get(KOR_AT(ex, depth), timer->tasks, static_cast<int64_t>(id)) != 0, "and still known");
    korMutex_leave(timer->mutex);
    for (uint8_t i = 0; i < depth; i++) {
        self->trace += std::string(ex->frames[i].function) + " ";
    }
}

void callback(korEx* ex, uint8_t depth, korTimer* timer, uint64_t id, void* closure)
{
    auto* self = static_cast<Traveller*>(closure);
    self->trace.clear();
    lookAround(KOR_AT(ex, depth), timer, id, self);
    if (++self->runs == lastRun) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_FILE_IO, "run %d found no file", self->runs);
    }
}

void end(korEx*, uint8_t, void* closure)
{
    auto* self = static_cast<Traveller*>(closure);
    self->ends++;
    self->ended.release();
}

} // namespace

class TypicalRoadTest : public LoggerTest
{};

TEST_F(TypicalRoadTest, ARepeatingTaskFromItsScheduleToTheLog)
{
    Receiver receiver;
    receive(receiver);
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    Traveller traveller;
    traveller.executor = _korExecutor_GetGlobal(KOR_AT_D(0, ex));
    _korExecutor_SetCountersEnabled(KOR_AT(ex, 0), traveller.executor, true);
    korTimer* timer = _korTimer_GetGlobal(KOR_AT_D(0, ex));
    EXPECT_EQ(timer->executor, traveller.executor);

    korMutex_enter(timer->mutex); // the dispatcher waits: the task is seen in the heap
    uint32_t tasksBefore = timer->tasks->entryCount;
    uint64_t id = _korTimer_ScheduleTask(KOR_AT(ex, 0), timer, callback, end, &traveller, 5, 2);
    EXPECT_EQ(timer->tasks->entryCount, tasksBefore + 1);
    int64_t due = korRadixHeap_nextKey(&timer->heap);
    EXPECT_TRUE(due >= timer->heap.buckets[0].minKey && due < KOR_RADIX_HEAP_NO_KEY);
    korMutex_leave(timer->mutex);

    traveller.ended.acquire();
    EXPECT_EQ(traveller.trouble, "");
    EXPECT_TRUE(traveller.runs == lastRun && traveller.ends == 1);
    EXPECT_TRUE(std::regex_search(traveller.trace, std::regex("^job_runner .*_timerTaskJobHandler callback $")))
        << traveller.trace;
    _korExecutor_DrainGlobalExecutors(KOR_AT_D(0, ex));
    EXPECT_EQ(_korExecutor_StartCountForType(KOR_AT(ex, 0), traveller.executor, 2), uint64_t{lastRun});
    EXPECT_EQ(_korExecutor_FinishCountForType(KOR_AT(ex, 0), traveller.executor, 2), uint64_t{lastRun});
    EXPECT_EQ(timer->runningTasks, 0u);
    EXPECT_TRUE(_korTimer_CancelTask(KOR_AT_D(0, ex), timer, id));
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "Task not found");

    Statements statements = receiver.take();
    ASSERT_EQ(statements.size(), 1u);
    std::regex expected("warn tmrs: Timer \\(0x[0-9a-f]+\\): Got exception from callback\\n"
                        "[^]*File I/O error[^]*run 3 found no file[^]*\\tcallback, \\d+\\n"
                        "\\t\\t_timerTaskJobHandler, \\d+\\n[^]*\\tjob_runner, \\d+\\n[^]*");
    EXPECT_TRUE(std::regex_match(statements[0], expected)) << statements[0];

    _korTimer_Release(KOR_AT_D(0, ex), timer);
    _korExecutor_Release(KOR_AT_D(0, ex), traveller.executor);
    _korutil_Close(KOR_AT_D(0, ex));
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
}
