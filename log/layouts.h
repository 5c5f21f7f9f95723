// layouts.h - how the text of a statement is built.
//
// A layout writes into the buffer it is given and never beyond it; what does not fit is cut, and what would come later
// is lost.

#pragma once

#include "korutil/korHandler.h"

namespace kor::logging {

/// With time stamp, for the console and rolling files: "<time> <level> <component>: <label> [<name>] <message>\n", then
/// the exception. Shows the statement to the central observer.
void __verboseLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label,
                     int32_t level, int32_t eventCode, const korEx* logEx, const char* format, va_list arguments)
    KOR_PRINTF(9, 0);
/// The same for a per-key logger and its observer.
void __verboseLayoutEx(uint64_t logKey, char* buffer, uint32_t size, const char* shortTag, const char* name,
                       const char* label, int32_t level, int32_t eventCode, const korEx* logEx, const char* format,
                       va_list arguments) KOR_PRINTF(10, 0);

/// Without time stamp, for callbacks, which get the time as an argument; with a newline only in front of an exception.
/// Shows the statement to the central observer.
void __callbackLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label,
                      int32_t level, int32_t eventCode, const korEx* logEx, const char* format, va_list arguments)
    KOR_PRINTF(9, 0);
/// The same for a per-key logger and its observer.
void __callbackLayoutEx(uint64_t logKey, char* buffer, uint32_t size, const char* shortTag, const char* name,
                        const char* label, int32_t level, int32_t eventCode, const korEx* logEx, const char* format,
                        va_list arguments) KOR_PRINTF(10, 0);

// The layouts below are for handlers that want another form; no handler of the library does. They show neither name
// nor label, and call no observer.

/// "- <message>\n", then the exception block.
void __bareLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label, int32_t level,
                  int32_t eventCode, const korEx* logEx, const char* format, va_list arguments) KOR_PRINTF(9, 0);
/// "<time> - <level> [<component>]: <message>\n", then the exception block.
void __datedLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label,
                   int32_t level, int32_t eventCode, const korEx* logEx, const char* format, va_list arguments)
    KOR_PRINTF(9, 0);
/// "<level> [<component>]: <message>", and, with an exception, a newline and its block.
void __tagLayout(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label, int32_t level,
                 int32_t eventCode, const korEx* logEx, const char* format, va_list arguments) KOR_PRINTF(9, 0);
/// Appends the block of an exception to the text that stands in the buffer: code, system's number, description, frames.
void __exceptionLayout(char* buffer, uint32_t size, const korEx* logEx);

} // namespace kor::logging
