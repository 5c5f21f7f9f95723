// interfaces.cpp (Windows) - the list of IPv4 addresses by an ioctl of Winsock; all addresses by GetAdaptersAddresses.

#include "platform/interfaces.h"

#include <cstdlib>
#include <iphlpapi.h>

namespace kor::platform {
namespace {

static_assert(interfaceUp == IFF_UP && interfaceBroadcast == IFF_BROADCAST && interfaceLoopback == IFF_LOOPBACK);
static_assert(interfacePointToPoint == IFF_POINTTOPOINT && interfaceMulticast == IFF_MULTICAST);
static_assert(maxInterfaces * sizeof(INTERFACE_INFO) == 2432);

constexpr ULONG pointToPointType = 22;
constexpr int maxAttempts = 3;

bool isInternet(const sockaddr* address)
{
    return address != nullptr && (address->sa_family == AF_INET || address->sa_family == AF_INET6);
}

uint32_t flagsOf(const IP_ADAPTER_ADDRESSES& adapter)
{
    uint32_t flags = adapter.OperStatus == IfOperStatusUp ? interfaceUp : 0;
    flags |= adapter.IfType == IF_TYPE_SOFTWARE_LOOPBACK ? interfaceLoopback : 0;
    flags |= adapter.IfType == pointToPointType ? interfacePointToPoint : 0;
    flags |= (adapter.Flags & IP_ADAPTER_NO_MULTICAST) == 0 ? interfaceMulticast : 0;
    return flags;
}

bool visitAll(const IP_ADAPTER_ADDRESSES& adapter, AdapterVisit visit, void* context)
{
    for (auto* one = adapter.FirstUnicastAddress; one != nullptr; one = one->Next) {
        const sockaddr* address = one->Address.lpSockaddr;
        if (isInternet(address) && !visit(context, {adapter.AdapterName, flagsOf(adapter), address})) {
            return false;
        }
    }
    return true;
}

// Fetches the adapters into a block that the caller frees. It grows to the size that the system asks for; between two
// calls that may have changed again.
ULONG fetchAdapters(void** block)
{
    ULONG size = 1500;
    ULONG error = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < maxAttempts && error == ERROR_BUFFER_OVERFLOW; attempt++) {
        std::free(*block);
        *block = std::malloc(size);
        if (*block == nullptr) {
            return ERROR_NOT_ENOUGH_MEMORY;
        }
        auto* adapters = static_cast<IP_ADAPTER_ADDRESSES*>(*block);
        error = GetAdaptersAddresses(AF_UNSPEC, GAA_FLAG_INCLUDE_PREFIX, nullptr, adapters, &size);
    }
    return error;
}

} // namespace

const int32_t errorNoMemory = ERROR_NOT_ENOUGH_MEMORY;

bool listInterfaces(Ipv4Interface (&list)[maxInterfaces], uint32_t* count)
{
    SOCKET socket = WSASocketW(AF_INET, SOCK_DGRAM, 0, nullptr, 0, 0);
    if (socket == INVALID_SOCKET) {
        return false;
    }
    INTERFACE_INFO told[maxInterfaces];
    DWORD size = 0;
    int result = WSAIoctl(socket, SIO_GET_INTERFACE_LIST, nullptr, 0, told, sizeof told, &size, nullptr, nullptr);
    int error = WSAGetLastError();
    closesocket(socket);
    WSASetLastError(error);
    *count = result == 0 ? size / sizeof(INTERFACE_INFO) : 0;
    for (uint32_t i = 0; i < *count; i++) {
        list[i] = {told[i].iiFlags, told[i].iiAddress.AddressIn.sin_addr.s_addr,
                   told[i].iiNetmask.AddressIn.sin_addr.s_addr};
    }
    return result == 0;
}

int32_t walkAdapters(AdapterVisit visit, void* context)
{
    void* block = nullptr;
    ULONG error = fetchAdapters(&block);
    if (error == NO_ERROR) {
        auto* adapter = static_cast<const IP_ADAPTER_ADDRESSES*>(block);
        while (adapter != nullptr && visitAll(*adapter, visit, context)) {
            adapter = adapter->Next;
        }
    }
    std::free(block);
    return static_cast<int32_t>(error);
}

} // namespace kor::platform
