// socket.h - the system's sockets. The two systems agree on most calls, records and constants: files in net/ use those
// directly, through the headers that come in here, and this contract has what differs.
//
// What fails gives -1, or false, and sets the last socket error.

#pragma once

#include <cstdint>

#if defined(_WIN32)
#include <winsock2.h>

#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif

namespace kor::platform {

using Socket = int64_t; ///< the system's number, on both
inline constexpr Socket noSocket = -1;

// ---- The library of sockets ----

/// Makes sockets usable and finds the extended connect, NULL if there is none. NULL if all is well, else the word of
/// the call that failed.
const char* startSockets(void** extendedConnect);
int32_t stopSockets(); ///< 0, or what the system says

int32_t lastSocketError(); ///< the number of the last failed socket call: WSAGetLastError, errno on Linux

// Numbers that a rule compares with, as this system's sockets spell them.
extern const int32_t errorWouldBlock;      ///< a receive, a send or an accept would wait
extern const int32_t errorConnectPending;  ///< a connect goes on by itself
extern const int32_t errorConnectTimedOut; ///< a connect had no answer in time
extern const int32_t errorNotASocket;      ///< the number is no socket, or none any more

// ---- Making and closing ----

Socket openSocket(int32_t family, int32_t type, int32_t protocol); ///< no started program inherits it
void closeSocket(Socket socket);
void endSending(Socket socket);
void endBoth(Socket socket);

extern const bool hasSocketPairs;
bool openSocketPair(Socket* first, Socket* second); ///< a connected pair of local streams, if the system has such

// ---- Use. A call that a signal interrupts goes on; no send raises a signal. Lengths are not negative. ----

bool bindSocket(Socket socket, const sockaddr* address, int32_t length);
bool listenSocket(Socket socket, int32_t backlog);
bool connectSocket(Socket socket, const sockaddr* address, int32_t length);
Socket acceptSocket(Socket socket, sockaddr* address, int32_t* length); ///< no started program inherits it

int32_t receive(Socket socket, void* buffer, int32_t length, int32_t flags);
int32_t send(Socket socket, const void* data, int32_t length, int32_t flags);
int32_t receiveFrom(Socket socket, void* buffer, int32_t length, int32_t flags, sockaddr* address, int32_t* room);
int32_t sendTo(Socket socket, const void* data, int32_t length, const sockaddr* address, int32_t addressLength);

bool socketName(Socket socket, sockaddr* address, int32_t* length);
bool peerName(Socket socket, sockaddr* address, int32_t* length);
bool getOption(Socket socket, int32_t level, int32_t name, void* value, int32_t* length);
bool setOption(Socket socket, int32_t level, int32_t name, const void* value, int32_t length);
bool setBlocking(Socket socket, bool blocking);

/// Lets a listener take a port whose earlier connections have not wholly gone; Windows does so by itself.
void allowPortAgain(Socket socket);
/// Times of keep-alive, in milliseconds. A failure is not told.
void setKeepAliveTimes(Socket socket, int32_t idle, int32_t interval);
/// The part of a buffer's size that is there for data.
int32_t usableBuffer(int32_t reported);

enum class Writable { yes, timedOut, other, failed };
/// Waits until a socket can be written to; a negative limit is none. `other`: something else came up.
Writable waitWritable(Socket socket, int32_t milliseconds);

} // namespace kor::platform
