// order.h - how sorted arrays order their values: as unsigned numbers, or by the caller's compare.

#pragma once

#include <cstdint>

namespace kor {

struct ByValue {
    int32_t operator()(uint64_t left, uint64_t right) const { return left < right ? -1 : left > right; }
};

struct ByCompare {
    int32_t (*compare)(uint64_t left, uint64_t right);
    int32_t operator()(uint64_t left, uint64_t right) const { return compare(left, right); }
};

} // namespace kor
