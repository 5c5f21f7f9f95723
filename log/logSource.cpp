// logSource.cpp - filling and copying the small records that statements come from.

#include "log/logger.h"

#include "korutil/korText.h"

using namespace kor::logging;

namespace {

void fillSource(korLogSource* source, uint8_t component, const char* format, va_list arguments) KOR_PRINTF(3, 0);
void fillSource(korLogSource* source, uint8_t component, const char* format, va_list arguments)
{
    source->component = component;
    source->name[0] = '\0';
    source->label[0] = '\0';
    if (format[0] != '\0') {
        _kor_vsnprintf(source->name, sizeof(source->name), format, arguments);
    }
}

void copySource(korLogSource* source, uint8_t component, const char* name, const char* label)
{
    source->component = component;
    _kor_snprintf(source->name, sizeof(source->name), "%s", name != nullptr ? name : "");
    _kor_snprintf(source->label, sizeof(source->label), "%s", label != nullptr ? label : "");
}

uint64_t loggerIdFor(uint64_t logKey)
{
    KOR_EX_LOCAL(local);
    return _korLogger_GetOrCreateLoggerIdByLogKey(KOR_AT(&local, 0), logKey);
}

} // namespace

void _korLogger_InitializeLogSource(korLogSource* source, uint8_t component, const char* format, ...)
{
    autoInitialize();
    if (source == nullptr || format == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    fillSource(source, component, format, arguments);
    va_end(arguments);
}

void _korLogger_InitializeLogSourceEx(korLogSourceEx* sourceEx, uint64_t logKey, uint8_t component, const char* format,
                                      ...)
{
    autoInitialize();
    if (sourceEx == nullptr || format == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    fillSource(&sourceEx->source, component, format, arguments);
    va_end(arguments);
    if (logKey != 0) {
        sourceEx->loggerId = loggerIdFor(logKey);
    }
}

void _korLogger_SetLogSource(uint64_t logKey, uint8_t component, const char* name, const char* label,
                             korLogSourceEx* sourceEx)
{
    autoInitialize();
    if (sourceEx != nullptr) {
        copySource(&sourceEx->source, component, name, label);
        sourceEx->loggerId = logKey != 0 ? loggerIdFor(logKey) : 0;
    }
}

void _korLogger_SetLogSourceEx(const korLogSourceEx* fromSourceEx, korLogSourceEx* toSourceEx)
{
    if (fromSourceEx != nullptr && toSourceEx != nullptr) {
        *toSourceEx = *fromSourceEx;
    }
}

void _korLogger_CopySourceEx(const korLogSourceEx* fromSourceEx, korLogSourceEx* toSourceEx)
{
    _korLogger_SetLogSourceEx(fromSourceEx, toSourceEx);
}

void _korLogger_CopyLogSourceEx3(uint8_t, korEx*, uint8_t component, const char* name, const char* label,
                                 korLogSource* source)
{
    if (source != nullptr) {
        copySource(source, component, name, label);
    }
}

void _korLogger_CopyLogSourceEx(uint8_t depth, korEx* ex, uint8_t component, const char* name, korLogSource* source)
{
    _korLogger_CopyLogSourceEx3(KOR_AT_D(depth, ex), component, name, nullptr, source);
}

void _korLogger_SetSrcLabel(korEx* ex, uint8_t, korLogSource* source, const char* format, ...)
{
    if (ex->code != 0 || source == nullptr || format == nullptr || format[0] == '\0') {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    _kor_vsnprintf(source->label, sizeof(source->label), format, arguments);
    va_end(arguments);
}

void _korLogger_CopySrcLabel(korEx* ex, uint8_t, const korLogSource* fromSource, korLogSource* toSource)
{
    if (ex->code == 0 && fromSource != nullptr && toSource != nullptr) {
        _kor_snprintf(toSource->label, sizeof(toSource->label), "%s", fromSource->label);
    }
}
