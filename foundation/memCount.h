// memCount.h - the count of bytes handed out: the memory reserve's chunks, and everything under the debug allocator.

#pragma once

#include <cstdint>

namespace kor {

extern uint64_t gMemBytesAllocated; ///< atomic
extern uint64_t gMemFailAllocAbove; ///< atomic: no more memory once the count is above this; at first there is no limit

} // namespace kor
