// exceptionLayouts.cpp - the layouts that show an exception in a block of their own form.

#include "log/layouts.h"

#include "log/text.h"

#include "korutil/korLogLevel.h"
#include "korutil/korTime.h"

namespace kor::logging {

namespace {

void appendSystemError(Text& text, int32_t osError)
{
    char description[KOR_DESCRIPTION_SIZE];
    appendf(text, "  OS Error Code: %d", osError);
    if (_korEx_OsErrorString(description, sizeof(description), osError) == 0) {
        appendf(text, " %s", description);
    }
    append(text, "\n");
}

void appendFrames(Text& text, const korEx* logEx)
{
    append(text, "  Stack Trace:\n");
    for (uint8_t depth = logEx->baseDepth; depth < logEx->frameCount; depth++) {
        appendf(text, "    %s, %d\n", logEx->frames[depth].function, logEx->frames[depth].line);
    }
}

void appendException(Text& text, const korEx* logEx)
{
    appendf(text, "  Error Code: %s\n", _korEx_GetSummaryString(logEx));
    if (logEx->osError != 0) {
        appendSystemError(text, logEx->osError);
    }
    if (logEx->code != 0) {
        appendf(text, "  Description: %s\n", logEx->description != nullptr ? logEx->description : "NULL");
        appendFrames(text, logEx);
    }
}

} // namespace

void __exceptionLayout(char* buffer, uint32_t size, const korEx* logEx)
{
    uint32_t length = _kor_bufnlen(buffer, size);
    Text text = {buffer + length, size - length};
    appendException(text, logEx);
}

void __bareLayout(char* buffer, uint32_t size, const char*, const char*, const char*, int32_t, int32_t,
                  const korEx* logEx, const char* format, va_list arguments)
{
    Text text = {buffer, size};
    append(text, "- ");
    appendFormatted(text, format, arguments);
    append(text, "\n");
    if (logEx != nullptr) {
        __exceptionLayout(buffer, size, logEx);
    }
}

void __datedLayout(char* buffer, uint32_t size, const char* shortTag, const char*, const char*, int32_t level, int32_t,
                   const korEx* logEx, const char* format, va_list arguments)
{
    char now[KOR_LOCAL_TIME_SIZE];
    _kor_GetCurrentLocalTimeStr(now, sizeof(now));
    Text text = {buffer, size};
    appendf(text, "%s - %s", now, _korLogLevel_LevelToString(level));
    if (shortTag != nullptr) {
        appendf(text, " [%s]", shortTag);
    }
    append(text, ": ");
    appendFormatted(text, format, arguments);
    append(text, "\n");
    if (logEx != nullptr) {
        __exceptionLayout(buffer, size, logEx);
    }
}

void __tagLayout(char* buffer, uint32_t size, const char* shortTag, const char*, const char*, int32_t level, int32_t,
                 const korEx* logEx, const char* format, va_list arguments)
{
    Text text = {buffer, size};
    appendf(text, "%s [%s]: ", _korLogLevel_LevelToString(level), shortTag != nullptr ? shortTag : "(null)");
    appendFormatted(text, format, arguments);
    if (logEx != nullptr) {
        append(text, "\n");
        __exceptionLayout(buffer, size, logEx);
    }
}

} // namespace kor::logging
