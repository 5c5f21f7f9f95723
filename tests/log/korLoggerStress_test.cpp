// korLoggerStress_test.cpp - many threads make statements while others change levels, handlers, keys and observers.
//
// Every statement carries its writer and a number, so that what arrives can be held against what was sent: whole, once,
// in each writer's order, and none missing that passed its test.

#include "loggerTest.h"

#include "log/timeStamp.h"

#include <atomic>
#include <map>
#include <sstream>
#include <thread>

namespace {

using namespace kor::test;
using KorLoggerStressTest = LoggerTest;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(_WIN32)
constexpr int statementsPerWriter = 2000;
#else
constexpr int statementsPerWriter = 10000;
#endif
constexpr int writers = 4;

const std::string filling(40, 'f');

// What a writer has sent through one road.
void makeStatements(int writer, const korLogSourceEx& source)
{
    for (int number = 0; number < statementsPerWriter; number++) {
        _korLogger_LogExN(29, "global", 120, nullptr, "<%d %d %s>", writer, number, filling.c_str());
        _korLogger_LogBySource(&source, 0, nullptr, nullptr, 120, nullptr, 0, "<%d %d %s>", writer, number,
                               filling.c_str());
        _korLogger_LogExN(29, nullptr, 40, nullptr, "<never passes>");
    }
}

// Checks texts of the form "...<writer number filling>..." and counts them by writer.
class Ledger
{
public:
    void enter(const std::string& statement)
    {
        int writer = -1;
        int number = -1;
        char fill[64] = {};
        size_t mark = statement.find('<');
        ASSERT_NE(mark, std::string::npos) << statement;
        ASSERT_EQ(std::sscanf(statement.c_str() + mark, "<%d %d %40[f]>", &writer, &number, fill), 3) << statement;
        ASSERT_EQ(fill, filling) << statement;
        ASSERT_EQ(statement.find('>'), statement.size() - 1) << statement;
        ASSERT_EQ(number, next_[writer]) << "writer " << writer;
        next_[writer] = number + 1;
    }
    void expectAll()
    {
        for (int writer = 0; writer < writers; writer++) {
            EXPECT_EQ(next_[writer], statementsPerWriter) << "writer " << writer;
        }
    }

private:
    std::map<int, int> next_;
};

template <typename Disturb>
void runWriters(const korLogSourceEx& source, Disturb disturb)
{
    std::atomic<int> running = writers;
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; writer++) {
        threads.emplace_back([&, writer] {
            makeStatements(writer, source);
            running--;
        });
    }
    for (int round = 0; running != 0; round++) {
        disturb(round);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

std::atomic<uint64_t> seen;
void countSeen(const char*, uint32_t, const char*, const char*, int32_t, int32_t, const char*)
{
    seen++;
}
void countSeenEx(uint64_t, const char*, uint32_t, const char*, const char*, int32_t, int32_t, const char*)
{
    seen++;
}

TEST_F(KorLoggerStressTest, CallbacksGetEveryStatementWholeWhileAllElseChanges)
{
    constexpr uint64_t logKey = 900;
    seen = 0;
    Receiver global;
    Receiver own;
    receive(global);
    receive(own, logKey);
    korLogSourceEx source = {};
    _korLogger_SetLogSource(logKey, 29, "own", nullptr, &source);
    runWriters(source, [&](int round) {
        bool even = round % 2 == 0;
        uint64_t passing = 1000 + static_cast<uint64_t>(round % 5);
        _korLogger_SetLogLevels(KOR_AT(ex, 0), even ? "tcp:warn;IO:severe" : "verbose");
        _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), logKey, even ? "all:info" : "tcp:severe;store:off");
        _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), passing, "warn");
        _korLogger_LogByKey(passing, 29, nullptr, nullptr, 40, nullptr, 0, "stopped");
        _korLogger_SetLogCentral(KOR_AT(ex, 0), even ? countSeen : nullptr);
        _korLogger_SetLogCentralEx(KOR_AT(ex, 0), even ? countSeenEx : nullptr);
        _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), passing);
        _korLogger_SetAltLoggerId(loggerIdOf(2000), source.loggerId);
        _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 2000);
        char spec[64];
        _korLogger_GetLogLevelsForId(KOR_AT(ex, 0), logKey, spec, sizeof(spec));
        if (round < 50) {
            _korLogger_RegisterComponent(KOR_AT(ex, 0), ("stress" + std::to_string(round)).c_str(), "strs");
        }
    });
    ASSERT_CLEAN();
    for (Receiver* receiver : {&global, &own}) {
        Ledger ledger;
        for (const std::string& statement : receiver->take()) {
            ASSERT_NO_FATAL_FAILURE(ledger.enter(statement));
        }
        ledger.expectAll();
    }
    EXPECT_LE(seen.load(), 2u * writers * statementsPerWriter);
}

// The handler of a running system changes hands: each statement goes to one of the two, and none to neither.
TEST_F(KorLoggerStressTest, AHandlerSetUnderWayLosesNothing)
{
    Folder folder;
    StreamCapture capture(StreamCapture::error);
    korLogSourceEx source = {}; // no logger: both roads lead to the global one, the second with another name
    _korLogger_SetLogSource(0, 29, "global", nullptr, &source);
    runWriters(source, [&](int round) {
        if (round == 1) {
            _korLogger_SetLogFiles(KOR_AT(ex, 0), folder.path("log").c_str(), 2000000000, 2);
        } else if (round > 1) {
            _korLogger_SetDefaultLogHandler(KOR_AT(ex, 0));
        }
        std::this_thread::yield();
    });
    ASSERT_CLEAN();
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
    std::istringstream lines(capture.text() + folder.text("log.0"));
    std::map<std::pair<int, int>, int> arrived;
    for (std::string line; std::getline(lines, line);) {
        int writer = -1;
        int number = -1;
        char fill[64] = {};
        size_t mark = line.find("] <");
        ASSERT_NE(mark, std::string::npos) << line;
        ASSERT_EQ(std::sscanf(line.c_str() + mark, "] <%d %d %40[f]>", &writer, &number, fill), 3) << line;
        ASSERT_EQ(fill, filling);
        arrived[{writer, number}]++;
    }
    EXPECT_EQ(arrived.size(), size_t{writers} * statementsPerWriter);
    for (const auto& [statement, times] : arrived) {
        ASSERT_EQ(times, 2) << statement.first << " " << statement.second; // one by each road
    }
}

// The text of the last second is shared by all threads: none may see half of another's.
TEST_F(KorLoggerStressTest, TimeStampsAreWhole)
{
    auto reference = [](const korTime& time) {
        korDateTime local;
        char text[64];
        _kor_GetLocalTime(&time, &local);
        _kor_snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.year, local.month, local.day,
                      local.hour, local.minute, local.second, local.millisecond);
        return std::string(text);
    };
    const korTime times[] = {{1709251199, 999000000}, {1735689600, 5000000}, {951826332, 120000000}};
    const std::string expected[] = {reference(times[0]), reference(times[1]), reference(times[2])};
    std::vector<std::thread> threads;
    std::atomic<int> wrong = 0;
    for (int writer = 0; writer < writers; writer++) {
        threads.emplace_back([&, writer] {
            for (int round = 0; round < statementsPerWriter; round++) {
                auto which = static_cast<size_t>(round + writer) / 4 % 3;
                char buffer[64];
                kor::logging::Text text = {buffer, sizeof(buffer)};
                kor::logging::appendTime(text, times[which], false);
                wrong += buffer != expected[which] ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

} // namespace
