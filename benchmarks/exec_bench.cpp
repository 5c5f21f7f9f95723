// exec_bench.cpp - jobs on executors: the round trip of one job, and a hundred thousand empty ones.
//
// A round trip is one job handed over and its end waited for, by a thread that sleeps meanwhile; peers get a semaphore,
// the least that a program could wait with. A burst is measured from the first hand-over to the end of the last job;
// the size is the number of runners. "own_storage" are jobs that lie in the caller's memory, as jobs mostly do; "heap"
// are allocated one by one, as the peers' are.

#include "korutil/korAlloc.h"
#include "korutil/korExecutor.h"

#include "secondThread.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <semaphore>
#include <vector>

#ifdef KOR_HAVE_TBB
#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#endif
#ifdef KOR_HAVE_BOOST_ASIO
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#endif

namespace {

constexpr int burstSize = 100000;

korEx gEx;

std::binary_semaphore ended(0);
std::atomic<int> left; // jobs of the burst

/// The end of one job of a burst; the last one lets the producer go on.
void countOne()
{
    if (left.fetch_sub(1) == 1) {
        ended.release();
    }
}

// ---- Ours -----------------------------------------------------------------------------------------------------------

constexpr int32_t sleeps = 0;
constexpr int32_t spins = 20000;

template <int32_t spinCount>
class KorExecutor
{
public:
    explicit KorExecutor(int runners) : executor_(_korExecutor_Create(KOR_AT(&gEx, 0)))
    {
        _korExecutor_SetPoolSize(KOR_AT(&gEx, 0), executor_, runners);
        _korExecutor_SetSpinCount(KOR_AT(&gEx, 0), executor_, spinCount);
        _korExecutor_Start(KOR_AT(&gEx, 0), executor_);
    }
    ~KorExecutor()
    {
        _korExecutor_Stop(KOR_AT_D(0, &gEx), executor_);
        _korExecutor_Release(KOR_AT_D(0, &gEx), executor_);
    }
    KorExecutor(const KorExecutor&) = delete;
    KorExecutor& operator=(const KorExecutor&) = delete;

    korExecutor* get() { return executor_; }

private:
    korExecutor* executor_;
};

void nothing(korEx*, uint8_t, korJob*) {}

void countJob(korEx*, uint8_t, korJob*)
{
    countOne();
}

void freeJob(korEx* ex, uint8_t depth, korJob* job)
{
    _kor_free(KOR_AT_D(depth, ex), job);
}

void fail(benchmark::State& state)
{
    if (gEx.code != 0) {
        state.SkipWithError(gEx.description != nullptr ? gEx.description : "failed");
        korEx_Clear(&gEx);
    }
}

template <int32_t spinCount>
void korRoundTrip(benchmark::State& state)
{
    KorExecutor<spinCount> executor(1);
    korJob job = {};
    uint8_t timedOut;
    _korJob_Init(KOR_AT(&gEx, 0), &job, 0, nothing, nothing);
    for (auto _ : state) {
        _korJob_Run(KOR_AT(&gEx, 0), executor.get(), &job);
        _korJob_Get(KOR_AT(&gEx, 0), &job, UINT64_MAX, &timedOut);
        _korJob_Reset(KOR_AT(&gEx, 0), &job);
    }
    _korJob_Release(KOR_AT_D(0, &gEx), &job);
    fail(state);
}

template <int32_t spinCount>
void korBurstOwnStorage(benchmark::State& state)
{
    KorExecutor<spinCount> executor(static_cast<int>(state.range(0)));
    std::vector<korJob> jobs(burstSize);
    for (auto _ : state) {
        left = burstSize;
        for (korJob& job : jobs) {
            _korJob_Init(KOR_AT(&gEx, 0), &job, 0, countJob, nothing);
            _korJob_RunAndForget(KOR_AT(&gEx, 0), executor.get(), &job);
        }
        ended.acquire();
        // The runner of a job holds it a little longer than its work lasts.
        for (korJob& job : jobs) {
            while (KOR_ATOMIC_LOAD(&job.refCount) != 0) {
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * burstSize);
    fail(state);
}

template <int32_t spinCount>
void korBurstHeap(benchmark::State& state)
{
    KorExecutor<spinCount> executor(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        left = burstSize;
        for (int i = 0; i < burstSize; i++) {
            auto* job = static_cast<korJob*>(_kor_malloc(KOR_AT(&gEx, 0), sizeof(korJob)));
            _korJob_Init(KOR_AT(&gEx, 0), job, 0, countJob, freeJob);
            _korJob_RunAndForget(KOR_AT(&gEx, 0), executor.get(), job);
        }
        ended.acquire();
    }
    state.SetItemsProcessed(state.iterations() * burstSize);
    fail(state);
}

// ---- Peers ----------------------------------------------------------------------------------------------------------

#ifdef KOR_HAVE_TBB
class Tbb
{
public:
    explicit Tbb(int runners)
        : threads_(tbb::global_control::max_allowed_parallelism, static_cast<size_t>(runners) + 1),
          arena_(runners + 1, 1)
    {}
    template <typename Work>
    void run(Work&& work)
    {
        arena_.enqueue(std::forward<Work>(work));
    }

private:
    tbb::global_control threads_;
    tbb::task_arena arena_;
};
#endif

#ifdef KOR_HAVE_BOOST_ASIO
class Asio
{
public:
    explicit Asio(int runners) : pool_(static_cast<size_t>(runners)) {}
    ~Asio() { pool_.join(); }
    template <typename Work>
    void run(Work&& work)
    {
        boost::asio::post(pool_, std::forward<Work>(work));
    }

private:
    boost::asio::thread_pool pool_;
};
#endif

template <class Peer>
void peerRoundTrip(benchmark::State& state)
{
    Peer peer(1);
    for (auto _ : state) {
        peer.run([] { ended.release(); });
        ended.acquire();
    }
}

template <class Peer>
void peerBurst(benchmark::State& state)
{
    Peer peer(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        left = burstSize;
        for (int i = 0; i < burstSize; i++) {
            peer.run(countOne);
        }
        ended.acquire();
    }
    state.SetItemsProcessed(state.iterations() * burstSize);
}

} // namespace

#define KOR_CASE(family, name, function) BENCHMARK(function)->Name("BM_" family "/" name)->UseRealTime()
#define KOR_BURST(family, name, function) \
    KOR_CASE(family, name, function)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)

KOR_CASE("Executor_roundTripSpinning", "korJob", korRoundTrip<spins>);
#ifdef KOR_HAVE_TBB
KOR_CASE("Executor_roundTripSpinning", "tbb_arena", peerRoundTrip<Tbb>);
#endif
#ifdef KOR_HAVE_BOOST_ASIO
KOR_CASE("Executor_roundTripSpinning", "asio_thread_pool", peerRoundTrip<Asio>);
#endif

KOR_CASE("Executor_roundTripSleeping", "korJob", korRoundTrip<sleeps>);
#ifdef KOR_HAVE_TBB
KOR_CASE("Executor_roundTripSleeping", "tbb_arena", peerRoundTrip<Tbb>);
#endif
#ifdef KOR_HAVE_BOOST_ASIO
KOR_CASE("Executor_roundTripSleeping", "asio_thread_pool", peerRoundTrip<Asio>);
#endif

KOR_BURST("Executor_burstSpinning", "own_storage", korBurstOwnStorage<spins>);
KOR_BURST("Executor_burstSpinning", "heap", korBurstHeap<spins>);
#ifdef KOR_HAVE_TBB
KOR_BURST("Executor_burstSpinning", "tbb_arena", peerBurst<Tbb>);
#endif
#ifdef KOR_HAVE_BOOST_ASIO
KOR_BURST("Executor_burstSpinning", "asio_thread_pool", peerBurst<Asio>);
#endif

KOR_BURST("Executor_burstSleeping", "own_storage", korBurstOwnStorage<sleeps>);
KOR_BURST("Executor_burstSleeping", "heap", korBurstHeap<sleeps>);
#ifdef KOR_HAVE_TBB
KOR_BURST("Executor_burstSleeping", "tbb_arena", peerBurst<Tbb>);
#endif
#ifdef KOR_HAVE_BOOST_ASIO
KOR_BURST("Executor_burstSleeping", "asio_thread_pool", peerBurst<Asio>);
#endif

BENCHMARK_MAIN();
