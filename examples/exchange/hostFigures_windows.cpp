// hostFigures_windows.cpp - the figures of a Windows machine.

#include "hostFigures.h"

#include <korutil/korText.h>

#include <windows.h>

namespace {

double numberOf(const FILETIME& time)
{
    return static_cast<double>(static_cast<uint64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

void readProcessors(HostFigures* host)
{
    FILETIME idle;
    FILETIME kernel; // idle time counts as kernel time
    FILETIME user;
    if (GetSystemTimes(&idle, &kernel, &user) == 0) {
        return;
    }
    double passed = growth(host, "cpu", numberOf(kernel) + numberOf(user));
    double idled = growth(host, "cpu idle", numberOf(idle));
    double used = growth(host, "cpu user", numberOf(user));
    if (passed > 0) {
        addFigure(host, 100 * used / passed, "%", "cpu/all/user");
        addFigure(host, 100 * (passed - used - idled) / passed, "%", "cpu/all/system");
        addFigure(host, 100 * idled / passed, "%", "cpu/all/idle");
    }
}

void readMemory(HostFigures* host)
{
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof(status);
    if (GlobalMemoryStatusEx(&status) != 0) {
        constexpr double megabyte = 1024 * 1024;
        addFigure(host, static_cast<double>(status.ullTotalPhys) / megabyte, "MB", "memory/total");
        addFigure(host, static_cast<double>(status.ullAvailPhys) / megabyte, "MB", "memory/available");
        addFigure(host, status.dwMemoryLoad, "%", "load/memory");
    }
}

} // namespace

void readFigures(HostFigures* host, double)
{
    host->count = 0;
    readProcessors(host);
    readMemory(host);
}

void readHostName(char* name, uint32_t size)
{
    DWORD length = size;
    if (GetComputerNameA(name, &length) == 0) {
        _kor_StringCopy(name, size, "this", 0);
    }
    makeLevel(name);
}
