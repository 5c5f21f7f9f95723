// rwlock_bench.cpp - the reader-writer lock beside std::shared_mutex: free, between two threads, and with a few writes
// among reads.

#include "korutil/korRWLock.h"

#include "secondThread.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

namespace {

const SecondThread secondThread;

struct KorLock {
    korEx* ex = korEx_Create();
    korRWLock* lock = _korRWLock_Create(0, ex);

    ~KorLock()
    {
        _korRWLock_Destroy(0, ex, lock);
        korEx_Destroy(ex);
    }
    void lock_shared() { _korRWLock_ReadLock(0, nullptr, lock); }
    void unlock_shared() { _korRWLock_UnlockReadLock(0, nullptr, lock); }
    void lock_alone() { _korRWLock_WriteLock(0, nullptr, lock); }
    void unlock_alone() { _korRWLock_UnlockWriteLock(0, nullptr, lock); }
};

struct StdLock {
    std::shared_mutex mutex;

    void lock_shared() { mutex.lock_shared(); }
    void unlock_shared() { mutex.unlock_shared(); }
    void lock_alone() { mutex.lock(); }
    void unlock_alone() { mutex.unlock(); }
};

// One lock for all the threads of a run, and what it guards.
template <class Lock>
struct Shared {
    static inline Lock lock;
    static inline uint64_t value = 0;
};

template <class Lock>
void readOnce()
{
    Shared<Lock>::lock.lock_shared();
    benchmark::DoNotOptimize(Shared<Lock>::value);
    Shared<Lock>::lock.unlock_shared();
}

template <class Lock>
void writeOnce()
{
    Shared<Lock>::lock.lock_alone();
    Shared<Lock>::value++;
    Shared<Lock>::lock.unlock_alone();
}

template <class Lock>
void reads(benchmark::State& state)
{
    for (auto step : state) {
        readOnce<Lock>();
    }
}

template <class Lock>
void writes(benchmark::State& state)
{
    for (auto step : state) {
        writeOnce<Lock>();
    }
}

template <class Lock>
void oneWriteInSixteen(benchmark::State& state)
{
    uint32_t round = 0;
    for (auto step : state) {
        if (++round % 16 == 0) {
            writeOnce<Lock>();
        } else {
            readOnce<Lock>();
        }
    }
}

BENCHMARK(reads<KorLock>)->Name("BM_RWLock_read/korRWLock");
BENCHMARK(reads<StdLock>)->Name("BM_RWLock_read/std_shared_mutex");
BENCHMARK(writes<KorLock>)->Name("BM_RWLock_write/korRWLock");
BENCHMARK(writes<StdLock>)->Name("BM_RWLock_write/std_shared_mutex");
BENCHMARK(reads<KorLock>)->Name("BM_RWLock_twoReaders/korRWLock")->Threads(2)->UseRealTime();
BENCHMARK(reads<StdLock>)->Name("BM_RWLock_twoReaders/std_shared_mutex")->Threads(2)->UseRealTime();
BENCHMARK(writes<KorLock>)->Name("BM_RWLock_twoWriters/korRWLock")->Threads(2)->UseRealTime();
BENCHMARK(writes<StdLock>)->Name("BM_RWLock_twoWriters/std_shared_mutex")->Threads(2)->UseRealTime();
BENCHMARK(oneWriteInSixteen<KorLock>)->Name("BM_RWLock_twoMixed/korRWLock")->Threads(2)->UseRealTime();
BENCHMARK(oneWriteInSixteen<StdLock>)->Name("BM_RWLock_twoMixed/std_shared_mutex")->Threads(2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
