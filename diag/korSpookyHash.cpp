// korSpookyHash.cpp - SpookyHash V2, as Bob Jenkins published it (burtleburtle.net/bob/hash/spooky.html).
//
// The hash is defined on little-endian words, which is how this library's processors load them.

#include "korutil/korSpookyHash.h"

#include <bit>
#include <cstring>
#include <utility>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr uint64_t filler = 0xDEADBEEFDEADBEEF; // stands where no seed and no input does

uint64_t load64(const uint8_t* data)
{
    uint64_t word;
    std::memcpy(&word, data, sizeof word);
    return word;
}

uint64_t load32(const uint8_t* data)
{
    uint32_t word;
    std::memcpy(&word, data, sizeof word);
    return word;
}

uint64_t finish(uint64_t first, uint64_t second, uint64_t* secondOut)
{
    if (secondOut != nullptr) {
        *secondOut = second;
    }
    return first;
}

// ---- The short form -------------------------------------------------------------------------------------------------

struct ShortState {
    uint64_t a, b, c, d;
};

[[gnu::always_inline]] inline void mixStep(uint64_t& turned, uint64_t added, uint64_t& touched, int rotation)
{
    turned = std::rotl(turned, rotation) + added;
    touched ^= turned;
}

[[gnu::always_inline]] inline void shortMix(ShortState& s)
{
    mixStep(s.c, s.d, s.a, 50);
    mixStep(s.d, s.a, s.b, 52);
    mixStep(s.a, s.b, s.c, 30);
    mixStep(s.b, s.c, s.d, 41);
    mixStep(s.c, s.d, s.a, 54);
    mixStep(s.d, s.a, s.b, 48);
    mixStep(s.a, s.b, s.c, 38);
    mixStep(s.b, s.c, s.d, 37);
    mixStep(s.c, s.d, s.a, 62);
    mixStep(s.d, s.a, s.b, 34);
    mixStep(s.a, s.b, s.c, 5);
    mixStep(s.b, s.c, s.d, 36);
}

[[gnu::always_inline]] inline void endStep(uint64_t& touched, uint64_t& turned, int rotation)
{
    touched ^= turned;
    turned = std::rotl(turned, rotation);
    touched += turned;
}

[[gnu::always_inline]] inline void shortEnd(ShortState& s)
{
    endStep(s.d, s.c, 15);
    endStep(s.a, s.d, 52);
    endStep(s.b, s.a, 26);
    endStep(s.c, s.b, 51);
    endStep(s.d, s.c, 28);
    endStep(s.a, s.d, 9);
    endStep(s.b, s.a, 47);
    endStep(s.c, s.b, 54);
    endStep(s.d, s.c, 32);
    endStep(s.a, s.d, 25);
    endStep(s.b, s.a, 63);
}

// Adds the last 0 to 15 bytes as if zeros followed. Overlapping loads stand in for a loop over the bytes.
[[gnu::always_inline]] inline void addTail(ShortState& s, const uint8_t* data, uint64_t count)
{
    if (count >= 8) {
        s.c += load64(data);
        s.d += count > 8 ? load64(data + count - 8) >> (16 - count) * 8 : 0;
    } else if (count >= 4) {
        s.c += load32(data) | load32(data + count - 4) << (count - 4) * 8;
    } else if (count > 0) {
        uint64_t middle = count / 2;
        s.c += uint64_t{data[0]} | uint64_t{data[middle]} << middle * 8 | uint64_t{data[count - 1]} << (count - 1) * 8;
    } else {
        s.c += filler;
        s.d += filler;
    }
}

} // namespace

uint64_t _korSpookyHash_Short(const void* data, uint64_t length, uint64_t* second)
{
    auto* bytes = static_cast<const uint8_t*>(data);
    ShortState s = {0, 0, filler, filler};
    uint64_t left = length;
    for (; left >= 32; left -= 32, bytes += 32) {
        s.c += load64(bytes);
        s.d += load64(bytes + 8);
        shortMix(s);
        s.a += load64(bytes + 16);
        s.b += load64(bytes + 24);
    }
    if (left >= 16) {
        s.c += load64(bytes);
        s.d += load64(bytes + 8);
        shortMix(s);
        left -= 16;
        bytes += 16;
    }
    s.d += length << 56;
    addTail(s, bytes, left);
    shortEnd(s);
    return finish(s.a, s.b, second);
}

// ---- The long form --------------------------------------------------------------------------------------------------

namespace {

constexpr size_t wordsInBlock = 12;
constexpr size_t blockSize = wordsInBlock * sizeof(uint64_t);

constexpr int blockRotations[wordsInBlock] = {11, 32, 43, 31, 17, 28, 39, 57, 55, 54, 22, 46};
constexpr int endRotations[wordsInBlock] = {44, 15, 34, 21, 38, 33, 10, 13, 38, 53, 42, 54};

using LongState = uint64_t[wordsInBlock];

// Expands a step for each word, with its number known to the compiler, so that the whole state stays in registers.
template <typename Step, size_t... numbers>
[[gnu::always_inline]] inline void forEachWord(Step step, std::index_sequence<numbers...>)
{
    (step(std::integral_constant<size_t, numbers>{}), ...);
}

template <typename Step>
[[gnu::always_inline]] inline void forEachWord(Step step)
{
    forEachWord(step, std::make_index_sequence<wordsInBlock>{});
}

[[gnu::always_inline]] inline void mixBlock(LongState& s, const uint8_t* block)
{
    forEachWord([&](auto number) __attribute__((always_inline)) {
        constexpr size_t i = number;
        s[i] += load64(block + i * 8);
        s[(i + 2) % 12] ^= s[(i + 10) % 12];
        s[(i + 11) % 12] ^= s[i];
        s[i] = std::rotl(s[i], blockRotations[i]);
        s[(i + 11) % 12] += s[(i + 1) % 12];
    });
}

[[gnu::always_inline]] inline void endRound(LongState& s)
{
    forEachWord([&](auto number) __attribute__((always_inline)) {
        constexpr size_t i = number;
        s[(i + 11) % 12] += s[(i + 1) % 12];
        s[(i + 2) % 12] ^= s[(i + 11) % 12];
        s[(i + 1) % 12] = std::rotl(s[(i + 1) % 12], endRotations[i]);
    });
}

// The last block: what is left of the input, zeros, and the count of the bytes left in the last place.
[[gnu::always_inline]] inline void endBlock(LongState& s, const uint8_t* bytes, size_t left)
{
    uint8_t block[blockSize] = {};
    if (left != 0) {
        std::memcpy(block, bytes, left);
    }
    block[blockSize - 1] = static_cast<uint8_t>(left);
    for (size_t i = 0; i < wordsInBlock; i++) {
        s[i] += load64(block + i * 8);
    }
    endRound(s);
    endRound(s);
    endRound(s);
}

} // namespace

uint64_t _korSpookyHash_Long(const void* data, uint64_t length, uint64_t* second)
{
    auto* bytes = static_cast<const uint8_t*>(data);
    LongState s = {0, 0, filler, 0, 0, filler, 0, 0, filler, 0, 0, filler};
    uint64_t left = length;
    for (; left >= blockSize; left -= blockSize, bytes += blockSize) {
        mixBlock(s, bytes);
    }
    endBlock(s, bytes, left);
    return finish(s[0], s[1], second);
}
