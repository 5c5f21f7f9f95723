// hostFigures_linux.cpp - the figures of a Linux machine, from /proc.

#include "hostFigures.h"

#include <korutil/korText.h>

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr double megabyte = 1024 * 1024;

// Calls `use` for every line of a file; one that cannot be opened has none.
template <typename Use>
void forEachLine(const char* path, Use use)
{
    std::FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        return;
    }
    char line[512];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        use(line);
    }
    std::fclose(file);
}

// A line of /proc/stat: "cpu0 user nice system idle iowait irq softirq steal ...", in ticks.
void readProcessor(HostFigures* host, const char* line)
{
    int number = 0;
    double ticks[8] = {};
    if (std::sscanf(line, "cpu%d %lf %lf %lf %lf %lf %lf %lf %lf", &number, &ticks[0], &ticks[1], &ticks[2], &ticks[3],
                    &ticks[4], &ticks[5], &ticks[6], &ticks[7]) != 9) {
        return;
    }
    const struct {
        const char* name;
        double ticks;
    } kinds[] = {
        {"user", ticks[0] + ticks[1]}, {"system", ticks[2] + ticks[5] + ticks[6]}, {"idle", ticks[3] + ticks[4]}};
    double all = 0;
    for (double some : ticks) {
        all += some;
    }
    char name[32];
    _kor_snprintf(name, sizeof(name), "cpu%d", number);
    double passed = growth(host, name, all);
    for (const auto& kind : kinds) {
        _kor_snprintf(name, sizeof(name), "cpu%d%s", number, kind.name);
        double spent = growth(host, name, kind.ticks);
        if (passed > 0 && spent >= 0) {
            addFigure(host, 100 * spent / passed, "%", "cpu/%d/%s", number, kind.name);
        }
    }
}

void readMemory(HostFigures* host, const char* line)
{
    const struct {
        const char* key;
        const char* name;
    } kinds[] = {{"MemTotal:", "total"}, {"MemAvailable:", "available"}, {"Cached:", "cached"}};
    for (const auto& kind : kinds) {
        double kilobytes = 0;
        size_t length = std::strlen(kind.key);
        if (std::strncmp(line, kind.key, length) == 0 && std::sscanf(line + length, "%lf", &kilobytes) == 1) {
            addFigure(host, kilobytes * 1024 / megabyte, "MB", "memory/%s", kind.name);
        }
    }
}

void addTraffic(HostFigures* host, const char* interface, const char* direction, double bytes, double seconds)
{
    char name[96];
    _kor_snprintf(name, sizeof(name), "%s %s", interface, direction);
    double grown = growth(host, name, bytes);
    if (grown >= 0 && seconds > 0) {
        addFigure(host, grown / 1024 / seconds, "kB/s", "network/%s/%s", interface, direction);
    }
}

// A line of /proc/net/dev: "lo: bytes packets ... (8 numbers) bytes packets ...".
void readNetwork(HostFigures* host, char* line, double seconds)
{
    char interface[64];
    double received = 0;
    double sent = 0;
    char* colon = std::strrchr(line, ':');
    if (colon == nullptr) {
        return;
    }
    *colon = ' ';
    if (std::sscanf(line, "%63s %lf %*s %*s %*s %*s %*s %*s %*s %lf", interface, &received, &sent) == 3) {
        makeLevel(interface);
        addTraffic(host, interface, "received", received, seconds);
        addTraffic(host, interface, "sent", sent, seconds);
    }
}

void readLoad(HostFigures* host, const char* line)
{
    double load[3];
    if (std::sscanf(line, "%lf %lf %lf", &load[0], &load[1], &load[2]) == 3) {
        addFigure(host, load[0], "", "load/1");
        addFigure(host, load[1], "", "load/5");
        addFigure(host, load[2], "", "load/15");
    }
}

} // namespace

void readFigures(HostFigures* host, double seconds)
{
    host->count = 0;
    forEachLine("/proc/stat", [host](const char* line) { readProcessor(host, line); });
    forEachLine("/proc/meminfo", [host](const char* line) { readMemory(host, line); });
    forEachLine("/proc/net/dev", [host, seconds](char* line) { readNetwork(host, line, seconds); });
    forEachLine("/proc/loadavg", [host](const char* line) { readLoad(host, line); });
}

void readHostName(char* name, uint32_t size)
{
    if (gethostname(name, size) != 0) {
        _kor_StringCopy(name, size, "this", 0);
    }
    name[size - 1] = 0;
    makeLevel(name);
}
