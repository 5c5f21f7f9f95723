// request.h - memory from the allocation family, whose every refusal is told. The family may refuse by NULL alone: the
// first request of a process, and what a debug configuration lets fail. Here that is code 2 as well.
//
//     auto* record = request<Record>(KOR_AT(ex, depth));
//     if (record == nullptr) {
//         return nullptr;
//     }

#pragma once

#include "korutil/korAlloc.h"

namespace kor {

/// What a call of the family gave.
template <typename Type>
Type* granted(korEx* ex, uint8_t depth, void* memory)
{
    if (memory == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
    }
    return static_cast<Type*>(memory);
}

/// `size` bytes.
template <typename Type>
Type* request(korEx* ex, uint8_t depth, size_t size = sizeof(Type))
{
    return granted<Type>(ex, depth, _kor_malloc(ex, depth, size));
}

/// `count` records, all zero.
template <typename Type>
Type* requestZeroed(korEx* ex, uint8_t depth, size_t count = 1)
{
    return granted<Type>(ex, depth, _kor_calloc(ex, depth, count, sizeof(Type)));
}

/// A copy of a text.
inline char* requestCopy(korEx* ex, uint8_t depth, const char* text)
{
    return granted<char>(ex, depth, _kor_strdup(ex, depth, text));
}

} // namespace kor
