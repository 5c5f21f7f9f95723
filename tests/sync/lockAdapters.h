// lockAdapters.h - one face for the locks and their conditions, those of the standard library among them: what holds
// for the standard's holds for ours, and a test that fails for the standard's is wrong.

#pragma once

#include "korutil/korFastCondition.h"
#include "support/korTest.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace kor::test {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
inline constexpr int stressRounds = 5000;
#else
inline constexpr int stressRounds = 50000;
#endif

/// Gives way until `condition` holds.
template <class Condition>
void until(Condition condition)
{
    while (!condition()) {
        std::this_thread::yield();
    }
}

/// A mutex with a condition for each of two directions.
struct MutexPair {
    MutexPair()
    {
        _korMutex_Init(&ex, 0, &lock);
        for (auto& condition : conditions) {
            _korCondition_Init(0, &ex, &condition);
        }
    }
    ~MutexPair()
    {
        for (auto& condition : conditions) {
            _korCondition_Clear(0, &ex, &condition);
        }
        _korMutex_Clear(&ex, 0, &lock);
    }
    void acquire() { korMutex_enter(&lock); }
    bool tryAcquire() { return korMutex_tryEnter(&lock); }
    void release() { korMutex_leave(&lock); }
    void wait(korEx* of, int which = 0) { _korCondition_Wait(0, of, &conditions[which], &lock); }
    void signal(korEx* of, int which = 0) { _korCondition_SignalDebug(0, of, &conditions[which]); }
    void broadcast(korEx* of, int which = 0) { _korCondition_Broadcast(0, of, &conditions[which]); }

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
        for (auto& condition : conditions) {
            _korFastCondition_Init(0, &ex, &condition);
        }
    }
    ~FastPair()
    {
        EXPECT_EQ(lock.word, 0u);
        for (auto& condition : conditions) {
            _korFastCondition_Clear(0, &ex, &condition);
        }
        _korFastLock_Clear(0, &ex, &lock);
    }
    void acquire() { korFastLock_acquire(&lock); }
    bool tryAcquire() { return korFastLock_tryAcquire(&lock); }
    void release() { korFastLock_release(&lock); }
    void wait(korEx* of, int which = 0) { _korFastCondition_Wait(0, of, &conditions[which], &lock); }
    void signal(korEx* of, int which = 0) { _korFastCondition_Signal(0, of, &conditions[which]); }
    void broadcast(korEx* of, int which = 0) { _korFastCondition_Broadcast(0, of, &conditions[which]); }

    korEx ex = {};
    korFastLock lock;
    korFastCondition conditions[2];
};

struct StandardPair {
    void acquire() { lock.lock(); }
    bool tryAcquire() { return lock.try_lock(); }
    void release() { lock.unlock(); }
    void wait(korEx*, int which = 0)
    {
        std::unique_lock held(lock, std::adopt_lock);
        conditions[which].wait(held);
        held.release();
    }
    void signal(korEx*, int which = 0) { conditions[which].notify_one(); }
    void broadcast(korEx*, int which = 0) { conditions[which].notify_all(); }

    std::mutex lock;
    std::condition_variable conditions[2];
};

} // namespace kor::test
