// korBuf.cpp - the field codecs.
//
// Every bound is tested as a signed distance from the cursor to the end: a size however large overflows nothing, and a
// cursor that lies behind the end has no room.

#include "korutil/korBuf.h"
#include "foundation/request.h"
#include "korutil/korAlloc.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "words go to the wire as the processor stores them");

namespace {

constexpr const char* endOfBuffer = "End of buffer";
constexpr const char* bufferTooSmall = "Buffer too small";
constexpr const char* illegalValue = "ILLEGAL_VALUE";

bool hasRoom(const uint8_t* cursor, const uint8_t* end, int64_t size)
{
    return end - cursor >= size;
}

template <typename Number>
void store(uint8_t* to, Number value)
{
    std::memcpy(to, &value, sizeof value);
}

template <typename Number>
Number load(const uint8_t* from)
{
    Number value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

// ---- Fixed fields ---------------------------------------------------------------------------------------------------

// These and the run routines below tell the caller whether the field fits; the exported names raise, so that the frame
// and the description are theirs.
template <typename Number>
bool put(uint8_t** cursor, const uint8_t* end, Number value)
{
    uint8_t* to = *cursor; // bytes may alias the cursor itself: it is read once and written once
    if (!hasRoom(to, end, sizeof value)) {
        return false;
    }
    store(to, value);
    *cursor = to + sizeof value;
    return true;
}

template <typename Number>
bool take(uint8_t** cursor, const uint8_t* end, Number* value)
{
    if (!hasRoom(*cursor, end, sizeof *value)) {
        return false;
    }
    *value = load<Number>(*cursor);
    *cursor += sizeof *value;
    return true;
}

// A negative length passes the test of room as the negative number that it is, and then has no bytes: the cursor must
// not go back into what was read, or in front of the buffer, because a message says so.
int32_t bytesOf(int32_t length)
{
    return std::max(length, 0);
}

bool putRun(uint8_t** cursor, const uint8_t* end, const void* data, int32_t length)
{
    if (!hasRoom(*cursor, end, length)) {
        return false;
    }
    if (length > 0) { // else `data` may be NULL
        std::memcpy(*cursor, data, static_cast<size_t>(length));
    }
    *cursor += bytesOf(length);
    return true;
}

bool takeRun(uint8_t** cursor, const uint8_t* end, void** data, int32_t length, bool copy)
{
    if (!hasRoom(*cursor, end, length)) {
        return false;
    }
    if (!copy) {
        *data = *cursor;
    } else if (length > 0) {
        std::memcpy(*data, *cursor, static_cast<size_t>(length));
    }
    *cursor += bytesOf(length);
    return true;
}

// ---- Header integers ------------------------------------------------------------------------------------------------

constexpr int32_t widest = 9;
constexpr uint64_t greatestHeader = INT64_MAX;

// How many forms of seven bits hold so many bits: the quotient rounded up, for 1 to 65 bits.
int32_t sevens(int32_t bits)
{
    return (bits * 9 + 64) / 64;
}

// Each byte of a form holds seven bits.
int32_t headerWidth(uint64_t value)
{
    return sevens(static_cast<int32_t>(std::bit_width(value | 1)));
}

// Stores the first `size` bytes of a word, 1 to 8, and no byte more: two stores that overlap.
void storeFirst(uint8_t* to, uint64_t word, int32_t size)
{
    if (size >= 4) {
        store(to, static_cast<uint32_t>(word));
        store(to + size - 4, static_cast<uint32_t>(word >> (8 * (size - 4))));
    } else if (size >= 2) {
        store(to, static_cast<uint16_t>(word));
        store(to + size - 2, static_cast<uint16_t>(word >> (8 * (size - 2))));
    } else {
        *to = static_cast<uint8_t>(word);
    }
}

// Loads `size` bytes, 1 to 8, as the first of a word: two loads that overlap.
uint64_t loadFirst(const uint8_t* from, int32_t size)
{
    if (size >= 4) {
        return load<uint32_t>(from) | static_cast<uint64_t>(load<uint32_t>(from + size - 4)) << (8 * (size - 4));
    }
    if (size >= 2) {
        return load<uint16_t>(from) | static_cast<uint64_t>(load<uint16_t>(from + size - 2)) << (8 * (size - 2));
    }
    return *from;
}

// Always in line: with a constant width little is left of it.
KOR_INLINE void storeHeader(uint8_t** cursor, uint64_t value, int32_t width)
{
    uint8_t* to = *cursor;
    *cursor += width;
    if (width == widest) {
        *to = 0xff;
        store(to + 1, __builtin_bswap64(value));
        return;
    }
    uint64_t ones = (uint64_t{0xff00} >> (width - 1)) & 0xff;
    uint64_t field = value | ones << (8 * (width - 1));
    storeFirst(to, __builtin_bswap64(field << (64 - 8 * width)), width);
}

// A field that lies before the end. Far enough before it a whole word is loaded, whatever the width.
uint64_t loadHeader(const uint8_t* from, const uint8_t* end, int32_t width)
{
    if (width == widest) {
        return __builtin_bswap64(load<uint64_t>(from + 1));
    }
    uint64_t word = hasRoom(from, end, sizeof word) ? load<uint64_t>(from) : loadFirst(from, width);
    uint64_t field = __builtin_bswap64(word) >> (64 - 8 * width);
    return field & ((uint64_t{1} << (7 * width)) - 1);
}

// Writes the shortest form from `width` up that holds the value, and gives its width, or 0 if it has no room. A
// comparison for each form, with constants behind it, is quicker than one computation for all: values are small.
template <int32_t width>
int32_t putHeader(uint8_t** cursor, const uint8_t* end, uint64_t value)
{
    if constexpr (width < widest) {
        if (value >> (7 * width) != 0) {
            return putHeader<width + 1>(cursor, end, value);
        }
    }
    if (!hasRoom(*cursor, end, width)) {
        return 0;
    }
    storeHeader(cursor, value, width);
    return width;
}

// ---- Variable integers ----------------------------------------------------------------------------------------------

// By magnitude: a form of n bytes is for magnitudes below 2^(7n - 1).
int32_t varWidth(int64_t value)
{
    uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    return std::min(sevens(static_cast<int32_t>(std::bit_width(magnitude)) + 1), widest);
}

// The word at the cursor, with zeros for what may not be read.
uint64_t loadBounded(const uint8_t* cursor, const uint8_t* end, const uint8_t* limit)
{
    if (limit - cursor >= 8) {
        return load<uint64_t>(cursor);
    }
    uint64_t word = 0;
    if (cursor < end) {
        std::memcpy(&word, cursor, static_cast<size_t>(std::min<int64_t>(end - cursor, sizeof word)));
    }
    return word;
}

// ---- Sparse bitmasks ------------------------------------------------------------------------------------------------

constexpr int32_t maxLevels = 16; // of a tree that is written
constexpr int32_t maxLevelsToRead = 11;

// Which of eight bytes are not zero, the first byte in the most significant bit. The sum carries any set bit of a byte
// into its top; the product then gathers the tops, and no two of its terms meet in one bit.
uint8_t occupied(uint64_t word)
{
    constexpr uint64_t lowSeven = 0x7f7f7f7f7f7f7f7f;
    uint64_t tops = (((word & lowSeven) + lowSeven) | word) & ~lowSeven;
    return static_cast<uint8_t>(((tops >> 7) * 0x8040201008040201) >> 56);
}

void buildLevel(uint8_t* level, const uint8_t* below, int64_t sizeBelow)
{
    int64_t at = 0;
    for (; at + 8 <= sizeBelow; at += 8) {
        *level++ = occupied(load<uint64_t>(below + at));
    }
    if (at < sizeBelow) {
        *level = occupied(loadBounded(below + at, below + sizeBelow, below + sizeBelow));
    }
}

// The occupancy levels of an array, level 0. They lie one before the other in front of `scratchEnd`.
struct Tree {
    const uint8_t* leaves;
    const uint8_t* leavesEnd;
    uint8_t* level[maxLevels]; // from 1 up; the top one has one byte
    int32_t levels;

    Tree(const uint8_t* bytes, int64_t count, uint8_t* scratchEnd) : leaves(bytes), leavesEnd(bytes + count), levels(1)
    {
        const uint8_t* below = bytes;
        for (int64_t size = count; size > 1; levels++) {
            scratchEnd -= (size + 7) / 8;
            buildLevel(scratchEnd, below, size);
            level[levels] = scratchEnd;
            below = scratchEnd;
            size = (size + 7) / 8;
        }
    }
};

// Takes the first set bit out of a node that has one.
int32_t takeBit(uint8_t* node)
{
    int32_t bit = std::countl_zero(*node);
    *node = static_cast<uint8_t>(*node & ~(0x80 >> bit));
    return bit;
}

// Writes those of the eight leaves in a word that are not zero. What is no branch cannot be mispredicted: each leaf is
// stored, and a zero is stored over by the next one.
uint8_t* writeLeaves(uint64_t leaves, uint8_t* to)
{
    for (int32_t i = 0; i < 8; i++) {
        auto leaf = static_cast<uint8_t>(leaves >> (8 * i));
        *to = leaf;
        to += leaf != 0 ? 1 : 0;
    }
    return to;
}

// Writes the nodes depth first, each as it is reached; the tree is used up by that.
uint8_t* writeNodes(const Tree& tree, uint8_t* to)
{
    int64_t index[maxLevels]; // of the open node on each level
    int32_t at = tree.levels - 1;
    if (at == 0) {
        *to = tree.leaves[0];
        return to + 1;
    }
    index[at] = 0;
    *to++ = *tree.level[at];
    while (at < tree.levels) {
        if (at == 1) {
            to = writeLeaves(loadBounded(tree.leaves + index[1] * 8, tree.leavesEnd, tree.leavesEnd), to);
            at++;
            continue;
        }
        uint8_t* node = tree.level[at] + index[at];
        if (*node == 0) {
            at++;
            continue;
        }
        int64_t child = index[at] * 8 + takeBit(node);
        index[--at] = child;
        *to++ = tree.level[at][child];
    }
    return to;
}

// Reads those of eight elements that have a bit in the node, where there are eight bytes and elements at least, and
// gives how many they are. No branch here either.
int32_t spreadLeaves(const uint8_t* from, uint8_t node, uint8_t* elements)
{
    uint64_t word = 0;
    int32_t read = 0;
    for (int32_t i = 0; i < 8; i++) {
        int32_t bit = node >> (7 - i) & 1;
        word |= static_cast<uint64_t>(from[read] & -bit) << (8 * i);
        read += bit;
    }
    store(elements, word);
    return read;
}

// Reads the leaves of a node, whose first element is `first`. False if the bytes end early.
bool readLeaves(uint8_t** cursor, const uint8_t* end, uint8_t node, uint8_t* bytes, int64_t first, int64_t count)
{
    if (first + 8 <= count && hasRoom(*cursor, end, 8)) {
        *cursor += spreadLeaves(*cursor, node, bytes + first);
        return true;
    }
    while (node != 0) {
        int64_t element = first + takeBit(&node);
        uint8_t leaf;
        if (!take(cursor, end, &leaf)) {
            return false;
        }
        if (element < count) {
            bytes[element] = leaf;
        }
    }
    return true;
}

// Reads the nodes below the one on level `top`, 1 or higher. False if the bytes end early.
bool readNodes(uint8_t** cursor, const uint8_t* end, int32_t top, uint8_t topNode, uint8_t* bytes, int64_t count)
{
    uint8_t node[maxLevelsToRead];  // on each level, what is left of the open node
    int64_t first[maxLevelsToRead]; // and the first element below it
    int32_t at = top;
    node[at] = topNode;
    first[at] = 0;
    while (at <= top) {
        if (at == 1) {
            if (!readLeaves(cursor, end, node[1], bytes, first[1], count)) {
                return false;
            }
            at++;
            continue;
        }
        if (node[at] == 0) {
            at++;
            continue;
        }
        int64_t element = first[at] + (static_cast<int64_t>(takeBit(&node[at])) << (3 * (at - 1)));
        at--;
        first[at] = element;
        if (!take(cursor, end, &node[at])) {
            return false;
        }
    }
    return true;
}

// Reads the top node and what it has below it; with one level the node is the array's one element.
bool readTree(uint8_t** cursor, const uint8_t* end, int32_t levels, uint8_t* bytes, int64_t count)
{
    uint8_t node;
    if (!take(cursor, end, &node)) {
        return false;
    }
    if (levels > 1) {
        return readNodes(cursor, end, levels - 1, node, bytes, count);
    }
    if (count > 0) {
        bytes[0] = node;
    }
    return true;
}

} // namespace

// ---- Fixed fields ---------------------------------------------------------------------------------------------------

void _korBuf_EncodeInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int32_t value)
{
    if (ex->code == 0 && !put(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

void _korBuf_DecodeInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int32_t* value)
{
    if (ex->code == 0 && !take(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

void _korBuf_EncodeUInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint32_t value)
{
    if (ex->code == 0 && !put(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

void _korBuf_DecodeUInt32(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint32_t* value)
{
    if (ex->code == 0 && !take(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

void _korBuf_EncodeInt64(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int64_t value)
{
    if (ex->code == 0 && !put(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
    }
}

void _korBuf_DecodeInt64(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int64_t* value)
{
    if (ex->code == 0 && !take(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

// ---- Texts and runs of bytes ----------------------------------------------------------------------------------------

void _korBuf_EncodeUTF8(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const char* text)
{
    if (ex->code != 0) {
        return;
    }
    size_t size = std::strlen(text) + 1;
    if (!hasRoom(*cursor, end, static_cast<int64_t>(size))) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
        return;
    }
    std::memcpy(*cursor, text, size);
    *cursor += size;
}

void _korBuf_DecodeUTF8(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, char** text, uint8_t duplicate)
{
    if (ex->code != 0) {
        return;
    }
    uint8_t* start = *cursor;
    void* nul = start < end ? std::memchr(start, 0, static_cast<size_t>(end - start)) : nullptr;
    if (nul == nullptr) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
        return;
    }
    *cursor = static_cast<uint8_t*>(nul) + 1;
    char* inPlace = reinterpret_cast<char*>(start);
    *text = duplicate != 0 ? kor::requestCopy(KOR_AT(ex, depth), inPlace) : inPlace;
}

void _korBuf_EncodeBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const void* data,
                         int32_t length)
{
    if (ex->code != 0) {
        return;
    }
    if (!hasRoom(*cursor, end, int64_t{sizeof length} + bytesOf(length))) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
        return;
    }
    put(cursor, end, length);
    putRun(cursor, end, data, length);
}

void _korBuf_DecodeBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, void** data, int32_t* length,
                         uint8_t copy)
{
    if (ex->code != 0) {
        return;
    }
    int32_t told = 0;
    if (!take(cursor, end, &told) || !takeRun(cursor, end, data, told, copy != 0)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
        return;
    }
    *length = told;
}

void _korBuf_EncodeNBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const void* data,
                          int32_t length)
{
    if (ex->code == 0 && !putRun(cursor, end, data, length)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

void _korBuf_DecodeNBytes(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, void** data, int32_t length,
                          uint8_t copy)
{
    if (ex->code == 0 && !takeRun(cursor, end, data, length, copy != 0)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}

// ---- Header integers ------------------------------------------------------------------------------------------------

int32_t _korBuf_ReadHeaderIntImpl(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint64_t* value)
{
    if (ex->code != 0) {
        return 0;
    }
    int32_t width = *cursor < end ? std::countl_one(**cursor) + 1 : 1;
    if (!hasRoom(*cursor, end, width)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
        return 0;
    }
    uint64_t read = loadHeader(*cursor, end, width);
    if (read > greatestHeader) {
        *value = 0;
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, illegalValue);
        return 0;
    }
    *value = read;
    *cursor += width;
    return width;
}

int32_t _korBuf_WriteHeaderIntImpl(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint64_t value)
{
    if (ex->code != 0) {
        return 0;
    }
    if (value > greatestHeader) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, illegalValue);
        return 0;
    }
    int32_t width = putHeader<1>(cursor, end, value);
    if (width == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
    }
    return width;
}

int32_t _korBuf_WriteHeaderIntExpanded(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint64_t value,
                                       int32_t minimumWidth)
{
    if (ex->code != 0) {
        return 0;
    }
    if (!hasRoom(*cursor, end, widest)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
        return 0;
    }
    int32_t width = std::max(headerWidth(value), std::min(minimumWidth, widest));
    if (value > greatestHeader) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, illegalValue);
        return 0;
    }
    storeHeader(cursor, value, width);
    return width;
}

int32_t _korBuf_HeaderIntWireSizeImpl(korEx* ex, uint8_t depth, uint64_t value)
{
    if (ex->code != 0) {
        return 0;
    }
    if (value > greatestHeader) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, illegalValue);
        return 0;
    }
    return headerWidth(value);
}

// ---- Variable integers ----------------------------------------------------------------------------------------------

int32_t _korBuf_ReadVarInt(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const uint8_t* limit,
                           int64_t* value)
{
    if (ex->code != 0) {
        return 0;
    }
    uint64_t word = loadBounded(*cursor, end, limit);
    int32_t width = std::countr_one(static_cast<uint8_t>(word)) + 1;
    if (width < widest) {
        // Up to the top of the word and down again: the sign comes along, what follows the field and the mark go.
        *value = static_cast<int64_t>(word << (64 - 8 * width)) >> (64 - 7 * width);
        *cursor += width;
        if (*cursor > end) {
            KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
        }
        return width;
    }
    *cursor += 1;
    if (!take(cursor, end, value)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
        return 0;
    }
    return width;
}

int32_t _korBuf_WriteVarInt(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, int64_t value)
{
    if (ex->code != 0) {
        return 0;
    }
    if (!hasRoom(*cursor, end, widest)) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, bufferTooSmall);
        return 0;
    }
    int32_t width = varWidth(value);
    uint8_t* to = *cursor;
    *cursor += width;
    auto word = static_cast<uint64_t>(value);
    if (width < 8) {
        store(to, word << width | ((uint64_t{1} << (width - 1)) - 1));
    } else {
        *to = width == widest ? 0xff : 0x7f;
        store(to + 1, word);
    }
    return width;
}

int32_t _korBuf_VarIntWireSize(korEx* ex, uint8_t, int64_t value)
{
    return ex->code != 0 ? 0 : varWidth(value);
}

// ---- Sparse bitmasks ------------------------------------------------------------------------------------------------

void _korBuf_EncodeBitmask(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, const uint8_t* bytes,
                           int32_t count)
{
    if (ex->code != 0) {
        return;
    }
    if (count < 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, illegalValue);
        return;
    }
    // Field and scratch together stay below this for every content: the levels above an array of n bytes have fewer
    // than n / 7 bytes and one for each level.
    int64_t room = end - *cursor;
    if (room < 2 * int64_t{count} + 8) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
        return;
    }
    if (count == 0) {
        *(*cursor)++ = 0;
        return;
    }
    Tree tree(bytes, count, *cursor + room);
    *(*cursor)++ = static_cast<uint8_t>(tree.levels);
    *cursor = writeNodes(tree, *cursor);
}

void _korBuf_DecodeBitmask(korEx* ex, uint8_t depth, uint8_t** cursor, const uint8_t* end, uint8_t* bytes,
                           int32_t count)
{
    if (ex->code != 0) {
        return;
    }
    if (count > 0) {
        std::memset(bytes, 0, static_cast<size_t>(count));
    }
    uint8_t levels = 0;
    bool whole = take(cursor, end, &levels);
    if (levels > maxLevelsToRead) {
        KOR_RAISE(ex, depth, KOR_ERROR_INVALID_VALUE, "Corrupt message header");
        return;
    }
    if (levels > 0) {
        whole = readTree(cursor, end, levels, bytes, count);
    }
    if (!whole) {
        KOR_RAISE(ex, depth, KOR_ERROR_END_OF_BUFFER, endOfBuffer);
    }
}
