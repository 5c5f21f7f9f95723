// process.cpp (Linux) - user and group databases, os-release, resource usage, the process's status file.

#include "platform/process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace kor::platform {

namespace {

int findUser(uint32_t id, char* scratch, size_t size, const char** name)
{
    passwd record;
    passwd* found = nullptr;
    int error = getpwuid_r(id, &record, scratch, size, &found);
    *name = found != nullptr ? found->pw_name : nullptr;
    return error;
}

int findGroup(uint32_t id, char* scratch, size_t size, const char** name)
{
    group record;
    group* found = nullptr;
    int error = getgrgid_r(id, &record, scratch, size, &found);
    *name = found != nullptr ? found->gr_name : nullptr;
    return error;
}

using Find = int (*)(uint32_t id, char* scratch, size_t size, const char** name);

// The name behind an id, or the id itself if it has none. A record can be of any length (a group names its members), so
// the scratch space grows until the record fits.
bool nameOf(uint32_t id, Find find, char* buffer, uint32_t size)
{
    constexpr size_t largest = size_t{1} << 24;
    for (size_t scratchSize = 1024; scratchSize <= largest; scratchSize *= 4) {
        auto* scratch = static_cast<char*>(malloc(scratchSize));
        if (scratch == nullptr) {
            return false;
        }
        const char* name;
        int error = find(id, scratch, scratchSize, &name);
        if (name != nullptr) {
            snprintf(buffer, size, "%s", name);
        } else if (error != ERANGE) {
            snprintf(buffer, size, "%u", id);
        }
        free(scratch);
        if (error != ERANGE) {
            return true;
        }
    }
    return false;
}

// Reads the head of a file, terminated; false if it cannot be read or is empty.
bool readHead(const char* path, char* buffer, size_t size)
{
    int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    size_t length = 0;
    ssize_t count = 0;
    while (length < size - 1 && (count = read(file, buffer + length, size - 1 - length)) != 0) {
        if (count < 0 && errno != EINTR) {
            break;
        }
        length += count > 0 ? static_cast<size_t>(count) : 0;
    }
    close(file);
    buffer[length] = '\0';
    return length != 0;
}

// What stands behind `key` at the start of a line, up to the line's end; NULL if no line starts so.
const char* valueOf(const char* text, const char* key, size_t* length)
{
    size_t keyLength = strlen(key);
    for (const char* line = text; line != nullptr; line = strchr(line, '\n')) {
        line += *line == '\n';
        if (strncmp(line, key, keyLength) == 0) {
            *length = strcspn(line + keyLength, "\n");
            return line + keyLength;
        }
    }
    return nullptr;
}

bool distributionName(const char* path, char* buffer, uint32_t size)
{
    char text[4096];
    size_t length = 0;
    const char* name = readHead(path, text, sizeof text) ? valueOf(text, "PRETTY_NAME=", &length) : nullptr;
    if (name != nullptr && length >= 2 && (*name == '"' || *name == '\'') && name[length - 1] == *name) {
        name++;
        length -= 2;
    }
    if (name == nullptr || length == 0) {
        return false;
    }
    snprintf(buffer, size, "%.*s", static_cast<int>(length), name);
    return true;
}

uint64_t statusBytes(const char* status, const char* key)
{
    size_t length;
    const char* value = valueOf(status, key, &length);
    return value == nullptr ? 0 : strtoull(value, nullptr, 10) * 1024; // the file counts in KiB
}

uint64_t microseconds(const timeval& time)
{
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000 + static_cast<uint64_t>(time.tv_usec);
}

} // namespace

uint32_t processId()
{
    return static_cast<uint32_t>(getpid());
}

bool systemUser(char* buffer, uint32_t size)
{
    return nameOf(getuid(), findUser, buffer, size);
}

bool effectiveUser(char* buffer, uint32_t size)
{
    return nameOf(geteuid(), findUser, buffer, size);
}

bool systemGroup(char* buffer, uint32_t size)
{
    return nameOf(getgid(), findGroup, buffer, size);
}

bool effectiveGroup(char* buffer, uint32_t size)
{
    return nameOf(getegid(), findGroup, buffer, size);
}

bool systemName(char* buffer, uint32_t size)
{
    if (distributionName("/etc/os-release", buffer, size) || distributionName("/usr/lib/os-release", buffer, size)) {
        return true;
    }
    utsname kernel;
    return uname(&kernel) == 0 && snprintf(buffer, size, "%s %s", kernel.sysname, kernel.release) > 0;
}

bool processTimes(ProcessTimes& times)
{
    rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) {
        return false;
    }
    times = {microseconds(usage.ru_utime), microseconds(usage.ru_stime)};
    return true;
}

bool processMemory(ProcessMemory& memory)
{
    char status[8192];
    if (!readHead("/proc/self/status", status, sizeof status)) {
        return false;
    }
    memory = {statusBytes(status, "VmRSS:"), statusBytes(status, "VmHWM:"),
              statusBytes(status, "RssAnon:") + statusBytes(status, "VmSwap:")};
    return true;
}

} // namespace kor::platform
