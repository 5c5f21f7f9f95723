// hrtimer_bench.cpp - how late a wait ends: korHrTimer beside what the system has, for waits given in microseconds. The
// time of a row is that of the whole wait; beside it the lateness, in seconds, of the median wait and at 95 and 99
// percent, and as `early` the share of waits which ended before their time (ours may, by up to 20 microseconds).
//
// Ours spins through the last millisecond, so what it gains in accuracy is paid for in processor time. With --histogram
// on the command line the distributions are printed on standard error too, in buckets of 5 microseconds.

#include "korutil/korHrTimer.h"
#include "korutil/korPerf.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/timerfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int waits = 400;

korEx* const sharedEx = korEx_Create();
const double scale = _korPerf_TimerScale();
bool histograms = false;

// Each waits `microseconds` and gives the tick at which it found the wait over.

// A thread lends itself; its callback notes the time and wakes the thread that armed.
class Ours
{
public:
    Ours() : timer_(_korHrTimer_Create(KOR_AT(sharedEx, 0))), thread_([this] { lend(); }) {}
    ~Ours()
    {
        _korHrTimer_Shutdown(KOR_AT_D(0, sharedEx), timer_);
        thread_.join();
        _korHrTimer_Destroy(KOR_AT_D(0, sharedEx), timer_);
    }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;

    int64_t wait(int64_t microseconds)
    {
        fired_ = 0;
        _korHrTimer_Arm(KOR_AT(sharedEx, 0), timer_, static_cast<double>(microseconds) * 1e-6, fire, this, nullptr);
        std::unique_lock hold(mutex_);
        condition_.wait(hold, [this] { return fired_ != 0; });
        return fired_;
    }

private:
    static void fire(korEx*, uint8_t, uint64_t, void* argument, void*)
    {
        auto* self = static_cast<Ours*>(argument);
        int64_t now = _korPerf_TimerNow();
        std::lock_guard hold(self->mutex_);
        self->fired_ = now;
        self->condition_.notify_one();
    }

    void lend()
    {
        korEx* ex = korEx_Create();
        korMutex_enter(timer_->mutex);
        _korHrTimer_ProcessTimers(KOR_AT(ex, 0), timer_);
        korMutex_leave(timer_->mutex);
        korEx_Destroy(ex);
    }

    korHrTimer* timer_;
    std::mutex mutex_;
    std::condition_variable condition_;
    int64_t fired_ = 0;
    std::thread thread_;
};

class NanoSleep
{
public:
    int64_t wait(int64_t microseconds)
    {
        timespec rest = {.tv_sec = 0, .tv_nsec = microseconds * 1000};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, nullptr);
        return _korPerf_TimerNow();
    }
};

class TimerFd
{
public:
    TimerFd() : descriptor_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC)) {}
    ~TimerFd() { close(descriptor_); }
    TimerFd(const TimerFd&) = delete;
    TimerFd& operator=(const TimerFd&) = delete;

    int64_t wait(int64_t microseconds)
    {
        itimerspec rest = {.it_interval = {}, .it_value = {.tv_sec = 0, .tv_nsec = microseconds * 1000}};
        timerfd_settime(descriptor_, 0, &rest, nullptr);
        uint64_t expirations = 0;
        bool done = read(descriptor_, &expirations, sizeof(expirations)) == sizeof(expirations);
        return done ? _korPerf_TimerNow() : 0;
    }

private:
    int descriptor_;
};

class Condition
{
public:
    int64_t wait(int64_t microseconds)
    {
        std::unique_lock hold(mutex_);
        condition_.wait_for(hold, std::chrono::microseconds(microseconds), [] { return false; });
        return _korPerf_TimerNow();
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
};

void printHistogram(const std::string& title, const std::vector<int64_t>& lateness)
{
    korPerfHist* hist = _korPerf_CreateHist(KOR_AT(sharedEx, 0), 5e-6, scale);
    for (int64_t ticks : lateness) {
        _korPerf_HistUpdate(KOR_AT(sharedEx, 0), hist, std::max<int64_t>(ticks, 0));
    }
    fprintf(stderr, "\n%s\n", title.c_str());
    _korPerf_PrintHist(KOR_AT(sharedEx, 0), hist, stderr, false, true);
    _korPerf_DestroyHist(KOR_AT_D(0, sharedEx), hist);
}

template <class Waiter>
void lateness(benchmark::State& state, const char* who)
{
    Waiter waiter;
    std::vector<int64_t> late;
    for (auto step : state) {
        int64_t start = _korPerf_TimerNow();
        int64_t ticks = waiter.wait(state.range(0)) - start;
        late.push_back(ticks - static_cast<int64_t>(static_cast<double>(state.range(0)) * 1e-6 / scale));
        state.SetIterationTime(static_cast<double>(ticks) * scale);
    }
    std::sort(late.begin(), late.end());
    auto percentile = [&](size_t percent) {
        return static_cast<double>(late[(late.size() - 1) * percent / 100]) * scale;
    };
    auto early = std::count_if(late.begin(), late.end(), [](int64_t ticks) { return ticks < 0; });
    state.counters["p50"] = percentile(50);
    state.counters["p95"] = percentile(95);
    state.counters["p99"] = percentile(99);
    state.counters["early"] = static_cast<double>(early) / static_cast<double>(late.size());
    if (histograms) {
        printHistogram(std::string(who) + ", " + std::to_string(state.range(0)) + " us: lateness", late);
    }
}

template <class Waiter>
void add(const char* who)
{
    std::string name = std::string("BM_HrTimer_wait/") + who;
    auto run = [who](benchmark::State& state) { lateness<Waiter>(state, who); };
    benchmark::RegisterBenchmark(name.c_str(), run)
        ->Arg(50)
        ->Arg(500)
        ->Arg(2000)
        ->Iterations(waits)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

} // namespace

int main(int argc, char** argv)
{
    char** end = std::remove_if(argv + 1, argv + argc, [](const char* word) {
        bool mine = std::strcmp(word, "--histogram") == 0;
        histograms |= mine;
        return mine;
    });
    argc = static_cast<int>(end - argv);
    add<Ours>("korHrTimer");
    add<NanoSleep>("clock_nanosleep");
    add<TimerFd>("timerfd");
    add<Condition>("std_condition_variable");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
