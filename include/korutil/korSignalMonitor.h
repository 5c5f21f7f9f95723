// korSignalMonitor.h - turns SIGINT and SIGTERM into the orderly wake-up of a waiting thread. One per process.
//
// A handler of a signal may do almost nothing: it sets a flag and writes one byte into a socket pair, whose other end
// the waiting thread polls. Only the first signal does: a monitor tells that there was one, not how many.
//
//     _korSignalMonitor_Start(KOR_AT(ex, depth), NULL);
//     ... start the service ...
//     _korSignalMonitor_WaitForSignal(KOR_AT(ex, depth));      // until somebody presses Ctrl-C
//     ... stop it ...
//     _korSignalMonitor_Stop(KOR_AT_D(depth, ex));

#ifndef KORUTIL_KORSIGNALMONITOR_H
#define KORUTIL_KORSIGNALMONITOR_H

#include "korutil/korEx.h"

KOR_BEGIN_DECLS

/// Told of the signal: with 1 by a start that finds that one has come already, with 0 by a wait. Runs on the thread of
/// that call, never in a handler.
typedef void (*korSignalCallback)(int32_t atStart);

/// Makes the socket pair and its poller, forgets earlier signals, and sets the handlers of SIGINT and SIGTERM.
/// `callback` may be NULL. A monitor that runs is stopped first. Sockets must have been started. Errors: those of
/// _korSocket_CreatePair, _korSocket_SetBlocking, the poller and _korSignal_SetHandler; nothing is left behind then.
KOR_API void _korSignalMonitor_Start(korEx* ex, uint8_t depth, korSignalCallback callback);

/// Closes the sockets and the poller. Nobody may wait. The handlers stay, and do no harm; giving them back is the
/// caller's business. Harmless twice, and without a start. Works with an error pending.
KOR_API void _korSignalMonitor_Stop(uint8_t depth, korEx* ex);

/// What the handler does, from ordinary code on any thread: ends the wait. True if the monitor has its signal, now or
/// since before; false with an error pending. Errors: 5 "Signal Monitor uninitialized."; those of _korSocket_Send.
KOR_API bool _korSignalMonitor_Signal(korEx* ex, uint8_t depth);

/// Waits until there is a signal, and tells the callback; at once if it has come already. One thread at a time. Errors:
/// 5 "Signal Monitor uninitialized.", before a start; the code of a failed wait with "Failed to Wait for Signal.".
KOR_API void _korSignalMonitor_WaitForSignal(korEx* ex, uint8_t depth);

KOR_END_DECLS

#endif
