// exchangeServer.h - a korexchange of the test's own, and a client of it that speaks in bytes.

#pragma once

#include "packets.h"
#include "support/childProcess.h"
#include "support/korTest.h"

#include "korutil/korLib.h"
#include "korutil/korSocket.h"

#include <csignal>
#include <memory>
#include <utility>

#ifdef _WIN32
#include <winsock2.h>
#else
#include <sys/socket.h>
#include <sys/time.h>
#endif

namespace kor::test {

inline const std::string closedByServer = "(closed by the server)";
inline const std::string nothingCame = "(nothing came)";

/// A connection. What is sent and received are whole packets as byte strings, or any bytes.
class Client
{
public:
    /// Connects, and no more.
    explicit Client(uint16_t port)
    {
        KOR_EX_LOCAL(ex);
        socket_ = _korSocket_CreateConnection(KOR_AT(&ex, 0), "127.0.0.1", std::to_string(port).c_str(), 30000);
        EXPECT_TRUE(clean(&ex));
        setPatience(30);
    }
    /// Connects and opens a session.
    Client(uint16_t port, const std::string& id, unsigned keepAlive = 0, const Will& will = {}) : Client(port)
    {
        send(connectPacket(id, keepAlive, will));
        EXPECT_EQ(next(), connackPacket(0));
    }
    Client(Client&& other) noexcept
        : socket_(std::exchange(other.socket_, _korSocketInvalid)), input_(std::move(other.input_))
    {}
    ~Client() { close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// False if the server has closed.
    bool send(const std::string& bytes)
    {
        KOR_EX_LOCAL(ex);
        for (size_t at = 0; at < bytes.size();) {
            auto rest = static_cast<int32_t>(bytes.size() - at);
            int32_t sent = _korSocket_Send(KOR_AT(&ex, 0), socket_, bytes.data() + at, rest, 0);
            if (sent <= 0) {
                return false;
            }
            at += static_cast<size_t>(sent);
        }
        return true;
    }

    /// The next whole packet, or one of the two texts above.
    std::string next()
    {
        size_t size;
        while ((size = wholePacket()) == 0) {
            char bytes[65536];
            KOR_EX_LOCAL(ex);
            int32_t length = _korSocket_Recv(KOR_AT(&ex, 0), socket_, bytes, sizeof bytes, 0);
            if (length <= 0) {
                return timedOut(&ex) ? nothingCame : closedByServer;
            }
            input_.append(bytes, static_cast<size_t>(length));
        }
        std::string packet = input_.substr(0, size);
        input_.erase(0, size);
        return packet;
    }

    /// Sends a packet and gives what comes next.
    std::string ask(const std::string& packet)
    {
        send(packet);
        return next();
    }
    void subscribe(const std::string& filter, unsigned qos = 0)
    {
        EXPECT_EQ(ask(subscribePacket(filter, qos)), subackPacket(qos));
    }
    /// After this, what this client sent has reached the sockets of its receivers, and nothing waits at this one.
    void settle() { EXPECT_EQ(ask(pingPacket), pongPacket); }

    void close() { _korSocket_ForceClose(0, nullptr, std::exchange(socket_, _korSocketInvalid)); }

private:
    void setPatience(int seconds)
    {
#ifdef _WIN32
        DWORD time = static_cast<DWORD>(1000 * seconds);
#else
        timeval time = {seconds, 0};
#endif
        KOR_EX_LOCAL(ex);
        _korSocket_SetOpt(KOR_AT(&ex, 0), socket_, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
        EXPECT_TRUE(clean(&ex));
    }

    static bool timedOut(const korEx* ex)
    {
#ifdef _WIN32
        return ex->osError == WSAETIMEDOUT || ex->osError == WSAEWOULDBLOCK;
#else
        return ex->osError == EAGAIN;
#endif
    }

    // The bytes of the packet at the start of the input; 0 if its end has not come.
    size_t wholePacket() const
    {
        size_t length = 0;
        for (size_t i = 1; i < input_.size(); i++) {
            auto byte = static_cast<uint8_t>(input_[i]);
            length |= static_cast<size_t>(byte & 0x7f) << 7 * (i - 1);
            if (byte < 0x80) {
                return 1 + i + length <= input_.size() ? 1 + i + length : 0;
            }
        }
        return 0;
    }

    korSocket socket_ = _korSocketInvalid;
    std::string input_;
};

/// A test with a server, which must end well: by a signal with exit code 0, with nothing to say for a sanitizer.
class ExchangeTest : public KorTest
{
protected:
    ExchangeTest() { _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL); }
    ~ExchangeTest() override
    {
        server.reset();
        _korutil_Close(KOR_AT_D(0, ex));
    }

    void start(std::vector<std::string> options = {})
    {
        options.insert(options.begin(), {"--port", "0"});
        server = std::make_unique<Program>(besideThisProgram(KOR_SERVER), options);
        const std::string announcement = "korexchange: listening on 127.0.0.1:";
        ASSERT_TRUE(server->waitFor(announcement)) << server->output();
        std::string output = server->output();
        port = static_cast<uint16_t>(std::stoi(output.substr(output.find(announcement) + announcement.size())));
        ASSERT_NE(port, 0);
    }

    void stop(int signal)
    {
        server->signal(signal);
        int code = server->wait();
#ifndef _WIN32 // it knows no signals: the server was killed
        EXPECT_EQ(code, 0) << server->output();
#else
        EXPECT_EQ(code, 1) << server->output();
#endif
        EXPECT_EQ(server->output().find("Sanitizer"), std::string::npos) << server->output();
        EXPECT_EQ(server->output().find("runtime error"), std::string::npos) << server->output();
    }

    void TearDown() override
    {
        if (server != nullptr) {
            stop(SIGTERM);
        }
        KorTest::TearDown();
    }

    Client connect(const std::string& id, unsigned keepAlive = 0, const Will& will = {})
    {
        return Client(port, id, keepAlive, will);
    }

    uint16_t port = 0;
    std::unique_ptr<Program> server;
};

} // namespace kor::test
