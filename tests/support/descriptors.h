// descriptors.h - how many descriptors the process has open, and a lower limit for them. Linux only: Windows has no
// such limit.

#pragma once

#ifndef _WIN32
#include <filesystem>
#include <iterator>
#include <sys/resource.h>
#endif

namespace kor::test {

#ifdef _WIN32
inline constexpr bool hasDescriptorLimit = false;

inline int openDescriptors()
{
    return 0;
}

class DescriptorLimit
{
public:
    explicit DescriptorLimit(int) {}
};
#else
inline constexpr bool hasDescriptorLimit = true;

inline int openDescriptors()
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) - 1;
}

/// While one lives, no descriptor of this number or above can be opened.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int limit)
    {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit lowered = {static_cast<rlim_t>(limit), before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before_;
};
#endif

} // namespace kor::test
