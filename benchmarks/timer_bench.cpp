// timer_bench.cpp - a million tasks: setting them, taking them back in random order, and the time from the moment when
// all are due until the last callback has run.
//
// A korTimer is shared by threads, finds tasks by id and runs callbacks on an executor, here one of one thread; the
// peers are loops of one thread without locks, which run callbacks themselves, on records of the caller's. The priority
// queue is the least that a program could do by hand; it cannot take anything back.

#include "secondThread.h"

#include "korutil/korExecutor.h"
#include "korutil/korTimer.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <vector>

#ifdef KOR_HAVE_LIBUV
#include <uv.h>
#endif
#ifdef KOR_HAVE_LIBEVENT
#include <event2/event.h>
#include <event2/event_struct.h>
#endif

namespace {

korEx* sharedEx = korEx_Create();
std::atomic<int64_t> ran;

class Ours
{
public:
    explicit Ours(size_t count, bool started) : ids_(count)
    {
        executor_ = _korExecutor_Create(KOR_AT(ex_, 0));
        _korExecutor_SetPoolSize(KOR_AT(ex_, 0), executor_, 1);
        _korExecutor_SetSpinCount(KOR_AT(ex_, 0), executor_, 1000);
        _korExecutor_Start(KOR_AT(ex_, 0), executor_);
        timer_ = _korTimer_Create(KOR_AT(ex_, 0), executor_, "bench");
        if (started) {
            _korTimer_Start(KOR_AT(ex_, 0), timer_);
        }
    }
    ~Ours()
    {
        _korTimer_Stop(KOR_AT_D(0, ex_), timer_);
        _korTimer_Release(KOR_AT_D(0, ex_), timer_);
        _korExecutor_Stop(KOR_AT_D(0, ex_), executor_);
        _korExecutor_Release(KOR_AT_D(0, ex_), executor_);
    }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    static void callback(korEx*, uint8_t, korTimer*, uint64_t, void*) { ran.fetch_add(1, std::memory_order_relaxed); }
    void schedule(size_t i, int64_t delay)
    {
        ids_[i] = _korTimer_ScheduleTask(KOR_AT(ex_, 0), timer_, callback, nullptr, nullptr, delay, 0);
    }
    void cancel(size_t i) { _korTimer_CancelTask(KOR_AT_D(0, ex_), timer_, ids_[i]); }
    void becomeDue() {} // one-shots of the time before the start are due with it
    void expire(int64_t count)
    {
        _korTimer_Start(KOR_AT(ex_, 0), timer_);
        while (ran.load(std::memory_order_relaxed) < count) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

private:
    korEx* ex_ = sharedEx;
    korExecutor* executor_;
    korTimer* timer_;
    std::vector<uint64_t> ids_;
};

#ifdef KOR_HAVE_LIBUV
class Libuv
{
public:
    explicit Libuv(size_t count, bool) : handles_(count)
    {
        uv_loop_init(&loop_);
        for (uv_timer_t& handle : handles_) {
            uv_timer_init(&loop_, &handle);
        }
    }
    ~Libuv()
    {
        for (uv_timer_t& handle : handles_) {
            uv_close(reinterpret_cast<uv_handle_t*>(&handle), nullptr);
        }
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    Libuv(const Libuv&) = delete;
    Libuv& operator=(const Libuv&) = delete;
    static void callback(uv_timer_t*) { ran.fetch_add(1, std::memory_order_relaxed); }
    void schedule(size_t i, int64_t delay) { uv_timer_start(&handles_[i], callback, static_cast<uint64_t>(delay), 0); }
    void cancel(size_t i) { uv_timer_stop(&handles_[i]); }
    void becomeDue() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }
    void expire(int64_t) { uv_run(&loop_, UV_RUN_DEFAULT); }

private:
    uv_loop_t loop_;
    std::vector<uv_timer_t> handles_;
};
#endif

#ifdef KOR_HAVE_LIBEVENT
class Libevent
{
public:
    explicit Libevent(size_t count, bool) : base_(event_base_new()), events_(count)
    {
        for (event& one : events_) {
            evtimer_assign(&one, base_, callback, nullptr);
        }
    }
    ~Libevent()
    {
        for (event& one : events_) {
            event_del(&one);
        }
        event_base_free(base_);
    }
    Libevent(const Libevent&) = delete;
    Libevent& operator=(const Libevent&) = delete;
    static void callback(evutil_socket_t, short, void*) { ran.fetch_add(1, std::memory_order_relaxed); }
    void schedule(size_t i, int64_t delay)
    {
        timeval wait = {.tv_sec = delay / 1000, .tv_usec = delay % 1000 * 1000};
        evtimer_add(&events_[i], &wait);
    }
    void cancel(size_t i) { evtimer_del(&events_[i]); }
    void becomeDue() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }
    void expire(int64_t) { event_base_dispatch(base_); }

private:
    event_base* base_;
    std::vector<event> events_;
};
#endif

class Queue
{
public:
    explicit Queue(size_t, bool) {}
    static int64_t now()
    {
        auto time = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
    }
    static void callback() { ran.fetch_add(1, std::memory_order_relaxed); }
    void schedule(size_t, int64_t delay) { queue_.emplace(now() + delay, callback); }
    void becomeDue() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }
    void expire(int64_t)
    {
        for (int64_t time = now(); !queue_.empty() && queue_.top().first <= time;) {
            void (*run)() = queue_.top().second;
            queue_.pop();
            run();
        }
    }

private:
    using Entry = std::pair<int64_t, void (*)()>;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> queue_;
};

std::vector<size_t> shuffled(size_t count)
{
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; i++) {
        order[i] = i;
    }
    std::shuffle(order.begin(), order.end(), std::mt19937_64(1));
    return order;
}

int64_t someHours(size_t i)
{
    return 3'600'000 + static_cast<int64_t>(i * 0x9E3779B97F4A7C15 >> 40);
}

template <class Timer>
std::unique_ptr<Timer> filled(size_t count)
{
    auto timer = std::make_unique<Timer>(count, true);
    for (size_t i = 0; i < count; i++) {
        timer->schedule(i, someHours(i));
    }
    return timer;
}

template <class Timer>
void schedule(benchmark::State& state)
{
    auto count = static_cast<size_t>(state.range(0));
    for (auto round : state) {
        state.PauseTiming();
        auto timer = std::make_unique<Timer>(count, true);
        state.ResumeTiming();
        for (size_t i = 0; i < count; i++) {
            timer->schedule(i, someHours(i));
        }
        state.PauseTiming();
        timer.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Timer>
void cancel(benchmark::State& state)
{
    auto count = static_cast<size_t>(state.range(0));
    std::vector<size_t> order = shuffled(count);
    for (auto round : state) {
        state.PauseTiming();
        auto timer = filled<Timer>(count);
        state.ResumeTiming();
        for (size_t i : order) {
            timer->cancel(i);
        }
        state.PauseTiming();
        timer.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Timer>
void expire(benchmark::State& state)
{
    auto count = static_cast<size_t>(state.range(0));
    for (auto round : state) {
        state.PauseTiming();
        auto timer = std::make_unique<Timer>(count, false);
        for (size_t i = 0; i < count; i++) {
            timer->schedule(i, 1 + static_cast<int64_t>(i % 16));
        }
        timer->becomeDue();
        ran = 0;
        state.ResumeTiming();
        timer->expire(state.range(0));
        state.PauseTiming();
        if (ran != state.range(0)) {
            state.SkipWithError("not every callback has run");
        }
        timer.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void add(const std::string& what, const std::string& who, void (*run)(benchmark::State&))
{
    benchmark::RegisterBenchmark(("BM_Timer_" + what + "/" + who).c_str(), run)
        ->Arg(1000000)
        ->Iterations(5)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

template <class Timer>
void addTimer(const std::string& who)
{
    add("schedule", who, schedule<Timer>);
    add("expire", who, expire<Timer>);
    if constexpr (!std::is_same_v<Timer, Queue>) {
        add("cancel", who, cancel<Timer>);
    }
}

} // namespace

int main(int argc, char** argv)
{
    SecondThread second;
    addTimer<Ours>("korTimer");
#ifdef KOR_HAVE_LIBUV
    addTimer<Libuv>("libuv");
#endif
#ifdef KOR_HAVE_LIBEVENT
    addTimer<Libevent>("libevent");
#endif
    addTimer<Queue>("std_priority_queue");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
