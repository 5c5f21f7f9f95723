// module.cpp (Windows) - module handles.

#include "platform/module.h"

#include <windows.h>

namespace kor::platform {

void* loadModule(const char* name)
{
    return LoadLibraryA(name);
}

void* findModule(const char* name)
{
    HMODULE module = nullptr;
    return GetModuleHandleExA(0, name, &module) != 0 ? module : nullptr;
}

bool closeModule(void* module)
{
    return FreeLibrary(static_cast<HMODULE>(module)) != 0;
}

void* moduleSymbol(void* module, const char* name)
{
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

uint32_t moduleErrorText(char* buffer, uint32_t size)
{
    return FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, GetLastError(), 0,
                          buffer, size, nullptr);
}

} // namespace kor::platform
