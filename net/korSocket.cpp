// korSocket.cpp - stream sockets: their options, the walk over a name's addresses, and the limit on a connect.

#include "korutil/korSocket.h"

#include "korutil/korHostResolutions.h"
#include "korutil/korProcess.h"
#include "net/socketError.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

const korSocket _korSocketInvalid = kor::platform::noSocket;
korConnectEx ConnectEx = nullptr;

namespace kor {
namespace {

// ---- Options --------------------------------------------------------------------------------------------------------

// How long a connection is silent before the first probe, in milliseconds; below 1: as the system has it.
int32_t keepAliveIdle()
{
    const char* configured = _kor_getenv("KOR_TCP_KEEPIDLE_VAL");
    return configured == nullptr ? KOR_SOCKET_KEEP_IDLE : static_cast<int32_t>(std::strtoll(configured, nullptr, 10));
}

// A connection lives without keep-alive too: nothing of this reaches the caller.
void Socket_SetKeepAlive(korSocket socket)
{
    KOR_EX_LOCAL(ex);
    _korSocket_SetOptInt(KOR_AT(&ex, 0), socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    if (ex.code != 0) {
        return;
    }
    int32_t idle = keepAliveIdle();
    if (idle > 0) {
        platform::setKeepAliveTimes(socket, idle, KOR_SOCKET_KEEP_INTERVAL);
    }
}

// A refused option leaves a socket that works.
void tryOption(korSocket socket, int32_t level, int32_t name, int32_t value)
{
    platform::setOption(socket, level, name, &value, sizeof value);
}

void setStreamOptions(korSocket socket)
{
    linger lingering = {1, KOR_SOCKET_LINGER};
    tryOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    platform::setOption(socket, SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering);
}

// ---- The walk over a name's addresses -------------------------------------------------------------------------------

// Hands a socket on if all is well, else closes it.
korSocket unlessFailed(korEx* ex, uint8_t depth, korSocket socket)
{
    if (ex->code != 0) {
        _korSocket_Close(KOR_AT_D(depth, ex), socket);
        return _korSocketInvalid;
    }
    return socket;
}

korSocket listenOn(korEx* ex, uint8_t depth, const addrinfo* record, int64_t backlog)
{
    korSocket socket = _korSocket_Create(KOR_AT(ex, depth), record->ai_family, SOCK_STREAM, 0);
    if (ex->code == 0) {
        platform::allowPortAgain(socket);
    }
    _korSocket_Bind(KOR_AT(ex, depth), socket, record->ai_addr, static_cast<int32_t>(record->ai_addrlen));
    _korSocket_Listen(KOR_AT(ex, depth), socket, static_cast<int32_t>(backlog));
    return unlessFailed(KOR_AT(ex, depth), socket);
}

// The end of a connect that goes on by itself.
void awaitConnect(korEx* ex, uint8_t depth, korSocket socket, int64_t timeout)
{
    auto limit = static_cast<int32_t>(std::clamp<int64_t>(timeout, -1, INT32_MAX));
    platform::Writable writable = platform::waitWritable(socket, limit);
    if (writable == platform::Writable::timedOut) {
        ex->osError = platform::errorConnectTimedOut;
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "connect");
    } else if (writable == platform::Writable::yes) {
        int32_t error = _korSocket_GetError(KOR_AT(ex, depth), socket);
        if (ex->code == 0 && error != 0) {
            ex->osError = error;
            KOR_RAISE(ex, depth, KOR_ERROR_OS, "connect");
        }
    } else {
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "poll");
    }
}

void connectWithin(korEx* ex, uint8_t depth, korSocket socket, const addrinfo* record, int64_t timeout)
{
    _korSocket_SetBlocking(KOR_AT(ex, depth), socket, 0);
    if (ex->code != 0) {
        return;
    }
    _korSocket_Connect(KOR_AT(ex, depth), socket, record->ai_addr, static_cast<int32_t>(record->ai_addrlen));
    if (ex->code != 0 && ex->osError == platform::errorConnectPending) {
        korEx_Clear(ex);
        ex->osError = 0; // a failure that comes later, and is not the system's, must not show this number
        awaitConnect(KOR_AT(ex, depth), socket, timeout);
    }
    _korSocket_SetBlocking(KOR_AT(ex, depth), socket, 1);
}

korSocket connectTo(korEx* ex, uint8_t depth, const addrinfo* record, int64_t timeout)
{
    korSocket socket = _korSocket_Create(KOR_AT(ex, depth), record->ai_family, SOCK_STREAM, 0);
    if (timeout == -1) {
        _korSocket_Connect(KOR_AT(ex, depth), socket, record->ai_addr, static_cast<int32_t>(record->ai_addrlen));
    } else {
        connectWithin(KOR_AT(ex, depth), socket, record, timeout);
    }
    return unlessFailed(KOR_AT(ex, depth), socket);
}

using Attempt = korSocket (*)(korEx* ex, uint8_t depth, const addrinfo* record, int64_t parameter);

// Tries one address after another. A success forgets the failures before it; else the last one stands.
korSocket firstThatWorks(korEx* ex, uint8_t depth, korHostResolutions* found, Attempt attempt, int64_t parameter)
{
    korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, depth), found);
    korSocket socket = _korSocketInvalid;
    while (info != nullptr && socket == _korSocketInvalid) {
        korEx_Clear(ex);
        socket = attempt(KOR_AT(ex, depth), info->current, parameter);
        KOR_EX_PRIVATE(local, ex, depth); // the walk goes on with a failure pending
        info = _korHostResolutions_GetNext(KOR_AT(&local, depth), found);
    }
    return socket;
}

korSocket makeFromName(korEx* ex, uint8_t depth, const char* host, const char* service, uint8_t passive,
                       Attempt attempt, int64_t parameter)
{
    if (ex->code != 0) {
        return _korSocketInvalid;
    }
    korHostResolutions* found = _korHostResolutions_Create(KOR_AT(ex, depth), host, service, passive, SOCK_STREAM);
    if (ex->code != 0) {
        return _korSocketInvalid;
    }
    korSocket socket = _korSocketInvalid;
    if (_korHostResolutions_GetFirst(KOR_AT(ex, depth), found) == nullptr) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_NOT_FOUND, "Could not resolve host '%s'", host != nullptr ? host : "(null)");
    } else {
        socket = firstThatWorks(KOR_AT(ex, depth), found, attempt, parameter);
    }
    _korHostResolutions_Free(KOR_AT_D(depth, ex), found);
    return socket;
}

// ---- Pairs ----------------------------------------------------------------------------------------------------------

void systemPair(korEx* ex, uint8_t depth, korSocket* first, korSocket* second)
{
    if (!platform::openSocketPair(first, second)) {
        KOR_RAISE_SOCKET(ex, depth, "socketpair");
    }
}

// Listens on a port of loopback that the system chooses, for one connection, and gives its address.
korSocket listenOnLoopback(korEx* ex, uint8_t depth, sockaddr* address, int32_t* length)
{
    korSocket listener = _korSocket_Create(KOR_AT(ex, depth), AF_INET, SOCK_STREAM, 0);
    _korSocket_Bind(KOR_AT(ex, depth), listener, address, *length);
    _korSocket_Listen(KOR_AT(ex, depth), listener, 1);
    _korSocket_GetSockName(KOR_AT(ex, depth), listener, address, length);
    return listener;
}

// A connection over loopback in place of a pair of the system.
void loopbackPair(korEx* ex, uint8_t depth, korSocket* first, korSocket* second)
{
    sockaddr_in place = {};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* address = reinterpret_cast<sockaddr*>(&place);
    int32_t length = sizeof place;
    korSocket listener = listenOnLoopback(KOR_AT(ex, depth), address, &length);
    *first = _korSocket_Create(KOR_AT(ex, depth), AF_INET, SOCK_STREAM, 0);
    _korSocket_Connect(KOR_AT(ex, depth), *first, address, length);
    *second = _korSocket_Accept(KOR_AT(ex, depth), listener, nullptr, nullptr);
    _korSocket_Close(KOR_AT_D(depth, ex), listener);
    _korSocket_SetOptInt(KOR_AT(ex, depth), *first, IPPROTO_TCP, TCP_NODELAY, 1);
    _korSocket_SetOptInt(KOR_AT(ex, depth), *second, IPPROTO_TCP, TCP_NODELAY, 1);
    *first = unlessFailed(KOR_AT(ex, depth), *first);
    *second = unlessFailed(KOR_AT(ex, depth), *second);
}

// ---- Ports ----------------------------------------------------------------------------------------------------------

using AddressQuestion = void (*)(korEx* ex, uint8_t depth, korSocket socket, sockaddr* address, int32_t* length);

// IPv4 and IPv6 addresses have their port at the same place.
uint16_t portOf(korEx* ex, uint8_t depth, korSocket socket, AddressQuestion ask)
{
    sockaddr_in6 address = {};
    int32_t length = sizeof address;
    ask(KOR_AT(ex, depth), socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ex->code == 0 ? address.sin6_port : 0;
}

static_assert(sizeof(sockaddr_in6) == 28 && offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

} // namespace
} // namespace kor

using namespace kor;

// ---- Start and stop -------------------------------------------------------------------------------------------------

void _korSocket_Startup(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return;
    }
    void* extendedConnect = nullptr;
    const char* failed = platform::startSockets(&extendedConnect);
    if (failed != nullptr) {
        KOR_RAISE_SOCKET(ex, depth, failed);
        return;
    }
    ConnectEx = reinterpret_cast<korConnectEx>(extendedConnect);
}

int32_t _korSocket_Cleanup(uint8_t, korEx*)
{
    return platform::stopSockets();
}

// ---- Making sockets -------------------------------------------------------------------------------------------------

korSocket _korSocket_Create(korEx* ex, uint8_t depth, int32_t family, int32_t type, int32_t protocol)
{
    if (ex->code != 0) {
        return _korSocketInvalid;
    }
    korSocket socket = platform::openSocket(family, type, protocol);
    if (socket == _korSocketInvalid) {
        KOR_RAISE_SOCKET(ex, depth, "socket");
        return socket;
    }
    if (family == AF_UNIX) {
        return socket;
    }
    if (family == AF_INET6) {
        tryOption(socket, IPPROTO_IPV6, IPV6_V6ONLY, 1);
    }
    if (type == SOCK_STREAM) {
        setStreamOptions(socket);
    }
    return socket;
}

korSocket _korSocket_CreateListener(korEx* ex, uint8_t depth, const char* host, const char* service, int32_t backlog)
{
    if (host != nullptr && std::strcmp(host, "*") == 0) {
        host = nullptr;
    }
    return makeFromName(KOR_AT(ex, depth), host, service, 1, listenOn, backlog != 0 ? backlog : KOR_SOCKET_BACKLOG);
}

korSocket _korSocket_CreateConnection(korEx* ex, uint8_t depth, const char* host, const char* service, int64_t timeout)
{
    return makeFromName(KOR_AT(ex, depth), host, service, 0, connectTo, timeout);
}

korSocket _korSocket_CreateLocalListener(korEx* ex, uint8_t depth, const char*, int32_t)
{
    KOR_RAISE(ex, depth, KOR_ERROR_NOT_SUPPORTED, "local listener not supported on windows");
    return _korSocketInvalid;
}

korSocket _korSocket_CreateLocalConnection(korEx* ex, uint8_t depth, const char*, int64_t)
{
    KOR_RAISE(ex, depth, KOR_ERROR_NOT_SUPPORTED, "local connection not supported on windows");
    return _korSocketInvalid;
}

void _korSocket_CreatePair(korEx* ex, uint8_t depth, korSocket* first, korSocket* second)
{
    *first = *second = _korSocketInvalid;
    if (ex->code != 0) {
        return;
    }
    if (platform::hasSocketPairs) {
        systemPair(KOR_AT(ex, depth), first, second);
    } else {
        loopbackPair(KOR_AT(ex, depth), first, second);
    }
}

// ---- Streams --------------------------------------------------------------------------------------------------------

void _korSocket_Bind(korEx* ex, uint8_t depth, korSocket socket, const sockaddr* address, int32_t length)
{
    if (ex->code == 0 && !platform::bindSocket(socket, address, length)) {
        KOR_RAISE_SOCKET(ex, depth, "bind");
    }
}

void _korSocket_Listen(korEx* ex, uint8_t depth, korSocket socket, int32_t backlog)
{
    if (ex->code == 0 && !platform::listenSocket(socket, backlog)) {
        KOR_RAISE_SOCKET(ex, depth, "listen");
    }
}

void _korSocket_Connect(korEx* ex, uint8_t depth, korSocket socket, const sockaddr* address, int32_t length)
{
    if (ex->code != 0) {
        return;
    }
    Socket_SetKeepAlive(socket);
    if (!platform::connectSocket(socket, address, length)) {
        KOR_RAISE_SOCKET(ex, depth, "connect");
    }
}

korSocket _korSocket_Accept(korEx* ex, uint8_t depth, korSocket socket, sockaddr* address, int32_t* length)
{
    if (ex->code != 0) {
        return _korSocketInvalid;
    }
    korSocket accepted = platform::acceptSocket(socket, address, length);
    if (accepted == _korSocketInvalid) {
        KOR_RAISE_SOCKET(ex, depth, "accept");
    } else {
        Socket_SetKeepAlive(accepted);
    }
    return accepted;
}

int32_t _korSocket_Recv(korEx* ex, uint8_t depth, korSocket socket, void* buffer, int32_t length, int32_t flags)
{
    if (ex->code != 0) {
        return -1;
    }
    int32_t received = platform::receive(socket, buffer, length, flags);
    if (received == -1) {
        KOR_RAISE_SOCKET(ex, depth, "recv");
    }
    return received;
}

int32_t _korSocket_Send(korEx* ex, uint8_t depth, korSocket socket, const void* data, int32_t length, int32_t flags)
{
    if (ex->code != 0) {
        return -1;
    }
    int32_t sent = platform::send(socket, data, length, flags);
    if (sent == -1) {
        KOR_RAISE_SOCKET(ex, depth, "send");
    }
    return sent;
}

void _korSocket_SetBlocking(korEx* ex, uint8_t depth, korSocket socket, uint8_t blocking)
{
    if (ex->code == 0 && !platform::setBlocking(socket, blocking != 0)) {
        KOR_RAISE_SOCKET(ex, depth, "ioctlsocket");
    }
}

// ---- Addresses and options ------------------------------------------------------------------------------------------

void _korSocket_GetSockName(korEx* ex, uint8_t depth, korSocket socket, sockaddr* address, int32_t* length)
{
    if (ex->code == 0 && !platform::socketName(socket, address, length)) {
        KOR_RAISE_SOCKET(ex, depth, "getsockname");
    }
}

void _korSocket_GetPeerName(korEx* ex, uint8_t depth, korSocket socket, sockaddr* address, int32_t* length)
{
    if (ex->code == 0 && !platform::peerName(socket, address, length)) {
        KOR_RAISE_SOCKET(ex, depth, "getpeername");
    }
}

uint16_t _korSocket_GetSockPort(korEx* ex, uint8_t depth, korSocket socket)
{
    return portOf(KOR_AT(ex, depth), socket, _korSocket_GetSockName);
}

uint16_t _korSocket_GetPeerPort(korEx* ex, uint8_t depth, korSocket socket)
{
    return portOf(KOR_AT(ex, depth), socket, _korSocket_GetPeerName);
}

void _korSocket_GetOpt(korEx* ex, uint8_t depth, korSocket socket, int32_t level, int32_t name, void* value,
                       int32_t* length)
{
    if (ex->code == 0 && !platform::getOption(socket, level, name, value, length)) {
        KOR_RAISE_SOCKET(ex, depth, "getsockopt");
    }
}

void _korSocket_SetOpt(korEx* ex, uint8_t depth, korSocket socket, int32_t level, int32_t name, const void* value,
                       int32_t length)
{
    if (ex->code == 0 && !platform::setOption(socket, level, name, value, length)) {
        KOR_RAISE_SOCKET(ex, depth, "setsockopt");
    }
}

void _korSocket_SetOptInt(korEx* ex, uint8_t depth, korSocket socket, int32_t level, int32_t name, int32_t value)
{
    _korSocket_SetOpt(KOR_AT(ex, depth), socket, level, name, &value, sizeof value);
}

int32_t _korSocket_GetError(korEx* ex, uint8_t depth, korSocket socket)
{
    int32_t error = 0;
    int32_t length = sizeof error;
    _korSocket_GetOpt(KOR_AT(ex, depth), socket, SOL_SOCKET, SO_ERROR, &error, &length);
    return ex->code == 0 ? error : -1;
}

// ---- Ends -----------------------------------------------------------------------------------------------------------

void _korSocket_Shutdown(uint8_t, korEx*, korSocket socket)
{
    if (socket != _korSocketInvalid) {
        platform::endBoth(socket);
    }
}

void _korSocket_ShutdownWrite(uint8_t, korEx*, korSocket socket)
{
    if (socket != _korSocketInvalid) {
        platform::endSending(socket);
    }
}

void _korSocket_Close(uint8_t, korEx*, korSocket socket)
{
    if (socket != _korSocketInvalid) {
        platform::closeSocket(socket);
    }
}

void _korSocket_ForceClose(uint8_t, korEx*, korSocket socket)
{
    if (socket != _korSocketInvalid) {
        linger none = {0, 0};
        platform::setOption(socket, SOL_SOCKET, SO_LINGER, &none, sizeof none);
        platform::closeSocket(socket);
    }
}
