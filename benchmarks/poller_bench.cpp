// poller_bench.cpp - the pollers beside plain epoll, libevent and libuv; and addresses against networks.
//
// One socket is ready, N are idle. An "add" is one socket added and removed again, with all the passes of the waiter
// that it takes. A wake-up is a round trip between two threads: two interrupts. The program raises its limit of
// descriptors; sizes that do not fit are left out.

#include "korutil/korCidr.h"
#include "korutil/korHostResolutions.h"
#include "korutil/korPoller.h"
#include "korutil/korSocket.h"

#include "secondThread.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifdef KOR_HAVE_LIBEVENT
#include <event2/event.h>
#include <event2/thread.h>
#endif
#ifdef KOR_HAVE_LIBUV
#include <uv.h>
#endif

namespace {

const SecondThread secondThread;

korEx gEx;

// ---- The contenders: each watches sockets for reading, and is woken by another thread
// ---------------------------------

template <uint8_t fdsOnly>
class Kor
{
public:
    Kor() : poller_(_korPoller_CreateEx(&gEx, 0, fdsOnly)) {}
    ~Kor()
    {
        for (korPollerEvent* event : events_) {
            remove(event);
            _korPollerEvent_Release(0, &gEx, event);
        }
        _korPoller_ProcessRemoveEvents(&gEx, 0, poller_, 1);
        _korPoller_Destroy(0, &gEx, poller_);
    }
    void watch(int socket)
    {
        events_.push_back(_korPollerEvent_CreateNetwork(&gEx, 0, nullptr, nullptr, KOR_POLL_READ, socket));
        add(events_.back());
        poll();
    }
    void addAndRemove()
    {
        add(events_[0]);
        poll();
        remove(events_[0]);
        poll();
    }
    void prepareAdd(int socket)
    {
        events_.insert(events_.begin(),
                       _korPollerEvent_CreateNetwork(&gEx, 0, nullptr, nullptr, KOR_POLL_READ, socket));
    }
    int poll() { return wait(0); }
    void waitForWake() { wait(-1); }
    void wake() { _korPoller_Interrupt(0, &gEx, poller_); }

private:
    int wait(int32_t timeoutMs)
    {
        korEx own;
        korEx_initHead(&own, nullptr, 0, 1);
        korPollerEvent** ready;
        return _korPoller_Wait(&own, 0, poller_, &ready, 1, timeoutMs);
    }
    void add(korPollerEvent* event) { _korPoller_AddEvent(&gEx, 0, poller_, event); }
    void remove(korPollerEvent* event) { _korPoller_RemoveEvent(0, &gEx, poller_, event); }

    korPoller* poller_;
    std::vector<korPollerEvent*> events_;
};
using KorFull = Kor<0>;
using KorFdsOnly = Kor<1>;

class Epoll
{
public:
    Epoll() : epoll_(epoll_create1(0)), wake_(eventfd(0, EFD_NONBLOCK)) { watch(wake_); }
    ~Epoll()
    {
        close(wake_);
        close(epoll_);
    }
    void watch(int socket) { change(EPOLL_CTL_ADD, socket); }
    void prepareAdd(int socket) { added_ = socket; }
    void addAndRemove()
    {
        change(EPOLL_CTL_ADD, added_);
        poll();
        change(EPOLL_CTL_DEL, added_);
        poll();
    }
    int poll() { return epoll_wait(epoll_, reports_, 64, 0); }
    void waitForWake()
    {
        epoll_wait(epoll_, reports_, 64, -1);
        eventfd_t taken;
        eventfd_read(wake_, &taken);
    }
    void wake() { eventfd_write(wake_, 1); }

private:
    void change(int operation, int socket)
    {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = socket;
        epoll_ctl(epoll_, operation, socket, &event);
    }
    int epoll_;
    int wake_;
    int added_ = -1;
    epoll_event reports_[64];
};

#ifdef KOR_HAVE_LIBEVENT
class Libevent
{
public:
    Libevent() : base_(newBase()), wake_(event_new(base_, -1, EV_PERSIST, ignore, this)) { event_add(wake_, nullptr); }
    ~Libevent()
    {
        event_free(wake_);
        for (event* one : events_) {
            event_free(one);
        }
        event_base_free(base_);
    }
    void watch(int socket)
    {
        events_.push_back(event_new(base_, socket, EV_READ | EV_PERSIST, ignore, this));
        event_add(events_.back(), nullptr);
    }
    void prepareAdd(int socket)
    {
        events_.insert(events_.begin(), event_new(base_, socket, EV_READ | EV_PERSIST, ignore, this));
    }
    void addAndRemove()
    {
        event_add(events_[0], nullptr);
        poll();
        event_del(events_[0]);
        poll();
    }
    int poll()
    {
        seen_ = 0;
        event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NONBLOCK);
        return seen_;
    }
    void waitForWake() { event_base_loop(base_, EVLOOP_ONCE | EVLOOP_NO_EXIT_ON_EMPTY); }
    void wake() { event_active(wake_, 0, 0); }

private:
    static event_base* newBase()
    {
        evthread_use_pthreads();
        return event_base_new();
    }
    static void ignore(int, short, void* self) { static_cast<Libevent*>(self)->seen_++; }
    event_base* base_;
    event* wake_;
    std::vector<event*> events_;
    int seen_ = 0;
};
#endif

#ifdef KOR_HAVE_LIBUV
class Libuv
{
public:
    Libuv()
    {
        uv_loop_init(&loop_);
        uv_async_init(&loop_, &wake_, [](uv_async_t*) {});
    }
    ~Libuv()
    {
        uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr);
        for (auto& one : polls_) {
            uv_close(reinterpret_cast<uv_handle_t*>(one.get()), nullptr);
        }
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    void watch(int socket)
    {
        prepareAdd(socket);
        uv_poll_start(polls_[0].get(), UV_READABLE, count);
    }
    void prepareAdd(int socket)
    {
        polls_.insert(polls_.begin(), std::make_unique<uv_poll_t>());
        uv_poll_init(&loop_, polls_[0].get(), socket);
        polls_[0]->data = this;
    }
    void addAndRemove()
    {
        uv_poll_start(polls_[0].get(), UV_READABLE, count);
        poll();
        uv_poll_stop(polls_[0].get());
        poll();
    }
    int poll()
    {
        seen_ = 0;
        uv_run(&loop_, UV_RUN_NOWAIT);
        return seen_;
    }
    void waitForWake() { uv_run(&loop_, UV_RUN_ONCE); }
    void wake() { uv_async_send(&wake_); }

private:
    static void count(uv_poll_t* poll, int, int) { static_cast<Libuv*>(poll->data)->seen_++; }
    uv_loop_t loop_;
    uv_async_t wake_;
    std::vector<std::unique_ptr<uv_poll_t>> polls_;
    int seen_ = 0;
};
#endif

// ---- Sockets
// ----------------------------------------------------------------------------------------------------------

/// N idle sockets, and one with something to read.
class Sockets
{
public:
    explicit Sockets(int64_t idle)
    {
        for (int64_t i = 0; i < idle; i++) {
            idle_.push_back(socket(AF_INET, SOCK_DGRAM, 0));
        }
        socketpair(AF_UNIX, SOCK_STREAM, 0, pair_);
        complete_ = write(pair_[1], "x", 1) == 1 && (idle_.empty() || idle_.back() >= 0);
    }
    ~Sockets()
    {
        for (int one : idle_) {
            close(one);
        }
        close(pair_[0]);
        close(pair_[1]);
    }
    bool complete() const { return complete_; }
    int ready() const { return pair_[0]; }
    const std::vector<int>& idle() const { return idle_; }

private:
    std::vector<int> idle_;
    int pair_[2];
    bool complete_;
};

// ---- Cases
// ------------------------------------------------------------------------------------------------------------

template <typename Who>
void wait(benchmark::State& state)
{
    Sockets sockets(state.range(0));
    if (!sockets.complete()) {
        state.SkipWithError("not enough descriptors");
        return;
    }
    Who who;
    for (int one : sockets.idle()) {
        who.watch(one);
    }
    who.watch(sockets.ready());
    who.poll();
    int64_t seen = 0;
    for (auto step : state) {
        seen += who.poll();
    }
    if (seen != static_cast<int64_t>(state.iterations())) {
        state.SkipWithError("not one report a wait");
    }
}

template <typename Who>
void add(benchmark::State& state)
{
    Sockets sockets(state.range(0));
    Who who;
    for (int one : sockets.idle()) {
        who.watch(one);
    }
    who.prepareAdd(sockets.ready());
    for (auto step : state) {
        who.addAndRemove();
    }
}

template <typename Who>
void wakeUp(benchmark::State& state)
{
    Who here, there;
    std::atomic<bool> over{false};
    std::thread echo([&] {
        while (!over.load(std::memory_order_relaxed)) {
            there.waitForWake();
            here.wake();
        }
    });
    for (auto step : state) {
        there.wake();
        here.waitForWake();
    }
    over.store(true);
    there.wake();
    echo.join();
}

struct Addresses {
    sockaddr_in narrow = {};
    sockaddr_in6 wide = {};
    Addresses()
    {
        narrow.sin_family = AF_INET;
        narrow.sin_port = htons(5432);
        inet_pton(AF_INET, "192.168.117.29", &narrow.sin_addr);
        wide.sin6_family = AF_INET6;
        wide.sin6_port = htons(5432);
        inet_pton(AF_INET6, "2001:db8:85a3::8a2e:370:7334", &wide.sin6_addr);
    }
    const sockaddr* head(bool v6) const
    {
        return v6 ? reinterpret_cast<const sockaddr*>(&wide) : reinterpret_cast<const sockaddr*>(&narrow);
    }
};
const Addresses addresses;

bool korMatch(const sockaddr* address, const char* network)
{
    return _korCidr_Match(&gEx, 0, address, network) != 0;
}

// What a program does that has nothing but the C library.
bool plainMatch(const sockaddr* address, const char* network)
{
    char text[64];
    std::snprintf(text, sizeof text, "%s", network);
    char* slash = std::strchr(text, '/');
    *slash = '\0';
    unsigned bits = static_cast<unsigned>(std::strtoul(slash + 1, nullptr, 10));
    uint8_t parsed[16];
    inet_pton(address->sa_family, text, parsed);
    const uint8_t* bytes = address->sa_family == AF_INET ? reinterpret_cast<const uint8_t*>(&addresses.narrow.sin_addr)
                                                         : addresses.wide.sin6_addr.s6_addr;
    return std::memcmp(bytes, parsed, bits / 8) == 0 &&
           (bits % 8 == 0 || ((bytes[bits / 8] ^ parsed[bits / 8]) >> (8 - bits % 8)) == 0);
}

template <bool (*match)(const sockaddr*, const char*)>
void cidr(benchmark::State& state)
{
    bool v6 = state.range(0) == 6;
    const char* network = v6 ? "2001:db8:8000::/33" : "192.168.112.0/20";
    bool matched = false;
    for (auto step : state) {
        matched = match(addresses.head(v6), network);
        benchmark::DoNotOptimize(matched);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void korText(const sockaddr* address, char* buffer, int32_t size)
{
    _kor_AddressToString(&gEx, 0, address, buffer, size);
}

void plainText(const sockaddr* address, char* buffer, int32_t size)
{
    char host[INET6_ADDRSTRLEN];
    bool v6 = address->sa_family == AF_INET6;
    inet_ntop(address->sa_family, v6 ? static_cast<const void*>(&addresses.wide.sin6_addr) : &addresses.narrow.sin_addr,
              host, sizeof host);
    std::snprintf(buffer, static_cast<size_t>(size), v6 ? "[%s]:%u" : "%s:%u", host, ntohs(addresses.narrow.sin_port));
}

template <void (*write)(const sockaddr*, char*, int32_t)>
void text(benchmark::State& state)
{
    char buffer[64];
    for (auto step : state) {
        write(addresses.head(state.range(0) == 6), buffer, sizeof buffer);
        benchmark::DoNotOptimize(buffer);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

using Case = void (*)(benchmark::State&);

void registerCase(const char* name, Case run, std::initializer_list<int64_t> sizes)
{
    auto* one = benchmark::RegisterBenchmark(name, run);
    for (int64_t size : sizes) {
        one->Arg(size);
    }
}

template <typename Who>
void registerWho(const std::string& name)
{
    registerCase(("BM_Poller_wait/" + name).c_str(), wait<Who>, {10, 1000, 10000});
    registerCase(("BM_Poller_add/" + name).c_str(), add<Who>, {10, 1000, 10000});
    benchmark::RegisterBenchmark(("BM_Poller_wakeUp/" + name).c_str(), wakeUp<Who>)->UseRealTime();
}

void raiseDescriptorLimit()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

int main(int argc, char** argv)
{
    raiseDescriptorLimit();
    korEx_initHead(&gEx, nullptr, 0, 1);
    _korSocket_Startup(&gEx, 0);
    registerWho<KorFdsOnly>("korFdsOnly");
#ifdef KOR_HAVE_LIBEVENT
    registerWho<Libevent>("libevent");
#endif
#ifdef KOR_HAVE_LIBUV
    registerWho<Libuv>("libuv");
#endif
    registerWho<Epoll>("epoll");
    registerCase("BM_Poller_wait/korFull", wait<KorFull>, {10});
    registerCase("BM_Poller_add/korFull", add<KorFull>, {10});
    benchmark::RegisterBenchmark("BM_Poller_wakeUp/korFull", wakeUp<KorFull>)->UseRealTime();
    registerCase("BM_Poller_cidr/kor", cidr<korMatch>, {4, 6});
    registerCase("BM_Poller_cidr/inet_pton", cidr<plainMatch>, {4, 6});
    registerCase("BM_Poller_text/kor", text<korText>, {4, 6});
    registerCase("BM_Poller_text/inet_ntop", text<plainText>, {4, 6});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
