// sockets_bench.cpp - streams over loopback through the library beside the plain system calls: what the wrapping costs.
//
// Both go over TCP connections with the same options; a second thread answers, or reads all that comes.

#include "korutil/korLib.h"
#include "korutil/korSocket.h"

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

korEx gEx;

// ---- The contenders: a connected pair, a receive, a send ------------------------------------------------------------

struct Kor {
    static constexpr const char* name = "korSocket";
    using Socket = korSocket;

    static std::pair<Socket, Socket> connect()
    {
        Socket listener = _korSocket_CreateListener(KOR_AT(&gEx, 0), "127.0.0.1", "0", 0);
        std::string port = std::to_string(ntohs(_korSocket_GetSockPort(KOR_AT(&gEx, 0), listener)));
        Socket client = _korSocket_CreateConnection(KOR_AT(&gEx, 0), "127.0.0.1", port.c_str(), 5000);
        Socket server = _korSocket_Accept(KOR_AT(&gEx, 0), listener, nullptr, nullptr);
        _korSocket_Close(KOR_AT_D(0, &gEx), listener);
        return {client, server};
    }
    static ssize_t receive(korEx* ex, Socket socket, char* buffer, size_t size)
    {
        return _korSocket_Recv(KOR_AT(ex, 0), socket, buffer, static_cast<int32_t>(size), 0);
    }
    static ssize_t send(korEx* ex, Socket socket, const char* data, size_t size)
    {
        return _korSocket_Send(KOR_AT(ex, 0), socket, data, static_cast<int32_t>(size), 0);
    }
    static void close(Socket socket) { _korSocket_ForceClose(KOR_AT_D(0, &gEx), socket); }
};

struct Plain {
    static constexpr const char* name = "system";
    using Socket = int;

    static std::pair<Socket, Socket> connect()
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* place = reinterpret_cast<sockaddr*>(&address);
        int listener = socket(AF_INET, SOCK_STREAM, 0);
        bind(listener, place, length);
        listen(listener, 512);
        getsockname(listener, place, &length);
        int client = socket(AF_INET, SOCK_STREAM, 0);
        ::connect(client, place, length);
        int server = accept(listener, nullptr, nullptr);
        ::close(listener);
        int on = 1;
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return {client, server};
    }
    static ssize_t receive(korEx*, Socket socket, char* buffer, size_t size) { return recv(socket, buffer, size, 0); }
    static ssize_t send(korEx*, Socket socket, const char* data, size_t size)
    {
        return ::send(socket, data, size, MSG_NOSIGNAL);
    }
    static void close(Socket socket) { ::close(socket); }
};

template <typename Contender>
bool transferAll(ssize_t (*step)(korEx*, typename Contender::Socket, char*, size_t), korEx* ex,
                 typename Contender::Socket socket, char* buffer, size_t size)
{
    for (size_t done = 0; done < size;) {
        ssize_t moved = step(ex, socket, buffer + done, size - done);
        if (moved <= 0) {
            return false;
        }
        done += static_cast<size_t>(moved);
    }
    return true;
}

template <typename Contender>
ssize_t sendStep(korEx* ex, typename Contender::Socket socket, char* buffer, size_t size)
{
    return Contender::send(ex, socket, buffer, size);
}

// ---- The cases ------------------------------------------------------------------------------------------------------

// One message there and one back.
template <typename Contender>
void pingPong(benchmark::State& state)
{
    auto size = static_cast<size_t>(state.range(0));
    auto [client, server] = Contender::connect();
    std::thread answering([&, peer = server] {
        KOR_EX_LOCAL(ex);
        std::vector<char> message(size);
        while (transferAll<Contender>(Contender::receive, &ex, peer, message.data(), size) &&
               transferAll<Contender>(sendStep<Contender>, &ex, peer, message.data(), size)) {
        }
    });
    std::vector<char> message(size, 'p');
    for (auto _ : state) {
        bool answered = transferAll<Contender>(sendStep<Contender>, &gEx, client, message.data(), size) &&
                        transferAll<Contender>(Contender::receive, &gEx, client, message.data(), size);
        if (!answered) {
            state.SkipWithError("the connection broke");
            break;
        }
    }
    Contender::close(client);
    answering.join();
    Contender::close(server);
    korEx_Clear(&gEx);
}

// Messages one way, to a reader that takes whatever there is.
template <typename Contender>
void stream(benchmark::State& state)
{
    auto size = static_cast<size_t>(state.range(0));
    auto [client, server] = Contender::connect();
    std::thread reading([peer = server] {
        KOR_EX_LOCAL(ex);
        std::vector<char> room(262144);
        while (Contender::receive(&ex, peer, room.data(), room.size()) > 0) {
        }
    });
    std::vector<char> message(size, 's');
    for (auto _ : state) {
        if (!transferAll<Contender>(sendStep<Contender>, &gEx, client, message.data(), size)) {
            state.SkipWithError("the connection broke");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    Contender::close(client);
    reading.join();
    Contender::close(server);
    korEx_Clear(&gEx);
}

template <typename Contender>
void enlist()
{
    std::string who = std::string("/") + Contender::name;
    auto pings = benchmark::RegisterBenchmark(("BM_Sockets_pingPong" + who).c_str(), pingPong<Contender>);
    pings->Arg(16)->Arg(1024)->UseRealTime();
    auto streams = benchmark::RegisterBenchmark(("BM_Sockets_stream" + who).c_str(), stream<Contender>);
    streams->Arg(64)->Arg(1024)->Arg(65536)->UseRealTime();
}

} // namespace

int main(int count, char** arguments)
{
    korEx_initHead(&gEx, nullptr, 0, 1);
    _korutil_Open(KOR_AT(&gEx, 0), KORUTIL_LEVEL);
    enlist<Kor>();
    enlist<Plain>();
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    _korutil_Close(KOR_AT_D(0, &gEx));
    return 0;
}
