// module.h - loading and unloading the library from a program that is not linked to it.

#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace kor::test {

#ifdef _WIN32
using Module = HMODULE;
inline Module loadModule(const char* path)
{
    return LoadLibraryA(path);
}
inline bool unloadModule(Module module)
{
    return FreeLibrary(module) != 0;
}
inline bool isLoaded(const char* path)
{
    return GetModuleHandleA(path) != nullptr;
}
template <typename Function>
void findSymbol(Module module, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}
#else
using Module = void*;
inline Module loadModule(const char* path)
{
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}
inline bool unloadModule(Module module)
{
    return dlclose(module) == 0;
}
inline bool isLoaded(const char* path)
{
    void* module = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (module != nullptr) {
        dlclose(module);
    }
    return module != nullptr;
}
template <typename Function>
void findSymbol(Module module, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(module, name));
}
#endif

} // namespace kor::test
