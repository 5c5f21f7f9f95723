// korTimer.cpp - tasks at a time: the dispatcher, the way of a task through the executor and back, and its end.
//
// A task is a recyclable job. It stands in the heap (`placed`), or it is with the executor, never both. While it is
// with the executor it counts in the timer's `runningTasks`, and the last release of the run brings it to the
// recycling, which puts it back or ends it. Whoever ends a task that does not run leaves `placed` set, or sets it: that
// tells the recycling that there is nothing to put back and nothing to count.

#include "korutil/korTimer.h"
#include "exec/globalSlot.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"
#include "korutil/korExecutor.h"
#include "korutil/korLogger.h"
#include "korutil/korPerf.h"
#include "korutil/korProcess.h"
#include "korutil/korText.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kor {
namespace {

enum TimerState : uint8_t { destroyed = 0, created = 1, running = 2, stopping = 3, stopped = 4 };

constexpr uint8_t component = 12;
constexpr uint8_t noBucket = 255;
constexpr int32_t taskJobType = 2;
constexpr int32_t dispatcherThreadType = 2;
constexpr int64_t longestWait = 10000; // milliseconds; keeps the heap's reference key moving

struct korTimerTask {
    korJob job;
    korRadixItem radixItem;
    uint64_t id;
    uint8_t placed; // in the heap
    uint8_t cancelled;
    uint8_t repeating; // the interval was above 0
    uint8_t counted;   // the task's end subtracts from `runningTasks`
    korEx* exception;  // the callback's failure, or NULL
    korTimer* timer;   // holds a reference
    korTimerCallback callback;
    korTimerDestroyCallback destroyCallback;
    void* closure;
    int64_t delay;
    int64_t interval;    // atomic: the runner reads it without the mutex
    int64_t scheduledAt; // the two are 0 unless overruns are reported
    int64_t lastFinish;
};

int64_t warnOnOverrunDur = 0; // atomic; milliseconds, 0 = nothing is measured

GlobalSlot<korTimer> globalTimer;
UnloadStep clearsSlot = {[] { globalTimer.clear(); }, nullptr};
korExecutor* globalTimersExecutor = nullptr; // the opening's reference
uint32_t globalDispatcher = 0;               // atomic: the system's number of the global timer's thread, 0 = none

class MutexGuard
{
public:
    explicit MutexGuard(korMutex* mutex) : mutex_(mutex) { korMutex_enter(mutex_); }
    ~MutexGuard() { korMutex_leave(mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    korMutex* mutex_;
};

korTimerTask* taskOf(korJob* job)
{
    return reinterpret_cast<korTimerTask*>(job);
}

korTimerTask* taskOf(korRadixItem* item)
{
    return reinterpret_cast<korTimerTask*>(reinterpret_cast<char*>(item) - offsetof(korTimerTask, radixItem));
}

unsigned long long address(const void* pointer)
{
    return reinterpret_cast<unsigned long long>(pointer);
}

// ---- Time -----------------------------------------------------------------------------------------------------------

double clockMilliseconds()
{
    return static_cast<double>(_korPerf_TimerNow()) * _korPerf_TimerScale() * 1000.0;
}

int64_t now()
{
    return static_cast<int64_t>(clockMilliseconds());
}

// The key of a task that is to wait for `wait` milliseconds. `now` is cut to whole milliseconds: what was cut off is
// added again, or a task would be early by it.
int64_t dueTime(int64_t wait)
{
    double exact = clockMilliseconds();
    auto start = static_cast<int64_t>(exact);
    if (wait == 0) {
        return start;
    }
    start += static_cast<double>(start) < exact;
    return wait > INT64_MAX - start ? INT64_MAX : start + wait;
}

int64_t overrunGrace()
{
    return std::atomic_ref(warnOnOverrunDur).load(std::memory_order_relaxed);
}

int64_t intervalOf(korTimerTask* task)
{
    return std::atomic_ref(task->interval).load(std::memory_order_relaxed);
}

// ---- The heap. The caller holds the timer's mutex. ------------------------------------------------------------------

// Takes an item out of the middle of a bucket. A bucket's first item has the last one as its `prev`.
void unlink(korRadixHeap* heap, korRadixItem* item)
{
    korRadixBucket* bucket = &heap->buckets[item->bucket];
    if (bucket->head == item) {
        bucket->head = item->next;
        if (item->next != nullptr) {
            item->next->prev = item->prev;
        }
    } else {
        item->prev->next = item->next;
        (item->next != nullptr ? item->next : bucket->head)->prev = item->prev;
    }
    item->bucket = noBucket;
}

bool isEmpty(const korRadixHeap* heap)
{
    const korRadixBucket* first = heap->buckets;
    return std::all_of(first, first + heap->bucketCount, [](auto& bucket) { return bucket.head == nullptr; });
}

// Has the heap make all the buckets that a key can need. From then on no insertion fails for want of memory: a task
// that comes back from its run has nobody to tell.
void reserveBuckets(korEx* ex, uint8_t depth, korRadixHeap* heap)
{
    korRadixItem last;
    _korRadixHeap_Insert(KOR_AT(ex, depth), heap, &last, INT64_MAX);
    if (ex->code == 0) {
        unlink(heap, &last);
    }
}

// Wakes the dispatcher only if it sleeps and would sleep too long. What it sleeps for is never later than the next key.
void _placeTask(korEx* ex, uint8_t depth, korTimer* timer, korTimerTask* task, int64_t wait)
{
    int64_t key = dueTime(wait);
    int64_t next = korRadixHeap_nextKey(&timer->heap);
    _korRadixHeap_Insert(KOR_AT(ex, depth), &timer->heap, &task->radixItem, key);
    if (ex->code != 0) {
        return;
    }
    task->placed = 1;
    if (key < next && timer->waiting) {
        _korCondition_SignalDebug(KOR_AT_D(depth, ex), timer->condition);
    }
}

// ---- A run ----------------------------------------------------------------------------------------------------------

bool exceeds(int64_t time, int64_t limit, int64_t grace)
{
    int64_t allowed;
    return !__builtin_add_overflow(limit, grace, &allowed) && time > allowed;
}

// Before the callback: true if it starts too late.
bool reportLate(korTimerTask* task, int64_t start, int64_t grace)
{
    if (task->lastFinish != 0) {
        int64_t elapsed = start - task->lastFinish;
        int64_t interval = intervalOf(task);
        if (!exceeds(elapsed, interval, grace)) {
            return false;
        }
        KOR_LOG(component, KOR_LOG_SEVERE,
                "late exec for task id %" PRId64 " on timer %p: elapsed=%" PRId64 " ms, interval=%" PRId64
                " ms, callback=%llx",
                static_cast<int64_t>(task->id), static_cast<void*>(task->timer), elapsed, interval,
                address(reinterpret_cast<void*>(task->callback)));
        return true;
    }
    int64_t elapsed = start - task->scheduledAt;
    if (task->scheduledAt == 0 || !exceeds(elapsed, task->delay, grace)) {
        return false;
    }
    KOR_LOG(component, KOR_LOG_SEVERE,
            "late first exec for task id %" PRId64 " on timer %p: elapsed=%" PRId64 " ms, delay=%" PRId64
            " ms, callback=%llx",
            static_cast<int64_t>(task->id), static_cast<void*>(task->timer), elapsed, task->delay,
            address(reinterpret_cast<void*>(task->callback)));
    return true;
}

// After the callback: true if it took too long.
bool reportOverrun(korTimerTask* task, int64_t start, int64_t grace)
{
    int64_t duration = now() - start;
    int64_t interval = intervalOf(task);
    if (!task->repeating || !exceeds(duration, interval, grace)) {
        return false;
    }
    KOR_LOG(component, KOR_LOG_SEVERE,
            "overrun for task id %" PRId64 " on timer %p: exec time=%" PRId64 " ms, interval=%" PRId64
            " ms, callback=%llx",
            static_cast<int64_t>(task->id), static_cast<void*>(task->timer), duration, interval,
            address(reinterpret_cast<void*>(task->callback)));
    return true;
}

// Keeps a failure with the task. Without memory for the copy the task ends all the same, only nothing is logged.
void keepFailure(korEx* ex, korTimerTask* task)
{
    task->exception = _korEx_Clone(ex);
    task->repeating = task->repeating && task->exception != nullptr;
    korEx_Clear(ex);
}

// What is measured around a callback. The frame behind the handler's is the callback's own, if it makes calls.
struct Measure {
    int64_t grace; // 0: nothing is measured
    int64_t start;
    korFrame* callbacksFrame;
    bool late;
};

Measure beginMeasure(korEx* ex, uint8_t depth, korTimerTask* task)
{
    Measure measure = {.grace = overrunGrace(), .start = 0, .callbacksFrame = nullptr, .late = false};
    if (measure.grace != 0) {
        measure.callbacksFrame = &ex->frames[std::min<int>(depth + 1, KOR_MAX_FRAMES - 1)];
        measure.callbacksFrame->line = -1;
        measure.start = now();
        measure.late = reportLate(task, measure.start, measure.grace);
    }
    return measure;
}

void endMeasure(const Measure& measure, korTimerTask* task)
{
    if (measure.grace == 0) {
        return;
    }
    bool overrun = reportOverrun(task, measure.start, measure.grace);
    task->lastFinish = now();
    if (measure.late || overrun) {
        KOR_LOG(component, KOR_LOG_SEVERE, "callback invoked: %s",
                measure.callbacksFrame->line != -1 ? measure.callbacksFrame->function : "<unknown>");
    }
}

// The job's main function: no lock is held.
void _timerTaskJobHandler(korEx* ex, uint8_t depth, korJob* job)
{
    korTimerTask* task = taskOf(job);
    Measure measure = beginMeasure(ex, depth, task);
    task->callback(KOR_AT(ex, depth), task->timer, task->id, task->closure);
    if (ex->code != 0) {
        keepFailure(ex, task);
    }
    endMeasure(measure, task);
}

// ---- Back into the heap, or the end ---------------------------------------------------------------------------------

// Ends a task that was with the executor.
bool endRun(uint8_t depth, korEx* ex, korTimerTask* task)
{
    task->counted = 1;
    _korI64Hash_Remove(KOR_AT_D(depth, ex), task->timer->tasks, static_cast<int64_t>(task->id));
    return false;
}

// True: the task lives on. Under the mutex.
bool recycle(uint8_t depth, korEx* ex, korTimerTask* task)
{
    korTimer* timer = task->timer;
    if (task->placed || timer->state == created || timer->state == stopped) {
        return false;
    }
    if (timer->state != running || task->exception != nullptr || task->cancelled || !task->repeating) {
        return endRun(KOR_AT_D(depth, ex), task);
    }
    _placeTask(KOR_AT(ex, depth), timer, task, intervalOf(task));
    timer->runningTasks--;
    return true;
}

// Called by the last release of a run, and of a task that is ended otherwise. A failure is logged when the mutex is
// free again: a log may be slow.
bool _timerTaskRecycling(korEx* ex, uint8_t depth, korJob* job)
{
    KOR_EX_CHAINED(local, ex, depth); // an error that pends keeps no task from its place
    korTimerTask* task = taskOf(job);
    korTimer* timer = task->timer;
    korMutex_enter(timer->mutex);
    bool lives = recycle(KOR_AT_D(depth, &local), task);
    bool failed = timer->state == running && task->exception != nullptr;
    korMutex_leave(timer->mutex);
    if (!lives && failed && korLogger_isLoggable(component, KOR_LOG_WARN)) {
        _korLogger_LogExN_v3(component, nullptr, nullptr, KOR_LOG_WARN, task->exception, 0,
                             "Timer (0x%llx): Got exception from callback", address(timer));
    }
    return lives;
}

void endClosure(uint8_t depth, korEx* ex, korTimerDestroyCallback destroyCallback, void* closure)
{
    KOR_EX_CHAINED(local, ex, depth);
    destroyCallback(KOR_AT(&local, depth), closure);
}

void _korTimerTask_Destroy(uint8_t depth, korEx* ex, korTimerTask* task)
{
    korTimer* timer = task->timer;
    bool counted = task->counted;
    if (task->destroyCallback != nullptr) {
        endClosure(KOR_AT_D(depth, ex), task->destroyCallback, task->closure);
    }
    _korEx_Destroy(task->exception);
    _kor_free(KOR_AT_D(depth, ex), task);
    if (counted) {
        MutexGuard guard(timer->mutex);
        if (--timer->runningTasks == 0 && timer->waiting) {
            _korCondition_SignalDebug(KOR_AT_D(depth, ex), timer->condition);
        }
    }
    _korTimer_Release(KOR_AT_D(depth, ex), timer);
}

void _timerTaskJobRelease(korEx* ex, uint8_t depth, korJob* job)
{
    _korTimerTask_Destroy(KOR_AT_D(depth, ex), taskOf(job));
}

void _korTimerTask_Release(uint8_t depth, korEx* ex, korTimerTask* task)
{
    _korJob_Release(KOR_AT_D(depth, ex), &task->job);
}

// Holds a reference to the timer from here on.
korTimerTask* _korTimerTask_Create(korEx* ex, uint8_t depth, korTimer* timer, int64_t delay, int64_t interval)
{
    auto* task = requestZeroed<korTimerTask>(KOR_AT(ex, depth));
    if (task == nullptr) {
        return nullptr;
    }
    _korJob_Recyclable(KOR_AT(ex, depth), &task->job, taskJobType, _timerTaskJobHandler, _timerTaskRecycling,
                       _timerTaskJobRelease);
    _korTimer_Retain(KOR_AT(ex, depth), timer);
    task->timer = timer;
    task->delay = delay;
    task->interval = interval;
    task->repeating = interval > 0;
    task->scheduledAt = overrunGrace() != 0 ? now() : 0;
    return task;
}

// ---- The dispatcher. All but the cleaning up holds the timer's mutex. -----------------------------------------------

void logSevere(const korEx* ex, const korTimer* timer, const char* what)
{
    if (korLogger_isLoggable(component, KOR_LOG_SEVERE)) {
        _korLogger_LogExN_v3(component, nullptr, nullptr, KOR_LOG_SEVERE, ex, 0, "Timer (0x%llx): %s", address(timer),
                             what);
    }
}

void logAndClear(korEx* ex, const korTimer* timer)
{
    if (ex->code != 0) {
        logSevere(ex, timer, "Error in timer thread");
        korEx_Clear(ex);
    }
}

// Tasks of the time before the start begin one interval after it, whatever their delay.
void _updateTasksBeforeTimerStart(korEx* ex, uint8_t depth, korTimer* timer)
{
    korI64HashIterator walk;
    uint64_t value;
    _korI64Hash_IteratorInit(KOR_AT(ex, depth), timer->tasks, &walk);
    while (_korI64Hash_Next(KOR_AT(ex, depth), &walk, nullptr, &value)) {
        auto* task = reinterpret_cast<korTimerTask*>(value);
        _placeTask(KOR_AT(ex, depth), timer, task, intervalOf(task));
    }
}

// Sleeps until the next task is due or an earlier one comes. Gives the time: the old one after a signal.
int64_t awaitNext(uint8_t depth, korEx* ex, korTimer* timer, int64_t time)
{
    int64_t wait = std::clamp<int64_t>(korRadixHeap_nextKey(&timer->heap) - time, 0, longestWait);
    timer->waiting = 1;
    bool timedOut =
        _korCondition_TimedWait(KOR_AT_D(depth, ex), timer->condition, timer->mutex, static_cast<uint32_t>(wait));
    timer->waiting = 0;
    return timedOut ? now() : time;
}

// A task counts before it is handed over: it may be back, or gone, by the time that the call returns.
void runDueTasks(korEx* ex, uint8_t depth, korTimer* timer)
{
    while (ex->code == 0 && timer->heap.buckets[0].head != nullptr) {
        korTimerTask* task = taskOf(_korRadixHeap_ExtractMin(KOR_AT(ex, depth), &timer->heap));
        task->placed = 0;
        timer->runningTasks++;
        _korJob_RunAndForget(KOR_AT(ex, depth), timer->executor, &task->job);
        if (ex->code != 0) {
            logSevere(ex, timer, "Error executing task");
        }
    }
}

void dispatch(korEx* ex, uint8_t depth, korTimer* timer)
{
    int64_t time = now();
    _korRadixHeap_DecreaseKey(KOR_AT(ex, depth), &timer->heap, time);
    if (timer->heap.buckets[0].head == nullptr) {
        time = awaitNext(KOR_AT_D(depth, ex), timer, time);
        if (timer->state != running) {
            return;
        }
        _korRadixHeap_DecreaseKey(KOR_AT(ex, depth), &timer->heap, time);
    }
    runDueTasks(KOR_AT(ex, depth), timer);
}

void awaitRunningTasks(uint8_t depth, korEx* ex, korTimer* timer)
{
    timer->waiting = 1;
    while (timer->state == stopping && timer->runningTasks != 0) {
        _korCondition_Wait(KOR_AT_D(depth, ex), timer->condition, timer->mutex);
    }
    timer->waiting = 0;
}

// Empties the heap, bucket by bucket: their order does not matter any more. NULL for an empty heap.
korDpa* takeTasks(korEx* ex, uint8_t depth, korTimer* timer)
{
    if (isEmpty(&timer->heap)) {
        return nullptr;
    }
    korDpa* tasks = _korDpa_Create(KOR_AT(ex, depth), static_cast<int32_t>(timer->tasks->entryCount));
    if (tasks == nullptr) {
        logSevere(ex, timer, "No memory cleaning-up timer tasks");
        return nullptr;
    }
    for (uint8_t i = 0; i < timer->heap.bucketCount; i++) {
        korRadixBucket* bucket = &timer->heap.buckets[i];
        for (korRadixItem* item = bucket->head; item != nullptr; item = item->next) {
            _korDpa_AddSafe(KOR_AT(ex, depth), tasks, reinterpret_cast<uint64_t>(taskOf(item)));
        }
        bucket->head = nullptr;
    }
    return tasks;
}

// Without the mutex: destroy callbacks run here.
void _timerCleanupTasks(uint8_t depth, korEx* ex, korDpa* tasks)
{
    for (int32_t i = 0; tasks != nullptr && i < tasks->count; i++) {
        _korTimerTask_Release(KOR_AT_D(depth, ex), reinterpret_cast<korTimerTask*>(tasks->items[i]));
    }
    _korDpa_DestroyPooled(KOR_AT_D(depth, ex), tasks, nullptr);
}

uint64_t _timerThreadFunc(void* argument)
{
    auto* timer = static_cast<korTimer*>(argument);
    KOR_EX_LOCAL(base);
    korEx_at(&base, 0, __func__, __LINE__);
    KOR_EX_PRIVATE(ex, &base, 1);
    korMutex_enter(timer->mutex);
    timer->state = running;
    _korCondition_SignalDebug(KOR_AT_D(1, &ex), timer->startCondition);
    _updateTasksBeforeTimerStart(KOR_AT(&ex, 1), timer);
    logAndClear(&ex, timer);
    while (timer->state == running) {
        dispatch(KOR_AT(&ex, 1), timer);
        logAndClear(&ex, timer);
    }
    awaitRunningTasks(KOR_AT_D(1, &ex), timer);
    korDpa* tasks = takeTasks(KOR_AT(&ex, 1), timer);
    korMutex_leave(timer->mutex);
    korEx_Clear(&ex);
    _timerCleanupTasks(KOR_AT_D(1, &ex), tasks);
    _korTimer_Release(KOR_AT_D(1, &ex), timer);
    return 0;
}

// ---- Start, stop, end -----------------------------------------------------------------------------------------------

bool acceptsTasks(korEx* ex, uint8_t depth, const korTimer* timer)
{
    if (timer->state == created || timer->state == running) {
        return true;
    }
    KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Timer is stopping or has been stopped");
    return false;
}

// Returns when the dispatcher runs. A second starter finds the thread's object, even before that.
void startDispatcher(korEx* ex, uint8_t depth, korTimer* timer)
{
    char threadName[100];
    _kor_snprintf(threadName, sizeof threadName, "tTmrDsp.%s - Timer dispatcher", timer->name);
    _korTimer_Retain(KOR_AT(ex, depth), timer); // the dispatcher's
    timer->thread = _korThread_Create(KOR_AT(ex, depth), _timerThreadFunc, timer, dispatcherThreadType, threadName);
    if (timer->thread == nullptr) {
        std::atomic_ref(timer->refCount).fetch_sub(1); // the caller has one
        return;
    }
    while (timer->state == created) {
        _korCondition_Wait(KOR_AT_D(depth, ex), timer->startCondition, timer->mutex);
    }
}

// The dispatcher may be the one that stops its timer, in a destroy callback.
void endDispatcher(uint8_t depth, korEx* ex, korTimer* timer)
{
    KOR_EX_PRIVATE(local, ex, depth);
    if (_korThread_IsCurrentThread(timer->thread)) {
        _korThread_Detach(KOR_AT(&local, depth), timer->thread);
    } else {
        _korThread_Join(KOR_AT(&local, depth), timer->thread);
    }
}

void _timerStop(uint8_t depth, korEx* ex, korTimer* timer, TimerState mode)
{
    if (timer == nullptr) {
        return;
    }
    korMutex_enter(timer->mutex);
    if (timer->isGlobal) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korTimer_Stop on a global timer");
    } else if (timer->state == running) {
        _korTimer_Retain(KOR_AT(ex, depth), timer);
        timer->state = mode;
        if (timer->waiting) {
            _korCondition_SignalDebug(KOR_AT_D(depth, ex), timer->condition);
        }
        korMutex_leave(timer->mutex);
        endDispatcher(KOR_AT_D(depth, ex), timer);
        korMutex_enter(timer->mutex);
        timer->state = stopped;
        korMutex_leave(timer->mutex);
        _korTimer_Release(KOR_AT_D(depth, ex), timer);
        return;
    }
    korMutex_leave(timer->mutex);
}

void _timerDestroy(uint8_t depth, korEx* ex, korTimer* timer)
{
    timer->state = destroyed;
    _korI64Hash_Destroy(KOR_AT_D(depth, ex), timer->tasks);
    _korThread_Destroy(KOR_AT_D(depth, ex), timer->thread);
    _korCondition_Destroy(KOR_AT_D(depth, ex), timer->condition);
    _korCondition_Destroy(KOR_AT_D(depth, ex), timer->startCondition);
    _korMutex_Destroy(KOR_AT_D(depth, ex), timer->mutex);
    _korExecutor_Release(KOR_AT_D(depth, ex), timer->executor);
    _kor_free(KOR_AT_D(depth, ex), timer->name);
    _korRadixHeap_Clear(KOR_AT_D(depth, ex), &timer->heap);
    _kor_free(KOR_AT_D(depth, ex), timer);
}

void fillTimer(korEx* ex, uint8_t depth, korTimer* timer, korExecutor* executor, const char* name)
{
    constexpr int32_t firstSlots = 4;
    timer->refCount = 1;
    timer->state = created;
    timer->executor = executor;
    _korExecutor_Retain(KOR_AT_D(depth, ex), executor);
    timer->mutex = _korMutex_Create(KOR_AT(ex, depth));
    timer->condition = _korCondition_Create(KOR_AT_D(depth, ex));
    timer->startCondition = _korCondition_Create(KOR_AT_D(depth, ex));
    timer->tasks = _korI64Hash_Create(KOR_AT(ex, depth), firstSlots);
    _korRadixHeap_Init(KOR_AT(ex, depth), &timer->heap, now());
    reserveBuckets(KOR_AT(ex, depth), &timer->heap);
    timer->name = requestCopy(KOR_AT(ex, depth), name);
}

// ---- The configuration ----------------------------------------------------------------------------------------------

void readConfiguration()
{
    constexpr char key[] = "warnOnOverrunDur=";
    const char* text = _kor_getenv("KOR_EXEC_CONF");
    if (text == nullptr) {
        return;
    }
    if (strstr(text, "help") != nullptr) {
        printf("KOR_EXEC_CONF:[warnOnOverrunDur=<ms>]\n"
               "warnOnOverrunDur: Grace period for timer overruns. If the execution time of the timer callback exceeds "
               "the timer interval by more than the grace period, or, the timer callback is late by more than the "
               "grace period, print a warning.\n");
    }
    std::atomic_ref grace(warnOnOverrunDur);
    if (const char* found = strstr(text, key)) {
        grace.store(strtoll(found + strlen(key), nullptr, 10), std::memory_order_relaxed);
    }
    printf("Found settings for timer overruns: warnOnOverrunDur=%" PRId64 "\n", grace.load(std::memory_order_relaxed));
}

void setGlobal(korTimer* timer, bool global)
{
    MutexGuard guard(timer->mutex);
    timer->isGlobal = global;
}

void endGlobal(uint8_t depth, korEx* ex, korTimer* timer)
{
    setGlobal(timer, false);
    _timerStop(KOR_AT_D(depth, ex), timer, stopped);
    _korTimer_Release(KOR_AT_D(depth, ex), timer);
}

} // namespace
} // namespace kor

using namespace kor;

// ---- The global timer -----------------------------------------------------------------------------------------------

void _korTimer_Open(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return;
    }
    globalTimer.prepare(KOR_AT_D(depth, ex), clearsSlot);
    if (ex->code != 0) {
        return;
    }
    globalTimer.open();
    globalTimersExecutor = _korExecutor_GetGlobal(KOR_AT_D(depth, ex));
    korTimer* timer = _korTimer_Create(KOR_AT(ex, depth), globalTimersExecutor, "globalTimer");
    _korTimer_Start(KOR_AT(ex, depth), timer);
    if (ex->code != 0) {
        _korTimer_Release(KOR_AT_D(depth, ex), timer);
        return;
    }
    setGlobal(timer, true);
    std::atomic_ref(globalDispatcher).store(timer->thread->threadId);
    globalTimer.fill(timer);
    readConfiguration();
}

void _korTimer_Close(uint8_t depth, korEx* ex)
{
    globalTimer.close(KOR_AT_D(depth, ex), endGlobal);
    std::atomic_ref(globalDispatcher).store(0);
    _korExecutor_Release(KOR_AT_D(depth, ex), globalTimersExecutor);
    globalTimersExecutor = nullptr;
}

// What ends the closures of the last tasks runs on the dispatcher. The closing waits for that with the slot's lock
// held, so it must not wait for the lock.
korTimer* _korTimer_GetGlobal(uint8_t depth, korEx* ex)
{
    bool isDispatcher = std::atomic_ref(globalDispatcher).load() == _korThread_CurrentSystemThreadID();
    korTimer* timer = isDispatcher ? nullptr : globalTimer.get();
    if (timer == nullptr && globalTimer.isOpen()) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, nullptr);
    }
    return timer;
}

// ---- Making, starting, stopping -------------------------------------------------------------------------------------

korTimer* _korTimer_Create(korEx* ex, uint8_t depth, korExecutor* executor, const char* name)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (executor == nullptr || name == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    KOR_EX_PRIVATE(local, ex, depth);
    auto* timer = static_cast<korTimer*>(_kor_calloc(KOR_AT(&local, depth), 1, sizeof(korTimer)));
    if (timer != nullptr) {
        fillTimer(KOR_AT(&local, depth), timer, executor, name);
        if (local.code == 0) {
            return timer;
        }
        _timerDestroy(KOR_AT_D(depth, &local), timer);
    }
    KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, "No memory creating the timer");
    return nullptr;
}

void _korTimer_Start(korEx* ex, uint8_t depth, korTimer* timer)
{
    if (ex->code != 0) {
        return;
    }
    if (timer == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    MutexGuard guard(timer->mutex);
    if (timer->isGlobal) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Illegal to call _korTimer_Start on a global timer");
    } else if (timer->state != created || timer->thread != nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Timer not in the right state");
    } else {
        startDispatcher(KOR_AT(ex, depth), timer);
    }
}

void _korTimer_Stop(uint8_t depth, korEx* ex, korTimer* timer)
{
    _timerStop(KOR_AT_D(depth, ex), timer, stopping);
}

void _korTimer_StopNoWait(uint8_t depth, korEx* ex, korTimer* timer)
{
    _timerStop(KOR_AT_D(depth, ex), timer, stopped);
}

void _korTimer_Retain(korEx*, uint8_t, korTimer* timer)
{
    if (timer != nullptr) {
        std::atomic_ref(timer->refCount).fetch_add(1);
    }
}

bool _korTimer_Release(uint8_t depth, korEx* ex, korTimer* timer)
{
    if (timer == nullptr || std::atomic_ref(timer->refCount).fetch_sub(1) != 1) {
        return false;
    }
    _timerDestroy(KOR_AT_D(depth, ex), timer);
    return true;
}

// ---- Tasks ----------------------------------------------------------------------------------------------------------

namespace kor {
namespace {

// Makes the task known and, with the dispatcher running, due. Gives its id, or 0.
uint64_t enterTask(korEx* ex, uint8_t depth, korTimer* timer, korTimerTask* task)
{
    MutexGuard guard(timer->mutex);
    if (!acceptsTasks(KOR_AT(ex, depth), timer)) {
        return 0;
    }
    task->id = timer->lastTaskId + 1;
    auto key = static_cast<int64_t>(task->id);
    _korI64Hash_Set(KOR_AT(ex, depth), timer->tasks, key, reinterpret_cast<uint64_t>(task));
    if (ex->code == 0 && timer->state == running) {
        _placeTask(KOR_AT(ex, depth), timer, task, task->delay != 0 ? task->delay : task->interval);
    }
    if (ex->code != 0) {
        _korI64Hash_Remove(KOR_AT_D(depth, ex), timer->tasks, key);
        return 0;
    }
    return ++timer->lastTaskId;
}

// The task of an id, with an error pending, too. NULL with code 10 or 9.
korTimerTask* findTask(uint8_t depth, korEx* ex, const korTimer* timer, uint64_t id)
{
    if (!acceptsTasks(KOR_AT(ex, depth), timer)) {
        return nullptr;
    }
    KOR_EX_PRIVATE(local, ex, depth);
    uint64_t value = _korI64Hash_Get(KOR_AT(&local, depth), timer->tasks, static_cast<int64_t>(id));
    if (value == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, "Task not found");
    }
    return reinterpret_cast<korTimerTask*>(value);
}

// Under the mutex: takes the task out of heap and table. False if it runs, and will see the flag in its recycling.
bool takeOut(uint8_t depth, korEx* ex, korTimer* timer, korTimerTask* task)
{
    if (task->cancelled) {
        return false;
    }
    task->cancelled = 1;
    if (task->placed) {
        unlink(&timer->heap, &task->radixItem);
    } else if (timer->state != created) {
        return false;
    }
    task->placed = 1; // for the recycling, which may find the timer started meanwhile
    _korI64Hash_Remove(KOR_AT_D(depth, ex), timer->tasks, static_cast<int64_t>(task->id));
    return true;
}

// What a schedule leaves behind that failed. A closure that was refused is still the caller's; one for which there was
// no memory is not.
void abandonTask(uint8_t depth, korEx* ex, korTimerTask* task, korTimerDestroyCallback destroyCallback, void* closure)
{
    if (ex->code == KOR_ERROR_NO_MEMORY && destroyCallback != nullptr) {
        endClosure(KOR_AT_D(depth, ex), destroyCallback, closure);
    }
    if (task != nullptr) {
        task->destroyCallback = nullptr;
        _korTimerTask_Destroy(KOR_AT_D(depth, ex), task);
    }
}

void adjust(uint8_t depth, korEx* ex, korTimer* timer, korTimerTask* task, int64_t interval)
{
    std::atomic_ref(task->interval).store(interval, std::memory_order_relaxed);
    if (task->placed) {
        KOR_EX_CHAINED(local, ex, depth);
        unlink(&timer->heap, &task->radixItem);
        _placeTask(KOR_AT(&local, depth), timer, task, interval);
    }
}

} // namespace
} // namespace kor

uint64_t _korTimer_ScheduleTask(korEx* ex, uint8_t depth, korTimer* timer, korTimerCallback callback,
                                korTimerDestroyCallback destroyCallback, void* closure, int64_t delay, int64_t interval)
{
    if (ex->code != 0) {
        return 0;
    }
    if (timer == nullptr || callback == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return 0;
    }
    if (delay < 0 || interval < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Negative values are not allowed");
        return 0;
    }
    uint64_t id = 0;
    korTimerTask* task = _korTimerTask_Create(KOR_AT(ex, depth), timer, delay, interval);
    if (task != nullptr) {
        task->callback = callback;
        task->destroyCallback = destroyCallback;
        task->closure = closure;
        id = enterTask(KOR_AT(ex, depth), timer, task);
    }
    if (id == 0) {
        abandonTask(KOR_AT_D(depth, ex), task, destroyCallback, closure);
    }
    return id;
}

bool _korTimer_CancelTask(uint8_t depth, korEx* ex, korTimer* timer, uint64_t id)
{
    if (timer == nullptr || id == 0) {
        return true;
    }
    korMutex_enter(timer->mutex);
    korTimerTask* task = findTask(KOR_AT_D(depth, ex), timer, id);
    bool isOut = task == nullptr || takeOut(KOR_AT_D(depth, ex), timer, task);
    korMutex_leave(timer->mutex);
    if (task != nullptr && isOut) {
        _korTimerTask_Release(KOR_AT_D(depth, ex), task);
    }
    return isOut;
}

void _korTimer_AdjustTask(uint8_t depth, korEx* ex, korTimer* timer, uint64_t id, int64_t interval)
{
    if (timer == nullptr || id == 0) {
        return;
    }
    if (interval < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Negative values are not allowed");
        return;
    }
    MutexGuard guard(timer->mutex);
    korTimerTask* task = findTask(KOR_AT_D(depth, ex), timer, id);
    if (task == nullptr) {
        return;
    }
    if (task->cancelled) {
        KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "Task has already been canceled");
        return;
    }
    adjust(KOR_AT_D(depth, ex), timer, task, interval);
}
