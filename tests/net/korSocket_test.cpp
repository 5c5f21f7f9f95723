// korSocket_test.cpp - stream sockets over loopback, in both address families where the machine has them.

#include "netTest.h"
#include "support/failingHeap.h"
#include "support/systemObjects.h"

#include <chrono>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using namespace kor::test;

class KorSocketTest : public NetTest
{
protected:
    // A client, and the server's end of its connection.
    Pair connected(const OwnedSocket& listener)
    {
        Pair pair;
        pair.first = connect(portText(listener));
        pair.second = accept(listener);
        return pair;
    }
};

TEST_F(KorSocketTest, ANewSocketHasItsOptions)
{
    for (int family : families()) {
        OwnedSocket stream = _korSocket_Create(ex, 0, family, SOCK_STREAM, 0);
        EXPECT_NE(option(stream, IPPROTO_TCP, TCP_NODELAY), 0);
        linger lingering = {};
        int32_t length = sizeof lingering;
        _korSocket_GetOpt(ex, 0, stream, SOL_SOCKET, SO_LINGER, &lingering, &length);
        EXPECT_TRUE(lingering.l_onoff != 0 && lingering.l_linger == 2);
        EXPECT_TRUE(family == AF_INET || option(stream, IPPROTO_IPV6, IPV6_V6ONLY) != 0);
        _korSocket_SetOptInt(ex, 0, stream, SOL_SOCKET, SO_KEEPALIVE, 1);
        EXPECT_NE(option(stream, SOL_SOCKET, SO_KEEPALIVE), 0);
        EXPECT_CLEAN();
    }
#ifndef _WIN32
    EXPECT_EQ(ConnectEx, nullptr) << "Linux has nothing like it";
#endif
}

#ifdef TCP_KEEPIDLE // elsewhere the system does not tell
TEST_F(KorSocketTest, TimesOfKeepAlive)
{
    auto timesOf = [this](korSocket socket) {
        return std::pair(option(socket, IPPROTO_TCP, TCP_KEEPIDLE), option(socket, IPPROTO_TCP, TCP_KEEPINTVL));
    };
    OwnedSocket listener = listen();
    const std::pair<int32_t, int32_t> systems = timesOf(listener);
    struct {
        const char* configured;
        std::pair<int32_t, int32_t> times; // idle, interval, in seconds
    } cases[] = {{nullptr, {20, 10}}, {"5000", {5, 10}}, {"1001", {2, 10}},
                 {"0", systems},      {"word", systems}, {"-1", systems}};
    for (const auto& c : cases) {
        EnvironmentGuard guard("KOR_TCP_KEEPIDLE_VAL", c.configured);
        Pair pair = connected(listener);
        EXPECT_EQ(timesOf(pair.first), c.times) << c.configured;
        EXPECT_EQ(timesOf(pair.second), c.times) << c.configured;
    }
}
#endif

// ---- Listeners and connections --------------------------------------------------------------------------------------

TEST_F(KorSocketTest, ConnectsAndTalks)
{
    std::vector<std::pair<const char*, const char*>> cases = {
        {"127.0.0.1", "127.0.0.1"}, {"localhost", "localhost"}, {"*", nullptr}};
    if (families().size() > 1) {
        cases.emplace_back("::1", "::1");
    }
    for (const auto& [listening, connecting] : cases) {
        SCOPED_TRACE(listening);
        OwnedSocket listener = listen(listening);
        for (int64_t timeout : {-1, 5000}) {
            OwnedSocket client = connect(portText(listener), timeout, connecting);
            Address peer = {};
            int32_t length = sizeof peer;
            OwnedSocket server = _korSocket_Accept(ex, 0, listener, &peer.head, &length);
            ASSERT_CLEAN();
            EXPECT_EQ(length, peer.length());
            EXPECT_EQ(peer.narrow.sin_port, _korSocket_GetSockPort(ex, 0, client));
            EXPECT_EQ(_korSocket_GetPeerPort(ex, 0, client), _korSocket_GetSockPort(ex, 0, listener));
            EXPECT_EQ(_korSocket_GetError(ex, 0, client), 0);
            EXPECT_NE(option(client, SOL_SOCKET, SO_KEEPALIVE), 0);
            EXPECT_NE(option(server, SOL_SOCKET, SO_KEEPALIVE), 0);
            expectPassage(client, server);
            expectPassage(server, client);
        }
    }
}

// A port has one listener at a time, and the next one need not wait for the connections of the last.
TEST_F(KorSocketTest, APortCanBeHadAgain)
{
    OwnedSocket listener = listen();
    std::string port = portText(listener);
    Pair pair = connected(listener);
    ASSERT_CLEAN();
    EXPECT_EQ(listen("127.0.0.1", port), _korSocketInvalid);
    EXPECT_RAISED(6, "bind");
    listener.close();
    pair.second.close(); // ends first, hence keeps the port for a while
    pair.first.close();
    listener = listen("127.0.0.1", port);
    EXPECT_CLEAN();
}

// One address after another: whichever of them listens, the connect finds it and the refusals before it are forgotten.
TEST_F(KorSocketTest, WalksTheAddresses)
{
    korHostResolutions* found = _korHostResolutions_Create(ex, 0, nullptr, "0", 0, SOCK_STREAM);
    korHostInfo* info = _korHostResolutions_GetFirst(ex, 0, found);
    ASSERT_NE(info, nullptr);
    for (; info != nullptr; info = _korHostResolutions_GetNext(ex, 0, found)) {
        std::string host = _korHostInfo_GetNumericName(ex, 0, info);
        SCOPED_TRACE(host);
        OwnedSocket listener = listen(host.c_str());
        for (int64_t timeout : {-1, 5000}) {
            OwnedSocket client = connect(portText(listener), timeout, nullptr);
            EXPECT_CLEAN();
        }
    }
    _korHostResolutions_Free(0, ex, found);

    EXPECT_EQ(_korSocket_CreateConnection(ex, 0, nullptr, nullptr, -1), _korSocketInvalid);
    EXPECT_RAISED(9, "Could not resolve host '(null)'");
    EXPECT_EQ(_korSocket_CreateListener(ex, 0, "*", nullptr, 0), _korSocketInvalid);
    EXPECT_RAISED(9, "Could not resolve host '(null)'");
}

TEST_F(KorSocketTest, RefusedConnections)
{
    const std::string closed = portText(listen());
    for (int64_t timeout : {-1, 5000}) {
        EXPECT_EQ(connect(closed, timeout), _korSocketInvalid);
        if (ex->code == 6 && std::string(ex->description) == "poll") {
            korEx_Clear(ex);
            GTEST_SKIP() << "this system's poll does not say that a refused socket can be written to";
        }
        EXPECT_TRUE(ex->osError != 0 && ex->osError != kor::platform::errorConnectTimedOut);
        EXPECT_RAISED(6, "connect");
    }
}

// A listener whose backlog is full leaves connects without an answer.
TEST_F(KorSocketTest, UnansweredConnections)
{
    Address address = loopback(AF_INET);
    OwnedSocket listener = _korSocket_Create(ex, 0, AF_INET, SOCK_STREAM, 0);
    _korSocket_Bind(ex, 0, listener, &address.head, address.length());
    _korSocket_Listen(ex, 0, listener, 0);
    const std::string full = portText(listener);
    std::vector<OwnedSocket> waiting;
    for (int i = 0; i < 20 && ex->code == 0; i++) {
        waiting.push_back(connect(full, 100));
    }
    if (ex->code == 0) {
        GTEST_SKIP() << "the system takes any number of connections";
    }
    korEx_Clear(ex);
    for (int64_t timeout : {100, 0}) {
        EXPECT_EQ(connect(full, timeout), _korSocketInvalid);
        EXPECT_EQ(ex->osError, kor::platform::errorConnectTimedOut);
        EXPECT_RAISED(6, "connect");
    }
}

TEST_F(KorSocketTest, ATimedConnectionComesBackBlocking)
{
    Pair pair = connected(listen());
    std::thread sender([&] {
        KOR_EX_LOCAL(own);
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // a non-blocking receive fails meanwhile
        _korSocket_Send(&own, 0, pair.second, "!", 1, 0);
    });
    char byte;
    EXPECT_EQ(_korSocket_Recv(ex, 0, pair.first, &byte, 1, 0), 1);
    sender.join();
}

// ---- Pairs and ends -------------------------------------------------------------------------------------------------

TEST_F(KorSocketTest, PairsAndTheirEnds)
{
    Pair pair(ex);
    expectPassage(pair.first, pair.second);
    char byte;
    _korSocket_ShutdownWrite(0, nullptr, pair.first);
    EXPECT_EQ(_korSocket_Recv(ex, 0, pair.second, &byte, 1, 0), 0);
    expectPassage(pair.second, pair.first); // the other direction is open
    _korSocket_Shutdown(0, nullptr, pair.second);
    EXPECT_EQ(_korSocket_Recv(ex, 0, pair.first, &byte, 1, 0), 0);
    EXPECT_CLEAN();
    EXPECT_EQ(_korSocket_Send(ex, 0, pair.first, "x", 1, 0), -1); // and no signal ends the process
    EXPECT_RAISED(6, "send");

    Pair other(ex);
    KOR_RAISE(ex, 0, 100, "pending"); // nothing is made any more, but what there is can be closed
    _korSocket_Close(0, ex, other.first.release());
    _korSocket_Close(0, ex, _korSocketInvalid);
    _korSocket_Shutdown(0, ex, _korSocketInvalid);
    Pair none(ex);
    EXPECT_TRUE(none.first == _korSocketInvalid && listen() == _korSocketInvalid);
    EXPECT_RAISED(100, "pending");
    EXPECT_EQ(_korSocket_Recv(ex, 0, other.second, &byte, 1, 0), 0);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(KorSocketTest, EachFailureHasItsWord)
{
    auto fails = [this](int32_t code, const char* word, int64_t result, auto function, auto... arguments) {
        SCOPED_TRACE(word);
        auto call = [&] {
            if constexpr (std::is_void_v<decltype(function(ex, uint8_t{0}, arguments...))>) {
                function(ex, 0, arguments...);
            } else {
                EXPECT_EQ(function(ex, 0, arguments...), result);
            }
        };
        call();
        EXPECT_EQ(ex->osError != 0, code == 6);
        EXPECT_RAISED(code, word);
        KOR_RAISE(ex, 0, 100, "pending");
        ex->osError = 0;
        call(); // nothing is done with an error pending
        EXPECT_EQ(ex->osError, 0);
        EXPECT_RAISED(100, "pending");
    };
    constexpr korSocket none = -1;
    Address place = loopback(AF_INET);
    sockaddr* address = &place.head;
    int32_t length = sizeof place;
    int32_t value = 0;
    char byte = 0;
    fails(6, "socket", -1, _korSocket_Create, AF_INET, 77, 0);
    fails(6, "bind", 0, _korSocket_Bind, none, address, 16);
    fails(6, "listen", 0, _korSocket_Listen, none, 1);
    fails(6, "connect", 0, _korSocket_Connect, none, address, 16);
    fails(6, "accept", -1, _korSocket_Accept, none, nullptr, nullptr);
    fails(6, "recv", -1, _korSocket_Recv, none, &byte, 1, 0);
    fails(6, "recv", -1, _korSocket_Recv, none, &byte, -1, 0);
    fails(6, "send", -1, _korSocket_Send, none, &byte, 1, 0);
    fails(6, "ioctlsocket", 0, _korSocket_SetBlocking, none, uint8_t{1});
    fails(6, "getsockname", 0, _korSocket_GetSockName, none, address, &length);
    fails(6, "getpeername", 0, _korSocket_GetPeerName, none, address, &length);
    fails(6, "getsockname", 0, _korSocket_GetSockPort, none);
    fails(6, "getpeername", 0, _korSocket_GetPeerPort, none);
    fails(6, "getsockopt", -1, _korSocket_GetError, none);
    fails(6, "getsockopt", 0, _korSocket_GetBufsize, none, SO_RCVBUF);
    fails(6, "setsockopt", 0, _korSocket_SetOpt, none, SOL_SOCKET, SO_SNDBUF, &value, 4);
    fails(6, "usock read failure.", -1, _korSocket_RecvFromAddr, none, address, &length, &byte, 1, 0);
    fails(6, "usock sendto error", 0, _korSocket_SendTo, none, 0u, uint16_t{0}, &byte, 1);
    fails(11, "local listener not supported on windows", -1, _korSocket_CreateLocalListener, "/tmp/x", 0);
    fails(11, "local connection not supported on windows", -1, _korSocket_CreateLocalConnection, "/tmp/x", 0);
}

// With one descriptor after another left, everything that makes sockets fails with its word, or works, and keeps none.
TEST_F(KorSocketTest, DescriptorsRunOut)
{
    if (!DescriptorLimit::exists) {
        GTEST_SKIP() << "no limit of descriptors on this system";
    }
    OwnedSocket listener = listen();
    std::string port = portText(listener);
    int before = openDescriptors();
    auto worked = [this](bool made) {
        bool clear = ex->code == 0;
        EXPECT_EQ(clear, made) << describe(ex);
        korEx_Clear(ex);
        return clear;
    };
    for (int left = 0; left < 5; left++) {
        DescriptorLimit limit(left);
        {
            Pair pair(ex);
            EXPECT_EQ(worked(pair.first != _korSocketInvalid && pair.second != _korSocketInvalid), left >= 2);
        }
        OwnedSocket other = listen();
        EXPECT_EQ(worked(other != _korSocketInvalid), left >= 1);
        OwnedSocket client = connect(port);
        if (worked(client != _korSocketInvalid)) {
            OwnedSocket server = accept(listener);
            EXPECT_TRUE(server != _korSocketInvalid || std::string(ex->description) == "accept");
            korEx_Clear(ex);
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

// Short memory either stops a listener or a connection with an error, or does not matter; nothing is kept.
TEST_F(KorSocketTest, MemoryRunsOut)
{
    OwnedSocket listener = listen();
    std::string port = portText(listener);
    int before = openDescriptors();
    bool fired = true;
    for (uint64_t failing = 1; fired; failing++) {
        FailingHeap heap(failing);
        OwnedSocket other = listen();
        OwnedSocket client = connect(port);
        fired = heap.fired();
        EXPECT_EQ(ex->code == 0, client != _korSocketInvalid);
        EXPECT_TRUE(ex->code == 0 || (fired && (ex->code == 2 || ex->code == 6))) << describe(ex);
        korEx_Clear(ex);
    }
    EXPECT_EQ(openDescriptors(), before);
}

} // namespace
