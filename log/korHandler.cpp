// korHandler.cpp - the calls through a handler's head, which are the same for both forms.

#include "korutil/korHandler.h"

#include <cstddef>

static_assert(offsetof(korHandler, layout) == 24 && sizeof(korHandler) == 32);

bool _korHandler_Open(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    return ex->code == 0 && handler->open(KOR_AT(ex, depth), handler, properties);
}

void _korHandler_Close(korEx* ex, uint8_t depth, korHandler* handler)
{
    if (ex->code == 0) {
        handler->close(KOR_AT(ex, depth), handler);
    }
}

bool _korHandler_OpenEx(korEx* ex, uint8_t depth, korHandler* handler, korStrHash* properties)
{
    return ex->code == 0 && handler->open(KOR_AT(ex, depth), handler, properties);
}

void _korHandler_CloseEx(korEx* ex, uint8_t depth, korHandler* handler)
{
    if (ex->code == 0) {
        handler->close(KOR_AT(ex, depth), handler);
    }
}
