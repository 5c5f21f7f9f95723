// korText_test.cpp - cuts at the end of a buffer, lengths that can be added, the words that stand for numbers.

#include "support/korTest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

namespace {

// A buffer whose bytes behind `size` must stay as they were.
struct Guarded {
    explicit Guarded(std::string_view content = "")
    {
        std::memset(bytes, '#', sizeof bytes);
        std::memcpy(bytes, content.data(), content.size());
    }
    bool intactFrom(size_t offset) const
    {
        return std::all_of(bytes + offset, bytes + sizeof bytes, [](char byte) { return byte == '#'; });
    }
    char bytes[32];
};

uint32_t KOR_PRINTF(3, 4) formatted(char* buffer, size_t size, const char* pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    uint32_t length = _kor_vsnprintf(buffer, size, pattern, arguments);
    va_end(arguments);
    return length;
}

TEST(korText, FormattingGivesTheLengthThatStandsInTheBuffer)
{
    Guarded buffer;
    EXPECT_EQ(formatted(buffer.bytes, 8, "%s", "abcdefgh"), 7u);
    EXPECT_STREQ(buffer.bytes, "abcdefg");
    EXPECT_TRUE(buffer.intactFrom(8));
    EXPECT_EQ(_kor_snprintf(buffer.bytes, 1, "%d", 12), 0u);
    EXPECT_EQ(_kor_snprintf(nullptr, 0, "%d", 12), 0u);
    EXPECT_EQ(_kor_snprintf(buffer.bytes, sizeof buffer.bytes, "%lld %zu %hhd", -1LL, size_t{2}, 3), 6u);
    EXPECT_STREQ(buffer.bytes, "-1 2 3") << "the formats of C99, on every system";
}

TEST(korText, LengthsNeverLookBehindTheirLimit)
{
    const char text[3] = {'a', 'b', 'c'};
    EXPECT_EQ(_kor_strnlen(text, 3), 3u);
    EXPECT_EQ(_kor_strlen("abc"), 3u);
    Guarded open;
    EXPECT_EQ(_kor_bufnlen(open.bytes, 0), 0u);
    EXPECT_TRUE(open.intactFrom(0));
    EXPECT_EQ(_kor_bufnlen(open.bytes, 4), 3u) << "no end inside: the last byte becomes it";
    EXPECT_STREQ(open.bytes, "###");
    EXPECT_TRUE(open.intactFrom(4));
}

TEST(korText, CopyAndCatCutAndTerminate)
{
    const std::string_view ab("ab\0", 3);
    struct {
        uint32_t (*place)(char*, size_t, const char*, size_t);
        std::string_view before; // what stands in the buffer; "#" follows to the end
        size_t size;
        const char* source;
        size_t length;
        std::string_view after;
    } const cases[] = {
        {_kor_StringCopy, "", 3, "abc", 0, "ab"},   {_kor_StringCopy, "", 4, "abc", 0, "abc"},
        {_kor_StringCopy, "", 1, "abc", 0, ""},     {_kor_StringCopy, "", 9, "a\0b", 3, {"a\0b", 3}},
        {_kor_StringCopy, "", 9, nullptr, 0, ""},   {_kor_StringCat, ab, 5, "cd", 0, "abcd"},
        {_kor_StringCat, ab, 4, "cd", 0, "abc"},    {_kor_StringCat, ab, 9, "cdef", 1, "abc"},
        {_kor_StringCat, "abcd", 4, "x", 0, "abc"}, {_kor_StringCat, "a", 1, "x", 0, ""},
    };
    for (const auto& test : cases) {
        Guarded buffer(test.before);
        uint32_t length = test.place(buffer.bytes, test.size, test.source, test.length);
        EXPECT_EQ(std::string_view(buffer.bytes, length), test.after);
        EXPECT_EQ(buffer.bytes[length], '\0');
        EXPECT_TRUE(buffer.intactFrom(test.size));
    }
}

TEST(korText, TrimLeavesABlankSourceAlone)
{
    Guarded buffer;
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 32, " \t\r\n\v\f ", 0), 0u);
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 32, "  a", 2), 0u) << "the letter lies behind the length";
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 0, "a", 0), 0u);
    EXPECT_TRUE(buffer.intactFrom(0));
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 3, " \344bcd ", 0), 2u);
    EXPECT_STREQ(buffer.bytes, "\344b");
    Guarded inPlace({" \ta b  \0", 8});
    EXPECT_EQ(_kor_TrimWhitespace(inPlace.bytes, 8, inPlace.bytes, 0), 3u);
    EXPECT_STREQ(inPlace.bytes, "a b");
}

// The part of `marked` that is read ends at its '|'; without one nothing is.
template <typename Number>
void expectRead(Number (*read)(const char*, char**), const std::string& marked, Number expected)
{
    size_t taken = marked.find('|');
    std::string text = marked;
    std::erase(text, '|');
    char* end = nullptr;
    Number value = read(text.c_str(), &end);
    EXPECT_TRUE(value == expected || (value != value && expected != expected)) << marked << ": " << value;
    EXPECT_EQ(end - text.c_str(), taken == std::string::npos ? 0 : static_cast<ptrdiff_t>(taken)) << marked;
}

TEST(korText, NumbersAndHowFarTheyGo)
{
    const std::pair<const char*, uint64_t> whole[] = {
        {" 42|x", 42}, {"0x1F|g", 31}, {"077|9", 63}, {"none", 0}, {"18446744073709551616|", UINT64_MAX},
    };
    for (auto [text, value] : whole) {
        expectRead(_kor_parseU64, text, value);
    }
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const std::pair<const char*, double> fractions[] = {
        {"1.5e3|,", 1500},
        {" -.25|", -0.25},
        {"", 0},
        {"-", 0},
        {"1e999|", infinity},
        {"inf|", infinity},
        {" -InFiNiTy|.", -infinity},
        {"+INF|INIT", infinity},
        {"in", 0},
        {"NaN(0aZ)|x", nan},
        {"nan|(a-b)", nan},
        {"nan|(ab", nan},
        {"-nan|", nan},
        {"na", 0},
    };
    for (auto [text, value] : fractions) {
        expectRead(_kor_strtod, text, value);
    }
    EXPECT_EQ(_kor_strtod("2.5", nullptr), 2.5);
}

TEST(korText, ErrorTextsOfSocketsAndOfTheLibrary)
{
    EXPECT_STREQ(_kor_strerror(10093), "WINSOCK has not been initialized");
    EXPECT_STREQ(_kor_strerror(ENOENT), std::strerror(ENOENT));
}

} // namespace
