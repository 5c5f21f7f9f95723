// korfigures.cpp - real messages for an exchange: publishes what this machine is doing, subscribes to it with literal
// and wildcard filters, and shows what comes back. Ends with 1 if any subscriber got more or less than was published.

#include "client.h"
#include "commandLine.h"
#include "hostFigures.h"

#include <korutil/korLib.h>
#include <korutil/korPerf.h>
#include <korutil/korStrHash.h>
#include <korutil/korText.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

constexpr int32_t topicSize = 192;
constexpr int32_t settleTime = 10'000; // milliseconds for what is still on its way at the end
constexpr int32_t watcherCount = 5;

struct Settings {
    const char* host = "127.0.0.1";
    const char* port = "1883";
    uint32_t seconds = 5;
    uint32_t interval = 250; ///< milliseconds
    uint32_t height = 0;     ///< lines of the terminal; 0 = none
    bool wantsHelp = false;
};

/// A subscriber with one filter.
struct Watcher {
    mqtt::Client client;
    struct Show* show;
    char filter[topicSize];
    uint64_t received;
    uint64_t expected; ///< of what has been published, by this program's own reading of the filter
};

/// A topic as the table shows it: what the last watcher, who takes everything, got.
struct Row {
    char topic[topicSize];
    char value[32];
    uint64_t received;
};

struct Show {
    Settings settings;
    mqtt::Loop loop;
    mqtt::Client publisher;
    Watcher watchers[watcherCount];
    HostFigures host;
    char hostName[64];
    korStrHash* rowOf; ///< topic to number of its row, from 1 on
    Row rows[maxFigures];
    int32_t rowCount;
    int32_t linesDrawn;
    uint64_t published;
    uint64_t acknowledged;
    double secondsPerTick;
};

int64_t nowOf(const Show* show)
{
    return static_cast<int64_t>(static_cast<double>(_korPerf_TimerNow()) * show->secondsPerTick * 1000);
}

// What the server is held to: does the filter take the topic?
bool matches(const char* filter, const char* topic)
{
    if (std::strcmp(filter, "#") == 0 || std::strcmp(filter, topic) == 0) {
        return true;
    }
    size_t filterLevel = std::strcspn(filter, "/");
    size_t topicLevel = std::strcspn(topic, "/");
    bool isSame = filterLevel == topicLevel && std::strncmp(filter, topic, topicLevel) == 0;
    if (!isSame && !(filterLevel == 1 && filter[0] == '+')) {
        return false;
    }
    if (filter[filterLevel] == 0 || topic[topicLevel] == 0) {
        return filter[filterLevel] == topic[topicLevel] || std::strcmp(filter + filterLevel, "/#") == 0;
    }
    return matches(filter + filterLevel + 1, topic + topicLevel + 1);
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

Row* findRow(korEx* ex, uint8_t depth, Show* show, mqtt::Bytes topic)
{
    char text[topicSize];
    _kor_StringCopy(text, sizeof(text), reinterpret_cast<const char*>(topic.data), topic.length);
    uint64_t number = _korStrHash_Get(KOR_AT(ex, depth), show->rowOf, text);
    if (number == 0 && show->rowCount < maxFigures) {
        number = static_cast<uint64_t>(++show->rowCount);
        _korStrHash_Set(KOR_AT(ex, depth), show->rowOf, text, 1, number);
        _kor_StringCopy(show->rows[number - 1].topic, topicSize, text, 0);
    }
    return number != 0 ? &show->rows[number - 1] : nullptr;
}

void count(korEx*, uint8_t, mqtt::Client* client, const mqtt::Publish&)
{
    static_cast<Watcher*>(client->owner)->received++;
}

void keepInTable(korEx* ex, uint8_t depth, mqtt::Client* client, const mqtt::Publish& message)
{
    count(KOR_AT(ex, depth), client, message);
    Row* row = findRow(KOR_AT(ex, depth), static_cast<Watcher*>(client->owner)->show, message.topic);
    if (row != nullptr) {
        row->received++;
        _kor_snprintf(row->value, sizeof(row->value), "%.*s", static_cast<int>(message.payload.length),
                      reinterpret_cast<const char*>(message.payload.data));
    }
}

void countAcknowledgement(korEx*, uint8_t, mqtt::Client* client, uint16_t)
{
    static_cast<Show*>(client->owner)->acknowledged++;
}

// ---- Showing --------------------------------------------------------------------------------------------------------

void drawLine(Show* show, const char* text)
{
    std::printf("%s%s\n", text, show->settings.height > 0 ? "\x1b[K" : "");
    show->linesDrawn++;
}

void drawRows(Show* show)
{
    char line[2 * topicSize];
    _kor_snprintf(line, sizeof(line), "  %-44s %14s %10s", "topic", "value", "messages");
    drawLine(show, line);
    for (int32_t i = 0; i < show->rowCount; i++) {
        const Row& row = show->rows[i];
        _kor_snprintf(line, sizeof(line), "  %-44s %14s %10" PRIu64, row.topic, row.value, row.received);
        drawLine(show, line);
    }
}

void drawWatchers(Show* show)
{
    char line[2 * topicSize];
    _kor_snprintf(line, sizeof(line), "  %-44s %14s %10s", "subscriber to", "published", "received");
    drawLine(show, line);
    for (const Watcher& watcher : show->watchers) {
        _kor_snprintf(line, sizeof(line), "  %-44s %14" PRIu64 " %10" PRIu64 "%s", watcher.filter, watcher.expected,
                      watcher.received, watcher.received == watcher.expected ? "" : "  <-");
        drawLine(show, line);
    }
}

// Over the table that stands there already, on a terminal.
void draw(Show* show)
{
    if (show->linesDrawn > 0) {
        std::printf("\x1b[%dA", show->linesDrawn);
    }
    show->linesDrawn = 0;
    drawRows(show);
    drawLine(show, "");
    drawWatchers(show);
    std::fflush(stdout);
}

// The table, if the terminal has room for it; else a line that tells how far it is.
void drawProgress(Show* show)
{
    if (static_cast<uint32_t>(show->rowCount + watcherCount + 4) < show->settings.height) {
        draw(show);
    } else if (show->settings.height > 0) {
        std::printf("\r  %" PRIu64 " figures published, %" PRIu64 " acknowledged", show->published, show->acknowledged);
        std::fflush(stdout);
    }
}

// ---- Publishing -----------------------------------------------------------------------------------------------------

void publishFigure(korEx* ex, uint8_t depth, Show* show, const Figure& figure)
{
    char topic[topicSize];
    char value[32];
    _kor_snprintf(topic, sizeof(topic), "host/%s/%s", show->hostName, figure.topic);
    _kor_snprintf(value, sizeof(value), "%.*f %s", figure.value < 1000 ? 2 : 0, figure.value, figure.unit);
    mqtt::Publish message = {};
    message.topic = mqtt::bytesOf(topic);
    message.payload = mqtt::bytesOf(value);
    message.qos = 1;
    mqtt::publish(KOR_AT(ex, depth), &show->publisher, message);
    if (ex->code == 0) {
        show->published++;
        for (Watcher& watcher : show->watchers) {
            watcher.expected += matches(watcher.filter, topic) ? uint64_t{1} : uint64_t{0};
        }
    }
}

void publishReading(korEx* ex, uint8_t depth, Show* show, double seconds)
{
    readFigures(&show->host, seconds);
    for (int32_t i = 0; i < show->host.count; i++) {
        publishFigure(KOR_AT(ex, depth), show, show->host.figures[i]);
    }
    mqtt::flush(KOR_AT(ex, depth), &show->publisher);
}

void turnUntil(korEx* ex, uint8_t depth, Show* show, int64_t end)
{
    int64_t left;
    while (ex->code == 0 && (left = end - nowOf(show)) > 0) {
        mqtt::turn(KOR_AT(ex, depth), &show->loop, static_cast<int32_t>(left));
    }
}

bool isComplete(const Show* show)
{
    bool complete = show->acknowledged == show->published;
    for (const Watcher& watcher : show->watchers) {
        complete = complete && watcher.received == watcher.expected;
    }
    return complete;
}

// The first reading is what the rates of the next are taken from, and is not published.
void publishAll(korEx* ex, uint8_t depth, Show* show)
{
    int64_t last = nowOf(show);
    int64_t end = last + int64_t{1000} * show->settings.seconds;
    readFigures(&show->host, 0);
    while (ex->code == 0 && last < end) {
        turnUntil(KOR_AT(ex, depth), show, last + show->settings.interval);
        if (show->rowCount > 0) {
            drawProgress(show); // what was published a while ago has arrived
        }
        int64_t now = nowOf(show);
        publishReading(KOR_AT(ex, depth), show, static_cast<double>(now - last) / 1000);
        last = now;
    }
    for (end = nowOf(show) + settleTime; ex->code == 0 && !isComplete(show) && nowOf(show) < end;) {
        mqtt::turn(KOR_AT(ex, depth), &show->loop, 100);
    }
}

// ---- Start and end --------------------------------------------------------------------------------------------------

void openPublisher(korEx* ex, uint8_t depth, Show* show)
{
    show->publisher.owner = show;
    show->publisher.onAcknowledged = countAcknowledgement;
    mqtt::openClient(KOR_AT(ex, depth), &show->publisher, &show->loop, show->settings.host, show->settings.port, "");
}

// The last one takes everything.
void openWatchers(korEx* ex, uint8_t depth, Show* show)
{
    const char* const filters[watcherCount] = {"host/%s/load/1", "host/%s/memory/+", "host/+/cpu/+/user",
                                               "+/%s/network/#", "host/#"};
    for (int32_t i = 0; i < watcherCount && ex->code == 0; i++) {
        Watcher* watcher = &show->watchers[i];
        watcher->show = show;
        watcher->client.owner = watcher;
        watcher->client.onMessage = i + 1 < watcherCount ? count : keepInTable;
        const char* name = std::strstr(filters[i], "%s");
        _kor_snprintf(watcher->filter, sizeof(watcher->filter), "%.*s%s%s",
                      static_cast<int>(name != nullptr ? name - filters[i] : 0), filters[i],
                      name != nullptr ? show->hostName : "", name != nullptr ? name + 2 : filters[i]);
        mqtt::openClient(KOR_AT(ex, depth), &watcher->client, &show->loop, show->settings.host, show->settings.port,
                         "");
        mqtt::subscribe(KOR_AT(ex, depth), &watcher->client, watcher->filter, 1);
    }
}

void closeAll(uint8_t depth, korEx* ex, Show* show)
{
    mqtt::closeClient(KOR_AT_D(depth, ex), &show->publisher);
    for (Watcher& watcher : show->watchers) {
        mqtt::closeClient(KOR_AT_D(depth, ex), &watcher.client);
    }
    mqtt::closeLoop(KOR_AT_D(depth, ex), &show->loop);
    _korStrHash_Destroy(KOR_AT_D(depth, ex), show->rowOf);
}

// True if every subscriber got what was published for it.
bool run(korEx* ex, uint8_t depth, const Settings& settings)
{
    static Show show; // too large for a stack
    show.settings = settings;
    show.secondsPerTick = _korPerf_TimerScale();
    readHostName(show.hostName, sizeof(show.hostName));
    show.rowOf = _korStrHash_Create(KOR_AT(ex, depth), maxFigures);
    mqtt::openLoop(KOR_AT(ex, depth), &show.loop);
    openWatchers(KOR_AT(ex, depth), &show);
    openPublisher(KOR_AT(ex, depth), &show);
    if (ex->code == 0) {
        publishAll(KOR_AT(ex, depth), &show);
        std::printf("%s", show.settings.height > 0 && show.linesDrawn == 0 ? "\r" : "");
        draw(&show);
        std::printf("\n  %" PRIu64 " figures published, %" PRIu64 " acknowledged\n", show.published, show.acknowledged);
    }
    bool complete = ex->code == 0 && show.published > 0 && isComplete(&show);
    closeAll(KOR_AT_D(depth, ex), &show);
    return complete;
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    const Option options[] = {
        textOption("host", "ADDR", "the server's address", &settings.host),
        portOption("the server's port", &settings.port),
        numberOption("seconds", "N", "how long to publish", &settings.seconds, 1, 1'000'000),
        numberOption("interval", "MS", "time between two readings", &settings.interval, 1, 1'000'000),
        numberOption("live", "LINES", "for a terminal of that height: show how it goes on", &settings.height, 1, 10000),
        flagOption("help", "this text", &settings.wantsHelp),
    };
    KOR_EX_LOCAL(ex);
    _korutil_Open(KOR_AT(&ex, 0), KORUTIL_LEVEL);
    readCommandLine(KOR_AT(&ex, 0), argc, argv, options, std::size(options));
    bool complete = settings.wantsHelp;
    if (ex.code == 0 && settings.wantsHelp) {
        std::puts("korfigures - publishes this machine's figures and shows what subscribers get of them\n");
        printOptions(options, std::size(options));
    } else if (ex.code == 0) {
        complete = run(KOR_AT(&ex, 0), settings);
    }
    if (ex.code != 0) {
        printFailure("korfigures", &ex);
        complete = false;
    }
    _korutil_Close(KOR_AT_D(0, &ex));
    return complete ? EXIT_SUCCESS : EXIT_FAILURE;
}
