// korHostResolutions.h - a host and a service as a list of addresses, and addresses as text.
//
// A numeric host and port never go to the resolver; a name that is not found is an empty list and no error; a temporary
// failure is asked again at once; a slow resolver is reported in the log.
//
//     korHostResolutions* found = _korHostResolutions_Create(KOR_AT(ex, depth), "localhost", "1883", 0, SOCK_STREAM);
//     korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, depth), found);
//     while (info != NULL) {
//         const struct sockaddr* address = _korHostInfo_GetAddress(KOR_AT(ex, depth), info);
//         ...
//         info = _korHostResolutions_GetNext(KOR_AT(ex, depth), found);
//     }
//     _korHostResolutions_Free(KOR_AT_D(depth, ex), found);
//
// A resolver's failure is code 6 with its text in the description and its code in `osError`. The library must be open.

#ifndef KORUTIL_KORHOSTRESOLUTIONS_H
#define KORUTIL_KORHOSTRESOLUTIONS_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

struct addrinfo;
struct sockaddr;

/// Room for the text of any host.
#define KOR_HOST_NAME_SIZE 1025

/// What a walk hands out: part of its korHostResolutions, gone with it and changed by its next step.
typedef struct korHostInfo {
    struct addrinfo* current;      ///< the system's record that it stands for
    char name[KOR_HOST_NAME_SIZE]; ///< what the name operations last wrote
} korHostInfo;

/// A list of addresses with the place of one walk. One thread at a time; others take copies.
typedef struct korHostResolutions {
    struct addrinfo* list;             ///< the addresses
    struct addrinfo* current;          ///< the one last handed out, NULL before the first
    uint8_t done;                      ///< 1 = the walk has passed the end
    uint8_t selfMade;                  ///< 1 = the list is the library's own, of one element
    korHostInfo info;                  ///< what the walk hands out
    struct korHostResolutions* parent; ///< the owner of the list; NULL in the owner
    int64_t references;                ///< atomic
} korHostResolutions;

// ---- Lists ----------------------------------------------------------------------------------------------------------

/// Resolves `host` (a name, a numeric address, NULL for this machine) and `service` (a name, a decimal port, NULL for
/// none) for sockets of `socketType`, 0 for any. With `passive` not 0 and no host the addresses are those to listen on,
/// else those to connect to. May block for as long as the system's resolver takes. The caller frees the list.
///
/// A host that is not found gives an empty list. NULL on a failure: 6 "getaddrinfo (host:service) - text", a name
/// server that fails for the time being included, after six calls in all; 2 (no memory).
KOR_API korHostResolutions* _korHostResolutions_Create(korEx* ex, uint8_t depth, const char* host, const char* service,
                                                       uint8_t passive, int32_t socketType);

/// A further walk over the same list, for another thread for instance; the list lives until the last of them is freed.
/// The caller frees it. NULL on a failure: 2; 1 "resolution is missing".
KOR_API korHostResolutions* _korHostResolutions_Copy(korEx* ex, uint8_t depth, korHostResolutions* resolution);

/// Frees a list or a copy; NULL is accepted. Works with an error pending.
KOR_API void _korHostResolutions_Free(uint8_t depth, korEx* ex, korHostResolutions* resolution);

/// The first address, IPv4 or IPv6, or NULL if there is none. Begins the walk anew.
KOR_API korHostInfo* _korHostResolutions_GetFirst(korEx* ex, uint8_t depth, korHostResolutions* resolution);

/// The next address, or NULL after the last one.
KOR_API korHostInfo* _korHostResolutions_GetNext(korEx* ex, uint8_t depth, korHostResolutions* resolution);

/// What the walk stands at. NULL only for a NULL resolution or with an error pending: before the first step the info
/// has no address.
KOR_API korHostInfo* _korHostResolutions_GetCurrent(korEx* ex, uint8_t depth, korHostResolutions* resolution);

/// Moves IPv6 addresses ahead of IPv4 ones; others keep their order. Before the first walk, and before copies are made.
/// Only for a list that has at most one IPv4 address ahead of its first IPv6 address: with more it never comes back.
KOR_API void _korHostResolutions_PreferIPv6(korEx* ex, uint8_t depth, korHostResolutions* resolution);

// ---- One address of a walk ------------------------------------------------------------------------------------------

/// The address, owned by the list; NULL before the first step of the walk.
KOR_API const struct sockaddr* _korHostInfo_GetAddress(korEx* ex, uint8_t depth, const korHostInfo* info);

/// The name of the address as the system's resolver knows it, else its numeric text; may block. The text is the info's.
/// NULL on a failure: 6 "getaddrinfo - text"; 1 "address is missing".
KOR_API const char* _korHostInfo_GetName(korEx* ex, uint8_t depth, korHostInfo* info);

/// The numeric text of the address, the port left out. The text is the info's. NULL on a failure, as above.
KOR_API const char* _korHostInfo_GetNumericName(korEx* ex, uint8_t depth, korHostInfo* info);

// ---- Address text ---------------------------------------------------------------------------------------------------

/// The length of a socket address by its family: 28 for IPv6, 16 for every other, 0 for NULL.
KOR_API int32_t _kor_GetAddressLength(const struct sockaddr* address);

/// Writes "10.0.0.1:80" or "[::1]:80" into `buffer` of `size` bytes, cut to fit and terminated. An empty text on a
/// failure: 6 "getaddrinfo - text".
KOR_API void _kor_AddressToString(korEx* ex, uint8_t depth, const struct sockaddr* address, char* buffer, int32_t size);

/// Writes the numeric host and the port into two buffers, either of which may be NULL, cut to fit and terminated. Empty
/// texts on a failure: 6 "getaddrinfo - text".
KOR_API void _kor_AddressToHostPort(korEx* ex, uint8_t depth, const struct sockaddr* address, char* host,
                                    int32_t hostSize, char* port, int32_t portSize);

// ---- This machine, and names as plain IPv4 addresses ----------------------------------------------------------------
//
// These work with an error pending; their own failures are then dropped.

/// This machine's name, terminated whatever happens. Gives `size`. An empty text on a failure: 6 "gethostname".
KOR_API int32_t _kor_GetHostName(uint8_t depth, korEx* ex, char* buffer, int32_t size);

/// The IPv4 address, in network order, that this machine's name stands for; resolved once for each name. Nothing is
/// written on a failure: as _kor_GetHostName and _kor_GetHostByName.
KOR_API void _kor_GetHostIp(uint8_t depth, korEx* ex, uint32_t* address);

/// The first IPv4 address of a name or a numeric text, in network order. Nothing is written on a failure:
/// 9 "Could not get host by name", for an IPv6 text too; those of _korHostResolutions_Create.
KOR_API void _kor_GetHostByName(uint8_t depth, korEx* ex, const char* name, uint32_t* address);

/// Not offered: raises code 11 "getnetbyname", on every system.
KOR_API void _kor_GetNetByName(uint8_t depth, korEx* ex, const char* name, uint32_t* net);

KOR_END_DECLS

#endif
