// objectmap_bench.cpp - reaching an object by its id beside the two ways of std::shared_ptr: the copy, which cannot go
// stale, and the lock of a weak pointer, which can, as an id can.

#include "korutil/korObjectMap.h"

#include "secondThread.h"

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace {

const SecondThread secondThread;

uint64_t objectOfAll;

uint64_t registered()
{
    korEx* ex = korEx_Create();
    uint64_t id = _korObjectMap_Register(ex, 0, &objectOfAll);
    korEx_Destroy(ex);
    return id;
}

const std::shared_ptr<uint64_t> sharedOfAll = std::make_shared<uint64_t>();

void getAndRelease(benchmark::State& state)
{
    static const uint64_t id = registered();
    korEx* ex = korEx_Create();
    for (auto step : state) {
        benchmark::DoNotOptimize(_korObjectMap_Get(ex, 0, id));
        benchmark::DoNotOptimize(_korObjectMap_Release(0, ex, id));
    }
    korEx_Destroy(ex);
}

void copy(benchmark::State& state)
{
    for (auto step : state) {
        std::shared_ptr<uint64_t> held = sharedOfAll;
        benchmark::DoNotOptimize(held.get());
    }
}

void lockWeak(benchmark::State& state)
{
    std::weak_ptr<uint64_t> weak = sharedOfAll;
    for (auto step : state) {
        std::shared_ptr<uint64_t> held = weak.lock();
        benchmark::DoNotOptimize(held.get());
    }
}

BENCHMARK(getAndRelease)->Name("BM_ObjectMap_use/korObjectMap");
BENCHMARK(lockWeak)->Name("BM_ObjectMap_use/std_weak_ptr_lock");
BENCHMARK(copy)->Name("BM_ObjectMap_use/std_shared_ptr_copy");
BENCHMARK(getAndRelease)->Name("BM_ObjectMap_useByTwo/korObjectMap")->Threads(2)->UseRealTime();
BENCHMARK(lockWeak)->Name("BM_ObjectMap_useByTwo/std_weak_ptr_lock")->Threads(2)->UseRealTime();
BENCHMARK(copy)->Name("BM_ObjectMap_useByTwo/std_shared_ptr_copy")->Threads(2)->UseRealTime();

// Making an id and a shared object, from nothing to nothing.
void registerAndRetire(benchmark::State& state)
{
    korEx* ex = korEx_Create();
    for (auto step : state) {
        uint64_t id = _korObjectMap_Register(ex, 0, &objectOfAll);
        benchmark::DoNotOptimize(_korObjectMap_Unregister(ex, 0, id));
        benchmark::DoNotOptimize(_korObjectMap_Release(0, ex, id));
    }
    korEx_Destroy(ex);
}

void makeShared(benchmark::State& state)
{
    for (auto step : state) {
        std::shared_ptr<uint64_t> made = std::make_shared<uint64_t>();
        benchmark::DoNotOptimize(made.get());
    }
}

BENCHMARK(registerAndRetire)->Name("BM_ObjectMap_make/korObjectMap");
BENCHMARK(makeShared)->Name("BM_ObjectMap_make/std_make_shared");

} // namespace

BENCHMARK_MAIN();
