// logStatement.cpp - the road of a statement: level test, layout into the thread's buffer, handler.
//
// A statement that is stopped by its level takes no lock and touches no memory but the level. One that passes takes the
// read lock for as long as it takes to read which handler is current; layouts of many threads run side by side.

#include "log/logger.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "korutil/korThreadLocal.h"

#include <cstring>

using namespace kor::logging;

namespace {

// The thread's buffer for one logger, or, if memory is short, `spare`, so that the statement survives. NULL if a new
// buffer could not be kept.
char* statementBuffer(int32_t key, char* spare)
{
    auto* buffer = reinterpret_cast<char*>(_korThreadLocal_Get(key));
    if (KOR_LIKELY(buffer != nullptr)) {
        return buffer;
    }
    KOR_EX_LOCAL(local);
    buffer = static_cast<char*>(_kor_calloc(KOR_AT(&local, 0), 1, KOR_LOG_STATEMENT_SIZE));
    if (buffer == nullptr) {
        return spare;
    }
    _korThreadLocal_Set(KOR_AT(&local, 0), key, reinterpret_cast<uint64_t>(buffer));
    if (local.code != 0) {
        _kor_free(KOR_AT_D(0, &local), buffer);
        return nullptr;
    }
    return buffer;
}

bool globalStops(uint8_t component, int32_t level)
{
    return KOR_LIKELY(!korLogger_isLoggable(component, level));
}

// A statement that has passed.
void emitGlobal(uint8_t component, const char* name, const char* label, int32_t level, const korEx* logEx,
                int32_t eventCode, const char* format, va_list arguments) KOR_PRINTF(7, 0);
void emitGlobal(uint8_t component, const char* name, const char* label, int32_t level, const korEx* logEx,
                int32_t eventCode, const char* format, va_list arguments)
{
    KOR_EX_LOCAL(local);
    _korRWLock_ReadLock(KOR_AT_D(0, &local), _gLogger.lock);
    korHandler* handler = _gLogger.currentHandler;
    _korRWLock_UnlockReadLock(KOR_AT_D(0, &local), _gLogger.lock);
    char spare[KOR_LOG_STATEMENT_SIZE];
    char* buffer = handler != nullptr ? statementBuffer(_gLogger.statementBufferKey, spare) : nullptr;
    if (buffer == nullptr) {
        return;
    }
    kor::hostileYield();
    buffer[0] = '\0';
    handler->layout(buffer, KOR_LOG_STATEMENT_SIZE, shortTagOf(component), name, label, level, eventCode, logEx, format,
                    arguments);
    handler->log(handler, buffer);
}

// The same through a record. It tests no level.
void _korLogger_LogVaByLogger(korLogger* logger, uint8_t component, const char* name, const char* label, int32_t level,
                              const korEx* logEx, int32_t eventCode, const char* format, va_list arguments)
    KOR_PRINTF(8, 0);
void _korLogger_LogVaByLogger(korLogger* logger, uint8_t component, const char* name, const char* label, int32_t level,
                              const korEx* logEx, int32_t eventCode, const char* format, va_list arguments)
{
    KOR_EX_LOCAL(local);
    _korRWLock_ReadLock(KOR_AT_D(0, &local), logger->head.lock);
    korHandler* handler = logger->currentHandlerEx;
    void* closure = logger->head.callbackClosure;
    _korRWLock_UnlockReadLock(KOR_AT_D(0, &local), logger->head.lock);
    char spare[KOR_LOG_STATEMENT_SIZE];
    char* buffer = handler != nullptr ? statementBuffer(logger->head.statementBufferKey, spare) : nullptr;
    if (buffer == nullptr) {
        return;
    }
    kor::hostileYield();
    buffer[0] = '\0';
    handler->layoutEx(logger->logKey, buffer, KOR_LOG_STATEMENT_SIZE, shortTagOf(component), name, label, level,
                      eventCode, logEx, format, arguments);
    handler->logEx(handler, buffer, closure);
}

// Through the logger of an id, tested against its levels; without it, through the global logger.
void logVaById(uint64_t loggerId, uint8_t component, const char* name, const char* label, int32_t level,
               const korEx* logEx, int32_t eventCode, const char* format, va_list arguments) KOR_PRINTF(8, 0);
void logVaById(uint64_t loggerId, uint8_t component, const char* name, const char* label, int32_t level,
               const korEx* logEx, int32_t eventCode, const char* format, va_list arguments)
{
    korLogger* logger = obtainLogger(loggerId);
    if (logger == nullptr) {
        _korLogger_LogVa_v3(component, name, label, level, logEx, eventCode, format, arguments);
        return;
    }
    if (levelOf(logger, component) <= level) {
        _korLogger_LogVaByLogger(logger, component, name, label, level, logEx, eventCode, format, arguments);
    }
    KOR_EX_LOCAL(local);
    _korLogger_Release(KOR_AT_D(0, &local), logger);
}

uint64_t speakerFor(uint64_t loggerId)
{
    KOR_EX_LOCAL(local);
    return alternateOf(KOR_AT(&local, 0), loggerId);
}

} // namespace

// ---- The global logger ----------------------------------------------------------------------------------------------

// The levels stand before the system is up, so the test comes first.
void _korLogger_LogVa_v3(uint8_t component, const char* name, const char* label, int32_t level, const korEx* logEx,
                         int32_t eventCode, const char* format, va_list arguments)
{
    if (globalStops(component, level)) {
        return;
    }
    autoInitialize();
    emitGlobal(component, name, label, level, logEx, eventCode, format, arguments);
}

void _korLogger_LogVa_v2(uint8_t component, const char* name, int32_t level, const korEx* logEx, int32_t eventCode,
                         const char* format, va_list arguments)
{
    _korLogger_LogVa_v3(component, name, nullptr, level, logEx, eventCode, format, arguments);
}

void _korLogger_LogVa(uint8_t component, const char* name, int32_t level, const korEx* logEx, const char* format,
                      va_list arguments)
{
    _korLogger_LogVa_v3(component, name, nullptr, level, logEx, 0, format, arguments);
}

void _korLogger_LogExN_v3(uint8_t component, const char* name, const char* label, int32_t level, const korEx* logEx,
                          int32_t eventCode, const char* format, ...)
{
    if (globalStops(component, level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    _korLogger_LogVa_v3(component, name, label, level, logEx, eventCode, format, arguments);
    va_end(arguments);
}

void _korLogger_LogExN_v2(uint8_t component, const char* name, int32_t level, const korEx* logEx, int32_t eventCode,
                          const char* format, ...)
{
    if (globalStops(component, level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    _korLogger_LogVa_v3(component, name, nullptr, level, logEx, eventCode, format, arguments);
    va_end(arguments);
}

void _korLogger_LogExN(uint8_t component, const char* name, int32_t level, const korEx* logEx, const char* format, ...)
{
    if (globalStops(component, level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    _korLogger_LogVa_v3(component, name, nullptr, level, logEx, 0, format, arguments);
    va_end(arguments);
}

// The older scale and no other: a level of the present one is dropped here, where _korLogger_SetLogLevel takes it.
void _korLogger_LogEx(uint8_t component, const char* name, int32_t level, const korEx* logEx, const char* format, ...)
{
    if (fitsPresentScale(level)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    _korLogger_LogVa_v3(component, name, nullptr, level / 10, logEx, 0, format, arguments);
    va_end(arguments);
}

void _korLogger_LogMessage(uint8_t component, const char* name, int32_t level, const korEx* logEx, const char* format,
                           const char* text)
{
    _korLogger_LogMessageEx(component, name, nullptr, level, logEx, format, text);
}

void _korLogger_LogMessageEx(uint8_t component, const char* name, const char* label, int32_t level, const korEx* logEx,
                             const char* format, const char* text)
{
    if (format != nullptr && text != nullptr && std::strcmp(format, "%s") == 0) {
        _korLogger_LogExN_v3(component, name, label, level, logEx, 0, "%s", text);
    }
}

// ---- The loggers of keys --------------------------------------------------------------------------------------------

void _korLogger_LogBySource(const korLogSourceEx* sourceEx, uint8_t component, const char* name, const char* label,
                            int32_t level, const korEx* logEx, int32_t eventCode, const char* format, ...)
{
    autoInitialize();
    uint64_t loggerId = 0;
    if (sourceEx != nullptr) {
        loggerId = speakerFor(sourceEx->loggerId);
        component = component != 0 ? component : sourceEx->source.component;
        name = name != nullptr ? name : sourceEx->source.name;
        label = label != nullptr ? label : sourceEx->source.label;
    }
    va_list arguments;
    va_start(arguments, format);
    logVaById(loggerId, component, name, label, level, logEx, eventCode, format, arguments);
    va_end(arguments);
}

void _korLogger_LogById(uint64_t loggerId, uint8_t component, const char* name, const char* label, int32_t level,
                        const korEx* logEx, int32_t eventCode, const char* format, ...)
{
    autoInitialize();
    va_list arguments;
    va_start(arguments, format);
    logVaById(speakerFor(loggerId), component, name, label, level, logEx, eventCode, format, arguments);
    va_end(arguments);
}

void _korLogger_LogByKey(uint64_t logKey, uint8_t component, const char* name, const char* label, int32_t level,
                         const korEx* logEx, int32_t eventCode, const char* format, ...)
{
    autoInitialize();
    KOR_EX_LOCAL(local);
    uint64_t loggerId = loggerIdOfKey(KOR_AT(&local, 0), logKey);
    va_list arguments;
    va_start(arguments, format);
    logVaById(loggerId, component, name, label, level, logEx, eventCode, format, arguments);
    va_end(arguments);
}

void _korLogger_LogByLogger(korLogger* logger, uint8_t component, const char* name, const char* label, int32_t level,
                            const korEx* logEx, int32_t eventCode, const char* format, ...)
{
    autoInitialize();
    uint64_t loggerId = logger != nullptr ? speakerFor(logger->loggerId) : 0;
    va_list arguments;
    va_start(arguments, format);
    if (logger == nullptr || loggerId != logger->loggerId) {
        logVaById(loggerId, component, name, label, level, logEx, eventCode, format, arguments);
    } else if (levelOf(logger, component) <= level) { // the caller's own reference holds the record
        _korLogger_LogVaByLogger(logger, component, name, label, level, logEx, eventCode, format, arguments);
    }
    va_end(arguments);
}

bool _korLogger_IsLoggableEx(const korLogSourceEx* sourceEx, uint8_t component, int32_t level)
{
    autoInitialize();
    korLogger* logger = sourceEx != nullptr ? obtainLogger(sourceEx->loggerId) : nullptr;
    if (logger == nullptr) {
        return false;
    }
    bool loggable = levelOf(logger, component) <= level;
    KOR_EX_LOCAL(local);
    _korLogger_Release(KOR_AT_D(0, &local), logger);
    return loggable;
}
