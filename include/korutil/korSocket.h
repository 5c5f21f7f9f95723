// korSocket.h - the system's sockets: streams, datagrams, multicast groups. One set of options on every socket, a walk
// over all the addresses of a name, a limit on a connect, and an exception for each failure.
//
// A socket is the system's own number; the library keeps no table of sockets, and a caller may use the system's calls
// beside these.
//
//     korSocket server = _korSocket_CreateListener(KOR_AT(ex, depth), "*", "1883", 0);
//     korSocket client = _korSocket_CreateConnection(KOR_AT(ex, depth), "localhost", "1883", 5000);
//     korSocket accepted = _korSocket_Accept(KOR_AT(ex, depth), server, NULL, NULL);
//     int32_t sent = _korSocket_Send(KOR_AT(ex, depth), client, "hello", 5, 0);
//     int32_t received = _korSocket_Recv(KOR_AT(ex, depth), accepted, buffer, sizeof buffer, 0);
//     _korSocket_Close(KOR_AT_D(depth, ex), client);
//
// A failure of the system is code 6 with the system's number in `osError` and the word of the call as description:
// "socket", "bind", "listen", "connect", "accept", "getsockname", "getpeername", "recv", "send", "ioctlsocket",
// "getsockopt", "setsockopt". On a non-blocking socket that includes a call that would block: its caller looks at
// `osError`. A call that a signal interrupts goes on, and no send ever raises SIGPIPE.
//
// Addresses are the system's socket addresses; ports and plain addresses are in network order throughout. Option levels
// and names, families, types and flags are the system's numbers. Nothing is locked: a socket belongs to the threads
// that use it, and the system lets one thread receive while another one sends. The library must be open.

#ifndef KORUTIL_KORSOCKET_H
#define KORUTIL_KORSOCKET_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

struct sockaddr;

/// The system's number of a socket; -1 is no socket.
typedef int64_t korSocket;

/// No socket: what every function that makes a socket gives on a failure, and what those that close one ignore.
KOR_DATA const korSocket _korSocketInvalid;

/// The system's extended connect (Windows): socket, address and its length, data to send at once, its length, out bytes
/// sent, the overlapped record. Not 0 if it is done.
typedef int32_t (*korConnectEx)(uint64_t socket, const struct sockaddr* address, int32_t length, const void* data,
                                uint32_t size, uint32_t* sent, void* overlapped);
/// Filled as the library starts. NULL on Linux, which has nothing like it.
KOR_DATA korConnectEx ConnectEx;

/// The backlog of a listener whose caller gives 0.
#define KOR_SOCKET_BACKLOG 512
/// How many seconds a blocking close waits for unsent data.
#define KOR_SOCKET_LINGER 2
/// Keep-alive: idle time before the first probe, unless KOR_TCP_KEEPIDLE_VAL sets it, and time between probes, in
/// milliseconds (on Linux rounded up to seconds).
#define KOR_SOCKET_KEEP_IDLE 20000
#define KOR_SOCKET_KEEP_INTERVAL 10000

// ---- Start and stop -------------------------------------------------------------------------------------------------

/// Makes sockets usable, and fills ConnectEx. Called as the library starts. Errors: 6 "WSAStartup",
/// "WSAIoctl", on Windows only.
KOR_API void _korSocket_Startup(korEx* ex, uint8_t depth);

/// The other half, called as the library stops. Gives 0, or -1 if the system refuses. Works with an error pending.
KOR_API int32_t _korSocket_Cleanup(uint8_t depth, korEx* ex);

// ---- Making sockets -------------------------------------------------------------------------------------------------

/// Makes a socket. An IPv6 socket takes no IPv4 traffic; a stream socket sends small pieces at once (no Nagle delay)
/// and lingers 2 seconds at a close. Local sockets get no option. An option that the system refuses is left as it is.
/// On Linux the socket does not pass to programs that are started. -1 on a failure: 6 "socket".
KOR_API korSocket _korSocket_Create(korEx* ex, uint8_t depth, int32_t family, int32_t type, int32_t protocol);

/// Makes a stream socket that listens on the first address of `host` and `service` that can be had. `host` is a name or
/// a numeric address, NULL or "*" for every address of this machine; `service` a name or a decimal port, "0" for a free
/// one. A `backlog` of 0 means 512. On Linux the port may still have connections of an earlier listener. The caller
/// closes the socket. -1 on a failure: 9 "Could not resolve host '...'"; 6 with the words of the last address that was
/// tried; 6 "getaddrinfo (...) - ..."; 2.
KOR_API korSocket _korSocket_CreateListener(korEx* ex, uint8_t depth, const char* host, const char* service,
                                            int32_t backlog);

/// Makes a stream socket that is connected to the first address of `host` and `service` that answers. Addresses are
/// tried one after another, each for at most `timeout` milliseconds; -1 leaves the limit to the system. The socket that
/// comes back is blocking; the caller closes it. -1 on a failure: 9 "Could not resolve host '...'"; 6 "connect" of the
/// last address, with the system's number for a time-out if it did not answer; 6 "poll"; 6 "getaddrinfo (...) -
/// ..."; 2.
KOR_API korSocket _korSocket_CreateConnection(korEx* ex, uint8_t depth, const char* host, const char* service,
                                              int64_t timeout);

/// Not offered: gives -1 and code 11 "local listener not supported on windows", on every system.
KOR_API korSocket _korSocket_CreateLocalListener(korEx* ex, uint8_t depth, const char* path, int32_t backlog);
/// Not offered: gives -1 and code 11 "local connection not supported on windows", on every system.
KOR_API korSocket _korSocket_CreateLocalConnection(korEx* ex, uint8_t depth, const char* path, int64_t timeout);

/// Makes two stream sockets that are connected to each other: on Linux the system's own pair, on Windows a connection
/// over loopback. The caller closes both. On a failure both are -1: 6 with the word of the call, on Linux "socketpair".
KOR_API void _korSocket_CreatePair(korEx* ex, uint8_t depth, korSocket* first, korSocket* second);

// ---- Streams --------------------------------------------------------------------------------------------------------

/// Binds a socket to a local address. Error: 6 "bind".
KOR_API void _korSocket_Bind(korEx* ex, uint8_t depth, korSocket socket, const struct sockaddr* address,
                             int32_t length);

/// Lets connections come; `backlog` goes to the system as it is. Error: 6 "listen".
KOR_API void _korSocket_Listen(korEx* ex, uint8_t depth, korSocket socket, int32_t backlog);

/// Turns keep-alive on and connects. Keep-alive begins after 20 seconds of silence, or after the milliseconds in the
/// environment variable KOR_TCP_KEEPIDLE_VAL, and probes every 10 seconds; a value below 1 leaves the times to the
/// system. Error: 6 "connect".
KOR_API void _korSocket_Connect(korEx* ex, uint8_t depth, korSocket socket, const struct sockaddr* address,
                                int32_t length);

/// Accepts a connection, with keep-alive as for _korSocket_Connect. `address` and `length` get the peer's address, cut
/// to the length they come with; both may be NULL. The caller closes the socket. -1 on a failure: 6 "accept".
KOR_API korSocket _korSocket_Accept(korEx* ex, uint8_t depth, korSocket socket, struct sockaddr* address,
                                    int32_t* length);

/// Receives what is there, at most `length` bytes. Gives the number of bytes, 0 when the peer has closed, -1 on a
/// failure: 6 "recv".
KOR_API int32_t _korSocket_Recv(korEx* ex, uint8_t depth, korSocket socket, void* buffer, int32_t length,
                                int32_t flags);

/// Sends at most `length` bytes. Gives the number that the system took, which may be less, or -1: 6 "send".
KOR_API int32_t _korSocket_Send(korEx* ex, uint8_t depth, korSocket socket, const void* data, int32_t length,
                                int32_t flags);

/// Makes a socket blocking (not 0) or non-blocking (0). Error: 6 "ioctlsocket".
KOR_API void _korSocket_SetBlocking(korEx* ex, uint8_t depth, korSocket socket, uint8_t blocking);

// ---- Addresses and options ------------------------------------------------------------------------------------------

/// The socket's own address, cut to the `*length` that is given. Error: 6 "getsockname".
KOR_API void _korSocket_GetSockName(korEx* ex, uint8_t depth, korSocket socket, struct sockaddr* address,
                                    int32_t* length);
/// The peer's address. Error: 6 "getpeername".
KOR_API void _korSocket_GetPeerName(korEx* ex, uint8_t depth, korSocket socket, struct sockaddr* address,
                                    int32_t* length);

/// The socket's own port in network order, 0 on a failure: 6 "getsockname".
KOR_API uint16_t _korSocket_GetSockPort(korEx* ex, uint8_t depth, korSocket socket);
/// The peer's port in network order, 0 on a failure: 6 "getpeername".
KOR_API uint16_t _korSocket_GetPeerPort(korEx* ex, uint8_t depth, korSocket socket);

/// Reads an option; `*length` is the room at `value` and becomes what was written. Error: 6 "getsockopt".
KOR_API void _korSocket_GetOpt(korEx* ex, uint8_t depth, korSocket socket, int32_t level, int32_t name, void* value,
                               int32_t* length);
/// Sets an option. Error: 6 "setsockopt".
KOR_API void _korSocket_SetOpt(korEx* ex, uint8_t depth, korSocket socket, int32_t level, int32_t name,
                               const void* value, int32_t length);
/// Sets an option whose value is an int. Error: 6 "setsockopt".
KOR_API void _korSocket_SetOptInt(korEx* ex, uint8_t depth, korSocket socket, int32_t level, int32_t name,
                                  int32_t value);

/// Takes the socket's pending error: the system's number, 0 for none. -1 on a failure: 6 "getsockopt".
KOR_API int32_t _korSocket_GetError(korEx* ex, uint8_t depth, korSocket socket);

// ---- Ends. None of these raises, each works with an error pending and ignores -1. -----------------------------------

/// Ends both directions of a connection. Any thread; wakes those that wait on the socket. `ex` may be NULL.
KOR_API void _korSocket_Shutdown(uint8_t depth, korEx* ex, korSocket socket);
/// Ends the sending direction: the peer reads what is under way, then the end. `ex` may be NULL.
KOR_API void _korSocket_ShutdownWrite(uint8_t depth, korEx* ex, korSocket socket);

/// Closes a socket; on a blocking stream waits up to 2 seconds for unsent data. `ex` may be NULL.
KOR_API void _korSocket_Close(uint8_t depth, korEx* ex, korSocket socket);
/// Closes a socket and does not wait; the system sends what it has in its own time.
KOR_API void _korSocket_ForceClose(uint8_t depth, korEx* ex, korSocket socket);

// ---- Datagrams ------------------------------------------------------------------------------------------------------

/// Opens a datagram socket for IPv4, always non-blocking, and puts it in `*socket` whether or not an error is raised;
/// the caller closes it.
///
/// With `bind` not 0 it is bound to `address` and `port`; if that fails and `fallBack` is not 0, to any address and
/// that port: for callers that name a multicast group, which some systems do not let a socket bind. With `reuse` and
/// `port` not 0 other sockets that do the same may share the port. `receiveBuffer` and `sendBuffer` are wanted sizes in
/// bytes: a refused or lesser one is told in a line on standard error and is no failure. Errors: 6 "socket",
/// "setsockopt", "bind", "ioctlsocket", "getsockopt".
KOR_API void _korSocket_OpenUdp(korEx* ex, uint8_t depth, korSocket* socket, uint16_t port, int32_t receiveBuffer,
                                int32_t sendBuffer, uint32_t address, uint8_t bind, uint8_t fallBack, uint8_t reuse);

/// The same for an address of any family. The fall-back keeps the port. Error besides: 1 "address is missing".
KOR_API void _korSocket_OpenUdpAddr(korEx* ex, uint8_t depth, korSocket* socket, const struct sockaddr* address,
                                    int32_t receiveBuffer, int32_t sendBuffer, uint8_t bind, uint8_t fallBack,
                                    uint8_t reuse);

/// Receives one datagram and tells its sender, an IPv4 address and port. Gives the number of bytes, or -1:
/// 6 "usock read failure.". A datagram longer than the buffer is cut (on Windows it is a failure, too).
KOR_API int32_t _korSocket_RecvFrom(korEx* ex, uint8_t depth, korSocket socket, uint32_t* address, uint16_t* port,
                                    void* buffer, int32_t length, int32_t flags);
/// The same for any family; `*addressLength` is the room at `address` and becomes what was written.
KOR_API int32_t _korSocket_RecvFromAddr(korEx* ex, uint8_t depth, korSocket socket, struct sockaddr* address,
                                        int32_t* addressLength, void* buffer, int32_t length, int32_t flags);

/// Sends one datagram to an IPv4 address. Error: 6 "usock sendto error".
KOR_API void _korSocket_SendTo(korEx* ex, uint8_t depth, korSocket socket, uint32_t address, uint16_t port,
                               const void* data, int32_t length);

/// Joins an IPv4 multicast group on the interface with that address, 0 for the system's choice. Error: 6 "setsockopt".
KOR_API void _korSocket_AddGroup(korEx* ex, uint8_t depth, korSocket socket, uint32_t group, uint32_t interfaceAddress);
/// Leaves a group. Error: 6 "setsockopt".
KOR_API void _korSocket_DropGroup(korEx* ex, uint8_t depth, korSocket socket, uint32_t group,
                                  uint32_t interfaceAddress);

/// Sets how many hops datagrams live: those to groups with `multicast` not 0, else the others. Error: 6 "setsockopt".
KOR_API void _korSocket_SetTtl(korEx* ex, uint8_t depth, korSocket socket, uint8_t ttl, uint8_t multicast);

/// Sends datagrams to groups by the interface with that address. Error: 6 "setsockopt".
KOR_API void _korSocket_SetIface(korEx* ex, uint8_t depth, korSocket socket, uint32_t interfaceAddress);

/// The value of a whole-number option of the socket level, 0 on a failure: 6 "getsockopt".
KOR_API int32_t _korSocket_GetBufsize(korEx* ex, uint8_t depth, korSocket socket, int32_t name);
/// The receive buffer as the system tells it; Linux tells twice what a user has of it. 0 on a failure: 6 "getsockopt".
KOR_API int32_t _korSocket_GetRcvbuf(korEx* ex, uint8_t depth, korSocket socket);
/// The send buffer, likewise.
KOR_API int32_t _korSocket_GetSndbuf(korEx* ex, uint8_t depth, korSocket socket);
/// Asks for a receive buffer of so many bytes. Error: 6 "setsockopt".
KOR_API void _korSocket_SetRcvbuf(korEx* ex, uint8_t depth, korSocket socket, int32_t bytes);
/// Asks for a send buffer of so many bytes. Error: 6 "setsockopt".
KOR_API void _korSocket_SetSndbuf(korEx* ex, uint8_t depth, korSocket socket, int32_t bytes);

KOR_END_DECLS

#endif
