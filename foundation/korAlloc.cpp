// korAlloc.cpp - how the allocation family decides between the plain heap and the debug allocator.
//
// The first allocation of a process finds gMemNoDebug at 0 and comes here; the configuration is read once, and from
// then on the in-line routines take the plain path without a call.

#include "korutil/korAlloc.h"
#include "foundation/memCount.h"

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

// Decides once for the process. The debug allocator is not part of this build yet, so every configuration leaves it
// off.
void initTrack()
{
    std::atomic_ref(gMemNoDebug).store(1);
}

} // namespace
} // namespace kor

void* _kor_mallocDebug(korEx* ex, uint8_t, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    kor::initTrack();
    return malloc(size);
}

void* _kor_callocDebug(korEx* ex, uint8_t depth, size_t count, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        bytes = SIZE_MAX; // which no heap has
    }
    void* result = _kor_mallocDebug(KOR_AT(ex, depth), bytes);
    return result == nullptr ? nullptr : memset(result, 0, bytes);
}

void* _kor_reallocDebug(korEx* ex, uint8_t, void* pointer, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    kor::initTrack();
    return realloc(pointer, size == 0 ? 1 : size);
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

void* _kor_memalignDebug(korEx* ex, uint8_t, size_t alignment, size_t size)
{
    if (ex->code != 0) {
        return nullptr;
    }
    // The block goes back to the aligned free once the decision has fallen, so it must come from the aligned heap.
    kor::initTrack();
    return korAlloc_aligned(alignment, size);
}

void _kor_freeDebug(uint8_t, korEx*, void* pointer)
{
    if (pointer != nullptr) {
        kor::initTrack();
        free(pointer);
    }
}

void _kor_freealignDebug(uint8_t, korEx*, void* pointer)
{
    if (pointer != nullptr) {
        kor::initTrack();
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
