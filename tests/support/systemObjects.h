// systemObjects.h - what a test asks of the system itself: handles to wait for, a limit of descriptors, signals that
// come while a thread waits.

#pragma once

#include <cerrno>
#include <cstdint>
#include <utility>

#ifdef _WIN32
#include <windows.h>
#else
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace kor::test {

#ifdef _WIN32

inline constexpr int32_t invalidHandleError = ERROR_INVALID_HANDLE;
inline constexpr bool pollsSocketTwice = false; ///< the system's poll tells a socket that is asked for twice but once

/// A handle that is signalled when the test says so.
class Handle
{
public:
    Handle() : event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~Handle() { close(); }
    int64_t value() const { return reinterpret_cast<int64_t>(event_); }
    void set() { SetEvent(event_); }
    void reset() { ResetEvent(event_); }
    void close()
    {
        if (HANDLE open = std::exchange(event_, nullptr)) {
            CloseHandle(open);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

private:
    HANDLE event_;
};

/// While one lives, the process gets `more` descriptors and no further ones.
struct DescriptorLimit {
    static constexpr bool exists = false;
    explicit DescriptorLimit(int) {}
    ~DescriptorLimit() {}
};

inline int openDescriptors()
{
    return 0;
}

/// Signals for the thread that makes it, with a handler that lets system calls be interrupted.
struct SignalNoise {
    void send() {}
};

#else

inline constexpr int32_t invalidHandleError = EBADF;
inline constexpr bool pollsSocketTwice = true;

class Handle
{
public:
    Handle() : event_(eventfd(0, EFD_NONBLOCK)) {}
    ~Handle() { close(); }
    int64_t value() const { return event_; }
    void set() { eventfd_write(event_, 1); }
    void reset()
    {
        eventfd_t taken;
        eventfd_read(event_, &taken);
    }
    void close()
    {
        if (int open = std::exchange(event_, -1); open >= 0) {
            ::close(open);
        }
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

private:
    int event_;
};

class DescriptorLimit
{
public:
    static constexpr bool exists = true;
    explicit DescriptorLimit(int more)
    {
        getrlimit(RLIMIT_NOFILE, &saved_);
        int next = dup(0);
        ::close(next);
        rlimit limit = {static_cast<rlim_t>(next + more), saved_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit saved_;
};

inline int openDescriptors()
{
    int count = 0;
    for (int descriptor = 0; descriptor < 4096; descriptor++) {
        count += fcntl(descriptor, F_GETFD) >= 0;
    }
    return count;
}

class SignalNoise
{
public:
    SignalNoise() : thread_(pthread_self())
    {
        struct sigaction nothing = {};
        nothing.sa_handler = [](int) {};
        sigaction(SIGUSR1, &nothing, &saved_);
    }
    ~SignalNoise() { sigaction(SIGUSR1, &saved_, nullptr); }
    void send() { pthread_kill(thread_, SIGUSR1); }
    SignalNoise(const SignalNoise&) = delete;
    SignalNoise& operator=(const SignalNoise&) = delete;

private:
    pthread_t thread_;
    struct sigaction saved_;
};

#endif

} // namespace kor::test
