// wouldBlock.h - how the systems tell that a socket has nothing to give, or takes nothing, for now.

#ifndef EXCHANGE_WOULD_BLOCK_H
#define EXCHANGE_WOULD_BLOCK_H

#include <korutil/korEx.h>

/// True if that is why a receive or a send has failed: EAGAIN of Linux, WSAEWOULDBLOCK of Windows.
inline bool wouldBlock(const korEx* ex)
{
    return ex->code == KOR_ERROR_OS && (ex->osError == 11 || ex->osError == 10035);
}

#endif
