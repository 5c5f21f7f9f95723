// sharedmemory.cpp (Windows) - named mappings of the paging file.

#include "platform/sharedmemory.h"

#include <windows.h>

namespace kor::platform {

bool openSharedMemory(uint64_t* handle, const char* name, uint32_t size, bool* created)
{
    SetLastError(ERROR_SUCCESS);
    HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
    *created = mapping != nullptr && GetLastError() != ERROR_ALREADY_EXISTS;
    *handle = reinterpret_cast<uint64_t>(mapping);
    return mapping != nullptr;
}

void* mapSharedMemory(uint64_t handle, uint32_t offset, uint64_t* size)
{
    return MapViewOfFile(reinterpret_cast<HANDLE>(handle), FILE_MAP_ALL_ACCESS, 0, offset, *size);
}

bool unmapSharedMemory(void* address, uint64_t)
{
    return UnmapViewOfFile(address);
}

void closeSharedMemory(uint64_t handle, const char*)
{
    CloseHandle(reinterpret_cast<HANDLE>(handle));
}

} // namespace kor::platform
