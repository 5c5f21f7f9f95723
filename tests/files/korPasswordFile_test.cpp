// korPasswordFile_test.cpp - both forms of password files.

#include "korutil/korPasswordFile.h"

#include "filesTest.h"
#include "support/failingHeap.h"

namespace {

using namespace kor::test;
using KorPasswordFileTest = FilesTest;

struct Case {
    std::string content, user, password;
};

TEST_F(KorPasswordFileTest, TwoLines)
{
    std::string mangled = "_mng_1MLE1cLT"; // "secret" with 0xA7
    const Case cases[] = {
        {"me\nsecret\nmore\n", "me", "secret"},
        {"me\r\nsec\rret\r\n", "me", "secret"}, // CR anywhere
        {"me", "me", ""},
        {"", "", ""},
        {std::string("m\0secret", 8), "m", "secret"}, // a NUL ends a line too
        {"me\n  se cret  ", "me", "  se cret  "},
        {"me\n" + mangled + "\n", "me", "secret"},
        {"me\n_mng_", "me", "before"}, // nothing behind the marker
        {"me\n_mng", "me", "_mng"},
        {"0123456789abcdefgh\n", "0123456789abcdef", "gh"}, // a user of the buffer's size and more
    };
    for (const Case& one : cases) {
        char user[17] = "";
        char password[64] = "before";
        _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), write("file", one.content).c_str(), user, 16, password,
                                             sizeof password);
        EXPECT_EQ(user, one.user);
        EXPECT_EQ(password, one.password);
        EXPECT_CLEAN();
    }
}

TEST_F(KorPasswordFileTest, LimitsOfTheTwoLineForm)
{
    char user[8];
    std::string password(5000, '?');
    std::string whole = "u\n";
    whole.append(4095, 'x').append("yz");
    std::string file = write("file", whole);
    _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), file.c_str(), user, 8, password.data(), 5000);
    EXPECT_EQ(password.c_str(), whole.substr(2, 4096));
    _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), file.c_str(), user, 8, password.data(), 4);
    EXPECT_STREQ(password.c_str(), "xxx");
    _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), write("mangled", "u\n_mng_1MLE1cLT").c_str(), user, 8,
                                         password.data(), 8);
    EXPECT_RAISED(1, "Not enough room for base64 encoding.");
    _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), path("none").c_str(), user, 8, password.data(), 8);
    EXPECT_RAISED(9, "File cannot be found.");
}

TEST_F(KorPasswordFileTest, OneValue)
{
    char buffer[16];
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), write("file", " \tse cret\r\n").c_str(), buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "se cret");
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), write("file", "123456789012345").c_str(), buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "123456789012345");
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), write("file", "").c_str(), buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "");
    std::string file = write("file", "1234567890123456");
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), file.c_str(), buffer, sizeof buffer);
    EXPECT_RAISED(16, ("password file " + file + " is too large (limit 16 bytes)").c_str());
    EXPECT_STREQ(buffer, "");
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), file.c_str(), buffer, 0);
    EXPECT_RAISED(16, ("password file " + file + " is too large (limit 0 bytes)").c_str());
    _korPasswordFile_GetPassword(KOR_AT(ex, 0), write("file", " _mng_xx").c_str(), buffer, sizeof buffer);
    EXPECT_RAISED(16, "password mangling is not supported");
    EXPECT_STREQ(buffer, "");
}

TEST_F(KorPasswordFileTest, AnyRequestMayFail)
{
    std::string file = write("file", "user\npassword");
    sweepFailures(ex, [&] {
        char user[16];
        char password[16];
        _korPasswordFile_GetUsernamePassword(KOR_AT(ex, 0), file.c_str(), user, 16, password, 16);
        _korPasswordFile_GetPassword(KOR_AT(ex, 0), file.c_str(), password, 16);
    });
}

} // namespace
