// pools_bench.cpp - korPool and korPoolCache beside general allocators and boost::pool: one chunk at a time, bursts,
// and chunks that are got on one thread and returned on another.
//
// Peers that would replace the process's malloc are called by address, as the library is called through its table.

#include "korutil/korPoolCache.h"

#include <benchmark/benchmark.h>
#ifdef KOR_HAVE_BOOST
#include <boost/pool/pool.hpp>
#endif

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---- Who takes part. Each has get() and giveBack(), for one thread at a time with an object of its own. -------------

// The shared half of korPool: one pool for all threads.
class Chunks
{
public:
    explicit Chunks(int32_t size) : ex_(korEx_Create())
    {
        pool_ = _korPool_Create(KOR_AT(ex_, 0), 1024, size, nullptr, nullptr, 1, 128);
    }
    ~Chunks()
    {
        _korPool_Destroy(KOR_AT_D(0, ex_), pool_);
        korEx_Destroy(ex_);
    }
    Chunks(const Chunks&) = delete;
    Chunks& operator=(const Chunks&) = delete;
    korPool* pool() { return pool_; }

private:
    korEx* ex_;
    korPool* pool_;
};

class FromPool
{
public:
    using Shared = Chunks;
    explicit FromPool(Shared& shared) : ex_(korEx_Create()), pool_(shared.pool()) {}
    ~FromPool() { korEx_Destroy(ex_); }
    FromPool(const FromPool&) = delete;
    FromPool& operator=(const FromPool&) = delete;
    void* get() { return _korPool_Get(KOR_AT(ex_, 0), pool_); }
    void giveBack(void* chunk) { _korPool_Return(KOR_AT_D(0, ex_), pool_, chunk); }

private:
    korEx* ex_;
    korPool* pool_;
};

class FromCache
{
public:
    using Shared = Chunks;
    explicit FromCache(Shared& shared) : ex_(korEx_Create())
    {
        _korPoolCache_Init(KOR_AT(ex_, 0), &cache_, 0, shared.pool());
    }
    ~FromCache()
    {
        _korPoolCache_Clear(KOR_AT_D(0, ex_), &cache_);
        korEx_Destroy(ex_);
    }
    FromCache(const FromCache&) = delete;
    FromCache& operator=(const FromCache&) = delete;
    void* get() { return _korPoolCache_Get(KOR_AT(ex_, 0), &cache_); }
    void giveBack(void* chunk) { _korPoolCache_Return(KOR_AT_D(0, ex_), &cache_, chunk); }

private:
    korEx* ex_;
    korPoolCache cache_;
};

struct Size {
    explicit Size(int32_t size) : bytes(static_cast<size_t>(size)) {}
    size_t bytes;
};

// An allocator as a pair of addresses, which stand still from the start.
struct Pair {
    void* (*allocate)(size_t) = nullptr;
    void (*release)(void*) = nullptr;
};
Pair system_{malloc, free}, mimalloc_, jemalloc_, tcmalloc_;

template <Pair& functions>
class FromAllocator
{
public:
    using Shared = Size;
    explicit FromAllocator(Shared& shared) : size_(shared.bytes) {}
    void* get() { return functions.allocate(size_); }
    void giveBack(void* chunk) { functions.release(chunk); }

private:
    size_t size_;
};

#ifdef KOR_HAVE_BOOST
// Not made for more than one thread.
class FromBoost
{
public:
    using Shared = Size;
    explicit FromBoost(Shared& shared) : pool_(shared.bytes, 1024) {}
    void* get() { return pool_.malloc(); }
    void giveBack(void* chunk) { pool_.free(chunk); }

private:
    boost::pool<> pool_;
};
#endif

// The pair of a module, or none if it is not to be had or has replaced the process's own.
[[maybe_unused]] Pair load(const char* file, const char* allocate, const char* release)
{
    Pair pair;
    if (void* module = dlopen(file, RTLD_NOW | RTLD_LOCAL)) {
        pair.allocate = reinterpret_cast<void* (*)(size_t)>(dlsym(module, allocate));
        pair.release = reinterpret_cast<void (*)(void*)>(dlsym(module, release));
    }
    if (pair.allocate == nullptr || pair.release == nullptr || pair.allocate == system_.allocate) {
        std::fprintf(stderr, "%s: left out\n", file);
        return {};
    }
    return pair;
}

// A module that is opened late finds little room for its thread-local variables, and one of the peers needs more than
// that. The room is set when a program starts: start again.
void reserveThreadLocals(char** argv)
{
    if (getenv("GLIBC_TUNABLES") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=65536", 1);
        execv("/proc/self/exe", argv);
    }
}

// ---- What is measured -----------------------------------------------------------------------------------------------

// One chunk at a time. Others are in use meanwhile: a general allocator would close and open a page for the only one.
template <class Source>
void runWarm(benchmark::State& state, int32_t size)
{
    typename Source::Shared shared(size);
    Source source(shared);
    std::array<void*, 16> used;
    for (void*& chunk : used) {
        chunk = source.get();
    }
    source.giveBack(source.get());
    for (auto step : state) {
        void* chunk = source.get();
        benchmark::DoNotOptimize(chunk);
        source.giveBack(chunk);
    }
    for (void* chunk : used) {
        source.giveBack(chunk);
    }
}

// So many chunks at once, and back in the order they came.
template <class Source>
void runBurst(benchmark::State& state, int32_t size)
{
    typename Source::Shared shared(size);
    Source source(shared);
    std::vector<void*> chunks(static_cast<size_t>(state.range(0)));
    for (auto step : state) {
        for (void*& chunk : chunks) {
            chunk = source.get();
            *static_cast<volatile char*>(chunk) = 1;
        }
        for (void* chunk : chunks) {
            source.giveBack(chunk);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Batches go from one thread to another through a ring, so the way between the threads costs little beside the chunks.
class Ring
{
public:
    static constexpr size_t batch = 256;
    using Batch = std::array<void*, batch>;

    Batch& toFill()
    {
        return wait(filled_, [this](uint64_t filled) { return filled - emptied_.load() < slots; });
    }
    void isFull() { filled_++; }
    Batch& toEmpty()
    {
        return wait(emptied_, [this](uint64_t emptied) { return emptied != filled_.load(); });
    }
    void isEmpty() { emptied_++; }

private:
    template <class Ready>
    Batch& wait(std::atomic<uint64_t>& own, Ready ready)
    {
        for (int spins = 0; !ready(own.load()); spins++) {
            if (spins > 1000) {
                std::this_thread::yield();
            }
        }
        return batches_[own.load() % slots];
    }

    static constexpr size_t slots = 8;
    std::array<Batch, slots> batches_{};
    alignas(64) std::atomic<uint64_t> filled_ = 0;
    alignas(64) std::atomic<uint64_t> emptied_ = 0;
};

// An iteration is one batch; a batch that begins with NULL is the last.
template <class Source>
void runMigrate(benchmark::State& state, int32_t size)
{
    typename Source::Shared shared(size);
    Ring ring;
    std::thread taker([&] {
        Source source(shared);
        for (;;) {
            Ring::Batch& batch = ring.toEmpty();
            if (batch[0] == nullptr) {
                return;
            }
            for (void* chunk : batch) {
                source.giveBack(chunk);
            }
            ring.isEmpty();
        }
    });
    Source source(shared);
    for (auto step : state) {
        for (void*& chunk : ring.toFill()) {
            chunk = source.get();
            *static_cast<volatile char*>(chunk) = 1;
        }
        ring.isFull();
    }
    ring.toFill()[0] = nullptr;
    ring.isFull();
    taker.join();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(Ring::batch));
}

// ---- The list -------------------------------------------------------------------------------------------------------

using Run = void (*)(benchmark::State&, int32_t);

struct Peer {
    const char* name;
    Run warm, burst, migrate; // migrate may be NULL
    bool present;
};

template <class Source>
Peer peer(const char* name, bool present, bool migrates)
{
    return {name, runWarm<Source>, runBurst<Source>, migrates ? Run{runMigrate<Source>} : nullptr, present};
}

std::vector<Peer> general()
{
    std::vector<Peer> peers{
        peer<FromAllocator<system_>>("malloc", true, true),
        peer<FromAllocator<mimalloc_>>("mimalloc", mimalloc_.allocate != nullptr, true),
        peer<FromAllocator<jemalloc_>>("jemalloc", jemalloc_.allocate != nullptr, true),
        peer<FromAllocator<tcmalloc_>>("tcmalloc", tcmalloc_.allocate != nullptr, true),
    };
#ifdef KOR_HAVE_BOOST
    peers.push_back(peer<FromBoost>("boost_pool", true, false));
#endif
    return peers;
}

void addCases(const std::string& area, std::vector<Peer> who, bool migrate)
{
    for (int32_t size : {64, 1024}) {
        for (const Peer& one : who) {
            if (one.present) {
                std::string name = area + "_warm" + std::to_string(size) + "/" + one.name;
                benchmark::RegisterBenchmark(name.c_str(), one.warm, size);
            }
        }
        for (int64_t count : {32, 200, 2000}) {
            for (const Peer& one : who) {
                if (one.present) {
                    std::string name = area + "_burst" + std::to_string(size) + "/" + one.name;
                    benchmark::RegisterBenchmark(name.c_str(), one.burst, size)->Arg(count);
                }
            }
        }
        for (const Peer& one : who) {
            if (migrate && one.present && one.migrate != nullptr) {
                std::string name = area + "_migrate" + std::to_string(size) + "/" + one.name;
                benchmark::RegisterBenchmark(name.c_str(), one.migrate, size)->UseRealTime();
            }
        }
    }
}

void addAll()
{
    std::vector<Peer> pools = general();
    std::vector<Peer> caches = pools;
    pools.insert(pools.begin(), peer<FromPool>("korPool", true, true));
    caches.insert(caches.begin(), peer<FromCache>("korPoolCache", true, false));
    addCases("BM_Pool", pools, true);
    addCases("BM_PoolCache", caches, false);
}

} // namespace

int main(int argc, char** argv)
{
    reserveThreadLocals(argv);
#ifdef KOR_MIMALLOC
    mimalloc_ = load(KOR_MIMALLOC, "mi_malloc", "mi_free");
#endif
#ifdef KOR_JEMALLOC
    jemalloc_ = load(KOR_JEMALLOC, "malloc", "free");
#endif
#ifdef KOR_TCMALLOC_MINIMAL
    tcmalloc_ = load(KOR_TCMALLOC_MINIMAL, "malloc", "free");
#endif
    addAll();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
