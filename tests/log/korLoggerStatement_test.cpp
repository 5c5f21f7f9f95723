// korLoggerStatement_test.cpp - what a statement looks like, to the byte, and which road it takes.

#include "loggerTest.h"
#include "support/failingHeap.h"

#include "log/layouts.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstring>
#include <thread>

namespace {

using namespace kor::test;
using KorStatementTest = LoggerTest;

// Calls a layout as the logger does.
std::string layOut(korHandlerLayout layout, uint32_t size, const char* shortTag, int32_t level, const korEx* logEx,
                   const char* format, ...)
{
    std::string buffer(size, 'x');
    va_list arguments;
    va_start(arguments, format);
    layout(buffer.data(), size, shortTag, "name", "label", level, 0, logEx, format, arguments);
    va_end(arguments);
    EXPECT_LT(std::strlen(buffer.c_str()), size);
    return buffer.c_str();
}

void fail(korEx* ex, uint8_t depth)
{
    ex->osError = 2;
    KOR_RAISE(ex, depth, KOR_ERROR_NOT_FOUND, "no such thing");
}

std::string exceptionText(const korEx* ex)
{
    char text[2048];
    korEx_ToString(ex, text, sizeof(text));
    return text;
}

// A text with every digit as 9 and a number behind 0x as X, for texts that show time and thread.
std::string shapeOf(const std::string& text)
{
    std::string shape;
    for (size_t index = 0; index < text.size(); index++) {
        if (shape.ends_with("9x")) {
            index = std::min(text.find_first_not_of("0123456789ABCDEF", index), text.size());
            shape += 'X';
        }
        shape += std::isdigit(static_cast<unsigned char>(text[index])) != 0 ? '9' : text[index];
    }
    return shape;
}

TEST_F(KorStatementTest, ACallbackStatementHasNoTimeAndNoNewline)
{
    Receiver receiver;
    receive(receiver);
    _korLogger_LogExN_v3(5, "name", "label", 110, nullptr, 0, "message %d of %s", 1, "two");
    _korLogger_LogExN_v2(62, "name", 90, nullptr, 0, "stopped");
    _korLogger_SetLogLevelWithLevel(62, 90);
    _korLogger_LogExN_v2(62, "name", 90, nullptr, 0, "cut and padded");
    _korLogger_LogExN(29, "", 120, nullptr, "%s", "no name");
    _korLogger_LogExN_v3(0, nullptr, "", 127, nullptr, 0, "of no component");
    EXPECT_EQ(receiver.take(),
              (Statements{"warn exec: label [name] message 1 of two", "verb   ws: [name] cut and padded",
                          "seve  tcp: no name", " off     : of no component"}));
    fail(KOR_AT(ex, 0));
    _korLogger_LogExN(29, nullptr, 120, ex, "with its exception");
    EXPECT_EQ(receiver.take(), Statements{"seve  tcp: with its exception\n" + exceptionText(ex)});
    korEx_Clear(ex);
}

TEST_F(KorStatementTest, TheLevelDecides)
{
    Receiver receiver;
    receive(receiver);
    _korLogger_SetLogLevelWithLevel(29, 105);
    for (int32_t level : {104, 105, 106}) {
        _korLogger_LogExN(29, nullptr, level, nullptr, "%d", level);
        KOR_LOG(29, level, "%d", level + 1000);
    }
    EXPECT_EQ(receiver.take(), (Statements{"inva  tcp: 105", "inva  tcp: 1105", "inva  tcp: 106", "inva  tcp: 1106"}));
    int evaluated = 0;
    KOR_LOG(29, 104, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    _korLogger_SetLogLevelWithLevel(29, 100);

    for (int32_t level : {100, 127, -128, 1000, 1009, 999, 128}) { // the older scale and no other
        _korLogger_LogEx(29, nullptr, level, nullptr, "%d", level);
    }
    EXPECT_EQ(receiver.take(), (Statements{"info  tcp: 1000", "info  tcp: 1009"}));
    for (const char* format : {"%s", "%d", "", "%s ", "text"}) {
        _korLogger_LogMessage(29, "n", 100, nullptr, format, "100%d");
        _korLogger_LogMessageEx(29, "n", "l", 100, nullptr, format, "100%n");
    }
    EXPECT_EQ(receiver.take(), (Statements{"info  tcp: [n] 100%d", "info  tcp: l [n] 100%n"}));
}

TEST_F(KorStatementTest, ASourceFillsInWhatIsMissing)
{
    Receiver global;
    Receiver own;
    receive(global);
    receive(own, 7);
    korLogSourceEx source = {};
    _korLogger_SetLogSource(7, 12, "name", "label", &source);
    _korLogger_LogBySource(&source, 0, nullptr, nullptr, 100, nullptr, 0, "all from the source");
    _korLogger_LogBySource(&source, 29, "n", "", 100, nullptr, 0, "nothing from it");
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 7, "timers:severe");
    _korLogger_LogBySource(&source, 0, nullptr, nullptr, 119, nullptr, 0, "stopped by the own level");
    EXPECT_EQ(own.take(),
              (Statements{"info tmrs: label [name] all from the source", "info  tcp: [n] nothing from it"}));
    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 7);
    _korLogger_LogBySource(&source, 0, nullptr, nullptr, 100, nullptr, 0, "the logger has gone");
    _korLogger_LogBySource(&source, 0, nullptr, nullptr, 99, nullptr, 0, "stopped by the default level");
    _korLogger_LogBySource(nullptr, 29, nullptr, nullptr, 100, nullptr, 0, "no source");
    _korLogger_LogById(source.loggerId, 29, nullptr, nullptr, 100, nullptr, 0, "stale id");
    _korLogger_LogById(0, 29, nullptr, nullptr, 100, nullptr, 0, "no id");
    _korLogger_LogByLogger(nullptr, 29, nullptr, nullptr, 100, nullptr, 0, "no logger");
    EXPECT_EQ(global.take(), (Statements{"info tmrs: label [name] the logger has gone", "info  tcp: no source",
                                         "info  tcp: stale id", "info  tcp: no id", "info  tcp: no logger"}));
    EXPECT_TRUE(own.take().empty());
}

// The only test that turns the two flags on, since nothing turns them off.
TEST_F(KorStatementTest, AVerboseStatementShowsTimeAndThread)
{
    static bool flagsAreOn = false;
    korHandlerLayout layout = _gLogger.consoleHandler->layout;
    if (!flagsAreOn) {
        char before[KOR_LOCAL_TIME_SIZE];
        char after[KOR_LOCAL_TIME_SIZE];
        _kor_GetCurrentLocalTimeStr(before, sizeof(before));
        std::string text = layOut(layout, 4096, "exec", 110, nullptr, "text");
        _kor_GetCurrentLocalTimeStr(after, sizeof(after));
        EXPECT_EQ(shapeOf(text), "9999-99-99 99:99:99.999 warn exec: label [name] text\n");
        EXPECT_LE(before, text.substr(0, 23));
        EXPECT_LE(text.substr(0, 23), after);
        fail(KOR_AT(ex, 0));
        EXPECT_EQ(layOut(layout, 4096, "ws", 80, ex, "text %d", 1).substr(23),
                  " dbg1   ws: label [name] text 1\n" + exceptionText(ex));
        korEx_Clear(ex);
        _korLogger_SetLogLevels(KOR_AT(ex, 0), "tcp:warn;precise_time");
        EXPECT_EQ(_korLogger_GetLogLevel(29), 110);
        EXPECT_EQ(shapeOf(layOut(layout, 4096, "ws", 127, nullptr, "t")),
                  "9999-99-99 99:99:99.999999  off   ws: label [name] t\n");
        flagsAreOn = true;
    }
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "warn;xthread_idx;xprecise_timex");
    EXPECT_EQ(_korLogger_GetLogLevel(29), 110);
    for (int attempt = 0; attempt < 100; attempt++) { // the low 16 bits of the microseconds
        std::string text = layOut(layout, 4096, nullptr, 50, nullptr, "t");
        EXPECT_EQ(shapeOf(text), "9999-99-99 99:99:99.999999 tid 9xX _int     : label [name] t\n");
        ASSERT_LT(std::stoi(text.substr(20, 6)), 65536);
    }
}

TEST_F(KorStatementTest, WhatDoesNotFitIsCut)
{
    Receiver receiver;
    receive(receiver);
    std::string longText(5000, 'm');
    _korLogger_LogExN(29, nullptr, 100, nullptr, "%s", longText.c_str());
    EXPECT_EQ(receiver.take(), Statements{"info  tcp: " + longText.substr(0, 4095 - 11)});
    fail(KOR_AT(ex, 0));
    korHandlerLayout layout = _gLogger.callbackHandler->layout;
    std::string whole = layOut(layout, 4096, "tcp", 100, ex, "text");
    for (uint32_t size = 1; size < whole.size() + 3; size++) {
        EXPECT_EQ(layOut(layout, size, "tcp", 100, ex, "text"), whole.substr(0, size - 1));
    }
    korEx_Clear(ex);
}

TEST_F(KorStatementTest, OtherLayouts)
{
    using namespace kor::logging;
    EXPECT_EQ(layOut(__bareLayout, 100, "tcp", 100, nullptr, "text %d", 1), "- text 1\n");
    EXPECT_EQ(layOut(__tagLayout, 100, "tcp", 110, nullptr, "text"), "warn [tcp]: text");
    EXPECT_EQ(shapeOf(layOut(__datedLayout, 100, "tcp", 90, nullptr, "text")),
              "9999-99-99 99:99:99.999 - verbose [tcp]: text\n");
    EXPECT_EQ(shapeOf(layOut(__datedLayout, 100, nullptr, 90, nullptr, "text")),
              "9999-99-99 99:99:99.999 - verbose: text\n");

    fail(KOR_AT(ex, 7)); // frame 7 calls, frame 8 raises
    ex->baseDepth = 7;
    char system[256];
    _korEx_OsErrorString(system, sizeof(system), 2);
    std::string block = "  Error Code: Not found\n  OS Error Code: 2 " + std::string(system) +
                        "\n  Description: no such thing\n  Stack Trace:\n    TestBody, " +
                        std::to_string(ex->frames[7].line) + "\n    fail, " + std::to_string(ex->frames[8].line) + "\n";
    EXPECT_EQ(layOut(__bareLayout, 4096, "tcp", 100, ex, "text"), "- text\n" + block);
    EXPECT_EQ(layOut(__tagLayout, 4096, "tcp", 100, ex, "text"), "info [tcp]: text\n" + block);
    EXPECT_EQ(layOut(__bareLayout, 30, "tcp", 100, ex, "text"), ("- text\n" + block).substr(0, 29));
    ex->code = 0;
    ex->osError = 0;
    EXPECT_EQ(layOut(__bareLayout, 4096, "tcp", 100, ex, "text"), "- text\n  Error Code: OK\n");
    ex->baseDepth = 0;
}

// ---- Observers ------------------------------------------------------------------------------------------------------

struct Observed {
    uint64_t logKey;
    std::string message, shortTag, name;
    int32_t level, eventCode;
    std::string exception;
    bool operator==(const Observed&) const = default;
};
std::vector<Observed> observed;

void observeEx(uint64_t logKey, const char* message, uint32_t length, const char* shortTag, const char* name,
               int32_t level, int32_t eventCode, const char* exception)
{
    observed.push_back({logKey, std::string(message, length), shortTag, name != nullptr ? name : "NULL", level,
                        eventCode, exception != nullptr ? exception : "NULL"});
}

void observe(const char* message, uint32_t length, const char* shortTag, const char* name, int32_t level,
             int32_t eventCode, const char* exception)
{
    observeEx(0, message, length, shortTag, name, level, eventCode, exception);
}

TEST_F(KorStatementTest, ObserversSeeTheMessageProper)
{
    observed.clear();
    Folder folder;
    Receiver receiver;
    receive(receiver);
    _korLogger_SetLogFilesForId(KOR_AT(ex, 0), 5, folder.path("own").c_str(), 100000, 2);
    _korLogger_SetLogCentral(KOR_AT(ex, 0), observe);
    _korLogger_SetLogCentralEx(KOR_AT(ex, 0), observeEx);
    _korLogger_LogExN_v3(29, "name", "label", 110, nullptr, 17, "one %d", 1);
    _korLogger_LogExN_v3(29, "name", "label", 99, nullptr, 17, "stopped");
    fail(KOR_AT(ex, 0));
    std::string trace = exceptionText(ex);
    _korLogger_LogByKey(5, 5, nullptr, "label", 120, ex, -3, "two");
    korEx_Clear(ex);
    EXPECT_EQ(observed, (std::vector<Observed>{{0, "one 1", "tcp", "name", 110, 17, "NULL"},
                                               {5, "two", "exec", "NULL", 120, -3, trace}}));
    _korLogger_SetLogCentral(KOR_AT(ex, 0), nullptr);
    _korLogger_SetLogCentralEx(KOR_AT(ex, 0), nullptr);
    _korLogger_LogExN(29, nullptr, 110, nullptr, "unseen");
    _korLogger_LogByKey(5, 5, nullptr, nullptr, 120, nullptr, 0, "unseen");
    EXPECT_EQ(observed.size(), 2u);
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
}

// ---- The buffer -----------------------------------------------------------------------------------------------------

// A thread without a buffer that cannot get one lays its statement out on the stack, unless what fails is the keeping
// of a buffer: then the statement is lost. Neither may leak.
TEST_F(KorStatementTest, AStatementSurvivesShortMemory)
{
    static Receiver* receiver;
    static size_t received;
    Receiver mine;
    receiver = &mine;
    received = 0;
    _korLogger_SetLogCallback(
        KOR_AT(ex, 0), [](korDateTime, const char*, void*) { received++; }, receiver);
    bool fired = true;
    for (uint64_t failing = 1; fired; failing++) {
        std::thread([&] {
            FailingHeap heap(failing);
            _korLogger_LogExN(29, nullptr, 100, nullptr, "survives");
            fired = heap.fired();
            if (failing == 1 || !fired) {
                EXPECT_EQ(received, 1u);
            }
        }).join();
        received = 0;
    }
}

TEST_F(KorStatementTest, AListOfArgumentsMakesTheSameStatement)
{
    Receiver receiver;
    receive(receiver);
    auto log = [](int form, const char* format, ...) KOR_PRINTF(3, 4) {
        va_list arguments;
        va_start(arguments, format);
        if (form == 3) {
            _korLogger_LogVa_v3(5, "name", "label", 110, nullptr, 0, format, arguments);
        } else if (form == 2) {
            _korLogger_LogVa_v2(5, "name", 110, nullptr, 0, format, arguments);
        } else {
            _korLogger_LogVa(5, "name", 110, nullptr, format, arguments);
        }
        va_end(arguments);
    };
    for (int form : {3, 2, 1}) {
        log(form, "%s %d", "form", form);
    }
    EXPECT_EQ(receiver.take(),
              (Statements{"warn exec: label [name] form 3", "warn exec: [name] form 2", "warn exec: [name] form 1"}));
}

} // namespace
