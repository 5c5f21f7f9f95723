// handlerChoice.cpp - which handler a logger uses, and the observers beside it.
//
// A callback or rolling files are set once. A set that failed counts as set: its handler stays in its field and refuses
// the next attempt.

#include "log/handlers.h"
#include "log/layouts.h"
#include "log/logger.h"

#include "korutil/korText.h"

#include <cerrno>

using namespace kor::logging;

namespace {

// The fields of a logger that a choice is about. The global logger and a record of a key differ in where they are, and
// in the form of their handlers.
struct Fields {
    korHandler** callbackHandler;
    korHandler** rollingFileHandler;
    korHandler** currentHandler;
    void** closure;
    uint64_t logKey; // 0 = the global logger
};

Fields fieldsOf(korLogger* logger)
{
    if (logger == nullptr) {
        return {&_gLogger.callbackHandler, &_gLogger.rollingFileHandler, &_gLogger.currentHandler,
                &_gLogger.callbackClosure, 0};
    }
    return {&logger->callbackHandlerEx, &logger->rollingFileHandlerEx, &logger->currentHandlerEx,
            &logger->head.callbackClosure, logger->logKey};
}

korRWLock* lockOf(korLogger* logger)
{
    return logger == nullptr ? _gLogger.lock : logger->head.lock;
}

struct Kind {
    korHandler* (*create)(korEx* ex, uint8_t depth);
    korHandler* (*createEx)(korEx* ex, uint8_t depth);
    korHandlerLayout layout;
    korHandlerLayoutEx layoutEx;
};

constexpr Kind callbackKind = {_korCallbackHandler_Create, _korCallbackHandler_CreateEx, __callbackLayout,
                               __callbackLayoutEx};
constexpr Kind rollingFileKind = {_korRollingFileHandler_Create, _korRollingFileHandler_CreateEx, __verboseLayout,
                                  __verboseLayoutEx};

bool mayChoose(korEx* ex, uint8_t depth, const Fields& fields)
{
    if (*fields.callbackHandler != nullptr || *fields.rollingFileHandler != nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_PERMITTED,
                  "Once set, a callback or rolling file logger cannot be removed or replaced.");
    }
    return ex->code == 0;
}

korHandler* createHandler(korEx* ex, uint8_t depth, const Kind& kind, uint64_t logKey)
{
    korHandler* handler = logKey == 0 ? kind.create(KOR_AT(ex, depth)) : kind.createEx(KOR_AT(ex, depth));
    if (handler != nullptr && logKey == 0) {
        handler->layout = kind.layout;
    } else if (handler != nullptr) {
        handler->layoutEx = kind.layoutEx;
        reinterpret_cast<KeyedForm*>(handler)->logKey = logKey;
    }
    return handler;
}

bool openHandler(korEx* ex, uint8_t depth, korHandler* handler, uint64_t logKey, korStrHash* properties)
{
    return logKey == 0 ? _korHandler_Open(KOR_AT(ex, depth), handler, properties)
                       : _korHandler_OpenEx(KOR_AT(ex, depth), handler, properties);
}

void setProperty(korEx* ex, uint8_t depth, korStrHash* properties, const char* name, uint64_t value)
{
    if (ex->code == 0) {
        _korStrHash_Set(KOR_AT(ex, depth), properties, name, 0, value);
    }
}

// ---- Callback and rolling files, under the logger's lock ------------------------------------------------------------

void openWithCallback(korEx* ex, uint8_t depth, korHandler* handler, uint64_t logKey, korLogCallback callback)
{
    korStrHash* properties = _korStrHash_Create(KOR_AT(ex, depth), 1);
    setProperty(KOR_AT(ex, depth), properties, "logCallback", reinterpret_cast<uint64_t>(callback));
    openHandler(KOR_AT(ex, depth), handler, logKey, properties);
    _korStrHash_Destroy(KOR_AT_D(depth, ex), properties);
}

void chooseCallback(korEx* ex, uint8_t depth, const Fields& fields, korLogCallback callback, void* closure)
{
    if (!mayChoose(KOR_AT(ex, depth), fields)) {
        return;
    }
    korHandler* handler = createHandler(KOR_AT(ex, depth), callbackKind, fields.logKey);
    if (handler == nullptr) {
        return;
    }
    *fields.callbackHandler = handler;
    *fields.closure = closure;
    openWithCallback(KOR_AT(ex, depth), handler, fields.logKey, callback);
    if (ex->code == 0) {
        *fields.currentHandler = handler;
    }
}

struct Files {
    const char* filenamePrefix;
    uint64_t maxSize;
    uint32_t maxFiles;
};

void openWithFiles(korEx* ex, uint8_t depth, korHandler* handler, uint64_t logKey, const Files& files)
{
    char maxSize[64];
    char maxFiles[64];
    _kor_snprintf(maxSize, sizeof(maxSize), "%llu", static_cast<unsigned long long>(files.maxSize));
    _kor_snprintf(maxFiles, sizeof(maxFiles), "%u", files.maxFiles);
    korStrHash* properties = _korStrHash_Create(KOR_AT(ex, depth), 3);
    setProperty(KOR_AT(ex, depth), properties, "filenamePrefix", reinterpret_cast<uint64_t>(files.filenamePrefix));
    setProperty(KOR_AT(ex, depth), properties, "maxSize", reinterpret_cast<uint64_t>(maxSize));
    setProperty(KOR_AT(ex, depth), properties, "maxFiles", reinterpret_cast<uint64_t>(maxFiles));
    if (!openHandler(KOR_AT(ex, depth), handler, logKey, properties) && ex->code == 0) {
        ex->osError = errno;
        KOR_RAISE(ex, depth, KOR_ERROR_OS, "Unable to open log file.");
    }
    _korStrHash_Destroy(KOR_AT_D(depth, ex), properties);
}

void chooseFiles(korEx* ex, uint8_t depth, const Fields& fields, const Files& files)
{
    if (!mayChoose(KOR_AT(ex, depth), fields)) {
        return;
    }
    korHandler* handler = createHandler(KOR_AT(ex, depth), rollingFileKind, fields.logKey);
    if (handler == nullptr) {
        return;
    }
    *fields.rollingFileHandler = handler;
    openWithFiles(KOR_AT(ex, depth), handler, fields.logKey, files);
    if (ex->code == 0) {
        *fields.currentHandler = handler;
    }
}

// A record is configured by a choice that succeeded; its reference goes back in any case.
void finishChoice(korEx* ex, uint8_t depth, korLogger* logger)
{
    if (ex->code == 0) {
        __setLoggerSetInit(KOR_AT(ex, depth), logger);
    }
    _korLogger_Release(KOR_AT_D(depth, ex), logger);
}

void setCallback(korEx* ex, uint8_t depth, korLogger* logger, korLogCallback callback, void* closure)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), lockOf(logger));
    chooseCallback(KOR_AT(ex, depth), fieldsOf(logger), callback, closure);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), lockOf(logger));
}

void setFiles(korEx* ex, uint8_t depth, korLogger* logger, const Files& files)
{
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), lockOf(logger));
    chooseFiles(KOR_AT(ex, depth), fieldsOf(logger), files);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), lockOf(logger));
}

} // namespace

void _korLogger_SetDefaultLogHandler(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return;
    }
    autoInitialize();
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    _gLogger.currentHandler = _gLogger.defaultHandler;
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}

void _korLogger_SetLogCallback(korEx* ex, uint8_t depth, korLogCallback callback, void* closure)
{
    if (ex->code == 0) {
        autoInitialize();
        setCallback(KOR_AT(ex, depth), nullptr, callback, closure);
    }
}

void _korLogger_SetLogFiles(korEx* ex, uint8_t depth, const char* filenamePrefix, uint64_t maxSize, uint32_t maxFiles)
{
    if (ex->code == 0) {
        autoInitialize();
        setFiles(KOR_AT(ex, depth), nullptr, {filenamePrefix, maxSize, maxFiles});
    }
}

void _korLogger_SetLogCallbackForId(korEx* ex, uint8_t depth, uint64_t logKey, korLogCallback callback, void* closure)
{
    if (logKey == 0) {
        _korLogger_SetLogCallback(KOR_AT(ex, depth), callback, closure);
        return;
    }
    autoInitialize();
    korLogger* logger = obtainByKey(KOR_AT(ex, depth), logKey);
    if (logger != nullptr) {
        setCallback(KOR_AT(ex, depth), logger, callback, closure);
        finishChoice(KOR_AT(ex, depth), logger);
    }
}

void _korLogger_SetLogFilesForId(korEx* ex, uint8_t depth, uint64_t logKey, const char* filenamePrefix,
                                 uint64_t maxSize, uint32_t maxFiles)
{
    if (logKey == 0) {
        _korLogger_SetLogFiles(KOR_AT(ex, depth), filenamePrefix, maxSize, maxFiles);
        return;
    }
    autoInitialize();
    korLogger* logger = obtainByKey(KOR_AT(ex, depth), logKey);
    if (logger != nullptr) {
        setFiles(KOR_AT(ex, depth), logger, {filenamePrefix, maxSize, maxFiles});
        finishChoice(KOR_AT(ex, depth), logger);
    }
}

void _korLogger_SetLogCentral(korEx* ex, uint8_t depth, korLogCentral observer)
{
    if (ex->code != 0) {
        return;
    }
    autoInitialize();
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    KOR_ATOMIC_STORE(&gCentral, observer);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}

void _korLogger_SetLogCentralEx(korEx* ex, uint8_t depth, korLogCentralEx observer)
{
    if (ex->code != 0) {
        return;
    }
    autoInitialize();
    _korRWLock_WriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
    KOR_ATOMIC_STORE(&gCentralEx, observer);
    _korRWLock_UnlockWriteLock(KOR_AT_D(depth, ex), _gLogger.lock);
}
