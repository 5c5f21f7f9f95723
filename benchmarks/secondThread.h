// secondThread.h - a thread that only sleeps. While it lives, no library takes the short cuts that it keeps for
// programs of one thread, such as counts and locks without atomic steps.

#pragma once

#include <mutex>
#include <thread>

class SecondThread
{
public:
    SecondThread() : hold_(mutex_), thread_([this] { std::lock_guard sleep(mutex_); }) {}
    ~SecondThread() { hold_.unlock(); }

private:
    std::mutex mutex_;
    std::unique_lock<std::mutex> hold_;
    std::jthread thread_;
};
