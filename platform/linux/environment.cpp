// environment.cpp (Linux) - the C library's environment.

#include "platform/environment.h"

#include <cerrno>
#include <cstdlib>

namespace kor::platform {

const char* getEnvironment(const char* name)
{
    return getenv(name);
}

int32_t setEnvironment(const char* name, const char* value)
{
    return setenv(name, value, 1) == 0 ? 0 : errno;
}

int32_t unsetEnvironment(const char* name)
{
    return unsetenv(name) == 0 ? 0 : errno;
}

} // namespace kor::platform
