// kor_cJSON_test.cpp - JSON: the grammar, exact numbers, printing beside plain cJSON, trees that change, hooks.

#include "korutil/kor_cJSON.h"

#include "wireTest.h"

#include <cjson/cJSON.h>

#include <clocale>
#include <cmath>
#include <cstring>
#include <memory>

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

std::string printed(const Item& item)
{
    return take(_kor_cJSON_PrintUnformatted(item.get()));
}

std::string printed(kor_cJSON* item)
{
    return printed(Item(item));
}

Item parse(const std::string& text)
{
    return Item(_kor_cJSON_ParseWithOpts(text.c_str(), nullptr, 1));
}

// ---- Reading --------------------------------------------------------------------------------------------------------

// Texts of the grammar of RFC 8259 and what they print as; some that it leaves open are read as cJSON does.
TEST(KorJson, ValidTexts)
{
    std::vector<std::string> rows = rowsOf(R"(
        null => null; [ ] => []; { } => {}; [1,[2,[false]],{}] => [1,[2,[false]],{}];
        "" => ""; {"":0} => {"":0}; {"a" : "b" , "a" : null} => {"a":"b","a":null};
        "\"\\\/\b\f\n\r\t" => "\"\\/\b\f\n\r\t"; "\u0041\u001f" => "A\u001f";
        -0 => 0; -12 => -12; 0.5e1 => 5; 1E+2 => 100; 100e-2 => 1; [012] => [12])");
    for (const char* row :
         {" \t\r\n true  => true", "\xEF\xBB\xBF[1] => [1]", "\x01[\x0b] => []", "\"a\nb\" => \"a\\nb\"",
          "\"\\u00e9\\u20AC\\uD834\\udd1e\" => \"\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E\""}) {
        rows.push_back(row);
    }
    for (const std::string& row : rows) {
        auto [text, print] = sides(row);
        EXPECT_EQ(printed(parse(text)), print) << text;
    }
}

TEST(KorJson, InvalidTexts)
{
    std::vector<std::string> texts = rowsOf(R"(
        nul; nulL; True; [; ]; {; [1; [1,; [1,]; [,1]; [1 2]; [1}; {"a"}; {"a":}; {"a":1,}; {a:1}; {"a" 1};
        {"a":1 "b":2}; "; "a; "\; "\"; "\x41"; "\u12"; "\u12G4"; "\ud800"; "\ud800x"; "\ud800\u0041"; "\udc00";
        "\u1"23"; -; +1; .5; --1; [1.]; [1e+]; [1.e1]; 0x10; NaN; 'a'; 1 2; [1]x; // c)");
    texts.push_back("");
    for (const std::string& text : texts) {
        EXPECT_EQ(parse(text), nullptr) << text;
    }
    EXPECT_STREQ(_kor_cJSON_GetErrorPtr(), "not supported");
    EXPECT_EQ(_kor_cJSON_Parse(nullptr), nullptr);
}

TEST(KorJson, DepthIsBounded)
{
    std::string nested = std::string(1000, '[') + std::string(1000, ']');
    EXPECT_EQ(printed(parse(nested)), nested);
    EXPECT_EQ(parse("[" + nested + "]"), nullptr);
    Item deep(_kor_cJSON_CreateNull());
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
    EXPECT_EQ(_kor_cJSON_ParseWithOpts("[1] x", &end, 1), nullptr);
    EXPECT_STREQ(end, "x");
}

// ---- Numbers --------------------------------------------------------------------------------------------------------

// The whole number of 64 bits, and the print, which is the double's.
TEST(KorJson, NumbersKeepTheirDigits)
{
    const char* table = R"(
        9007199254740993 => 9007199254740993 9007199254740993; 0.99999999999999999999 => 0 0;
        9223372036854775807 => 9223372036854775807 9223372036854775808;
        -9223372036854775808 => -9223372036854775808 -9223372036854775808;
        12345678901234567890123 => 9223372036854775807 12345678901234567741440; -1e999 => -9223372036854775808 -inf;
        1.5 => 1 1.500000; -1.9 => -1 -1.900000; 1e18 => 1000000000000000000 1000000000000000000;
        1e19 => 9223372036854775807 10000000000000000000; 1e60 => 9223372036854775807 1.000000e+60;
        1e-7 => 0 1.000000e-07; 0.000001 => 0 0.000001; 1e-999 => 0 0; 1000000000.5 => 1000000000 1.000000e+09)";
    for (const std::string& row : rowsOf(table)) {
        Item item = parse(sides(row).first);
        EXPECT_EQ(std::to_string(item->valuelong) + " " + printed(item), sides(row).second);
    }
}

// The nearest double, for any number of digits, whatever the locale's decimal sign is.
TEST(KorJson, DoublesAreThoseOfTheLanguage)
{
    std::vector<std::string> texts = rowsOf(R"(
        0.1; 123456.789e-3; 2.2250738585072011e-308; 4.9e-324; 1.7976931348623157e308; 9007199254740993.0; 1e999;
        18446744073709551615; 1.00000000000000011102230246251565404236316680908203124)");
    texts.push_back("0." + std::string(400, '0') + "1e401");
    texts.push_back("1" + std::string(400, '0') + "e-400");
    texts.push_back("1.00000000000000011102230246251565404236316680908203125" + std::string(900, '0') + "1");
    texts.push_back(std::string(900, '7') + "e-890");
    Random random;
    for (int i = 0; i < 2000; i++) {
        std::string digits = std::to_string(random.next());
        std::string exponent = std::to_string(static_cast<int>(random.below(600)) - 300);
        texts.push_back(digits.substr(0, 1) + "." + digits.substr(1) + "e" + exponent);
        texts.push_back(digits.substr(0, 2 + random.below(6)) + "." + std::to_string(random.below(10000)));
    }
    for (const std::string& text : texts) {
        EXPECT_EQ(parse(text)->valuedouble, strtod(text.c_str(), nullptr)) << text;
    }
    if (setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr || setlocale(LC_NUMERIC, "German") != nullptr) {
        EXPECT_EQ(printed(parse("[1.5,0.30000000000000004]")), "[1.500000,0.300000]");
        setlocale(LC_NUMERIC, "C");
    }
}

TEST(KorJson, NumbersThatAreMade)
{
    EXPECT_EQ(Item(_kor_cJSON_CreateNumber(std::nan("")))->valuelong, 0);
    const double doubles[] = {-0.0, -2.9, 1e10, -1e300};
    EXPECT_EQ(printed(_kor_cJSON_CreateDoubleArray(doubles, 4)), "[0,-2.900000,10000000000,-1.000000e+300]");
    const float half = 0.5f;
    EXPECT_EQ(printed(_kor_cJSON_CreateFloatArray(&half, 1)), "[0.500000]");
    const int32_t least = INT32_MIN;
    EXPECT_EQ(printed(_kor_cJSON_CreateIntArray(&least, 1)), "[-2147483648]");
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
        Item item = parse(text);
        cJSON* plain = cJSON_Parse(text.c_str());
        for (int format : {0, 1}) {
            char* expected = cJSON_PrintBuffered(plain, 16, format);
            auto size = static_cast<int32_t>(random.below(64)) + 1;
            EXPECT_EQ(take(_kor_cJSON_PrintBuffered(item.get(), size, format)), expected);
            cJSON_free(expected);
        }
        cJSON_Delete(plain);
        EXPECT_EQ(printed(parse(printed(item))), printed(item));
    }
}

// ---- Trees ----------------------------------------------------------------------------------------------------------

TEST(KorJson, ListsAreAsAVector)
{
    Random random;
    Item list(_kor_cJSON_CreateArray());
    std::vector<int64_t> model;
    model.reserve(1); // even an empty one has an address
    for (int64_t step = 0; step < 1000; step++) {
        enum Action { insert, replace, detach, remove };
        Action action = random.chance(40) ? insert : static_cast<Action>(random.below(4));
        auto size = static_cast<int32_t>(model.size());
        auto index = static_cast<int32_t>(random.below(model.size() + 3)) - 1;
        bool inside = index >= 0 && index < size;
        if (action != insert && inside) {
            model.erase(model.begin() + index);
        }
        Item item(_kor_cJSON_CreateLong(step));
        if (action == insert || action == replace) {
            auto* change = action == insert ? _kor_cJSON_InsertItemInArray : _kor_cJSON_ReplaceItemInArray;
            bool fits = action == insert ? index >= 0 : inside;
            ASSERT_EQ(change(list.get(), index, item.get()), fits);
            if (fits) {
                item.release();
                model.insert(model.begin() + std::min(index, size), step);
            }
        } else if (action == detach) {
            item.reset(_kor_cJSON_DetachItemFromArray(list.get(), index));
            ASSERT_EQ(item != nullptr, inside);
        } else {
            _kor_cJSON_DeleteItemFromArray(list.get(), index);
        }
        size = static_cast<int32_t>(model.size());
        ASSERT_EQ(printed(list), printed(_kor_cJSON_CreateLongArray(model.data(), size)));
        ASSERT_EQ(_kor_cJSON_GetArraySize(list.get()), size);
        ASSERT_EQ(_kor_cJSON_GetArrayItem(list.get(), size), nullptr);
    }
}

TEST(KorJson, MembersChange)
{
    Item object = parse("{\"Alpha\":1,\"beta\":2,\"ALPHA\":3}");
    kor_cJSON* root = object.get();
    EXPECT_EQ(_kor_cJSON_GetObjectItem(root, "aLPHA")->valuelong, 1);
    ASSERT_TRUE(_kor_cJSON_ReplaceItemInObject(root, "alpha", _kor_cJSON_CreateTrue()));
    ASSERT_TRUE(_kor_cJSON_AddItemToObjectCS(root, "const", _kor_cJSON_CreateBool(0)));
    Item copy(_kor_cJSON_Duplicate(root, 1));
    _kor_cJSON_DeleteItemFromObject(root, "alpha");
    Item beta(_kor_cJSON_DetachItemFromObject(root, "BETA"));
    EXPECT_EQ(_kor_cJSON_DetachItemFromObject(root, "beta"), nullptr);
    EXPECT_FALSE(_kor_cJSON_ReplaceItemInObject(root, "absent", beta.get()));
    ASSERT_TRUE(_kor_cJSON_AddItemToObject(root, "gamma", beta.release())); // takes the place of its old key
    _kor_cJSON_AddFormattedStringToObject(root, "short", "%d%%", 5);
    EXPECT_EQ(printed(object), R"({"ALPHA":3,"const":false,"gamma":2,"short":"5%"})");
    object.reset();
    EXPECT_EQ(printed(copy), R"({"alpha":true,"beta":2,"ALPHA":3,"const":false})");
}

// ---- Hooks ----------------------------------------------------------------------------------------------------------

size_t requests;
size_t failing; // the request that fails
int64_t blocksOut;

void* countedMalloc(size_t size)
{
    requests++;
    blocksOut += requests != failing;
    return requests == failing ? nullptr : malloc(size);
}

void countedFree(void* pointer)
{
    blocksOut -= pointer != nullptr;
    free(pointer);
}

// Everything that allocates, with each request failing in turn: NULL or false, and nothing is lost.
TEST(KorJsonHooks, AnyRequestMayFail)
{
    const kor_cJSON_Hooks hooks = {countedMalloc, countedFree};
    _kor_cJSON_InitHooks(&hooks);
    bool whole = false;
    for (failing = 1; !whole; failing++) {
        requests = 0;
        if (Item root(_kor_cJSON_Parse(R"({"a":[1,"two",{"three":"\u0033"}],"b":"text"})")); root != nullptr) {
            Item item(_kor_cJSON_CreateString("text"));
            if (_kor_cJSON_AddItemToObject(root.get(), "c", item.get())) {
                item.release();
            }
            item.reset(_kor_cJSON_CreateFalse());
            if (_kor_cJSON_ReplaceItemInObject(root.get(), "b", item.get())) {
                item.release();
            }
            Item references(_kor_cJSON_CreateObject()); // share, and do not own
            _kor_cJSON_AddItemReferenceToObject(references.get(), "d", root->child);
            _kor_cJSON_AddItemReferenceToArray(root->child, root->child->child->next);
            _kor_cJSON_AddFormattedStringToObject(root.get(), "e", "%d", 1);
            Item copy(_kor_cJSON_Duplicate(root.get(), 1));
            const char* texts[] = {"a", "b"};
            Item array(_kor_cJSON_CreateStringArray(texts, 2));
            take(_kor_cJSON_PrintBuffered(root.get(), 4, 1));
            std::string all = printed(references) + printed(copy);
            whole = requests < failing;
            EXPECT_TRUE(!whole || array != nullptr);
            EXPECT_TRUE(!whole || all == R"({"d":[1,"two",{"three":"3"},"two"]})"
                                         R"({"a":[1,"two",{"three":"3"},"two"],"b":false,"c":"text","e":"1"})")
                << all;
        }
        EXPECT_EQ(blocksOut, 0) << "request " << failing;
    }
    EXPECT_GT(requests, 30u);
    _kor_cJSON_InitHooks(nullptr);
}

} // namespace
