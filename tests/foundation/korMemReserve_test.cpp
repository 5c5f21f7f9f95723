// korMemReserve_test.cpp - what the reserve holds, when it is let go, and who is told.

#include "korutil/korAlloc.h"
#include "korutil/korMemReserve.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <atomic>
#include <thread>
#include <vector>

namespace kor::test {
namespace {

constexpr uint32_t block = KOR_MEM_RESERVE_BLOCK;

// What the callback was told, over all calls.
struct Told {
    std::atomic<uint64_t> bytes = 0;
    std::atomic<int> calls = 0;
};

void onFreed(uint8_t depth, korEx* ex, void* closure, uint32_t bytes)
{
    auto* told = static_cast<Told*>(closure);
    told->bytes += bytes;
    told->calls++;
    EXPECT_EQ(ex->code, 0); // whatever is pending at the caller
    KOR_RAISE(ex, depth, KOR_ERROR_EXCEPTION, "stays with the reserve");
}

class korMemReserveTest : public KorTest
{
protected:
    void SetUp() override
    {
        _korMemReserve_SetFreedCallback(ex, 0, onFreed, &told);
        ASSERT_CLEAN();
    }

    void TearDown() override
    {
        _korMemReserve_Free(0, ex);
        _korMemReserve_SetFreedCallback(ex, 0, nullptr, nullptr);
        KorTest::TearDown();
    }

    // Lets the reserve go and gives the bytes that the callback was told of.
    uint64_t freed()
    {
        uint64_t bytes = told.bytes;
        int calls = told.calls;
        _korMemReserve_Free(0, ex);
        EXPECT_EQ(told.calls, calls + 1);
        return told.bytes - bytes;
    }

    Told told;
};

TEST_F(korMemReserveTest, HoldsOneBlockMoreThanWholeOnes)
{
    const struct {
        int64_t bytes;
        uint64_t held;
    } cases[] = {{0, block}, {block - 1, block}, {block, 2 * block}, {-1, block}};
    for (const auto& one : cases) {
        _korMemReserve_Alloc(ex, 0, one.bytes);
        EXPECT_CLEAN();
        EXPECT_EQ(freed(), one.held) << one.bytes;
    }
    EXPECT_EQ(freed(), 0u); // and the callback was called
    _korMemReserve_SetFreedCallback(ex, 0, onFreed, nullptr);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Callback already set");

    _korMemReserve_Alloc(ex, 0, -int64_t{block}); // nothing asked for, nothing there
    EXPECT_RAISED(KOR_ERROR_INVALID_VALUE, "Reserve allocation failed");
    {
        FailingHeap heap(3, 1);
        _korMemReserve_Alloc(ex, 0, 10 * block);
    }
    EXPECT_RAISED(KOR_ERROR_INVALID_VALUE, "Reserve allocation failed");
    EXPECT_EQ(freed(), 2 * block) << "what it had before the heap refused";
}

TEST_F(korMemReserveTest, IsLetGoWhenAnAllocationFails)
{
    _kor_free(0, ex, _kor_malloc(ex, 0, 1)); // the first request of a process has a way of its own
    _korMemReserve_Alloc(ex, 0, block);
    {
        FailingHeap heap(1, 1);
        void* memory = _kor_calloc(ex, 0, 10, 10);
        EXPECT_NE(memory, nullptr);
        _kor_free(0, ex, memory);
    }
    EXPECT_CLEAN();
    EXPECT_EQ(told.bytes, 2 * block);
    {
        FailingHeap heap(1, 2);
        EXPECT_EQ(_kor_malloc(ex, 0, 10), nullptr);
    }
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(told.bytes, 2 * block);
    EXPECT_EQ(told.calls, 2);
}

TEST_F(korMemReserveTest, EachBlockIsFreedOnce)
{
    constexpr int rounds = 500;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; i++) {
            threads.emplace_back([i] {
                korEx* own = korEx_Create();
                for (int round = 0; round < rounds; round++) {
                    i < 2 ? _korMemReserve_Alloc(own, 0, block) : _korMemReserve_Free(0, own);
                }
                EXPECT_TRUE(clean(own));
                korEx_Destroy(own);
            });
        }
    }
    _korMemReserve_Free(0, ex);
    EXPECT_EQ(told.bytes, uint64_t{2} * rounds * 2 * block);
}

} // namespace
} // namespace kor::test
