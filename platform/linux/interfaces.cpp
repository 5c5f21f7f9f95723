// interfaces.cpp (Linux) - the list of IPv4 addresses by ioctl, which needs no heap; all addresses by getifaddrs.

#include "platform/interfaces.h"

#include <cerrno>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kor::platform {
namespace {

struct FlagPair {
    unsigned system;
    uint32_t ours;
};

constexpr FlagPair flagPairs[] = {{IFF_BROADCAST, interfaceBroadcast},
                                  {IFF_LOOPBACK, interfaceLoopback},
                                  {IFF_POINTOPOINT, interfacePointToPoint},
                                  {IFF_MULTICAST, interfaceMulticast}};

uint32_t flagsOf(unsigned system, unsigned upMask)
{
    uint32_t flags = (system & upMask) == upMask ? interfaceUp : 0;
    for (const FlagPair& pair : flagPairs) {
        flags |= (system & pair.system) != 0 ? pair.ours : 0;
    }
    return flags;
}

uint32_t addressIn(const sockaddr& address)
{
    return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr;
}

// Flags and mask of one address. An interface that has gone meanwhile is down.
Ipv4Interface describe(int socket, const ifreq& listed)
{
    Ipv4Interface one = {0, addressIn(listed.ifr_addr), 0};
    ifreq request = listed;
    if (ioctl(socket, SIOCGIFNETMASK, &request) == 0) {
        one.netmask = addressIn(request.ifr_netmask);
        request = listed;
        if (ioctl(socket, SIOCGIFFLAGS, &request) == 0) {
            one.flags = flagsOf(static_cast<unsigned short>(request.ifr_flags), IFF_UP);
        }
    }
    return one;
}

bool listWith(int socket, Ipv4Interface (&list)[maxInterfaces], uint32_t* count)
{
    ifreq requests[maxInterfaces];
    ifconf all = {};
    all.ifc_len = sizeof requests;
    all.ifc_req = requests;
    if (ioctl(socket, SIOCGIFCONF, &all) != 0) {
        return false;
    }
    *count = static_cast<uint32_t>(static_cast<size_t>(all.ifc_len) / sizeof(ifreq));
    for (uint32_t i = 0; i < *count; i++) {
        list[i] = describe(socket, requests[i]);
    }
    return true;
}

bool isInternet(const sockaddr* address)
{
    return address != nullptr && (address->sa_family == AF_INET || address->sa_family == AF_INET6);
}

} // namespace

const int32_t errorNoMemory = ENOMEM;

bool listInterfaces(Ipv4Interface (&list)[maxInterfaces], uint32_t* count)
{
    int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        return false;
    }
    bool listed = listWith(socket, list, count);
    int error = errno;
    close(socket);
    errno = error;
    return listed;
}

int32_t walkAdapters(AdapterVisit visit, void* context)
{
    ifaddrs* list = nullptr;
    errno = ENOMEM; // a failure that is no system call's is the heap's
    if (getifaddrs(&list) != 0) {
        return errno;
    }
    for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
        if (isInternet(one->ifa_addr) &&
            !visit(context, {one->ifa_name, flagsOf(one->ifa_flags, IFF_UP | IFF_RUNNING), one->ifa_addr})) {
            break;
        }
    }
    freeifaddrs(list);
    return 0;
}

} // namespace kor::platform
