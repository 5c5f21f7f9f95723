// process.cpp (Windows) - the system's version, the process's times and memory. Groups and effective users do not
// exist.

#include "platform/process.h"

#include <cstdio>
#include <windows.h>

#include <psapi.h>

namespace kor::platform {

namespace {

struct VersionName {
    uint32_t major, minor;
    const char* workstation;
    const char* server;
};

constexpr uint32_t anyMinor = UINT32_MAX;

constexpr VersionName versionNames[] = {
    {10, anyMinor, "Windows 10", "Windows Server 2016"}, {6, 0, "Windows Vista", "Windows Server 2008"},
    {6, 1, "Windows 7", "Windows Server 2008 R2"},       {6, 2, "Windows 8", "Windows Server 2012"},
    {6, 3, "Windows 8.1", "Windows Server 2012 R2"},
};

const char* versionName(const OSVERSIONINFOEXA& version)
{
    for (const VersionName& entry : versionNames) {
        if (entry.major == version.dwMajorVersion &&
            (entry.minor == version.dwMinorVersion || entry.minor == anyMinor)) {
            return version.wProductType == VER_NT_WORKSTATION ? entry.workstation : entry.server;
        }
    }
    return "Unknown Windows Version";
}

uint64_t microseconds(const FILETIME& time)
{
    return (static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime) / 10; // it counts in 100 ns
}

} // namespace

uint32_t processId()
{
    return GetCurrentProcessId();
}

bool systemUser(char* buffer, uint32_t size)
{
    DWORD length = size;
    return GetUserNameA(buffer, &length) != 0;
}

bool effectiveUser(char*, uint32_t)
{
    return false;
}

bool systemGroup(char*, uint32_t)
{
    return false;
}

bool effectiveGroup(char*, uint32_t)
{
    return false;
}

bool systemName(char* buffer, uint32_t size)
{
    OSVERSIONINFOEXA version = {};
    version.dwOSVersionInfoSize = sizeof version;
    if (GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&version)) == 0) {
        return false;
    }
    bool patched = version.szCSDVersion[0] != '\0';
    return snprintf(buffer, size, "%s%s%s%s", versionName(version), patched ? " (" : "", version.szCSDVersion,
                    patched ? ")" : "") > 0;
}

bool processTimes(ProcessTimes& times)
{
    FILETIME created, ended, kernel, user;
    if (GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user) == 0) {
        return false;
    }
    times = {microseconds(user), microseconds(kernel)};
    return true;
}

bool processMemory(ProcessMemory& memory)
{
    PROCESS_MEMORY_COUNTERS_EX counters = {};
    counters.cb = sizeof counters;
    auto* plain = reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters);
    if (K32GetProcessMemoryInfo(GetCurrentProcess(), plain, sizeof counters) == 0) {
        return false;
    }
    // The two count the same, the memory committed to this process; older Wine tells the second one only.
    uint64_t committed = counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
    memory = {counters.WorkingSetSize, counters.PeakWorkingSetSize, committed};
    return true;
}

} // namespace kor::platform
