// korexchange.cpp - a message exchange that speaks MQTT 3.1.1: the command line, the start and the end.

#include "exchange.h"

#include <korutil/korAffinity.h>
#include <korutil/korAlloc.h>
#include <korutil/korGetopt.h>
#include <korutil/korLib.h>
#include <korutil/korSignalMonitor.h>
#include <korutil/korText.h>
#include <korutil/korThread.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int32_t blockSize = 256; // records in a pool's block
constexpr int32_t inputSize = 64 * 1024;
constexpr int32_t stagingSize = 80 * 1024;
constexpr int32_t topicSize = 65536;
constexpr int64_t tickInterval = 500;
constexpr uint32_t largestPacket = 5 + 268435455;

constexpr const char* usage =
    "korexchange - a message exchange that speaks MQTT 3.1.1\n"
    "\n"
    "  --port N             port to listen at, 0 for a free one (1883)\n"
    "  --bind ADDR          address to listen at (127.0.0.1)\n"
    "  --log SPEC           levels of statements: \"info\", \"clients:debug;exchange:info\" (info)\n"
    "  --trace ID           show every statement about the client with this id\n"
    "  --stats SECONDS      report counts and times at this interval, 0 for never (0)\n"
    "  --limit BYTES        largest packet that is taken (1048576)\n"
    "  --retry SECONDS      when to send a QoS 1 message again that is not acknowledged (20)\n"
    "  --spin MICROSECONDS  how long to look for messages before sleeping, 0 not at all (50; 0 with one processor)\n"
    "  --queue BYTES        waiting for one client: from here on QoS 0 is dropped (16777216)\n"
    "  --queue-limit BYTES  and from here on the client is disconnected (67108864)\n"
    "  --help               this text\n";

const spamc_option options[] = {
    {"port", 1, nullptr, 'p'},        {"bind", 1, nullptr, 'b'},  {"log", 1, nullptr, 'l'},
    {"trace", 1, nullptr, 't'},       {"stats", 1, nullptr, 's'}, {"limit", 1, nullptr, 'm'},
    {"retry", 1, nullptr, 'r'},       {"spin", 1, nullptr, 'S'},  {"queue", 1, nullptr, 'q'},
    {"queue-limit", 1, nullptr, 'Q'}, {"help", 0, nullptr, 'h'},  {nullptr, 0, nullptr, 0},
};

// ---- The command line -----------------------------------------------------------------------------------------------

struct CommandLine {
    Settings settings;
    bool wantsHelp;
};

// Reads a number from `least` to `most`.
uint64_t readNumber(korEx* ex, uint8_t depth, const char* text, uint64_t least, uint64_t most)
{
    char* end = nullptr;
    uint64_t number = _kor_parseU64(text, &end);
    if (end == text || *end != 0 || number < least || number > most) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "\"%s\" is not a number from %llu to %llu", text,
                    static_cast<unsigned long long>(least), static_cast<unsigned long long>(most));
    }
    return number;
}

void readOption(korEx* ex, uint8_t depth, int option, CommandLine* line)
{
    const char* text = spamc_get_optarg();
    Settings* settings = &line->settings;
    switch (option) {
    case 'p':
        readNumber(KOR_AT(ex, depth), text, 0, 65535);
        settings->port = text;
        break;
    case 'b':
        settings->bind = text;
        break;
    case 'l':
        settings->levels = text;
        break;
    case 't':
        settings->traced = text;
        break;
    case 's':
        settings->statsInterval = static_cast<int64_t>(1000 * readNumber(KOR_AT(ex, depth), text, 0, 1'000'000));
        break;
    case 'm':
        settings->packetLimit = static_cast<uint32_t>(readNumber(KOR_AT(ex, depth), text, 64, largestPacket));
        break;
    case 'r':
        settings->retryInterval = static_cast<int64_t>(1000 * readNumber(KOR_AT(ex, depth), text, 1, 1'000'000));
        break;
    case 'S':
        settings->spinTime = static_cast<int64_t>(readNumber(KOR_AT(ex, depth), text, 0, 1'000'000));
        break;
    case 'q':
        settings->queueBound = readNumber(KOR_AT(ex, depth), text, 1, INT64_MAX);
        break;
    case 'Q':
        settings->queueLimit = readNumber(KOR_AT(ex, depth), text, 1, INT64_MAX);
        break;
    case 'h':
        line->wantsHelp = true;
        break;
    default:
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "--help tells the options");
    }
}

CommandLine readCommandLine(korEx* ex, uint8_t depth, int argc, char** argv)
{
    CommandLine line = {};
    line.settings.port = "1883";
    line.settings.bind = "127.0.0.1";
    line.settings.retryInterval = 20'000;
    line.settings.packetLimit = 1024 * 1024;
    line.settings.spinTime = _korAffinity_CoreCount() > 1 ? 50 : 0;
    line.settings.queueBound = 16 * 1024 * 1024;
    line.settings.queueLimit = 64 * 1024 * 1024;
    int option;
    while (ex->code == 0 && (option = spamc_getopt_long(argc, argv, "h", options, nullptr)) != -1) {
        readOption(KOR_AT(ex, depth), option, &line);
    }
    if (ex->code == 0 && spamc_get_optind() < argc) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "\"%s\" is no option", argv[spamc_get_optind()]);
    }
    return line;
}

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
        every(KOR_AT(ex, depth), exchange, exchange->settings.statsInterval, &exchange->report);
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
    KOR_EX_LOCAL(ex);
    _korutil_Open(KOR_AT(&ex, 0), KORUTIL_LEVEL);
    CommandLine line = readCommandLine(KOR_AT(&ex, 0), argc, argv);
    bool served = line.wantsHelp;
    if (line.wantsHelp && ex.code == 0) {
        std::fputs(usage, stdout);
    } else {
        _korSignalMonitor_Start(KOR_AT(&ex, 0), nullptr);
        if (ex.code == 0) {
            served = serve(KOR_AT(&ex, 0), line.settings);
        }
        _korSignalMonitor_Stop(KOR_AT_D(0, &ex));
    }
    bool failed = ex.code != 0;
    if (failed) {
        char text[KOR_DESCRIPTION_SIZE];
        _korEx_PrintErrInfo(&ex, text, sizeof(text));
        std::fprintf(stderr, "korexchange: %s\n", text);
    }
    _korutil_Close(KOR_AT_D(0, &ex));
    return served && !failed ? EXIT_SUCCESS : EXIT_FAILURE;
}
