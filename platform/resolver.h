// resolver.h - the system's resolver: names to addresses and back. Its numbers are results, not the last error.

#pragma once

#include "platform/socket.h"

#include <cstdlib>

namespace kor::platform {

// Numbers of the resolver that a rule compares with; errorText knows them all.
extern const int32_t resolverNotFound; ///< there is no such host
extern const int32_t resolverTryAgain; ///< a name server fails for the time being

/// A number that is not told as such by AI_NUMERICSERV: no port. The systems would take its low 16 bits for one.
inline bool isStrayNumber(const char* service, const addrinfo* hints)
{
    if (service == nullptr || (hints->ai_flags & AI_NUMERICSERV) != 0) {
        return false;
    }
    char* end;
    std::strtol(service, &end, 10);
    return end != service && *end == '\0';
}

/// Asks for the addresses of a host and a service: 0 and a list, or the resolver's number. A numeric host is not held
/// against the families that this machine is configured for. A stray number is no service that there is.
int32_t resolve(const char* host, const char* service, const addrinfo* hints, addrinfo** list);
void freeResolved(addrinfo* list);

/// Host and service of an address as text; either buffer may be NULL with size 0. 0, or the resolver's number.
int32_t addressText(const sockaddr* address, int32_t length, char* host, uint32_t hostSize, char* service,
                    uint32_t serviceSize, int32_t flags);

bool hostName(char* buffer, uint32_t size); ///< false, and the last socket error, if it does not fit, for instance

} // namespace kor::platform
