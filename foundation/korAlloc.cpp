// korAlloc.cpp - how the allocation family decides between the plain heap and the debug allocator.
//
// The first allocation of a process finds gMemNoDebug at 0 and comes here; the configuration is read once, and if there
// is none the in-line routines take the plain path without a call from then on.

#include "korutil/korAlloc.h"
#include "foundation/debugAllocator.h"
#include "foundation/memCount.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>

uint8_t gMemNoDebug = 0;
uint8_t gPoolDisable = 0;
uint8_t gMemDebugExternalMemcheck = 0;

namespace kor {

uint64_t gMemBytesAllocated = 0;
uint64_t gMemFailAllocAbove = UINT64_MAX;

namespace {

// What the debug allocator needs for itself; without it nothing can be told any more.
void* orAbort(void* block)
{
    if (block == nullptr) {
        abort();
    }
    return block;
}

// A new block with what fits of the old one, which goes.
void* moveBlock(korEx* ex, uint8_t depth, void* old, size_t size)
{
    void* block = _kor_mallocDebug(ex, depth, size);
    if (block == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
        return nullptr;
    }
    if (old != nullptr) {
        memcpy(block, old, std::min<size_t>(debugAllocator::sizeOf(old), size));
        debugAllocator::release(old);
    }
    return block;
}

} // namespace
} // namespace kor

using namespace kor;

void* _kor_mallocDebug(korEx* ex, uint8_t depth, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (debugAllocator::isInside(ex)) {
        return orAbort(malloc(size));
    }
    debugAllocator::reportExcess(ex, depth, size);
    return debugAllocator::isOn() ? debugAllocator::allocate(ex, depth, size) : malloc(size);
}

void* _kor_callocDebug(korEx* ex, uint8_t depth, size_t count, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr); // which no heap has
        return nullptr;
    }
    void* result = _kor_mallocDebug(KOR_AT(ex, depth), bytes);
    return result == nullptr ? nullptr : memset(result, 0, bytes);
}

void* _kor_reallocDebug(korEx* ex, uint8_t depth, void* pointer, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    size_t kept = size == 0 ? 1 : size; // a C library may free the block otherwise
    if (debugAllocator::isInside(ex)) {
        return orAbort(realloc(pointer, kept));
    }
    return debugAllocator::isOn() ? moveBlock(KOR_AT(ex, depth), pointer, kept) : realloc(pointer, kept);
}

char* _kor_strdupDebug(korEx* ex, uint8_t depth, const char* text)
{
    if (ex->code != 0) {
        return nullptr;
    }
    size_t size = strlen(text) + 1;
    void* result = _kor_mallocDebug(KOR_AT(ex, depth), size);
    return result == nullptr ? nullptr : static_cast<char*>(memcpy(result, text, size));
}

void* _kor_memalignDebug(korEx* ex, uint8_t depth, size_t alignment, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    // With the debug allocator off, the block goes back to the aligned free.
    if (!debugAllocator::isOn()) {
        return korAlloc_aligned(alignment, size);
    }
    return _kor_mallocDebug(KOR_AT(ex, depth), (size + alignment - 1) / alignment * alignment);
}

void _kor_freeDebug(uint8_t, korEx* ex, void* pointer)
{
    if (debugAllocator::isInside(ex)) {
        free(pointer);
    } else if (pointer != nullptr && debugAllocator::isOn()) {
        debugAllocator::release(pointer);
    } else {
        free(pointer);
    }
}

void _kor_freealignDebug(uint8_t depth, korEx* ex, void* pointer)
{
    if (pointer == nullptr) {
        return;
    }
    if (debugAllocator::isOn()) {
        _kor_freeDebug(KOR_AT_D(depth, ex), pointer);
    } else {
        korAlloc_freeAligned(pointer);
    }
}

char* _korUtil_Strdup(korEx* ex, uint8_t depth, const char* text)
{
    return _kor_strdup(KOR_AT(ex, depth), text);
}

void _korUtil_Free(uint8_t depth, korEx* ex, void* pointer)
{
    _kor_free(KOR_AT_D(depth, ex), pointer);
}

void _kor_allocPrintStat(void)
{
    if (!std::atomic_ref(gMemNoDebug).load()) {
        std::printf("#memory_bytes_allocated: %" PRId64 "\n",
                    static_cast<int64_t>(std::atomic_ref(kor::gMemBytesAllocated).load()));
    }
}
