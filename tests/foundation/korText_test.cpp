// korText_test.cpp - cuts at the end of a buffer, lengths that can be added, the words that stand for numbers.

#include "support/korTest.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
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

TEST(korText, FormattingGivesTheLengthThatStandsInTheBuffer)
{
    Guarded buffer;
    EXPECT_EQ(_kor_snprintf(buffer.bytes, 8, "%s", "abcdefgh"), 7u);
    EXPECT_STREQ(buffer.bytes, "abcdefg");
    EXPECT_TRUE(buffer.intactFrom(8));
    EXPECT_EQ(_kor_snprintf(buffer.bytes, 8, "%s", "abcdefg"), 7u);
    EXPECT_EQ(_kor_snprintf(buffer.bytes, 1, "%d", 12), 0u);
    EXPECT_STREQ(buffer.bytes, "");
    EXPECT_EQ(_kor_snprintf(nullptr, 0, "%d", 12), 0u);
    EXPECT_EQ(_kor_snprintf(buffer.bytes, sizeof buffer.bytes, "%lld %zu %hhd", -1LL, size_t{2}, 3), 6u);
    EXPECT_STREQ(buffer.bytes, "-1 2 3") << "the formats of C99, on every system";
}

TEST(korText, LengthsNeverLookBehindTheirLimit)
{
    const char text[3] = {'a', 'b', 'c'};
    EXPECT_EQ(_kor_strnlen(text, 3), 3u);
    EXPECT_EQ(_kor_strnlen("ab", 9), 2u);
    EXPECT_EQ(_kor_strnlen(nullptr, 0), 0u);
    EXPECT_EQ(_kor_strlen("abc"), 3u);

    Guarded open;
    EXPECT_EQ(_kor_bufnlen(open.bytes, 0), 0u);
    EXPECT_TRUE(open.intactFrom(0));
    EXPECT_EQ(_kor_bufnlen(open.bytes, 4), 3u) << "no end inside: the last byte becomes it";
    EXPECT_STREQ(open.bytes, "###");
    EXPECT_TRUE(open.intactFrom(4));
    EXPECT_EQ(_kor_bufnlen(open.bytes, 32), 3u);
}

struct Placing {
    std::string_view before; // what stands in the buffer; "#" follows to the end
    size_t size;
    const char* source;
    size_t length;
    uint32_t result;
    std::string_view after;
};

TEST(korText, CopyCutsAndTerminates)
{
    const Placing cases[] = {
        {"", 3, "abc", 0, 2, "ab"},         {"", 4, "abc", 0, 3, "abc"},       {"", 1, "abc", 0, 0, ""},
        {"", 9, "abc", 2, 2, "ab"},         {"", 3, "abcdef", 5, 2, "ab"},     {"", 9, "", 0, 0, ""},
        {"", 9, "a\0b", 3, 3, {"a\0b", 3}}, {"", 3, "a\0b", 3, 2, {"a\0", 2}}, {"", 9, nullptr, 0, 0, ""},
    };
    for (const Placing& test : cases) {
        Guarded buffer(test.before);
        EXPECT_EQ(_kor_StringCopy(buffer.bytes, test.size, test.source, test.length), test.result);
        EXPECT_EQ(std::string_view(buffer.bytes, test.result), test.after);
        EXPECT_EQ(buffer.bytes[test.result], '\0');
        EXPECT_TRUE(buffer.intactFrom(test.size));
    }
    EXPECT_EQ(_kor_StringCopy(nullptr, 0, "abc", 0), 0u);
}

TEST(korText, CatAppendsBehindWhateverStandsThere)
{
    const std::string_view ab("ab\0", 3);
    const Placing cases[] = {
        {ab, 9, "cd", 0, 4, "abcd"},  {ab, 5, "cd", 0, 4, "abcd"},   {ab, 4, "cd", 0, 3, "abc"},
        {ab, 9, "cdef", 1, 3, "abc"}, {"abcd", 4, "x", 0, 3, "abc"}, {"abcdef", 6, "", 0, 5, "abcde"},
        {"a", 1, "x", 0, 0, ""},
    };
    for (const Placing& test : cases) {
        Guarded buffer(test.before);
        EXPECT_EQ(_kor_StringCat(buffer.bytes, test.size, test.source, test.length), test.result);
        EXPECT_EQ(std::string_view(buffer.bytes, test.result), test.after);
        EXPECT_EQ(buffer.bytes[test.result], '\0');
        EXPECT_TRUE(buffer.intactFrom(test.size));
    }
    EXPECT_EQ(_kor_StringCat(nullptr, 0, "abc", 0), 0u);
}

TEST(korText, TrimLeavesABlankSourceAlone)
{
    Guarded buffer;
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 32, "", 0), 0u);
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 32, " \t\r\n\v\f ", 0), 0u);
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 32, "  a", 2), 0u) << "the letter lies behind the length";
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 0, "a", 0), 0u);
    EXPECT_TRUE(buffer.intactFrom(0));

    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 32, "\t a b \n", 0), 3u);
    EXPECT_STREQ(buffer.bytes, "a b");
    EXPECT_EQ(_kor_TrimWhitespace(buffer.bytes, 3,
                                  " \xE4"
                                  "bcd ",
                                  0),
              2u);
    EXPECT_STREQ(buffer.bytes, "\xE4"
                               "b");

    Guarded inPlace({"  abc  \0", 8});
    EXPECT_EQ(_kor_TrimWhitespace(inPlace.bytes, 8, inPlace.bytes, 0), 3u);
    EXPECT_STREQ(inPlace.bytes, "abc");
}

TEST(korText, UnsignedNumbersInThreeBases)
{
    const struct {
        const char* text;
        uint64_t value;
        size_t taken;
    } cases[] = {
        {"0", 0, 1},
        {" 42x", 42, 3},
        {"0x1Fg", 31, 4},
        {"0779", 63, 3},
        {"none", 0, 0},
        {"18446744073709551615", UINT64_MAX, 20},
        {"18446744073709551616", UINT64_MAX, 20},
    };
    for (const auto& test : cases) {
        char* end = nullptr;
        EXPECT_EQ(_kor_parseU64(test.text, &end), test.value) << test.text;
        EXPECT_EQ(end - test.text, static_cast<ptrdiff_t>(test.taken)) << test.text;
    }
}

TEST(korText, FloatingPointNumbersAndWords)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const struct {
        const char* text;
        double value;
        size_t taken;
    } cases[] = {
        {"1.5e3,", 1500, 5},
        {" -.25", -0.25, 5},
        {"+7", 7, 2},
        {"x", 0, 0},
        {"", 0, 0},
        {"-", 0, 0},
        {"1e999", infinity, 5},
        {"inf", infinity, 3},
        {" -InFiNiTy.", -infinity, 10},
        {"+INFINIT", infinity, 4},
        {"in", 0, 0},
        {"-inf", -infinity, 4},
        {"nan", nan, 3},
        {"NaN(0aZ)x", nan, 8},
        {"nan()", nan, 5},
        {"nan(a-b)", nan, 3},
        {"nan(ab", nan, 3},
        {"-nan", nan, 4},
        {"na", 0, 0},
    };
    for (const auto& test : cases) {
        char* end = nullptr;
        double value = _kor_strtod(test.text, &end);
        EXPECT_TRUE(value == test.value || (std::isnan(value) && std::isnan(test.value))) << test.text << ": " << value;
        EXPECT_EQ(end - test.text, static_cast<ptrdiff_t>(test.taken)) << test.text;
        double again = _kor_strtod(test.text, nullptr);
        EXPECT_TRUE(again == value || std::isnan(value));
    }
}

TEST(korText, ErrorTextsOfSocketsAndOfTheLibrary)
{
    EXPECT_STREQ(_kor_strerror(10035),
                 "The socket is marked as non-blocking and the connection can not be completed now.");
    EXPECT_STREQ(_kor_strerror(10093), "WINSOCK has not been initialized");
    EXPECT_STREQ(_kor_strerror(ENOENT), std::strerror(ENOENT));
    EXPECT_STRNE(_kor_strerror(10054), "") << "a socket number without a text of its own";
}

} // namespace

TEST(korText, FormatsWithAListOfArguments)
{
    auto format = [](char* buffer, size_t size, const char* pattern, ...) KOR_PRINTF(4, 5) {
        va_list arguments;
        va_start(arguments, pattern);
        uint32_t length = _kor_vsnprintf(buffer, size, pattern, arguments);
        va_end(arguments);
        return length;
    };
    char buffer[8] = "#######";
    EXPECT_EQ(format(buffer, 0, "%d", 1), 0u);
    EXPECT_STREQ(buffer, "#######");
    EXPECT_EQ(format(buffer, 6, "%zu-%s", size_t{12}, "abc"), 5u) << "what stands there, not what was cut";
    EXPECT_STREQ(buffer, "12-ab");
}
