// interfaces.h - this machine's network interfaces and their addresses.

#pragma once

#include "platform/socket.h"

namespace kor::platform {

extern const int32_t errorNoMemory; ///< the heap had nothing left

// Flags of an interface, on both systems.
inline constexpr uint32_t interfaceUp = 1;
inline constexpr uint32_t interfaceBroadcast = 2;
inline constexpr uint32_t interfaceLoopback = 4;
inline constexpr uint32_t interfacePointToPoint = 8;
inline constexpr uint32_t interfaceMulticast = 16;

/// An IPv4 address of an interface; address and mask are in network order.
struct Ipv4Interface {
    uint32_t flags;
    uint32_t address;
    uint32_t netmask;
};

/// At most this many are told.
inline constexpr uint32_t maxInterfaces = 32;

/// All IPv4 addresses, in the system's order. False, and the last socket error, if the system does not tell.
bool listInterfaces(Ipv4Interface (&list)[maxInterfaces], uint32_t* count);

/// An address, IPv4 or IPv6, of an adapter. Here an adapter is up if it can carry packets.
struct AdapterAddress {
    const char* name;
    uint32_t flags;
    const sockaddr* address;
};

/// Is handed each address; false ends the walk.
using AdapterVisit = bool (*)(void* context, const AdapterAddress& address);

/// Walks over all addresses of all adapters, in the system's order. 0, or the system's error number.
int32_t walkAdapters(AdapterVisit visit, void* context);

} // namespace kor::platform
