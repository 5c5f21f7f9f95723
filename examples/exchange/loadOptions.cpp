// loadOptions.cpp - the options, each with the values that it may have.

#include "loadOptions.h"

#include <korutil/korGetopt.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr uint32_t mostUnderWay = 60000; // below the number of packet ids

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

} // namespace

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
