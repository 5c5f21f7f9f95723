// korLogLevel.h - the scale of log levels and its words.
//
// A level is a signed 32-bit number; a lower one is more verbose. A statement passes when the level that is set for its
// component is less than or equal to the statement's own. Any number is a level; ten of them have words.

#ifndef KORUTIL_KORLOGLEVEL_H
#define KORUTIL_KORLOGLEVEL_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Every level that has words: name, number, text, short text.
#define KOR_LOG_LEVELS(entry)                                                                          \
    entry(KOR_LOG_ALL, -128, "all", "all") entry(KOR_LOG_INTERN, 50, "_intern", "_intern")             \
        entry(KOR_LOG_DEBUG3, 60, "debug3", "dbg3") entry(KOR_LOG_DEBUG2, 70, "debug2", "dbg2")        \
            entry(KOR_LOG_DEBUG, 80, "debug", "dbg1") entry(KOR_LOG_VERBOSE, 90, "verbose", "verbose") \
                entry(KOR_LOG_INFO, 100, "info", "info") entry(KOR_LOG_WARN, 110, "warn", "warn")      \
                    entry(KOR_LOG_SEVERE, 120, "severe", "severe") entry(KOR_LOG_OFF, 127, "off", "off")

#define KOR_LOG_LEVEL_ENUMERATOR(name, number, text, shortText) name = number,
/// The levels above as constants. A statement's level is one of those between the two ends.
typedef enum korLogLevel { KOR_LOG_LEVELS(KOR_LOG_LEVEL_ENUMERATOR) } korLogLevel;
#undef KOR_LOG_LEVEL_ENUMERATOR

/// The level of one of the texts, which must match exactly, in case too. For any other text, NULL, and with an error
/// pending, gives KOR_LOG_OFF. Errors: 1 "No such log level". Any thread.
KOR_API int32_t _korLogLevel_StringToLevel(korEx* ex, uint8_t depth, const char* text);

/// The text of a level, or "invalid" for a number without one. Static. Any thread.
KOR_API const char* _korLogLevel_LevelToString(int32_t level);

/// The short text of a level, as statements show it (cut to four characters there), or "invalid". Static. Any thread.
KOR_API const char* _korLogLevel_LevelShortString(int32_t level);

KOR_END_DECLS

#endif
