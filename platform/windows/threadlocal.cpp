// threadlocal.cpp (Windows) - one of the system's slots.

#include "platform/threadlocal.h"

#include <windows.h>

namespace kor::platform {

bool slotCreate(int32_t* info)
{
    *info = static_cast<int32_t>(TlsAlloc());
    return *info != static_cast<int32_t>(TLS_OUT_OF_INDEXES);
}

void slotDestroy(int32_t info)
{
    TlsFree(static_cast<DWORD>(info));
}

bool slotSet(int32_t info, uint64_t* value)
{
    return TlsSetValue(static_cast<DWORD>(info), value) != 0;
}

} // namespace kor::platform
