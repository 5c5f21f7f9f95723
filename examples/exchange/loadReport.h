// loadReport.h - what korload counts, what follows from it, and how it is told.

#ifndef EXCHANGE_LOADREPORT_H
#define EXCHANGE_LOADREPORT_H

#include "latency.h"
#include "loadOptions.h"

struct Counts {
    uint64_t published;
    uint64_t acknowledged;
    uint64_t received; ///< by all subscribers, each message counted once
    uint64_t duplicates;
    uint64_t marked; ///< of the duplicates, with QoS 1 and said to be sent again: that is allowed
    uint64_t disorder;
    uint64_t damaged;
};

struct Result {
    Counts counts;
    Latency latency;
    int64_t firstAt; ///< ticks; 0 = nothing was published yet
    int64_t lastAt;  ///< ticks of the last message that came
    bool stalled;
};

/// Messages of all publishers together.
uint64_t publishedInAll(const Options& options);
/// Messages that all subscribers together must get.
uint64_t expectedInAll(const Options& options);

/// Everything has come that must.
bool isComplete(const Options& options, const Counts& counts);
/// Everything has come once, in order, and acknowledged with QoS 1, where it may come again if it says so.
bool areGuaranteesKept(const Options& options, const Result& result);

void printSettings(const Options& options);
/// One line that is rewritten, some times a second; on a terminal only.
void showProgress(const Options& options, const Counts& counts, bool isLast);
/// Code 2.
void printReport(korEx* ex, uint8_t depth, const Options& options, const Result& result);

#endif
