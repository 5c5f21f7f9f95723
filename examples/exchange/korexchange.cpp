// korexchange.cpp - a message exchange that speaks MQTT 3.1.1: the command line, the start and the end.

#include "commandLine.h"
#include "exchange.h"

#include <korutil/korAffinity.h>
#include <korutil/korAlloc.h>
#include <korutil/korLib.h>
#include <korutil/korSignalMonitor.h>
#include <korutil/korThread.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

constexpr int32_t blockSize = 256; // records in a pool's block
constexpr int32_t inputSize = 64 * 1024;
constexpr int32_t stagingSize = 80 * 1024;
constexpr int32_t topicSize = 65536;
constexpr int64_t tickInterval = 500;
constexpr uint32_t largestPacket = 5 + 268435455;

// ---- Start and end --------------------------------------------------------------------------------------------------

void listen(korEx* ex, uint8_t depth, Exchange* exchange)
{
    const Settings& settings = exchange->settings;
    exchange->listener = _korSocket_CreateListener(KOR_AT(ex, depth), settings.bind, settings.port, 0);
    _korSocket_SetBlocking(KOR_AT(ex, depth), exchange->listener, 0);
    uint16_t port = _korSocket_GetSockPort(KOR_AT(ex, depth), exchange->listener);
    exchange->port = static_cast<uint16_t>(port >> 8 | port << 8); // out of network order
    _korPollerEvent_InitNetwork(KOR_AT(ex, depth), &exchange->listening, nullptr, nullptr, KOR_POLL_READ,
                                exchange->listener);
    _korPoller_AddEvent(KOR_AT(ex, depth), exchange->poller, &exchange->listening);
    exchange->isListening = true;
}

void makePools(korEx* ex, uint8_t depth, Exchange* exchange)
{
    exchange->connectionPool =
        _korPool_Create(KOR_AT(ex, depth), blockSize, sizeof(Connection), nullptr, nullptr, 0, blockSize / 8);
    exchange->subscriptionPool =
        _korPool_Create(KOR_AT(ex, depth), blockSize, sizeof(Subscription), nullptr, nullptr, 0, blockSize / 8);
    exchange->smallPackets = _korBuffer_GetPoolWithData(KOR_AT(ex, depth), 4 * blockSize, smallPacketSize);
    openOutboxPools(KOR_AT(ex, depth), &exchange->outboxPools);
    exchange->input = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, inputSize);
    exchange->staging = _korBuffer_CreateFromCacheOrPool(KOR_AT(ex, depth), nullptr, nullptr, stagingSize);
    exchange->topic = static_cast<char*>(_kor_malloc(KOR_AT(ex, depth), topicSize));
}

void makeTables(korEx* ex, uint8_t depth, Exchange* exchange)
{
    exchange->subscriptions = _korTopicList_CreatePooled(KOR_AT(ex, depth));
    exchange->retained = _korTopicList_CreatePooled(KOR_AT(ex, depth));
    exchange->clients = _korStrHash_Create(KOR_AT(ex, depth), blockSize);
    _korDpa_Init(KOR_AT(ex, depth), &exchange->receivers, blockSize);
}

// Runs on the timer's executor; `closure` is the request to send.
void postPeriodically(korEx* ex, uint8_t depth, korTimer*, uint64_t, void* closure)
{
    auto* request = static_cast<Request*>(closure);
    post(KOR_AT(ex, depth), request->exchange, request);
}

uint64_t every(korEx* ex, uint8_t depth, Exchange* exchange, int64_t milliseconds, Request* request)
{
    return _korTimer_ScheduleTask(KOR_AT(ex, depth), exchange->timer, postPeriodically, nullptr, request, 0,
                                  milliseconds);
}

// One thread for what is done beside the input: keep-alive times, ticks, reports.
void startTimer(korEx* ex, uint8_t depth, Exchange* exchange)
{
    exchange->executor = _korExecutor_Create(KOR_AT(ex, depth));
    _korExecutor_SetPoolSize(KOR_AT(ex, depth), exchange->executor, 1);
    _korExecutor_Start(KOR_AT(ex, depth), exchange->executor);
    exchange->timer = _korTimer_Create(KOR_AT(ex, depth), exchange->executor, "timer");
    _korTimer_Start(KOR_AT(ex, depth), exchange->timer);
    every(KOR_AT(ex, depth), exchange, tickInterval, &exchange->tick);
    if (exchange->settings.statsInterval > 0) {
        every(KOR_AT(ex, depth), exchange, int64_t{1000} * exchange->settings.statsInterval, &exchange->report);
    }
}

void stopTimer(uint8_t depth, korEx* ex, Exchange* exchange)
{
    if (exchange->timer != nullptr) {
        _korTimer_Stop(KOR_AT_D(depth, ex), exchange->timer);
        _korTimer_Release(KOR_AT_D(depth, ex), exchange->timer);
    }
    if (exchange->executor != nullptr) {
        _korExecutor_Stop(KOR_AT_D(depth, ex), exchange->executor);
        _korExecutor_Release(KOR_AT_D(depth, ex), exchange->executor);
    }
}

// With the timer stopped nobody sends any more. What is left can hold references to connections.
void dropRequests(uint8_t depth, korEx* ex, Exchange* exchange)
{
    KOR_EX_PRIVATE(own, ex, depth);
    while (exchange->requests != nullptr) {
        auto* request = static_cast<Request*>(_korFastQueue_Pop(KOR_AT(&own, depth), exchange->requests));
        if (request == nullptr) {
            break;
        }
        if (request->kind == RequestKind::expire) {
            releaseConnection(KOR_AT_D(depth, &own), request->connection);
        }
    }
    if (exchange->requests != nullptr) {
        _korFastQueue_Destroy(KOR_AT_D(depth, ex), exchange->requests);
    }
}

void stopListening(uint8_t depth, korEx* ex, Exchange* exchange)
{
    KOR_EX_PRIVATE(own, ex, depth);
    if (exchange->poller != nullptr) {
        _korPoller_RemoveEvent(KOR_AT_D(depth, &own), exchange->poller, &exchange->listening);
        _korPoller_ProcessRemoveEvents(KOR_AT(&own, depth), exchange->poller, 1);
    }
    _korSocket_ForceClose(KOR_AT_D(depth, ex), exchange->listener);
    _korPoller_Destroy(KOR_AT_D(depth, ex), exchange->poller);
}

uint64_t runInput(void* argument)
{
    auto* exchange = static_cast<Exchange*>(argument);
    KOR_EX_LOCAL(ex);
    runExchange(KOR_AT(&ex, 0), exchange);
    bool failed = ex.code != 0;
    if (failed) {
        korEx_Print(&ex);
        ex.code = 0;
        _korSignalMonitor_Signal(KOR_AT(&ex, 0)); // the main thread waits for a signal
    }
    return failed ? 1 : 0;
}

// Runs the input thread until a signal comes. False if it could not go on before.
bool serveUntilSignal(korEx* ex, uint8_t depth, Exchange* exchange)
{
    korThread* thread = _korThread_Create(KOR_AT(ex, depth), runInput, exchange, 0, "input");
    if (thread == nullptr) {
        return false;
    }
    std::printf("korexchange: listening on %s:%u\n", exchange->settings.bind, exchange->port);
    std::fflush(stdout);
    _korSignalMonitor_WaitForSignal(KOR_AT(ex, depth));
    KOR_EX_CHAINED(own, ex, depth);
    post(KOR_AT(&own, depth), exchange, &exchange->stop);
    uint64_t result = _korThread_Join(KOR_AT(&own, depth), thread);
    _korThread_Destroy(KOR_AT_D(depth, &own), thread);
    return result == 0;
}

bool serve(korEx* ex, uint8_t depth, const Settings& settings)
{
    bool served = false;
    auto* exchange = static_cast<Exchange*>(_kor_calloc(KOR_AT(ex, depth), 1, sizeof(Exchange)));
    if (exchange == nullptr) {
        return false;
    }
    openExchange(KOR_AT(ex, depth), exchange, settings);
    if (ex->code == 0) {
        served = serveUntilSignal(KOR_AT(ex, depth), exchange);
    }
    closeExchange(KOR_AT_D(depth, ex), exchange);
    _kor_free(KOR_AT_D(depth, ex), exchange);
    return served;
}

} // namespace

void openExchange(korEx* ex, uint8_t depth, Exchange* exchange, const Settings& settings)
{
    exchange->settings = settings;
    exchange->listener = _korSocketInvalid;
    _korLogger_Initialize(KOR_AT(ex, depth));
    exchange->serverComponent = _korLogger_RegisterComponent(KOR_AT(ex, depth), "exchange", "exch");
    exchange->clientComponent = _korLogger_RegisterComponent(KOR_AT(ex, depth), "clients", "clnt");
    _korLogger_SetLogLevels(KOR_AT(ex, depth), settings.levels);
    exchange->secondsPerTick = _korPerf_TimerScale();
    exchange->spinTicks =
        static_cast<int64_t>(static_cast<double>(settings.spinTime) * 1e-6 / exchange->secondsPerTick);
    exchange->now = nowOf(exchange);
    exchange->reportedAt = exchange->now;
    exchange->tick = {{nullptr}, RequestKind::tick, 0, exchange, nullptr};
    exchange->report = {{nullptr}, RequestKind::report, 0, exchange, nullptr};
    exchange->stop = {{nullptr}, RequestKind::stop, 0, exchange, nullptr};
    exchange->requests = _korFastQueue_Create(KOR_AT(ex, depth));
    exchange->poller = _korPoller_CreateEx(KOR_AT(ex, depth), 1);
    makePools(KOR_AT(ex, depth), exchange);
    makeTables(KOR_AT(ex, depth), exchange);
    openStatistics(KOR_AT(ex, depth), exchange);
    listen(KOR_AT(ex, depth), exchange);
    startTimer(KOR_AT(ex, depth), exchange);
}

void closeExchange(uint8_t depth, korEx* ex, Exchange* exchange)
{
    stopTimer(KOR_AT_D(depth, ex), exchange);
    dropRequests(KOR_AT_D(depth, ex), exchange);
    stopListening(KOR_AT_D(depth, ex), exchange);
    closeStatistics(KOR_AT_D(depth, ex), exchange);
    if (exchange->retained != nullptr) {
        dropRetained(KOR_AT_D(depth, ex), exchange);
    }
    _korTopicList_Destroy(KOR_AT_D(depth, ex), exchange->retained);
    _korTopicList_Destroy(KOR_AT_D(depth, ex), exchange->subscriptions);
    _korStrHash_Destroy(KOR_AT_D(depth, ex), exchange->clients);
    if (exchange->receivers.items != nullptr) {
        _korDpa_Clear(KOR_AT_D(depth, ex), &exchange->receivers);
    }
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), exchange->input, nullptr);
    _korBuffer_ReleaseToCache(KOR_AT_D(depth, ex), exchange->staging, nullptr);
    closeOutboxPools(KOR_AT_D(depth, ex), &exchange->outboxPools);
    _korPool_Destroy(KOR_AT_D(depth, ex), exchange->subscriptionPool);
    _korPool_Destroy(KOR_AT_D(depth, ex), exchange->connectionPool);
    _kor_free(KOR_AT_D(depth, ex), exchange->topic);
}

int main(int argc, char** argv)
{
    Settings settings;
    bool wantsHelp = false;
    settings.spinTime = _korAffinity_CoreCount() > 1 ? settings.spinTime : 0;
    const Option options[] = {
        portOption("port to listen at, 0 for a free one", &settings.port),
        textOption("bind", "ADDR", "address to listen at", &settings.bind),
        textOption("log", "LEVELS", "levels of statements, such as \"clients:debug;exchange:info\"", &settings.levels),
        textOption("trace", "ID", "show every statement about the client with this id", &settings.traced),
        numberOption("stats", "SECONDS", "report counts and times at this interval, 0 for never",
                     &settings.statsInterval, 0, 1'000'000),
        numberOption("limit", "BYTES", "largest packet that is taken", &settings.packetLimit, 64, largestPacket),
        numberOption("retry", "SECONDS", "when to send again with QoS 1 what is not acknowledged",
                     &settings.retryInterval, 1, 1'000'000),
        numberOption("spin", "MICROSECONDS", "how long to look for messages before sleeping", &settings.spinTime, 0,
                     1'000'000),
        numberOption("queue", "BYTES", "waiting for one client: from here on QoS 0 is dropped", &settings.queueBound, 1,
                     UINT32_MAX),
        numberOption("queue-limit", "BYTES", "and from here on the client is disconnected", &settings.queueLimit, 1,
                     UINT32_MAX),
        flagOption("help", "this text", &wantsHelp),
    };
    KOR_EX_LOCAL(ex);
    _korutil_Open(KOR_AT(&ex, 0), KORUTIL_LEVEL);
    readCommandLine(KOR_AT(&ex, 0), argc, argv, options, std::size(options));
    bool served = wantsHelp;
    if (ex.code == 0 && wantsHelp) {
        std::puts("korexchange - a message exchange that speaks MQTT 3.1.1\n");
        printOptions(options, std::size(options));
    } else {
        _korSignalMonitor_Start(KOR_AT(&ex, 0), nullptr);
        served = ex.code == 0 && serve(KOR_AT(&ex, 0), settings);
        _korSignalMonitor_Stop(KOR_AT_D(0, &ex));
    }
    bool failed = ex.code != 0;
    if (failed) {
        printFailure("korexchange", &ex);
    }
    _korutil_Close(KOR_AT_D(0, &ex));
    return served && !failed ? EXIT_SUCCESS : EXIT_FAILURE;
}
