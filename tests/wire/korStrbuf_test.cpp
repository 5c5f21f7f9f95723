// korStrbuf_test.cpp - string builders and notice appenders.

#include "korutil/korNoticeAppender.h"
#include "korutil/korStrbuf.h"

#include "korutil/korAlloc.h"
#include "korutil/korLogLevel.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <regex>
#include <thread>
#include <vector>

namespace {

using namespace kor::test;
using KorStrbufTest = KorTest;
using KorNoticeAppenderTest = KorTest;

TEST_F(KorStrbufTest, JoinsWhatWasAppended)
{
    korStrbuf* builder = _korStrbuf_Create(KOR_AT(ex, 0));
    const char* empty = _korStrbuf_Finalize(KOR_AT(ex, 0), builder);
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(_korStrbuf_Finalize(KOR_AT(ex, 0), builder), empty); // no work
    std::string expected;
    for (int i = 0; i < 100; i++) { // more than the array starts with
        std::string piece(static_cast<size_t>(i % 7), static_cast<char>('a' + i % 26));
        _korStrbuf_Append(KOR_AT(ex, 0), builder, piece.c_str());
        expected += piece;
    }
    EXPECT_EQ(_korStrbuf_Finalize(KOR_AT(ex, 0), builder), expected);
    _korStrbuf_Append(KOR_AT(ex, 0), builder, "");
    EXPECT_EQ(builder->dirty, 1);
    _korStrbuf_Append(KOR_AT(ex, 0), builder, "end");
    EXPECT_EQ(_korStrbuf_Finalize(KOR_AT(ex, 0), builder), expected + "end");
    uint64_t total = builder->totalLength;
    _korStrbuf_Reset(KOR_AT(ex, 0), builder);
    EXPECT_EQ(builder->totalLength, total);
    _korStrbuf_Append(KOR_AT(ex, 0), builder, "again");
    EXPECT_STREQ(_korStrbuf_Finalize(KOR_AT(ex, 0), builder), "again");
    _korStrbuf_Append(KOR_AT(ex, 0), builder, nullptr);
    EXPECT_RAISED(1, nullptr);
    _korStrbuf_Finalize(KOR_AT(ex, 0), nullptr);
    EXPECT_RAISED(1, nullptr);
    _korStrbuf_Reset(KOR_AT(ex, 0), nullptr);
    EXPECT_RAISED(1, nullptr);
    _korStrbuf_Destroy(KOR_AT_D(0, ex), builder);
}

TEST_F(KorStrbufTest, AnyRequestMayFail)
{
    sweepFailures(ex, [&] {
        korStrbuf* builder = _korStrbuf_Create(KOR_AT(ex, 0));
        for (int i = 0; i < 70 && korEx_GetErrorCode(ex) == 0; i++) {
            _korStrbuf_Append(KOR_AT(ex, 0), builder, "piece");
        }
        const char* text = korEx_GetErrorCode(ex) == 0 ? _korStrbuf_Finalize(KOR_AT(ex, 0), builder) : nullptr;
        EXPECT_EQ(text == nullptr, korEx_GetErrorCode(ex) != 0);
        _korStrbuf_Destroy(KOR_AT_D(0, ex), builder);
    });
}

// What was collected, freed.
std::vector<std::string> take(korEx* ex, korDpa* notices)
{
    std::vector<std::string> texts;
    for (int32_t i = 0; i < notices->count; i++) {
        char* notice = reinterpret_cast<char*>(notices->items[i]);
        texts.emplace_back(notice);
        _kor_free(KOR_AT_D(0, ex), notice);
    }
    _korDpa_Clear(KOR_AT_D(0, ex), notices);
    return texts;
}

TEST_F(KorNoticeAppenderTest, NoticesHaveTimeLevelAndName)
{
    korDpa notices;
    _korDpa_PerformInit(KOR_AT(ex, 0), &notices, 1, nullptr);
    korNoticeAppender* named = _korNoticeAppender_Create(KOR_AT(ex, 0), "setup", &notices);
    korNoticeAppender* nameless = _korNoticeAppender_Create(KOR_AT(ex, 0), nullptr, &notices);
    korNoticeAppender* idle = _korNoticeAppender_Create(KOR_AT(ex, 0), "idle", nullptr);
    _korNoticeAppender_Append(named, KOR_LOG_WARN, "%d of %s", 3, "four");
    _korNoticeAppender_Append(nameless, KOR_LOG_INFO, "%s", std::string(5000, 'x').c_str());
    _korNoticeAppender_Append(idle, KOR_LOG_INFO, "nobody listens");
    _korNoticeAppender_Append(nullptr, KOR_LOG_INFO, "nobody at all");
    std::vector<std::string> texts = take(ex, &notices);
    ASSERT_EQ(texts.size(), 2U);
    std::string time = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}";
    EXPECT_TRUE(std::regex_match(texts[0], std::regex(time + " - warn \\[setup\\]: 3 of four"))) << texts[0];
    EXPECT_TRUE(std::regex_search(texts[1], std::regex("^" + time + " - info: x"))) << texts[1].substr(0, 50);
    EXPECT_EQ(texts[1].size(), KOR_NOTICE_SIZE - 1U);
    for (korNoticeAppender* appender : {named, nameless, idle}) {
        _korNoticeAppender_Destroy(KOR_AT_D(0, ex), appender);
    }
    EXPECT_EQ(_korNoticeAppender_Create(nullptr, 0, "x", nullptr), nullptr);
}

TEST_F(KorNoticeAppenderTest, ThreadsLoseNoNotice)
{
    constexpr int each = 500;
    korDpa notices;
    _korDpa_PerformInit(KOR_AT(ex, 0), &notices, 1, nullptr);
    korNoticeAppender* appender = _korNoticeAppender_Create(KOR_AT(ex, 0), "all", &notices);
    auto append = [&] {
        for (int i = 0; i < each; i++) {
            _korNoticeAppender_Append(appender, KOR_LOG_INFO, "notice %d", i);
        }
    };
    std::thread other(append);
    append();
    other.join();
    EXPECT_EQ(take(ex, &notices).size(), 2U * each);
    _korNoticeAppender_Destroy(KOR_AT_D(0, ex), appender);
}

TEST_F(KorNoticeAppenderTest, ANoticeWithoutMemoryIsLost)
{
    sweepFailures(ex, [&] {
        korNoticeAppender* appender = _korNoticeAppender_Create(KOR_AT(ex, 0), "short", nullptr);
        _korNoticeAppender_Destroy(KOR_AT_D(0, ex), appender);
    });
    korDpa notices;
    _korDpa_PerformInit(KOR_AT(ex, 0), &notices, 1, nullptr);
    korNoticeAppender* appender = _korNoticeAppender_Create(KOR_AT(ex, 0), nullptr, &notices);
    {
        FailingHeap heap(1);
        _korNoticeAppender_Append(appender, KOR_LOG_INFO, "lost");
    }
    EXPECT_EQ(notices.count, 0);
    _korNoticeAppender_Destroy(KOR_AT_D(0, ex), appender);
}

} // namespace
