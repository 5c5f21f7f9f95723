// logger.h - what the logger's files share: the tables of components and groups, the state beside `_gLogger`, and the
// routines that one of them has and another needs.
//
// Everything here is guarded by `_gLogger.lock` unless it says atomic. Of the locks, only that of `_gLogger` is ever
// held while a record's lock is taken, never the other way round; no statement is made with either held.

#pragma once

#include "korutil/korLogger.h"

#include <cstddef>

namespace kor::logging {

constexpr uint8_t loggerComponent = 1;   ///< what the library says about its logger belongs to this component
constexpr uint8_t msgComponent = 57;     ///< "msg"
constexpr uint8_t msgFullComponent = 58; ///< "msg_full"
constexpr int32_t defaultLevel = KOR_LOG_INFO;

/// A level of the present scale fits a signed 8-bit number; others are of an older one, ten times as wide.
constexpr bool fitsPresentScale(int32_t level)
{
    return level >= INT8_MIN && level <= INT8_MAX;
}

constexpr size_t maxTagLength = 128;
constexpr size_t maxShortTagLength = 4;
constexpr uint8_t builtInComponents = 64;
constexpr uint64_t builtInGroups = 6;

// ---- Tables ---------------------------------------------------------------------------------------------------------

/// A row never changes once it is filled. An empty one has NULL tags and id 0. The tags are atomic, so that a row can
/// be looked at while it is filled.
struct Component {
    const char* tag;
    const char* shortTag;
    uint8_t id;
};

struct Group {
    uint64_t id;
    const char* tag;
    uint8_t components[KOR_LOG_GROUP_SIZE]; ///< ended by a 0 if there are fewer
};

extern Component gComponents[KOR_LOG_MAX_COMPONENT + 1];
extern Group gGroups[KOR_LOG_MAX_GROUP + 1];

/// A piece of a text.
struct Slice {
    const char* text;
    size_t length;
};

/// A tag as a key of the hashes: its first 127 characters in lower case.
struct TagKey {
    char text[maxTagLength];
};
TagKey keyOf(Slice tag);

const char* tagOf(uint8_t component);      ///< for a message: "(null)" for an empty row
const char* shortTagOf(uint8_t component); ///< NULL for an empty row
uint8_t highestComponent(korEx* ex, uint8_t depth);

/// Fills the tables with their built-in rows and makes the two hashes.
void __initStaticComponents(korEx* ex, uint8_t depth);
void _initStaticGroups(korEx* ex, uint8_t depth);
/// Frees what was registered.
void dropGroups(korEx* ex, uint8_t depth);
void dropComponents(korEx* ex, uint8_t depth);

/// Stores a default level under the lock.
void __setLogLevel(korEx* ex, uint8_t depth, uint8_t component, int32_t level);
/// Stores a level of a record under its lock.
void __setLoggerLogLevel(korEx* ex, uint8_t depth, korLogger* logger, uint8_t component, int32_t level);
int32_t levelOf(const korLogger* logger, uint8_t component);

// ---- State beside the records ---------------------------------------------------------------------------------------

extern korI64Hash gLoggersByKey;   ///< log key to logger id: every per-key logger
extern korI64Hash gAlternates;     ///< logger id to the id of the logger that speaks for it
extern uint64_t gAlternatesInUse;  ///< atomic: entries of gAlternates
extern uint8_t gPreciseTime;       ///< atomic: 1 = time stamps show microseconds
extern uint8_t gThreadId;          ///< atomic: 1 = statements show the thread's id
extern korLogCentral gCentral;     ///< atomic
extern korLogCentralEx gCentralEx; ///< atomic

/// True if the logging system is up; raises code 5 if it is not.
bool isUp(korEx* ex, uint8_t depth);
/// Brings the logging system up at the first call that needs it.
void autoInitialize();

// ---- Loggers by key and id ------------------------------------------------------------------------------------------

/// The id of the logger of a key, or of the one that speaks for it; 0 if the key has none.
uint64_t loggerIdOfKey(korEx* ex, uint8_t depth, uint64_t logKey);
/// The same; a key without a logger gets one. 0 on an error.
uint64_t _korLogger_GetOrCreateLoggerIdByLogKey(korEx* ex, uint8_t depth, uint64_t logKey);
/// The id of the logger that speaks for `loggerId`: itself unless there is an alternate.
uint64_t alternateOf(korEx* ex, uint8_t depth, uint64_t loggerId);
/// The record with a reference, or NULL if it has gone; the failure stays private. Given back with _korLogger_Release.
korLogger* obtainLogger(uint64_t loggerId);
/// The record of a key, made if needed, with a reference; NULL on an error, which the caller sees.
korLogger* obtainByKey(korEx* ex, uint8_t depth, uint64_t logKey);
/// Drops a reference; with the last one the record goes.
void _korLogger_Release(uint8_t depth, korEx* ex, korLogger* logger);
/// Enters a logger in gLoggerInitMap: it has been configured.
void __setLoggerSetInit(korEx* ex, uint8_t depth, korLogger* logger);

} // namespace kor::logging
