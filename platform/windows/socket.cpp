// socket.cpp (Windows) - Winsock. Its calls know no signals.

#include "platform/socket.h"

#include <mstcpip.h>
#include <mswsock.h>

namespace kor::platform {
namespace {

SOCKET number(Socket socket)
{
    return static_cast<SOCKET>(socket);
}

// Asks the system for its extended connect, by way of a socket.
const char* findExtendedConnect(SOCKET socket, void** extendedConnect)
{
    GUID id = WSAID_CONNECTEX;
    DWORD written = 0;
    int result = WSAIoctl(socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, extendedConnect,
                          sizeof *extendedConnect, &written, nullptr, nullptr);
    return result == 0 ? nullptr : "WSAIoctl";
}

} // namespace

const char* startSockets(void** extendedConnect)
{
    WSADATA data;
    int error = WSAStartup(2, &data);
    if (error != 0) {
        WSASetLastError(error);
        return "WSAStartup";
    }
    SOCKET helper = socket(AF_INET, SOCK_STREAM, 0);
    const char* failed = findExtendedConnect(helper, extendedConnect);
    error = WSAGetLastError();
    closesocket(helper);
    WSASetLastError(error);
    return failed;
}

int32_t stopSockets()
{
    return WSACleanup();
}

int32_t lastSocketError()
{
    return WSAGetLastError();
}

const int32_t errorWouldBlock = WSAEWOULDBLOCK;
const int32_t errorConnectPending = WSAEWOULDBLOCK;
const int32_t errorConnectTimedOut = WSAETIMEDOUT;
const int32_t errorNotASocket = WSAENOTSOCK;

Socket openSocket(int32_t family, int32_t type, int32_t protocol)
{
    return static_cast<Socket>(socket(family, type, protocol));
}

void closeSocket(Socket socket)
{
    closesocket(number(socket));
}

void endSending(Socket socket)
{
    shutdown(number(socket), SD_SEND);
}

void endBoth(Socket socket)
{
    shutdown(number(socket), SD_BOTH);
}

const bool hasSocketPairs = false;

bool openSocketPair(Socket*, Socket*)
{
    WSASetLastError(WSAEOPNOTSUPP);
    return false;
}

bool bindSocket(Socket socket, const sockaddr* address, int32_t length)
{
    return bind(number(socket), address, length) == 0;
}

bool listenSocket(Socket socket, int32_t backlog)
{
    return listen(number(socket), backlog) == 0;
}

bool connectSocket(Socket socket, const sockaddr* address, int32_t length)
{
    return connect(number(socket), address, length) == 0;
}

Socket acceptSocket(Socket socket, sockaddr* address, int32_t* length)
{
    return static_cast<Socket>(accept(number(socket), address, length));
}

int32_t receive(Socket socket, void* buffer, int32_t length, int32_t flags)
{
    return recv(number(socket), static_cast<char*>(buffer), length, flags);
}

int32_t send(Socket socket, const void* data, int32_t length, int32_t flags)
{
    return ::send(number(socket), static_cast<const char*>(data), length, flags);
}

int32_t receiveFrom(Socket socket, void* buffer, int32_t length, int32_t flags, sockaddr* address, int32_t* room)
{
    return recvfrom(number(socket), static_cast<char*>(buffer), length, flags, address, room);
}

int32_t sendTo(Socket socket, const void* data, int32_t length, const sockaddr* address, int32_t addressLength)
{
    return sendto(number(socket), static_cast<const char*>(data), length, 0, address, addressLength);
}

bool socketName(Socket socket, sockaddr* address, int32_t* length)
{
    return getsockname(number(socket), address, length) == 0;
}

bool peerName(Socket socket, sockaddr* address, int32_t* length)
{
    return getpeername(number(socket), address, length) == 0;
}

bool getOption(Socket socket, int32_t level, int32_t name, void* value, int32_t* length)
{
    return getsockopt(number(socket), level, name, static_cast<char*>(value), length) == 0;
}

bool setOption(Socket socket, int32_t level, int32_t name, const void* value, int32_t length)
{
    return setsockopt(number(socket), level, name, static_cast<const char*>(value), length) == 0;
}

bool setBlocking(Socket socket, bool blocking)
{
    u_long nonBlocking = blocking ? 0 : 1;
    return ioctlsocket(number(socket), static_cast<long>(FIONBIO), &nonBlocking) == 0;
}

void allowPortAgain(Socket) {}

void setKeepAliveTimes(Socket socket, int32_t idle, int32_t interval)
{
    tcp_keepalive times = {1, static_cast<u_long>(idle), static_cast<u_long>(interval)};
    DWORD written = 0;
    WSAIoctl(number(socket), SIO_KEEPALIVE_VALS, &times, sizeof times, nullptr, 0, &written, nullptr, nullptr);
}

int32_t usableBuffer(int32_t reported)
{
    return reported;
}

Writable waitWritable(Socket socket, int32_t milliseconds)
{
    WSAPOLLFD wait = {number(socket), POLLWRNORM, 0};
    int result = WSAPoll(&wait, 1, milliseconds);
    if (result < 1) {
        return result == 0 ? Writable::timedOut : Writable::failed;
    }
    return (wait.revents & POLLWRNORM) != 0 ? Writable::yes : Writable::other;
}

} // namespace kor::platform
