// korSignal.cpp - the C library's signal, which both systems have.

#include "korutil/korSignal.h"

#include "platform/error.h"

#include <csignal>

namespace kor {
namespace {

// Sets a handler and gives the one before; on a failure raises, and gives SIG_ERR.
korSignalHandler installHandler(korEx* ex, uint8_t depth, int32_t signalNumber, korSignalHandler handler,
                                const char* failure)
{
    korSignalHandler old = std::signal(signalNumber, handler);
    if (old == SIG_ERR) {
        ex->osError = platform::lastSystemError();
        KOR_RAISE(ex, depth, KOR_ERROR_OS, failure);
    }
    return old;
}

} // namespace
} // namespace kor

void _korSignal_SetHandler(korEx* ex, uint8_t depth, int32_t signalNumber, korSignalHandler handler,
                           korSignalHandler* old)
{
    if (ex->code != 0) {
        return;
    }
    korSignalHandler before =
        kor::installHandler(KOR_AT(ex, depth), signalNumber, handler, "Failed to set signal handler.");
    if (ex->code == 0 && old != nullptr) {
        *old = before;
    }
}

void _korSignal_RestoreHandler(korEx* ex, uint8_t depth, int32_t signalNumber, const korSignalHandler* old)
{
    if (ex->code == 0) {
        kor::installHandler(KOR_AT(ex, depth), signalNumber, *old, "Failed to restore signal handler.");
    }
}

bool _korSignal_CompareHandler(korSignalHandler handler, const korSignalHandler* saved)
{
    return handler == *saved;
}

void _korSetSignalSummaryHooks(void) {}
