// rendezvous.h - a place where threads wait for each other, again and again.
//
// It stands in for std::barrier, whose threads sometimes sleep for ever on Windows (MinGW's libstdc++ 12 under Wine);
// that it no longer happens in a program of a barrier and two threads would let it go.

#pragma once

#include <condition_variable>
#include <mutex>

namespace kor::test {

/// For a fixed number of threads.
class Rendezvous
{
public:
    explicit Rendezvous(int threads) : threads_(threads) {}

    /// Returns when all have come.
    void meet()
    {
        std::unique_lock lock(mutex_);
        unsigned round = round_;
        if (++here_ < threads_) {
            complete_.wait(lock, [&] { return round_ != round; });
            return;
        }
        here_ = 0;
        round_++;
        complete_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable complete_;
    const int threads_;
    int here_ = 0;
    unsigned round_ = 0;
};

} // namespace kor::test
