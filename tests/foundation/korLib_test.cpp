// korLib_test.cpp - counted opening and closing, of this library and of one built on it; versions.

#include "korutil/korLib.h"
#include "support/korTest.h"

#include <atomic>
#include <thread>
#include <vector>

using namespace kor::test;

namespace {

int opens;
int closes;
bool isOpen; // plain: the library lock guards it

void openPlain(korEx*, uint8_t)
{
    opens++;
    isOpen = true;
}

void openBroken(korEx* ex, uint8_t depth)
{
    openPlain(ex, depth);
    KOR_RAISE(ex, depth, KOR_ERROR_ILLEGAL_STATE, "broken");
}

void closePlain(korEx*, uint8_t)
{
    closes++;
    isOpen = false;
}

const char* wordFor3(int32_t code)
{
    return code == 3 ? "the third" : nullptr;
}

} // namespace

class KorLib : public KorTest
{
protected:
    KorLib() { opens = closes = 0; }

    // Words of callbacks are there while the subsystems are up.
    std::string wordOf3()
    {
        korEx local = {};
        local.code = 3;
        return korEx_GetSummaryString(&local);
    }
};

TEST_F(KorLib, OpensOnceAndClosesLast)
{
    korLib lib = {0, openPlain, closePlain};
    _korLib_Close(ex, 0, &lib); // not open
    _korLib_Open(ex, 0, &lib, 4, 4);
    _korLib_Open(ex, 0, &lib, 4, 4);
    _korLib_Close(ex, 0, &lib);
    EXPECT_TRUE(opens == 1 && closes == 0 && isOpen);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, NULL);
    _korLib_Open(ex, 0, &lib, 4, 4); // nothing, with an error pending
    _korLib_Close(ex, 0, &lib);      // this does its work
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
    EXPECT_TRUE(opens == 1 && closes == 1 && lib.openCount == 0);
}

TEST_F(KorLib, AFailedOpenIsStillClosedAndARefusedOneIsNone)
{
    korLib lib = {0, openBroken, closePlain};
    for (int32_t requested : {3, 5}) {
        _korLib_Open(ex, 0, &lib, requested, 4);
        EXPECT_RAISED(KOR_ERROR_INCOMPATIBLE_LIBRARY, "library has incompatible version.");
    }
    EXPECT_EQ(opens, 0);
    _korLib_Open(ex, 0, &lib, 4, 4);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "broken");
    _korLib_Close(ex, 0, &lib);
    EXPECT_EQ(closes, 1);
}

TEST_F(KorLib, SubsystemsAreUpBetweenTheFirstOpenAndTheLastClose)
{
    for (int round = 0; round < 3; round++) {
        _korutil_Open(ex, 0, KORUTIL_LEVEL);
        _korutil_Open(ex, 0, KORUTIL_LEVEL);
        _korEx_AddErrorStringCallback(ex, 0, wordFor3);
        _korutil_Close(0, ex);
        EXPECT_EQ(wordOf3(), "the third");
        _korutil_Retain(0, ex);
        _korutil_Close(0, ex);
        EXPECT_EQ(wordOf3(), "the third"); // retained beyond the open
        KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, NULL);
        _korutil_Release(0, ex); // stops everything all the same
        EXPECT_EQ(wordOf3(), "Unknown");
        _korutil_Release(0, ex); // nothing is left to release
        EXPECT_RAISED(KOR_ERROR_TIMEOUT, nullptr);
    }
}

TEST_F(KorLib, NobodyFindsALibraryHalfOpen)
{
    constexpr int threads = 4;
    constexpr int rounds = 500;
    korLib lib = {0, openPlain, closePlain};
    std::atomic<int> closed = 0;
    {
        std::vector<std::jthread> users;
        for (int i = 0; i < threads; i++) {
            users.emplace_back([&] {
                KOR_EX_LOCAL(own);
                for (int round = 0; round < rounds; round++) {
                    _korLib_Open(&own, 0, &lib, 1, 1);
                    closed += !isOpen;
                    _korutil_Open(&own, 0, KORUTIL_LEVEL);
                    _korutil_Close(0, &own);
                    _korLib_Close(&own, 0, &lib);
                }
                EXPECT_EQ(own.code, 0);
            });
        }
    }
    EXPECT_EQ(closed, 0);
    EXPECT_EQ(opens, closes);
    EXPECT_EQ(lib.openCount, 0u);
}

TEST_F(KorLib, VersionsCompareNumberByNumber)
{
    for (auto [major, minor, release] : {std::tuple{6, 5, 0}, {6, 4, 9}, {5, 9, 9}}) {
        EXPECT_TRUE(_korutil_version_matches(6, 5, 0, uint8_t(major), uint8_t(minor), uint8_t(release)));
    }
    for (auto [major, minor, release] : {std::tuple{6, 5, 1}, {6, 6, 0}, {7, 0, 0}}) {
        EXPECT_FALSE(_korutil_version_matches(6, 5, 0, uint8_t(major), uint8_t(minor), uint8_t(release)));
    }
}

TEST_F(KorLib, VersionTextsAgreeAndAreTakenApart)
{
    uint8_t major = 0, minor = 0, release = 99;
    EXPECT_FALSE(_korutil_version_string_parse("261.7", &major, &minor, &release));
    EXPECT_TRUE(major == 5 && minor == 7 && release == 99); // modulo 256
    EXPECT_FALSE(_korutil_version_string_parse(nullptr, &major, &minor, &release));
    EXPECT_TRUE(_korutil_version_string_parse(_korutil_version_string_compare(), &major, &minor, &release));
    EXPECT_TRUE(major == _korutil_version_major_num() && minor == _korutil_version_minor_num() && release == 0);
    std::string pair = std::string(_korutil_version_major_string()) + "." + _korutil_version_minor_string();
    EXPECT_EQ(_korutil_version_string_compare(), pair + ".0  ");
    EXPECT_EQ(_korutil_version_string_short(), pair + ".0   V8");
    EXPECT_EQ(_korutil_version_string_long(), "KORVA Utilities Version " + pair + ".0   V8");
    EXPECT_EQ(std::string(_korutil_version_banner()).rfind("KORVA Utilities Version 6.5.0   V8\n", 0), 0u);
}
