// korSignal.h - the runtime's signal handlers, with failures raised.

#ifndef KORUTIL_KORSIGNAL_H
#define KORUTIL_KORSIGNAL_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// A signal's handler, as the C library has it: a function, or its markers for "default" and "ignore".
typedef void (*korSignalHandler)(int32_t signalNumber);

/// Sets the handler of a signal; `*old`, unless it is NULL, becomes the one before. What a handler may do, and whether
/// it has to be set again after a signal, is the platform's matter. Errors: 6 "Failed to set signal handler.", with the
/// system's number.
KOR_API void _korSignal_SetHandler(korEx* ex, uint8_t depth, int32_t signalNumber, korSignalHandler handler,
                                   korSignalHandler* old);

/// Sets the handler that _korSignal_SetHandler has saved. Errors: 6 "Failed to restore signal handler.", with the
/// system's number.
KOR_API void _korSignal_RestoreHandler(korEx* ex, uint8_t depth, int32_t signalNumber, const korSignalHandler* old);

/// True if `handler` is the saved one.
KOR_API bool _korSignal_CompareHandler(korSignalHandler handler, const korSignalHandler* saved);

/// Does nothing; kept for programs that call it.
KOR_API void _korSetSignalSummaryHooks(void);

KOR_END_DECLS

#endif
