// latency.h - times of messages: a table with a counter for each microsecond of the first second, from which shares of
// them are exact, and the library's histogram of them with buckets that suit what was measured.

#ifndef EXCHANGE_LATENCY_H
#define EXCHANGE_LATENCY_H

#include <korutil/korPerf.h>

#include <cstdint>

/// All zero until it is opened.
struct Latency {
    uint32_t* counts; ///< the last one is of all that took longer
    uint64_t samples;
    int64_t longest; ///< ticks
    double secondsPerTick;
};

/// Code 2.
void openLatency(korEx* ex, uint8_t depth, Latency* latency);
/// Works with an error pending, and on what is all zero.
void closeLatency(uint8_t depth, korEx* ex, Latency* latency);

void addLatency(Latency* latency, int64_t ticks);

/// The microseconds that a share (0 to 1) of the samples did not exceed; 0 without samples.
double latencyOf(const Latency* latency, double share);
/// The longest, in microseconds.
double longestLatency(const Latency* latency);

/// Draws the histogram on standard output. Code 2.
void drawLatency(korEx* ex, uint8_t depth, const Latency* latency);

#endif
