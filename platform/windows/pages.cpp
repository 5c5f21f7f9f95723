// pages.cpp (Windows) - committed pages of the process.

#include "platform/pages.h"

#include <windows.h>

namespace kor::platform {

size_t pageSize()
{
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwPageSize;
}

void* takePages(size_t size)
{
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void givePages(void* pages, size_t)
{
    VirtualFree(pages, 0, MEM_RELEASE);
}

bool setPageAccess(void* pages, size_t size, bool allowed)
{
    DWORD before;
    return VirtualProtect(pages, size, allowed ? PAGE_READWRITE : PAGE_NOACCESS, &before) != 0;
}

} // namespace kor::platform
