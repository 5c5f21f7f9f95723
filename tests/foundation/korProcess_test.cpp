// korProcess_test.cpp - variables come and go alike on every system; facts are plausible and refuse short buffers.

#include "korutil/korProcess.h"

#include "support/korTest.h"

#include <cerrno>
#include <cstring>
#include <vector>

#ifndef _WIN32
#include <pwd.h>
#include <unistd.h>
#endif

namespace {

TEST(korProcess, VariablesComeAndGo)
{
    const char* name = "KOR_TEST_VARIABLE";
    kor::test::EnvironmentGuard guard(name, nullptr);
    EXPECT_EQ(_kor_setenv(name, "one"), 0);
    EXPECT_EQ(_kor_setenv(name, "two=2"), 0);
    EXPECT_STREQ(_kor_getenv(name), "two=2");
    EXPECT_EQ(_kor_unsetenv(name), 0);
    EXPECT_EQ(_kor_unsetenv(name), 0) << "not there is no error";
    EXPECT_EQ(_kor_setenv(name, "three"), 0);
    EXPECT_EQ(_kor_setenv(name, ""), 0);
    EXPECT_EQ(_kor_getenv(name), nullptr) << "an empty value removes";
    for (const char* refused : {static_cast<const char*>(nullptr), "", "A=B"}) {
        EXPECT_EQ(_kor_setenv(refused, "x"), EINVAL);
        EXPECT_EQ(_kor_unsetenv(refused), EINVAL);
    }
}

TEST(korProcess, NamesNeedTheirRoom)
{
    for (auto* get :
         {_kor_GetSystemUser, _kor_GetEffectiveUser, _kor_GetSystemGroup, _kor_GetEffectiveGroup, _kor_GetSystemName}) {
        char buffer[KOR_NAME_SIZE] = "#";
        EXPECT_FALSE(get(buffer, KOR_NAME_SIZE - 1));
        EXPECT_STREQ(buffer, "#");
    }
}

TEST(korProcess, NamesOfUserGroupAndSystem)
{
    char user[KOR_NAME_SIZE] = "", name[KOR_NAME_SIZE] = "", other[KOR_NAME_SIZE] = "";
    EXPECT_TRUE(_kor_GetSystemUser(user, sizeof user));
    EXPECT_STRNE(user, "");
    EXPECT_TRUE(_kor_GetSystemName(name, sizeof name));
    EXPECT_STRNE(name, "");
#ifdef _WIN32
    EXPECT_TRUE(std::strstr(name, "Windows") != nullptr) << name;
    EXPECT_FALSE(_kor_GetEffectiveUser(other, sizeof other));
    EXPECT_FALSE(_kor_GetSystemGroup(other, sizeof other));
#else
    EXPECT_EQ(_kor_GetProcessId(), static_cast<uint32_t>(getpid()));
    const passwd* entry = getpwuid(getuid());
    EXPECT_EQ(user, entry != nullptr ? std::string(entry->pw_name) : std::to_string(getuid()));
    EXPECT_TRUE(_kor_GetEffectiveUser(other, sizeof other));
    EXPECT_EQ(getuid() == geteuid(), std::strcmp(user, other) == 0);
    EXPECT_TRUE(_kor_GetSystemGroup(name, sizeof name));
    EXPECT_TRUE(_kor_GetEffectiveGroup(other, sizeof other));
    EXPECT_EQ(getgid() == getegid(), std::strcmp(name, other) == 0);
#endif
}

TEST(korProcess, ProcessorTimeGrowsWithWork)
{
    uint64_t user, kernel, total;
    ASSERT_TRUE(_kor_GetProcessCPUTime(&user, &kernel, &total));
    EXPECT_EQ(user + kernel, total);
    uint64_t later = total;
    while (later == total) { // the calls are work, too
        ASSERT_TRUE(_kor_GetProcessCPUTime(&user, &kernel, &later));
    }
    EXPECT_GT(later, total);
    EXPECT_LT(later - total, 60'000'000u) << "in microseconds";
}

TEST(korProcess, MemoryGrowsWithUse)
{
    uint64_t resident, peak, unshared;
    ASSERT_TRUE(_kor_GetProcessMemoryUsage(&resident, &peak, &unshared));
    constexpr uint64_t mebibytes = 64;
    std::vector<char> block(mebibytes << 20, 'x');
    uint64_t residentLater, peakLater, unsharedLater;
    ASSERT_TRUE(_kor_GetProcessMemoryUsage(&residentLater, &peakLater, &unsharedLater));
    EXPECT_GE(peakLater, resident + (mebibytes - 8) * 1024) << block[1000];
    EXPECT_GE(unsharedLater, unshared + (mebibytes - 8) * 1024);
    EXPECT_LT(residentLater, uint64_t{1} << 32) << "in KiB";
}

} // namespace
