// korDyn.cpp - shared libraries, over platform/module.h.

#include "korutil/korDyn.h"
#include "platform/module.h"

namespace kor {
namespace {

void* opened(korEx* ex, uint8_t depth, void* module)
{
    if (module == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, "Unable to open dynamic library.");
    }
    return module;
}

void* findSymbol(korEx* ex, uint8_t depth, void* handle, const char* name)
{
    void* address = handle == nullptr || name == nullptr ? nullptr : platform::moduleSymbol(handle, name);
    if (address == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, "Unable to find symbol");
    }
    return address;
}

} // namespace
} // namespace kor

using namespace kor;

void* _korDyn_Open(korEx* ex, uint8_t depth, const char* name)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return name == nullptr || name[0] == '\0' ? _korDyn_GetHandle(KOR_AT(ex, depth), nullptr)
                                              : opened(KOR_AT(ex, depth), platform::loadModule(name));
}

void* _korDyn_GetHandle(korEx* ex, uint8_t depth, const char* name)
{
    return ex->code != 0 ? nullptr : opened(KOR_AT(ex, depth), platform::findModule(name));
}

void _korDyn_Close(uint8_t depth, korEx* ex, void* handle)
{
    if (handle != nullptr && !platform::closeModule(handle)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "Invalid dynamic library handle");
    }
}

void* _korDyn_Symbol(korEx* ex, uint8_t depth, void* handle, const char* name)
{
    return findSymbol(KOR_AT(ex, depth), handle, name);
}

// On the systems of this library the address of a symbol is that of its object.
void* _korDyn_Object(korEx* ex, uint8_t depth, void* handle, const char* name)
{
    return findSymbol(KOR_AT(ex, depth), handle, name);
}

void _korDyn_BindAll(korEx* ex, uint8_t depth, void* handle, const korDynBinding* table,
                     const korDynBinding** failedRow)
{
    const korDynBinding* nobodyAsked;
    failedRow = failedRow == nullptr ? &nobodyAsked : failedRow;
    *failedRow = nullptr;
    for (; ex->code == 0 && table->target != nullptr && table->name != nullptr; table++) {
        *table->target = findSymbol(KOR_AT(ex, depth), handle, table->name);
        if (ex->code != 0) {
            *failedRow = table;
        }
    }
}

uint32_t _korDyn_DescribeError(korEx*, uint8_t, char* buffer, uint32_t size)
{
    if (size == 0) {
        return 0;
    }
    buffer[0] = '\0';
    return platform::moduleErrorText(buffer, size);
}
