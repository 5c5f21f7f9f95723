// socketError.h - how a failed socket call becomes an exception.

#pragma once

#include "korutil/korEx.h"
#include "platform/error.h"
#include "platform/socket.h"

namespace kor {

/// Raises code 6 with the number of the last failed socket call, before anything else can disturb that; `call` is a
/// static text. `depth` is that of the caller's frame, and `function` and `line` are its own.
inline void raiseLastSocketError(korEx* ex, uint8_t depth, const char* call, const char* function, int32_t line)
{
    ex->osError = ex->code == 0 ? platform::lastSocketError() : ex->osError;
    _korEx_SetException(ex, KOR_ERROR_OS, call, 0, function, line, depth);
}

#define KOR_RAISE_SOCKET(ex, depth, call) ::kor::raiseLastSocketError((ex), (depth), (call), __func__, __LINE__)

} // namespace kor
