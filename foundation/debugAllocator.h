// debugAllocator.h - what lies behind the _kor_...Debug routines when KOR_MEM_DEBUG_CONF is set: live memory by the
// call path that asked for it, reports on a timer, scribbles, under-run and double-free tests, protected pages, a
// limit.
//
// Whatever goes wrong in here ends the process: this is a tool to hunt faults with.

#pragma once

#include "korutil/korEx.h"

namespace kor::debugAllocator {

/// True for the allocator's own object, or one that is chained to it: such a call comes from inside and takes the plain
/// heap.
bool isInside(const korEx* ex);

/// Reads the configuration, once for the process. True if the debug allocator is on.
bool isOn();

/// Tells on standard error where a request comes from that is larger than the configuration wants.
void reportExcess(korEx* ex, uint8_t depth, size_t size);

/// A block, or NULL, with no error raised, once the bytes in use are above the limit.
void* allocate(korEx* ex, uint8_t depth, size_t size);
void release(void* block);
size_t sizeOf(const void* block); ///< as it was asked for; 8 for 0

} // namespace kor::debugAllocator
