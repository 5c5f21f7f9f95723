// jsonText.h - what the reader, the printer and the tree of JSON share: memory of the hooks, items, and the view of an
// item as one of cJSON's.
//
// A kor_cJSON begins as a cJSON does, up to `valuedouble`. So cJSON's operations on lists, which touch links alone, run
// on our items; whatever looks at a type, a key or the memory behind an item is ours.

#pragma once

#include "korutil/kor_cJSON.h"

#include <cjson/cJSON.h>

#include <cstddef>

namespace kor {

static_assert(sizeof(kor_cJSON) == 72 && offsetof(kor_cJSON, valuelong) == 56 && offsetof(kor_cJSON, string) == 64);
static_assert(offsetof(kor_cJSON, next) == offsetof(cJSON, next) && offsetof(kor_cJSON, prev) == offsetof(cJSON, prev));
static_assert(offsetof(kor_cJSON, child) == offsetof(cJSON, child) &&
              offsetof(kor_cJSON, valuedouble) == offsetof(cJSON, valuedouble));

/// How deep items and texts may nest: as deep as cJSON reads. What recurses is bounded by it.
constexpr int32_t jsonMaxDepth = CJSON_NESTING_LIMIT;

/// `size` bytes of the hook, or NULL.
void* jsonAlloc(size_t size);

/// A block of `size` bytes with the first `used` ones of `block`, which goes back; or NULL, and the block stays.
void* jsonGrow(void* block, size_t used, size_t size);

/// A zeroed item of a type, or NULL.
kor_cJSON* jsonItem(int32_t type);

/// Sets all three values of a number. `valueint` is the low half of `whole`.
void jsonSetNumber(kor_cJSON* item, double value, int64_t whole);

/// Towards 0, held to the nearest 64-bit number; 0 for what is no number.
int64_t jsonTruncate(double value);

/// The type without its flags.
inline int32_t jsonType(const kor_cJSON* item)
{
    return item->type & 0xFF;
}

/// Reads one value at `*at`, white space before it skipped, and moves `*at` to where reading stopped. NULL after a
/// failure.
kor_cJSON* jsonRead(const char** at);

/// White space is any byte from 1 to 32.
inline const char* jsonSkipSpace(const char* text)
{
    while (static_cast<uint8_t>(*text - 1) < ' ') {
        text++;
    }
    return text;
}

} // namespace kor
