// entry.cpp (Windows) - the entry point, which the system calls at the end of each thread and at the unloading.

#include "platform/entry.h"

#include <cstdint>
#include <windows.h>

// The module's first bytes, as the linker knows them.
extern "C" const IMAGE_DOS_HEADER __ImageBase;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved);

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_THREAD_DETACH) {
        kor::threadEnds();
    } else if (reason == DLL_PROCESS_DETACH && reserved == nullptr) { // else the process ends
        kor::libraryUnloads();
    }
    return TRUE;
}

namespace kor::platform {

void watchEnd() {} // the entry point is told

bool watchThreads()
{
    return true;
}

bool watchThisThread()
{
    return true; // all of them are
}

bool keepLoaded()
{
    HMODULE self;
    return GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                              reinterpret_cast<LPCSTR>(&__ImageBase), &self) != 0;
}

bool isLibraryCode(const void* function)
{
    auto address = reinterpret_cast<uintptr_t>(function);
    auto start = reinterpret_cast<uintptr_t>(&__ImageBase);
    auto* header = reinterpret_cast<const IMAGE_NT_HEADERS*>(start + static_cast<uintptr_t>(__ImageBase.e_lfanew));
    return address >= start && address < start + header->OptionalHeader.SizeOfImage;
}

} // namespace kor::platform
