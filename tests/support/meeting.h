// meeting.h - where test threads meet: a barrier and a semaphore on a mutex and a condition variable.
//
// The standard library's own hang on Windows: MinGW's atomic waits lose wake-ups. They may come back when they do not.

#pragma once

#include <condition_variable>
#include <mutex>

namespace kor::test {

/// Holds `count` threads until all of them have arrived, again and again.
class Barrier
{
public:
    explicit Barrier(int count) : count_(count) {}

    void arrive_and_wait()
    {
        arrive_and_wait([] {});
    }

    /// The last one to arrive runs `completion` before anyone goes on.
    template <typename Completion>
    void arrive_and_wait(Completion completion)
    {
        std::unique_lock hold(mutex_);
        if (++arrived_ == count_) {
            completion();
            beginRound();
            return;
        }
        changed_.wait(hold, [this, round = round_] { return round_ != round; });
    }

    /// Leaves for good: from now on one thread less is waited for.
    void arrive_and_drop()
    {
        std::lock_guard hold(mutex_);
        if (--count_ == arrived_) {
            beginRound();
        }
    }

private:
    void beginRound()
    {
        arrived_ = 0;
        round_++;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    int count_;
    int arrived_ = 0;
    unsigned round_ = 0;
};

/// Lets one thread through for each release.
class Semaphore
{
public:
    void release()
    {
        std::lock_guard hold(mutex_);
        count_++;
        changed_.notify_one();
    }

    void acquire()
    {
        std::unique_lock hold(mutex_);
        changed_.wait(hold, [this] { return count_ > 0; });
        count_--;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

} // namespace kor::test
