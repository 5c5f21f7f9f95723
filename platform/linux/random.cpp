// random.cpp (Linux) - the kernel's generator, which needs no opening.

#include "platform/random.h"

#include <cerrno>
#include <sys/random.h>

namespace kor::platform {

bool openRandom()
{
    return fillRandom(nullptr, 0);
}

bool closeRandom()
{
    return true;
}

bool fillRandom(void* buffer, uint32_t length)
{
    auto* next = static_cast<uint8_t*>(buffer);
    ssize_t filled;
    do {
        filled = getrandom(next, length, 0);
        if (filled > 0) {
            next += filled;
            length -= static_cast<uint32_t>(filled);
        }
    } while (filled < 0 ? errno == EINTR : length != 0);
    return filled >= 0;
}

} // namespace kor::platform
