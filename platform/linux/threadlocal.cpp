// threadlocal.cpp (Linux) - a thread-local pointer at a place that is the same for every thread.

#include "platform/threadlocal.h"

namespace kor::platform {

namespace {

// Initial-exec: the pointer lies in the block that every thread gets at its start, or that the loader finds room in for
// the threads that run already, at one distance from the thread pointer.
[[gnu::tls_model("initial-exec")]] constinit thread_local uint64_t* slot = nullptr;

} // namespace

bool slotCreate(int32_t* info)
{
    auto* self = static_cast<const char*>(__builtin_thread_pointer());
    *info = static_cast<int32_t>(reinterpret_cast<const char*>(&slot) - self);
    return true;
}

void slotDestroy(int32_t)
{
    slot = nullptr; // the other threads' pointers go with the module
}

bool slotSet(int32_t, uint64_t* value)
{
    slot = value;
    return true;
}

} // namespace kor::platform
