// korLogger.h - log statements, the components that they belong to, and the loggers that take them.
//
// Every statement belongs to a component, a small number with a tag, and has a level. It passes when the level set for
// its component is at most its own. There is one global logger, and one logger for each log key in use: an opaque
// 64-bit number, not 0, that a program picks for a client, a realm or a connection. A per-key logger has levels and
// handlers of its own.
//
//     KOR_LOG(5, KOR_LOG_WARN, "queue of %s is full", name);           // arguments are not evaluated if it is stopped
//     _korLogger_SetLogLevels(KOR_AT(ex, depth), "info;executor:debug");
//     _korLogger_SetLogFiles(KOR_AT(ex, depth), "/var/log/server", 10000000, 5);
//
//     korLogSourceEx source;                                            // statements of one client
//     _korLogger_InitializeLogSourceEx(&source, clientKey, 15, "client %u", number);
//     _korLogger_SetLogLevelsForId(KOR_AT(ex, depth), clientKey, "all:debug");
//     _korLogger_LogBySource(&source, 0, NULL, NULL, KOR_LOG_DEBUG, NULL, 0, "bound to %s", address);
//
// A statement on the console or in a file reads, from left to right: local time, thread id (if asked for), level,
// component, label, name in brackets, message; then, on lines of its own, the exception if one was given:
//
//     2024-02-29 23:59:59.999 warn exec: label [name] queue of orders is full
//
// Statements are at most 4095 bytes long; what does not fit is cut.
//
// The logging system comes up by itself at the first call that needs it. Any thread may call any function of this file
// at any time, but for _korLogger_Initialize and _korLogger_Uninitialize, which need the process to be quiet. Functions
// that take no exception object drop their failures; a statement can at worst be lost.

#ifndef KORUTIL_KORLOGGER_H
#define KORUTIL_KORLOGGER_H

#include "korutil/korHandler.h"
#include "korutil/korI64Hash.h"
#include "korutil/korLogLevel.h"
#include "korutil/korRWLock.h"

KOR_BEGIN_DECLS

/// The highest component id, and the highest group id.
#define KOR_LOG_MAX_COMPONENT 128
#define KOR_LOG_MAX_GROUP 64
/// Members that a group can have.
#define KOR_LOG_GROUP_SIZE 32
/// Levels in a table: one for each number that fits a component id's 8 bits, so that no id leads outside. Those above
/// KOR_LOG_MAX_COMPONENT belong to no component.
#define KOR_LOG_LEVEL_SLOTS 256
/// Size of a statement with its terminator.
#define KOR_LOG_STATEMENT_SIZE 4096

// ---- Records --------------------------------------------------------------------------------------------------------

/// What the global logger is and what a per-key logger begins with. Read under `lock`; written by the library.
typedef struct korLoggerHead {
    korRWLock* lock;                ///< global: of the whole logging system; per key: of the record
    korStrHash* componentTags;      ///< lower-cased component tag to id; global only
    korStrHash* groupTags;          ///< lower-cased group tag to id; global only
    korHandler* callbackHandler;    ///< global only; NULL until set
    void* callbackClosure;          ///< the closure of the callback
    korHandler* consoleHandler;     ///< global only
    korHandler* rollingFileHandler; ///< global only; NULL until set
    korHandler* defaultHandler;     ///< global only; the console handler
    korHandler* currentHandler;     ///< global only; the handler in use
    int32_t statementBufferKey;     ///< thread-local key of the statement buffer; 0 = none
    char* levelSpec;                ///< the last level list applied without an error, or NULL
    uint8_t componentCount;         ///< highest component id known
    uint64_t groupCount;            ///< highest group id known
} korLoggerHead;

/// A per-key logger.
typedef struct korLogger {
    korLoggerHead head;
    uint64_t loggerId;                   ///< its id in the object map
    uint64_t logKey;                     ///< its key
    uint8_t msgTracing;                  ///< atomic: per-key form of gLoggingMsgTracingSet
    uint8_t msgFullTracing;              ///< atomic: per-key form of gLoggingMsgFullTracingSet
    korHandler* callbackHandlerEx;       ///< NULL until set
    korHandler* consoleHandlerEx;        ///< made with the record
    korHandler* rollingFileHandlerEx;    ///< NULL until set
    korHandler* defaultHandlerEx;        ///< the console handler
    korHandler* currentHandlerEx;        ///< the handler in use
    int32_t levels[KOR_LOG_LEVEL_SLOTS]; ///< atomic: level by component id
} korLogger;

/// Where statements come from: kept by an object that logs, filled by the functions below.
typedef struct korLogSource {
    uint8_t component; ///< component id of its statements
    char name[256];    ///< printed in brackets; empty for none
    char label[255];   ///< printed before the brackets; empty for none
} korLogSource;

/// The same with a per-key logger.
typedef struct korLogSourceEx {
    uint64_t loggerId; ///< object-map id of the logger; 0 = the global one
    korLogSource source;
} korLogSourceEx;

/// Sees every statement of the global logger that passes, whatever the handler. `message` has neither time nor tags;
/// `exceptionText` is NULL if none was given. The texts are valid for the call only. Called from any thread, from many
/// at once.
typedef void (*korLogCentral)(const char* message, uint32_t messageLength, const char* shortTag, const char* name,
                              int32_t level, int32_t eventCode, const char* exceptionText);
/// The same for the per-key loggers.
typedef void (*korLogCentralEx)(uint64_t logKey, const char* message, uint32_t messageLength, const char* shortTag,
                                const char* name, int32_t level, int32_t eventCode, const char* exceptionText);

/// The global logger.
KOR_DATA korLoggerHead _gLogger;
/// The global levels by component id, KOR_LOG_LEVEL_SLOTS of them. Never NULL. Read with korLogger_isLoggable.
KOR_DATA int32_t* gLoggingComponentLevels;
/// Atomic: 1 = a level list has asked for the tracing of messages (component "msg") at debug or below, by name.
KOR_DATA uint8_t gLoggingMsgTracingSet;
/// Atomic: the same for component "msg_full".
KOR_DATA uint8_t gLoggingMsgFullTracingSet;
/// Log key to logger id, of the loggers that have been configured: by levels, a callback or files. Under
/// `_gLogger.lock`.
KOR_DATA korI64Hash gLoggerInitMap;
/// Atomic: the number of entries of gLoggerInitMap.
KOR_DATA uint64_t gLoggerInitMapInUse;

// ---- Statements of the global logger --------------------------------------------------------------------------------
//
// In all of these `level` is compared with the component's default level; `name`, `label` and `logEx` may be NULL, and
// `eventCode` goes to the central observer.

/// True if a statement of the global logger would pass: a load and a comparison, no lock.
KOR_INLINE bool korLogger_isLoggable(uint8_t component, int32_t level)
{
    return KOR_ATOMIC_LOAD_RELAXED(&gLoggingComponentLevels[component]) <= level;
}

/// A statement without name, label and exception: format and arguments follow the level. Stopped, it costs a load and a
/// comparison, and the arguments are not evaluated.
#define KOR_LOG(component, level, ...)                                                  \
    (korLogger_isLoggable((component), (level))                                         \
         ? _korLogger_LogExN_v3((component), NULL, NULL, (level), NULL, 0, __VA_ARGS__) \
         : (void)0)

/// Makes a statement.
KOR_API void _korLogger_LogVa_v3(uint8_t component, const char* name, const char* label, int32_t level,
                                 const korEx* logEx, int32_t eventCode, const char* format, va_list arguments)
    KOR_PRINTF(7, 0);
/// The same without label.
KOR_API void _korLogger_LogVa_v2(uint8_t component, const char* name, int32_t level, const korEx* logEx,
                                 int32_t eventCode, const char* format, va_list arguments) KOR_PRINTF(6, 0);
/// The same without label and event code.
KOR_API void _korLogger_LogVa(uint8_t component, const char* name, int32_t level, const korEx* logEx,
                              const char* format, va_list arguments) KOR_PRINTF(5, 0);

/// Makes a statement.
KOR_API void _korLogger_LogExN_v3(uint8_t component, const char* name, const char* label, int32_t level,
                                  const korEx* logEx, int32_t eventCode, const char* format, ...) KOR_PRINTF(7, 8);
/// The same without label.
KOR_API void _korLogger_LogExN_v2(uint8_t component, const char* name, int32_t level, const korEx* logEx,
                                  int32_t eventCode, const char* format, ...) KOR_PRINTF(6, 7);
/// The same without label and event code.
KOR_API void _korLogger_LogExN(uint8_t component, const char* name, int32_t level, const korEx* logEx,
                               const char* format, ...) KOR_PRINTF(5, 6);
/// The same with a level of the older scale, ten times the present one. A level that fits a signed 8-bit number is not
/// of that scale, and the statement is dropped.
KOR_API void _korLogger_LogEx(uint8_t component, const char* name, int32_t level, const korEx* logEx,
                              const char* format, ...) KOR_PRINTF(5, 6);

/// Makes a statement of a ready text, with no risk of a format in it. `format` must be "%s", else nothing happens.
KOR_API void _korLogger_LogMessage(uint8_t component, const char* name, int32_t level, const korEx* logEx,
                                   const char* format, const char* text);
/// The same with a label.
KOR_API void _korLogger_LogMessageEx(uint8_t component, const char* name, const char* label, int32_t level,
                                     const korEx* logEx, const char* format, const char* text);

// ---- Statements of a per-key logger ---------------------------------------------------------------------------------
//
// `level` is compared with the logger's own level of the component. A logger that is not there, or no more, makes it a
// statement of the global logger, tested against the default level.

/// Makes a statement through a source. A NULL `name` or `label` and a `component` of 0 are the source's. NULL for the
/// source is a statement of the global logger.
KOR_API void _korLogger_LogBySource(const korLogSourceEx* sourceEx, uint8_t component, const char* name,
                                    const char* label, int32_t level, const korEx* logEx, int32_t eventCode,
                                    const char* format, ...) KOR_PRINTF(8, 9);
/// Makes a statement through a record that the caller has from the object map. Its reference must not be the last one:
/// the key stands until it has been given back.
KOR_API void _korLogger_LogByLogger(korLogger* logger, uint8_t component, const char* name, const char* label,
                                    int32_t level, const korEx* logEx, int32_t eventCode, const char* format, ...)
    KOR_PRINTF(8, 9);
/// Makes a statement through a logger id.
KOR_API void _korLogger_LogById(uint64_t loggerId, uint8_t component, const char* name, const char* label,
                                int32_t level, const korEx* logEx, int32_t eventCode, const char* format, ...)
    KOR_PRINTF(8, 9);
/// Makes a statement through a log key. A key without a logger gets none by this.
KOR_API void _korLogger_LogByKey(uint64_t logKey, uint8_t component, const char* name, const char* label, int32_t level,
                                 const korEx* logEx, int32_t eventCode, const char* format, ...) KOR_PRINTF(8, 9);

/// True if the source's own logger would let a statement pass. False for a source without a logger, or whose logger has
/// gone, whatever the global level is.
KOR_API bool _korLogger_IsLoggableEx(const korLogSourceEx* sourceEx, uint8_t component, int32_t level);

// ---- Components and groups ------------------------------------------------------------------------------------------

/// Registers a component and gives its id, 65 to 128; its level is KOR_LOG_INFO everywhere. For a tag that is there
/// already (in any case; 127 characters count) gives that component's id and changes nothing. Tags are at most 128
/// characters long and are copied. There is no way to remove a component. 0 on an error, for NULL, and with an error
/// pending. The logging system must be up.
///
/// Errors: 16 "Invalid tag value: too long"; 16 "Invalid shortTag value: too long", for more than 4 characters;
/// 8 "The number of log components exceeded maximum"; 5 "The logging system is not initialized."; 2.
KOR_API uint8_t _korLogger_RegisterComponent(korEx* ex, uint8_t depth, const char* tag, const char* shortTag);

/// Registers a group of `count` component ids, at most 32, and gives its id, 7 to 64. A group of the same tag is hidden
/// by the new one. A member 0 ends the group. A component of the same tag goes before the group in level lists. 0 on
/// an error, for NULL or no members, and with an error pending. The logging system must be up.
///
/// Errors: 16 "Invalid groupTag value", for more than 128 characters; 16 "Too many components per group"; 8 "The number
/// of log groups exceeded maximum"; 5 "The logging system is not initialized."; 2.
KOR_API uint64_t _korLogger_RegisterLogGroup(korEx* ex, uint8_t depth, const char* groupTag, const uint8_t* components,
                                             uint32_t count);

/// The default level of a component.
KOR_API int32_t _korLogger_GetLogLevel(uint8_t component);
/// Sets the default level of a component.
KOR_API void _korLogger_SetLogLevelWithLevel(uint8_t component, int32_t level);
/// The same for a level of either scale: one that fits a signed 8-bit number is taken as it is, the smallest and the
/// largest 32-bit number are KOR_LOG_ALL and KOR_LOG_OFF, and any other is divided by 10.
KOR_API void _korLogger_SetLogLevel(uint8_t component, int32_t level);
/// Sets the default level of a component to KOR_LOG_INFO.
KOR_API void _korLogger_SetLogLevelToDefault(uint8_t component);

// ---- Levels of loggers, level lists ---------------------------------------------------------------------------------
//
// A level list is a text with ";" between its tokens: "tag:level", where the tag names a component or a group in any
// case, or is "all"; or a bare level, for all components. In the global form a token that holds "precise_time" turns
// microseconds on, one that holds "thread_id" thread ids, for good. A bare level counts only in a level list without
// any ":". An empty token ends the list.

/// The level of a component in the source's logger, if that has been configured; otherwise the default level. 100 if
/// the logger has gone.
KOR_API int32_t _korLogger_GetLoggerLevel(const korLogSourceEx* sourceEx, uint8_t component);
/// Sets the level of a component in the source's logger, and, while that has not been configured, the default level
/// too. Without a logger, the default level alone. Does nothing if the logger has gone.
KOR_API void _korLogger_SetLoggerLogLevelWithLevel(const korLogSourceEx* sourceEx, uint8_t component, int32_t level);

/// Applies a level list to the global logger and remembers it. Unknown tags are passed over. A text that is no level
/// sets its tag to KOR_LOG_INFO (alone it has no effect), the rest is applied, and nothing is remembered. NULL does
/// nothing, nor does a call with an error pending. Errors: 1 "No such log level"; 2.
KOR_API void _korLogger_SetLogLevels(korEx* ex, uint8_t depth, const char* specification);
/// The same, for the first function of a call path.
KOR_API void korLogger_SetLogLevels(korEx* ex, const char* specification);
/// The same for the logger of a key, which is made if needed; key 0 is the global logger. Without ":" the level list
/// is one level.
KOR_API void _korLogger_SetLogLevelsForId(korEx* ex, uint8_t depth, uint64_t logKey, const char* specification);

/// Copies the level list remembered for a key, or else the global one, or else "info", into `buffer` of `size`
/// bytes, cut to fit and terminated, and gives the number of characters copied. With a NULL buffer gives the length. 0
/// with an error pending.
KOR_API uint32_t _korLogger_GetLogLevelsForId(korEx* ex, uint8_t depth, uint64_t logKey, char* buffer, uint32_t size);

/// True if a level list is one level, or a list with ":" whose levels and tags are all known (tokens without ":" are
/// not looked at). False for NULL; true with an error pending. Errors, beside the result false: 1 "No such log level".
KOR_API bool _korLogger_LevelSpecificationsAreValid(korEx* ex, uint8_t depth, const char* specification);

// ---- Handlers -------------------------------------------------------------------------------------------------------
//
// A logger starts with the console, which is the standard error stream. A callback or rolling files can be set once,
// one of the two, even if the setting failed; from then on only _korLogger_SetDefaultLogHandler is left.

/// Makes the console the global logger's handler again.
KOR_API void _korLogger_SetDefaultLogHandler(korEx* ex, uint8_t depth);

/// Hands the statements of the global logger to a callback. Errors: 8 "Once set, a callback or rolling file logger
/// cannot be removed or replaced."; 2.
KOR_API void _korLogger_SetLogCallback(korEx* ex, uint8_t depth, korLogCallback callback, void* closure);
/// The same for the logger of a key, which is made if needed; key 0 is the global logger.
KOR_API void _korLogger_SetLogCallbackForId(korEx* ex, uint8_t depth, uint64_t logKey, korLogCallback callback,
                                            void* closure);

/// Writes the statements of the global logger to the file "prefix.0". A file that has grown beyond `maxSize` bytes
/// before a statement becomes "prefix.1", and so on up to "prefix.(maxFiles - 1)"; the oldest is deleted. With one file
/// it is deleted and begun again. Each roll tries `maxFiles` renames. At most 2147483647 is honoured of `maxSize` here.
///
/// Errors: 8 "Once set, a callback or rolling file logger cannot be removed or replaced."; 6 "Unable to open log file."
/// with errno; 1 "Invalid filenamePrefix."; 1 "Missing filenamePrefix, maxSize or maxFiles."; 2.
KOR_API void _korLogger_SetLogFiles(korEx* ex, uint8_t depth, const char* filenamePrefix, uint64_t maxSize,
                                    uint32_t maxFiles);
/// The same for the logger of a key, which is made if needed; key 0 is the global logger. `maxSize` is taken in full.
KOR_API void _korLogger_SetLogFilesForId(korEx* ex, uint8_t depth, uint64_t logKey, const char* filenamePrefix,
                                         uint64_t maxSize, uint32_t maxFiles);

/// Sets the observer of the global logger; NULL for none. Meant to be set once, at the start.
KOR_API void _korLogger_SetLogCentral(korEx* ex, uint8_t depth, korLogCentral observer);
/// Sets the observer of the per-key loggers; NULL for none. Meant to be set once, at the start.
KOR_API void _korLogger_SetLogCentralEx(korEx* ex, uint8_t depth, korLogCentralEx observer);

// ---- Log sources ----------------------------------------------------------------------------------------------------
//
// Texts are cut to their fields. A NULL source or format makes a call do nothing. None of these locks a source: it
// belongs to one thread at a time, or is left alone once it is filled.

/// Fills a source; `name` is formatted, and empty for an empty format. The label is empty.
KOR_API void _korLogger_InitializeLogSource(korLogSource* source, uint8_t component, const char* format, ...)
    KOR_PRINTF(3, 4);
/// The same with the logger of a key, which is made if needed. With key 0 the source's `loggerId` is left as it is.
KOR_API void _korLogger_InitializeLogSourceEx(korLogSourceEx* sourceEx, uint64_t logKey, uint8_t component,
                                              const char* format, ...) KOR_PRINTF(4, 5);
/// Fills a source with ready texts, NULL for none, and with the logger of a key, made if needed; key 0 for none.
KOR_API void _korLogger_SetLogSource(uint64_t logKey, uint8_t component, const char* name, const char* label,
                                     korLogSourceEx* sourceEx);
/// Copies a source.
KOR_API void _korLogger_SetLogSourceEx(const korLogSourceEx* fromSourceEx, korLogSourceEx* toSourceEx);
/// The same as _korLogger_SetLogSourceEx.
KOR_API void _korLogger_CopySourceEx(const korLogSourceEx* fromSourceEx, korLogSourceEx* toSourceEx);
/// Fills a source with ready texts, NULL for none. Works with an error pending.
KOR_API void _korLogger_CopyLogSourceEx3(uint8_t depth, korEx* ex, uint8_t component, const char* name,
                                         const char* label, korLogSource* source);
/// The same with an empty label.
KOR_API void _korLogger_CopyLogSourceEx(uint8_t depth, korEx* ex, uint8_t component, const char* name,
                                        korLogSource* source);
/// Formats the label. Does nothing for an empty format and with an error pending.
KOR_API void _korLogger_SetSrcLabel(korEx* ex, uint8_t depth, korLogSource* source, const char* format, ...)
    KOR_PRINTF(4, 5);
/// Copies the label. Does nothing with an error pending.
KOR_API void _korLogger_CopySrcLabel(korEx* ex, uint8_t depth, const korLogSource* fromSource, korLogSource* toSource);

// ---- Lifecycle ------------------------------------------------------------------------------------------------------

/// Brings the logging system up, if it is down. Needed only after _korLogger_Uninitialize, and before a registration
/// that is the first call of all. Errors: 2; 6.
KOR_API void _korLogger_Initialize(korEx* ex, uint8_t depth);

/// Ends all loggers, components and groups that were added, and closes all handlers; no other thread may be logging.
/// The system does not come up again by itself: until _korLogger_Initialize statements are lost, and what needs the
/// logger of a key raises 5 "The logging system is not initialized.". Works with an error pending.
KOR_API void _korLogger_Uninitialize(uint8_t depth, korEx* ex);

/// Ends the logger of a key. Statements under way through it come to their end first; later ones of sources that hold
/// its id go to the global logger. Key 0 is ignored. Works with an error pending.
KOR_API void _korLogger_DestroyLoggerByKey(uint8_t depth, korEx* ex, uint64_t logKey);

/// Sends the statements of one logger to another from now on, until the first is destroyed. Does nothing if either is
/// 0.
KOR_API void _korLogger_SetAltLoggerId(uint64_t loggerId, uint64_t altLoggerId);

/// Takes `_gLogger.lock` for writing. Meanwhile no function of this file but the stopped statement may be called by
/// this thread. Works with an error pending.
KOR_API void _korLogger_Lock(uint8_t depth, korEx* ex);
/// Gives it back.
KOR_API void _korLogger_Unlock(uint8_t depth, korEx* ex);

KOR_END_DECLS

#endif
