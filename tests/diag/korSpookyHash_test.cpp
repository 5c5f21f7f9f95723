// korSpookyHash_test.cpp - the library against a plain rendering of the hash, and that one against published values.

#include "korutil/korSpookyHash.h"

#include "support/korTest.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

namespace {

constexpr uint64_t filler = 0xDEADBEEFDEADBEEF;

struct Hash {
    uint64_t first, second;
    bool operator==(const Hash&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Hash& hash)
{
    return out << std::hex << hash.first << ' ' << hash.second << std::dec;
}

// The words of an area, with zeros behind its end.
std::vector<uint64_t> wordsOf(const uint8_t* data, size_t length, size_t count)
{
    std::vector<uint64_t> words(count);
    std::copy_n(data, length, reinterpret_cast<uint8_t*>(words.data()));
    return words;
}

// The plain rendering: no unrolling, no overlapping loads, words in arrays. Seeds are free, as published values use
// them.
Hash plainShort(const uint8_t* data, size_t length, uint64_t seed)
{
    constexpr int mixing[] = {50, 52, 30, 41, 54, 48, 38, 37, 62, 34, 5, 36};
    constexpr int ending[] = {15, 52, 26, 51, 28, 9, 47, 54, 32, 25, 63};
    std::vector<uint64_t> words = wordsOf(data, length, length / 8 + 4);
    uint64_t h[4] = {seed, seed, filler, filler};
    size_t word = 0;
    for (; word < length / 16 * 2; word += 2) {
        size_t target = word % 4 == 0 ? 2 : 0;
        h[target] += words[word];
        h[target + 1] += words[word + 1];
        for (size_t i = 0; target == 2 && i < 12; i++) {
            h[(i + 2) % 4] = std::rotl(h[(i + 2) % 4], mixing[i]) + h[(i + 3) % 4];
            h[i % 4] ^= h[(i + 2) % 4];
        }
    }
    bool nothingLeft = length % 16 == 0;
    h[2] += nothingLeft ? filler : words[word];
    h[3] += (nothingLeft ? filler : words[word + 1]) + (uint64_t{length} << 56);
    for (size_t i = 0; i < 11; i++) {
        uint64_t& turned = h[(i + 2) % 4];
        h[(i + 3) % 4] ^= turned;
        turned = std::rotl(turned, ending[i]);
        h[(i + 3) % 4] += turned;
    }
    return {h[0], h[1]};
}

Hash plainLong(const uint8_t* data, size_t length, uint64_t seed)
{
    constexpr int mixing[] = {11, 32, 43, 31, 17, 28, 39, 57, 55, 54, 22, 46};
    constexpr int ending[] = {44, 15, 34, 21, 38, 33, 10, 13, 38, 53, 42, 54};
    std::vector<uint64_t> words = wordsOf(data, length, (length / 96 + 1) * 12);
    words.back() |= uint64_t{length % 96} << 56;
    uint64_t h[12];
    for (size_t i = 0; i < 12; i++) {
        h[i] = i % 3 == 2 ? filler : seed;
    }
    for (size_t word = 0; word < length / 96 * 12; word++) {
        size_t i = word % 12;
        h[i] += words[word];
        h[(i + 2) % 12] ^= h[(i + 10) % 12];
        h[(i + 11) % 12] ^= h[i];
        h[i] = std::rotl(h[i], mixing[i]);
        h[(i + 11) % 12] += h[(i + 1) % 12];
    }
    for (size_t i = 0; i < 12; i++) {
        h[i] += words[words.size() - 12 + i];
    }
    for (size_t step = 0; step < 36; step++) {
        size_t i = step % 12;
        h[(i + 11) % 12] += h[(i + 1) % 12];
        h[(i + 2) % 12] ^= h[(i + 11) % 12];
        h[(i + 1) % 12] = std::rotl(h[(i + 1) % 12], ending[i]);
    }
    return {h[0], h[1]};
}

// SMHasher's verification code of a hash: keys of 0 to 255 bytes, each with a seed of its own, then the hash of all
// hashes.
uint32_t verificationCode(size_t bytesOfHash)
{
    uint8_t key[256];
    std::vector<uint8_t> all(256 * bytesOfHash);
    for (size_t i = 0; i < 256; i++) {
        key[i] = static_cast<uint8_t>(i);
        Hash hash = i < KOR_SPOOKY_LONG_LENGTH ? plainShort(key, i, 256 - i) : plainLong(key, i, 256 - i);
        std::memcpy(&all[i * bytesOfHash], &hash, bytesOfHash);
    }
    return static_cast<uint32_t>(plainLong(all.data(), all.size(), 0).first);
}

TEST(korSpookyHash, ThePlainRenderingIsThePublishedHash)
{
    EXPECT_EQ(verificationCode(4), 0xA48BE265u);
    EXPECT_EQ(verificationCode(8), 0x972C4BDCu);
    EXPECT_EQ(verificationCode(16), 0x893CFCBEu);
}

// Each length and alignment, from a block of exactly that size, so that a sanitizer sees a read beyond either end.
TEST(korSpookyHash, EveryLengthAndAlignmentInBothForms)
{
    kor::test::Random random;
    for (size_t length = 0; length <= 600; length++) {
        size_t offset = random.below(16);
        std::vector<uint8_t> data(offset + length);
        for (uint8_t& byte : data) {
            byte = static_cast<uint8_t>(random.next());
        }
        const uint8_t* start = data.data() + offset;
        Hash hash;
        hash.first = _korSpookyHash_Short(start, length, &hash.second);
        ASSERT_EQ(hash, plainShort(start, length, 0)) << length;
        ASSERT_EQ(_korSpookyHash_Short(start, length, nullptr), hash.first);
        hash.first = _korSpookyHash_Long(start, length, &hash.second);
        ASSERT_EQ(hash, plainLong(start, length, 0)) << length;
        ASSERT_EQ(_korSpookyHash_Long(start, length, nullptr), hash.first);
    }
}

} // namespace
