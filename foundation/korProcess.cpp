// korProcess.cpp - the environment, and facts about the process: checks and units over what the platform tells.

#include "korutil/korProcess.h"

#include "platform/environment.h"
#include "platform/process.h"

#include <cerrno>
#include <cstring>

namespace {

bool isVariableName(const char* name)
{
    return name != nullptr && *name != '\0' && std::strchr(name, '=') == nullptr;
}

uint64_t kibibytes(uint64_t bytes)
{
    return (bytes + 1023) >> 10;
}

} // namespace

const char* _kor_getenv(const char* name)
{
    return isVariableName(name) ? kor::platform::getEnvironment(name) : nullptr;
}

int32_t _kor_setenv(const char* name, const char* value)
{
    if (!isVariableName(name) || value == nullptr) {
        return EINVAL;
    }
    // Windows has no empty variables: the same holds everywhere.
    return *value == '\0' ? kor::platform::unsetEnvironment(name) : kor::platform::setEnvironment(name, value);
}

int32_t _kor_unsetenv(const char* name)
{
    return isVariableName(name) ? kor::platform::unsetEnvironment(name) : EINVAL;
}

uint32_t _kor_GetProcessId()
{
    return kor::platform::processId();
}

bool _kor_GetSystemUser(char* buffer, uint32_t size)
{
    return size >= KOR_NAME_SIZE && kor::platform::systemUser(buffer, size);
}

bool _kor_GetEffectiveUser(char* buffer, uint32_t size)
{
    return size >= KOR_NAME_SIZE && kor::platform::effectiveUser(buffer, size);
}

bool _kor_GetSystemGroup(char* buffer, uint32_t size)
{
    return size >= KOR_NAME_SIZE && kor::platform::systemGroup(buffer, size);
}

bool _kor_GetEffectiveGroup(char* buffer, uint32_t size)
{
    return size >= KOR_NAME_SIZE && kor::platform::effectiveGroup(buffer, size);
}

bool _kor_GetSystemName(char* buffer, uint32_t size)
{
    return size >= KOR_NAME_SIZE && kor::platform::systemName(buffer, size);
}

bool _kor_GetProcessCPUTime(uint64_t* user, uint64_t* kernel, uint64_t* total)
{
    kor::platform::ProcessTimes times;
    if (!kor::platform::processTimes(times)) {
        return false;
    }
    *user = times.user;
    *kernel = times.kernel;
    *total = times.user + times.kernel;
    return true;
}

bool _kor_GetProcessMemoryUsage(uint64_t* workingSet, uint64_t* peakWorkingSet, uint64_t* privateBytes)
{
    kor::platform::ProcessMemory memory;
    if (!kor::platform::processMemory(memory)) {
        return false;
    }
    *workingSet = kibibytes(memory.resident);
    *peakWorkingSet = kibibytes(memory.peakResident);
    *privateBytes = kibibytes(memory.unshared);
    return true;
}
