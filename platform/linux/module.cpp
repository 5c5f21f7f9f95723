// module.cpp (Linux) - the dynamic linker.

#include "platform/module.h"

#include <cstring>
#include <dlfcn.h>

namespace kor::platform {

void* loadModule(const char* name)
{
    return dlopen(name, RTLD_NOW);
}

void* findModule(const char* name)
{
    if (name != nullptr && *name == '\0') {
        return nullptr; // which the dynamic linker would take for the program itself
    }
    return dlopen(name, RTLD_NOW | RTLD_NOLOAD);
}

bool closeModule(void* module)
{
    return dlclose(module) == 0;
}

void* moduleSymbol(void* module, const char* name)
{
    return dlsym(module, name);
}

uint32_t moduleErrorText(char* buffer, uint32_t size)
{
    const char* text = dlerror();
    if (text == nullptr || size == 0) {
        return 0;
    }
    size_t length = strlen(text);
    length = length < size ? length : size - 1;
    memcpy(buffer, text, length);
    buffer[length] = '\0';
    return static_cast<uint32_t>(length);
}

} // namespace kor::platform
