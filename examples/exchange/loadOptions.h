// loadOptions.h - the command line of korload.

#ifndef EXCHANGE_LOADOPTIONS_H
#define EXCHANGE_LOADOPTIONS_H

#include <korutil/korEx.h>

#include <cstdint>

/// What every payload begins with. Sender and receiver are one program, so numbers stay in its byte order.
struct Stamp {
    uint32_t publisher;
    uint32_t number; ///< of the publisher's message, from 0
    int64_t sentAt;  ///< ticks
};

struct Options {
    const char* host = "127.0.0.1";
    const char* port = "1883";
    uint32_t publishers = 1;
    uint32_t subscribers = 1;
    uint32_t messages = 100000; ///< of each publisher
    uint32_t size = 64;
    uint32_t qos = 0;
    uint32_t topics = 1;
    uint32_t window = 500;
    uint32_t idle = 0; ///< not 0: nothing but so many connections
    bool wildcard = false;
    bool csv = false;
    bool help = false;
};

/// Reads the command line. Code 1 if something is wrong with it.
void readOptions(korEx* ex, uint8_t depth, int argc, char** argv, Options* options);

/// Explains the options, with those of `options` as the defaults.
void printHelp(Options* options);

#endif
