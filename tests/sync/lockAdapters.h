// lockAdapters.h - one face for the locks and their conditions, and threads that use them.

#pragma once

#include "korutil/korFastCondition.h"
#include "support/korTest.h"

#include <thread>
#include <vector>

namespace kor::test {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
inline constexpr int stressRounds = 5000;
#else
inline constexpr int stressRounds = 50000;
#endif

/// Gives way until `condition` holds.
void until(auto condition)
{
    while (!condition()) {
        std::this_thread::yield();
    }
}

/// Runs `body(own, number)` in threads, each with an exception object of its own that must stay clean. They are joined
/// when the vector goes.
std::vector<std::jthread> inThreads(int count, auto body)
{
    std::vector<std::jthread> threads;
    for (int number = 0; number < count; number++) {
        threads.emplace_back([=] {
            korEx own = {};
            body(&own, number);
            EXPECT_EQ(own.code, 0);
        });
    }
    return threads;
}

/// True if another thread finds the lock taken.
bool isHeld(auto& pair)
{
    bool held = true;
    std::jthread([&] {
        held = !pair.tryAcquire();
        if (!held) {
            pair.release();
        }
    }).join();
    return held;
}

/// A mutex with a condition for each of two directions.
struct MutexPair {
    MutexPair()
    {
        _korMutex_Init(&ex, 0, &lock);
        _korCondition_Init(0, &ex, &conditions[0]);
        _korCondition_Init(0, &ex, &conditions[1]);
    }
    ~MutexPair()
    {
        _korCondition_Clear(0, &ex, &conditions[0]);
        _korCondition_Clear(0, &ex, &conditions[1]);
        _korMutex_Clear(&ex, 0, &lock);
    }
    void acquire() { korMutex_enter(&lock); }
    bool tryAcquire() { return korMutex_tryEnter(&lock); }
    void release() { korMutex_leave(&lock); }
    void wait(korEx* of, int which = 0) { _korCondition_Wait(0, of, &conditions[which], &lock); }
    void waitEx(korEx* of, int64_t timeout, korTargetTime* target, uint8_t* timedOut)
    {
        _korCondition_WaitEx(0, of, &conditions[0], &lock, timeout, target, timedOut);
    }
    void signal(korEx* of, int which = 0) { _korCondition_SignalDebug(0, of, &conditions[which]); }
    void broadcast(korEx* of, int which = 0) { _korCondition_Broadcast(0, of, &conditions[which]); }
    korCondition& plainCondition(int which = 0) { return conditions[which]; }

    korEx ex = {};
    korMutex lock;
    korCondition conditions[2];
};

/// A fast lock with two conditions. `spinCount` decides whether a contended acquire spins or parks.
template <uint32_t spinCount>
struct FastPair {
    FastPair()
    {
        _korFastLock_Init(0, &ex, &lock, spinCount);
        _korFastCondition_Init(0, &ex, &conditions[0]);
        _korFastCondition_Init(0, &ex, &conditions[1]);
    }
    ~FastPair()
    {
        EXPECT_EQ(lock.word, 0u);
        _korFastCondition_Clear(0, &ex, &conditions[0]);
        _korFastCondition_Clear(0, &ex, &conditions[1]);
        _korFastLock_Clear(0, &ex, &lock);
    }
    void acquire() { korFastLock_acquire(&lock); }
    bool tryAcquire() { return korFastLock_tryAcquire(&lock); }
    void release() { korFastLock_release(&lock); }
    void wait(korEx* of, int which = 0) { _korFastCondition_Wait(0, of, &conditions[which], &lock); }
    void waitEx(korEx* of, int64_t timeout, korTargetTime* target, uint8_t* timedOut)
    {
        _korFastCondition_WaitEx(0, of, &conditions[0], &lock, timeout, target, timedOut);
    }
    void signal(korEx* of, int which = 0) { _korFastCondition_Signal(0, of, &conditions[which]); }
    void broadcast(korEx* of, int which = 0) { _korFastCondition_Broadcast(0, of, &conditions[which]); }
    korCondition& plainCondition(int which = 0) { return conditions[which].condition; }

    korEx ex = {};
    korFastLock lock;
    korFastCondition conditions[2];
};

} // namespace kor::test
