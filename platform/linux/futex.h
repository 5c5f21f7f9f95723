// futex.h (Linux) - sleeping on a 32-bit word, and limits for such sleeps. Private to this backend.

#pragma once

#include "korutil/korMutex.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace kor::platform {

/// Sleeps while `*word` is `expected`: until a wake-up, or for the time of `relative` (NULL: no limit). `shared` is for
/// words in memory that processes share. Gives 0 for a wake-up, ETIMEDOUT, EAGAIN if the word was another, EINTR for a
/// signal's handler: look at the word again. errno is left alone.
inline int32_t futexWait(uint32_t* word, uint32_t expected, const timespec* relative = nullptr, bool shared = false)
{
    long operation = KOR_FUTEX_WAIT | (shared ? 0 : KOR_FUTEX_PRIVATE);
    return static_cast<int32_t>(-korMutex_futex(word, operation, expected, relative));
}

/// Wakes up to `count` threads that sleep on `word`, the longest sleeper first.
inline void futexWake(uint32_t* word, int count, bool shared = false)
{
    long operation = KOR_FUTEX_WAKE | (shared ? 0 : KOR_FUTEX_PRIVATE);
    korMutex_futex(word, operation, static_cast<uint32_t>(count), nullptr);
}

/// A limit for a sleep that may have to be repeated, on a clock that nobody sets.
class Deadline
{
public:
    /// `timeoutMs` from now; 0xFFFFFFFF for no limit.
    explicit Deadline(uint32_t timeoutMs) : limited_(timeoutMs != 0xFFFFFFFF)
    {
        if (limited_) {
            end_ = now() + static_cast<int64_t>(timeoutMs) * 1000000;
        }
    }

    /// What is left, for futexWait: NULL for no limit, zero if it has passed.
    const timespec* remaining()
    {
        if (!limited_) {
            return nullptr;
        }
        int64_t left = end_ - now();
        left = left > 0 ? left : 0;
        left_ = {.tv_sec = left / 1000000000, .tv_nsec = left % 1000000000};
        return &left_;
    }

private:
    static int64_t now()
    {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec * int64_t{1000000000} + time.tv_nsec;
    }

    bool limited_;
    int64_t end_ = 0; // nanoseconds
    timespec left_ = {};
};

} // namespace kor::platform
