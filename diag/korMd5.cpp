// korMd5.cpp - MD5, after RFC 1321.
//
// The digest is defined on little-endian words, which is how this library's processors load them.

#include "korutil/korMd5.h"

#include <bit>
#include <cstring>
#include <utility>

static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(korMd5State) == 88);

namespace {

constexpr size_t blockSize = KOR_MD5_BLOCK_SIZE;
constexpr size_t lengthOffset = blockSize - 8; // the last block ends with the count of bits

// The whole part of 2^32 times the sine of 1, 2, ... 64.
constexpr uint32_t sines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391,
};

constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The input word that a step takes.
constexpr size_t wordOf(size_t step)
{
    constexpr size_t factors[4] = {1, 5, 3, 7};
    constexpr size_t offsets[4] = {0, 1, 5, 0};
    return (factors[step / 16] * step + offsets[step / 16]) % 16;
}

template <size_t round>
[[gnu::always_inline]] inline uint32_t combine(uint32_t x, uint32_t y, uint32_t z)
{
    if constexpr (round == 0) {
        return z ^ (x & (y ^ z)); // x chooses between y and z
    } else if constexpr (round == 1) {
        return y ^ (z & (x ^ y)); // z chooses between x and y
    } else if constexpr (round == 2) {
        return x ^ y ^ z;
    } else {
        return y ^ (x | ~z);
    }
}

// The four values change places from step to step; with the step known to the compiler nothing moves.
template <size_t step>
[[gnu::always_inline]] inline void takeStep(uint32_t (&v)[4], const uint32_t* words)
{
    constexpr size_t round = step / 16;
    uint32_t& a = v[(64 - step) % 4];
    uint32_t b = v[(65 - step) % 4];
    a += combine<round>(b, v[(66 - step) % 4], v[(67 - step) % 4]) + words[wordOf(step)] + sines[step];
    a = std::rotl(a, rotations[round][step % 4]) + b;
}

template <size_t... steps>
[[gnu::always_inline]] inline void takeSteps(uint32_t (&v)[4], const uint32_t* words, std::index_sequence<steps...>)
{
    (takeStep<steps>(v, words), ...);
}

void takeBlock(uint32_t* chain, const uint8_t* block)
{
    uint32_t words[16];
    std::memcpy(words, block, blockSize);
    uint32_t v[4] = {chain[0], chain[1], chain[2], chain[3]};
    takeSteps(v, words, std::make_index_sequence<64>{});
    for (int i = 0; i < 4; i++) {
        chain[i] += v[i];
    }
}

size_t pendingCount(const korMd5State* state)
{
    return state->bitCount[0] / 8 % blockSize;
}

void addBits(korMd5State* state, uint64_t bits)
{
    uint64_t sum = (uint64_t{state->bitCount[1]} << 32 | state->bitCount[0]) + bits;
    state->bitCount[0] = static_cast<uint32_t>(sum);
    state->bitCount[1] = static_cast<uint32_t>(sum >> 32);
}

} // namespace

void md5_init(korMd5State* state)
{
    *state = {{0, 0}, {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476}, {}};
}

void md5_append(korMd5State* state, const uint8_t* data, int32_t count)
{
    if (count < 1) {
        return;
    }
    size_t left = static_cast<size_t>(count);
    size_t held = pendingCount(state);
    addBits(state, left * 8);
    if (held != 0) {
        size_t fitting = left < blockSize - held ? left : blockSize - held;
        std::memcpy(state->pending + held, data, fitting);
        if (held + fitting < blockSize) {
            return;
        }
        takeBlock(state->chain, state->pending);
        data += fitting;
        left -= fitting;
    }
    for (; left >= blockSize; left -= blockSize, data += blockSize) {
        takeBlock(state->chain, data);
    }
    std::memcpy(state->pending, data, left);
}

void md5_finish(korMd5State* state, uint8_t digest[KOR_MD5_DIGEST_SIZE])
{
    size_t held = pendingCount(state);
    state->pending[held++] = 0x80;
    if (held > lengthOffset) { // no room for the count: it goes to a block of its own
        std::memset(state->pending + held, 0, blockSize - held);
        takeBlock(state->chain, state->pending);
        held = 0;
    }
    std::memset(state->pending + held, 0, lengthOffset - held);
    std::memcpy(state->pending + lengthOffset, state->bitCount, sizeof state->bitCount);
    takeBlock(state->chain, state->pending);
    std::memcpy(digest, state->chain, KOR_MD5_DIGEST_SIZE);
}
