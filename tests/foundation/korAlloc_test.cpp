// korAlloc_test.cpp - the plain path of the allocation family: what it gives, failure, clean-up with an error pending.

#include "support/failingHeap.h"
#include "support/korTest.h"

#include "korutil/korAlloc.h"

#include <cstring>

namespace {

using kor::test::FailingHeap;
using KorAllocTest = kor::test::KorTest;

TEST_F(KorAllocTest, FamilyGivesWhatItSays)
{
    auto* zeroed = static_cast<unsigned char*>(_kor_calloc(KOR_AT(ex, 0), 7, 9));
    for (int index = 0; index < 63; index++) {
        ASSERT_EQ(zeroed[index], 0);
        zeroed[index] = static_cast<unsigned char>(index);
    }
    zeroed = static_cast<unsigned char*>(_kor_realloc(KOR_AT(ex, 0), zeroed, 100000));
    EXPECT_EQ(zeroed[62], 62);
    zeroed = static_cast<unsigned char*>(_kor_realloc(KOR_AT(ex, 0), zeroed, 0)); // shrinks, never frees
    ASSERT_NE(zeroed, nullptr);
    _kor_free(KOR_AT_D(0, ex), zeroed);
    EXPECT_EQ(gMemNoDebug, 1);
    for (size_t alignment : {16u, 64u, 4096u}) {
        void* aligned = _kor_memalign(KOR_AT(ex, 0), alignment, 100);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(aligned) % alignment, 0u);
        std::memset(aligned, 1, 100);
        _kor_freealign(KOR_AT_D(0, ex), aligned);
    }
    char* text = _korUtil_Strdup(KOR_AT(ex, 0), "copy");
    EXPECT_STREQ(text, "copy");
    _korUtil_Free(KOR_AT_D(0, ex), text);
}

TEST_F(KorAllocTest, FailureIsCode2WithTheRoutinesOwnFrame)
{
    char* block = static_cast<char*>(_kor_malloc(KOR_AT(ex, 0), 8));
    std::strcpy(block, "kept");
    void* (*const requests[])(korEx*, void*) = {
        [](korEx* e, void*) { return _kor_malloc(KOR_AT(e, 0), 64); },
        [](korEx* e, void*) { return _kor_calloc(KOR_AT(e, 0), 8, 8); },
        [](korEx* e, void* old) { return _kor_realloc(KOR_AT(e, 0), old, 1 << 20); },
        [](korEx* e, void*) { return static_cast<void*>(_kor_strdup(KOR_AT(e, 0), "text")); },
        [](korEx* e, void*) { return _kor_memalign(KOR_AT(e, 0), 64, 64); },
    };
    for (auto* request : requests) {
        FailingHeap heap(1);
        EXPECT_EQ(request(ex, block), nullptr);
        EXPECT_EQ(ex->frameCount, 2);
        EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    }
    EXPECT_STREQ(block, "kept"); // a failed realloc leaves the old block
    _kor_free(KOR_AT_D(0, ex), block);
    volatile size_t half = SIZE_MAX / 2; // what the compiler cannot see, it does not warn of
    EXPECT_EQ(_kor_calloc(KOR_AT(ex, 0), half, 3), nullptr);
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
}

TEST_F(KorAllocTest, DebugRoutinesRefuseWithAnErrorPendingAndStillFree)
{
    void* block = _kor_malloc(KOR_AT(ex, 0), 10);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    EXPECT_EQ(_kor_mallocDebug(ex, 1, 10), nullptr);
    EXPECT_EQ(_kor_callocDebug(ex, 1, 1, 10), nullptr);
    EXPECT_EQ(_kor_reallocDebug(ex, 1, block, 10), nullptr);
    EXPECT_EQ(_kor_strdupDebug(ex, 1, "x"), nullptr);
    EXPECT_EQ(_kor_memalignDebug(ex, 1, 64, 10), nullptr);
    _kor_freeDebug(1, ex, block);
    _kor_freeDebug(1, ex, nullptr);
    _kor_freealignDebug(1, ex, nullptr);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "pending");
}

} // namespace
