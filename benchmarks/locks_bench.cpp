// locks_bench.cpp - mutexes, fast locks and conditions beside their peers.
//
// A second thread lives while locks are measured, so that no C library takes a short cut for a program of one thread.
// The first name of each family is ours. A pair is one acquire and one release; a round trip is two hand-overs.

#include "korutil/korCondition.h"
#include "korutil/korFastCondition.h"

#include "secondThread.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <thread>

#ifdef KOR_HAVE_ABSL
#include <absl/synchronization/mutex.h>
#endif

namespace {

const SecondThread secondThread;

korEx gEx;

// ---- The contenders -------------------------------------------------------------------------------------------------

struct KorMutex {
    KorMutex() { _korMutex_Init(&gEx, 0, &mutex); }
    void lock() { korMutex_enter(&mutex); }
    void unlock() { korMutex_leave(&mutex); }
    korMutex mutex;
};

struct PthreadRecursive {
    PthreadRecursive()
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attributes);
    }
    void lock() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
    pthread_mutex_t mutex;
};

struct KorFastLock {
    KorFastLock() { _korFastLock_Init(0, &gEx, &fast, 0); }
    void lock() { korFastLock_acquire(&fast); }
    void unlock() { korFastLock_release(&fast); }
    korFastLock fast;
};

struct PthreadSpin {
    PthreadSpin() { pthread_spin_init(&spin, PTHREAD_PROCESS_PRIVATE); }
    void lock() { pthread_spin_lock(&spin); }
    void unlock() { pthread_spin_unlock(&spin); }
    pthread_spinlock_t spin;
};

/// Nothing but the two locked instructions: no lock could cost less and be as strong.
struct TwoLockedInstructions {
    void lock()
    {
        uint64_t expected = 0;
        benchmark::DoNotOptimize(KOR_ATOMIC_CAS(&word, &expected, 1));
    }
    void unlock() { benchmark::DoNotOptimize(KOR_ATOMIC_ADD(&word, static_cast<uint64_t>(-1))); }
    alignas(64) uint64_t word = 0;
};

#ifdef KOR_HAVE_ABSL
struct AbslMutex {
    void lock() { mutex.Lock(); }
    void unlock() { mutex.Unlock(); }
    absl::Mutex mutex;
};
#endif

// ---- The measurements -----------------------------------------------------------------------------------------------

template <class Lock>
void uncontended(benchmark::State& state)
{
    Lock lock;
    for (auto _ : state) {
        lock.lock();
        benchmark::ClobberMemory();
        lock.unlock();
    }
}

/// Two threads at one lock. `work` is what a thread does outside of it, in dependent additions.
template <class Lock, int work>
void twoThreads(benchmark::State& state)
{
    static Lock lock;
    static int64_t counter;
    int64_t local = 0;
    for (auto _ : state) {
        lock.lock();
        benchmark::DoNotOptimize(counter++);
        lock.unlock();
        for (int i = 0; i < work; i++) {
            benchmark::DoNotOptimize(local++);
        }
    }
}

/// A mutex and a condition, one face.
struct KorPair {
    KorPair() { _korCondition_Init(0, &gEx, &condition); }
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void wait(korEx* ex) { _korCondition_Wait(0, ex, &condition, &mutex.mutex); }
    void signal(korEx* ex) { _korCondition_SignalDebug(0, ex, &condition); }
    KorMutex mutex;
    korCondition condition;
};

struct KorFastPair {
    KorFastPair() { _korFastCondition_Init(0, &gEx, &condition); }
    void lock() { fast.lock(); }
    void unlock() { fast.unlock(); }
    void wait(korEx* ex) { _korFastCondition_Wait(0, ex, &condition, &fast.fast); }
    void signal(korEx* ex) { _korFastCondition_Signal(0, ex, &condition); }
    KorFastLock fast;
    korFastCondition condition;
};

struct StdPair {
    void lock() { mutex.lock(); }
    void unlock() { mutex.unlock(); }
    void wait(korEx*)
    {
        std::unique_lock held(mutex, std::adopt_lock);
        condition.wait(held);
        held.release();
    }
    void signal(korEx*) { condition.notify_one(); }
    std::mutex mutex;
    std::condition_variable condition;
};

/// Waits for this side's turn and ends it. A negative turn ends the game; false then.
template <class Pair>
bool takeTurn(Pair& pair, korEx* ex, int& turn, int mine, int next)
{
    pair.lock();
    while (turn == 1 - mine) {
        pair.wait(ex);
    }
    bool goesOn = turn == mine;
    turn = goesOn ? next : turn;
    pair.unlock();
    pair.signal(ex);
    return goesOn;
}

template <class Pair>
void pingPong(benchmark::State& state)
{
    Pair pair;
    int turn = 0;
    std::thread partner([&] {
        korEx ex = {};
        while (takeTurn(pair, &ex, turn, 1, 0)) {
        }
    });
    for (auto _ : state) {
        takeTurn(pair, &gEx, turn, 0, 1);
    }
    takeTurn(pair, &gEx, turn, 0, -1);
    partner.join();
}

} // namespace

#define KOR_ONE(family, name, function) BENCHMARK(function)->Name("BM_" family "/" name)
#define KOR_TWO(family, name, function) KOR_ONE(family, name, function)->Threads(2)->UseRealTime()

KOR_ONE("Mutex_uncontended", "korMutex", uncontended<KorMutex>);
KOR_ONE("Mutex_uncontended", "pthread_recursive", uncontended<PthreadRecursive>);
KOR_TWO("Mutex_twoThreads", "korMutex", (twoThreads<KorMutex, 0>));
KOR_TWO("Mutex_twoThreads", "pthread_recursive", (twoThreads<PthreadRecursive, 0>));
KOR_TWO("Mutex_twoThreadsWithWork", "korMutex", (twoThreads<KorMutex, 100>));
KOR_TWO("Mutex_twoThreadsWithWork", "pthread_recursive", (twoThreads<PthreadRecursive, 100>));

KOR_ONE("FastLock_uncontended", "korFastLock", uncontended<KorFastLock>);
KOR_ONE("FastLock_uncontended", "two_locked_instructions", uncontended<TwoLockedInstructions>);
KOR_ONE("FastLock_uncontended", "std_mutex", uncontended<std::mutex>);
KOR_ONE("FastLock_uncontended", "pthread_spinlock", uncontended<PthreadSpin>);
#ifdef KOR_HAVE_ABSL
KOR_ONE("FastLock_uncontended", "absl_Mutex", uncontended<AbslMutex>);
#endif
KOR_TWO("FastLock_twoThreads", "korFastLock", (twoThreads<KorFastLock, 0>));
KOR_TWO("FastLock_twoThreads", "std_mutex", (twoThreads<std::mutex, 0>));
KOR_TWO("FastLock_twoThreads", "pthread_spinlock", (twoThreads<PthreadSpin, 0>));
#ifdef KOR_HAVE_ABSL
KOR_TWO("FastLock_twoThreads", "absl_Mutex", (twoThreads<AbslMutex, 0>));
#endif
KOR_TWO("FastLock_twoThreadsWithWork", "korFastLock", (twoThreads<KorFastLock, 100>));
KOR_TWO("FastLock_twoThreadsWithWork", "std_mutex", (twoThreads<std::mutex, 100>));
KOR_TWO("FastLock_twoThreadsWithWork", "pthread_spinlock", (twoThreads<PthreadSpin, 100>));
#ifdef KOR_HAVE_ABSL
KOR_TWO("FastLock_twoThreadsWithWork", "absl_Mutex", (twoThreads<AbslMutex, 100>));
#endif

KOR_ONE("Condition_roundTrip", "korCondition", pingPong<KorPair>)->UseRealTime();
KOR_ONE("Condition_roundTrip", "std_condition_variable", pingPong<StdPair>)->UseRealTime();
KOR_ONE("FastCondition_roundTrip", "korFastCondition", pingPong<KorFastPair>)->UseRealTime();
KOR_ONE("FastCondition_roundTrip", "std_condition_variable", pingPong<StdPair>)->UseRealTime();

BENCHMARK_MAIN();
