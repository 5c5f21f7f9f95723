// loadReport.cpp - the figures of a run in words, or in one line for a program.

#include "loadReport.h"

#include <korutil/korTime.h>

#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <initializer_list>

namespace {

constexpr uint64_t progressTime = 100; // milliseconds between two lines of progress

uint64_t lost(const Options& options, const Counts& counts)
{
    return expectedInAll(options) - counts.received;
}

void printCsv(const Options& options, const Result& result, double seconds, double rate)
{
    const Counts& counts = result.counts;
    const Latency* latency = &result.latency;
    for (uint64_t number : {counts.published, counts.received, lost(options, counts), counts.duplicates,
                            counts.disorder, counts.damaged}) {
        std::printf("%" PRIu64 ",", number);
    }
    std::printf("%.6f,%.0f,%.0f,%.0f,%.0f,%.0f\n", seconds, rate, latencyOf(latency, 0.5), latencyOf(latency, 0.99),
                latencyOf(latency, 0.999), longestLatency(latency));
}

void printCount(const char* name, uint64_t number)
{
    std::printf("%-14s%12" PRIu64 "\n", name, number);
}

void printCounts(const Options& options, const Counts& counts)
{
    printCount("published", counts.published);
    if (options.qos > 0) {
        printCount("acknowledged", counts.acknowledged);
    }
    std::printf("received      %12" PRIu64 " of %" PRIu64 "\n", counts.received, expectedInAll(options));
    printCount("lost", lost(options, counts));
    printCount("duplicates", counts.duplicates);
    if (counts.marked > 0) {
        printCount(" marked so", counts.marked);
    }
    printCount("out of order", counts.disorder);
    if (counts.damaged > 0) {
        printCount("damaged", counts.damaged);
    }
}

void printLatency(korEx* ex, uint8_t depth, const Latency* latency)
{
    std::printf("latency in microseconds: median %.0f, 99%% %.0f, 99.9%% %.0f, longest %.0f\n\n",
                latencyOf(latency, 0.5), latencyOf(latency, 0.99), latencyOf(latency, 0.999), longestLatency(latency));
    drawLatency(KOR_AT(ex, depth), latency);
}

} // namespace

uint64_t publishedInAll(const Options& options)
{
    return uint64_t{options.publishers} * options.messages;
}

uint64_t expectedInAll(const Options& options)
{
    return publishedInAll(options) * options.subscribers;
}

bool isComplete(const Options& options, const Counts& counts)
{
    return counts.received == expectedInAll(options) &&
           (options.qos == 0 || counts.acknowledged >= publishedInAll(options));
}

bool areGuaranteesKept(const Options& options, const Result& result)
{
    const Counts& counts = result.counts;
    uint64_t unmarked = counts.duplicates - (options.qos > 0 ? counts.marked : 0);
    bool isAcknowledged = options.qos == 0 || counts.acknowledged == publishedInAll(options);
    return isComplete(options, counts) && isAcknowledged && unmarked == 0 && counts.disorder == 0 &&
           counts.damaged == 0 && !result.stalled;
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

void showProgress(const Options& options, const Counts& counts, bool isLast)
{
    static uint64_t shownAt = 0;
    uint64_t now = _kor_GetCurrentMilliseconds();
    if (options.csv || isatty(STDOUT_FILENO) == 0 || (!isLast && now < shownAt + progressTime)) {
        return;
    }
    shownAt = now;
    double share = static_cast<double>(counts.received) / static_cast<double>(expectedInAll(options));
    std::printf("\r%12" PRIu64 " of %" PRIu64 " received, %3.0f%%%s", counts.received, expectedInAll(options),
                share * 100, isLast ? "\n" : "");
    std::fflush(stdout);
}

void printReport(korEx* ex, uint8_t depth, const Options& options, const Result& result)
{
    double seconds = static_cast<double>(result.lastAt - result.firstAt) * result.latency.secondsPerTick;
    double rate = seconds > 0 ? static_cast<double>(result.counts.received) / seconds : 0;
    if (options.csv) {
        printCsv(options, result, seconds, rate);
        return;
    }
    printCounts(options, result.counts);
    std::printf("rate          %12.0f messages received a second, in %.3f s\n", rate, seconds);
    if (result.latency.samples > 0) {
        printLatency(KOR_AT(ex, depth), &result.latency);
    }
    if (result.stalled) {
        std::printf("\nThe server fell silent before all had come.\n");
    }
    std::printf("\n%s\n", areGuaranteesKept(options, result) ? "Every guarantee was kept." : "A guarantee was BROKEN.");
}
