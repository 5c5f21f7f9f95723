// korSocket_test.cpp - stream sockets over loopback, in both address families where the machine has them.

#include "netTest.h"
#include "support/descriptors.h"
#include "support/failingHeap.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace kor::test;
using KorSocketTest = NetTest;

// ---- Options --------------------------------------------------------------------------------------------------------

TEST_F(KorSocketTest, ANewSocketHasItsOptions)
{
    auto lingerOf = [this](korSocket socket) {
        linger value = {};
        int32_t length = sizeof value;
        _korSocket_GetOpt(KOR_AT(ex, 0), socket, SOL_SOCKET, SO_LINGER, &value, &length);
        return std::pair<int, int>(value.l_onoff != 0, value.l_linger);
    };
    for (int family : {AF_INET, AF_INET6}) {
        if (family == AF_INET6 && !hasIPv6()) {
            continue;
        }
        OwnedSocket stream = _korSocket_Create(KOR_AT(ex, 0), family, SOCK_STREAM, 0);
        EXPECT_NE(option(stream, IPPROTO_TCP, TCP_NODELAY), 0);
        EXPECT_EQ(lingerOf(stream), std::pair(1, 2));
        if (family == AF_INET6) {
            EXPECT_NE(option(stream, IPPROTO_IPV6, IPV6_V6ONLY), 0);
        }
        EXPECT_CLEAN();
    }
    OwnedSocket datagram = _korSocket_Create(KOR_AT(ex, 0), AF_INET, SOCK_DGRAM, 0);
    EXPECT_CLEAN();
    EXPECT_EQ(_korSocket_Create(KOR_AT(ex, 0), AF_INET, 77, 0), _korSocketInvalid);
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(6, "socket");
}

using KeepAliveTimes = std::pair<int32_t, int32_t>; // idle, interval, in seconds

#ifdef TCP_KEEPIDLE
constexpr bool tellsKeepAliveTimes = true;

KeepAliveTimes timesOf(korEx* ex, korSocket socket)
{
    KeepAliveTimes times = {};
    int32_t length = sizeof times.first;
    _korSocket_GetOpt(KOR_AT(ex, 0), socket, IPPROTO_TCP, TCP_KEEPIDLE, &times.first, &length);
    _korSocket_GetOpt(KOR_AT(ex, 0), socket, IPPROTO_TCP, TCP_KEEPINTVL, &times.second, &length);
    return times;
}
#else
constexpr bool tellsKeepAliveTimes = false;

KeepAliveTimes timesOf(korEx*, korSocket)
{
    return {};
}
#endif

TEST_F(KorSocketTest, TimesOfKeepAlive)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    OwnedSocket plain = _korSocket_Create(KOR_AT(ex, 0), AF_INET, SOCK_STREAM, 0);
    KeepAliveTimes systems = timesOf(ex, plain);
    struct {
        const char* configured;
        KeepAliveTimes times;
    } cases[] = {{nullptr, {20, 10}}, {"5000", {5, 10}}, {"1001", {2, 10}},
                 {"0", systems},      {"word", systems}, {"-1", systems}};
    for (const auto& c : cases) {
        EnvironmentGuard guard("KOR_TCP_KEEPIDLE_VAL", c.configured);
        OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", portText(listener).c_str(), 5000);
        OwnedSocket server = _korSocket_Accept(KOR_AT(ex, 0), listener, nullptr, nullptr);
        ASSERT_CLEAN();
        for (korSocket socket : {korSocket{client}, korSocket{server}}) {
            EXPECT_NE(option(socket, SOL_SOCKET, SO_KEEPALIVE), 0);
            if (tellsKeepAliveTimes) {
                EXPECT_EQ(timesOf(ex, socket), c.times) << c.configured;
            }
        }
    }
}

// ---- Listeners and connections --------------------------------------------------------------------------------------

TEST_F(KorSocketTest, ConnectsAndTalks)
{
    struct {
        const char* listening;
        const char* connecting;
        bool wide;
    } cases[] = {{"127.0.0.1", "127.0.0.1", false}, {"::1", "::1", true}, {"localhost", "localhost", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.listening);
        if (c.wide && !hasIPv6()) {
            continue;
        }
        OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), c.listening, "0", 0);
        for (int64_t timeout : {-1, 5000}) {
            OwnedSocket client =
                _korSocket_CreateConnection(KOR_AT(ex, 0), c.connecting, portText(listener).c_str(), timeout);
            Address peer = {};
            int32_t length = sizeof peer;
            OwnedSocket server = _korSocket_Accept(KOR_AT(ex, 0), listener, &peer.head, &length);
            ASSERT_CLEAN();
            EXPECT_EQ(length, peer.length());
            EXPECT_EQ(peer.narrow.sin_port, _korSocket_GetSockPort(KOR_AT(ex, 0), client));
            EXPECT_EQ(_korSocket_GetPeerPort(KOR_AT(ex, 0), client), _korSocket_GetSockPort(KOR_AT(ex, 0), listener));
            EXPECT_EQ(_korSocket_GetError(KOR_AT(ex, 0), client), 0);
            expectPassage(client, server);
            expectPassage(server, client);
        }
    }
}

TEST_F(KorSocketTest, ListensOnEveryAddress)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "*", "0", 0);
    OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), nullptr, portText(listener).c_str(), 5000);
    OwnedSocket server = _korSocket_Accept(KOR_AT(ex, 0), listener, nullptr, nullptr);
    expectPassage(client, server);
}

// A port has one listener at a time, and the next one need not wait for the connections of the last.
TEST_F(KorSocketTest, APortCanBeHadAgain)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    std::string port = portText(listener);
    OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 5000);
    OwnedSocket server = _korSocket_Accept(KOR_AT(ex, 0), listener, nullptr, nullptr);
    ASSERT_CLEAN();
    EXPECT_EQ(_korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 0), _korSocketInvalid);
    EXPECT_RAISED(6, "bind");
    listener.close();
    server.close(); // ends first, hence keeps the port for a while
    client.close();
    listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 0);
    EXPECT_CLEAN();
}

// One address after another: whichever of them listens, the connect finds it and the refusals before it are forgotten.
TEST_F(KorSocketTest, WalksTheAddresses)
{
    korHostResolutions* found = _korHostResolutions_Create(KOR_AT(ex, 0), nullptr, "0", 0, SOCK_STREAM);
    int addresses = 0;
    for (korHostInfo* info = _korHostResolutions_GetFirst(KOR_AT(ex, 0), found); info != nullptr;
         info = _korHostResolutions_GetNext(KOR_AT(ex, 0), found)) {
        std::string host = _korHostInfo_GetNumericName(KOR_AT(ex, 0), info);
        SCOPED_TRACE(host);
        OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), host.c_str(), "0", 0);
        ASSERT_CLEAN();
        std::string port = portText(listener);
        OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), nullptr, port.c_str(), -1);
        EXPECT_CLEAN();
        OwnedSocket timed = _korSocket_CreateConnection(KOR_AT(ex, 0), nullptr, port.c_str(), 5000);
        EXPECT_CLEAN();
        addresses++;
    }
    _korHostResolutions_Free(KOR_AT_D(0, ex), found);
    EXPECT_GE(addresses, 1);

    EXPECT_EQ(_korSocket_CreateConnection(KOR_AT(ex, 0), nullptr, nullptr, -1), _korSocketInvalid);
    EXPECT_RAISED(9, "Could not resolve host '(null)'");
    EXPECT_EQ(_korSocket_CreateListener(KOR_AT(ex, 0), "*", nullptr, 0), _korSocketInvalid);
    EXPECT_RAISED(9, "Could not resolve host '(null)'");
}

TEST_F(KorSocketTest, RefusedConnections)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    std::string port = portText(listener);
    listener.close();
    for (int64_t timeout : {-1, 5000}) {
        EXPECT_EQ(_korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), timeout), _korSocketInvalid);
        if (ex->code == 6 && std::string(ex->description) == "poll") {
            korEx_Clear(ex);
            GTEST_SKIP() << "this system's poll does not say that a refused socket can be written to";
        }
        EXPECT_NE(ex->osError, 0);
        EXPECT_NE(ex->osError, kor::platform::errorConnectTimedOut);
        EXPECT_RAISED(6, "connect");
    }
}

// A listener whose backlog is full leaves connects without an answer.
TEST_F(KorSocketTest, UnansweredConnections)
{
    Address address = loopback(AF_INET);
    OwnedSocket listener = _korSocket_Create(KOR_AT(ex, 0), AF_INET, SOCK_STREAM, 0);
    _korSocket_Bind(KOR_AT(ex, 0), listener, &address.head, address.length());
    _korSocket_Listen(KOR_AT(ex, 0), listener, 0);
    std::string port = portText(listener);
    std::vector<OwnedSocket> waiting;
    for (int i = 0; i < 20 && ex->code == 0; i++) {
        waiting.emplace_back(_korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 100));
    }
    if (ex->code == 0) {
        GTEST_SKIP() << "the system takes any number of connections";
    }
    EXPECT_EQ(ex->osError, kor::platform::errorConnectTimedOut);
    EXPECT_RAISED(6, "connect");
    EXPECT_EQ(_korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 0), _korSocketInvalid);
    EXPECT_EQ(ex->osError, kor::platform::errorConnectTimedOut);
    EXPECT_RAISED(6, "connect");
}

TEST_F(KorSocketTest, ATimedConnectionComesBackBlocking)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", portText(listener).c_str(), 5000);
    OwnedSocket server = _korSocket_Accept(KOR_AT(ex, 0), listener, nullptr, nullptr);
    ASSERT_CLEAN();
    std::atomic<int32_t> received = -2;
    std::thread reader([&] {
        KOR_EX_LOCAL(own);
        char byte;
        received = _korSocket_Recv(KOR_AT(&own, 0), client, &byte, 1, 0);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // a non-blocking receive would have failed meanwhile
    _korSocket_Send(KOR_AT(ex, 0), server, "!", 1, 0);
    reader.join();
    EXPECT_EQ(received, 1);
}

TEST_F(KorSocketTest, LocalSocketsAreNotOffered)
{
    EXPECT_EQ(_korSocket_CreateLocalListener(KOR_AT(ex, 0), "/tmp/x", 0), _korSocketInvalid);
    EXPECT_RAISED(11, "local listener not supported on windows");
    EXPECT_EQ(_korSocket_CreateLocalConnection(KOR_AT(ex, 0), "/tmp/x", 0), _korSocketInvalid);
    EXPECT_RAISED(11, "local connection not supported on windows");
}

// ---- Pairs and ends -------------------------------------------------------------------------------------------------

TEST_F(KorSocketTest, PairsAndTheirEnds)
{
    OwnedSocket first;
    OwnedSocket second;
    _korSocket_CreatePair(KOR_AT(ex, 0), &first, &second);
    ASSERT_CLEAN();
    expectPassage(first, second);
    expectPassage(second, first);
    char byte;
    _korSocket_ShutdownWrite(0, nullptr, first);
    EXPECT_EQ(_korSocket_Recv(KOR_AT(ex, 0), second, &byte, 1, 0), 0);
    expectPassage(second, first); // the other direction is open
    _korSocket_Shutdown(0, nullptr, second);
    EXPECT_EQ(_korSocket_Recv(KOR_AT(ex, 0), first, &byte, 1, 0), 0);
    EXPECT_CLEAN();
    EXPECT_EQ(_korSocket_Send(KOR_AT(ex, 0), first, "x", 1, 0), -1); // and no signal ends the process
    EXPECT_RAISED(6, "send");
}

TEST_F(KorSocketTest, AVanishingPeer)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", portText(listener).c_str(), 5000);
    OwnedSocket server = _korSocket_Accept(KOR_AT(ex, 0), listener, nullptr, nullptr);
    linger reset = {1, 0};
    _korSocket_SetOpt(KOR_AT(ex, 0), server, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    _korSocket_Send(KOR_AT(ex, 0), client, "unread", 6, 0);
    char byte;
    _korSocket_Recv(KOR_AT(ex, 0), server, &byte, 1, 0); // the rest has come with it, and stays unread
    ASSERT_CLEAN();
    _korSocket_Close(KOR_AT_D(0, ex), server.release());
    if (_korSocket_Recv(KOR_AT(ex, 0), client, &byte, 1, 0) == 0) {
        GTEST_SKIP() << "this system tells of a reset as of an end";
    }
    EXPECT_RAISED(6, "recv");
    EXPECT_EQ(_korSocket_Send(KOR_AT(ex, 0), client, "x", 1, 0), -1);
    EXPECT_RAISED(6, "send");
}

// A non-blocking sender fills the way to its peer; every byte that was taken arrives, in pieces of another size.
TEST_F(KorSocketTest, ShortReadsAndWrites)
{
    OwnedSocket first;
    OwnedSocket second;
    _korSocket_CreatePair(KOR_AT(ex, 0), &first, &second);
    _korSocket_SetBlocking(KOR_AT(ex, 0), first, 0);
    _korSocket_SetBlocking(KOR_AT(ex, 0), second, 0);
    std::string block(100000, 'b');
    int64_t taken = 0;
    while (ex->code == 0) {
        int32_t sent = _korSocket_Send(KOR_AT(ex, 0), first, block.data(), static_cast<int32_t>(block.size()), 0);
        taken += sent > 0 ? sent : 0;
    }
    EXPECT_EQ(ex->osError, kor::platform::errorWouldBlock);
    EXPECT_RAISED(6, "send");
    first.close(); // what was taken is on its way all the same
    int64_t arrived = 0;
    _korSocket_SetBlocking(KOR_AT(ex, 0), second, 1);
    while (int32_t received = _korSocket_Recv(KOR_AT(ex, 0), second, block.data(), 777, 0)) {
        ASSERT_GT(received, 0);
        arrived += received;
    }
    EXPECT_EQ(arrived, taken);
}

// ---- Failures -------------------------------------------------------------------------------------------------------

TEST_F(KorSocketTest, EachFailureHasItsWord)
{
    constexpr korSocket none = -1;
    Address address = loopback(AF_INET);
    int32_t length = sizeof address;
    int32_t value = 0;
    char byte = 0;
    struct {
        const char* word;
        std::function<int64_t()> call;
        int64_t result;
    } cases[] = {
        {"bind", [&] { return _korSocket_Bind(KOR_AT(ex, 0), none, &address.head, 16), 0; }, 0},
        {"listen", [&] { return _korSocket_Listen(KOR_AT(ex, 0), none, 1), 0; }, 0},
        {"connect", [&] { return _korSocket_Connect(KOR_AT(ex, 0), none, &address.head, 16), 0; }, 0},
        {"accept", [&] { return _korSocket_Accept(KOR_AT(ex, 0), none, nullptr, nullptr); }, -1},
        {"recv", [&] { return _korSocket_Recv(KOR_AT(ex, 0), none, &byte, 1, 0); }, -1},
        {"recv", [&] { return _korSocket_Recv(KOR_AT(ex, 0), none, &byte, -1, 0); }, -1},
        {"send", [&] { return _korSocket_Send(KOR_AT(ex, 0), none, &byte, 1, 0); }, -1},
        {"ioctlsocket", [&] { return _korSocket_SetBlocking(KOR_AT(ex, 0), none, 1), 0; }, 0},
        {"getsockname", [&] { return _korSocket_GetSockName(KOR_AT(ex, 0), none, &address.head, &length), 0; }, 0},
        {"getpeername", [&] { return _korSocket_GetPeerName(KOR_AT(ex, 0), none, &address.head, &length), 0; }, 0},
        {"getsockname", [&] { return _korSocket_GetSockPort(KOR_AT(ex, 0), none); }, 0},
        {"getpeername", [&] { return _korSocket_GetPeerPort(KOR_AT(ex, 0), none); }, 0},
        {"getsockopt", [&] { return _korSocket_GetError(KOR_AT(ex, 0), none); }, -1},
        {"getsockopt", [&] { return _korSocket_GetBufsize(KOR_AT(ex, 0), none, SO_RCVBUF); }, 0},
        {"setsockopt", [&] { return _korSocket_SetOpt(KOR_AT(ex, 0), none, SOL_SOCKET, SO_SNDBUF, &value, 4), 0; }, 0},
        {"usock read failure.",
         [&] { return _korSocket_RecvFromAddr(KOR_AT(ex, 0), none, &address.head, &length, &byte, 1, 0); }, -1},
        {"usock sendto error", [&] { return _korSocket_SendTo(KOR_AT(ex, 0), none, 0, 0, &byte, 1), 0; }, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.call(), c.result) << c.word;
        EXPECT_NE(ex->osError, 0) << c.word;
        EXPECT_RAISED(6, c.word);
        KOR_RAISE(ex, 0, 100, "pending");
        ex->osError = 0;
        EXPECT_EQ(c.call(), c.result) << c.word; // nothing is done with an error pending
        EXPECT_EQ(ex->osError, 0) << c.word;
        EXPECT_RAISED(100, "pending");
    }
}

TEST_F(KorSocketTest, EndsWorkWithAnErrorPending)
{
    OwnedSocket first;
    OwnedSocket second;
    _korSocket_CreatePair(KOR_AT(ex, 0), &first, &second);
    KOR_RAISE(ex, 0, 100, "pending");
    _korSocket_Close(KOR_AT_D(0, ex), first.release());
    _korSocket_Close(KOR_AT_D(0, ex), _korSocketInvalid);
    _korSocket_ForceClose(KOR_AT_D(0, ex), _korSocketInvalid);
    _korSocket_Shutdown(KOR_AT_D(0, ex), _korSocketInvalid);
    _korSocket_ShutdownWrite(KOR_AT_D(0, ex), _korSocketInvalid);
    OwnedSocket third;
    _korSocket_CreatePair(KOR_AT(ex, 0), &third, &first);
    EXPECT_EQ(third, _korSocketInvalid);
    EXPECT_EQ(_korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0), _korSocketInvalid);
    EXPECT_RAISED(100, "pending");
    char byte;
    EXPECT_EQ(_korSocket_Recv(KOR_AT(ex, 0), second, &byte, 1, 0), 0);
}

// With one descriptor after another left, everything that makes sockets fails with its word, or works, and keeps none.
TEST_F(KorSocketTest, DescriptorsRunOut)
{
    if (!hasDescriptorLimit) {
        GTEST_SKIP() << "no limit of descriptors on this system";
    }
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    std::string port = portText(listener);
    std::vector<OwnedSocket> fillers; // a number below the listener's may have come free meanwhile
    do {
        fillers.emplace_back(_korSocket_Create(KOR_AT(ex, 0), AF_INET, SOCK_STREAM, 0));
    } while (fillers.back() < korSocket{listener});
    fillers.pop_back();
    int before = openDescriptors();
    for (int left = 0; left < 5; left++) {
        DescriptorLimit limit(static_cast<int>(korSocket{listener}) + 1 + left);
        OwnedSocket first;
        OwnedSocket second;
        _korSocket_CreatePair(KOR_AT(ex, 0), &first, &second);
        EXPECT_EQ(ex->code == 0, first != _korSocketInvalid && second != _korSocketInvalid);
        first.close();
        second.close();
        korEx_Clear(ex);
        OwnedSocket other = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
        EXPECT_EQ(ex->code == 0, other != _korSocketInvalid);
        korEx_Clear(ex);
        OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 5000);
        EXPECT_EQ(ex->code == 0, client != _korSocketInvalid);
        bool connected = ex->code == 0;
        korEx_Clear(ex);
        OwnedSocket server;
        if (connected) {
            server = _korSocket_Accept(KOR_AT(ex, 0), listener, nullptr, nullptr);
            EXPECT_TRUE(ex->code == 0 || std::string(ex->description) == "accept");
            korEx_Clear(ex);
        }
        if (left == 0) {
            std::vector<OwnedSocket> last; // at most what came free below the listener's number
            do {
                last.emplace_back(_korSocket_Create(KOR_AT(ex, 0), AF_INET, SOCK_STREAM, 0));
            } while (last.back() != _korSocketInvalid);
            EXPECT_LE(last.size(), 3u);
            EXPECT_RAISED(6, "socket");
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

// Short memory either stops a listener or a connection with an error, or does not matter; nothing is kept.
TEST_F(KorSocketTest, MemoryRunsOut)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    std::string port = portText(listener);
    int before = openDescriptors();
    bool fired = true;
    for (uint64_t failing = 1; fired; failing++) {
        FailingHeap heap(failing);
        OwnedSocket other = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
        OwnedSocket client = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 5000);
        fired = heap.fired();
        EXPECT_EQ(ex->code == 0, client != _korSocketInvalid);
        EXPECT_TRUE(ex->code == 0 || (fired && (ex->code == 2 || ex->code == 6))) << describe(ex);
        korEx_Clear(ex);
    }
    EXPECT_EQ(openDescriptors(), before);
}

// ---- Many connections -----------------------------------------------------------------------------------------------

constexpr int connectors = 4;
constexpr int connectionsEach = 500;

// Accepts connections and gives back what each of them sends, until the listener is shut down. Gives their number.
int serve(korSocket listener)
{
    KOR_EX_LOCAL(own);
    int served = 0;
    for (;;) {
        OwnedSocket client = _korSocket_Accept(KOR_AT(&own, 0), listener, nullptr, nullptr);
        char text[8];
        int32_t length = _korSocket_Recv(KOR_AT(&own, 0), client, text, sizeof text, MSG_WAITALL);
        if (own.code != 0 || length != sizeof text || std::memcmp(text, "the end!", sizeof text) == 0) {
            return served;
        }
        _korSocket_Send(KOR_AT(&own, 0), client, text, length, 0);
        served += own.code == 0;
    }
}

TEST_F(KorSocketTest, ManyConnectionsFromManyThreads)
{
    OwnedSocket listener = _korSocket_CreateListener(KOR_AT(ex, 0), "127.0.0.1", "0", 0);
    std::string port = portText(listener);
    int served = 0;
    std::thread server([&] { served = serve(listener); });
    std::atomic<int> answered = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < connectors; i++) {
        threads.emplace_back([&] {
            KOR_EX_LOCAL(own);
            for (int j = 0; j < connectionsEach && own.code == 0; j++) {
                OwnedSocket client = _korSocket_CreateConnection(KOR_AT(&own, 0), "127.0.0.1", port.c_str(), 10000);
                char text[8] = "message";
                _korSocket_Send(KOR_AT(&own, 0), client, text, sizeof text, 0);
                std::memset(text, 0, sizeof text);
                _korSocket_Recv(KOR_AT(&own, 0), client, text, sizeof text, MSG_WAITALL);
                answered += own.code == 0 && std::strcmp(text, "message") == 0;
            }
            EXPECT_EQ(own.code, 0) << describe(&own);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    OwnedSocket last = _korSocket_CreateConnection(KOR_AT(ex, 0), "127.0.0.1", port.c_str(), 10000);
    _korSocket_Send(KOR_AT(ex, 0), last, "the end!", 8, 0);
    server.join();
    EXPECT_EQ(answered, connectors * connectionsEach);
    EXPECT_EQ(served, connectors * connectionsEach);
}

} // namespace

TEST_F(KorSocketTest, AnOptionIsSetAsANumber)
{
    OwnedSocket socket = _korSocket_Create(KOR_AT(ex, 0), AF_INET, SOCK_STREAM, 0);
    for (int32_t on : {1, 0}) {
        _korSocket_SetOptInt(KOR_AT(ex, 0), socket, SOL_SOCKET, SO_KEEPALIVE, on);
        EXPECT_EQ(option(socket, SOL_SOCKET, SO_KEEPALIVE) != 0, on != 0);
    }
#ifdef _WIN32
    EXPECT_NE(ConnectEx, nullptr);
#else
    EXPECT_EQ(ConnectEx, nullptr) << "Linux has nothing like it";
#endif
}
