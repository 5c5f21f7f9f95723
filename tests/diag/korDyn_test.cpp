// korDyn_test.cpp - libraries of the system, and binding tables that stop at their bad row.

#include "korutil/korDyn.h"

#include "support/korTest.h"

namespace {

using namespace kor::test;
using KorDynTest = KorTest;

#ifdef _WIN32
constexpr const char* libraryName = "kernel32.dll";
constexpr const char* functionName = "GetCurrentProcessId";
constexpr const char* secondName = "GetCurrentThreadId";
#else
constexpr const char* libraryName = "libresolv.so.2";
constexpr const char* functionName = "ns_get16";
constexpr const char* secondName = "ns_get32";
#endif

TEST_F(KorDynTest, OpensFindsAndCloses)
{
    void* library = _korDyn_Open(KOR_AT(ex, 0), libraryName);
    ASSERT_NE(library, nullptr);
    void* again = _korDyn_GetHandle(KOR_AT(ex, 0), libraryName);
    EXPECT_EQ(again, library);
    void* function = _korDyn_Symbol(KOR_AT(ex, 0), library, functionName);
    EXPECT_NE(function, nullptr);
    EXPECT_EQ(_korDyn_Object(KOR_AT(ex, 0), library, functionName), function);
    _korDyn_Symbol(KOR_AT(ex, 0), library, "no such name");
    EXPECT_RAISED(9, "Unable to find symbol");
    _korDyn_Close(KOR_AT_D(0, ex), again);
    _korDyn_Close(KOR_AT_D(0, ex), library);
    void* process = _korDyn_Open(KOR_AT(ex, 0), nullptr);
    EXPECT_NE(process, nullptr);
    _korDyn_Close(KOR_AT_D(0, ex), process);
    EXPECT_EQ(_korDyn_Open(KOR_AT(ex, 0), "no-such-library"), nullptr);
    char text[200];
    EXPECT_GT(_korDyn_DescribeError(KOR_AT(ex, 0), text, sizeof text), 0U);
    EXPECT_RAISED(9, "Unable to open dynamic library.");
    EXPECT_EQ(_korDyn_GetHandle(KOR_AT(ex, 0), ""), nullptr); // no library, and not the process
    korEx_Clear(ex);
    _korDyn_Open(KOR_AT(ex, 0), "no-such-library");
    EXPECT_EQ(_korDyn_DescribeError(KOR_AT(ex, 0), text, 8), 7U) << "what fits";
    EXPECT_RAISED(9, "Unable to open dynamic library.");
}

TEST_F(KorDynTest, ATableStopsAtItsBadRow)
{
    void* marked = &ex;
    void* targets[4] = {marked, marked, marked, marked};
    const korDynBinding table[] = {{&targets[0], functionName},
                                   {&targets[1], secondName},
                                   {&targets[2], "no such name"},
                                   {&targets[3], functionName},
                                   {nullptr, nullptr}};
    void* library = _korDyn_Open(KOR_AT(ex, 0), libraryName);
    const korDynBinding* failed = table;
    _korDyn_BindAll(KOR_AT(ex, 0), library, table, &failed);
    EXPECT_RAISED(9, "Unable to find symbol");
    EXPECT_EQ(failed, &table[2]);
    EXPECT_TRUE(targets[0] != marked && targets[1] != marked && targets[2] == nullptr && targets[3] == marked);
    _korDyn_BindAll(KOR_AT(ex, 0), library, table + 3, &failed);
    EXPECT_EQ(failed, nullptr);
    EXPECT_EQ(targets[3], targets[0]);
    _korDyn_Close(KOR_AT_D(0, ex), library);
}

} // namespace
