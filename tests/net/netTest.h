// netTest.h - what the network's tests share: an open library, loopback addresses, sockets that close themselves.

#pragma once

#include "support/korTest.h"

#include "korutil/korHostResolutions.h"
#include "korutil/korLib.h"
#include "korutil/korSocket.h"
#include "platform/socket.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace kor::test {

/// A socket with an owner.
class OwnedSocket
{
public:
    OwnedSocket(korSocket socket = _korSocketInvalid) : socket_(socket) {}
    OwnedSocket(OwnedSocket&& other) noexcept : socket_(std::exchange(other.socket_, _korSocketInvalid)) {}
    OwnedSocket& operator=(OwnedSocket&& other) noexcept
    {
        std::swap(socket_, other.socket_);
        return *this;
    }
    ~OwnedSocket() { close(); }

    operator korSocket() const { return socket_; }
    korSocket* operator&() { return &socket_; }
    korSocket release() { return std::exchange(socket_, _korSocketInvalid); }
    void close() { _korSocket_ForceClose(0, nullptr, release()); }

private:
    korSocket socket_;
};

/// An address of either family.
union Address {
    sockaddr head;
    sockaddr_in narrow;
    sockaddr_in6 wide;

    int32_t length() const { return _kor_GetAddressLength(&head); }
    void* host() { return head.sa_family == AF_INET6 ? static_cast<void*>(&wide.sin6_addr) : &narrow.sin_addr; }
};

inline Address loopback(int family, uint16_t port = 0)
{
    Address address = {};
    address.head.sa_family = static_cast<decltype(address.head.sa_family)>(family);
    address.narrow.sin_port = port;
    if (family == AF_INET6) {
        address.wide.sin6_addr.s6_addr[15] = 1;
    } else {
        address.narrow.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    return address;
}

/// The two ends of a connection.
struct Pair {
    Pair() = default;
    explicit Pair(korEx* ex) { _korSocket_CreatePair(ex, 0, &first, &second); }

    OwnedSocket first, second;
};

/// The library is open while a test runs.
class NetTest : public KorTest
{
protected:
    void SetUp() override
    {
        _korutil_Open(ex, 0, KORUTIL_LEVEL);
        ASSERT_CLEAN();
    }
    void TearDown() override
    {
        KorTest::TearDown();
        _korutil_Close(0, ex);
    }

    /// The address families that this machine has.
    std::vector<int> families()
    {
        Address address = loopback(AF_INET6);
        OwnedSocket socket = _korSocket_Create(ex, 0, AF_INET6, SOCK_STREAM, 0);
        _korSocket_Bind(ex, 0, socket, &address.head, address.length());
        bool wide = ex->code == 0;
        korEx_Clear(ex);
        return wide ? std::vector{AF_INET, AF_INET6} : std::vector{AF_INET};
    }

    int32_t option(korSocket socket, int32_t level, int32_t name)
    {
        int32_t value = 0;
        int32_t length = sizeof value;
        _korSocket_GetOpt(ex, 0, socket, level, name, &value, &length);
        return value;
    }

    std::string textOf(const Address& address)
    {
        char buffer[64];
        _kor_AddressToString(ex, 0, &address.head, buffer, sizeof buffer);
        return buffer;
    }

    OwnedSocket listen(const char* host = "127.0.0.1", const std::string& port = "0")
    {
        return _korSocket_CreateListener(ex, 0, host, port.c_str(), 0);
    }
    OwnedSocket connect(const std::string& port, int64_t timeout = 5000, const char* host = "127.0.0.1")
    {
        return _korSocket_CreateConnection(ex, 0, host, port.c_str(), timeout);
    }
    OwnedSocket accept(korSocket listener) { return _korSocket_Accept(ex, 0, listener, nullptr, nullptr); }

    std::string portText(korSocket socket) { return std::to_string(ntohs(_korSocket_GetSockPort(ex, 0, socket))); }

    /// Sends a text one way and reads the whole of it at the other end.
    void expectPassage(korSocket from, korSocket to)
    {
        const std::string text = "over the wire";
        auto length = static_cast<int32_t>(text.size());
        EXPECT_EQ(_korSocket_Send(ex, 0, from, text.data(), length, 0), length);
        std::string received(text.size(), ' ');
        EXPECT_EQ(_korSocket_Recv(ex, 0, to, received.data(), length, MSG_WAITALL), length);
        EXPECT_EQ(received, text);
        EXPECT_CLEAN();
    }
};

} // namespace kor::test
