// korLogLevel_test.cpp - the words of the level scale, both ways.

#include "support/korTest.h"

#include "korutil/korLogLevel.h"

namespace {

using KorLogLevelTest = kor::test::KorTest;

TEST_F(KorLogLevelTest, WordsGoBothWays)
{
    struct {
        int32_t level;
        const char* text;
        const char* shortText;
    } const words[] = {{-128, "all", "all"},   {50, "_intern", "_intern"}, {60, "debug3", "dbg3"},
                       {70, "debug2", "dbg2"}, {80, "debug", "dbg1"},      {90, "verbose", "verbose"},
                       {100, "info", "info"},  {110, "warn", "warn"},      {120, "severe", "severe"},
                       {127, "off", "off"}};
    for (const auto& word : words) {
        EXPECT_EQ(_korLogLevel_StringToLevel(KOR_AT(ex, 0), word.text), word.level);
        EXPECT_STREQ(_korLogLevel_LevelToString(word.level), word.text);
        EXPECT_STREQ(_korLogLevel_LevelShortString(word.level), word.shortText);
    }
    for (int32_t level : {0, 55, 128, -127, 1000}) {
        EXPECT_STREQ(_korLogLevel_LevelToString(level), "invalid");
        EXPECT_STREQ(_korLogLevel_LevelShortString(level), "invalid");
    }
}

TEST_F(KorLogLevelTest, OnlyTheExactTextIsALevel)
{
    for (const char* text : {"Debug", "dbg1", "", "debug ", "100", "invalid", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(_korLogLevel_StringToLevel(KOR_AT(ex, 0), text), 127);
        EXPECT_RAISED(1, "No such log level");
    }
    KOR_RAISE(ex, 0, 100, "earlier");
    EXPECT_EQ(_korLogLevel_StringToLevel(KOR_AT(ex, 0), "info"), 127);
    EXPECT_RAISED(100, "earlier");
}

} // namespace
