// layouts.cpp - the layouts of the logger's own handlers, and the observers' look at what they wrote.

#include "log/layouts.h"

#include "log/logger.h"
#include "log/text.h"
#include "log/timeStamp.h"

#include "korutil/korThread.h"

namespace kor::logging {

namespace {

void appendTags(Text& text, const char* shortTag, int32_t level)
{
    appendFour(text, _korLogLevel_LevelShortString(level));
    append(text, " ");
    appendFour(text, shortTag);
    append(text, ": ");
}

Text start(char* buffer, uint32_t size)
{
    buffer[0] = '\0';
    return {buffer, size};
}

Text startVerbose(char* buffer, uint32_t size, const char* shortTag, int32_t level)
{
    Text text = start(buffer, size);
    korTime now;
    _kor_GetCurrentTime(&now);
    appendTime(text, now, KOR_ATOMIC_LOAD_RELAXED(&gPreciseTime) != 0);
    if (KOR_ATOMIC_LOAD_RELAXED(&gThreadId) != 0) {
        appendf(text, " tid 0x%llX", static_cast<unsigned long long>(_korThread_CurrentSystemThreadID()));
    }
    append(text, " ");
    appendTags(text, shortTag, level);
    return text;
}

Text startCallback(char* buffer, uint32_t size, const char* shortTag, int32_t level)
{
    Text text = start(buffer, size);
    appendTags(text, shortTag, level);
    return text;
}

// What an observer sees: the message proper, and the text of the exception behind it.
struct Body {
    const char* message;
    uint32_t messageLength;
    const char* exceptionText;
};

enum class Newline { always, beforeException };

Body appendBody(Text& text, Newline newline, const char* name, const char* label, const korEx* logEx,
                const char* format, va_list arguments) KOR_PRINTF(6, 0);
Body appendBody(Text& text, Newline newline, const char* name, const char* label, const korEx* logEx,
                const char* format, va_list arguments)
{
    if (label != nullptr && label[0] != '\0') {
        append(text, label);
        append(text, " ");
    }
    if (name != nullptr && name[0] != '\0') {
        append(text, "[");
        append(text, name);
        append(text, "] ");
    }
    Body body = {text.end, 0, nullptr};
    appendFormatted(text, format, arguments);
    body.messageLength = static_cast<uint32_t>(text.end - body.message);
    if (newline == Newline::always || logEx != nullptr) {
        append(text, "\n");
    }
    if (logEx != nullptr) {
        body.exceptionText = text.end;
        _korEx_PrintException(logEx, &text.end, static_cast<int32_t>(text.room), 0);
    }
    return body;
}

void observe(const Body& body, const char* shortTag, const char* name, int32_t level, int32_t eventCode)
{
    korLogCentral observer = KOR_ATOMIC_LOAD_ACQUIRE(&gCentral);
    if (observer != nullptr) {
        observer(body.message, body.messageLength, shortTag, name, level, eventCode, body.exceptionText);
    }
}

void observeEx(uint64_t logKey, const Body& body, const char* shortTag, const char* name, int32_t level,
               int32_t eventCode)
{
    korLogCentralEx observer = KOR_ATOMIC_LOAD_ACQUIRE(&gCentralEx);
    if (observer != nullptr) {
        observer(logKey, body.message, body.messageLength, shortTag, name, level, eventCode, body.exceptionText);
    }
}

} // namespace

void __verboseLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label,
                     int32_t level, int32_t eventCode, const korEx* logEx, const char* format, va_list arguments)
{
    Text text = startVerbose(buffer, size, shortTag, level);
    Body body = appendBody(text, Newline::always, name, label, logEx, format, arguments);
    observe(body, shortTag, name, level, eventCode);
}

void __verboseLayoutEx(uint64_t logKey, char* buffer, uint32_t size, const char* shortTag, const char* name,
                       const char* label, int32_t level, int32_t eventCode, const korEx* logEx, const char* format,
                       va_list arguments)
{
    Text text = startVerbose(buffer, size, shortTag, level);
    Body body = appendBody(text, Newline::always, name, label, logEx, format, arguments);
    observeEx(logKey, body, shortTag, name, level, eventCode);
}

void __callbackLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label,
                      int32_t level, int32_t eventCode, const korEx* logEx, const char* format, va_list arguments)
{
    Text text = startCallback(buffer, size, shortTag, level);
    Body body = appendBody(text, Newline::beforeException, name, label, logEx, format, arguments);
    observe(body, shortTag, name, level, eventCode);
}

void __callbackLayoutEx(uint64_t logKey, char* buffer, uint32_t size, const char* shortTag, const char* name,
                        const char* label, int32_t level, int32_t eventCode, const korEx* logEx, const char* format,
                        va_list arguments)
{
    Text text = startCallback(buffer, size, shortTag, level);
    Body body = appendBody(text, Newline::beforeException, name, label, logEx, format, arguments);
    observeEx(logKey, body, shortTag, name, level, eventCode);
}

} // namespace kor::logging
