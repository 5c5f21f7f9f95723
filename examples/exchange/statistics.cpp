// statistics.cpp - what --stats shows: the input thread counts, and hands its counts over to a job that prints them, so
// that a slow terminal delays nobody's messages.

#include "exchange.h"

#include <korutil/korAlloc.h>

#include <cinttypes>
#include <cstdio>

namespace {

constexpr double turnBucket = 50e-6; // seconds

/// The counts of one interval on their way to the printer.
struct Report {
    korJob job;
    Statistics statistics;
    uint64_t clients;
    uint32_t subscriptions;
    uint32_t retained;
    double seconds; ///< length of the interval
    double secondsPerTick;
};

void printRate(const char* what, uint64_t count, double seconds)
{
    std::printf("  %-10s %12" PRIu64 " %12.0f/s", what, count, static_cast<double>(count) / seconds);
}

void printReport(korEx* ex, uint8_t depth, korJob* job)
{
    auto* report = reinterpret_cast<Report*>(job);
    const Counters& counters = report->statistics.counters;
    std::printf("korexchange: %" PRIu64 " clients, %u filters, %u retained messages\n", report->clients,
                report->subscriptions, report->retained);
    printRate("received", counters.received, report->seconds);
    std::printf(" %15" PRIu64 " bytes\n", counters.receivedBytes);
    printRate("delivered", counters.delivered, report->seconds);
    std::printf(" %15" PRIu64 " bytes\n", counters.sentBytes);
    printRate("dropped", counters.dropped, report->seconds);
    std::printf("\n");
    printRate("sent again", counters.resent, report->seconds);
    std::printf("\n  time of a turn, seconds, ");
    _korPerf_PrintStat(stdout, &report->statistics.turns, report->secondsPerTick);
    std::printf("\n");
    _korPerf_PrintHist(KOR_AT(ex, depth), report->statistics.turnTimes, stdout, false, true);
    std::fflush(stdout);
}

void freeReport(korEx* ex, uint8_t depth, korJob* job)
{
    auto* report = reinterpret_cast<Report*>(job);
    _korPerf_DestroyHist(KOR_AT_D(depth, ex), report->statistics.turnTimes);
    _kor_free(KOR_AT_D(depth, ex), report);
}

} // namespace

void openStatistics(korEx* ex, uint8_t depth, Exchange* exchange)
{
    exchange->statistics = {};
    exchange->statistics.turnTimes = _korPerf_CreateHist(KOR_AT(ex, depth), turnBucket, exchange->secondsPerTick);
}

void closeStatistics(uint8_t depth, korEx* ex, Exchange* exchange)
{
    _korPerf_DestroyHist(KOR_AT_D(depth, ex), exchange->statistics.turnTimes);
}

void countTurn(korEx* ex, uint8_t depth, Exchange* exchange, int64_t ticks)
{
    if (exchange->settings.statsInterval > 0) {
        _korPerf_StatUpdate(&exchange->statistics.turns, ticks);
        _korPerf_HistUpdate(KOR_AT(ex, depth), exchange->statistics.turnTimes, ticks);
    }
}

// The histogram goes with the report, and a new one begins.
void startReport(korEx* ex, uint8_t depth, Exchange* exchange)
{
    auto* report = static_cast<Report*>(_kor_calloc(KOR_AT(ex, depth), 1, sizeof(Report)));
    korPerfHist* fresh = _korPerf_CreateHist(KOR_AT(ex, depth), turnBucket, exchange->secondsPerTick);
    if (ex->code != 0) {
        _korPerf_DestroyHist(KOR_AT_D(depth, ex), fresh);
        _kor_free(KOR_AT_D(depth, ex), report);
        return;
    }
    report->statistics = exchange->statistics;
    report->clients = exchange->accepted - exchange->closed;
    report->subscriptions = exchange->filters;
    report->retained = _korTopicList_Count(KOR_AT(ex, depth), exchange->retained);
    report->seconds = static_cast<double>(exchange->now - exchange->reportedAt) / 1000;
    report->secondsPerTick = exchange->secondsPerTick;
    exchange->statistics = {};
    exchange->statistics.turnTimes = fresh;
    exchange->reportedAt = exchange->now;
    _korJob_Init(KOR_AT(ex, depth), &report->job, 0, printReport, freeReport);
    _korJob_RunAndForget(KOR_AT(ex, depth), exchange->executor, &report->job);
}
