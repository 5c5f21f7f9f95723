// korHandler.h - the head of every log handler: where a finished statement goes.
//
// A handler is a record with four operations at its head. The logger makes handlers for the console, a callback and
// rolling files (see korLogger.h); a program may write its own and set it as `currentHandler` of `_gLogger`, under
// _korLogger_Lock. There are two forms: a plain handler serves the global logger, an Ex handler a per-key one, whose
// `layout` gets the log key first and whose `log` gets the closure last.
//
// Threads. A logger calls `layout` and `log` from any number of threads at once; a handler serialises its own `log`.
// The layout writes into a buffer of the calling thread.

#ifndef KORUTIL_KORHANDLER_H
#define KORUTIL_KORHANDLER_H

#include "korutil/korEx.h"
#include "korutil/korStrHash.h"
#include "korutil/korTime.h"

#include <stdarg.h>

KOR_BEGIN_DECLS

typedef struct korHandler korHandler;

/// Opens a handler. `properties` holds texts or pointers by name and may go away afterwards; NULL for a kind without
/// properties. False if the handler did not open.
typedef bool (*korHandlerOpen)(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties);
/// Closes and frees a handler.
typedef void (*korHandlerClose)(korEx* ex, uint8_t depth, korHandler* handler);

/// Takes a finished statement, which is valid for the call only.
typedef void (*korHandlerLog)(korHandler* handler, const char* statement);
/// The same in an Ex handler, with the logger's closure.
typedef void (*korHandlerLogEx)(korHandler* handler, const char* statement, void* closure);

/// Writes a statement into `buffer` of `size` bytes, cut to fit and terminated. `shortTag`, `name`, `label` and `logEx`
/// may be NULL; `logEx` is printed behind the message.
typedef void (*korHandlerLayout)(char* buffer, uint32_t size, const char* shortTag, const char* name, const char* label,
                                 int32_t level, int32_t eventCode, const korEx* logEx, const char* format,
                                 va_list arguments);
/// The same in an Ex handler, with the log key.
typedef void (*korHandlerLayoutEx)(uint64_t logKey, char* buffer, uint32_t size, const char* shortTag, const char* name,
                                   const char* label, int32_t level, int32_t eventCode, const korEx* logEx,
                                   const char* format, va_list arguments);

/// The head of a handler; what a kind needs follows it. The handler fills the first three, its logger the layout.
struct korHandler {
    korHandlerOpen open;
    korHandlerClose close;
    union {
        korHandlerLog log;     ///< of a plain handler
        korHandlerLogEx logEx; ///< of an Ex handler
    };
    union {
        korHandlerLayout layout;     ///< of a plain handler
        korHandlerLayoutEx layoutEx; ///< of an Ex handler
    };
};

/// A program's own receiver of statements. `time` is the moment of the call; `statement` is valid for the call only and
/// has no newline at its end unless it shows an exception; `closure` is what was given with the callback. Called with
/// the handler's mutex held, which its own thread may take again: a callback may log, but must not wait for another
/// thread that logs.
typedef void (*korLogCallback)(korDateTime time, const char* statement, void* closure);

/// Calls the handler's `open` and gives its result; false, without a call, with an error pending.
KOR_API bool _korHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties);
/// Calls the handler's `close`; does nothing with an error pending.
KOR_API void _korHandler_Close(korEx* ex, uint8_t depth, korHandler* handler);
/// _korHandler_Open for an Ex handler.
KOR_API bool _korHandler_OpenEx(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties);
/// _korHandler_Close for an Ex handler.
KOR_API void _korHandler_CloseEx(korEx* ex, uint8_t depth, korHandler* handler);

KOR_END_DECLS

#endif
