// smallDisk.h - a disk of a few pages that can fill up or be made read-only, where the machine lets a test mount one.
// Linux only.

#pragma once

#include <filesystem>
#include <string>
#include <thread>

#ifndef _WIN32
#include <sched.h>
#include <sys/mount.h>
#endif

namespace kor::test {

inline constexpr int smallDiskSize = 64 * 1024;

#ifdef _WIN32
inline bool makeReadOnly(const std::string&)
{
    return false;
}

template <typename Body>
bool onSmallDisk(const std::string&, Body)
{
    return false;
}
#else
/// From within the body of onSmallDisk: nothing there can be written any more; true if that worked.
inline bool makeReadOnly(const std::string& directory)
{
    return mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

/// Runs `body` on a thread that sees a fresh disk of `smallDiskSize` bytes at `directory`; nobody else sees it, and it
/// is gone with the thread. False if this process may not mount.
template <typename Body>
bool onSmallDisk(const std::string& directory, Body body)
{
    bool mounted = false;
    std::thread user([&] {
        mounted = unshare(CLONE_FS | CLONE_NEWNS) == 0 &&
                  mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=64k") == 0;
        if (mounted) {
            body();
        }
    });
    user.join();
    return mounted;
}
#endif

} // namespace kor::test
