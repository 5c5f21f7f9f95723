// korPollerEvent.cpp - the counted record of one thing to wait for.

#include "korutil/korPollerEvent.h"
#include "foundation/request.h"

#include "korutil/korAlloc.h"
#include "platform/poll.h"

#include <atomic>

namespace kor {
namespace {

std::atomic_ref<uint64_t> refCountOf(korPollerEvent* event)
{
    return std::atomic_ref<uint64_t>(event->refCount);
}

// All but the type and the active flag, which outlive a filling.
void fill(korPollerEvent* event, void* context, void* closure, uint32_t mask)
{
    event->refCount = 1;
    event->mask = mask;
    event->socket = platform::noHandle;
    event->network = 0;
    event->handle = platform::noHandle;
    event->waitEvent = platform::noHandle;
    event->context = context;
    event->closure = closure;
    event->pollSlot = -1;
}

korPollerEvent* newEvent(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return requestZeroed<korPollerEvent>(KOR_AT(ex, depth));
}

} // namespace
} // namespace kor

korPollerEvent* _korPollerEvent_CreateNetwork(korEx* ex, uint8_t depth, void* context, void* closure, uint32_t mask,
                                              int64_t socket)
{
    korPollerEvent* event = kor::newEvent(KOR_AT(ex, depth));
    if (event != nullptr) {
        _korPollerEvent_InitNetwork(KOR_AT(ex, depth), event, context, closure, mask, socket);
    }
    return event;
}

void _korPollerEvent_InitNetwork(korEx* ex, uint8_t, korPollerEvent* event, void* context, void* closure, uint32_t mask,
                                 int64_t socket)
{
    if (ex->code == 0) {
        kor::fill(event, context, closure, mask);
        event->network = 1;
        event->socket = socket;
    }
}

korPollerEvent* _korPollerEvent_CreateHandle(korEx* ex, uint8_t depth, void* context, void* closure, uint32_t mask,
                                             int64_t handle)
{
    korPollerEvent* event = kor::newEvent(KOR_AT(ex, depth));
    if (event != nullptr) {
        _korPollerEvent_InitHandle(KOR_AT(ex, depth), event, context, closure, mask, handle);
    }
    return event;
}

void _korPollerEvent_InitHandle(korEx* ex, uint8_t, korPollerEvent* event, void* context, void* closure, uint32_t mask,
                                int64_t handle)
{
    if (ex->code == 0) {
        kor::fill(event, context, closure, mask);
        event->handle = handle;
    }
}

void _korPollerEvent_Retain(korEx* ex, uint8_t, korPollerEvent* event)
{
    if (ex->code == 0 && event != nullptr) {
        kor::refCountOf(event).fetch_add(1);
    }
}

bool _korPollerEvent_Release(uint8_t depth, korEx* ex, korPollerEvent* event)
{
    if (event == nullptr || kor::refCountOf(event).fetch_sub(1) != 1) {
        return false;
    }
    _kor_free(KOR_AT_D(depth, ex), event);
    return true;
}

int32_t _korPollerEvent_GetType(korEx* ex, uint8_t, const korPollerEvent* event)
{
    return ex->code == 0 ? event->type : 0;
}

void _korPollerEvent_SetType(korEx* ex, uint8_t, korPollerEvent* event, int32_t type)
{
    if (ex->code == 0) {
        event->type = type;
    }
}

void* _korPollerEvent_GetContext(korEx* ex, uint8_t, const korPollerEvent* event)
{
    return ex->code == 0 ? event->context : nullptr;
}

void* _korPollerEvent_GetClosure(korEx* ex, uint8_t, const korPollerEvent* event)
{
    return ex->code == 0 ? event->closure : nullptr;
}
