// datagrams_test.cpp - datagram sockets over loopback: opening in one go, buffers, groups.

#include "netTest.h"

namespace {

using namespace kor::test;

constexpr int32_t usualBuffer = 65536;
constexpr uint16_t anyPort = 0;

class DatagramTest : public NetTest
{
protected:
    struct Wish {
        uint32_t address = htonl(INADDR_LOOPBACK);
        uint16_t port = anyPort;
        int32_t receiveBuffer = usualBuffer;
        bool bind = true;
        bool fallBack = false;
        bool reuse = false;
    };

    OwnedSocket open(const Wish& wish)
    {
        OwnedSocket socket;
        _korSocket_OpenUdp(KOR_AT(ex, 0), &socket, wish.port, wish.receiveBuffer, usualBuffer, wish.address, wish.bind,
                           wish.fallBack, wish.reuse);
        return socket;
    }

    OwnedSocket openAt(const Address& address, bool fallBack = false)
    {
        OwnedSocket socket;
        _korSocket_OpenUdpAddr(KOR_AT(ex, 0), &socket, &address.head, usualBuffer, usualBuffer, 1, fallBack, 0);
        return socket;
    }

    Address nameOf(korSocket socket)
    {
        Address address = {};
        int32_t length = sizeof address;
        _korSocket_GetSockName(KOR_AT(ex, 0), socket, &address.head, &length);
        return address;
    }

    // Waits for a datagram on a non-blocking socket.
    void await(korSocket socket) { _korSocket_SetBlocking(KOR_AT(ex, 0), socket, 1); }

    uint16_t freePort()
    {
        OwnedSocket socket = open({});
        return _korSocket_GetSockPort(KOR_AT(ex, 0), socket);
    }
};

TEST_F(DatagramTest, ThereAndBack)
{
    OwnedSocket one = open({});
    OwnedSocket other = open({});
    ASSERT_CLEAN();
    uint32_t address = 0;
    uint16_t port = 0;
    char text[16] = "";
    EXPECT_EQ(_korSocket_RecvFrom(KOR_AT(ex, 0), one, &address, &port, text, sizeof text, 0), -1);
    EXPECT_EQ(ex->osError, kor::platform::errorWouldBlock);
    EXPECT_RAISED(6, "usock read failure.");

    uint16_t onePort = _korSocket_GetSockPort(KOR_AT(ex, 0), one);
    await(one);
    _korSocket_SendTo(KOR_AT(ex, 0), other, htonl(INADDR_LOOPBACK), onePort, "datagram", 8);
    EXPECT_EQ(_korSocket_RecvFrom(KOR_AT(ex, 0), one, &address, &port, text, sizeof text, 0), 8);
    EXPECT_STREQ(text, "datagram");
    EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(port, _korSocket_GetSockPort(KOR_AT(ex, 0), other));
}

TEST_F(DatagramTest, IPv6)
{
    if (!hasIPv6()) {
        GTEST_SKIP() << "no IPv6 here";
    }
    OwnedSocket one = openAt(loopback(AF_INET6));
    OwnedSocket other = openAt(loopback(AF_INET6));
    Address target = nameOf(one);
    _korSocket_Connect(KOR_AT(ex, 0), other, &target.head, target.length());
    _korSocket_Send(KOR_AT(ex, 0), other, "six", 3, 0);
    await(one);
    Address sender = {};
    int32_t length = sizeof sender;
    char text[8];
    EXPECT_EQ(_korSocket_RecvFromAddr(KOR_AT(ex, 0), one, &sender.head, &length, text, sizeof text, 0), 3);
    EXPECT_EQ(length, 28);
    EXPECT_EQ(sender.wide.sin6_port, _korSocket_GetSockPort(KOR_AT(ex, 0), other));
    EXPECT_CLEAN();
    Address foreign = loopback(AF_INET6, freePort());
    foreign.wide.sin6_addr.s6_addr[0] = 0x20; // nobody's
    EXPECT_NE(openAt(foreign), _korSocketInvalid);
    EXPECT_RAISED(6, "bind");
    Address any = nameOf(openAt(foreign, true));
    EXPECT_CLEAN();
    EXPECT_EQ(std::memcmp(&any.wide.sin6_addr, &in6addr_any, sizeof in6addr_any), 0);
    EXPECT_EQ(any.wide.sin6_port, foreign.wide.sin6_port);
}

TEST_F(DatagramTest, BindingAndItsFallBack)
{
    OwnedSocket unbound = open({.bind = false});
    EXPECT_EQ(option(unbound, SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_CLEAN();
    OwnedSocket missing;
    _korSocket_OpenUdpAddr(KOR_AT(ex, 0), &missing, nullptr, 1, 1, 1, 1, 1);
    EXPECT_RAISED(1, "address is missing");
    uint16_t port = freePort();
    constexpr uint32_t foreign = 0x010200C0; // 192.0.2.1, nobody's
    OwnedSocket refused = open({.address = foreign, .port = port});
    if (ex->code == 0) {
        GTEST_SKIP() << "this system lets a socket bind addresses of others";
    }
    EXPECT_NE(refused, _korSocketInvalid);
    EXPECT_RAISED(6, "bind");
    refused.close();
    OwnedSocket fallen = open({.address = foreign, .port = port, .fallBack = true});
    ASSERT_CLEAN();
    EXPECT_EQ(nameOf(fallen).narrow.sin_addr.s_addr, 0U);
    EXPECT_EQ(nameOf(fallen).narrow.sin_port, port);
    EXPECT_NE(openAt(loopback(AF_INET, port), true), _korSocketInvalid); // handed out, though its port is taken
    EXPECT_RAISED(6, "bind");
}

TEST_F(DatagramTest, APortMayBeShared)
{
    uint16_t port = freePort();
    OwnedSocket one = open({.port = port, .reuse = true});
    OwnedSocket other = open({.port = port, .reuse = true});
    EXPECT_CLEAN();
    EXPECT_NE(option(one, SOL_SOCKET, SO_REUSEADDR), 0);
    OwnedSocket free = open({.port = anyPort, .reuse = true});
    EXPECT_EQ(option(free, SOL_SOCKET, SO_REUSEADDR), 0);
}

TEST_F(DatagramTest, BuffersThatTheSystemCuts)
{
    StreamCapture quiet(StreamCapture::error);
    OwnedSocket usual = open({});
    EXPECT_EQ(quiet.text(), "");
    EXPECT_GE(_korSocket_GetRcvbuf(KOR_AT(ex, 0), usual), usualBuffer);
    EXPECT_GE(_korSocket_GetSndbuf(KOR_AT(ex, 0), usual), usualBuffer);

    constexpr int32_t tooMuch = 2000000000;
    StreamCapture capture(StreamCapture::error);
    OwnedSocket large = open({.receiveBuffer = tooMuch});
    std::string line = capture.text();
    EXPECT_CLEAN();
    int32_t allocated = kor::platform::usableBuffer(_korSocket_GetRcvbuf(KOR_AT(ex, 0), large));
    if (allocated >= tooMuch) {
        GTEST_SKIP() << "the system gives buffers of any size";
    }
    EXPECT_EQ(line, "Failed to set socket option SO_RCVBUF to requested value 2000000000  -- allocated value is " +
                        std::to_string(allocated) + "\n");
    _korSocket_SetRcvbuf(KOR_AT(ex, 0), large, usualBuffer);
    _korSocket_SetSndbuf(KOR_AT(ex, 0), large, usualBuffer);
    EXPECT_EQ(kor::platform::usableBuffer(_korSocket_GetRcvbuf(KOR_AT(ex, 0), large)), usualBuffer);
    EXPECT_EQ(kor::platform::usableBuffer(_korSocket_GetSndbuf(KOR_AT(ex, 0), large)), usualBuffer);
}

TEST_F(DatagramTest, Groups)
{
    const uint32_t group = htonl(0xEFFF4B52); // 239.255.75.82
    const uint32_t here = htonl(INADDR_LOOPBACK);
    OwnedSocket receiver = open({.address = 0});
    OwnedSocket sender = open({.bind = false});
    ASSERT_CLEAN();
    _korSocket_AddGroup(KOR_AT(ex, 0), receiver, group, here);
    _korSocket_SetIface(KOR_AT(ex, 0), sender, here);
    uint16_t port = _korSocket_GetSockPort(KOR_AT(ex, 0), receiver);
    _korSocket_SendTo(KOR_AT(ex, 0), sender, group, port, "all", 3);
    if (ex->code != 0) {
        std::string why = describe(ex);
        korEx_Clear(ex);
        GTEST_SKIP() << "no groups here: " << why;
    }
    timeval limit = {5, 0};
    await(receiver);
    _korSocket_SetOpt(KOR_AT(ex, 0), receiver, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char text[8];
    uint32_t from;
    uint16_t fromPort;
    EXPECT_EQ(_korSocket_RecvFrom(KOR_AT(ex, 0), receiver, &from, &fromPort, text, sizeof text, 0), 3);
    _korSocket_SetTtl(KOR_AT(ex, 0), sender, 7, 1);
    _korSocket_SetTtl(KOR_AT(ex, 0), sender, 9, 0);
    EXPECT_EQ(option(sender, IPPROTO_IP, IP_MULTICAST_TTL), 7);
    EXPECT_EQ(option(sender, IPPROTO_IP, IP_TTL), 9);
    _korSocket_DropGroup(KOR_AT(ex, 0), receiver, group, here);
    EXPECT_CLEAN();
    _korSocket_DropGroup(KOR_AT(ex, 0), receiver, group, here);
    EXPECT_RAISED(6, "setsockopt");
}

} // namespace
