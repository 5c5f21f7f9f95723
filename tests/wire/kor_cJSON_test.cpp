// kor_cJSON_test.cpp - JSON: the grammar, exact numbers, printing beside plain cJSON, trees that change, hooks.

#include "korutil/kor_cJSON.h"

#include "support/korTest.h"

#include <cjson/cJSON.h>

#include <clocale>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace {

using namespace kor::test;

struct Deleter {
    void operator()(kor_cJSON* item) const { _kor_cJSON_Delete(item); }
    void operator()(char* text) const { _kor_cJSON_Free(text); }
};
using Item = std::unique_ptr<kor_cJSON, Deleter>;

std::string take(char* text)
{
    std::unique_ptr<char, Deleter> owner(text);
    return text == nullptr ? "(null)" : text;
}

std::string printed(const kor_cJSON* item)
{
    return take(_kor_cJSON_PrintUnformatted(item));
}

Item parse(const std::string& text)
{
    return Item(_kor_cJSON_Parse(text.c_str()));
}

Item parseWhole(const std::string& text)
{
    return Item(_kor_cJSON_ParseWithOpts(text.c_str(), nullptr, 1));
}

std::string nested(size_t depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

// ---- Reading --------------------------------------------------------------------------------------------------------

// Texts of the grammar of RFC 8259, and what they print as.
TEST(KorJson, ValidTexts)
{
    struct {
        const char *text, *print;
    } cases[] = {
        {"null", "null"},
        {" \t\r\n true ", "true"},
        {"[]", "[]"},
        {"[ ]", "[]"},
        {"{}", "{}"},
        {"{ }", "{}"},
        {"[1,[2,[false]],{}]", "[1,[2,[false]],{}]"},
        {"{\"\":0}", "{\"\":0}"},
        {"{\"a\" : \"b\" , \"a\" : null}", "{\"a\":\"b\",\"a\":null}"},
        {"\"\"", "\"\""},
        {R"("\"\\\/\b\f\n\r\t")", R"("\"\\/\b\f\n\r\t")"},
        {R"("\u0041\u00e9\u20AC\uD834\udd1e\u001f")", "\"A\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E\\u001f\""},
        {"\"\xC3\xA9\x7F\"", "\"\xC3\xA9\x7F\""},
        {"-0", "0"},
        {"-12", "-12"},
        {"1.5", "1.500000"},
        {"0.5e1", "5"},
        {"1E+2", "100"},
        {"100e-2", "1"},
        {"\xEF\xBB\xBF[1]", "[1]"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(printed(parseWhole(c.text).get()), c.print) << c.text;
    }
}

TEST(KorJson, InvalidTexts)
{
    for (const char* text : {"",
                             " ",
                             "nul",
                             "nulL",
                             "True",
                             "[",
                             "]",
                             "{",
                             "[1",
                             "[1,",
                             "[1,]",
                             "[,1]",
                             "[1 2]",
                             "[1}",
                             "{\"a\"}",
                             "{\"a\":}",
                             "{\"a\":1,}",
                             "{a:1}",
                             "{'a':1}",
                             "{1:1}",
                             "{\"a\" 1}",
                             "{\"a\":1 \"b\":2}",
                             "\"",
                             "\"a",
                             "\"\\",
                             "\"\\\"",
                             "\"\\x41\"",
                             "\"\\u12\"",
                             "\"\\u12G4\"",
                             "\"\\ud800\"",
                             "\"\\ud800x\"",
                             "\"\\ud800\\u0041\"",
                             "\"\\udc00\"",
                             "\"\\u1\"23\"",
                             "-",
                             "+1",
                             ".5",
                             "-.5",
                             "--1",
                             "[1.]",
                             "[1e]",
                             "[1e+]",
                             "[1.e1]",
                             "0x10",
                             "Infinity",
                             "NaN",
                             "'a'",
                             "1 2",
                             "[1]x",
                             "// c\n1"}) {
        EXPECT_EQ(parseWhole(text), nullptr) << text;
    }
    EXPECT_STREQ(_kor_cJSON_GetErrorPtr(), "not supported");
    EXPECT_EQ(_kor_cJSON_Parse(nullptr), nullptr);
}

// Left open by the standard, or lenient as cJSON is.
TEST(KorJson, ImplementationDefinedTexts)
{
    EXPECT_EQ(printed(parse("1 2").get()), "1"); // what follows is not looked at
    EXPECT_EQ(printed(parseWhole("[012]").get()), "[12]");
    EXPECT_EQ(printed(parseWhole("\"a\nb\"").get()), "\"a\\nb\"");
    EXPECT_EQ(printed(parseWhole("\x01[\x0b]").get()), "[]");
    EXPECT_TRUE(std::isinf(parseWhole("1e999")->valuedouble));
    EXPECT_EQ(parseWhole("-1e999")->valuelong, INT64_MIN);
    EXPECT_EQ(parseWhole("1e-999")->valuedouble, 0);
}

TEST(KorJson, DepthIsBounded)
{
    EXPECT_EQ(printed(parseWhole(nested(1000)).get()), nested(1000));
    EXPECT_EQ(parseWhole(nested(1001)), nullptr);
    for (const char* piece : {"[", "{\"a\":", "[{\"a\":", "[1,"}) {
        std::string text;
        for (int i = 0; i < 200000; i++) {
            text += piece;
        }
        EXPECT_EQ(parse(text), nullptr);
    }
    Item deep(_kor_cJSON_CreateArray());
    for (int i = 0; i < 200000; i++) { // built, not read: freed without a call for each level
        Item outer(_kor_cJSON_CreateArray());
        ASSERT_TRUE(_kor_cJSON_AddItemToArray(outer.get(), deep.release()));
        deep = std::move(outer);
    }
    EXPECT_EQ(_kor_cJSON_Print(deep.get()), nullptr);
    EXPECT_EQ(_kor_cJSON_Duplicate(deep.get(), 1), nullptr);
}

TEST(KorJson, CursorGoesThroughAStream)
{
    const char* text = "1 2[3]\n\"x\"5.}";
    const char* cursor = text;
    for (ptrdiff_t behind : {1, 3, 6, 10, 11}) {
        EXPECT_NE(Item(_kor_cJSON_ParseEx(&cursor)), nullptr);
        EXPECT_EQ(cursor - text, behind);
    }
    EXPECT_EQ(_kor_cJSON_ParseEx(&cursor), nullptr);
    EXPECT_EQ(cursor - text, 11);
    const char* end;
    Item(_kor_cJSON_ParseWithOpts("[1] ", &end, 0));
    EXPECT_STREQ(end, " ");
    EXPECT_EQ(Item(_kor_cJSON_ParseWithOpts("[1] x", &end, 1)), nullptr);
    EXPECT_STREQ(end, "x");
}

// ---- Numbers --------------------------------------------------------------------------------------------------------

TEST(KorJson, NumbersKeepTheirDigits)
{
    struct {
        const char* text;
        int64_t whole;
        const char* print;
    } cases[] = {
        {"9007199254740993", 9007199254740993, "9007199254740993"},
        {"9223372036854775807", INT64_MAX, "9223372036854775808"}, // the double is beyond: 2 to the 63rd
        {"-9223372036854775808", INT64_MIN, "-9223372036854775808"},
        {"-9223372036854775807", -INT64_MAX, "-9223372036854775807"},
        {"9223372036854774784", 9223372036854774784, "9223372036854774784"},
        {"12345678901234567890123", INT64_MAX, "12345678901234567741440"},
        {"-99999999999999999999", INT64_MIN, "-100000000000000000000"},
        {"1e3", 1000, "1000"},
        {"1.5", 1, "1.500000"},
        {"-1.9", -1, "-1.900000"},
        {"0.99999999999999999999", 0, "0"}, // 1 as a double, so a whole number, and 0 by its digits
        {"1e18", 1000000000000000000, "1000000000000000000"},
        {"1e19", INT64_MAX, "10000000000000000000"},
        {"1e60", INT64_MAX, "1.000000e+60"},
        {"1e-7", 0, "1.000000e-07"},
        {"0.000001", 0, "0.000001"},
        {"1000000000.5", 1000000000, "1.000000e+09"},
        {"999999999.5", 999999999, "999999999.500000"},
        {"1e999", INT64_MAX, "inf"},
    };
    for (const auto& c : cases) {
        Item item = parseWhole(c.text);
        ASSERT_NE(item, nullptr) << c.text;
        EXPECT_EQ(item->type, 3);
        EXPECT_EQ(item->valuelong, c.whole) << c.text;
        EXPECT_EQ(item->valueint, static_cast<int32_t>(c.whole)) << c.text;
        EXPECT_EQ(printed(item.get()), c.print) << c.text;
    }
}

// The nearest double, for any number of digits, whatever the locale's decimal sign is.
TEST(KorJson, DoublesAreThoseOfTheLanguage)
{
    std::vector<std::string> texts = {"0.1",
                                      "123456.789e-3",
                                      "2.2250738585072011e-308",
                                      "4.9e-324",
                                      "1.7976931348623157e308",
                                      "9007199254740993.0",
                                      "0." + std::string(400, '0') + "1e401",
                                      "1" + std::string(400, '0') + "e-400",
                                      "1.00000000000000011102230246251565404236316680908203124",
                                      "1.00000000000000011102230246251565404236316680908203125" +
                                          std::string(900, '0') + "1",
                                      "18446744073709551615",
                                      std::string(900, '7') + "e-890"};
    Random random;
    for (int i = 0; i < 2000; i++) {
        std::string digits = std::to_string(random.next());
        texts.push_back(digits.substr(0, 1) + "." + digits.substr(1) + "e" +
                        std::to_string(static_cast<int>(random.below(600)) - 300));
        texts.push_back(digits.substr(0, 2 + random.below(6)) + "." + std::to_string(random.below(10000)));
    }
    for (const std::string& text : texts) {
        EXPECT_EQ(parseWhole(text)->valuedouble, strtod(text.c_str(), nullptr)) << text;
    }
    if (setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr || setlocale(LC_NUMERIC, "German") != nullptr) {
        EXPECT_EQ(printed(parseWhole("[1.5,0.30000000000000004]").get()), "[1.500000,0.300000]");
        setlocale(LC_NUMERIC, "C");
    }
}

TEST(KorJson, NumbersThatAreMade)
{
    Item item(_kor_cJSON_CreateLong(9007199254740993));
    EXPECT_EQ(item->valuedouble, 9007199254740992.0);
    EXPECT_EQ(item->valueint, 1);
    EXPECT_EQ(printed(Item(_kor_cJSON_Duplicate(item.get(), 0)).get()), "9007199254740993");
    struct {
        double value;
        int64_t whole;
    } cases[] = {{-2.9, -2}, {1e10, 10000000000}, {1e300, INT64_MAX}, {-1e300, INT64_MIN}, {std::nan(""), 0}};
    for (const auto& c : cases) {
        item.reset(_kor_cJSON_CreateNumber(c.value));
        EXPECT_EQ(item->valuelong, c.whole) << c.value;
        EXPECT_EQ(item->valueint, static_cast<int32_t>(c.whole)) << c.value;
    }
    int64_t longs[] = {INT64_MIN, 0, 9007199254740993};
    EXPECT_EQ(printed(Item(_kor_cJSON_CreateLongArray(longs, 3)).get()), "[-9223372036854775808,0,9007199254740993]");
    int32_t ints[] = {INT32_MIN, 7};
    EXPECT_EQ(printed(Item(_kor_cJSON_CreateIntArray(ints, 2)).get()), "[-2147483648,7]");
    float floats[] = {0.5f};
    EXPECT_EQ(printed(Item(_kor_cJSON_CreateFloatArray(floats, 1)).get()), "[0.500000]");
    double doubles[] = {-0.0, 2};
    EXPECT_EQ(printed(Item(_kor_cJSON_CreateDoubleArray(doubles, 2)).get()), "[0,2]");
    const char* texts[] = {"a", "b"};
    EXPECT_EQ(printed(Item(_kor_cJSON_CreateStringArray(texts, 2)).get()), "[\"a\",\"b\"]");
    EXPECT_EQ(_kor_cJSON_CreateIntArray(nullptr, 1), nullptr);
    EXPECT_EQ(_kor_cJSON_CreateLongArray(longs, -1), nullptr);
    EXPECT_EQ(printed(Item(_kor_cJSON_CreateIntArray(ints, 0)).get()), "[]");
}

// ---- Printing -------------------------------------------------------------------------------------------------------

std::string randomJson(Random& random, int depth)
{
    static const char* const leaves[] = {
        "null", "true", "false", "0", "-17", "2147483647", "\"\"", "\"text\"", R"("\u0001\"\\\t\u20ac")"};
    uint64_t kind = random.below(depth > 4 ? 2 : 4);
    if (kind < 2) {
        return leaves[random.below(std::size(leaves))];
    }
    std::string text = kind == 2 ? "[" : "{";
    for (uint64_t i = random.below(5); i-- > 0;) {
        text += kind == 2 ? "" : "\"k" + std::to_string(i) + "\\n\":";
        text += randomJson(random, depth + 1) + (i > 0 ? ", " : "");
    }
    return text + (kind == 2 ? "]" : "}");
}

TEST(KorJson, LaidOutAsByPlainCjson)
{
    Random random;
    for (int i = 0; i < 300; i++) {
        std::string text = randomJson(random, 0);
        Item item = parseWhole(text);
        cJSON* plain = cJSON_Parse(text.c_str());
        for (int format : {0, 1}) {
            char* expected = cJSON_PrintBuffered(plain, 16, format);
            EXPECT_EQ(take(_kor_cJSON_PrintBuffered(item.get(), static_cast<int32_t>(random.below(64)) + 1, format)),
                      expected);
            cJSON_free(expected);
        }
        cJSON_Delete(plain);
        EXPECT_EQ(printed(parseWhole(printed(item.get())).get()), printed(item.get()));
    }
    EXPECT_EQ(take(_kor_cJSON_Print(parse("{\"a\":[1,{}]}").get())), "{\n\t\"a\":\t[1, {\n\t\t}]\n}");
}

TEST(KorJson, WhatCannotBePrinted)
{
    Item item(_kor_cJSON_CreateNull());
    EXPECT_EQ(_kor_cJSON_PrintBuffered(item.get(), -1, 0), nullptr);
    EXPECT_EQ(_kor_cJSON_Print(nullptr), nullptr);
    item->type = 7;
    EXPECT_EQ(_kor_cJSON_Print(item.get()), nullptr);
}

TEST(KorJson, MinifyWorksInPlace)
{
    char text[] = "{ \"a b\" :\t[ 1 , 2 ] // end\n }";
    _kor_cJSON_Minify(text);
    EXPECT_STREQ(text, "{\"a b\":[1,2]}");
}

// ---- Trees ----------------------------------------------------------------------------------------------------------

TEST(KorJson, ListsChange)
{
    Item list(_kor_cJSON_CreateArray());
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(_kor_cJSON_AddItemToArray(list.get(), _kor_cJSON_CreateLong(i)));
    }
    ASSERT_TRUE(_kor_cJSON_InsertItemInArray(list.get(), 0, _kor_cJSON_CreateTrue()));
    ASSERT_TRUE(_kor_cJSON_InsertItemInArray(list.get(), 99, _kor_cJSON_CreateFalse()));
    ASSERT_TRUE(_kor_cJSON_InsertItemInArray(list.get(), 2, _kor_cJSON_CreateNull()));
    EXPECT_EQ(printed(list.get()), "[true,0,null,1,2,false]");
    _kor_cJSON_DeleteItemFromArray(list.get(), 2);
    ASSERT_TRUE(_kor_cJSON_ReplaceItemInArray(list.get(), 4, _kor_cJSON_CreateString("end")));
    ASSERT_TRUE(_kor_cJSON_ReplaceItemInArray(list.get(), 0, _kor_cJSON_CreateBool(0)));
    Item detached(_kor_cJSON_DetachItemFromArray(list.get(), 2));
    EXPECT_EQ(detached->valuelong, 1);
    _kor_cJSON_DeleteItemFromArray(list.get(), 0);
    _kor_cJSON_DeleteItemFromArray(list.get(), 77);
    EXPECT_EQ(printed(list.get()), "[0,2,\"end\"]");
    EXPECT_EQ(_kor_cJSON_GetArraySize(list.get()), 3);
    EXPECT_EQ(_kor_cJSON_GetArrayItem(list.get(), 3), nullptr);
    EXPECT_EQ(_kor_cJSON_GetArrayItem(list.get(), -1), nullptr);
    EXPECT_FALSE(_kor_cJSON_AddItemToArray(list.get(), nullptr));
    EXPECT_FALSE(_kor_cJSON_AddItemToArray(list.get(), list.get()));
    EXPECT_FALSE(_kor_cJSON_InsertItemInArray(list.get(), 0, nullptr));
    EXPECT_FALSE(_kor_cJSON_ReplaceItemInArray(list.get(), 9, detached.get()));
    EXPECT_EQ(_kor_cJSON_DetachItemFromArray(list.get(), -1), nullptr);
}

TEST(KorJson, MembersChange)
{
    Item object = parse("{\"Alpha\":1,\"beta\":2,\"ALPHA\":3}");
    kor_cJSON* root = object.get();
    EXPECT_EQ(_kor_cJSON_GetObjectItem(root, "aLPHA")->valuelong, 1);
    EXPECT_EQ(_kor_cJSON_GetObjectItem(root, "alph"), nullptr);
    EXPECT_EQ(_kor_cJSON_GetObjectItem(nullptr, "alpha"), nullptr);
    ASSERT_TRUE(_kor_cJSON_ReplaceItemInObject(root, "alpha", _kor_cJSON_CreateNull()));
    ASSERT_TRUE(_kor_cJSON_AddItemToObjectCS(root, "const", _kor_cJSON_CreateArray()));
    EXPECT_EQ(_kor_cJSON_GetObjectItem(root, "const")->type, 5 | 0x200);
    EXPECT_EQ(printed(root), R"({"alpha":null,"beta":2,"ALPHA":3,"const":[]})");
    Item copy(_kor_cJSON_Duplicate(root, 1));
    _kor_cJSON_DeleteItemFromObject(root, "alpha");
    _kor_cJSON_DeleteItemFromObject(root, "absent");
    Item beta(_kor_cJSON_DetachItemFromObject(root, "BETA"));
    EXPECT_STREQ(beta->string, "beta");
    EXPECT_EQ(_kor_cJSON_DetachItemFromObject(root, "beta"), nullptr);
    ASSERT_TRUE(_kor_cJSON_AddItemToObject(root, "gamma", beta.release())); // takes the place of its old key
    EXPECT_EQ(printed(root), R"({"ALPHA":3,"const":[],"gamma":2})");
    EXPECT_EQ(printed(copy.get()), R"({"alpha":null,"beta":2,"ALPHA":3,"const":[]})");
    Item stray(_kor_cJSON_CreateNull());
    EXPECT_FALSE(_kor_cJSON_AddItemToObject(root, nullptr, stray.get()));
    EXPECT_FALSE(_kor_cJSON_ReplaceItemInObject(root, "absent", stray.get()));
}

TEST(KorJson, ReferencesDoNotOwn)
{
    Item shared = parse("{\"deep\":[1,2],\"text\":\"t\"}");
    Item root = parse("{}");
    ASSERT_TRUE(_kor_cJSON_AddItemReferenceToObject(root.get(), "ref", shared.get()));
    ASSERT_TRUE(
        _kor_cJSON_AddItemReferenceToObject(root.get(), "text", _kor_cJSON_GetObjectItem(shared.get(), "text")));
    Item list(_kor_cJSON_CreateArray());
    ASSERT_TRUE(_kor_cJSON_AddItemReferenceToArray(list.get(), shared.get()));
    EXPECT_FALSE(_kor_cJSON_AddItemReferenceToArray(list.get(), nullptr));
    EXPECT_EQ(printed(root.get()), R"({"ref":{"deep":[1,2],"text":"t"},"text":"t"})");
    Item copy(_kor_cJSON_Duplicate(root.get(), 1));
    std::string expected = printed(root.get());
    root.reset();
    list.reset();
    EXPECT_EQ(printed(shared.get()), R"({"deep":[1,2],"text":"t"})");
    shared.reset();
    EXPECT_EQ(printed(copy.get()), expected);
}

TEST(KorJson, FormattedTextsAreCut)
{
    Item object(_kor_cJSON_CreateObject());
    _kor_cJSON_AddFormattedStringToObject(object.get(), "short", "%d%%", 5);
    _kor_cJSON_AddFormattedStringToObject(object.get(), "long", "%s", std::string(5000, 'x').c_str());
    EXPECT_STREQ(_kor_cJSON_GetObjectItem(object.get(), "short")->valuestring, "5%");
    EXPECT_EQ(strlen(_kor_cJSON_GetArrayItem(object.get(), 1)->valuestring), 4095u);
}

// ---- Hooks ----------------------------------------------------------------------------------------------------------

std::vector<size_t> sizes; // of what the hook was asked for
int64_t blocksOut;
int64_t failing; // the request that fails; 0 = none

void* countedMalloc(size_t size)
{
    sizes.push_back(size);
    if (static_cast<int64_t>(sizes.size()) == failing) {
        return nullptr;
    }
    blocksOut++;
    return malloc(size);
}

void countedFree(void* pointer)
{
    blocksOut -= pointer != nullptr;
    free(pointer);
}

class KorJsonHooks : public testing::Test
{
protected:
    KorJsonHooks()
    {
        kor_cJSON_Hooks hooks = {countedMalloc, countedFree};
        _kor_cJSON_InitHooks(&hooks);
        sizes.clear();
        failing = 0;
    }
    ~KorJsonHooks() override { _kor_cJSON_InitHooks(nullptr); }
};

TEST_F(KorJsonHooks, ComeByPair)
{
    kor_cJSON_Hooks half = {nullptr, countedFree};
    _kor_cJSON_InitHooks(&half);
    _kor_cJSON_Delete(_kor_cJSON_CreateNull());
    EXPECT_TRUE(sizes.empty());
    EXPECT_EQ(blocksOut, -1);
    half = {countedMalloc, nullptr};
    _kor_cJSON_InitHooks(&half);
    _kor_cJSON_Delete(_kor_cJSON_CreateNull());
    EXPECT_EQ(sizes, std::vector<size_t>{sizeof(kor_cJSON)});
    EXPECT_EQ(blocksOut, 0);
}

TEST_F(KorJsonHooks, BufferGrowsByPowersOfTwo)
{
    Item item(_kor_cJSON_CreateString(std::string(1000, 'x').c_str()));
    sizes.clear();
    EXPECT_EQ(take(_kor_cJSON_PrintBuffered(item.get(), 100, 0)).size(), 1002u);
    EXPECT_EQ(sizes, (std::vector<size_t>{100, 1024}));
    sizes.clear();
    take(_kor_cJSON_PrintBuffered(item.get(), 5000, 0));
    EXPECT_EQ(sizes, std::vector<size_t>{5000});
}

// Everything that allocates, with each request failing in turn: NULL or false, and nothing is lost.
TEST_F(KorJsonHooks, AnyRequestMayFail)
{
    bool whole = false;
    for (int64_t request = 1; !whole; request++) {
        int64_t before = blocksOut;
        sizes.clear();
        failing = request;
        Item root = parse(R"({"a":[1,"two",{"three":"\u0033"}],"b":"text"})");
        whole = root != nullptr;
        if (whole) {
            Item item(_kor_cJSON_CreateString("s"));
            if (_kor_cJSON_AddItemToObject(root.get(), "c", item.get())) {
                item.release();
            }
            item.reset(_kor_cJSON_CreateNull());
            if (_kor_cJSON_ReplaceItemInObject(root.get(), "b", item.get())) {
                item.release();
            }
            _kor_cJSON_AddItemReferenceToObject(root.get(), "d", root.get()->child);
            _kor_cJSON_AddFormattedStringToObject(root.get(), "e", "%d", 1);
            Item copy(_kor_cJSON_Duplicate(root.get(), 1));
            const char* texts[] = {"a", "b"};
            Item array(_kor_cJSON_CreateStringArray(texts, 2));
            std::string text = take(_kor_cJSON_PrintBuffered(root.get(), 4, 1));
            whole = static_cast<int64_t>(sizes.size()) < request;
            EXPECT_TRUE(!whole || (copy != nullptr && array != nullptr && text != "(null)"));
        }
        root.reset();
        EXPECT_EQ(blocksOut, before) << "request " << request;
    }
    EXPECT_GT(sizes.size(), 30u);
}

} // namespace
