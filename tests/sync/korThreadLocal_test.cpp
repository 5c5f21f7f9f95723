// korThreadLocal_test.cpp - the thread-local store: keys and their reuse, destructors, ends of threads.

#include "korutil/korThread.h"
#include "korutil/korThreadLocal.h"
#include "support/childProcess.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

using namespace kor::test;

namespace {

using Values = std::vector<uint64_t>;
Values ended; // what destructors have been called with; each test uses the threads one after another
int32_t otherKey;

void noteEnd(uint64_t value)
{
    ended.push_back(value);
}

void nothing(uint64_t) {}

void setsAnother(uint64_t value)
{
    KOR_EX_LOCAL(own);
    noteEnd(value);
    _korThreadLocal_Set(&own, 0, otherKey, value + 1);
}

template <korThreadLocalDestructor destructor>
void usesTheStore(uint64_t value)
{
    KOR_EX_LOCAL(own);
    int32_t key = _korThreadLocal_Create(&own, 0, destructor);
    _korThreadLocal_Set(&own, 0, key, value);
    _korThreadLocal_Destroy(0, &own, key);
}

} // namespace

class KorThreadLocal : public KorTest
{
protected:
    KorThreadLocal() { ended.clear(); }

    int32_t create(korThreadLocalDestructor destructor = noteEnd)
    {
        int32_t key = _korThreadLocal_Create(ex, 0, destructor);
        EXPECT_CLEAN();
        return key;
    }
    void set(int32_t key, uint64_t value) { _korThreadLocal_Set(ex, 0, key, value); }
    void destroy(auto... keys) { (_korThreadLocal_Destroy(0, ex, keys), ...); }

    // A thread sets the values one after the other, and ends.
    void setElsewhere(int32_t key, const Values& values)
    {
        std::jthread([&] { std::ranges::for_each(values, [&](uint64_t value) { set(key, value); }); }).join();
    }
};

TEST_F(KorThreadLocal, KeysRunOutAtTheLastOneAndComeAgain)
{
    std::vector<int32_t> keys;
    while (ex->code == 0) {
        keys.push_back(_korThreadLocal_Create(ex, 0, keys.size() % 2 == 0 ? noteEnd : nullptr));
    }
    korEx_Clear(ex);
    EXPECT_EQ(keys.back(), 0);
    keys.pop_back();
    EXPECT_EQ(std::ranges::max(keys), KOR_THREAD_LOCAL_KEYS - 1);
    int32_t returned = keys[keys.size() / 2];
    destroy(returned, returned); // the second time: it must not get two owners
    EXPECT_EQ(create(), returned);
    EXPECT_EQ(_korThreadLocal_Create(ex, 0, nullptr), 0);
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, "kor Thread Local Store exhausted");
    for (int32_t invalid : {0x10000, -1, KOR_THREAD_LOCAL_KEYS}) {
        set(invalid, 1);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Thread Local Store key not valid");
        EXPECT_EQ(_korThreadLocal_Get(invalid) + _korThreadLocal_GetRawDebug(invalid), 0u) << invalid;
        destroy(invalid);
    }
    std::ranges::for_each(keys, [&](int32_t key) { destroy(key); });
}

TEST_F(KorThreadLocal, AReusedKeyShowsNothingAndLosesNothing)
{
    int32_t key = create();
    set(key, 20);
    std::jthread([&] {
        set(key, 21);
        destroy(key);
        EXPECT_EQ(ended, Values{21}); // this thread's at once
        EXPECT_EQ(create(), key);
        EXPECT_EQ(_korThreadLocal_Get(key), 0u);
    }).join();
    EXPECT_EQ(_korThreadLocal_Get(key), 0u); // the key has a new owner
    set(key, 22);
    std::jthread([&] {
        destroy(key);
        EXPECT_EQ(create(), key);
    }).join();
    set(key, 23);
    EXPECT_EQ(ended, Values{21}); // the old values wait
    _korThreadLocal_RunDestructors(0, ex);
    EXPECT_EQ(ended, (Values{21, 22, 20})); // the youngest first
    EXPECT_EQ(_korThreadLocal_Get(key), 23u);
    destroy(key);
    EXPECT_EQ(ended, (Values{21, 22, 20, 23}));
}

TEST_F(KorThreadLocal, TheLastValueOfAThreadEndsAndThenWhatItsDestructorSets)
{
    int32_t key = create(setsAnother);
    otherKey = create();
    int32_t busy = create(usesTheStore<noteEnd>); // takes both locks: none may be held
    set(key, 11);
    setElsewhere(key, {12, 40});
    setElsewhere(key, {14, 0});
    setElsewhere(busy, {43});
    EXPECT_EQ(ended, (Values{40, 41, 43}));
    EXPECT_EQ(_korThreadLocal_Get(key | 0x70000), 11u); // the low 16 bits count
    _korThreadLocal_ForceDestructors(0, ex);
    EXPECT_EQ(ended.back(), 11u);
    EXPECT_EQ(_korThreadLocal_Get(otherKey), 12u); // set by a destructor: not in this round
    set(key, UINT64_MAX);
    EXPECT_EQ(_korThreadLocal_Get(key), 0u);
    EXPECT_EQ(_korThreadLocal_GetRawDebug(key), UINT64_MAX);
    set(key, 0);
    destroy(key, otherKey, busy);
}

TEST_F(KorThreadLocal, AFreshThreadMayFailAtEveryStep)
{
    bool fired = true;
    auto attempt = [&](uint64_t failing) {
        KOR_EX_LOCAL(own);
        int32_t key = 0;
        {
            FailingHeap heap(failing);
            key = _korThreadLocal_Create(&own, 0, noteEnd);
            _korThreadLocal_Set(&own, 0, key, failing);
            fired = heap.fired();
        }
        EXPECT_EQ(own.code, fired ? KOR_ERROR_NO_MEMORY : 0) << failing;
        EXPECT_EQ(_korThreadLocal_Get(key), fired ? 0 : failing);
        _korThreadLocal_Destroy(0, &own, key);
        EXPECT_EQ(std::exchange(ended, {}), fired ? Values{} : Values{failing});
    };
    for (uint64_t failing = 1; fired; failing++) {
        std::jthread(attempt, failing).join();
    }
}

// ---- Under load -----------------------------------------------------------------------------------------------------

namespace {

constexpr uint64_t workers = 3;
constexpr uint64_t sharedKeys = 6;
constexpr uint64_t early = 4000; // values of a worker while keys come and go
constexpr uint64_t all = early + sharedKeys;

std::array<uint8_t, 1 + workers * all> ends; // how often each value has met its destructor

void countEnd(uint64_t value)
{
    std::atomic_ref(ends[value])++;
}

} // namespace

// Keys come and go while threads set values under them. No value may end twice; those that were set last, under keys
// that stay, end once.
TEST_F(KorThreadLocal, KeysComeAndGoWhileThreadsSetValues)
{
    std::array<std::atomic<int32_t>, sharedKeys> keys;
    std::ranges::generate(keys, [&] { return create(countEnd); });
    ends = {};
    std::atomic<uint64_t> done = 0;
    std::atomic<bool> settled = false;
    auto work = [&](uint64_t worker) {
        KOR_EX_LOCAL(own);
        for (uint64_t i = 0; i < all; i++) {
            for (done += i == early; i >= early && !settled;) {
                std::this_thread::yield();
            }
            _korThreadLocal_Set(&own, 0, keys[i % sharedKeys], 1 + worker * all + i);
            EXPECT_TRUE(own.code == 0 || (i < early && own.code == KOR_ERROR_INVALID_ARGUMENT)); // between two owners
            korEx_Clear(&own);
            if (i % 64 == 0) {
                _korThreadLocal_RunDestructors(0, &own);
                std::this_thread::yield();
            }
        }
    };
    std::vector<std::jthread> threads;
    for (uint64_t worker = 0; worker < workers; worker++) {
        threads.emplace_back(work, worker);
    }
    for (size_t i = 0; done < workers; i = (i + 1) % sharedKeys) {
        destroy(keys[i].exchange(0));
        keys[i] = create(countEnd);
    }
    settled = true;
    threads.clear();
    for (uint64_t i = 0; i < workers * all; i++) {
        EXPECT_TRUE(ends[i + 1] == 1 || (i % all < early && ends[i + 1] == 0)) << i << ": " << +ends[i + 1];
    }
    std::ranges::for_each(keys, [&](int32_t key) { destroy(key); });
}

TEST_F(KorThreadLocal, DISABLED_ChildOfAHostThatEndsItsThreads)
{
    int32_t key = create();
    _kor_SetDotNetEnvironment(); // for good, which is why this has a process of its own
    setElsewhere(key, {5});
    EXPECT_EQ(ended, (Values{5}));
    set(key, 6); // stays at the unloading: nobody is left to hear of it
}

// Nobody joins the threads: they are in the middle of the library when the process ends. One is enough on Windows: two
// also meet at the heap's lock, and under Wine a thread that is ended while it wakes the other there leaves a spin lock
// behind, on which the C runtime's own clearing up waits for ever.
TEST_F(KorThreadLocal, DISABLED_ChildThatEndsWhileItsThreadsRun)
{
#ifdef _WIN32
    constexpr int workers = 1;
#else
    constexpr int workers = 2;
#endif
    std::atomic<int> running = 0;
    for (int worker = 0; worker < workers; worker++) {
        std::thread([&running] {
            for (uint64_t value = 1;; value++) {
                usesTheStore<nothing>(value);
                running += value == 1000;
            }
        }).detach();
    }
    while (running < workers) {
        std::this_thread::yield();
    }
    std::exit(17);
}

TEST_F(KorThreadLocal, AHostsThreadsEndWithTheirDestructorsAllTheSame)
{
    ChildProcess child("KorThreadLocal.DISABLED_ChildOfAHostThatEndsItsThreads");
    EXPECT_EQ(child.wait(), 0) << child.output();
}

TEST_F(KorThreadLocal, AProcessThatEndsTakesNothingFromItsThreads)
{
    for (int round = 0; round < 10; round++) {
        ChildProcess child("KorThreadLocal.DISABLED_ChildThatEndsWhileItsThreadsRun");
        EXPECT_EQ(child.wait(), 17) << child.output();
    }
}
