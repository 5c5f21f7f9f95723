// socket.cpp (Linux) - the system's sockets; calls that a signal interrupts are made again.

#include "platform/socket.h"

#include "platform/clock.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kor::platform {
namespace {

int number(Socket socket)
{
    return static_cast<int>(socket);
}

template <typename Call>
auto uninterrupted(Call call)
{
    for (;;) {
        auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

// Moves at most `length` bytes. The system would take a negative number for a very large one.
template <typename Call>
int32_t transfer(int32_t length, Call call)
{
    if (length < 0) {
        errno = EINVAL;
        return -1;
    }
    auto size = static_cast<size_t>(length);
    return static_cast<int32_t>(uninterrupted([=] { return call(size); }));
}

// A call that takes a length and tells one; NULL goes through.
template <typename Call>
int withLength(int32_t* length, Call call)
{
    if (length == nullptr) {
        return call(nullptr);
    }
    auto room = static_cast<socklen_t>(*length);
    int result = call(&room);
    if (result != -1) {
        *length = static_cast<int32_t>(room);
    }
    return result;
}

int64_t monotonicMilliseconds()
{
    return static_cast<int64_t>(monotonicNanoseconds() / 1000000);
}

// Waits for the end of a connect that a signal has taken from its caller; the connect itself goes on.
bool awaitConnect(Socket socket)
{
    int error = 0;
    int32_t length = sizeof error;
    if (waitWritable(socket, -1) == Writable::failed || !getOption(socket, SOL_SOCKET, SO_ERROR, &error, &length)) {
        return false;
    }
    errno = error;
    return error == 0;
}

} // namespace

const char* startSockets(void** extendedConnect)
{
    *extendedConnect = nullptr;
    return nullptr;
}

int32_t stopSockets()
{
    return 0;
}

int32_t lastSocketError()
{
    return errno;
}

const int32_t errorWouldBlock = EAGAIN;
const int32_t errorConnectPending = EINPROGRESS;
const int32_t errorConnectTimedOut = ETIMEDOUT;
const int32_t errorNotASocket = EBADF;

Socket openSocket(int32_t family, int32_t type, int32_t protocol)
{
    return socket(family, type | SOCK_CLOEXEC, protocol);
}

void closeSocket(Socket socket)
{
    close(number(socket));
}

void endSending(Socket socket)
{
    shutdown(number(socket), SHUT_WR);
}

void endBoth(Socket socket)
{
    shutdown(number(socket), SHUT_RDWR);
}

const bool hasSocketPairs = true;

bool openSocketPair(Socket* first, Socket* second)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == -1) {
        return false;
    }
    *first = pair[0];
    *second = pair[1];
    return true;
}

bool bindSocket(Socket socket, const sockaddr* address, int32_t length)
{
    return bind(number(socket), address, static_cast<socklen_t>(length)) == 0;
}

bool listenSocket(Socket socket, int32_t backlog)
{
    return listen(number(socket), backlog) == 0;
}

bool connectSocket(Socket socket, const sockaddr* address, int32_t length)
{
    if (connect(number(socket), address, static_cast<socklen_t>(length)) == 0) {
        return true;
    }
    return errno == EINTR && awaitConnect(socket);
}

Socket acceptSocket(Socket socket, sockaddr* address, int32_t* length)
{
    return withLength(length, [=](socklen_t* room) {
        return uninterrupted([=] { return accept4(number(socket), address, room, SOCK_CLOEXEC); });
    });
}

int32_t receive(Socket socket, void* buffer, int32_t length, int32_t flags)
{
    return transfer(length, [=](size_t size) { return recv(number(socket), buffer, size, flags); });
}

int32_t send(Socket socket, const void* data, int32_t length, int32_t flags)
{
    return transfer(length, [=](size_t size) { return ::send(number(socket), data, size, flags | MSG_NOSIGNAL); });
}

int32_t receiveFrom(Socket socket, void* buffer, int32_t length, int32_t flags, sockaddr* address, int32_t* room)
{
    return withLength(room, [=](socklen_t* told) {
        return transfer(length,
                        [=](size_t size) { return recvfrom(number(socket), buffer, size, flags, address, told); });
    });
}

int32_t sendTo(Socket socket, const void* data, int32_t length, const sockaddr* address, int32_t addressLength)
{
    auto addressSize = static_cast<socklen_t>(addressLength);
    return transfer(
        length, [=](size_t size) { return sendto(number(socket), data, size, MSG_NOSIGNAL, address, addressSize); });
}

bool socketName(Socket socket, sockaddr* address, int32_t* length)
{
    return withLength(length, [=](socklen_t* room) { return getsockname(number(socket), address, room); }) == 0;
}

bool peerName(Socket socket, sockaddr* address, int32_t* length)
{
    return withLength(length, [=](socklen_t* room) { return getpeername(number(socket), address, room); }) == 0;
}

bool getOption(Socket socket, int32_t level, int32_t name, void* value, int32_t* length)
{
    return withLength(length, [=](socklen_t* room) { return getsockopt(number(socket), level, name, value, room); }) ==
           0;
}

bool setOption(Socket socket, int32_t level, int32_t name, const void* value, int32_t length)
{
    return setsockopt(number(socket), level, name, value, static_cast<socklen_t>(length)) == 0;
}

bool setBlocking(Socket socket, bool blocking)
{
    int nonBlocking = blocking ? 0 : 1;
    return ioctl(number(socket), FIONBIO, &nonBlocking) == 0;
}

void allowPortAgain(Socket socket)
{
    int allowed = 1;
    setOption(socket, SOL_SOCKET, SO_REUSEADDR, &allowed, sizeof allowed);
}

void setKeepAliveTimes(Socket socket, int32_t idle, int32_t interval)
{
    constexpr int longest = 32767; // seconds: the system refuses more
    int idleSeconds = std::min(idle / 1000 + (idle % 1000 != 0), longest);
    int intervalSeconds = std::min(interval / 1000 + (interval % 1000 != 0), longest);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof intervalSeconds);
}

int32_t usableBuffer(int32_t reported)
{
    return reported / 2; // the system adds as much for its own records
}

Writable waitWritable(Socket socket, int32_t milliseconds)
{
    int64_t end = monotonicMilliseconds() + milliseconds;
    pollfd wait = {number(socket), POLLWRNORM, 0};
    int result;
    while ((result = poll(&wait, 1, milliseconds)) == -1 && errno == EINTR) {
        if (milliseconds > 0) {
            milliseconds = static_cast<int32_t>(std::max<int64_t>(end - monotonicMilliseconds(), 0));
        }
    }
    if (result < 1) {
        return result == 0 ? Writable::timedOut : Writable::failed;
    }
    return (wait.revents & POLLWRNORM) != 0 ? Writable::yes : Writable::other;
}

} // namespace kor::platform
