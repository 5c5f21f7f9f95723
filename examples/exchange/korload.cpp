// korload.cpp - a load for any MQTT 3.1.1 server: publishers and subscribers over real connections, all driven by one
// thread, and every message counted at every subscriber. A publisher numbers its messages; a subscriber must get each
// number of each publisher once and in order.

#include "client.h"
#include "commandLine.h"
#include "loadReport.h"

#include <korutil/korAlloc.h>
#include <korutil/korBitset.h>
#include <korutil/korLib.h>
#include <korutil/korRand.h>
#include <korutil/korTime.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr uint64_t stallTime = 10000;  // milliseconds without a message that end a run
constexpr uint64_t quietTime = 100;    // milliseconds in which messages that come twice may still come
constexpr uint32_t fillerShifts = 256; // fillers of this many neighbouring messages differ
constexpr int32_t topicSize = 64;
constexpr int32_t runNameSize = 9;

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

struct Load {
    Options options;
    mqtt::Loop loop;
    char run[runNameSize]; ///< in topics and client ids, so that runs do not meet
    Publisher* publishers;
    Subscriber* subscribers;
    uint8_t* filler;
    uint8_t* payload; ///< of the message being published
    uint32_t turnOf;  ///< publisher who is next
    Result result;
};

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
    Counts* counts = &subscriber->load->result.counts;
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
    subscriber->load->result.counts.received++;
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
        load->result.counts.damaged++;
        return;
    }
    load->result.lastAt = _korPerf_TimerNow();
    addLatency(&load->result.latency, load->result.lastAt - stamp.sentAt);
    count(KOR_AT(ex, depth), subscriber, stamp, message.duplicate);
}

void takeAcknowledgement(korEx*, uint8_t, mqtt::Client* client, uint16_t)
{
    auto* publisher = static_cast<Publisher*>(client->owner);
    publisher->acknowledged++;
    publisher->load->result.counts.acknowledged++;
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
    message.topic = mqtt::bytesOf(topic);
    message.payload = {load->payload, load->options.size};
    message.qos = static_cast<uint8_t>(load->options.qos);
    mqtt::publish(KOR_AT(ex, depth), &publisher->client, message);
    publisher->published++;
    load->result.counts.published++;
}

// Messages that may be published now: the slowest subscriber, and with QoS 1 the server, set the pace.
uint64_t roomLeft(const Load* load)
{
    const Options& options = load->options;
    uint64_t published = load->result.counts.published;
    uint64_t taken = options.qos > 0 ? load->result.counts.acknowledged : published;
    for (uint32_t i = 0; i < options.subscribers; i++) {
        uint64_t received = load->subscribers[i].received;
        taken = received < taken ? received : taken;
    }
    uint64_t left = publishedInAll(options) - published;
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

uint64_t arrivals(const Counts& counts)
{
    return counts.received + counts.duplicates + counts.damaged + counts.acknowledged;
}

// Takes turns until all has come or, with `patience` milliseconds without anything, no more comes.
void takeTurns(korEx* ex, uint8_t depth, Load* load, uint64_t patience, bool untilComplete)
{
    uint64_t heardAt = _kor_GetCurrentMilliseconds();
    uint64_t before = arrivals(load->result.counts);
    while (ex->code == 0 && !(untilComplete && isComplete(load->options, load->result.counts))) {
        publishSome(KOR_AT(ex, depth), load);
        mqtt::turn(KOR_AT(ex, depth), &load->loop, static_cast<int32_t>(quietTime));
        uint64_t now = _kor_GetCurrentMilliseconds();
        if (arrivals(load->result.counts) != before) {
            before = arrivals(load->result.counts);
            heardAt = now;
        } else if (now >= heardAt + patience) {
            load->result.stalled = untilComplete;
            return;
        }
        showProgress(load->options, load->result.counts, false);
    }
}

void runLoad(korEx* ex, uint8_t depth, Load* load)
{
    load->result.firstAt = _korPerf_TimerNow();
    load->result.lastAt = load->result.firstAt;
    takeTurns(KOR_AT(ex, depth), load, stallTime, true);
    showProgress(load->options, load->result.counts, true);
    if (!load->result.stalled) {
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
    openLatency(KOR_AT(ex, depth), &load->result.latency);
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
    closeLatency(KOR_AT_D(depth, ex), &load->result.latency);
}

bool measure(korEx* ex, uint8_t depth, Load* load)
{
    printSettings(load->options);
    openLoad(KOR_AT(ex, depth), load);
    runLoad(KOR_AT(ex, depth), load);
    bool isMeasured = load->result.firstAt != 0;
    bool isKept = ex->code == 0 && areGuaranteesKept(load->options, load->result);
    if (isMeasured) {
        KOR_EX_CHAINED(report, ex, depth); // what was counted until the server failed is told, too
        printReport(KOR_AT(&report, depth), load->options, load->result);
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
    KOR_EX_LOCAL(ex);
    readOptions(KOR_AT(&ex, 0), argc, argv, &options);
    if (ex.code != 0) {
        printFailure("korload", &ex);
        return 2;
    }
    if (options.help) {
        printHelp(&options);
        return 0;
    }
    _korutil_Open(KOR_AT(&ex, 0), KORUTIL_LEVEL);
    bool isKept = work(KOR_AT(&ex, 0), options);
    if (ex.code != 0) {
        korEx_Print(&ex);
    }
    _korutil_Close(KOR_AT_D(0, &ex));
    return isKept ? 0 : 1;
}
