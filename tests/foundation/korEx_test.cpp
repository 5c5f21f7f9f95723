// korEx_test.cpp - raising, the first error's precedence, chains, texts, keys, and the bounds of the trace.

#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include "korutil/korAlloc.h"
#include "korutil/korLib.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <winsock2.h>
#endif

namespace {

using kor::test::describe;
using kor::test::KorTest;

using KorExTest = KorTest;

// Calls itself `levels` times, then raises.
void descend(korEx* ex, uint8_t depth, uint32_t levels)
{
    if (levels == 0) {
        KOR_RAISE(ex, depth, KOR_ERROR_EXCEPTION, "deep");
        return;
    }
    descend(KOR_AT(ex, depth), levels - 1);
}

// Fails on an object of its own, which is chained to `ex` and, if private, cleared.
void failOnALocalObject(korEx* ex, uint8_t depth, uint8_t isPrivate)
{
    korEx local;
    korEx_initHead(&local, ex, depth, isPrivate);
    KOR_RAISE_F(&local, depth, KOR_ERROR_FILE_IO, "local %d", 15);
    if (isPrivate != 0) {
        korEx_Clear(&local);
    }
}

TEST_F(KorExTest, FirstErrorStands)
{
    KOR_RAISE(ex, 3, KOR_ERROR_TIMEOUT, "first");
    KOR_RAISE_F(ex, 9, KOR_ERROR_NO_MEMORY, "second %d", 2);
    korEx_at(ex, 3, "later", 1); // a frame recorded with an error pending changes nothing
    failOnALocalObject(KOR_AT(ex, 3), 0);
    failOnALocalObject(KOR_AT(ex, 3), 1); // and its clear stays with it
    EXPECT_EQ(ex->frameCount, 4);
    EXPECT_STREQ(ex->frames[3].function, "TestBody");
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "first");
}

TEST_F(KorExTest, NoDepthWritesOutsideTheFrames)
{
    for (uint32_t levels : {0u, 253u, 254u, 255u, 256u, 700u}) {
        std::memset(ex->descriptionBuffer, 0x5A, sizeof ex->descriptionBuffer);
        descend(KOR_AT(ex, 0), levels);
        uint32_t depth = (levels + 1) & 255; // 8-bit arithmetic
        EXPECT_EQ(ex->frameCount, depth < 255 ? depth + 1 : 255) << levels;
        EXPECT_STREQ(ex->frames[ex->frameCount - 1].function, "descend") << levels;
        for (char byte : ex->descriptionBuffer) {
            ASSERT_EQ(byte, 0x5A) << levels;
        }
        EXPECT_RAISED(KOR_ERROR_EXCEPTION, "deep");
    }
    for (uint8_t joinDepth :
         {uint8_t{200}, uint8_t{255}}) { // at 255 there is no room for the join, and none for the trace
        korEx local;
        korEx_initHead(&local, ex, joinDepth, 0);
        local.chainFunction = "join";
        _korEx_SetException(&local, 77, "x", 0, "innermost", 40, 254);
        EXPECT_EQ(ex->frameCount, 255);
        EXPECT_RAISED(77, "x");
    }
}

TEST_F(KorExTest, DescriptionsAreCopiedAndCut)
{
    for (size_t length : {0u, 255u, 256u, 1000u}) {
        std::string text(length, 'x');
        _korEx_SetException(ex, 16, text.c_str(), 1, "f", 1, 0);
        EXPECT_RAISED(16, text.substr(0, 255).c_str());
        KOR_RAISE_F(ex, 0, 16, "%s", text.c_str());
        EXPECT_RAISED(16, text.substr(0, 255).c_str());
    }
    failOnALocalObject(KOR_AT(ex, 0), 0);
    EXPECT_EQ(ex->description, ex->descriptionBuffer); // its own copy: the local one is gone
    EXPECT_RAISED(KOR_ERROR_FILE_IO, "local 15");
}

TEST_F(KorExTest, ChainOfThreeCarriesTheJoiningFrames)
{
    korEx middle;
    korEx_initHead(&middle, korEx_at(ex, 0, "outermost", 10), 1, 0);
    middle.chainFunction = "join";
    middle.chainLine = 20;
    korEx inner;
    korEx_initHead(&inner, korEx_at(&middle, 1, "between", 30), 2, 0);
    inner.osError = 99;
    _korEx_SetException(&inner, 77, "bottom", 0, "innermost", 40, 2);

    EXPECT_EQ(ex->osError, 99);
    for (const korEx* end : {&inner, ex}) { // by a walk of the chain, and from the copy
        std::string text = describe(end);
        EXPECT_NE(text.find("\t\tinnermost, 40\n\t\tbetween, 30\n\t\tjoin, 20\n\t\toutermost, 10\n"), std::string::npos)
            << text;
    }
    korEx_Clear(&inner);
    EXPECT_EQ(inner.code + middle.code + ex->code, 0);
    ex->osError = 0;
}

// Calls below a pending error are not recorded: the trace of what fails among them goes on where that error was raised.
TEST_F(KorExTest, ErrorBesideAPendingOneSkipsWhatWasNotRecorded)
{
    korEx_at(ex, 0, "outermost", 10);
    ex->frames[2] = {"left over", 1};
    _korEx_SetException(ex, KOR_ERROR_NOT_FOUND, nullptr, 0, "pending", 20, 1);
    KOR_EX_PRIVATE(own, ex, 5);
    korKeyFrame key[2 * (KOR_MAX_FRAMES + 1)];
    uint32_t size, hash;
    _korEx_ToKey(korEx_at(&own, 5, "aside", 30), 6, key, &size, &hash);
    EXPECT_EQ(size, 3 * sizeof(korKeyFrame));
    _korEx_SetException(&own, 77, "bottom", 0, "innermost", 40, 6);
    EXPECT_TRUE(describe(&own).ends_with("\t\tinnermost, 40\n\t\taside, 30\n\t\tpending, 20\n\t\toutermost, 10\n"))
        << describe(&own);
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, nullptr);
}

TEST_F(KorExTest, WordsOfTheCodes)
{
    std::string words;
    for (ex->code = -2; ex->code < 110; ex->code++) {
        std::string word = korEx_GetSummaryString(ex);
        words += word == "Unknown" ? "" : std::to_string(ex->code) + " " + word + ", ";
    }
    EXPECT_EQ(words, "-1 Null value exception, 0 OK, 1 Invalid Argument, 2 No memory, 4 Timeout, 5 Not initialized, "
                     "6 Operating system error, 7 Interrupted, 8 Not permitted, 9 Not found, 10 Illegal state, "
                     "11 Operation not supported, 12 End of buffer, 13 Incompatible library, 14 Already exists, "
                     "15 File I/O error, 16 Invalid value, 22 Resource limit reached, 100 Exception, ");
    ex->code = 0;
    EXPECT_STREQ(_korEx_GetSummaryString(nullptr), "Exception is NULL.\n");
    EXPECT_EQ(korEx_GetErrorCode(nullptr), -1);
}

const char* wordOfThree(int32_t code)
{
    return code == 3 || code == 2 ? "Three" : nullptr;
}

const char* wordOfAll(int32_t)
{
    return "Any";
}

TEST_F(KorExTest, CallbacksGiveWordsInOrderOfRegistration)
{
    auto word = [this](int32_t code) {
        ex->code = code;
        const char* text = korEx_GetSummaryString(ex);
        ex->code = 0;
        return text;
    };
    kor::test::sweepFailures(ex, [&] {
        _korEx_AddErrorStringCallback(ex, 0, wordOfAll); // no list yet: nothing happens
        _korEx_Open(ex, 0);
        for (auto* callback : {wordOfThree, wordOfAll, wordOfAll, wordOfAll, wordOfAll}) {
            _korEx_AddErrorStringCallback(ex, 0, callback);
        }
        if (ex->code == 0) {
            EXPECT_STREQ(word(2), "No memory"); // the table goes first
            EXPECT_STREQ(word(3), "Three");
            EXPECT_STREQ(word(19), "Any");
        }
        _korEx_Close(ex, 0);
    });
    EXPECT_STREQ(word(3), "Unknown");
}

TEST_F(KorExTest, TextOfAnException)
{
    EXPECT_EQ(describe(ex), "KORVA Exception:\n\tError Code    = OK\n");
    ex->osError = 2;
    char words[256];
    ASSERT_EQ(_korEx_OsErrorString(words, sizeof words, 2), 0);
    _korEx_SetException(ex, 9, nullptr, 0, "raiser", 12, 1);
    ex->frames[0] = {"caller", 11};
    std::string whole = std::string("KORVA Exception:\n\tError Code    = Not found\n\tOS Error Code = 2: ") + words +
                        "\n\tDescription   = None\n\tThread Name   = " + ex->threadName +
                        "\n\tStack Trace:\n\t\traiser, 12\n\t\tcaller, 11\n";
    EXPECT_EQ(describe(ex), whole);
    kor::test::StreamCapture capture(kor::test::StreamCapture::out);
    _korEx_Print(ex, stdout);
    EXPECT_EQ(capture.text(), whole);
    for (int32_t size = 0; size <= static_cast<int32_t>(whole.size()) + 1; size++) {
        std::vector<char> room(static_cast<size_t>(size) + 1, '#');
        EXPECT_EQ(korEx_ToString(ex, room.data(), size), size);
        EXPECT_EQ(room.back(), '#') << size;
        if (size > 0) {
            EXPECT_EQ(whole.substr(0, static_cast<size_t>(size) - 1), room.data());
        }
    }
    char* text = nullptr;
    EXPECT_EQ(_korEx_PrintException(ex, &text, 0, 0), static_cast<int32_t>(whole.size()) + 1);
    EXPECT_EQ(text, nullptr);
    ex->osError = 0;
    korEx_Clear(ex);
}

TEST_F(KorExTest, OneLineForm)
{
    char line[512];
    EXPECT_EQ(_korEx_PrintErrInfo(ex, line, sizeof line), 1);
    EXPECT_STREQ(line, "");
    ex->osError = 5;
    char words[256];
    _korEx_OsErrorString(words, sizeof words, 5);
    KOR_RAISE(ex, 0, KOR_ERROR_OS, nullptr);
    _korEx_PrintErrInfo(ex, line, sizeof line);
    EXPECT_EQ(line, std::string(" (OS Error Code = 5: ") + words + ")");
    ex->osError = 0;
    korEx_Clear(ex);
    KOR_RAISE(ex, 0, 9, "No such thing");
    const std::string whole = "No such thing (Error Code = 9: Not found)";
    for (size_t size = 1; size <= whole.size() + 1; size++) {
        EXPECT_EQ(_korEx_PrintErrInfo(ex, line, static_cast<int32_t>(size)), static_cast<int32_t>(size) - 1);
        EXPECT_EQ(line, whole.substr(0, size - 1));
    }
    korEx_Clear(ex);
}

TEST_F(KorExTest, CloneHoldsWhatBelongsToTheObject)
{
    korEx* first = _korEx_Create();
    first->baseDepth = 1;
    korEx_at(first, 0, "below", 1);
    korEx_at(first, 1, "base", 2);
    KOR_RAISE_F(first, 2, 9, "copied %d", 1);
    korEx* clone = _korEx_Clone(first);
    EXPECT_EQ(describe(clone), describe(first));
    EXPECT_EQ(clone->frames[0].function, nullptr);
    _korEx_Destroy(clone);
    _korEx_Destroy(first);
}

TEST_F(KorExTest, KeysGiveTheTrace)
{
    korKeyFrame key[2 * KOR_MAX_FRAMES];
    uint32_t size, hash;
    korEx_at(ex, 0, "outer", 1);
    korEx_at(ex, 1, "inner", 2);
    _korEx_ToKey(ex, 2, key, &size, &hash);
    ASSERT_EQ(size, 24u);
    kor::test::StreamCapture capture(kor::test::StreamCapture::error);
    _korEx_PrintKey(key, 35); // one whole record short of three
    _korEx_PrintStack(2, ex);
    EXPECT_EQ(capture.text(), "\tinner:2\n\touter:1\n\tinner:2\n\touter:1\n");
}

// In a process of its own, where nobody has asked for the program's name yet.
TEST_F(KorExTest, DISABLED_FirstRaiseWithoutMemory)
{
    _korutil_Open(KOR_AT(ex, 0), 3);
    {
        kor::test::FailingHeap heap(1, UINT64_MAX);
        EXPECT_EQ(_kor_malloc(KOR_AT(ex, 0), 10), nullptr);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
        KOR_RAISE(ex, 0, KOR_ERROR_NOT_FOUND, "no memory for the thread's name");
        EXPECT_STREQ(ex->threadName, "Unnamed");
    }
    EXPECT_RAISED(KOR_ERROR_NOT_FOUND, "no memory for the thread's name");
    _korutil_Close(KOR_AT_D(0, ex));
}

TEST_F(KorExTest, RaisesWithNoMemoryAtAll)
{
    kor::test::ChildProcess child("KorExTest.DISABLED_FirstRaiseWithoutMemory");
    EXPECT_EQ(child.wait(), 0) << child.output();
}

TEST_F(KorExTest, RaisingKeepsTheSystemsLastErrors)
{
    errno = ERANGE;
#ifdef _WIN32
    SetLastError(1234);
#endif
    KOR_RAISE_F(ex, 0, 9, "%s %f", "formatted", 1e300);
    EXPECT_EQ(errno, ERANGE);
#ifdef _WIN32
    EXPECT_EQ(GetLastError(), 1234u);
    EXPECT_EQ(WSAGetLastError(), 1234);
#endif
    korEx_Clear(ex);
}

} // namespace
