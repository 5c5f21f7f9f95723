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
inline constexpr int stressRounds = 20000;
#else
inline constexpr int stressRounds = 200000;
#endif

/// Gives way until `condition` holds.
template <class Condition>
void until(Condition condition)
{
    while (!condition()) {
        std::this_thread::yield();
    }
}

/// A mutex with its condition.
struct MutexPair {
    MutexPair()
    {
        _korMutex_Init(&ex, 0, &lock);
        _korCondition_Init(0, &ex, &condition);
    }
    ~MutexPair()
    {
        _korCondition_Clear(0, &ex, &condition);
        _korMutex_Clear(&ex, 0, &lock);
    }
    void acquire() { korMutex_enter(&lock); }
    bool tryAcquire() { return korMutex_tryEnter(&lock); }
    void release() { korMutex_leave(&lock); }
    void wait(korEx* of) { _korCondition_Wait(0, of, &condition, &lock); }
    void signal(korEx* of) { _korCondition_SignalDebug(0, of, &condition); }
    void broadcast(korEx* of) { _korCondition_Broadcast(0, of, &condition); }

    korEx ex = {};
    korMutex lock;
    korCondition condition;
};

/// A fast lock with its condition. `spinCount` decides whether a contended acquire spins or parks.
template <uint32_t spinCount>
struct FastPair {
    FastPair()
    {
        _korFastLock_Init(0, &ex, &lock, spinCount);
        _korFastCondition_Init(0, &ex, &condition);
    }
    ~FastPair()
    {
        EXPECT_EQ(lock.word, 0u);
        _korFastCondition_Clear(0, &ex, &condition);
        _korFastLock_Clear(0, &ex, &lock);
    }
    void acquire() { korFastLock_acquire(&lock); }
    bool tryAcquire() { return korFastLock_tryAcquire(&lock); }
    void release() { korFastLock_release(&lock); }
    void wait(korEx* of) { _korFastCondition_Wait(0, of, &condition, &lock); }
    void signal(korEx* of) { _korFastCondition_Signal(0, of, &condition); }
    void broadcast(korEx* of) { _korFastCondition_Broadcast(0, of, &condition); }

    korEx ex = {};
    korFastLock lock;
    korFastCondition condition;
};

struct StandardPair {
    void acquire() { lock.lock(); }
    bool tryAcquire() { return lock.try_lock(); }
    void release() { lock.unlock(); }
    void wait(korEx*)
    {
        std::unique_lock held(lock, std::adopt_lock);
        condition.wait(held);
        held.release();
    }
    void signal(korEx*) { condition.notify_one(); }
    void broadcast(korEx*) { condition.notify_all(); }

    std::mutex lock;
    std::condition_variable condition;
};

} // namespace kor::test
