// datagrams.cpp - datagram sockets: opened in one go, sent and received one datagram at a time, groups, buffer sizes.

#include "korutil/korHostResolutions.h"
#include "korutil/korSocket.h"
#include "net/socketError.h"

#include <cstdio>
#include <cstring>

namespace kor {
namespace {

// An address of any family that has a port.
union AnyAddress {
    sockaddr head;
    sockaddr_in narrow;
    sockaddr_in6 wide;
};

struct OpenOptions {
    int32_t receiveBuffer;
    int32_t sendBuffer;
    bool bind;
    bool fallBack;
    bool reuse;
};

struct BufferOption {
    int32_t number;
    const char* word;
};

constexpr BufferOption receiveOption = {SO_RCVBUF, "SO_RCVBUF"};
constexpr BufferOption sendOption = {SO_SNDBUF, "SO_SNDBUF"};

// Lets the address be any of this machine; the port stays.
void forgetHost(AnyAddress* address)
{
    if (address->head.sa_family == AF_INET6) {
        address->wide.sin6_addr = {};
    } else {
        address->narrow.sin_addr.s_addr = 0;
    }
}

void bindOrFallBack(korEx* ex, uint8_t depth, korSocket socket, AnyAddress* address, bool fallBack)
{
    int32_t length = _kor_GetAddressLength(&address->head);
    bool tried = ex->code == 0;
    _korSocket_Bind(KOR_AT(ex, depth), socket, &address->head, length);
    if (tried && ex->code != 0 && fallBack) {
        forgetHost(address);
        korEx_Clear(ex);
        _korSocket_Bind(KOR_AT(ex, depth), socket, &address->head, length);
    }
}

// A refused or lesser size does not fail the opening: the person who starts the process reads of it.
void askForBuffer(korEx* ex, uint8_t depth, korSocket socket, const BufferOption& option, int32_t wanted)
{
    KOR_EX_PRIVATE(local, ex, depth);
    _korSocket_SetOptInt(KOR_AT(&local, depth), socket, SOL_SOCKET, option.number, wanted);
    if (local.code != 0) {
        std::fprintf(stderr, "Failed to set socket option %s with the following error %s - %s\n", option.word,
                     _korEx_GetSummaryString(&local), local.description);
        return;
    }
    int32_t allocated = platform::usableBuffer(_korSocket_GetBufsize(KOR_AT(ex, depth), socket, option.number));
    if (ex->code == 0 && allocated < wanted) {
        std::fprintf(stderr, "Failed to set socket option %s to requested value %d  -- allocated value is %d\n",
                     option.word, wanted, allocated);
    }
}

korSocket openDatagram(korEx* ex, uint8_t depth, AnyAddress* address, const OpenOptions& options)
{
    korSocket socket = _korSocket_Create(KOR_AT(ex, depth), address->head.sa_family, SOCK_DGRAM, 0);
    int32_t reuse = options.reuse && address->narrow.sin_port != 0;
    _korSocket_SetOptInt(KOR_AT(ex, depth), socket, SOL_SOCKET, SO_REUSEADDR, reuse);
    if (options.bind) {
        bindOrFallBack(KOR_AT(ex, depth), socket, address, options.fallBack);
    }
    _korSocket_SetBlocking(KOR_AT(ex, depth), socket, 0);
    if (ex->code == 0) {
        askForBuffer(KOR_AT(ex, depth), socket, receiveOption, options.receiveBuffer);
        askForBuffer(KOR_AT(ex, depth), socket, sendOption, options.sendBuffer);
    }
    return socket;
}

void changeGroup(korEx* ex, uint8_t depth, korSocket socket, int32_t name, uint32_t group, uint32_t interfaceAddress)
{
    uint32_t request[2] = {group, interfaceAddress};
    _korSocket_SetOpt(KOR_AT(ex, depth), socket, IPPROTO_IP, name, request, sizeof request);
}

} // namespace
} // namespace kor

using namespace kor;

void _korSocket_OpenUdp(korEx* ex, uint8_t depth, korSocket* socket, uint16_t port, int32_t receiveBuffer,
                        int32_t sendBuffer, uint32_t address, uint8_t bind, uint8_t fallBack, uint8_t reuse)
{
    AnyAddress local = {};
    local.narrow.sin_family = AF_INET;
    local.narrow.sin_port = port;
    local.narrow.sin_addr.s_addr = address;
    OpenOptions options = {receiveBuffer, sendBuffer, bind != 0, fallBack != 0, reuse != 0};
    *socket = openDatagram(KOR_AT(ex, depth), &local, options);
}

void _korSocket_OpenUdpAddr(korEx* ex, uint8_t depth, korSocket* socket, const sockaddr* address, int32_t receiveBuffer,
                            int32_t sendBuffer, uint8_t bind, uint8_t fallBack, uint8_t reuse)
{
    *socket = _korSocketInvalid;
    if (address == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "address is missing");
        return;
    }
    AnyAddress local = {};
    std::memcpy(&local, address, static_cast<size_t>(_kor_GetAddressLength(address)));
    OpenOptions options = {receiveBuffer, sendBuffer, bind != 0, fallBack != 0, reuse != 0};
    *socket = openDatagram(KOR_AT(ex, depth), &local, options);
}

int32_t _korSocket_RecvFrom(korEx* ex, uint8_t depth, korSocket socket, uint32_t* address, uint16_t* port, void* buffer,
                            int32_t length, int32_t flags)
{
    if (ex->code != 0) {
        return -1;
    }
    AnyAddress sender = {};
    sender.head.sa_family = AF_INET;
    int32_t room = sizeof sender.narrow;
    int32_t received = platform::receiveFrom(socket, buffer, length, flags, &sender.head, &room);
    if (received == -1) {
        KOR_RAISE_SOCKET(ex, depth, "usock read failure.");
        return -1;
    }
    *address = sender.narrow.sin_addr.s_addr;
    *port = sender.narrow.sin_port;
    return received;
}

int32_t _korSocket_RecvFromAddr(korEx* ex, uint8_t depth, korSocket socket, sockaddr* address, int32_t* addressLength,
                                void* buffer, int32_t length, int32_t flags)
{
    if (ex->code != 0) {
        return -1;
    }
    int32_t received = platform::receiveFrom(socket, buffer, length, flags, address, addressLength);
    if (received == -1) {
        KOR_RAISE_SOCKET(ex, depth, "usock read failure.");
    }
    return received;
}

void _korSocket_SendTo(korEx* ex, uint8_t depth, korSocket socket, uint32_t address, uint16_t port, const void* data,
                       int32_t length)
{
    if (ex->code != 0) {
        return;
    }
    AnyAddress receiver = {};
    receiver.narrow.sin_family = AF_INET;
    receiver.narrow.sin_port = port;
    receiver.narrow.sin_addr.s_addr = address;
    if (platform::sendTo(socket, data, length, &receiver.head, sizeof receiver.narrow) == -1) {
        KOR_RAISE_SOCKET(ex, depth, "usock sendto error");
    }
}

void _korSocket_AddGroup(korEx* ex, uint8_t depth, korSocket socket, uint32_t group, uint32_t interfaceAddress)
{
    changeGroup(KOR_AT(ex, depth), socket, IP_ADD_MEMBERSHIP, group, interfaceAddress);
}

void _korSocket_DropGroup(korEx* ex, uint8_t depth, korSocket socket, uint32_t group, uint32_t interfaceAddress)
{
    changeGroup(KOR_AT(ex, depth), socket, IP_DROP_MEMBERSHIP, group, interfaceAddress);
}

void _korSocket_SetTtl(korEx* ex, uint8_t depth, korSocket socket, uint8_t ttl, uint8_t multicast)
{
    int32_t name = multicast != 0 ? IP_MULTICAST_TTL : IP_TTL;
    _korSocket_SetOpt(KOR_AT(ex, depth), socket, IPPROTO_IP, name, &ttl, sizeof ttl);
}

void _korSocket_SetIface(korEx* ex, uint8_t depth, korSocket socket, uint32_t interfaceAddress)
{
    _korSocket_SetOpt(KOR_AT(ex, depth), socket, IPPROTO_IP, IP_MULTICAST_IF, &interfaceAddress,
                      sizeof interfaceAddress);
}

int32_t _korSocket_GetBufsize(korEx* ex, uint8_t depth, korSocket socket, int32_t name)
{
    int32_t size = 0;
    int32_t length = sizeof size;
    _korSocket_GetOpt(KOR_AT(ex, depth), socket, SOL_SOCKET, name, &size, &length);
    return ex->code == 0 ? size : 0;
}

int32_t _korSocket_GetRcvbuf(korEx* ex, uint8_t depth, korSocket socket)
{
    return _korSocket_GetBufsize(KOR_AT(ex, depth), socket, SO_RCVBUF);
}

int32_t _korSocket_GetSndbuf(korEx* ex, uint8_t depth, korSocket socket)
{
    return _korSocket_GetBufsize(KOR_AT(ex, depth), socket, SO_SNDBUF);
}

void _korSocket_SetRcvbuf(korEx* ex, uint8_t depth, korSocket socket, int32_t bytes)
{
    _korSocket_SetOptInt(KOR_AT(ex, depth), socket, SOL_SOCKET, SO_RCVBUF, bytes);
}

void _korSocket_SetSndbuf(korEx* ex, uint8_t depth, korSocket socket, int32_t bytes)
{
    _korSocket_SetOptInt(KOR_AT(ex, depth), socket, SOL_SOCKET, SO_SNDBUF, bytes);
}
