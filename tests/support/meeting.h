// meeting.h - where threads of a test wait for each other. The standard barriers and semaphores of MinGW's library lose
// wake-ups; these can go when they no longer do.

#pragma once

#include <condition_variable>
#include <mutex>

namespace kor::test {

/// Lets `count` threads through together, again and again.
class Barrier
{
public:
    explicit Barrier(int count) : count_(count) {}

    void arriveAndWait()
    {
        std::unique_lock hold(mutex_);
        int phase = phase_;
        if (++arrived_ == count_) {
            next();
        }
        changed_.wait(hold, [&] { return phase_ != phase; });
    }

    /// Arrives, does not wait, and is not waited for from now on.
    void arriveAndDrop()
    {
        std::unique_lock hold(mutex_);
        count_--;
        if (arrived_ == count_) {
            next();
        }
    }

private:
    void next()
    {
        arrived_ = 0;
        phase_++;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    int count_;
    int arrived_ = 0;
    int phase_ = 0;
};

/// Closed until it is opened.
class Gate
{
public:
    void open()
    {
        std::unique_lock hold(mutex_);
        open_ = true;
        changed_.notify_all();
    }

    void wait()
    {
        std::unique_lock hold(mutex_);
        changed_.wait(hold, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

} // namespace kor::test
