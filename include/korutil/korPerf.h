// korPerf.h - measuring: the tick counter and its scale, running statistics that keep no samples, and histograms.
//
// Values are kept in raw ticks; the scale is applied where they are printed.
//
//     korPerfStat stat = {0};
//     int64_t start = _korPerf_TimerNow();
//     work();
//     _korPerf_StatUpdate(&stat, _korPerf_TimerNow() - start);
//     _korPerf_PrintStat(stdout, &stat, _korPerf_TimerScale());
//
// The clock may be read by any thread. A statistic or a histogram belongs to one thread, or to a lock of its owner.

#ifndef KORUTIL_KORPERF_H
#define KORUTIL_KORPERF_H

#include "korutil/korI64Hash.h"

KOR_BEGIN_DECLS

/// Running statistics, kept by the caller; all zero = empty. Mean and squares follow Welford ("Note on a Method for
/// Calculating Corrected Sums of Squares and Products", 1962).
typedef struct korPerfStat {
    uint64_t count;    ///< samples so far
    int64_t max;       ///< largest sample
    int64_t min;       ///< smallest sample
    double mean;       ///< running mean
    double sumSquares; ///< sum of the squared differences from the mean
} korPerfStat;

/// A histogram with buckets of one width. A bucket without samples takes no memory.
typedef struct korPerfHist {
    int64_t bucketTicks;   ///< width of a bucket, at least 1
    double secondsPerTick; ///< the scale, for printing
    uint64_t count;        ///< samples so far
    korI64Hash* buckets;   ///< bucket index to number of samples, owned
} korPerfHist;

// ---- The clock ------------------------------------------------------------------------------------------------------

/// The system's finest counter, in ticks.
KOR_API int64_t _korPerf_TimerNow(void);
/// Seconds in a tick, read from the system at each call.
KOR_API double _korPerf_TimerScale(void);
/// The same as _korPerf_TimerScale.
KOR_API double _korPerf_TimerResolution(void);

// ---- Statistics -----------------------------------------------------------------------------------------------------

/// Adds a sample and gives the new count. One division, no allocation.
KOR_API uint64_t _korPerf_StatUpdate(korPerfStat* stat, int64_t value);

/// The standard deviation of the samples taken as the whole population; 0 if there are none.
KOR_API double _korPerf_StdDeviation(const korPerfStat* stat);

/// Merges `source` into `destination`. The difference of the two means does not enter the squares, so a merged
/// deviation is low when the means differ. An empty `source` counts with its zeros as smallest and largest sample if
/// `destination` has samples.
KOR_API void _korPerf_StatAccumulate(korPerfStat* destination, const korPerfStat* source);

/// Prints "min/max/avg/dev: " and the four values times `scale` in engineering notation, with no newline.
KOR_API void _korPerf_PrintStat(FILE* stream, const korPerfStat* stat, double scale);

/// Prints count, smallest, largest, mean, deviation and sum of squares, all but the count times `scale`, with ", "
/// between them and no newline.
KOR_API void _korPerf_PrintStatForRegressionTest(FILE* stream, const korPerfStat* stat, double scale);

/// Prints a value with an exponent that is a multiple of 3, as in "   1.50E+03", 11 characters wide.
KOR_API void _korPerf_PrintEng(FILE* stream, double value);

// ---- Histograms -----------------------------------------------------------------------------------------------------

/// A histogram with buckets of `bucketSeconds`, cut to whole ticks, 1 at least. NULL on an error. Code 2.
KOR_API korPerfHist* _korPerf_CreateHist(korEx* ex, uint8_t depth, double bucketSeconds, double secondsPerTick);

/// Destroys a histogram. NULL is accepted.
KOR_API void _korPerf_DestroyHist(uint8_t depth, korEx* ex, korPerfHist* hist);

/// Adds a sample in ticks. Negative samples are counted, but never printed. Does nothing with an error pending.
/// Code 2: the samples of that bucket are lost.
KOR_API void _korPerf_HistUpdate(korEx* ex, uint8_t depth, korPerfHist* hist, int64_t value);

/// Merges `source` into `destination`, which must be another histogram with the same `bucketTicks` (the width is not
/// tested). Gives what the last step of the walk over `source` gave, which is false. Code 1 for a histogram merged into
/// itself, code 2 as for an update.
KOR_API bool _korPerf_HistAccumulate(korEx* ex, uint8_t depth, korPerfHist* destination, const korPerfHist* source);

/// Prints a row for each bucket from 0 to the highest in use: its upper edge in seconds, and with `csv` the samples and
/// the percentage up to there (rows with no samples are left out), else that percentage and a bar. With `trim` the
/// chart leaves out what lies below the lowest bucket, the tail behind 98 percent, and long runs of empty bars. Does
/// nothing with an error pending.
KOR_API void _korPerf_PrintHist(korEx* ex, uint8_t depth, const korPerfHist* hist, FILE* stream, bool csv, bool trim);

KOR_END_DECLS

#endif
