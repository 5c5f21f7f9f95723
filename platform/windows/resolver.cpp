// resolver.cpp (Windows) - the resolver of Winsock.

#include "platform/resolver.h"

namespace kor::platform {

const int32_t resolverNotFound = WSAHOST_NOT_FOUND;
const int32_t resolverTryAgain = WSATRY_AGAIN;

int32_t resolve(const char* host, const char* service, const addrinfo* hints, addrinfo** list)
{
    return isStrayNumber(service, hints) ? EAI_SERVICE : getaddrinfo(host, service, hints, list);
}

void freeResolved(addrinfo* list)
{
    freeaddrinfo(list);
}

int32_t addressText(const sockaddr* address, int32_t length, char* host, uint32_t hostSize, char* service,
                    uint32_t serviceSize, int32_t flags)
{
    return getnameinfo(address, length, host, hostSize, service, serviceSize, flags);
}

bool hostName(char* buffer, uint32_t size)
{
    return gethostname(buffer, static_cast<int>(size)) == 0;
}

} // namespace kor::platform
