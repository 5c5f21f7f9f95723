// datagrams_test.cpp - datagram sockets over loopback: opening in one go, buffers, groups.

#include "netTest.h"

namespace {

using namespace kor::test;

constexpr int32_t usualBuffer = 65536;

class DatagramTest : public NetTest
{
protected:
    struct Wish {
        uint32_t address = htonl(INADDR_LOOPBACK);
        uint16_t port = 0; // any
        int32_t receiveBuffer = usualBuffer;
        bool bind = true;
        bool fallBack = false;
        bool reuse = false;
    };

    OwnedSocket open(const Wish& wish)
    {
        OwnedSocket socket;
        _korSocket_OpenUdp(ex, 0, &socket, wish.port, wish.receiveBuffer, usualBuffer, wish.address, wish.bind,
                           wish.fallBack, wish.reuse);
        return socket;
    }

    OwnedSocket openAt(const Address& address, bool fallBack = false)
    {
        OwnedSocket socket;
        _korSocket_OpenUdpAddr(ex, 0, &socket, &address.head, usualBuffer, usualBuffer, 1, fallBack, 0);
        return socket;
    }

    Address nameOf(korSocket socket)
    {
        Address address = {};
        int32_t length = sizeof address;
        _korSocket_GetSockName(ex, 0, socket, &address.head, &length);
        return address;
    }

    uint16_t freePort() { return nameOf(open({})).narrow.sin_port; }
};

TEST_F(DatagramTest, ThereAndBack)
{
    for (int family : families()) {
        OwnedSocket one = openAt(loopback(family)), other = openAt(loopback(family));
        Address target = nameOf(one), sender = {};
        int32_t length = sizeof sender;
        char text[16] = "";
        EXPECT_EQ(_korSocket_RecvFromAddr(ex, 0, one, &sender.head, &length, text, sizeof text, 0), -1);
        EXPECT_EQ(ex->osError, kor::platform::errorWouldBlock);
        EXPECT_RAISED(6, "usock read failure.");
        _korSocket_SetBlocking(ex, 0, one, 1);
        _korSocket_Connect(ex, 0, other, &target.head, target.length());
        _korSocket_Send(ex, 0, other, "datagram", 8, 0);
        EXPECT_EQ(_korSocket_RecvFromAddr(ex, 0, one, &sender.head, &length, text, sizeof text, 0), 8);
        EXPECT_STREQ(text, "datagram");
        EXPECT_EQ(textOf(sender), textOf(nameOf(other)));
        EXPECT_EQ(length, sender.length());
        EXPECT_CLEAN();
    }
    OwnedSocket one = open({}), other = open({});
    uint32_t address = 0;
    uint16_t port = 0;
    char text[4];
    EXPECT_EQ(_korSocket_RecvFrom(ex, 0, one, &address, &port, text, sizeof text, 0), -1);
    EXPECT_RAISED(6, "usock read failure.");
    _korSocket_SetBlocking(ex, 0, one, 1);
    _korSocket_SendTo(ex, 0, other, htonl(INADDR_LOOPBACK), nameOf(one).narrow.sin_port, "four", 4);
    EXPECT_EQ(_korSocket_RecvFrom(ex, 0, one, &address, &port, text, sizeof text, 0), 4);
    EXPECT_EQ(address, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(port, nameOf(other).narrow.sin_port);
}

// An address of nobody here is an error, or, if so wished, becomes any address of this machine, with the same port.
TEST_F(DatagramTest, BindingAndItsFallBack)
{
    for (int family : families()) {
        Address foreign = loopback(family, freePort());
        inet_pton(family, family == AF_INET6 ? "2001:db8::1" : "192.0.2.1", foreign.host());
        EXPECT_NE(openAt(foreign), _korSocketInvalid) << "it is handed out all the same";
        if (ex->code == 0) {
            continue; // this system lets a socket bind addresses of others
        }
        EXPECT_RAISED(6, "bind");
        OwnedSocket fallen = openAt(foreign, true);
        EXPECT_EQ(nameOf(fallen).narrow.sin_port, foreign.narrow.sin_port);
        EXPECT_EQ(textOf(nameOf(fallen)), (family == AF_INET6 ? "[::]:" : "0.0.0.0:") + portText(fallen));
        EXPECT_CLEAN();
        openAt(foreign, true);
        EXPECT_RAISED(6, "bind"); // its port is taken
    }
    EXPECT_NE(open({.address = 0x010200C0, .fallBack = true}), _korSocketInvalid);
    EXPECT_CLEAN();
    OwnedSocket missing;
    _korSocket_OpenUdpAddr(ex, 0, &missing, nullptr, 1, 1, 1, 1, 1);
    EXPECT_RAISED(1, "address is missing");
}

TEST_F(DatagramTest, APortMayBeShared)
{
    uint16_t port = freePort();
    OwnedSocket one = open({.port = port, .reuse = true}), other = open({.port = port, .reuse = true});
    EXPECT_CLEAN();
    EXPECT_NE(option(one, SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_EQ(option(open({.reuse = true}), SOL_SOCKET, SO_REUSEADDR), 0) << "any port is nobody else's";
    EXPECT_EQ(option(open({.bind = false}), SOL_SOCKET, SO_REUSEADDR), 0);
}

TEST_F(DatagramTest, BuffersThatTheSystemCuts)
{
    StreamCapture quiet(StreamCapture::error);
    OwnedSocket usual = open({});
    EXPECT_EQ(quiet.text(), "");
    EXPECT_GE(_korSocket_GetRcvbuf(ex, 0, usual), usualBuffer);
    EXPECT_GE(_korSocket_GetSndbuf(ex, 0, usual), usualBuffer);
    _korSocket_SetRcvbuf(ex, 0, usual, usualBuffer / 2);
    _korSocket_SetSndbuf(ex, 0, usual, usualBuffer / 4);
    EXPECT_EQ(kor::platform::usableBuffer(_korSocket_GetRcvbuf(ex, 0, usual)), usualBuffer / 2);
    EXPECT_EQ(kor::platform::usableBuffer(_korSocket_GetSndbuf(ex, 0, usual)), usualBuffer / 4);

    constexpr int32_t tooMuch = 2000000000;
    StreamCapture capture(StreamCapture::error);
    OwnedSocket large = open({.receiveBuffer = tooMuch});
    std::string line = capture.text();
    int32_t allocated = kor::platform::usableBuffer(_korSocket_GetRcvbuf(ex, 0, large));
    if (allocated >= tooMuch) {
        GTEST_SKIP() << "the system gives buffers of any size";
    }
    EXPECT_EQ(line, "Failed to set socket option SO_RCVBUF to requested value 2000000000  -- allocated value is " +
                        std::to_string(allocated) + "\n");
}

TEST_F(DatagramTest, Groups)
{
    const uint32_t group = htonl(0xEFFF4B52); // 239.255.75.82
    const uint32_t here = htonl(INADDR_LOOPBACK);
    OwnedSocket receiver = open({.address = 0}), sender = open({.bind = false});
    ASSERT_CLEAN();
    _korSocket_AddGroup(ex, 0, receiver, group, here);
    _korSocket_SetIface(ex, 0, sender, here);
    _korSocket_SendTo(ex, 0, sender, group, nameOf(receiver).narrow.sin_port, "all", 3);
    if (ex->code != 0) {
        std::string why = describe(ex);
        korEx_Clear(ex);
        GTEST_SKIP() << "no groups here: " << why;
    }
    timeval limit = {5, 0};
    _korSocket_SetBlocking(ex, 0, receiver, 1);
    _korSocket_SetOpt(ex, 0, receiver, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char text[8];
    uint32_t from;
    uint16_t fromPort;
    EXPECT_EQ(_korSocket_RecvFrom(ex, 0, receiver, &from, &fromPort, text, sizeof text, 0), 3);
    _korSocket_SetTtl(ex, 0, sender, 7, 1);
    _korSocket_SetTtl(ex, 0, sender, 9, 0);
    EXPECT_EQ(option(sender, IPPROTO_IP, IP_MULTICAST_TTL), 7);
    EXPECT_EQ(option(sender, IPPROTO_IP, IP_TTL), 9);
    _korSocket_DropGroup(ex, 0, receiver, group, here);
    EXPECT_CLEAN();
    _korSocket_DropGroup(ex, 0, receiver, group, here);
    EXPECT_RAISED(6, "setsockopt");
}

} // namespace
