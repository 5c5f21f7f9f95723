// module.cpp (Windows) - module handles.

#include "platform/module.h"

#include <cstdio>
#include <cstring>
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
    char text[512] = ""; // the system gives nothing rather than the part that fits
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, GetLastError(), 0, text,
                   sizeof text, nullptr);
    if (size == 0) {
        return 0;
    }
    std::snprintf(buffer, size, "%s", text);
    return static_cast<uint32_t>(std::strlen(buffer));
}

} // namespace kor::platform
