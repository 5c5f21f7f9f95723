// environment.cpp (Windows) - the C runtime's environment; an empty value removes.

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
    return _putenv_s(name, value);
}

int32_t unsetEnvironment(const char* name)
{
    _putenv_s(name, ""); // fails for a variable that is not there, which is no error here
    return getenv(name) == nullptr ? 0 : errno;
}

} // namespace kor::platform
