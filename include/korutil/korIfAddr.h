// korIfAddr.h - a walk over the addresses, IPv4 and IPv6, of this machine's adapters.
//
//     korIfAddr* list = NULL;
//     _kor_getifaddrs(KOR_AT(ex, depth), &list);
//     for (const korIfAddr* one = list; one != NULL; one = one->next)
//         use(one->name, one->addr);
//     _kor_freeifaddrs(KOR_AT_D(depth, ex), list);

#ifndef KORUTIL_KORIFADDR_H
#define KORUTIL_KORIFADDR_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

struct sockaddr;

/// One address of an adapter. An adapter with two addresses has two elements.
typedef struct korIfAddr {
    struct korIfAddr* next;
    char* name;                   ///< the adapter's; owned
    uint32_t flags;               ///< KOR_IF_UP, KOR_IF_LOOPBACK, KOR_IF_POINT_TO_POINT, KOR_IF_MULTICAST
    struct sockaddr* addr;        ///< the address; owned
    struct sockaddr* netmask;     ///< NULL
    struct sockaddr* broadcast;   ///< NULL
    struct sockaddr* destination; ///< NULL
} korIfAddr;

/// Gives a list of all addresses, in the system's order; NULL on a failure. The caller frees it. Any thread. Errors: 6
/// "GetAdapatersAddresses", with the system's number; 2.
KOR_API void _kor_getifaddrs(korEx* ex, uint8_t depth, korIfAddr** list);

/// Frees such a list. NULL is accepted. Works with an error pending.
KOR_API void _kor_freeifaddrs(uint8_t depth, korEx* ex, korIfAddr* list);

KOR_END_DECLS

#endif
