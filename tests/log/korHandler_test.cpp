// korHandler_test.cpp - every kind of handler by itself, on a real file system.

#include "loggerTest.h"
#include "support/failingHeap.h"
#include "support/smallDisk.h"

#include "korutil/korAlloc.h"
#include "korutil/korDpa.h"
#include "log/handlers.h"

#include <initializer_list>
#include <tuple>
#include <utility>

namespace {

using namespace kor::logging;
using namespace kor::test;

class KorHandlerTest : public LoggerTest
{
protected:
    using Texts = std::initializer_list<std::pair<const char*, std::string>>;
    using Pointers = std::vector<std::pair<const char*, const void*>>;

    bool openWithPointers(korHandler* handler, const Pointers& pointers)
    {
        korStrHash* properties = _korStrHash_Create(KOR_AT(ex, 0), 4);
        for (const auto& [name, value] : pointers) {
            _korStrHash_Set(KOR_AT(ex, 0), properties, name, 1, reinterpret_cast<uint64_t>(value));
        }
        bool opened = _korHandler_Open(KOR_AT(ex, 0), handler, properties);
        _korStrHash_Destroy(KOR_AT_D(0, ex), properties);
        return opened;
    }

    // The texts go away after the opening.
    bool open(korHandler* handler, Texts texts)
    {
        Pointers pointers;
        for (const auto& [name, value] : texts) {
            pointers.emplace_back(name, value.c_str());
        }
        return openWithPointers(handler, pointers);
    }

    korHandler* openRolling(const std::string& prefix, const char* maxSize, const char* maxFiles)
    {
        korHandler* handler = _korRollingFileHandler_Create(KOR_AT(ex, 0));
        EXPECT_TRUE(open(handler, {{"filenamePrefix", prefix}, {"maxSize", maxSize}, {"maxFiles", maxFiles}}));
        return handler;
    }

    void close(korHandler* handler) { _korHandler_Close(KOR_AT(ex, 0), handler); }

    Folder folder;
};

// Statements of 20 bytes with a number, whatever a line end takes up.
std::string statement(int number)
{
    char text[32];
    _kor_snprintf(text, sizeof(text), "statement %09d|", number);
    return text;
}

void logNumbers(korHandler* handler, int first, int last)
{
    for (int number = first; number <= last; number++) {
        handler->log(handler, statement(number).c_str());
    }
}

using Names = std::vector<std::string>;

// ---- Rolling files --------------------------------------------------------------------------------------------------

TEST_F(KorHandlerTest, RollingFilesMoveUp)
{
    struct Case {
        const char *maxSize, *maxFiles;
        std::vector<std::vector<int>> files; // the statements that are left of 1 to 5
    };
    for (const Case& one : {Case{"10", "3", {{5}, {4}, {3}}}, Case{"10", "1", {{5}}},
                            Case{"40", "2", {{4, 5}, {1, 2, 3}}}}) { // at exactly 40 bytes there is room for a third
        Folder own;
        korHandler* handler = openRolling(own.path("log"), one.maxSize, one.maxFiles);
        logNumbers(handler, 1, 5);
        close(handler);
        EXPECT_EQ(own.names().size(), one.files.size());
        for (size_t file = 0; file < one.files.size(); file++) {
            std::string expected;
            for (int number : one.files[file]) {
                expected += statement(number);
            }
            EXPECT_EQ(own.text("log." + std::to_string(file)), expected);
        }
    }
}

TEST_F(KorHandlerTest, GapsInASeriesArePassedOver)
{
    folder.write("log.1", "one");
    folder.write("log.3", "three");
    folder.write("log.4", "not of the series");
    korHandler* handler = openRolling(folder.path("log"), "10", "4");
    logNumbers(handler, 1, 2);
    EXPECT_EQ(folder.names(), (Names{"log.0", "log.1", "log.2", "log.4"})); // 3 was the last and is gone
    EXPECT_EQ(folder.text("log.2"), "one");
    logNumbers(handler, 3, 3);
    EXPECT_EQ(folder.text("log.3"), "one");
    EXPECT_EQ(folder.text("log.4"), "not of the series");
    close(handler);
}

TEST_F(KorHandlerTest, AFileThatIsThereIsAppendedTo)
{
    folder.write("log.0", "before|");
    korHandler* handler = openRolling(folder.path("log"), "100", "2");
    logNumbers(handler, 1, 1);
    EXPECT_EQ(folder.text("log.0"), "before|" + statement(1));
    close(handler);
    handler = openRolling(folder.path("log"), "10", "2"); // rolls now or, where positions begin at 0, after a statement
    logNumbers(handler, 2, 3);
    EXPECT_TRUE(folder.text("log.1").starts_with("before|") || folder.text("log.1") == statement(2));
    EXPECT_EQ(folder.text("log.0"), statement(3));
    close(handler);
}

TEST_F(KorHandlerTest, AFileThatCannotBeOpenedLosesStatementsUntilItCan)
{
    std::filesystem::create_directory(folder.path("log.1"));
    korHandler* handler = openRolling(folder.path("log"), "10", "1");
    logNumbers(handler, 1, 1);
    auto* record = reinterpret_cast<RollingFileHandler<PlainForm>*>(handler);
    std::fclose(std::exchange(record->stream, nullptr));
    std::filesystem::remove(folder.path("log.0"));
    std::filesystem::create_directory(folder.path("log.0")); // in the way
    logNumbers(handler, 2, 2);
    std::filesystem::remove(folder.path("log.0"));
    logNumbers(handler, 3, 3);
    EXPECT_EQ(folder.text("log.0"), statement(3));
    close(handler);

    handler = _korRollingFileHandler_Create(KOR_AT(ex, 0));
    std::string nowhere = folder.path("missing") + "/log";
    EXPECT_FALSE(open(handler, {{"filenamePrefix", nowhere}, {"maxSize", "10"}, {"maxFiles", "2"}}));
    logNumbers(handler, 1, 1);
    std::filesystem::create_directory(folder.path("missing"));
    logNumbers(handler, 2, 2); // the next statement tries again
    EXPECT_EQ(folder.text("missing/log.0"), statement(2));
    close(handler);
}

// Nothing harms the program, and logging goes on by itself as soon as the disk allows it.
TEST_F(KorHandlerTest, AFullDiskAndAReadOnlyOneLoseStatementsUntilTheyAllowThem)
{
    bool mounted = onSmallDisk(folder.path(""), [this] {
        korHandler* handler = openRolling(folder.path("log"), "1000000", "2");
        logNumbers(handler, 1, 10);
        std::ofstream(folder.path("ballast")) << std::string(2 * smallDiskSize, 'a');
        logNumbers(handler, 11, 5000); // more than the page that the file has
        std::filesystem::remove(folder.path("ballast"));
        logNumbers(handler, 5001, 5001);
        std::string text = folder.text("log.0");
        for (int number = 1; number <= 10; number++) {
            EXPECT_EQ(text.find(statement(number)), static_cast<size_t>(number - 1) * statement(number).size());
        }
        EXPECT_LT(text.size(), 5001 * statement(1).size());
        EXPECT_NE(text.find(statement(5001)), std::string::npos);
        close(handler);

        ASSERT_TRUE(makeReadOnly(folder.path("")));
        handler = _korRollingFileHandler_Create(KOR_AT(ex, 0));
        EXPECT_FALSE(open(handler, {{"filenamePrefix", folder.path("log")}, {"maxSize", "10"}, {"maxFiles", "2"}}));
        logNumbers(handler, 1, 3);
        EXPECT_EQ(folder.text("log.0"), text);
        close(handler);
    });
    if (!mounted) {
        GTEST_SKIP() << "this user may not mount";
    }
}

TEST_F(KorHandlerTest, NumbersOfRollingFilesAreRead)
{
    const std::tuple<const char*, uint64_t, uint64_t> sizes[] = {
        {"12x", 12, 12},
        {"3000000000", 2147483647, 3000000000},
        {"-1", UINT64_MAX, UINT64_MAX},
        {"99999999999999999999", 2147483647, INT64_MAX},
    };
    for (const auto& [text, plain, keyed] : sizes) {
        SCOPED_TRACE(text);
        Folder own;
        korHandler* handler = openRolling(own.path("plain"), text, "4294967295");
        EXPECT_EQ(reinterpret_cast<RollingFileHandler<PlainForm>*>(handler)->maxSize, plain);
        EXPECT_EQ(reinterpret_cast<RollingFileHandler<PlainForm>*>(handler)->maxFiles, INT32_MAX);
        close(handler);
        handler = _korRollingFileHandler_CreateEx(KOR_AT(ex, 0));
        EXPECT_TRUE(open(handler, {{"filenamePrefix", own.path("k")}, {"maxSize", text}, {"maxFiles", "2"}}));
        EXPECT_EQ(reinterpret_cast<RollingFileHandler<KeyedForm>*>(handler)->maxSize, keyed);
        close(handler);
    }
}

TEST_F(KorHandlerTest, RollingFilesNeedTheirProperties)
{
    korHandler* handler = _korRollingFileHandler_Create(KOR_AT(ex, 0));
    for (Texts texts : {Texts{{"maxSize", "1"}, {"maxFiles", "1"}}, Texts{{"filenamePrefix", "x"}, {"maxFiles", "1"}},
                        Texts{{"filenamePrefix", "x"}, {"maxSize", "1"}}}) {
        EXPECT_FALSE(open(handler, texts));
        EXPECT_RAISED(1, "Missing filenamePrefix, maxSize or maxFiles.");
    }
    EXPECT_FALSE(open(handler, {{"filenamePrefix", ""}, {"maxSize", "1"}, {"maxFiles", "1"}}));
    EXPECT_RAISED(1, "Invalid filenamePrefix.");
    handler->log(handler, "nowhere to go");
    close(handler);
    korHandler* keyed = _korRollingFileHandler_CreateEx(KOR_AT(ex, 0));
    keyed->logEx(nullptr, "to nobody", nullptr);
    close(keyed);
}

// ---- The other kinds ------------------------------------------------------------------------------------------------

TEST_F(KorHandlerTest, ConsoleAndItsCloseWithAnErrorPending)
{
    StreamCapture capture(StreamCapture::error);
    korHandler* plain = _korConsoleHandler_Create(KOR_AT(ex, 0));
    korHandler* keyed = _korConsoleHandler_CreateEx(KOR_AT(ex, 0));
    plain->log(plain, "not open\n");
    ASSERT_TRUE(open(plain, {}));
    ASSERT_TRUE(open(keyed, {}));
    plain->log(plain, "plain %s\n");
    keyed->logEx(keyed, "keyed\n", nullptr);
    keyed->logEx(nullptr, "nobody\n", nullptr);
    KOR_RAISE(ex, 0, 100, "pending");
    _korConsoleHandler_ClosePrivate(KOR_AT(ex, 0), plain); // stays
    plain->log(plain, "still open\n");
    _korConsoleHandler_ClosePrivateEx(KOR_AT(ex, 0), keyed); // goes: the leak checker would tell
    EXPECT_RAISED(100, "pending");
    _korConsoleHandler_ClosePrivate(KOR_AT(ex, 0), plain);
    EXPECT_EQ(capture.text(), "plain %s\nkeyed\nstill open\n");
}

TEST_F(KorHandlerTest, CallbackWithoutCallback)
{
    korHandler* plain = _korCallbackHandler_Create(KOR_AT(ex, 0));
    korHandler* keyed = _korCallbackHandler_CreateEx(KOR_AT(ex, 0));
    EXPECT_FALSE(open(plain, {}));
    EXPECT_FALSE(_korHandler_OpenEx(KOR_AT(ex, 0), keyed, nullptr));
    plain->log(plain, "to nobody");
    keyed->logEx(keyed, "to nobody", nullptr);
    Receiver receiver;
    auto callback = reinterpret_cast<const void*>(&Receiver::callback);
    EXPECT_TRUE(openWithPointers(keyed, {{"logCallback", callback}}));
    keyed->logEx(keyed, "to the closure", &receiver);
    EXPECT_EQ(receiver.take(), Statements{"to the closure"});
    KOR_RAISE(ex, 0, 100, "pending");
    EXPECT_FALSE(_korHandler_Open(KOR_AT(ex, 0), plain, nullptr));
    _korHandler_Close(KOR_AT(ex, 0), plain); // stays
    EXPECT_RAISED(100, "pending");
    close(plain);
    _korHandler_CloseEx(KOR_AT(ex, 0), keyed);
}

TEST_F(KorHandlerTest, FileTakesAMode)
{
    folder.write("log", "before|");
    korHandler* handler = _korFileHandler_Create(KOR_AT(ex, 0));
    EXPECT_FALSE(open(handler, {}));
    handler->log(handler, "not open");
    ASSERT_TRUE(open(handler, {{"filename", folder.path("log")}}));
    handler->log(handler, "appended");
    EXPECT_EQ(folder.text("log"), "before|appended"); // flushed at each statement
    close(handler);
    handler = _korFileHandler_Create(KOR_AT(ex, 0));
    ASSERT_TRUE(open(handler, {{"filename", folder.path("log")}, {"mode", "w"}}));
    handler->log(handler, "anew");
    close(handler);
    EXPECT_EQ(folder.text("log"), "anew");
    handler = _korFileHandler_Create(KOR_AT(ex, 0));
    EXPECT_FALSE(open(handler, {{"filename", folder.path("missing") + "/log"}}));
    handler->log(handler, "not open");
    close(handler);
}

TEST_F(KorHandlerTest, DatedFileKeepsItsName)
{
    korHandler* handler = _korDatedFileHandler_Create(KOR_AT(ex, 0));
    EXPECT_FALSE(open(handler, {}));
    EXPECT_FALSE(open(handler, {{"prefix", ""}}));
    handler->log(handler, "not open");
    EXPECT_FALSE(_korDatedFileHandler_OpenFile(handler));
    ASSERT_TRUE(open(handler, {{"prefix", folder.path("log-")}, {"postfix", ".text-and-sixteen-more"}}));
    handler->log(handler, "one|");
    handler->log(handler, "two");
    EXPECT_TRUE(_korDatedFileHandler_OpenFile(handler));
    ASSERT_EQ(folder.names().size(), 1u); // a midnight in between makes no second one
    std::string name = folder.names()[0];
    EXPECT_EQ(folder.text(name), "one|two");
    EXPECT_TRUE(name.starts_with("log-2")) << name;
    EXPECT_TRUE(name.ends_with(".text-and-sixtee")) << name;
    EXPECT_EQ(name.size(), 4u + 10 + 16);
    close(handler);

    handler = _korDatedFileHandler_Create(KOR_AT(ex, 0));
    EXPECT_FALSE(open(handler, {{"prefix", folder.path("missing") + "/log-"}}));
    handler->log(handler, "lost");
    std::filesystem::create_directory(folder.path("missing"));
    EXPECT_TRUE(_korDatedFileHandler_OpenFile(handler));
    close(handler);
}

TEST_F(KorHandlerTest, DpaCollectsCopies)
{
    korDpa target;
    _korDpa_Init(KOR_AT(ex, 0), &target, 1);
    korHandler* handler = _korDpaHandler_Create(KOR_AT(ex, 0));
    EXPECT_FALSE(open(handler, {}));
    handler->log(handler, "no target");
    ASSERT_TRUE(openWithPointers(handler, {{"target", &target}}));
    {
        FailingHeap heap(1);
        handler->log(handler, "lost");
        EXPECT_TRUE(heap.fired());
    }
    for (int number = 0; number < 10; number++) {
        std::string text = statement(number);
        handler->log(handler, text.c_str());
    }
    close(handler);
    ASSERT_EQ(target.count, 10);
    for (int number = 0; number < 10; number++) {
        auto* text = reinterpret_cast<char*>(target.items[number]);
        EXPECT_EQ(text, statement(number));
        _kor_free(KOR_AT_D(0, ex), text);
    }
    _korDpa_Clear(KOR_AT_D(0, ex), &target);
}

TEST_F(KorHandlerTest, EveryKindFailsWhole)
{
    using Create = korHandler*(korEx*, uint8_t);
    Create* const kinds[] = {_korConsoleHandler_Create,    _korConsoleHandler_CreateEx,   _korCallbackHandler_Create,
                             _korCallbackHandler_CreateEx, _korRollingFileHandler_Create, _korFileHandler_Create,
                             _korDatedFileHandler_Create,  _korDpaHandler_Create,         _korNullHandler_Create};
    for (Create* create : kinds) {
        uint64_t requests = sweepFailures(ex, [&] {
            korHandler* handler = create(KOR_AT(ex, 0));
            EXPECT_EQ(handler != nullptr, ex->code == 0);
            if (handler != nullptr) {
                close(handler);
            }
        });
        EXPECT_GE(requests, 1u);
    }
    korHandler* null = _korNullHandler_Create(KOR_AT(ex, 0));
    EXPECT_TRUE(open(null, {}));
    null->log(null, "gone");
    close(null);
}

} // namespace
