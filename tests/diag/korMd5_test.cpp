// korMd5_test.cpp - the digests that RFC 1321 lists, and input that arrives in pieces.

#include "korutil/korMd5.h"

#include "support/korTest.h"

#include <string_view>

namespace {

void append(korMd5State& state, std::string_view piece)
{
    md5_append(&state, reinterpret_cast<const uint8_t*>(piece.data()), static_cast<int32_t>(piece.size()));
}

std::string finished(korMd5State& state)
{
    uint8_t digest[KOR_MD5_DIGEST_SIZE];
    md5_finish(&state, digest);
    std::string text;
    for (uint8_t byte : digest) {
        char pair[3];
        _kor_snprintf(pair, sizeof pair, "%02x", byte);
        text += pair;
    }
    return text;
}

std::string digestOf(std::string_view text)
{
    korMd5State state;
    md5_init(&state);
    append(state, text);
    return finished(state);
}

TEST(korMd5, TheListedDigests)
{
    EXPECT_EQ(digestOf(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(digestOf("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(digestOf("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(digestOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(digestOf("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
    EXPECT_EQ(digestOf(std::string(1'000'000, 'a')), "7707d6ae4e027c70eea2a935c2296f21");
}

TEST(korMd5, PiecesMakeTheSameDigestAsTheWhole)
{
    kor::test::Random random;
    std::string text(300, ' ');
    for (char& byte : text) {
        byte = static_cast<char>(random.next());
    }
    for (size_t length = 0; length <= text.size(); length++) {
        std::string_view left(text.data(), length);
        korMd5State state;
        md5_init(&state);
        while (!left.empty()) {
            size_t piece = std::min<size_t>(left.size(), random.below(140));
            append(state, left.substr(0, piece));
            left.remove_prefix(piece);
        }
        ASSERT_EQ(finished(state), digestOf({text.data(), length})) << length;
    }
}

TEST(korMd5, TheCountOfBitsCarriesIntoItsHighWord)
{
    korMd5State state;
    md5_init(&state);
    state.bitCount[0] = 0xFFFFFE00; // as after 512 MiB less one block
    append(state, std::string(65, 'x'));
    EXPECT_EQ(state.bitCount[0], 8u);
    EXPECT_EQ(state.bitCount[1], 1u);
}

} // namespace
