// loadOptions.cpp - the options, each with the values that it may have.

#include "loadOptions.h"

#include "commandLine.h"

#include <cstdio>

namespace {

constexpr uint32_t mostUnderWay = 60000; // below the number of packet ids
constexpr int32_t optionCount = 13;

struct OptionTable {
    Option rows[optionCount];
};

OptionTable tableOf(Options* o)
{
    return {
        {textOption("host", "NAME", "of the server", &o->host), portOption("of the server", &o->port),
         numberOption("publishers", "N", "connections that publish", &o->publishers, 1, 10000),
         numberOption("subscribers", "N", "connections that subscribe, each to everything", &o->subscribers, 1, 10000),
         numberOption("messages", "N", "from each publisher", &o->messages, 1, 1'000'000'000),
         numberOption("size", "BYTES", "of a payload, 16 at least", &o->size, sizeof(Stamp), 1'000'000),
         numberOption("qos", "0|1", "of messages and subscriptions", &o->qos, 0, 1),
         numberOption("topics", "N", "that every publisher goes around", &o->topics, 1, 10000),
         flagOption("wildcard", "subscribe with one wildcard, not to each topic", &o->wildcard),
         numberOption("window", "N", "messages under way at most, of all publishers", &o->window, 1, mostUnderWay),
         flagOption("csv",
                    "one line: published,received,lost,duplicates,disorder,damaged,seconds,received a second,\n"
                    "                           then microseconds: median,99%,99.9%,longest",
                    &o->csv),
         numberOption("idle", "N", "open N connections, say so, and hold them until a line comes in", &o->idle, 1,
                      100000),
         flagOption("help", "this text", &o->help)}};
}

} // namespace

void readOptions(korEx* ex, uint8_t depth, int argc, char** argv, Options* options)
{
    OptionTable table = tableOf(options);
    readCommandLine(KOR_AT(ex, depth), argc, argv, table.rows, optionCount);
}

void printHelp(Options* options)
{
    std::puts("korload - publishes to an MQTT 3.1.1 server and counts every message at every subscriber\n");
    OptionTable table = tableOf(options);
    printOptions(table.rows, optionCount);
    std::puts(
        "\nExits with 1 if a message was lost, came twice, out of order or changed, or the server failed, and with 2\n"
        "for options that are wrong. With QoS 1 a message may come again that says so.");
}
