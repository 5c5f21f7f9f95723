// korUrl_test.cpp - the grammar as a table, options and their read marks, numbers, and the way back to text.

#include "korutil/korUrl.h"

#include "support/failingHeap.h"
#include "wireTest.h"

namespace {

using namespace kor::test;

std::string orNull(const char* text)
{
    return text == nullptr ? "NULL" : text;
}

// scheme|username|password|host|port|path|options
std::string describe(const korUrl* url)
{
    std::string parts;
    for (const char* part : {_korUrl_GetScheme(url), _korUrl_GetUsername(url), _korUrl_GetPassword(url),
                             _korUrl_GetHost(url), _korUrl_GetPort(url), _korUrl_GetPath(url)}) {
        parts += (part == nullptr ? "-" : part) + std::string("|");
    }
    for (korUrlQuery* query = _korUrl_GetQueryList(url); query != nullptr; query = _korUrlQuery_GetNext(query)) {
        parts += " " + orNull(_korUrlQuery_GetKey(query)) + "=" + orNull(_korUrlQuery_GetValue(query));
        _korUrlQuery_MarkUnread(query);
    }
    return parts;
}

class KorUrlTest : public KorTest
{
protected:
    ~KorUrlTest() override
    {
        for (korUrl* url : urls) {
            _korUrl_Release(KOR_AT_D(0, ex), url);
        }
    }

    korUrl* parse(const char* text)
    {
        urls.push_back(_korUrl_Parse(KOR_AT(ex, 0), text));
        return urls.back();
    }

    std::vector<korUrl*> urls;
};

TEST_F(KorUrlTest, TheOrderOfStepsIsTheGrammar)
{
    // The first "@" ends the user, wherever it stands; a bracket is taken to be the first character.
    const char* table = R"(
        tcp://user:pw@host:80/a/b?x=1&y;z=3 => tcp|user|pw|host|80|/a/b| z=3 y=NULL x=1!
        /a => -|-|-|-|-|/a|! :80 => -|-|-|-|80|-|! a://x?b?c=1 => a|-|-|x?b|-|-| c=1! a://b://c => a|-|-|b||//c|!
        a:b:c@h@i => -|a|b:c|h@i|-|-|! a://h/p@q => a|h/p|-|q|-|-|! [::1]x => -|-|-|x|-|-|! x[1] => -|-|-|[1|-|-|!
        ][ => -|-|-|[|-|-|! a://[fe80::1]:7000/p => a|-|-|fe80::1|7000|/p|! h?&a=b=c& => -|-|-|h|-|-| =NULL a=b=c =NULL)";
    for (const std::string& row : rowsOf(table, '!')) {
        auto [text, expected] = sides(row);
        EXPECT_EQ(describe(parse(text.c_str())), expected) << text;
        EXPECT_EQ(_korUrl_GetSource(urls.back()), text);
    }
    EXPECT_EQ(describe(parse(nullptr)), "-|-|-|-|-|-|");
}

TEST_F(KorUrlTest, TextIsMadeOfTheParts)
{
    for (const char* row : {"a://[fe80::1]:7000/p => a://fe80::1:7000/p", "/p => (null)/p",
                            "s://u:p@h:1/x?a=1;b&c=3 => s://u:p@h:1/x?c=3&b&a=1"}) {
        auto [text, expected] = sides(row);
        korUrl* url = parse(text.c_str());
        std::string buffer(expected.size() + 1, '?');
        _korUrl_ToString(KOR_AT(ex, 0), url, buffer.data(), buffer.size());
        EXPECT_EQ(buffer.c_str(), expected);
        EXPECT_CLEAN();
        _korUrl_ToString(KOR_AT(ex, 0), url, buffer.data(), buffer.size() - 1);
        EXPECT_RAISED(KOR_ERROR_END_OF_BUFFER, nullptr);
        EXPECT_EQ(buffer.c_str(), expected.substr(0, expected.size() - 1));
    }
}

TEST_F(KorUrlTest, FieldsAndOptionsAreSetAndCleared)
{
    korUrl* url = urls.emplace_back(_korUrl_Create(KOR_AT(ex, 0)));
    const std::pair<decltype(&_korUrl_SetScheme), const char*> fields[] = {
        {_korUrl_SetScheme, "s"}, {_korUrl_SetUsername, "u"}, {_korUrl_SetPassword, "w"}, {_korUrl_SetHost, "h"},
        {_korUrl_SetPort, "1"},   {_korUrl_SetPath, "/p"},    {_korUrl_SetSource, "from"}};
    for (auto [set, text] : fields) {
        set(KOR_AT(ex, 0), url, text);
    }
    _korUrl_SetHost(KOR_AT(ex, 0), url, _korUrl_GetHost(url)); // its own text
    for (const char* key : {"a", "b", "A"}) {
        _korUrl_AddQuery(KOR_AT(ex, 0), url, key, key);
    }
    _korUrl_RemoveQuery(KOR_AT(ex, 0), url, "a"); // the first match, without regard to case
    EXPECT_EQ(describe(url), "s|u|w|h|1|/p| b=b a=a");
    _korUrl_ClearQueryList(KOR_AT(ex, 0), url);
    EXPECT_EQ(_korUrl_GetQueryList(url), nullptr);
}

TEST_F(KorUrlTest, LookUpsFindTheLastWrittenAndMarkIt)
{
    korUrl* url = parse("h?Key=1&other&key=2&KEY&on=true");
    EXPECT_EQ(_korUrl_GetQueryValue(url, "key"), nullptr); // the one without a value came last
    _korUrl_RemoveQuery(KOR_AT(ex, 0), url, "key");
    EXPECT_STREQ(_korUrl_GetQueryValue(url, "KEY"), "2");
    korDpa* values = _korUrl_GetQueryValues(KOR_AT(ex, 0), url, "key");
    ASSERT_EQ(values->count, 2);
    EXPECT_STREQ(reinterpret_cast<const char*>(values->items[1]), "1");
    _korDpa_DestroyPooled(KOR_AT_D(0, ex), values, nullptr);
    EXPECT_EQ(_korUrl_GetQuery(url, nullptr), nullptr);
    EXPECT_EQ(_korUrl_GetQueryValueBool(KOR_AT(ex, 0), url, "on"), 1);
    EXPECT_EQ(_korUrl_GetQueryValueBool(KOR_AT(ex, 0), url, "other"), 0);

    korUrl* unread = parse("h?one&two=2&three");
    EXPECT_STREQ(_korUrl_GetQueryValue(unread, "TWO"), "2");
    korLogSource source = {};
    source.component = 5;
    StreamCapture error(StreamCapture::error);
    StreamCapture out(StreamCapture::out);
    EXPECT_EQ(_korUrl_CheckAllKeysRead(KOR_AT(ex, 0), unread, &source), 0);
    std::string written = error.text() + out.text();
    EXPECT_NE(written.find("url: unused options in h?one&two=2&three - one, three\n"), std::string::npos) << written;
    for (const char* key : {"one", "three"}) {
        EXPECT_TRUE(_korUrl_ContainsQuery(unread, key));
    }
    EXPECT_EQ(_korUrl_CheckAllKeysRead(KOR_AT(ex, 0), unread, &source), 1);
}

TEST_F(KorUrlTest, Numbers)
{
    auto told = [&](auto number) {
        std::string text = korEx_GetErrorCode(ex) == 0 ? std::to_string(number) : number == 0 ? "no" : "not zero";
        EXPECT_TRUE(text != "no" || raised(ex, KOR_ERROR_INVALID_ARGUMENT, nullptr));
        return text;
    };
    // As an integer and as a number of bytes.
    const char* table = R"(
        -12 => -12 -12; -12.9 => -12 no; 99999999999.0 => 2147483647 no; -99999999999.0 => -2147483648 no;
        99999999999 => 99999999999 99999999999; 1e12 => no no; 1.0e3 => 1000 no; 64K => no 65536; 3Mb => no 3145728;
        2 gb => no no; 2. => 2 no; nan(.) => no no; => no no; k => no no; 9223372036854775807g => no -1073741824)";
    for (const std::string& row : rowsOf(table)) {
        std::string text = sides(row).first;
        std::string integer = told(_korUrl_StringToInteger(KOR_AT(ex, 0), text.c_str()));
        std::string bytes = told(_korUrl_StringToBytes(KOR_AT(ex, 0), text.c_str()));
        EXPECT_EQ(integer + " " + bytes, sides(row).second) << text;
    }
    EXPECT_EQ(told(_korUrl_StringToDouble(KOR_AT(ex, 0), "-1.5e2")), "-150.000000");
    EXPECT_EQ(told(_korUrl_StringToDouble(KOR_AT(ex, 0), "1.5x")), "no");
}

TEST_F(KorUrlTest, NumbersOfOptions)
{
    korUrl* url = parse("h?count=3&size=2 gb&ratio=0.25&none");
    EXPECT_EQ(_korUrl_GetQueryValueInteger(KOR_AT(ex, 0), url, "count", 9), 3);
    EXPECT_EQ(_korUrl_GetQueryValueInteger(KOR_AT(ex, 0), url, "missing", 9), 9);
    EXPECT_EQ(_korUrl_GetQueryValueDouble(KOR_AT(ex, 0), url, "ratio", 9), 0.25);
    EXPECT_EQ(_korUrl_GetQueryValueBytes(KOR_AT(ex, 0), url, "size", 9), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Invalid bytes value for size: 2 gb");
    EXPECT_EQ(_korUrl_GetQueryValueInteger(KOR_AT(ex, 0), url, "none", 9), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Invalid integer value for none: NULL");
    EXPECT_EQ(_korUrl_GetQueryValueDouble(KOR_AT(ex, 0), url, "size", 9), 0);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "Invalid double value for size: 2 gb");
}

TEST_F(KorUrlTest, AnyRequestMayFail)
{
    sweepFailures(ex, [&] {
        korUrl* url = _korUrl_Parse(KOR_AT(ex, 0), "tcp://user:pw@[host]:80/a/b?x=1&y;z=3");
        if (url != nullptr) {
            _korUrl_SetPath(KOR_AT(ex, 0), url, "/c");
            korDpa* values = _korUrl_GetQueryValues(KOR_AT(ex, 0), url, "x");
            _korDpa_DestroyPooled(KOR_AT_D(0, ex), values, nullptr);
        }
        _korUrl_Retain(0, ex, url);
        _korUrl_Release(KOR_AT_D(0, ex), url);
        _korUrl_Release(KOR_AT_D(0, ex), url);
    });
}

} // namespace
