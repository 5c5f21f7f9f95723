// korload.cpp - a load for any MQTT 3.1.1 server: publishers and subscribers over real connections, all driven by one
// thread, and every message counted at every subscriber. A publisher numbers its messages; a subscriber must get each
// number of each publisher once and in order.

#include "client.h"
#include "latency.h"

#include <korutil/korAlloc.h>
#include <korutil/korBitset.h>
#include <korutil/korGetopt.h>
#include <korutil/korLib.h>
#include <korutil/korRand.h>
#include <korutil/korTime.h>

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint64_t stallTime = 10000;    // milliseconds without a message that end a run
constexpr uint64_t quietTime = 100;      // milliseconds in which messages that come twice may still come
constexpr uint64_t progressTime = 100;   // milliseconds between two lines of progress
constexpr uint32_t fillerShifts = 256;   // fillers of this many neighbouring messages differ
constexpr uint32_t mostUnderWay = 60000; // below the number of packet ids
constexpr int32_t topicSize = 64;
constexpr int32_t runNameSize = 9;

struct Options {
    const char* host = "127.0.0.1";
    const char* port = "1883";
    uint32_t publishers = 1;
    uint32_t subscribers = 1;
    uint32_t messages = 100000;
    uint32_t size = 64;
    uint32_t qos = 0;
    uint32_t topics = 1;
    uint32_t window = 500;
    uint32_t idle = 0;
    bool wildcard = false;
    bool csv = false;
    bool help = false;
};

/// What every payload begins with. Sender and receiver are one program, so numbers stay in its byte order.
struct Stamp {
    uint32_t publisher;
    uint32_t number;
    int64_t sentAt; ///< ticks
};

struct Load;

struct Publisher {
    mqtt::Client client;
    Load* load;
    uint32_t published;
    uint32_t acknowledged;
};

struct Subscriber {
    mqtt::Client client;
    Load* load;
    uint32_t* next;     ///< for each publisher: one above the highest number that came
    korBitset* missing; ///< numbers below `next` that have not come: publisher times messages plus number
    uint64_t received;  ///< messages, each counted once
};

struct Counts {
    uint64_t published;
    uint64_t acknowledged;
    uint64_t received; ///< by all subscribers, each message counted once
    uint64_t duplicates;
    uint64_t marked; ///< of the duplicates, with QoS 1 and said to be sent again: that is allowed
    uint64_t disorder;
    uint64_t damaged;
};

struct Load {
    Options options;
    mqtt::Loop loop;
    char run[runNameSize]; ///< in topics and client ids, so that runs do not meet
    Publisher* publishers;
    Subscriber* subscribers;
    uint8_t* filler;
    uint8_t* payload; ///< of the message being published
    uint32_t turnOf;  ///< publisher who is next
    Counts counts;
    Latency latency;
    int64_t firstAt; ///< ticks
    int64_t lastAt;  ///< ticks of the last message that came
    bool stalled;
};

// ---- Options --------------------------------------------------------------------------------------------------------

enum Choice { host = 1, port, publishers, subscribers, messages, size, qos, topics, window, idle, wildcard, csv, help };

const spamc_option choices[] = {{"host", 1, nullptr, host},
                                {"port", 1, nullptr, port},
                                {"publishers", 1, nullptr, publishers},
                                {"subscribers", 1, nullptr, subscribers},
                                {"messages", 1, nullptr, messages},
                                {"size", 1, nullptr, size},
                                {"qos", 1, nullptr, qos},
                                {"topics", 1, nullptr, topics},
                                {"window", 1, nullptr, window},
                                {"idle", 1, nullptr, idle},
                                {"wildcard", 0, nullptr, wildcard},
                                {"csv", 0, nullptr, csv},
                                {"help", 0, nullptr, help},
                                {nullptr, 0, nullptr, 0}};

void printHelp()
{
    std::puts("korload: publishes to an MQTT 3.1.1 server, counts every message at every subscriber\n"
              "  --host NAME         of the server (127.0.0.1)\n"
              "  --port N            of the server (1883)\n"
              "  --publishers N      connections that publish (1)\n"
              "  --subscribers N     connections that subscribe, each to everything (1)\n"
              "  --messages N        from each publisher (100000)\n"
              "  --size BYTES        of a payload, 16 at least (64)\n"
              "  --qos 0|1           of messages and subscriptions (0)\n"
              "  --topics N          that every publisher goes around (1)\n"
              "  --wildcard          subscribe with one wildcard, not to each topic\n"
              "  --window N          messages under way at most, of all publishers (500)\n"
              "  --csv               one line: published,received,lost,duplicates,disorder,damaged,seconds,\n"
              "                      received a second, then microseconds: median,99%,99.9%,longest\n"
              "  --idle N            open N connections, say so, and hold them until a line comes in\n"
              "Exits with 1 if a message was lost, came twice, out of order or changed, or the server failed,\n"
              "and with 2 for options that are wrong. With QoS 1 a message may come again that says so.");
}

bool readNumber(const char* text, uint32_t least, uint32_t most, uint32_t* number)
{
    char* end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    bool isRight = *text >= '0' && *text <= '9' && *end == '\0' && value >= least && value <= most;
    *number = isRight ? static_cast<uint32_t>(value) : *number;
    return isRight;
}

bool takeOption(int option, const char* argument, Options* options)
{
    switch (option) {
    case host:
        options->host = argument;
        return true;
    case port:
        options->port = argument;
        return true;
    case publishers:
        return readNumber(argument, 1, 10000, &options->publishers);
    case subscribers:
        return readNumber(argument, 1, 10000, &options->subscribers);
    case messages:
        return readNumber(argument, 1, 1000000000, &options->messages);
    case size:
        return readNumber(argument, sizeof(Stamp), 1000000, &options->size);
    case qos:
        return readNumber(argument, 0, 1, &options->qos);
    case topics:
        return readNumber(argument, 1, 10000, &options->topics);
    case window:
        return readNumber(argument, 1, mostUnderWay, &options->window);
    case idle:
        return readNumber(argument, 1, 100000, &options->idle);
    case wildcard:
        return options->wildcard = true;
    case csv:
        return options->csv = true;
    case help:
        return options->help = true;
    default:
        return false; // the parser has told
    }
}

bool readOptions(int argc, char** argv, Options* options)
{
    int option = 0;
    while ((option = spamc_getopt_long(argc, argv, "", choices, nullptr)) != -1) {
        const char* argument = spamc_get_optarg();
        if (!takeOption(option, argument, options)) {
            if (option != '?') {
                std::fprintf(stderr, "korload: %s is no value for --%s\n", argument, choices[option - 1].name);
            }
            return false;
        }
    }
    if (spamc_get_optind() < argc) {
        std::fprintf(stderr, "korload: %s is no option\n", argv[spamc_get_optind()]);
        return false;
    }
    return true;
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

uint64_t indexOf(const Load* load, const Stamp& stamp)
{
    return uint64_t{stamp.publisher} * load->options.messages + stamp.number;
}

bool isOurs(const Load* load, const mqtt::Publish& message, const Stamp& stamp)
{
    uint32_t rest = load->options.size - static_cast<uint32_t>(sizeof(Stamp));
    return stamp.publisher < load->options.publishers && stamp.number < load->options.messages &&
           std::memcmp(message.payload.data + sizeof(Stamp), load->filler + stamp.number % fillerShifts, rest) == 0;
}

void skipTo(korEx* ex, uint8_t depth, Subscriber* subscriber, Stamp stamp)
{
    uint32_t end = stamp.number;
    for (stamp.number = subscriber->next[stamp.publisher]; stamp.number < end; stamp.number++) {
        _korBitset_Add(KOR_AT(ex, depth), subscriber->missing, indexOf(subscriber->load, stamp));
    }
}

void countLate(korEx* ex, uint8_t depth, Subscriber* subscriber, const Stamp& stamp, bool isMarked)
{
    Counts* counts = &subscriber->load->counts;
    uint64_t index = indexOf(subscriber->load, stamp);
    if (_korBitset_IsPresent(KOR_AT(ex, depth), subscriber->missing, index)) {
        _korBitset_Remove(KOR_AT(ex, depth), subscriber->missing, index);
        counts->disorder++;
        counts->received++;
        subscriber->received++;
    } else {
        counts->duplicates++;
        counts->marked += isMarked;
    }
}

void count(korEx* ex, uint8_t depth, Subscriber* subscriber, const Stamp& stamp, bool isMarked)
{
    uint32_t* next = &subscriber->next[stamp.publisher];
    if (stamp.number < *next) {
        countLate(KOR_AT(ex, depth), subscriber, stamp, isMarked);
        return;
    }
    skipTo(KOR_AT(ex, depth), subscriber, stamp);
    *next = stamp.number + 1;
    subscriber->load->counts.received++;
    subscriber->received++;
}

void takeMessage(korEx* ex, uint8_t depth, mqtt::Client* client, const mqtt::Publish& message)
{
    auto* subscriber = static_cast<Subscriber*>(client->owner);
    Load* load = subscriber->load;
    Stamp stamp = {};
    if (message.payload.length == load->options.size) {
        std::memcpy(&stamp, message.payload.data, sizeof(stamp));
    }
    if (message.payload.length != load->options.size || !isOurs(load, message, stamp)) {
        load->counts.damaged++;
        return;
    }
    load->lastAt = _korPerf_TimerNow();
    addLatency(&load->latency, load->lastAt - stamp.sentAt);
    count(KOR_AT(ex, depth), subscriber, stamp, message.duplicate);
}

void takeAcknowledgement(korEx*, uint8_t, mqtt::Client* client, uint16_t)
{
    auto* publisher = static_cast<Publisher*>(client->owner);
    publisher->acknowledged++;
    publisher->load->counts.acknowledged++;
}

// ---- Publishing -----------------------------------------------------------------------------------------------------

void nameTopic(const Load* load, uint32_t topic, char* name)
{
    std::snprintf(name, topicSize, "load/%s/%u/value", load->run, topic);
}

void publishOne(korEx* ex, uint8_t depth, Load* load, uint32_t index)
{
    Publisher* publisher = &load->publishers[index];
    Stamp stamp = {index, publisher->published, _korPerf_TimerNow()};
    std::memcpy(load->payload, &stamp, sizeof(stamp));
    std::memcpy(load->payload + sizeof(stamp), load->filler + stamp.number % fillerShifts,
                load->options.size - sizeof(stamp));
    char topic[topicSize];
    nameTopic(load, (index + stamp.number) % load->options.topics, topic);
    mqtt::Publish message = {};
    message.topic = {reinterpret_cast<uint8_t*>(topic), static_cast<uint32_t>(std::strlen(topic))};
    message.payload = {load->payload, load->options.size};
    message.qos = static_cast<uint8_t>(load->options.qos);
    mqtt::publish(KOR_AT(ex, depth), &publisher->client, message);
    publisher->published++;
    load->counts.published++;
}

// Messages that may be published now: the slowest subscriber, and with QoS 1 the server, set the pace.
uint64_t roomLeft(const Load* load)
{
    const Options& options = load->options;
    uint64_t published = load->counts.published;
    uint64_t taken = options.qos > 0 ? load->counts.acknowledged : published;
    for (uint32_t i = 0; i < options.subscribers; i++) {
        uint64_t received = load->subscribers[i].received;
        taken = received < taken ? received : taken;
    }
    uint64_t left = uint64_t{options.publishers} * options.messages - published;
    uint64_t room = options.window - (published - taken);
    return room < left ? room : left;
}

// Every publisher gets an equal share, which it sends at once.
void publishSome(korEx* ex, uint8_t depth, Load* load)
{
    const Options& options = load->options;
    uint64_t room = roomLeft(load);
    uint64_t share = (room + options.publishers - 1) / options.publishers;
    while (room > 0 && ex->code == 0) {
        uint32_t index = load->turnOf;
        Publisher* publisher = &load->publishers[index];
        load->turnOf = (index + 1) % options.publishers;
        for (uint64_t i = 0; i < share && room > 0 && publisher->published < options.messages; i++, room--) {
            publishOne(KOR_AT(ex, depth), load, index);
        }
        mqtt::flush(KOR_AT(ex, depth), &publisher->client);
    }
}

// ---- The run --------------------------------------------------------------------------------------------------------

uint64_t publishedInAll(const Load* load)
{
    return uint64_t{load->options.publishers} * load->options.messages;
}

uint64_t expectedInAll(const Load* load)
{
    return publishedInAll(load) * load->options.subscribers;
}

bool isComplete(const Load* load)
{
    const Counts& counts = load->counts;
    return counts.received == expectedInAll(load) &&
           (load->options.qos == 0 || counts.acknowledged >= publishedInAll(load));
}

uint64_t arrivals(const Counts& counts)
{
    return counts.received + counts.duplicates + counts.damaged + counts.acknowledged;
}

void showProgress(const Load* load, bool isLast)
{
    static uint64_t shownAt = 0;
    uint64_t now = _kor_GetCurrentMilliseconds();
    if (load->options.csv || isatty(STDOUT_FILENO) == 0 || (!isLast && now < shownAt + progressTime)) {
        return;
    }
    shownAt = now;
    double share = static_cast<double>(load->counts.received) / static_cast<double>(expectedInAll(load));
    std::printf("\r%12" PRIu64 " of %" PRIu64 " received, %3.0f%%%s", load->counts.received, expectedInAll(load),
                share * 100, isLast ? "\n" : "");
    std::fflush(stdout);
}

// Takes turns until all has come or, with `patience` milliseconds without anything, no more comes.
void takeTurns(korEx* ex, uint8_t depth, Load* load, uint64_t patience, bool untilComplete)
{
    uint64_t heardAt = _kor_GetCurrentMilliseconds();
    uint64_t before = arrivals(load->counts);
    while (ex->code == 0 && !(untilComplete && isComplete(load))) {
        publishSome(KOR_AT(ex, depth), load);
        mqtt::turn(KOR_AT(ex, depth), &load->loop, static_cast<int32_t>(quietTime));
        uint64_t now = _kor_GetCurrentMilliseconds();
        if (arrivals(load->counts) != before) {
            before = arrivals(load->counts);
            heardAt = now;
        } else if (now >= heardAt + patience) {
            load->stalled = untilComplete;
            return;
        }
        showProgress(load, false);
    }
}

void runLoad(korEx* ex, uint8_t depth, Load* load)
{
    load->firstAt = _korPerf_TimerNow();
    load->lastAt = load->firstAt;
    takeTurns(KOR_AT(ex, depth), load, stallTime, true);
    showProgress(load, true);
    if (!load->stalled) {
        takeTurns(KOR_AT(ex, depth), load, quietTime, false);
    }
}

// ---- Opening and closing --------------------------------------------------------------------------------------------

void openConnection(korEx* ex, uint8_t depth, Load* load, mqtt::Client* client, char kind, uint32_t index)
{
    char name[topicSize];
    std::snprintf(name, sizeof(name), "load-%s-%c%u", load->run, kind, index);
    mqtt::openClient(KOR_AT(ex, depth), client, &load->loop, load->options.host, load->options.port, name);
}

void openSubscriber(korEx* ex, uint8_t depth, Load* load, uint32_t index)
{
    Subscriber* subscriber = &load->subscribers[index];
    auto level = static_cast<uint8_t>(load->options.qos);
    char filter[topicSize];
    subscriber->load = load;
    subscriber->next =
        static_cast<uint32_t*>(_kor_calloc(KOR_AT(ex, depth), load->options.publishers, sizeof(uint32_t)));
    subscriber->missing = _korBitset_Create(KOR_AT(ex, depth));
    subscriber->client.owner = subscriber;
    subscriber->client.onMessage = takeMessage;
    openConnection(KOR_AT(ex, depth), load, &subscriber->client, 's', index);
    if (load->options.wildcard) {
        std::snprintf(filter, sizeof(filter), "load/%s/+/#", load->run);
        mqtt::subscribe(KOR_AT(ex, depth), &subscriber->client, filter, level);
        return;
    }
    for (uint32_t i = 0; i < load->options.topics && ex->code == 0; i++) {
        nameTopic(load, i, filter);
        mqtt::subscribe(KOR_AT(ex, depth), &subscriber->client, filter, level);
    }
}

void openPublisher(korEx* ex, uint8_t depth, Load* load, uint32_t index)
{
    Publisher* publisher = &load->publishers[index];
    publisher->load = load;
    publisher->client.owner = publisher;
    publisher->client.onAcknowledged = takeAcknowledgement;
    openConnection(KOR_AT(ex, depth), load, &publisher->client, 'p', index);
}

void openTables(korEx* ex, uint8_t depth, Load* load)
{
    const Options& options = load->options;
    uint32_t fillerSize = options.size + fillerShifts;
    openLatency(KOR_AT(ex, depth), &load->latency);
    load->publishers = static_cast<Publisher*>(_kor_calloc(KOR_AT(ex, depth), options.publishers, sizeof(Publisher)));
    load->subscribers =
        static_cast<Subscriber*>(_kor_calloc(KOR_AT(ex, depth), options.subscribers, sizeof(Subscriber)));
    load->payload = static_cast<uint8_t*>(_kor_malloc(KOR_AT(ex, depth), options.size));
    load->filler = static_cast<uint8_t*>(_kor_malloc(KOR_AT(ex, depth), fillerSize));
    _korRand_GetRandomBytes(KOR_AT(ex, depth), load->filler, static_cast<int32_t>(fillerSize));
}

void openLoad(korEx* ex, uint8_t depth, Load* load)
{
    openTables(KOR_AT(ex, depth), load);
    for (uint32_t i = 0; i < load->options.subscribers && ex->code == 0; i++) {
        openSubscriber(KOR_AT(ex, depth), load, i);
    }
    for (uint32_t i = 0; i < load->options.publishers && ex->code == 0; i++) {
        openPublisher(KOR_AT(ex, depth), load, i);
    }
}

void closeLoad(uint8_t depth, korEx* ex, Load* load)
{
    for (uint32_t i = 0; load->publishers != nullptr && i < load->options.publishers; i++) {
        mqtt::closeClient(KOR_AT_D(depth, ex), &load->publishers[i].client);
    }
    for (uint32_t i = 0; load->subscribers != nullptr && i < load->options.subscribers; i++) {
        mqtt::closeClient(KOR_AT_D(depth, ex), &load->subscribers[i].client);
        _korBitset_Destroy(KOR_AT_D(depth, ex), load->subscribers[i].missing);
        _kor_free(KOR_AT_D(depth, ex), load->subscribers[i].next);
    }
    _kor_free(KOR_AT_D(depth, ex), load->publishers);
    _kor_free(KOR_AT_D(depth, ex), load->subscribers);
    _kor_free(KOR_AT_D(depth, ex), load->payload);
    _kor_free(KOR_AT_D(depth, ex), load->filler);
    closeLatency(KOR_AT_D(depth, ex), &load->latency);
}

// ---- The report -----------------------------------------------------------------------------------------------------

uint64_t lost(const Load* load)
{
    return expectedInAll(load) - load->counts.received;
}

bool areGuaranteesKept(const Load* load)
{
    const Counts& counts = load->counts;
    uint64_t unmarked = counts.duplicates - (load->options.qos > 0 ? counts.marked : 0);
    bool isAcknowledged = load->options.qos == 0 || counts.acknowledged == publishedInAll(load);
    return lost(load) == 0 && unmarked == 0 && counts.disorder == 0 && counts.damaged == 0 && isAcknowledged &&
           !load->stalled;
}

void printCsv(const Load* load, double seconds, double rate)
{
    const Counts& counts = load->counts;
    std::printf("%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64
                ",%.6f,%.0f,%.0f,%.0f,%.0f,%.0f\n",
                counts.published, counts.received, lost(load), counts.duplicates, counts.disorder, counts.damaged,
                seconds, rate, latencyOf(&load->latency, 0.5), latencyOf(&load->latency, 0.99),
                latencyOf(&load->latency, 0.999), longestLatency(&load->latency));
}

void printCounts(const Load* load)
{
    const Counts& counts = load->counts;
    std::printf("published     %12" PRIu64 "\n", counts.published);
    if (load->options.qos > 0) {
        std::printf("acknowledged  %12" PRIu64 "\n", counts.acknowledged);
    }
    std::printf("received      %12" PRIu64 " of %" PRIu64 "\n", counts.received, expectedInAll(load));
    std::printf("lost          %12" PRIu64 "\n", lost(load));
    std::printf("duplicates    %12" PRIu64, counts.duplicates);
    std::printf(counts.marked > 0 ? ", %" PRIu64 " marked as sent again\n" : "\n", counts.marked);
    std::printf("out of order  %12" PRIu64 "\n", counts.disorder);
    if (counts.damaged > 0) {
        std::printf("damaged       %12" PRIu64 "\n", counts.damaged);
    }
}

void printLatency(korEx* ex, uint8_t depth, const Load* load)
{
    const Latency* latency = &load->latency;
    std::printf("latency in microseconds: median %.0f, 99%% %.0f, 99.9%% %.0f, longest %.0f\n\n",
                latencyOf(latency, 0.5), latencyOf(latency, 0.99), latencyOf(latency, 0.999), longestLatency(latency));
    drawLatency(KOR_AT(ex, depth), latency);
}

void printReport(korEx* ex, uint8_t depth, const Load* load)
{
    double seconds = static_cast<double>(load->lastAt - load->firstAt) * load->latency.secondsPerTick;
    double rate = seconds > 0 ? static_cast<double>(load->counts.received) / seconds : 0;
    if (load->options.csv) {
        printCsv(load, seconds, rate);
        return;
    }
    printCounts(load);
    std::printf("rate          %12.0f messages received a second, in %.3f s\n", rate, seconds);
    if (load->latency.samples > 0) {
        printLatency(KOR_AT(ex, depth), load);
    }
    if (load->stalled) {
        std::printf("\nNothing came for %" PRIu64 " seconds.\n", stallTime / 1000);
    }
    std::printf("\n%s\n", areGuaranteesKept(load) ? "Every guarantee was kept." : "A guarantee was BROKEN.");
}

void printSettings(const Options& options)
{
    if (!options.csv) {
        std::printf("korload: %s:%s, %u to %u, %u messages each of %u bytes, QoS %u, %u topics%s, window %u\n",
                    options.host, options.port, options.publishers, options.subscribers, options.messages, options.size,
                    options.qos, options.topics, options.wildcard ? " by wildcard" : "", options.window);
        std::fflush(stdout);
    }
}

bool measure(korEx* ex, uint8_t depth, Load* load)
{
    printSettings(load->options);
    openLoad(KOR_AT(ex, depth), load);
    runLoad(KOR_AT(ex, depth), load);
    bool isMeasured = load->firstAt != 0;
    bool isKept = ex->code == 0 && areGuaranteesKept(load);
    if (isMeasured) {
        KOR_EX_CHAINED(report, ex, depth); // what was counted until the server failed is told, too
        printReport(KOR_AT(&report, depth), load);
    }
    closeLoad(KOR_AT_D(depth, ex), load);
    return isKept;
}

// ---- Idle connections -----------------------------------------------------------------------------------------------

bool holdIdle(korEx* ex, uint8_t depth, Load* load)
{
    uint32_t wanted = load->options.idle;
    auto* clients = static_cast<mqtt::Client*>(_kor_calloc(KOR_AT(ex, depth), wanted, sizeof(mqtt::Client)));
    for (uint32_t i = 0; i < wanted && ex->code == 0; i++) {
        openConnection(KOR_AT(ex, depth), load, &clients[i], 'i', i);
    }
    if (ex->code == 0) {
        std::puts("idle");
        std::fflush(stdout);
        for (int byte = 0; byte != '\n' && byte != EOF;) {
            byte = std::getchar();
        }
    }
    for (uint32_t i = 0; clients != nullptr && i < wanted; i++) {
        mqtt::closeClient(KOR_AT_D(depth, ex), &clients[i]);
    }
    _kor_free(KOR_AT_D(depth, ex), clients);
    return ex->code == 0;
}

bool work(korEx* ex, uint8_t depth, const Options& options)
{
    Load load = {};
    load.options = options;
    _korRand_GetRandomName(KOR_AT(ex, depth), load.run, runNameSize);
    mqtt::openLoop(KOR_AT(ex, depth), &load.loop);
    bool isKept = options.idle > 0 ? holdIdle(KOR_AT(ex, depth), &load) : measure(KOR_AT(ex, depth), &load);
    mqtt::closeLoop(KOR_AT_D(depth, ex), &load.loop);
    return isKept;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!readOptions(argc, argv, &options)) {
        return 2;
    }
    if (options.help) {
        printHelp();
        return 0;
    }
    korEx* ex = korEx_Create();
    _korutil_Open(KOR_AT(ex, 0), KORUTIL_LEVEL);
    bool isKept = work(KOR_AT(ex, 0), options);
    if (korEx_GetErrorCode(ex) != 0) {
        korEx_Print(ex);
    }
    _korutil_Close(KOR_AT_D(0, ex));
    korEx_Destroy(ex);
    return isKept ? 0 : 1;
}
