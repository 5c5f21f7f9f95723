// handlers.cpp - the kinds of log handlers.
//
// Every `log` flushes, so that nothing waits in a stream's buffer when the process dies. Output errors are not tested:
// a statement that cannot be written is lost, and the next one tries again.

#include "log/handlers.h"
#include "foundation/request.h"

#include "foundation/hostile.h"
#include "korutil/korAlloc.h"
#include "korutil/korLogger.h"
#include "korutil/korText.h"
#include "korutil/korTime.h"
#include "platform/stream.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

namespace kor::logging {

namespace {

constexpr size_t pathSize = 1024;

static_assert(offsetof(ConsoleHandler<PlainForm>, mutex) == 40 && offsetof(ConsoleHandler<KeyedForm>, mutex) == 48);
static_assert(offsetof(CallbackHandler<PlainForm>, callback) == 40);
static_assert(offsetof(RollingFileHandler<PlainForm>, maxSize) == 48);
static_assert(offsetof(RollingFileHandler<KeyedForm>, maxSize) == 56);
static_assert(offsetof(DatedFileHandler, mutex) == 56 && offsetof(DpaHandler, target) == 40);

// Every record begins with the head, whichever its kind.
template <typename Record>
Record* recordOf(korHandler* handler)
{
    return reinterpret_cast<Record*>(handler);
}

void setLog(korHandler* handler, korHandlerLog log)
{
    handler->log = log;
}

void setLog(korHandler* handler, korHandlerLogEx log)
{
    handler->logEx = log;
}

template <typename Record, typename Log>
korHandler* newHandler(korEx* ex, uint8_t depth, korHandlerOpen open, korHandlerClose close, Log log)
{
    if (ex->code != 0) {
        return nullptr;
    }
    auto* handler = granted<korHandler>(KOR_AT(ex, depth), _kor_calloc(KOR_AT(ex, depth), 1, sizeof(Record)));
    if (handler != nullptr) {
        handler->open = open;
        handler->close = close;
        setLog(handler, log);
    }
    return handler;
}

// The record frees itself with its mutex; what else it owns has gone before.
void freeHandler(korEx* ex, uint8_t depth, korHandler* handler, korMutex** mutex)
{
    _korMutex_Destroy(KOR_AT_D(depth, ex), *mutex);
    *mutex = nullptr;
    _kor_free(KOR_AT_D(depth, ex), handler);
}

uint64_t property(korEx* ex, uint8_t depth, korStrHash* properties, const char* name)
{
    return properties == nullptr ? 0 : _korStrHash_Get(KOR_AT(ex, depth), properties, name);
}

const char* textProperty(korEx* ex, uint8_t depth, korStrHash* properties, const char* name)
{
    return reinterpret_cast<const char*>(property(KOR_AT(ex, depth), properties, name));
}

// A copy of at most `maximum` characters.
char* copyText(korEx* ex, uint8_t depth, const char* text, size_t maximum)
{
    if (ex->code != 0) {
        return nullptr;
    }
    size_t length = _kor_strnlen(text, maximum);
    auto* copy = request<char>(KOR_AT(ex, depth), length + 1);
    if (copy != nullptr) {
        std::memcpy(copy, text, length);
        copy[length] = '\0';
    }
    return copy;
}

void freeText(korEx* ex, uint8_t depth, char** text)
{
    _kor_free(KOR_AT_D(depth, ex), *text);
    *text = nullptr;
}

void writeStatement(FILE* stream, const char* statement)
{
    std::fputs(statement, stream);
    std::fflush(stream);
}

void closeStream(FILE** stream)
{
    if (*stream != nullptr) {
        std::fflush(*stream);
        std::fclose(*stream);
        *stream = nullptr;
    }
}

// ---- Console --------------------------------------------------------------------------------------------------------

template <typename Form>
bool openConsole(korEx* ex, uint8_t depth, korHandler* handler)
{
    auto* console = recordOf<ConsoleHandler<Form>>(handler);
    console->stream = stderr;
    console->mutex = _korMutex_Create(KOR_AT(ex, depth));
    return console->mutex != nullptr;
}

template <typename Form>
void logToConsole(korHandler* handler, const char* statement)
{
    auto* console = recordOf<ConsoleHandler<Form>>(handler);
    if (console->mutex == nullptr) { // never opened
        return;
    }
    korMutex_enter(console->mutex);
    hostileYield();
    writeStatement(console->stream, statement);
    korMutex_leave(console->mutex);
}

template <typename Form>
void closeConsole(korEx* ex, uint8_t depth, korHandler* handler)
{
    auto* console = recordOf<ConsoleHandler<Form>>(handler);
    if (console->stream != nullptr) {
        std::fflush(console->stream);
    }
    freeHandler(KOR_AT(ex, depth), handler, &console->mutex);
}

bool _korConsoleHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash*)
{
    return openConsole<PlainForm>(KOR_AT(ex, depth), handler);
}

bool _korConsoleHandler_OpenEx(korEx* ex, uint8_t depth, korHandler* handler, korStrHash*)
{
    return openConsole<KeyedForm>(KOR_AT(ex, depth), handler);
}

void _korConsoleHandler_Log(korHandler* handler, const char* statement)
{
    logToConsole<PlainForm>(handler, statement);
}

void _korConsoleHandler_LogEx(korHandler* handler, const char* statement, void*)
{
    if (handler != nullptr) {
        logToConsole<KeyedForm>(handler, statement);
    }
}

void _korConsoleHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    _korConsoleHandler_ClosePrivate(KOR_AT(ex, depth), handler);
}

void _korConsoleHandler_CloseEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    _korConsoleHandler_ClosePrivateEx(KOR_AT(ex, depth), handler);
}

} // namespace

korHandler* _korConsoleHandler_Create(korEx* ex, uint8_t depth)
{
    return newHandler<ConsoleHandler<PlainForm>>(KOR_AT(ex, depth), _korConsoleHandler_Open, _korConsoleHandler_Close,
                                                 _korConsoleHandler_Log);
}

korHandler* _korConsoleHandler_CreateEx(korEx* ex, uint8_t depth)
{
    return newHandler<ConsoleHandler<KeyedForm>>(KOR_AT(ex, depth), _korConsoleHandler_OpenEx,
                                                 _korConsoleHandler_CloseEx, _korConsoleHandler_LogEx);
}

void _korConsoleHandler_ClosePrivate(korEx* ex, uint8_t depth, korHandler* handler)
{
    if (ex->code == 0) {
        closeConsole<PlainForm>(KOR_AT(ex, depth), handler);
    }
}

void _korConsoleHandler_ClosePrivateEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    closeConsole<KeyedForm>(KOR_AT(ex, depth), handler);
}

// ---- Callback -------------------------------------------------------------------------------------------------------

namespace {

template <typename Form>
bool openCallback(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    auto* callback = recordOf<CallbackHandler<Form>>(handler);
    callback->callback = reinterpret_cast<korLogCallback>(property(KOR_AT(ex, depth), properties, "logCallback"));
    return callback->callback != nullptr;
}

// The mutex is held during the call: a callback sees one statement at a time.
template <typename Form>
void logToCallback(korHandler* handler, const char* statement, void* closure)
{
    auto* callback = recordOf<CallbackHandler<Form>>(handler);
    korMutex_enter(callback->mutex);
    hostileYield();
    if (callback->callback != nullptr) {
        korDateTime now;
        _kor_GetCurrentLocalTime(&now);
        callback->callback(now, statement, closure);
    }
    korMutex_leave(callback->mutex);
}

template <typename Form>
void closeCallback(korEx* ex, uint8_t depth, korHandler* handler)
{
    auto* callback = recordOf<CallbackHandler<Form>>(handler);
    callback->callback = nullptr;
    freeHandler(KOR_AT(ex, depth), handler, &callback->mutex);
}

template <typename Form, typename Log>
korHandler* createCallback(korEx* ex, uint8_t depth, korHandlerOpen open, korHandlerClose close, Log log)
{
    korHandler* handler = newHandler<CallbackHandler<Form>>(KOR_AT(ex, depth), open, close, log);
    if (handler == nullptr) {
        return nullptr;
    }
    korMutex* mutex = _korMutex_Create(KOR_AT(ex, depth));
    if (mutex == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), handler);
        return nullptr;
    }
    recordOf<CallbackHandler<Form>>(handler)->mutex = mutex;
    return handler;
}

bool _korCallbackHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    return openCallback<PlainForm>(KOR_AT(ex, depth), handler, properties);
}

bool _korCallbackHandler_OpenEx(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    return openCallback<KeyedForm>(KOR_AT(ex, depth), handler, properties);
}

// The closure was stored before the handler became the current one, under the lock through which it was found.
void _korCallbackHandler_Log(korHandler* handler, const char* statement)
{
    logToCallback<PlainForm>(handler, statement, _gLogger.callbackClosure);
}

void _korCallbackHandler_LogEx(korHandler* handler, const char* statement, void* closure)
{
    logToCallback<KeyedForm>(handler, statement, closure);
}

void _korCallbackHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    _korCallbackHandler_ClosePrivate(KOR_AT(ex, depth), handler);
}

void _korCallbackHandler_CloseEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    _korCallbackHandler_ClosePrivateEx(KOR_AT(ex, depth), handler);
}

} // namespace

korHandler* _korCallbackHandler_Create(korEx* ex, uint8_t depth)
{
    return createCallback<PlainForm>(KOR_AT(ex, depth), _korCallbackHandler_Open, _korCallbackHandler_Close,
                                     _korCallbackHandler_Log);
}

korHandler* _korCallbackHandler_CreateEx(korEx* ex, uint8_t depth)
{
    return createCallback<KeyedForm>(KOR_AT(ex, depth), _korCallbackHandler_OpenEx, _korCallbackHandler_CloseEx,
                                     _korCallbackHandler_LogEx);
}

void _korCallbackHandler_ClosePrivate(korEx* ex, uint8_t depth, korHandler* handler)
{
    closeCallback<PlainForm>(KOR_AT(ex, depth), handler);
}

void _korCallbackHandler_ClosePrivateEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    closeCallback<KeyedForm>(KOR_AT(ex, depth), handler);
}

// ---- Rolling file ---------------------------------------------------------------------------------------------------

namespace {

struct FileName {
    char text[pathSize];
};

// A long prefix is cut with its number, and all names of the series are then one.
FileName seriesName(const char* prefix, int64_t number)
{
    FileName name;
    _kor_snprintf(name.text, sizeof(name.text), "%s.%lld", prefix, static_cast<long long>(number));
    return name;
}

void deleteIfThere(const FileName& name)
{
    if (platform::fileExists(name.text)) {
        platform::deleteFile(name.text);
    }
}

// Makes room for a new file 0. Gaps in the series are passed over: what is not there is not moved.
void shiftSeries(const char* prefix, int32_t maxFiles)
{
    if (maxFiles == 1) {
        deleteIfThere(seriesName(prefix, 0));
        return;
    }
    deleteIfThere(seriesName(prefix, int64_t{maxFiles} - 1));
    for (int64_t number = int64_t{maxFiles} - 2; number >= 0; number--) {
        platform::renameFile(seriesName(prefix, number).text, seriesName(prefix, number + 1).text);
    }
}

template <typename Form>
bool openFileZero(RollingFileHandler<Form>* rolling)
{
    rolling->stream = platform::openStream(seriesName(rolling->filenamePrefix, 0).text, "a");
    return rolling->stream != nullptr;
}

// True if there is a file to write to. It is judged by its position before the write, so a file exceeds the limit by up
// to one statement. A position that cannot be told is a very large one.
template <typename Form>
bool rollIfNeeded(RollingFileHandler<Form>* rolling)
{
    if (rolling->stream == nullptr && !openFileZero(rolling)) {
        return false;
    }
    auto position = static_cast<uint64_t>(int64_t{platform::streamPosition(rolling->stream)});
    if (position <= rolling->maxSize) {
        return true;
    }
    std::fclose(rolling->stream);
    rolling->stream = nullptr;
    shiftSeries(rolling->filenamePrefix, rolling->maxFiles);
    return openFileZero(rolling);
}

// Reads a decimal number of 32 bits; beyond them, the nearest there is.
int32_t parse32(const char* text)
{
    long long value = std::strtoll(text, nullptr, 10);
    using Limits = std::numeric_limits<int32_t>;
    return static_cast<int32_t>(value > Limits::max() ? Limits::max() : value < Limits::min() ? Limits::min() : value);
}

// A plain handler reads a number of 32 bits, so 3000000000 stays out of its reach; a per-key one reads 64.
template <typename Form>
uint64_t parseMaxSize(const char* text)
{
    if constexpr (std::is_same_v<Form, PlainForm>) {
        return static_cast<uint64_t>(int64_t{parse32(text)});
    } else {
        return static_cast<uint64_t>(std::strtoll(text, nullptr, 10));
    }
}

template <typename Form>
bool openRollingFile(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    const char* prefix = textProperty(KOR_AT(ex, depth), properties, "filenamePrefix");
    const char* maxSize = textProperty(KOR_AT(ex, depth), properties, "maxSize");
    const char* maxFiles = textProperty(KOR_AT(ex, depth), properties, "maxFiles");
    if (prefix == nullptr || maxSize == nullptr || maxFiles == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Missing filenamePrefix, maxSize or maxFiles.");
        return false;
    }
    if (prefix[0] == '\0') {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Invalid filenamePrefix.");
        return false;
    }
    auto* rolling = recordOf<RollingFileHandler<Form>>(handler);
    rolling->mutex = _korMutex_Create(KOR_AT(ex, depth));
    rolling->filenamePrefix = copyText(KOR_AT(ex, depth), prefix, pathSize);
    if (ex->code != 0) {
        return false;
    }
    rolling->maxSize = parseMaxSize<Form>(maxSize);
    rolling->maxFiles = parse32(maxFiles);
    return rollIfNeeded(rolling);
}

template <typename Form>
void logToRollingFile(korHandler* handler, const char* statement)
{
    auto* rolling = recordOf<RollingFileHandler<Form>>(handler);
    if (rolling->filenamePrefix == nullptr) { // never opened
        return;
    }
    korMutex_enter(rolling->mutex);
    hostileYield();
    if (rollIfNeeded(rolling)) {
        writeStatement(rolling->stream, statement);
    }
    korMutex_leave(rolling->mutex);
}

template <typename Form>
void closeRollingFile(korEx* ex, uint8_t depth, korHandler* handler)
{
    auto* rolling = recordOf<RollingFileHandler<Form>>(handler);
    closeStream(&rolling->stream);
    freeText(KOR_AT(ex, depth), &rolling->filenamePrefix);
    freeHandler(KOR_AT(ex, depth), handler, &rolling->mutex);
}

bool _korRollingFileHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    return openRollingFile<PlainForm>(KOR_AT(ex, depth), handler, properties);
}

bool _korRollingFileHandler_OpenEx(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    return openRollingFile<KeyedForm>(KOR_AT(ex, depth), handler, properties);
}

void _korRollingFileHandler_Log(korHandler* handler, const char* statement)
{
    logToRollingFile<PlainForm>(handler, statement);
}

void _korRollingFileHandler_LogEx(korHandler* handler, const char* statement, void*)
{
    if (handler != nullptr) {
        logToRollingFile<KeyedForm>(handler, statement);
    }
}

void _korRollingFileHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    _korRollingFileHandler_ClosePrivate(KOR_AT(ex, depth), handler);
}

void _korRollingFileHandler_CloseEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    _korRollingFileHandler_ClosePrivateEx(KOR_AT(ex, depth), handler);
}

} // namespace

korHandler* _korRollingFileHandler_Create(korEx* ex, uint8_t depth)
{
    return newHandler<RollingFileHandler<PlainForm>>(KOR_AT(ex, depth), _korRollingFileHandler_Open,
                                                     _korRollingFileHandler_Close, _korRollingFileHandler_Log);
}

korHandler* _korRollingFileHandler_CreateEx(korEx* ex, uint8_t depth)
{
    return newHandler<RollingFileHandler<KeyedForm>>(KOR_AT(ex, depth), _korRollingFileHandler_OpenEx,
                                                     _korRollingFileHandler_CloseEx, _korRollingFileHandler_LogEx);
}

void _korRollingFileHandler_ClosePrivate(korEx* ex, uint8_t depth, korHandler* handler)
{
    closeRollingFile<PlainForm>(KOR_AT(ex, depth), handler);
}

void _korRollingFileHandler_ClosePrivateEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    closeRollingFile<KeyedForm>(KOR_AT(ex, depth), handler);
}

// ---- File -----------------------------------------------------------------------------------------------------------

namespace {

bool _korFileHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    auto* file = recordOf<FileHandler>(handler);
    file->mutex = _korMutex_Create(KOR_AT(ex, depth));
    const char* name = textProperty(KOR_AT(ex, depth), properties, "filename");
    const char* mode = textProperty(KOR_AT(ex, depth), properties, "mode");
    if (ex->code != 0 || name == nullptr) {
        _korMutex_Destroy(KOR_AT_D(depth, ex), file->mutex);
        file->mutex = nullptr;
        return false;
    }
    file->stream = platform::openStream(name, mode != nullptr ? mode : "a");
    return file->stream != nullptr;
}

void _korFileHandler_Log(korHandler* handler, const char* statement)
{
    auto* file = recordOf<FileHandler>(handler);
    if (file->stream == nullptr) {
        return;
    }
    korMutex_enter(file->mutex);
    writeStatement(file->stream, statement);
    korMutex_leave(file->mutex);
}

} // namespace

korHandler* _korFileHandler_Create(korEx* ex, uint8_t depth)
{
    return newHandler<FileHandler>(KOR_AT(ex, depth), _korFileHandler_Open, _korFileHandler_Close, _korFileHandler_Log);
}

void _korFileHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    auto* file = recordOf<FileHandler>(handler);
    closeStream(&file->stream);
    freeHandler(KOR_AT(ex, depth), handler, &file->mutex);
}

// ---- Dated file -----------------------------------------------------------------------------------------------------

namespace {

// The date goes into the name at an opening only: a file that is open keeps its name past midnight.
bool openDatedFile(DatedFileHandler* dated)
{
    char date[pathSize];
    _kor_GetCurrentLocalDateTimeStr(date, sizeof(date), nullptr, 0);
    if (dated->stream != nullptr) {
        return true;
    }
    char path[pathSize];
    _kor_snprintf(path, sizeof(path), "%s%s%s", dated->prefix, date, dated->postfix);
    dated->stream = platform::openStream(path, "a");
    return dated->stream != nullptr;
}

void dropDatedTexts(korEx* ex, uint8_t depth, DatedFileHandler* dated)
{
    freeText(KOR_AT(ex, depth), &dated->prefix);
    freeText(KOR_AT(ex, depth), &dated->postfix);
}

bool _korDatedFileHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    constexpr size_t longestPostfix = 16;
    auto* dated = recordOf<DatedFileHandler>(handler);
    const char* prefix = textProperty(KOR_AT(ex, depth), properties, "prefix");
    const char* postfix = textProperty(KOR_AT(ex, depth), properties, "postfix");
    if (ex->code != 0 || prefix == nullptr || prefix[0] == '\0') {
        return false;
    }
    dated->mutex = _korMutex_Create(KOR_AT(ex, depth));
    dated->prefix = copyText(KOR_AT(ex, depth), prefix, pathSize);
    dated->postfix = copyText(KOR_AT(ex, depth), postfix != nullptr ? postfix : "", longestPostfix);
    if (ex->code != 0) {
        dropDatedTexts(KOR_AT(ex, depth), dated);
        _korMutex_Destroy(KOR_AT_D(depth, ex), dated->mutex);
        dated->mutex = nullptr;
        return false;
    }
    return openDatedFile(dated);
}

void _korDatedFileHandler_Log(korHandler* handler, const char* statement)
{
    auto* dated = recordOf<DatedFileHandler>(handler);
    if (dated->mutex == nullptr) { // never opened
        return;
    }
    korMutex_enter(dated->mutex);
    if (openDatedFile(dated)) {
        writeStatement(dated->stream, statement);
    }
    korMutex_leave(dated->mutex);
}

} // namespace

korHandler* _korDatedFileHandler_Create(korEx* ex, uint8_t depth)
{
    return newHandler<DatedFileHandler>(KOR_AT(ex, depth), _korDatedFileHandler_Open, _korDatedFileHandler_Close,
                                        _korDatedFileHandler_Log);
}

void _korDatedFileHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    auto* dated = recordOf<DatedFileHandler>(handler);
    closeStream(&dated->stream);
    dropDatedTexts(KOR_AT(ex, depth), dated);
    freeHandler(KOR_AT(ex, depth), handler, &dated->mutex);
}

bool _korDatedFileHandler_OpenFile(korHandler* handler)
{
    auto* dated = recordOf<DatedFileHandler>(handler);
    if (dated->mutex == nullptr) { // never opened
        return false;
    }
    korMutex_enter(dated->mutex);
    bool isOpen = openDatedFile(dated);
    korMutex_leave(dated->mutex);
    return isOpen;
}

// ---- Dpa ------------------------------------------------------------------------------------------------------------

namespace {

bool _korDpaHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    auto* array = recordOf<DpaHandler>(handler);
    array->target = reinterpret_cast<korDpa*>(property(KOR_AT(ex, depth), properties, "target"));
    return array->target != nullptr;
}

void appendCopy(korEx* ex, uint8_t depth, korDpa* target, const char* statement)
{
    char* copy = requestCopy(KOR_AT(ex, depth), statement);
    if (copy == nullptr) {
        return;
    }
    _korDpa_AddSafe(KOR_AT(ex, depth), target, reinterpret_cast<uint64_t>(copy));
    if (ex->code != 0) {
        _kor_free(KOR_AT_D(depth, ex), copy);
    }
}

void _korDpaHandler_Log(korHandler* handler, const char* statement)
{
    auto* array = recordOf<DpaHandler>(handler);
    KOR_EX_LOCAL(local);
    korMutex_enter(array->mutex);
    if (array->target != nullptr) {
        appendCopy(KOR_AT(&local, 0), array->target, statement);
    }
    korMutex_leave(array->mutex);
}

} // namespace

korHandler* _korDpaHandler_Create(korEx* ex, uint8_t depth)
{
    korHandler* handler =
        newHandler<DpaHandler>(KOR_AT(ex, depth), _korDpaHandler_Open, _korDpaHandler_Close, _korDpaHandler_Log);
    if (handler == nullptr) {
        return nullptr;
    }
    auto* array = recordOf<DpaHandler>(handler);
    array->mutex = _korMutex_Create(KOR_AT(ex, depth));
    if (array->mutex == nullptr) {
        _korDpaHandler_Close(KOR_AT(ex, depth), handler);
        return nullptr;
    }
    return handler;
}

void _korDpaHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    freeHandler(KOR_AT(ex, depth), handler, &recordOf<DpaHandler>(handler)->mutex);
}

// ---- Null -----------------------------------------------------------------------------------------------------------

namespace {

bool _korNullHandler_Open(korEx* ex, uint8_t, korHandler*, korStrHash*)
{
    return ex->code == 0;
}

void _korNullHandler_Log(korHandler*, const char*) {}

} // namespace

korHandler* _korNullHandler_Create(korEx* ex, uint8_t depth)
{
    return newHandler<korHandler>(KOR_AT(ex, depth), _korNullHandler_Open, _korNullHandler_Close, _korNullHandler_Log);
}

void _korNullHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    _kor_free(KOR_AT_D(depth, ex), handler);
}

} // namespace kor::logging
