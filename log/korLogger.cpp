// korLogger.cpp - start and end of the logging system, the loggers of log keys, and their levels.
//
// A per-key logger lives in the object map. Its owner's reference stands from its making until its key is destroyed;
// everyone else holds one for the length of a call. The last reference to go takes the record with it.

#include "foundation/request.h"
#include "log/handlers.h"
#include "log/layouts.h"
#include "log/logger.h"

#include "foundation/hostile.h"
#include "foundation/unload.h"
#include "korutil/korAlloc.h"
#include "korutil/korObjectMap.h"
#include "korutil/korThread.h"
#include "korutil/korThreadLocal.h"

using namespace kor::logging;

static_assert(offsetof(korLoggerHead, statementBufferKey) == 72 && sizeof(korLoggerHead) == 104);
static_assert(offsetof(korLogger, loggerId) == 104 && offsetof(korLogger, levels) == 168);
static_assert(sizeof(korLogSource) == 512 && offsetof(korLogSourceEx, source) == 8 && sizeof(korLogSourceEx) == 520);

korLoggerHead _gLogger = {};
uint8_t gLoggingMsgTracingSet = 0;
uint8_t gLoggingMsgFullTracingSet = 0;
korI64Hash gLoggerInitMap = {};
uint64_t gLoggerInitMapInUse = 0;

namespace kor::logging {

korI64Hash gLoggersByKey = {};
korI64Hash gAlternates = {};
uint64_t gAlternatesInUse = 0;
uint8_t gPreciseTime = 0;
uint8_t gThreadId = 0;
korLogCentral gCentral = nullptr;
korLogCentralEx gCentralEx = nullptr;

namespace {

int64_t asKey(uint64_t number)
{
    return static_cast<int64_t>(number);
}

// The counts beside the tables save readers the lock while a table is empty. Called under the write lock.
void refreshCounts()
{
    KOR_ATOMIC_STORE(&gLoggerInitMapInUse, uint64_t{gLoggerInitMap.entryCount});
    KOR_ATOMIC_STORE(&gAlternatesInUse, uint64_t{gAlternates.entryCount});
}

void __destroyStatementBuffer(uint64_t value)
{
    KOR_EX_LOCAL(local);
    _kor_free(KOR_AT_D(0, &local), reinterpret_cast<void*>(value));
}

// ---- Start and end --------------------------------------------------------------------------------------------------

korThreadOnce gOnce = {};
uint8_t gOnceHasRun = 0; // atomic: spares the statement path the once-control

void uninitializeAtUnload()
{
    KOR_EX_LOCAL(local);
    _korLogger_Uninitialize(KOR_AT_D(0, &local));
}

UnloadStep endsLogging = {uninitializeAtUnload, nullptr};

// The object map goes at the unloading, too, and must still be there when the loggers of keys leave it.
void _korLogger_AutoInitialize()
{
    KOR_EX_LOCAL(local);
    _korObjectMap_Open(KOR_AT(&local, 0));
    atUnload(endsLogging);
    _korLogger_Initialize(KOR_AT(&local, 0));
    KOR_ATOMIC_STORE_RELEASE(&gOnceHasRun, uint8_t{1});
}

void initTables(korEx* ex, uint8_t depth)
{
    _korI64Hash_Init(KOR_AT(ex, depth), &gLoggersByKey, 1);
    _korI64Hash_Init(KOR_AT(ex, depth), &gAlternates, 1);
    _korI64Hash_Init(KOR_AT(ex, depth), &gLoggerInitMap, 1);
    refreshCounts();
}

void initConsole(korEx* ex, uint8_t depth)
{
    korHandler* console = _korConsoleHandler_Create(KOR_AT(ex, depth));
    if (console != nullptr) {
        console->layout = __verboseLayout;
        _korHandler_Open(KOR_AT(ex, depth), console, nullptr);
    }
    _gLogger.consoleHandler = console;
    _gLogger.defaultHandler = console;
    _gLogger.currentHandler = console;
}

void closeGlobalHandlers(korEx* ex, uint8_t depth)
{
    if (_gLogger.rollingFileHandler != nullptr) {
        _korRollingFileHandler_ClosePrivate(KOR_AT(ex, depth), _gLogger.rollingFileHandler);
        _gLogger.rollingFileHandler = nullptr;
    }
    if (_gLogger.consoleHandler != nullptr) {
        _korConsoleHandler_ClosePrivate(KOR_AT(ex, depth), _gLogger.consoleHandler);
        _gLogger.consoleHandler = nullptr;
    }
    if (_gLogger.callbackHandler != nullptr) {
        _korCallbackHandler_ClosePrivate(KOR_AT(ex, depth), _gLogger.callbackHandler);
        _gLogger.callbackHandler = nullptr;
    }
    _gLogger.defaultHandler = nullptr;
    _gLogger.currentHandler = nullptr;
}

void dropLevelSpec(korEx* ex, uint8_t depth, korLoggerHead* head)
{
    _kor_free(KOR_AT_D(depth, ex), head->levelSpec);
    head->levelSpec = nullptr;
}

void dropStatementBuffers(korEx* ex, uint8_t depth, korLoggerHead* head)
{
    if (head->statementBufferKey != 0) {
        _korThreadLocal_Destroy(KOR_AT_D(depth, ex), head->statementBufferKey);
        head->statementBufferKey = 0;
    }
}

// Makes the id stale and gives the owner's reference back.
void _korLogger_UninitOneLogger(korEx* ex, uint8_t depth, uint64_t loggerId)
{
    auto* logger = static_cast<korLogger*>(_korObjectMap_Unregister(KOR_AT(ex, depth), loggerId));
    if (logger != nullptr && ex->code == 0) {
        _korLogger_Release(KOR_AT_D(depth, ex), logger);
    }
}

void endAllLoggers(korEx* ex, uint8_t depth)
{
    while (gLoggersByKey.entryCount != 0) {
        KOR_EX_PRIVATE(own, ex, depth);
        korI64HashIterator walk;
        int64_t logKey = 0;
        uint64_t loggerId = 0;
        _korI64Hash_IteratorInit(KOR_AT(&own, depth), &gLoggersByKey, &walk);
        _korI64Hash_Next(KOR_AT(&own, depth), &walk, &logKey, &loggerId);
        _korI64Hash_Remove(KOR_AT_D(depth, &own), &gLoggersByKey, logKey);
        _korLogger_UninitOneLogger(KOR_AT(&own, depth), loggerId);
    }
}

void clearTables(korEx* ex, uint8_t depth)
{
    _korI64Hash_Clear(KOR_AT_D(depth, ex), &gLoggersByKey);
    _korI64Hash_Clear(KOR_AT_D(depth, ex), &gAlternates);
    _korI64Hash_Clear(KOR_AT_D(depth, ex), &gLoggerInitMap);
    refreshCounts();
}

} // namespace

void autoInitialize()
{
    if (KOR_LIKELY(KOR_ATOMIC_LOAD_ACQUIRE(&gOnceHasRun) != 0)) {
        return;
    }
    KOR_EX_LOCAL(local);
    _korThread_Once(KOR_AT(&local, 0), &gOnce, _korLogger_AutoInitialize);
}

} // namespace kor::logging

void _korLogger_Initialize(korEx* ex, uint8_t depth)
{
    if (ex->code != 0 || _gLogger.lock != nullptr) { // up already
        return;
    }
    _korLogger_Uninitialize(KOR_AT_D(depth, ex)); // what was set while the system was down
    _gLogger.lock = _korRWLock_Create(KOR_AT_D(depth, ex));
    initTables(KOR_AT(ex, depth));
    __initStaticComponents(KOR_AT(ex, depth));
    _initStaticGroups(KOR_AT(ex, depth));
    initConsole(KOR_AT(ex, depth));
    if (ex->code == 0) {
        _gLogger.statementBufferKey = _korThreadLocal_Create(KOR_AT(ex, depth), __destroyStatementBuffer);
    }
    KOR_ATOMIC_STORE(&gCentral, nullptr);
    KOR_ATOMIC_STORE(&gCentralEx, nullptr);
    if (ex->code != 0) {
        _korLogger_Uninitialize(KOR_AT_D(depth, ex));
    }
}

// On an object of its own: what is to be closed is closed whatever is pending.
void _korLogger_Uninitialize(uint8_t depth, korEx* ex)
{
    KOR_EX_CHAINED(own, ex, depth);
    dropLevelSpec(KOR_AT(&own, depth), &_gLogger);
    dropStatementBuffers(KOR_AT(&own, depth), &_gLogger);
    closeGlobalHandlers(KOR_AT(&own, depth));
    dropGroups(KOR_AT(&own, depth));
    dropComponents(KOR_AT(&own, depth));
    KOR_ATOMIC_STORE(&gCentral, nullptr);
    KOR_ATOMIC_STORE(&gCentralEx, nullptr);
    endAllLoggers(KOR_AT(&own, depth));
    clearTables(KOR_AT(&own, depth));
    _korRWLock_Destroy(KOR_AT_D(depth, &own), _gLogger.lock);
    _gLogger.lock = nullptr;
}

void _korLogger_Lock(uint8_t depth, korEx* ex)
{
    autoInitialize();
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}

void _korLogger_Unlock(uint8_t depth, korEx* ex)
{
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}

// ---- Loggers of keys ------------------------------------------------------------------------------------------------

namespace kor::logging {

korLogger* obtainLogger(uint64_t loggerId)
{
    if (loggerId == 0) {
        return nullptr;
    }
    KOR_EX_LOCAL(local);
    return static_cast<korLogger*>(_korObjectMap_Get(KOR_AT(&local, 0), loggerId));
}

uint64_t alternateOf(korEx* ex, uint8_t depth, uint64_t loggerId)
{
    if (loggerId == 0 || KOR_LIKELY(KOR_ATOMIC_LOAD(&gAlternatesInUse) == 0)) {
        return loggerId;
    }
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t alternate = _korI64Hash_Get(KOR_AT(ex, depth), &gAlternates, asKey(loggerId));
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return alternate != 0 ? alternate : loggerId;
}

namespace {

uint64_t ownIdOfKey(korEx* ex, uint8_t depth, uint64_t logKey)
{
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t loggerId = _korI64Hash_Get(KOR_AT(ex, depth), &gLoggersByKey, asKey(logKey));
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return loggerId;
}

void createStatementBufferKey(korLogger* logger)
{
    KOR_EX_LOCAL(local);
    logger->head.statementBufferKey = _korThreadLocal_Create(KOR_AT(&local, 0), __destroyStatementBuffer);
}

void initConsoleEx(korEx* ex, uint8_t depth, korLogger* logger)
{
    korHandler* console = _korConsoleHandler_CreateEx(KOR_AT(ex, depth));
    if (console != nullptr) {
        console->layoutEx = __verboseLayoutEx;
        reinterpret_cast<KeyedForm*>(console)->logKey = logger->logKey;
        _korHandler_OpenEx(KOR_AT(ex, depth), console, nullptr);
    }
    logger->consoleHandlerEx = console;
    logger->defaultHandlerEx = console;
    logger->currentHandlerEx = console;
}

// A new logger is at its default level whatever the global levels are; the slots of no component stay 0.
void _korLogger_InitOneLogger(korEx* ex, uint8_t depth, korLogger* logger, uint64_t loggerId, uint64_t logKey)
{
    logger->loggerId = loggerId;
    logger->logKey = logKey;
    logger->head.lock = _korRWLock_Create(KOR_AT_D(depth, ex));
    createStatementBufferKey(logger);
    initConsoleEx(KOR_AT(ex, depth), logger);
    logger->head.componentCount = _gLogger.componentCount;
    logger->head.groupCount = _gLogger.groupCount;
    for (const Component& row : gComponents) {
        if (row.id != 0) {
            __setLoggerLogLevel(KOR_AT(ex, depth), logger, row.id, defaultLevel);
        }
    }
}

// With the write lock held. After a failure the id, if there is one, is still to be ended: without the lock, which the
// end of a record takes.
uint64_t createLogger(korEx* ex, uint8_t depth, uint64_t logKey)
{
    auto* logger = requestZeroed<korLogger>(KOR_AT(ex, depth));
    if (logger == nullptr) {
        return 0;
    }
    uint64_t loggerId = _korObjectMap_Register(KOR_AT(ex, depth), logger);
    if (loggerId == 0) {
        _kor_free(KOR_AT_D(depth, ex), logger);
        return 0;
    }
    _korLogger_InitOneLogger(KOR_AT(ex, depth), logger, loggerId, logKey);
    _korI64Hash_Set(KOR_AT(ex, depth), &gLoggersByKey, asKey(logKey), loggerId);
    return loggerId;
}

uint64_t findOrCreateLogger(korEx* ex, uint8_t depth, uint64_t logKey)
{
    if (!isUp(KOR_AT(ex, depth))) { // nobody would ever end the logger
        return 0;
    }
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t loggerId = _korI64Hash_Get(KOR_AT(ex, depth), &gLoggersByKey, asKey(logKey)); // someone may have won
    if (loggerId == 0 && ex->code == 0) {
        loggerId = createLogger(KOR_AT(ex, depth), logKey);
    }
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    if (ex->code != 0 && loggerId != 0) {
        KOR_EX_PRIVATE(own, ex, depth);
        _korLogger_UninitOneLogger(KOR_AT(&own, depth), loggerId);
        return 0;
    }
    return loggerId;
}

// The entries of a record that goes, unless its key belongs to a younger record by now.
void forgetRecord(korEx* ex, uint8_t depth, const korLogger* logger)
{
    KOR_EX_PRIVATE(own, ex, depth);
    int64_t logKey = asKey(logger->logKey);
    _korRWLock_WriteLock(KOR_AT_D(depth, &own), _gLogger.lock);
    korI64Hash* const tables[] = {&gLoggerInitMap, &gLoggersByKey};
    for (korI64Hash* table : tables) {
        if (_korI64Hash_Get(KOR_AT(&own, depth), table, logKey) == logger->loggerId) {
            _korI64Hash_Remove(KOR_AT_D(depth, &own), table, logKey);
        }
    }
    refreshCounts();
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, &own), _gLogger.lock);
}

void closeHandlersEx(korEx* ex, uint8_t depth, korLogger* logger)
{
    if (logger->rollingFileHandlerEx != nullptr) {
        _korRollingFileHandler_ClosePrivateEx(KOR_AT(ex, depth), logger->rollingFileHandlerEx);
        logger->rollingFileHandlerEx = nullptr;
    }
    if (logger->consoleHandlerEx != nullptr) {
        _korConsoleHandler_ClosePrivateEx(KOR_AT(ex, depth), logger->consoleHandlerEx);
        logger->consoleHandlerEx = nullptr;
    }
    if (logger->callbackHandlerEx != nullptr) {
        _korCallbackHandler_ClosePrivateEx(KOR_AT(ex, depth), logger->callbackHandlerEx);
        logger->callbackHandlerEx = nullptr;
    }
    logger->defaultHandlerEx = nullptr;
    logger->currentHandlerEx = nullptr;
}

void destroyRecord(korEx* ex, uint8_t depth, korLogger* logger)
{
    dropLevelSpec(KOR_AT(ex, depth), &logger->head);
    dropStatementBuffers(KOR_AT(ex, depth), &logger->head);
    closeHandlersEx(KOR_AT(ex, depth), logger);
    forgetRecord(KOR_AT(ex, depth), logger);
    _korRWLock_Destroy(KOR_AT_D(depth, ex), logger->head.lock);
    _kor_free(KOR_AT_D(depth, ex), logger);
}

} // namespace

uint64_t loggerIdOfKey(korEx* ex, uint8_t depth, uint64_t logKey)
{
    return alternateOf(KOR_AT(ex, depth), ownIdOfKey(KOR_AT(ex, depth), logKey));
}

uint64_t _korLogger_GetOrCreateLoggerIdByLogKey(korEx* ex, uint8_t depth, uint64_t logKey)
{
    uint64_t loggerId = ownIdOfKey(KOR_AT(ex, depth), logKey);
    if (loggerId == 0) {
        hostileYield();
        loggerId = findOrCreateLogger(KOR_AT(ex, depth), logKey);
    }
    return alternateOf(KOR_AT(ex, depth), loggerId);
}

korLogger* obtainByKey(korEx* ex, uint8_t depth, uint64_t logKey)
{
    uint64_t loggerId = _korLogger_GetOrCreateLoggerIdByLogKey(KOR_AT(ex, depth), logKey);
    return ex->code == 0 && loggerId != 0 ? static_cast<korLogger*>(_korObjectMap_Get(KOR_AT(ex, depth), loggerId))
                                          : nullptr;
}

void _korLogger_Release(uint8_t depth, korEx* ex, korLogger* logger)
{
    if (_korObjectMap_Release(KOR_AT_D(depth, ex), logger->loggerId)) {
        KOR_EX_CHAINED(own, ex, depth);
        destroyRecord(KOR_AT(&own, depth), logger);
    }
}

void __setLoggerSetInit(korEx* ex, uint8_t depth, korLogger* logger)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    _korI64Hash_Set(KOR_AT(ex, depth), &gLoggerInitMap, asKey(logger->logKey), logger->loggerId);
    refreshCounts();
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}

namespace {

uint64_t _korLogger_RemoveLoggerIdByLogKey(korEx* ex, uint8_t depth, uint64_t logKey)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t loggerId = _korI64Hash_Remove(KOR_AT_D(depth, ex), &gLoggersByKey, asKey(logKey));
    _korI64Hash_Remove(KOR_AT_D(depth, ex), &gLoggerInitMap, asKey(logKey));
    if (loggerId != 0) {
        _korI64Hash_Remove(KOR_AT_D(depth, ex), &gAlternates, asKey(loggerId));
    }
    refreshCounts();
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return loggerId;
}

} // namespace
} // namespace kor::logging

void _korLogger_DestroyLoggerByKey(uint8_t depth, korEx* ex, uint64_t logKey)
{
    if (logKey == 0) {
        return;
    }
    uint64_t loggerId = _korLogger_RemoveLoggerIdByLogKey(KOR_AT(ex, depth), logKey);
    if (loggerId != 0) {
        KOR_EX_PRIVATE(own, ex, depth);
        _korLogger_UninitOneLogger(KOR_AT(&own, depth), loggerId);
    }
}

void _korLogger_SetAltLoggerId(uint64_t loggerId, uint64_t altLoggerId)
{
    if (loggerId == 0 || altLoggerId == 0) {
        return;
    }
    autoInitialize();
    KOR_EX_LOCAL(local);
    _korRWLock_WriteLock(KOR_AT_D(0, &local), _gLogger.lock);
    _korI64Hash_Set(KOR_AT(&local, 0), &gAlternates, asKey(loggerId), altLoggerId);
    refreshCounts();
    _korRWLock_UnlockWriteLock(KOR_AT_D(0, &local), _gLogger.lock);
}

// ---- Levels of loggers ----------------------------------------------------------------------------------------------

namespace {

// The global levels speak for a logger that has not been configured.
bool isConfigured(korEx* ex, uint8_t depth, const korLogger* logger, uint64_t loggerId)
{
    _korRWLock_ReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    uint64_t configured = _korI64Hash_Get(KOR_AT(ex, depth), &gLoggerInitMap, asKey(logger->logKey));
    _korRWLock_UnlockReadLock(KOR_AT_D(depth, ex), _gLogger.lock);
    return configured == loggerId;
}

void tellLevelOfSource(const korLogSourceEx* sourceEx, uint8_t component, int32_t level, uint64_t logKey)
{
    static constexpr char format[] = "Set log level of component '%s' to level '%s' for logKey 0x%llx.";
    const char* text = _korLogLevel_LevelToString(level);
    auto key = static_cast<unsigned long long>(logKey);
    if (KOR_ATOMIC_LOAD(&gLoggerInitMapInUse) != 0) {
        _korLogger_LogBySource(sourceEx, loggerComponent, nullptr, nullptr, KOR_LOG_DEBUG, nullptr, 0, format,
                               tagOf(component), text, key);
    } else {
        _korLogger_LogExN_v3(loggerComponent, sourceEx->source.name, sourceEx->source.label, KOR_LOG_DEBUG, nullptr, 0,
                             format, tagOf(component), text, key);
    }
}

} // namespace

int32_t _korLogger_GetLoggerLevel(const korLogSourceEx* sourceEx, uint8_t component)
{
    if (sourceEx == nullptr || sourceEx->loggerId == 0) {
        return _korLogger_GetLogLevel(component);
    }
    autoInitialize();
    korLogger* logger = obtainLogger(sourceEx->loggerId);
    if (logger == nullptr) {
        return defaultLevel;
    }
    KOR_EX_LOCAL(local);
    bool own = isConfigured(KOR_AT(&local, 0), logger, sourceEx->loggerId);
    int32_t level = own ? levelOf(logger, component) : _korLogger_GetLogLevel(component);
    _korLogger_Release(KOR_AT_D(0, &local), logger);
    return level;
}

void _korLogger_SetLoggerLogLevelWithLevel(const korLogSourceEx* sourceEx, uint8_t component, int32_t level)
{
    if (sourceEx == nullptr || sourceEx->loggerId == 0) {
        _korLogger_SetLogLevelWithLevel(component, level);
        return;
    }
    autoInitialize();
    korLogger* logger = obtainLogger(sourceEx->loggerId);
    if (logger == nullptr) {
        return;
    }
    KOR_EX_LOCAL(local);
    __setLoggerLogLevel(KOR_AT(&local, 0), logger, component, level);
    if (!isConfigured(KOR_AT(&local, 0), logger, sourceEx->loggerId)) {
        __setLogLevel(KOR_AT(&local, 0), component, level);
    }
    tellLevelOfSource(sourceEx, component, level, logger->logKey);
    _korLogger_Release(KOR_AT_D(0, &local), logger);
}
