// korLogger_test.cpp - components, groups, level lists, loggers of keys, and the choice of their handlers.

#include "loggerTest.h"
#include "support/failingHeap.h"

#include <atomic>
#include <map>
#include <numeric>
#include <thread>

namespace {

using namespace kor::test;
using KorLoggerTest = LoggerTest;

std::string letters(size_t count, char letter = 'a')
{
    return std::string(count, letter);
}

std::map<int, int32_t> changedLevels(const int32_t* levels, const std::map<int, int32_t>& usual = {})
{
    std::map<int, int32_t> changed;
    for (int component = 0; component <= KOR_LOG_MAX_COMPONENT; component++) {
        int32_t initial = component == 0 || component == 56 || component > 64 ? 127 : 100;
        auto known = usual.find(component);
        if (levels[component] != (known != usual.end() ? known->second : initial)) {
            changed[component] = levels[component];
        }
    }
    return changed;
}

// ---- Components and groups ------------------------------------------------------------------------------------------

TEST_F(KorLoggerTest, RegistrationFindsATagAgain)
{
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), "EXECUTOR", "xxxx"), 5);
    std::string longest = letters(128);
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), longest.c_str(), "four"), 65); // the hole at 56 stays
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), (letters(127) + "B").c_str(), "x"), 65);
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), letters(127, 'A').c_str(), "x"), 65);
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), letters(126).c_str(), ""), 66);
    EXPECT_EQ(_korLogger_GetLogLevel(65), 100);

    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), letters(129).c_str(), "x"), 0);
    EXPECT_RAISED(16, "Invalid tag value: too long");
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), "new", "five5"), 0);
    EXPECT_RAISED(16, "Invalid shortTag value: too long");
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), nullptr, "x"), 0);
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), "new", nullptr), 0);
}

TEST_F(KorLoggerTest, ComponentsRunOutAt128)
{
    Receiver own;
    receive(own, 7);
    for (int id = 65; id <= 128; id++) {
        ASSERT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), ("component" + std::to_string(id)).c_str(), "cmp"), id);
    }
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), "onemore", "one"), 0);
    EXPECT_RAISED(8, "The number of log components exceeded maximum");
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), "Component100", "x"), 100);

    _korLogger_LogByKey(7, 128, nullptr, nullptr, 100, nullptr, 0, "known in the loggers that were there");
    _korLogger_LogByKey(7, 128, nullptr, nullptr, 99, nullptr, 0, "stopped");
    EXPECT_EQ(own.take(), Statements{"info  cmp: known in the loggers that were there"});
}

TEST_F(KorLoggerTest, GroupsRunOutAt64AndHaveAtMost32Members)
{
    uint8_t members[33];
    std::iota(std::begin(members), std::end(members), uint8_t{1});
    auto add = [&](const std::string& tag, uint32_t count) {
        return _korLogger_RegisterLogGroup(KOR_AT(ex, 0), tag.c_str(), members, count);
    };
    EXPECT_EQ(add("Many", 33), 0u);
    EXPECT_RAISED(16, "Too many components per group");
    EXPECT_EQ(add(letters(129), 1), 0u);
    EXPECT_RAISED(16, "Invalid groupTag value");
    EXPECT_EQ(add("Many", 0), 0u);
    EXPECT_EQ(_korLogger_RegisterLogGroup(KOR_AT(ex, 0), nullptr, members, 1), 0u);
    EXPECT_EQ(add("Many", 32), 7u);
    for (uint64_t id = 8; id <= 64; id++) {
        ASSERT_EQ(add("g" + std::to_string(id), 1), id);
    }
    EXPECT_EQ(add("g65", 1), 0u);
    EXPECT_RAISED(8, "The number of log groups exceeded maximum");
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "many:warn");
    EXPECT_EQ(changedLevels(gLoggingComponentLevels).size(), 32u);
}

TEST_F(KorLoggerTest, RegistrationNeedsTheSystem)
{
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
    EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), "early", "x"), 0);
    EXPECT_RAISED(5, "The logging system is not initialized.");
}

TEST_F(KorLoggerTest, LevelsOfTheOlderScaleAreTold)
{
    const std::pair<int32_t, int32_t> cases[] = {{1000, 100}, {127, 127},        {-128, -128},     {128, 12},
                                                 {-129, -12}, {INT32_MIN, -128}, {INT32_MAX, 127}, {855, 85}};
    for (auto [given, stored] : cases) {
        _korLogger_SetLogLevel(29, given);
        EXPECT_EQ(_korLogger_GetLogLevel(29), stored) << given;
    }
    _korLogger_SetLogLevelToDefault(29);
    EXPECT_EQ(_korLogger_GetLogLevel(29), 100);
}

// ---- Level lists ----------------------------------------------------------------------------------------------------

using Levels = std::map<int, int32_t>;

Levels everyComponentAt(int32_t level)
{
    Levels all;
    for (int component = 0; component <= 64; component++) {
        if (component != 56) { // its level lands on entry 0
            all[component] = level;
        }
    }
    return all;
}

struct LevelListCase {
    const char* list;
    Levels changed;       // of the global logger
    Levels changedPerKey; // of a logger of a key
    bool bad = false;     // raises, and is not remembered
    bool badPerKey = false;
};

const Levels none;

const LevelListCase levelLists[] = {
    {"debug", everyComponentAt(80), everyComponentAt(80)},
    {"executor:debug", {{5, 80}}, {{5, 80}}},
    {"EXECUTOR:debug", {{5, 80}}, {{5, 80}}},
    {"executor:Debug", none, none, true, true},
    {"exec:debug", none, none}, // a short tag is no tag
    {"all:warn", everyComponentAt(110), everyComponentAt(110)},
    {"ALL:warn", none, none},
    {"io:warn", {{3, 110}, {4, 110}, {9, 110}}, {{3, 110}, {4, 110}, {9, 110}}},
    {"store:warn", {{37, 110}}, {{37, 110}}}, // the component goes before the group
    {"tcp:warn;info", {{29, 110}}, {{29, 110}}},
    {"warn;tcp:debug", {{29, 80}}, {{29, 80}}},
    {"warn;severe", everyComponentAt(120), none, false, true},
    {"warn;;severe", everyComponentAt(110), none, false, true},
    {"warn;", everyComponentAt(110), none, false, true},
    {";warn", none, none, false, true},
    {";", none, none, false, true},
    {"", none, none, true, true},
    {"tcp:warn;;shm:warn", {{29, 110}}, {{29, 110}}},
    {";tcp:warn", none, none},
    {"bad;warn", everyComponentAt(110), none, true, true},
    {"tcp:bad;shm:warn", {{28, 110}}, {{28, 110}}, true, true},
    {"tcp:", none, none, true, true},
    {":warn", none, none},
    {"tcp:warn:debug", none, none, true, true}, // split at the first ":"
    {"tcp: warn", none, none, true, true},
    {"unknown:warn;tcp:warn", {{29, 110}}, {{29, 110}}},
    {"unknown:bad", none, none, true, true},
};

class LevelListTest : public LoggerTest
{
protected:
    void expectRemembered(uint64_t logKey, const std::string& text)
    {
        char buffer[128];
        EXPECT_EQ(_korLogger_GetLogLevelsForId(KOR_AT(ex, 0), logKey, buffer, sizeof(buffer)), text.size());
        EXPECT_EQ(buffer, text);
        EXPECT_EQ(_korLogger_GetLogLevelsForId(KOR_AT(ex, 0), logKey, nullptr, 0), text.size());
    }
};

TEST_F(LevelListTest, GlobalLevels)
{
    StreamCapture console(StreamCapture::error); // what is told under debug
    for (const LevelListCase& each : levelLists) {
        SCOPED_TRACE(each.list);
        SetUp();
        _korLogger_SetLogLevelWithLevel(29, 95); // a bad level gives 100 to its tag
        korLogger_SetLogLevels(ex, each.list);
        if (each.bad) {
            EXPECT_RAISED(1, "No such log level");
        }
        Levels usual = {{29, each.bad && std::string(each.list).starts_with("tcp") ? 100 : 95}};
        EXPECT_EQ(changedLevels(gLoggingComponentLevels, usual), each.changed);
        expectRemembered(0, each.bad ? "info" : each.list);
    }
}

TEST_F(LevelListTest, LevelsOfAKey)
{
    constexpr uint64_t logKey = 77;
    StreamCapture console(StreamCapture::error); // what is told under debug
    for (const LevelListCase& each : levelLists) {
        SCOPED_TRACE(each.list);
        SetUp();
        _korLogger_SetLogLevels(KOR_AT(ex, 0), "info");
        _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), logKey, each.list);
        if (each.badPerKey) {
            EXPECT_RAISED(1, "No such log level");
        }
        uint64_t loggerId = loggerIdOf(logKey);
        auto* logger = static_cast<korLogger*>(_korObjectMap_Get(KOR_AT(ex, 0), loggerId));
        ASSERT_NE(logger, nullptr);
        Levels unused = {{0, 0}};
        for (int component = 65; component <= KOR_LOG_MAX_COMPONENT; component++) {
            unused[component] = 0;
        }
        unused[56] = 0;
        EXPECT_EQ(changedLevels(logger->levels, unused), each.changedPerKey);
        _korObjectMap_Release(KOR_AT_D(0, ex), loggerId);
        expectRemembered(logKey, each.badPerKey ? "info" : each.list);
        bool writes = !each.changedPerKey.empty();
        EXPECT_EQ(gLoggerInitMapInUse, writes && !each.badPerKey ? 1u : 0u);
        EXPECT_TRUE(changedLevels(gLoggingComponentLevels, {{0, 100}}).empty());
    }
}

TEST_F(LevelListTest, TracingOfMessages)
{
    struct {
        const char* list;
        uint8_t before, message, full; // before: of both flags
    } const cases[] = {
        {"msg:debug", 0, 1, 0},
        {"msg_full:debug3", 0, 0, 1},
        {"msg:info", 1, 1, 1},
        {"all:debug", 1, 0, 0},
        {"debug", 1, 0, 0},
        {"all:verbose", 1, 1, 1},
        {"application:debug", 0, 1, 0},
        {"all:debug;msg:debug", 0, 1, 0},
        {"msg:debug;all:debug", 0, 0, 0},
        {"msg:bad", 0, 0, 0},
        {"application:verbose", 0, 0, 0},
    };
    StreamCapture console(StreamCapture::error);
    const uint8_t full = 58;
    ASSERT_EQ(_korLogger_RegisterLogGroup(KOR_AT(ex, 0), "fullgroup", &full, 1), 7u);
    for (const auto& each : cases) {
        SCOPED_TRACE(each.list);
        gLoggingMsgTracingSet = gLoggingMsgFullTracingSet = each.before;
        _korLogger_SetLogLevels(KOR_AT(ex, 0), each.list);
        korEx_Clear(ex);
        EXPECT_EQ(gLoggingMsgTracingSet, each.message);
        EXPECT_EQ(gLoggingMsgFullTracingSet, each.full);

        uint64_t loggerId = loggerIdOf(5);
        auto* logger = static_cast<korLogger*>(_korObjectMap_Get(KOR_AT(ex, 0), loggerId));
        logger->msgTracing = logger->msgFullTracing = each.before;
        _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 5, each.list);
        korEx_Clear(ex);
        EXPECT_EQ(logger->msgTracing, each.message);
        EXPECT_EQ(logger->msgFullTracing, each.full);
        _korObjectMap_Release(KOR_AT_D(0, ex), loggerId);
    }
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "info;msg:info");
    gLoggingMsgFullTracingSet = 0;
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "fullgroup:debug"); // a group asks for the short form only
    EXPECT_EQ(gLoggingMsgFullTracingSet, 0);
    EXPECT_EQ(_korLogger_GetLogLevel(58), 80);
}

TEST_F(LevelListTest, Validity)
{
    enum Verdict { valid, invalid, raises };
    const std::pair<const char*, Verdict> cases[] = {{"info", valid},
                                                     {"thread_id", raises},
                                                     {"precise_time", raises},
                                                     {"info;warn", raises},
                                                     {"", raises},
                                                     {"all:warn", valid},
                                                     {"All:warn", invalid},
                                                     {"TCP:warn;io:off", valid},
                                                     {"tcp:warn;bad", valid},
                                                     {"tcp:warn;;shm:off;", valid},
                                                     {"exec:off", invalid},
                                                     {"tcp:bad", raises},
                                                     {"nobody:bad", raises},
                                                     {":info", invalid},
                                                     {nullptr, invalid}};
    for (auto [list, verdict] : cases) {
        SCOPED_TRACE(list != nullptr ? list : "NULL");
        EXPECT_EQ(_korLogger_LevelSpecificationsAreValid(KOR_AT(ex, 0), list), verdict == valid);
        EXPECT_TRUE(verdict == raises ? raised(ex, 1, "No such log level") : clean(ex));
    }
    KOR_RAISE(ex, 0, 100, "earlier");
    EXPECT_TRUE(_korLogger_LevelSpecificationsAreValid(KOR_AT(ex, 0), "bad"));
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "warn");
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 3, "warn");
    EXPECT_EQ(_korLogger_GetLogLevelsForId(KOR_AT(ex, 0), 0, nullptr, 0), 0u);
    EXPECT_RAISED(100, "earlier");
    EXPECT_TRUE(changedLevels(gLoggingComponentLevels).empty());
}

TEST_F(LevelListTest, ABadOneForgetsTheLastAndAKeyFallsBack)
{
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "tcp:warn");
    expectRemembered(0, "tcp:warn");
    expectRemembered(4, "tcp:warn");
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 4, "shm:off");
    expectRemembered(4, "shm:off");
    char buffer[5];
    EXPECT_EQ(_korLogger_GetLogLevelsForId(KOR_AT(ex, 0), 4, buffer, sizeof(buffer)), 4u);
    EXPECT_STREQ(buffer, "shm:");
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 4, "shm:nothing");
    EXPECT_RAISED(1, "No such log level");
    expectRemembered(4, "tcp:warn");
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "tcp:nothing");
    EXPECT_RAISED(1, "No such log level");
    expectRemembered(4, "info");
}

TEST_F(LevelListTest, ChangesAreToldUnderDebug)
{
    Receiver global;
    Receiver own;
    receive(global);
    _korLogger_SetLogLevelWithLevel(1, 80);
    _korLogger_SetLogLevels(KOR_AT(ex, 0), "tcp:warn;exec:off;IO:bad");
    EXPECT_RAISED(1, "No such log level");
    _korLogger_LevelSpecificationsAreValid(KOR_AT(ex, 0), "none:off");
    _korLogger_LevelSpecificationsAreValid(KOR_AT(ex, 0), "none:bad");
    EXPECT_RAISED(1, "No such log level");
    const char* head = "dbg1  mez: ";
    Statements expected;
    for (const char* text :
         {"Set log level of component 'mez' to level 'debug'.", "Set log level of component 'tcp' to level 'warn'.",
          "'exec' is not a recognized logging tag.", "Set log level of component 'egress' to level 'bad'.",
          "Set log level of component 'ingress' to level 'bad'.",
          "Set log level of component 'pdu_handler' to level 'bad'.", "Invalid tag: none", "Invalid log level: bad"}) {
        expected.push_back(std::string(head) + text);
    }
    EXPECT_EQ(global.take(), expected);

    receive(own, 0xAB);
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 0xAB, "mez:debug;exec:off");
    korLogSourceEx source = {};
    _korLogger_SetLogSource(0xAB, 29, "who", "label", &source);
    _korLogger_SetLoggerLogLevelWithLevel(&source, 29, 120);
    EXPECT_EQ(
        own.take(),
        (Statements{"dbg1  mez: Set log level of component 'mez' to level 'debug' for logKey 0xab.",
                    "dbg1  mez: 'exec' is not a recognized logging tag.",
                    "dbg1  mez: label [who] Set log level of component 'tcp' to level 'severe' for logKey 0xab."}));
    EXPECT_TRUE(global.take().empty());

    _korLogger_SetLogLevels(KOR_AT(ex, 0), "debug");
    Statements all = global.take();
    EXPECT_EQ(all.size(), 64u);
    EXPECT_EQ(all[55], "dbg1  mez: Set log level of component '(null)' to level 'debug'."); // the empty row
}

// ---- Loggers of keys ------------------------------------------------------------------------------------------------

TEST_F(KorLoggerTest, ALoggerSpeaksForItselfOnceConfigured)
{
    korLogSourceEx source = {};
    _korLogger_InitializeLogSourceEx(&source, 21, 29, "%s", "s");
    ASSERT_NE(source.loggerId, 0u);
    _korLogger_SetLogLevelWithLevel(29, 110);
    EXPECT_EQ(_korLogger_GetLoggerLevel(&source, 29), 110); // not configured: the default levels
    _korLogger_SetLoggerLogLevelWithLevel(&source, 29, 120);
    EXPECT_EQ(_korLogger_GetLogLevel(29), 120); // and they are set too
    _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 21, "tcp:debug");
    EXPECT_EQ(_korLogger_GetLoggerLevel(&source, 29), 80);
    _korLogger_SetLoggerLogLevelWithLevel(&source, 29, 90);
    EXPECT_EQ(_korLogger_GetLoggerLevel(&source, 29), 90);
    EXPECT_EQ(_korLogger_GetLogLevel(29), 120);
    EXPECT_TRUE(_korLogger_IsLoggableEx(&source, 29, 90));
    EXPECT_FALSE(_korLogger_IsLoggableEx(&source, 29, 89));

    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 21);
    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 21);
    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 0);
    EXPECT_EQ(_korLogger_GetLoggerLevel(&source, 29), 100); // gone
    _korLogger_SetLoggerLogLevelWithLevel(&source, 29, 50);
    EXPECT_EQ(_korLogger_GetLogLevel(29), 120);
    EXPECT_FALSE(_korLogger_IsLoggableEx(&source, 29, 127));
    EXPECT_EQ(_korLogger_GetLoggerLevel(nullptr, 29), 120);
    _korLogger_SetLoggerLogLevelWithLevel(nullptr, 29, 110);
    EXPECT_EQ(_korLogger_GetLogLevel(29), 110);
}

TEST_F(KorLoggerTest, AKeyHasOneLogger)
{
    for (uint64_t logKey = 100; logKey < 120; logKey++) {
        uint64_t ids[3];
        {
            std::vector<std::jthread> running;
            for (uint64_t& id : ids) {
                running.emplace_back([&id, logKey] { id = loggerIdOf(logKey); });
            }
        }
        EXPECT_TRUE(ids[0] != 0 && ids[0] == ids[1] && ids[0] == ids[2]);
    }
}

// The record of a statement under way outlives its key, and its end leaves the younger record of the key alone.
TEST_F(KorLoggerTest, AKeyIsDestroyedUnderAStatement)
{
    static uint64_t before;
    static Receiver young;
    before = loggerIdOf(31);
    _korLogger_SetLogCallbackForId(
        KOR_AT(ex, 0), 31,
        [](korDateTime, const char* statement, void* closure) {
            auto* inner = static_cast<korEx*>(closure);
            _korLogger_DestroyLoggerByKey(KOR_AT_D(0, inner), 31);
            EXPECT_NE(loggerIdOf(31), before);
            _korLogger_SetLogCallbackForId(KOR_AT(inner, 0), 31, Receiver::callback, &young);
            EXPECT_STREQ(statement, "info  tcp: under way"); // the buffer is still there
        },
        ex);
    _korLogger_LogByKey(31, 29, nullptr, nullptr, 100, nullptr, 0, "under way");
    EXPECT_EQ(gLoggerInitMapInUse, 1u);
    _korLogger_LogByKey(31, 29, nullptr, nullptr, 100, nullptr, 0, "by key");
    _korLogger_LogById(loggerIdOf(31), 29, nullptr, nullptr, 100, nullptr, 0, "by id");
    EXPECT_EQ(young.take(), (Statements{"info  tcp: by key", "info  tcp: by id"}));
}

TEST_F(KorLoggerTest, AnAlternateSpeaks)
{
    Receiver first;
    Receiver second;
    receive(first, 41);
    receive(second, 42);
    korLogSourceEx source = {};
    _korLogger_SetLogSource(41, 29, nullptr, nullptr, &source);
    uint64_t firstId = source.loggerId;
    uint64_t secondId = loggerIdOf(42);
    _korLogger_SetAltLoggerId(firstId, 0);
    _korLogger_SetAltLoggerId(0, secondId);
    _korLogger_LogBySource(&source, 0, nullptr, nullptr, 100, nullptr, 0, "first");
    _korLogger_SetAltLoggerId(firstId, secondId);
    auto* record = static_cast<korLogger*>(_korObjectMap_Get(KOR_AT(ex, 0), firstId));
    _korLogger_LogBySource(&source, 0, nullptr, nullptr, 100, nullptr, 0, "source");
    _korLogger_LogById(firstId, 29, nullptr, nullptr, 100, nullptr, 0, "id");
    _korLogger_LogByKey(41, 29, nullptr, nullptr, 100, nullptr, 0, "key");
    _korLogger_LogByLogger(record, 29, nullptr, nullptr, 100, nullptr, 0, "logger");
    EXPECT_EQ(first.take(), Statements{"info  tcp: first"});
    EXPECT_EQ(second.take(), (Statements{"info  tcp: source", "info  tcp: id", "info  tcp: key", "info  tcp: logger"}));
    _korObjectMap_Release(KOR_AT_D(0, ex), firstId);
    EXPECT_EQ(loggerIdOf(41), secondId);
    _korLogger_DestroyLoggerByKey(KOR_AT_D(0, ex), 41);
    EXPECT_NE(loggerIdOf(41), secondId); // the alternate ends with the logger it stood for
}

TEST_F(KorLoggerTest, SourcesAreFilledAndCut)
{
    auto expectSource = [](const korLogSource& source, int component, const std::string& name,
                           const std::string& label) {
        EXPECT_EQ(source.component, component);
        EXPECT_EQ(source.name, name);
        EXPECT_EQ(source.label, label);
    };
    korLogSource source, second;
    _korLogger_InitializeLogSource(&source, 12, "timer %d", 3);
    _korLogger_SetSrcLabel(KOR_AT(ex, 0), &source, "%s", letters(300).c_str());
    expectSource(source, 12, "timer 3", letters(254));
    _korLogger_CopyLogSourceEx3(KOR_AT_D(0, ex), 13, letters(300).c_str(), "l", &second);
    expectSource(second, 13, letters(255), "l");
    _korLogger_CopySrcLabel(KOR_AT(ex, 0), &source, &second);
    expectSource(second, 13, letters(255), letters(254));
    _korLogger_CopyLogSourceEx(KOR_AT_D(0, ex), 14, nullptr, &second);
    expectSource(second, 14, "", "");

    korLogSourceEx keyed, copy = {};
    keyed.loggerId = 99;
    _korLogger_InitializeLogSourceEx(&keyed, 0, 15, "n");
    EXPECT_EQ(keyed.loggerId, 99u); // left as it is
    _korLogger_SetLogSource(0, 16, "name", "", &keyed);
    EXPECT_EQ(keyed.loggerId, 0u);
    _korLogger_CopySourceEx(&keyed, &copy);
    _korLogger_SetLogSourceEx(nullptr, &copy);
    expectSource(copy.source, 16, "name", "");
    KOR_RAISE(ex, 0, 100, "earlier");
    _korLogger_SetSrcLabel(KOR_AT(ex, 0), &source, "new");
    expectSource(source, 12, "timer 3", letters(254));
    EXPECT_RAISED(100, "earlier");
}

// ---- The choice of handlers -----------------------------------------------------------------------------------------

TEST_F(KorLoggerTest, ACallbackOrFilesAreSetOnce)
{
    constexpr const char* refusal = "Once set, a callback or rolling file logger cannot be removed or replaced.";
    Folder folder;
    for (uint64_t logKey : {uint64_t{0}, uint64_t{51}}) {
        Receiver receiver;
        receive(receiver, logKey);
        _korLogger_SetLogCallbackForId(KOR_AT(ex, 0), logKey, Receiver::callback, nullptr);
        EXPECT_RAISED(8, refusal);
        _korLogger_SetLogFilesForId(KOR_AT(ex, 0), logKey, folder.path("never").c_str(), 10, 2);
        EXPECT_RAISED(8, refusal);
        _korLogger_LogByKey(logKey, 29, nullptr, nullptr, 100, nullptr, 0, "still there");
        EXPECT_EQ(receiver.take(), Statements{"info  tcp: still there"});
    }
    _korLogger_SetDefaultLogHandler(KOR_AT(ex, 0));
    EXPECT_EQ(_gLogger.currentHandler, _gLogger.consoleHandler);
    _korLogger_SetLogFiles(KOR_AT(ex, 0), folder.path("never").c_str(), 10, 2);
    EXPECT_RAISED(8, refusal);
    EXPECT_TRUE(folder.names().empty());
}

TEST_F(KorLoggerTest, AFailedFileSetCountsAsSet)
{
    Folder folder;
    std::string nowhere = folder.path("missing") + "/deeper/log";
    for (uint64_t logKey : {uint64_t{0}, uint64_t{61}}) {
        _korLogger_SetLogFilesForId(KOR_AT(ex, 0), logKey, nowhere.c_str(), 10, 2);
        EXPECT_NE(ex->osError, 0);
        EXPECT_RAISED(6, "Unable to open log file.");
        Receiver receiver;
        _korLogger_SetLogCallbackForId(KOR_AT(ex, 0), logKey, Receiver::callback, &receiver);
        EXPECT_RAISED(8, "Once set, a callback or rolling file logger cannot be removed or replaced.");
        StreamCapture capture(StreamCapture::error);
        _korLogger_LogByKey(logKey, 29, nullptr, nullptr, 100, nullptr, 0, "on the console");
        EXPECT_NE(capture.text().find(" info  tcp: on the console\n"), std::string::npos);
    }
    EXPECT_EQ(gLoggerInitMapInUse, 0u);
    _korLogger_SetLogFilesForId(KOR_AT(ex, 0), 62, "", 10, 2);
    EXPECT_RAISED(1, "Invalid filenamePrefix.");
    _korLogger_SetLogFilesForId(KOR_AT(ex, 0), 63, nullptr, 10, 2);
    EXPECT_RAISED(1, "Missing filenamePrefix, maxSize or maxFiles.");
}

// ---- Memory ---------------------------------------------------------------------------------------------------------

TEST_F(KorLoggerTest, StartIsWholeOrNothing)
{
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
    uint64_t requests = sweepFailures(ex, [this] {
        _korLogger_Initialize(KOR_AT(ex, 0));
        EXPECT_EQ(_gLogger.lock != nullptr, ex->code == 0);
        EXPECT_EQ(_gLogger.currentHandler != nullptr, ex->code == 0);
        _korLogger_Uninitialize(KOR_AT_D(0, ex));
    });
    EXPECT_GT(requests, 60u);
}

// The file's own memory is the C library's, and the statement buffers' key may fail in silence: not every failed
// request is a code 2 here.
TEST_F(KorLoggerTest, ShortMemoryLeavesNoHalfLogger)
{
    Folder folder;
    const uint8_t member = 1;
    bool fired = true;
    for (uint64_t failing = 1; fired; failing++) {
        SetUp();
        std::string tag = "tag" + std::to_string(failing);
        std::string prefix = folder.path("short");
        FailingHeap heap(failing);
        _korLogger_SetLogLevelsForId(KOR_AT(ex, 0), 81, "tcp:warn");
        _korLogger_SetLogFilesForId(KOR_AT(ex, 0), 82, prefix.c_str(), 100, 2);
        _korLogger_SetLogCallbackForId(KOR_AT(ex, 0), 83, Receiver::callback, nullptr);
        _korLogger_SetLogCallback(KOR_AT(ex, 0), Receiver::callback, nullptr);
        uint8_t component = _korLogger_RegisterComponent(KOR_AT(ex, 0), tag.c_str(), "tag");
        uint64_t group = _korLogger_RegisterLogGroup(KOR_AT(ex, 0), tag.c_str(), &member, 1);
        _korLogger_SetLogLevels(KOR_AT(ex, 0), "tcp:warn");
        fired = heap.fired();
        EXPECT_EQ(component, ex->code == 0 || group != 0 ? 65 : component);
        EXPECT_TRUE(ex->code == 0 || ex->code == 2 || ex->code == 6) << describe(ex);
        korEx_Clear(ex);
        EXPECT_EQ(_korLogger_RegisterComponent(KOR_AT(ex, 0), tag.c_str(), "tag"), 65); // now, or already
        EXPECT_EQ(_korLogger_GetLogLevel(65), 100);
    }
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
}

TEST_F(KorLoggerTest, TheLockKeepsConfigurationOut)
{
    Receiver receiver;
    std::atomic<bool> begun = false, configured = false;
    uint64_t before = gLoggerInitMapInUse;
    _korLogger_Lock(KOR_AT_D(0, ex));
    std::jthread other([&] {
        KOR_EX_LOCAL(own);
        begun = true;
        _korLogger_SetLogCallbackForId(KOR_AT(&own, 0), 77, Receiver::callback, &receiver);
        configured = true;
    });
    for (int yields = 0; yields < 1000 || !begun; yields++) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(configured);
    EXPECT_EQ(gLoggerInitMap.entryCount, before);
    _korLogger_Unlock(KOR_AT_D(0, ex));
    other.join();
    EXPECT_EQ(KOR_ATOMIC_LOAD(&gLoggerInitMapInUse), before + 1);
    EXPECT_EQ(gLoggerInitMap.entryCount, before + 1);
}

} // namespace
