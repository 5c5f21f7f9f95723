// korEx_test.cpp - raising, the first error's precedence, chains, texts, keys, and the bounds of the trace.

#include "support/childProcess.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include "korutil/korAlloc.h"
#include "korutil/korLib.h"

#include <cerrno>
#include <cstring>
#include <map>
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

void onLocal(korEx* ex, uint8_t depth, uint8_t own, int32_t code)
{
    korEx local;
    korEx_initHead(&local, ex, depth, own);
    KOR_RAISE_F(&local, depth, code, "local %d", code);
}

void passOn(korEx* ex, uint8_t depth, uint8_t own, int32_t code)
{
    onLocal(KOR_AT(ex, depth), own, code);
}

TEST_F(KorExTest, FirstErrorStands)
{
    KOR_RAISE(ex, 3, KOR_ERROR_TIMEOUT, "first");
    KOR_RAISE(ex, 7, KOR_ERROR_NO_MEMORY, "second");
    KOR_RAISE_F(ex, 9, KOR_ERROR_NO_MEMORY, "third %d", 3);
    EXPECT_EQ(ex->frameCount, 4);
    EXPECT_STREQ(ex->frames[3].function, "TestBody");
    korEx_at(ex, 3, "later", 1); // a frame recorded with an error pending changes nothing
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
    _korEx_SetException(ex, 10, "beyond", 0, "far", 5, 100000);
    EXPECT_EQ(ex->frameCount, 255);
    EXPECT_STREQ(ex->frames[254].function, "far");
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "beyond");
}

TEST_F(KorExTest, DescriptionsAreKeptOrCopiedAndCut)
{
    static const char fixed[] = "static";
    KOR_RAISE(ex, 0, 16, fixed);
    EXPECT_EQ(ex->description, fixed);
    korEx_Clear(ex);

    KOR_RAISE(ex, 0, 16, nullptr);
    EXPECT_RAISED(16, nullptr);

    for (size_t length : {0u, 1u, 255u, 256u, 1000u}) {
        std::string text(length, 'x');
        _korEx_SetException(ex, 16, text.c_str(), 1, "f", 1, 0);
        EXPECT_RAISED(16, text.substr(0, 255).c_str());
        KOR_RAISE_F(ex, 0, 16, "%s", text.c_str());
        EXPECT_RAISED(16, text.substr(0, 255).c_str());
    }
}

TEST_F(KorExTest, FailureOfALocalObjectTravelsUnlessItIsPrivate)
{
    passOn(KOR_AT(ex, 0), 0, KOR_ERROR_FILE_IO);
    EXPECT_EQ(ex->description, ex->descriptionBuffer); // its own copy: the local one is gone
    EXPECT_EQ(ex->frameCount, 3);
    EXPECT_STREQ(ex->frames[0].function, "TestBody");
    EXPECT_STREQ(ex->frames[1].function, "passOn");
    EXPECT_STREQ(ex->frames[2].function, "onLocal");
    EXPECT_RAISED(KOR_ERROR_FILE_IO, "local 15");

    passOn(KOR_AT(ex, 0), 1, KOR_ERROR_FILE_IO);
    EXPECT_CLEAN();

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    passOn(KOR_AT(ex, 0), 0, KOR_ERROR_FILE_IO);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
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
    std::vector<std::string> names;
    for (int index = 0; index < ex->frameCount; index++) {
        names.push_back(ex->frames[index].function);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"outermost", "join", "between", "innermost"}));
    std::string text = describe(&inner); // walks the chain rather than the copy
    EXPECT_NE(text.find("\t\tinnermost, 40\n\t\tbetween, 30\n\t\tjoin, 20\n\t\toutermost, 10\n"), std::string::npos)
        << text;
    korEx_Clear(&inner);
    EXPECT_EQ(inner.code + middle.code + ex->code, 0);
    ex->osError = 0;
}

TEST_F(KorExTest, LongChainedTraceIsCutAtTheLastFrame)
{
    korEx local;
    korEx_initHead(&local, ex, 200, 0);
    local.chainFunction = "join";
    _korEx_SetException(&local, 77, "x", 0, "innermost", 40, 254);
    EXPECT_EQ(ex->frameCount, 255);
    EXPECT_STREQ(ex->frames[200].function, "join");
    korEx_Clear(ex);
    local.code = 0;
    local.chainDepth = 255; // no room for the join, none for the trace
    _korEx_SetException(&local, 77, "x", 0, "innermost", 40, 254);
    EXPECT_EQ(ex->frameCount, 255);
    EXPECT_RAISED(77, "x");
}

TEST_F(KorExTest, ClearStopsAtTheFirstObjectOfItsOwn)
{
    korEx last;
    korEx_initHead(&last, nullptr, 0, 1);
    korEx middle;
    korEx_initHead(&middle, &last, 0, 1);
    korEx first;
    korEx_initHead(&first, &middle, 0, 0);
    first.code = middle.code = last.code = 4;
    korEx_Clear(&first);
    EXPECT_EQ(first.code, 0);
    EXPECT_EQ(middle.code, 0);
    EXPECT_EQ(last.code, 4);
    korEx_Clear(nullptr);
}

TEST_F(KorExTest, WordsOfTheCodes)
{
    const std::map<int32_t, const char*> words = {{-1, "Null value exception"},
                                                  {0, "OK"},
                                                  {1, "Invalid Argument"},
                                                  {2, "No memory"},
                                                  {4, "Timeout"},
                                                  {5, "Not initialized"},
                                                  {6, "Operating system error"},
                                                  {7, "Interrupted"},
                                                  {8, "Not permitted"},
                                                  {9, "Not found"},
                                                  {10, "Illegal state"},
                                                  {11, "Operation not supported"},
                                                  {12, "End of buffer"},
                                                  {13, "Incompatible library"},
                                                  {14, "Already exists"},
                                                  {15, "File I/O error"},
                                                  {16, "Invalid value"},
                                                  {22, "Resource limit reached"},
                                                  {100, "Exception"}};
    for (int32_t code = -2; code < 110; code++) {
        ex->code = code;
        EXPECT_STREQ(korEx_GetSummaryString(ex), words.contains(code) ? words.at(code) : "Unknown") << code;
    }
    ex->code = 0;
    EXPECT_STREQ(_korEx_GetSummaryString(nullptr), "Exception is NULL.\n");
    EXPECT_EQ(korEx_GetErrorCode(nullptr), -1);
}

const char* wordOfPrimes(int32_t code)
{
    return code == 3 || code == 17 || code == 2 ? "Prime" : nullptr;
}

const char* wordOfOdds(int32_t code)
{
    return code % 2 != 0 ? "Odd" : nullptr;
}

TEST_F(KorExTest, CallbacksGiveWordsInOrderOfRegistration)
{
    auto word = [this](int32_t code) {
        ex->code = code;
        std::string text = korEx_GetSummaryString(ex);
        ex->code = 0;
        return text;
    };
    _korEx_AddErrorStringCallback(ex, 0, wordOfOdds); // no list yet: nothing happens
    _korEx_Open(ex, 0);
    EXPECT_EQ(word(3), "Unknown");
    _korEx_AddErrorStringCallback(ex, 0, wordOfPrimes);
    _korEx_AddErrorStringCallback(ex, 0, wordOfOdds);
    EXPECT_EQ(word(3), "Prime");
    EXPECT_EQ(word(19), "Odd");
    EXPECT_EQ(word(20), "Unknown");
    EXPECT_EQ(word(2), "No memory"); // the table goes first
    _korEx_Close(ex, 0);
    _korEx_Close(ex, 0);
    EXPECT_EQ(word(3), "Unknown");
    kor::test::sweepFailures(ex, [this] {
        _korEx_Open(ex, 0);
        for (int count = 0; count < 5; count++) {
            _korEx_AddErrorStringCallback(ex, 0, wordOfOdds);
        }
        _korEx_Close(ex, 0);
    });
}

TEST_F(KorExTest, TextOfAnException)
{
    EXPECT_EQ(describe(ex), "KORVA Exception:\n\tError Code    = OK\n");
    ex->osError = 2;
    char words[256];
    ASSERT_EQ(_korEx_OsErrorString(words, sizeof words, 2), 0);
    _korEx_SetException(ex, 9, nullptr, 0, "raiser", 12, 1);
    ex->frames[0] = {"caller", 11};
    EXPECT_EQ(describe(ex), std::string("KORVA Exception:\n\tError Code    = Not found\n\tOS Error Code = 2: ") +
                                words + "\n\tDescription   = None\n\tThread Name   = " + ex->threadName +
                                "\n\tStack Trace:\n\t\traiser, 12\n\t\tcaller, 11\n");
    EXPECT_EQ(describe(nullptr), "Exception is NULL.\n");
    ex->osError = 0;
    korEx_Clear(ex);
}

TEST_F(KorExTest, TextFitsWhateverRoomThereIs)
{
    KOR_RAISE(ex, 0, 9, "gone");
    std::string whole = describe(ex);
    char* none = nullptr;
    EXPECT_EQ(_korEx_PrintException(ex, &none, 0, 0), static_cast<int32_t>(whole.size()) + 1);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(_korEx_PrintException(ex, nullptr, 10, 0), 0);
    for (int32_t size = 0; size <= static_cast<int32_t>(whole.size()) + 1; size++) {
        std::vector<char> room(static_cast<size_t>(size) + 1, '#');
        int32_t length = korEx_ToString(ex, room.data(), size);
        EXPECT_EQ(length, size);
        EXPECT_EQ(room.back(), '#') << size;
        if (size > 0) {
            EXPECT_EQ(whole.substr(0, static_cast<size_t>(size) - 1), room.data());
        }
    }
    char* text = nullptr;
    _korEx_PrintException(ex, &text, 0, 1);
    EXPECT_EQ(whole, text);
    korEx_Clear(ex);
    _korUtil_Free(0, ex, text);
}

TEST_F(KorExTest, OneLineForm)
{
    char line[512];
    EXPECT_EQ(_korEx_PrintErrInfo(ex, line, sizeof line), 1);
    EXPECT_STREQ(line, "");
    char words[256];
    _korEx_OsErrorString(words, sizeof words, 5);
    const std::tuple<int32_t, const char*, int32_t, std::string> cases[] = {
        {9, "No such thing", 0, "No such thing (Error Code = 9: Not found)"},
        {KOR_ERROR_OS, nullptr, 5, std::string(" (OS Error Code = 5: ") + words + ")"}};
    for (const auto& [code, description, osError, wanted] : cases) {
        ex->osError = osError;
        KOR_RAISE(ex, 0, code, description);
        EXPECT_EQ(_korEx_PrintErrInfo(ex, line, sizeof line), static_cast<int32_t>(wanted.size()));
        EXPECT_EQ(line, wanted);
        for (int32_t size = 1; size <= static_cast<int32_t>(wanted.size()); size++) {
            EXPECT_EQ(_korEx_PrintErrInfo(ex, line, size), size - 1);
            EXPECT_EQ(line, wanted.substr(0, static_cast<size_t>(size) - 1));
        }
        ex->osError = 0;
        korEx_Clear(ex);
    }
}

TEST_F(KorExTest, CloneHoldsWhatBelongsToTheObject)
{
    ex->baseDepth = 1;
    korEx_at(ex, 0, "below", 1);
    korEx_at(ex, 1, "base", 2);
    KOR_RAISE_F(ex, 2, 9, "copied %d", 1);
    korEx* clone = _korEx_Clone(ex);
    EXPECT_EQ(describe(clone), describe(ex));
    EXPECT_EQ(clone->description, clone->descriptionBuffer);
    EXPECT_EQ(clone->frames[0].function, nullptr);
    EXPECT_EQ(clone->own, ex->own);
    korEx_Destroy(clone);
    korEx_Clear(ex);
    ex->baseDepth = 0;
    EXPECT_EQ(_korEx_Clone(nullptr), nullptr);
}

TEST_F(KorExTest, KeysTellPathsApart)
{
    korKeyFrame key[2 * KOR_MAX_FRAMES];
    uint32_t size = 0;
    uint32_t hash = 0;
    korEx_at(ex, 0, "outer", 1);
    korEx_at(ex, 1, "inner", 2);
    _korEx_ToKey(ex, 2, key, &size, &hash);
    ASSERT_EQ(size, 24u);
    EXPECT_STREQ(key[0].function, "inner");
    EXPECT_EQ(key[1].line, 1);
    auto fold = [](const char* name, uint32_t line) {
        auto bits = reinterpret_cast<uintptr_t>(name);
        return static_cast<uint32_t>(bits) + static_cast<uint32_t>(bits >> 32) + line;
    };
    EXPECT_EQ(hash, fold(key[0].function, 2) + fold(key[1].function, 1));

    kor::test::StreamCapture capture(kor::test::StreamCapture::error);
    _korEx_PrintKey(key, 11);
    _korEx_PrintKey(key, 35); // one whole record short of three
    _korEx_PrintStack(2, ex);
    _korEx_PrintStack(2, nullptr);
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

TEST_F(KorExTest, TheOlderNamesDoTheSame)
{
    korEx* other = _korEx_Create();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->own, 1);
    KOR_RAISE(other, 0, KOR_ERROR_NOT_FOUND, "gone");
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    _korEx_Print(other, file);
    rewind(file);
    std::string printed(4096, '\0');
    printed.resize(fread(printed.data(), 1, printed.size(), file));
    fclose(file);
    std::erase(printed, '\r');
    std::string whole = describe(other);
    EXPECT_EQ(printed.substr(0, whole.size()), whole);
    _korEx_Destroy(other);
    _korEx_Destroy(nullptr);
}
