// korPasswordFile_test.cpp - both forms of password files.

#include "korutil/korPasswordFile.h"

#include "filesTest.h"
#include "support/failingHeap.h"

namespace {

using namespace kor::test;
using KorPasswordFileTest = FilesTest;

TEST_F(KorPasswordFileTest, TwoLines)
{
    const std::string mangled = "u\n_mng_1MLE1cLT"; // "secret" with 0xA7
    const std::string longest(4096, 'x');
    const char* room = "Not enough room for base64 encoding.";
    struct {
        std::string content, user, password;
        int32_t size = 5000; // for the password
        const char* error = nullptr;
    } cases[] = {
        {"me\nsecret\nmore\n", "me", "secret"},
        {"me\r\nsec\rret\r\n", "me", "secret"}, // CR anywhere
        {"me", "me", ""},
        {"", "", ""},
        {std::string("m\0secret", 8), "m", "secret"}, // a NUL ends a line too
        {"me\n  se cret  ", "me", "  se cret  "},
        {mangled + "\n", "u", "secret"},
        {mangled, "u", "before", 8, room},
        {"me\n_mng_", "me", "before"}, // nothing behind the marker
        {"me\n_mng", "me", "_mng"},
        {"0123456789abcdefgh\n", "0123456789abcdef", "gh"}, // a user of the buffer's size and more
        {"u\n" + longest + "yz", "u", longest},
        {"u\n" + longest, "u", "xxx", 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        char user[17] = "";
        char password[5000] = "before";
        _korPasswordFile_GetUsernamePassword(ex, 0, write("file", c.content).c_str(), user, 16, password, c.size);
        EXPECT_EQ(user, c.user);
        EXPECT_EQ(password, c.password);
        EXPECT_TRUE(c.error == nullptr ? clean(ex) : raised(ex, 1, c.error));
    }
}

TEST_F(KorPasswordFileTest, OneValue)
{
    std::string file = path("file");
    auto tooLarge = [&](int size) {
        return "password file " + file + " is too large (limit " + std::to_string(size) + " bytes)";
    };
    struct {
        std::string content, password;
        int32_t size = 16;
        std::string error = "";
    } cases[] = {
        {" \tse cret\r\n", "se cret"},
        {"123456789012345", "123456789012345"},
        {"", ""},
        {"1234567890123456", "", 16, tooLarge(16)},
        {"1234567890123456", "before", 0, tooLarge(0)},
        {" _mng_xx", "", 16, "password mangling is not supported"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        char buffer[16] = "before";
        write("file", c.content);
        _korPasswordFile_GetPassword(ex, 0, file.c_str(), buffer, c.size);
        EXPECT_EQ(buffer, c.password);
        EXPECT_TRUE(c.error.empty() ? clean(ex) : raised(ex, 16, c.error.c_str()));
    }
    std::filesystem::remove(file);
    char buffer[16];
    _korPasswordFile_GetPassword(ex, 0, file.c_str(), buffer, 16);
    EXPECT_RAISED(9, "File cannot be found.");
    _korPasswordFile_GetUsernamePassword(ex, 0, file.c_str(), buffer, 16, buffer, 16);
    EXPECT_RAISED(9, "File cannot be found.");
}

TEST_F(KorPasswordFileTest, AnyRequestMayFail)
{
    std::string file = write("file", "user\npassword");
    sweepFailures(ex, [&] {
        char user[16];
        char password[16];
        _korPasswordFile_GetUsernamePassword(ex, 0, file.c_str(), user, 16, password, 16);
        _korPasswordFile_GetPassword(ex, 0, file.c_str(), password, 16);
    });
}

} // namespace
