// threadlocal_bench.cpp - reading and setting a thread-local value beside the compiler's and the C library's; passing a
// once-control that is done; starting and joining a thread.

#include "korutil/korThread.h"
#include "korutil/korThreadLocal.h"

#include <benchmark/benchmark.h>

#include <mutex>
#include <pthread.h>
#include <thread>

namespace {

// Volatile: each read of a program stands between others, so that a compiler cannot keep what it has read.
// read.
thread_local volatile uint64_t compilersValue = 1;

void readStore(benchmark::State& state)
{
    korEx* ex = korEx_Create();
    int32_t key = _korThreadLocal_Create(ex, 0, nullptr);
    _korThreadLocal_Set(ex, 0, key, 1);
    for (auto step : state) {
        benchmark::DoNotOptimize(_korThreadLocal_Get(key));
        benchmark::ClobberMemory();
    }
    _korThreadLocal_Destroy(0, ex, key);
    korEx_Destroy(ex);
}
BENCHMARK(readStore)->Name("BM_ThreadLocal_read/korThreadLocal");

void readCompilers(benchmark::State& state)
{
    for (auto step : state) {
        benchmark::DoNotOptimize(compilersValue);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(readCompilers)->Name("BM_ThreadLocal_read/thread_local");

void readPosix(benchmark::State& state)
{
    pthread_key_t key;
    pthread_key_create(&key, nullptr);
    pthread_setspecific(key, &key);
    for (auto step : state) {
        benchmark::DoNotOptimize(pthread_getspecific(key));
        benchmark::ClobberMemory();
    }
    pthread_key_delete(key);
}
BENCHMARK(readPosix)->Name("BM_ThreadLocal_read/pthread_getspecific");

void ignore(uint64_t) {}

void setStore(benchmark::State& state, korThreadLocalDestructor destructor)
{
    korEx* ex = korEx_Create();
    int32_t key = _korThreadLocal_Create(ex, 0, destructor);
    uint64_t value = 1;
    for (auto step : state) {
        _korThreadLocal_Set(ex, 0, key, value++);
    }
    _korThreadLocal_Destroy(0, ex, key);
    korEx_Destroy(ex);
}

void setPosix(benchmark::State& state)
{
    pthread_key_t key;
    pthread_key_create(&key, nullptr);
    for (auto step : state) {
        pthread_setspecific(key, &key);
    }
    pthread_key_delete(key);
}

BENCHMARK_CAPTURE(setStore, plain, nullptr)->Name("BM_ThreadLocal_set/korThreadLocal");
BENCHMARK_CAPTURE(setStore, destroyed, ignore)->Name("BM_ThreadLocal_set/korThreadLocal_destructor");
BENCHMARK(setPosix)->Name("BM_ThreadLocal_set/pthread_setspecific");

void passOnce(benchmark::State& state)
{
    static korThreadOnce once;
    korEx* ex = korEx_Create();
    for (auto step : state) {
        _korThread_Once(ex, 0, &once, [] {});
    }
    korEx_Destroy(ex);
}
BENCHMARK(passOnce)->Name("BM_Thread_passOnce/korThread_Once");

void passStandardOnce(benchmark::State& state)
{
    static std::once_flag once;
    for (auto step : state) {
        std::call_once(once, [] {});
        benchmark::ClobberMemory();
    }
}
BENCHMARK(passStandardOnce)->Name("BM_Thread_passOnce/call_once");

void startAndJoin(benchmark::State& state)
{
    korEx* ex = korEx_Create();
    for (auto step : state) {
        korThread* thread = _korThread_Create(
            ex, 0, [](void*) -> uint64_t { return 0; }, nullptr, 0, "tBench");
        _korThread_Join(ex, 0, thread);
        _korThread_Destroy(0, ex, thread);
    }
    korEx_Destroy(ex);
}
BENCHMARK(startAndJoin)->Name("BM_Thread_startAndJoin/korThread")->UseRealTime();

void startAndJoinStandard(benchmark::State& state)
{
    for (auto step : state) {
        std::thread([] {}).join();
    }
}
BENCHMARK(startAndJoinStandard)->Name("BM_Thread_startAndJoin/thread")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
