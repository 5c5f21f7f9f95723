// korStrbuf_test.cpp - string builders and notice appenders.

#include "korutil/korNoticeAppender.h"
#include "korutil/korStrbuf.h"

#include "korutil/korAlloc.h"
#include "korutil/korLogLevel.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <regex>
#include <thread>
#include <utility>

namespace {

using namespace kor::test;
using KorStrbufTest = KorTest;

TEST_F(KorStrbufTest, JoinsWhatWasAppended)
{
    korStrbuf* builder = _korStrbuf_Create(KOR_AT(ex, 0));
    for (int round = 0; round < 2; round++) {
        std::string expected;
        for (int i = 0; i < 100; i++) { // more than the array starts with, and an empty one first
            std::string piece(static_cast<size_t>(i % 7), static_cast<char>('a' + i % 26));
            _korStrbuf_Append(KOR_AT(ex, 0), builder, piece.c_str());
            expected += piece;
            EXPECT_EQ(_korStrbuf_Finalize(KOR_AT(ex, 0), builder), expected);
        }
        _korStrbuf_Append(KOR_AT(ex, 0), builder, "dropped");
        _korStrbuf_Reset(KOR_AT(ex, 0), builder);
        EXPECT_STREQ(_korStrbuf_Finalize(KOR_AT(ex, 0), builder), "");
    }
    _korStrbuf_Append(KOR_AT(ex, 0), builder, nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
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

class KorNoticeAppenderTest : public KorTest
{
protected:
    KorNoticeAppenderTest() { _korDpa_PerformInit(KOR_AT(ex, 0), &notices, 1, nullptr); }
    ~KorNoticeAppenderTest() override { _korDpa_Clear(KOR_AT_D(0, ex), &notices); }

    korNoticeAppender* create(const char* name) { return _korNoticeAppender_Create(KOR_AT(ex, 0), name, &notices); }
    void destroy(korNoticeAppender* appender) { _korNoticeAppender_Destroy(KOR_AT_D(0, ex), appender); }

    std::string text(int32_t index) const { return reinterpret_cast<const char*>(notices.items[index]); }

    // Frees what was collected and gives its number.
    int32_t drop()
    {
        for (int32_t i = 0; i < notices.count; i++) {
            _kor_free(KOR_AT_D(0, ex), reinterpret_cast<void*>(notices.items[i]));
        }
        return std::exchange(notices.count, 0);
    }

    korDpa notices;
};

TEST_F(KorNoticeAppenderTest, NoticesHaveTimeLevelAndName)
{
    korNoticeAppender* named = create("setup");
    korNoticeAppender* nameless = create(nullptr);
    _korNoticeAppender_Append(named, KOR_LOG_WARN, "%d of %s", 3, "four");
    _korNoticeAppender_Append(nameless, KOR_LOG_INFO, "%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(notices.count, 2);
    std::string time = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}";
    EXPECT_TRUE(std::regex_match(text(0), std::regex(time + " - warn \\[setup\\]: 3 of four"))) << text(0);
    EXPECT_TRUE(std::regex_search(text(1), std::regex("^" + time + " - info: x"))) << text(1).substr(0, 50);
    EXPECT_EQ(text(1).size(), KOR_NOTICE_SIZE - 1U);
    drop();
    destroy(named);
    destroy(nameless);
}

TEST_F(KorNoticeAppenderTest, ThreadsLoseNoNotice)
{
    constexpr int each = 500;
    korNoticeAppender* appender = create("all");
    auto append = [&] {
        for (int i = 0; i < each; i++) {
            _korNoticeAppender_Append(appender, KOR_LOG_INFO, "notice %d", i);
        }
    };
    std::thread other(append);
    append();
    other.join();
    EXPECT_EQ(drop(), 2 * each);
    destroy(appender);
}

TEST_F(KorNoticeAppenderTest, ANoticeWithoutMemoryIsLost)
{
    sweepFailures(ex, [&] {
        korNoticeAppender* appender = create("short");
        for (int i = 0; i < 10; i++) {
            _korNoticeAppender_Append(appender, KOR_LOG_INFO, "perhaps");
        }
        EXPECT_GE(drop(), appender == nullptr ? 0 : 9);
        destroy(appender);
    });
}

} // namespace
