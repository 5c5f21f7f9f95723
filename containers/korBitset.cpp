// korBitset.cpp - the growable set of small numbers, eight of them in a word.

#include "korutil/korBitset.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <cstring>

static_assert(sizeof(korBitset) == 16 && offsetof(korBitset, words) == 8);

namespace kor {
namespace {

constexpr uint64_t initialWords = 64;
constexpr uint64_t membersPerWord = 8;
constexpr uint64_t maxIndex = SIZE_MAX / sizeof(uint64_t) / 2; // beyond it the bytes of a grown set are no size

bool isSet(const korBitset* bitset)
{
    return bitset != nullptr && bitset->words != nullptr;
}

uint64_t maskOf(uint64_t bit)
{
    return uint64_t{1} << (bit % membersPerWord);
}

size_t bytesOf(const korBitset* bitset)
{
    return bitset->wordCount * sizeof(uint64_t);
}

// The word of a bit, in a set that is large enough for it afterwards. NULL on an error, with the set as it was.
uint64_t* expand_bitset(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (!isSet(bitset)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    uint64_t index = bit / membersPerWord;
    if (index >= bitset->wordCount) {
        uint64_t* words = nullptr;
        if (index <= maxIndex) {
            words = requestZeroed<uint64_t>(KOR_AT(ex, depth), 2 * index);
        }
        if (words == nullptr) {
            KOR_RAISE(ex, depth, KOR_ERROR_NO_MEMORY, nullptr);
            return nullptr;
        }
        memcpy(words, bitset->words, bytesOf(bitset));
        _kor_free(KOR_AT_D(depth, ex), bitset->words);
        bitset->words = words;
        bitset->wordCount = 2 * index;
    }
    return &bitset->words[index];
}

// A set with words, all clear.
korBitset* createSized(korEx* ex, uint8_t depth, uint64_t wordCount)
{
    auto* bitset = requestZeroed<korBitset>(KOR_AT(ex, depth));
    if (bitset == nullptr) {
        return nullptr;
    }
    bitset->words = requestZeroed<uint64_t>(KOR_AT(ex, depth), wordCount);
    if (bitset->words == nullptr) {
        _kor_free(KOR_AT_D(depth, ex), bitset);
        return nullptr;
    }
    bitset->wordCount = wordCount;
    return bitset;
}

} // namespace
} // namespace kor

using namespace kor;

korBitset* _korBitset_Create(korEx* ex, uint8_t depth)
{
    if (ex->code != 0) {
        return nullptr;
    }
    return createSized(KOR_AT(ex, depth), initialWords);
}

void _korBitset_Add(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit)
{
    uint64_t* word = expand_bitset(KOR_AT(ex, depth), bitset, bit);
    if (word != nullptr) {
        *word |= maskOf(bit);
    }
}

void _korBitset_Remove(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit)
{
    uint64_t* word = expand_bitset(KOR_AT(ex, depth), bitset, bit);
    if (word != nullptr) {
        *word &= ~maskOf(bit);
    }
}

bool _korBitset_IsPresent(korEx* ex, uint8_t depth, korBitset* bitset, uint64_t bit)
{
    const uint64_t* word = expand_bitset(KOR_AT(ex, depth), bitset, bit);
    return word != nullptr && (*word & maskOf(bit)) != 0;
}

korBitset* _korBitset_Duplicate(korEx* ex, uint8_t depth, const korBitset* bitset)
{
    if (ex->code != 0) {
        return nullptr;
    }
    if (!isSet(bitset)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return nullptr;
    }
    korBitset* copy = createSized(KOR_AT(ex, depth), bitset->wordCount);
    if (copy != nullptr) {
        memcpy(copy->words, bitset->words, bytesOf(bitset));
    }
    return copy;
}

void _korBitset_CopyBitset(korEx* ex, uint8_t depth, korBitset* target, const korBitset* source)
{
    if (ex->code != 0) {
        return;
    }
    if (!isSet(target) || !isSet(source)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    if (target->wordCount < source->wordCount) {
        void* words = granted<void>(KOR_AT(ex, depth), _kor_realloc(KOR_AT(ex, depth), target->words, bytesOf(source)));
        if (words == nullptr) {
            return;
        }
        target->words = static_cast<uint64_t*>(words);
        target->wordCount = source->wordCount;
    }
    size_t copied = bytesOf(source);
    memmove(target->words, source->words, copied); // a set may be copied to itself
    memset(&target->words[source->wordCount], 0, bytesOf(target) - copied);
}

void _korBitset_Clear(korEx* ex, uint8_t depth, korBitset* bitset)
{
    if (ex->code != 0) {
        return;
    }
    if (!isSet(bitset)) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, nullptr);
        return;
    }
    memset(bitset->words, 0, bytesOf(bitset));
}

void _korBitset_Destroy(uint8_t depth, korEx* ex, korBitset* bitset)
{
    if (bitset != nullptr) {
        _kor_free(KOR_AT_D(depth, ex), bitset->words);
        _kor_free(KOR_AT_D(depth, ex), bitset);
    }
}
