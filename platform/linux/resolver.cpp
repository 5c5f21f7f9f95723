// resolver.cpp (Linux) - the C library's resolver.

#include "platform/resolver.h"

#include <unistd.h>

namespace kor::platform {

const int32_t resolverNotFound = EAI_NONAME;
const int32_t resolverTryAgain = EAI_AGAIN;

int32_t resolve(const char* host, const char* service, const addrinfo* hints, addrinfo** list)
{
    if (isStrayNumber(service, hints)) {
        return EAI_SERVICE;
    }
    addrinfo asked = *hints;
    if ((asked.ai_flags & AI_NUMERICHOST) != 0) {
        asked.ai_flags &= ~AI_ADDRCONFIG; // ::1 would not be found where loopback is the only IPv6 interface
    }
    return getaddrinfo(host, service, &asked, list);
}

void freeResolved(addrinfo* list)
{
    freeaddrinfo(list);
}

int32_t addressText(const sockaddr* address, int32_t length, char* host, uint32_t hostSize, char* service,
                    uint32_t serviceSize, int32_t flags)
{
    return getnameinfo(address, static_cast<socklen_t>(length), host, hostSize, service, serviceSize, flags);
}

bool hostName(char* buffer, uint32_t size)
{
    return gethostname(buffer, size) == 0;
}

} // namespace kor::platform
