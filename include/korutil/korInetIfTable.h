// korInetIfTable.h - the process's table of this machine's IPv4 interfaces: which one has this address, which one this
// subnet, which one a user's setting means.
//
// The table is made once, before the lookups, by _korInetIfTable_Create; the lookups take no lock. All addresses and
// masks are in network order. The outs of a lookup may each be NULL, and are written only if it succeeds. Without a
// table a lookup finds nothing.

#ifndef KORUTIL_KORINETIFTABLE_H
#define KORUTIL_KORINETIFTABLE_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

#define KOR_INET_IF_NAME_SIZE 20

/// Flags of an interface, in the table and in _kor_getifaddrs's list.
#define KOR_IF_UP 1u
#define KOR_IF_BROADCAST 2u
#define KOR_IF_LOOPBACK 4u
#define KOR_IF_POINT_TO_POINT 8u
#define KOR_IF_MULTICAST 16u

/// One interface of the table.
typedef struct korInetIfRec {
    char ifName[KOR_INET_IF_NAME_SIZE]; ///< "IP00", "IP01", ... or "loopback"
    uint32_t network;                   ///< `address` and `netmask`
    uint32_t address;
    uint32_t broadcast; ///< `address` or the inverse of `netmask`
    uint32_t netmask;
    uint32_t flags; ///< KOR_IF_UP, KOR_IF_BROADCAST, ...
} korInetIfRec;

/// Makes the table if there is none, and gives it and its count; both outs may be NULL. The addresses that the
/// machine's own name resolves to come first, in the resolver's order, then the others that are up and no loopback, in
/// the system's, and "loopback" last; 32 records at most. If the name resolves to nothing, all are in the system's
/// order. While the machine's own address is missing (a network that is still coming up), the table is made anew every
/// 100 milliseconds, 50 times at most. Any thread. Errors: 6, with the system's number; 2; there is no table then.
KOR_API void _korInetIfTable_Create(korEx* ex, uint8_t depth, const korInetIfRec** table, uint32_t* count);

/// Frees the table, at the end of the process: nobody may look anything up any more. Works with an error pending.
KOR_API void _korInetIfTable_Destroy(uint8_t depth, korEx* ex);

/// The table and its count. Errors: 1, no description: an out is NULL; 5, no description: no table.
KOR_API void _korInetIfTable_GetTable(korEx* ex, uint8_t depth, const korInetIfRec** table, uint32_t* count);

/// The first record with this address, or NULL. Errors: 9 "Lookup by address failed.".
KOR_API const korInetIfRec* _korInetIfTable_GetRecByAddr(korEx* ex, uint8_t depth, uint32_t address);

/// The interface with this address. Errors: 9 "Lookup by address failed.".
KOR_API void _korInetIfTable_GetInfoByAddr(korEx* ex, uint8_t depth, uint32_t address, uint32_t* outAddress,
                                           uint32_t* outBroadcast, uint32_t* outNetmask);

/// The interface with exactly this name. Errors: 9 "Lookup by interface name failed.".
KOR_API void _korInetIfTable_GetInfoByIfName(korEx* ex, uint8_t depth, const char* name, uint32_t* outAddress,
                                             uint32_t* outBroadcast, uint32_t* outNetmask);

/// The interface with the address of `host`, or with NULL of this machine's own name. Errors: those of
/// _kor_GetHostByName and _kor_GetHostIp; 9 "Lookup by address failed.".
KOR_API void _korInetIfTable_GetInfoByHostname(korEx* ex, uint8_t depth, const char* host, uint32_t* outAddress,
                                               uint32_t* outBroadcast, uint32_t* outNetmask);

/// The first interface of a network, by that network's own mask. A net may leave out its trailing zero bytes: 10 stands
/// for 10.0.0.0. Errors: 1, no description: the net is 0; 9 "Lookup by subnet address failed.".
KOR_API void _korInetIfTable_GetInfoByNet(korEx* ex, uint8_t depth, uint32_t net, uint32_t* outAddress,
                                          uint32_t* outBroadcast, uint32_t* outNetmask);

/// The same, but an interface fits if its address and the net agree under `mask`; a mask of 0 is as if there were none.
KOR_API void _korInetIfTable_GetInfoByNetWithMask(korEx* ex, uint8_t depth, uint32_t net, uint32_t* outAddress,
                                                  uint32_t* outBroadcast, uint32_t* outNetmask, uint32_t mask);

/// By a network's name. There is no such directory: always code 11, of _kor_GetNetByName.
KOR_API void _korInetIfTable_GetInfoByNetName(korEx* ex, uint8_t depth, const char* name, uint32_t* outAddress,
                                              uint32_t* outBroadcast, uint32_t* outNetmask);

/// Whatever a user may mean: an address, a net, a host's name, a net's name, an interface's name, in this order. Never
/// raises: if nothing fits, the outs stay as they were, so set them to something that is no answer first.
KOR_API void _korInetIfTable_GetInfoByString(korEx* ex, uint8_t depth, const char* text, uint32_t* outAddress,
                                             uint32_t* outBroadcast, uint32_t* outNetmask);

// Declared as the C library declares its own, which has the same name: a program may include both headers.
#ifdef __cplusplus
#define KOR_NOTHROW noexcept
#else
#define KOR_NOTHROW
#endif

/// The network number of up to four parts with dots between: octal after "0", hexadecimal after "0x", else decimal.
/// Each part is cut to 8 bits, and an empty one is 0. A blank ends the text. In host order: "10.1" is 0x0A01. All ones
/// for anything else.
KOR_API uint32_t inet_network(const char* text) KOR_NOTHROW;

#undef KOR_NOTHROW

KOR_END_DECLS

#endif
