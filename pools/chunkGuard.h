// chunkGuard.h - chunks that nobody has are out of bounds: to the address sanitizer always, and in the hostile build
// what was in them is gone.

#pragma once

#include "foundation/hostile.h"
#include "korutil/korPool.h"

#include <cstring>

#ifdef __SANITIZE_ADDRESS__
extern "C" void __asan_poison_memory_region(const volatile void* address, size_t size);
extern "C" void __asan_unpoison_memory_region(const volatile void* address, size_t size);
#endif

namespace kor {

/// From here on nobody may touch `size` bytes of the pool's memory.
inline void closeMemory([[maybe_unused]] void* memory, [[maybe_unused]] size_t size)
{
#ifdef __SANITIZE_ADDRESS__
    __asan_poison_memory_region(memory, size);
#endif
}

/// From here on someone may.
inline void openMemory([[maybe_unused]] void* memory, [[maybe_unused]] size_t size)
{
#ifdef __SANITIZE_ADDRESS__
    __asan_unpoison_memory_region(memory, size);
#endif
}

/// A chunk comes back. Its contents stay if the pool prepares and ends its chunks: they are the chunk's for life.
inline void closeChunk(const korPool* pool, void* chunk)
{
    if (hostile && pool->initChunk == nullptr && pool->destroyChunk == nullptr) {
        memset(chunk, 0xDB, pool->chunkSize);
    }
    closeMemory(chunk, pool->chunkSize);
}

/// A chunk goes out.
inline void openChunk(const korPool* pool, void* chunk)
{
    openMemory(chunk, pool->chunkSize);
}

} // namespace kor
