// error.cpp (Linux) - errno stands for the last-error state; texts come from the C library and the resolver.

#include "platform/error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netdb.h>

namespace kor::platform {

LastErrors lastErrors()
{
    return {errno, 0, 0};
}

void restoreLastErrors(const LastErrors& saved)
{
    errno = saved.runtime;
}

int32_t lastSystemError()
{
    return errno;
}

void setLastSystemError(int32_t error)
{
    errno = error;
}

bool errorText(int32_t error, char* buffer, uint32_t size)
{
    if (size == 0) {
        return false;
    }
    const char* text = error < 0 ? gai_strerror(error) : strerrordesc_np(error);
    if (text == nullptr || std::strcmp(text, "Unknown error") == 0) { // what the resolver says of a stranger
        buffer[0] = '\0';
        return false;
    }
    std::snprintf(buffer, size, "%s", text);
    return true;
}

const int32_t errorAlreadyExists = EEXIST;
const int32_t errorTimedOut = ETIMEDOUT;

} // namespace kor::platform
