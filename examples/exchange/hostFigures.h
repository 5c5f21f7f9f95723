// hostFigures.h - what this machine is doing, as topics and values: a stream of real messages for the exchange.

#ifndef EXCHANGE_HOST_FIGURES_H
#define EXCHANGE_HOST_FIGURES_H

#include <cstdint>

/// One value of this moment, such as "cpu/0/user", 12.5, "%".
struct Figure {
    char topic[96]; ///< below the host's own topic; no wildcard in it
    double value;
    const char* unit; ///< static
};

constexpr int32_t maxFigures = 128;

/// What one reading gave, and the counts that the next one is compared with. A zeroed record is ready for use; figures
/// that are rates come from the second reading on.
struct HostFigures {
    int32_t count;
    Figure figures[maxFigures];
    int32_t counterCount;
    struct Counter {
        char name[96];
        double value;
    } counters[2 * maxFigures];
};

/// Reads the figures of this moment, `seconds` after the last time. What the system does not tell is left out.
void readFigures(HostFigures* host, double seconds);

/// This machine's name, fit for a topic.
void readHostName(char* name, uint32_t size);

// Shared by the readers of the systems.

/// Adds a figure; one beyond the room for figures is dropped.
void addFigure(HostFigures* host, double value, const char* unit, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// By how much a counter has grown since the last reading; negative for one that was not there.
double growth(HostFigures* host, const char* name, double value);

/// Puts '_' in the place of what a level of a topic cannot hold.
void makeLevel(char* text);

#endif
