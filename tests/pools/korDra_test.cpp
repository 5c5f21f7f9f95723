// korDra_test.cpp - arrays of records by value: capacities, zeroed storage, pools, and a model check.

#include "korutil/korDra.h"

#include "support/failingHeap.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace {

using namespace kor::test;

class KorDraTest : public KorTest
{
protected:
    void SetUp() override { _korDra_CreatePools(ex, 0, &objects, &storages, 8, 12); } // chunks of 96 bytes
    void TearDown() override
    {
        _korPool_Destroy(0, ex, storages);
        _korPool_Destroy(0, ex, objects);
        KorTest::TearDown();
    }
    korDra* create(int32_t size, int32_t recordSize, bool pooled = false)
    {
        return _korDra_PerformCreate(ex, 0, size, recordSize, pooled ? objects : nullptr, pooled ? storages : nullptr);
    }
    void destroy(korDra* array) { _korDra_Destroy(0, ex, array); }

    korPool* objects = nullptr;
    korPool* storages = nullptr;
};

TEST_F(KorDraTest, StorageIsZeroFromItsFirstByteOnAndTriples)
{
    struct {
        int32_t size, recordSize, capacity;
        bool pooled, wholeChunk;
    } cases[] = {{0, 8, 40, false, false}, {7, 8, 56, false, false}, {-1, 0, 5, false, false},
                 {0, 12, 96, true, true},  {8, 12, 96, true, true},  {9, 12, 108, true, false},
                 {1, 40, 80, true, true},  {1, 96, 96, true, true},  {1, 97, 97, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " of " << c.recordSize);
        korDra* array = create(c.size, c.recordSize, c.pooled);
        EXPECT_EQ(array->capacity, c.capacity);
        EXPECT_EQ(array->storagePool, c.wholeChunk ? storages : nullptr);
        auto countIn = [&](int32_t from, int32_t to, int byte) {
            return std::count(array->bytes + from, array->bytes + to, byte);
        };
        EXPECT_EQ(countIn(0, c.capacity, 0), c.capacity);
        memset(array->bytes, 0xEE, static_cast<size_t>(c.capacity)); // and the next user of the chunk finds it
        while (array->capacity == c.capacity) {
            _korDra_New(0, ex, array);
        }
        EXPECT_EQ(array->capacity, 3 * c.capacity);
        EXPECT_EQ(countIn(0, c.capacity, 0xEE), c.capacity);
        EXPECT_EQ(countIn(c.capacity, 3 * c.capacity, 0), 2 * c.capacity);
        EXPECT_EQ(array->storagePool, nullptr) << "a grown array is the heap's";
        destroy(array);
    }
}

TEST_F(KorDraTest, AgreesWithAVector)
{
    using Record = std::array<uint8_t, 5>;
    Random random;
    korDra* array = create(0, sizeof(Record));
    std::vector<Record> model;
    for (int step = 0; step < 3000; step++) {
        auto fill = static_cast<uint8_t>(random.next() | 1);
        auto index = static_cast<int32_t>(random.below(model.size() + 4));
        auto slot = static_cast<size_t>(index);
        if (random.chance(40)) {
            ASSERT_EQ(_korDra_RemoveIndex(array, index), slot < model.size());
            if (slot < model.size()) {
                model.erase(model.begin() + index);
            }
        } else if (random.chance(50)) {
            memset(_korDra_GetNewAtIndex(ex, 0, array, index), fill, sizeof(Record));
            model.resize(std::max(model.size(), slot + 1), Record{});
            model[slot].fill(fill);
        } else {
            memset(_korDra_New(0, ex, array), fill, sizeof(Record));
            model.emplace_back().fill(fill);
        }
        ASSERT_EQ(static_cast<size_t>(array->used), model.size() * sizeof(Record));
        ASSERT_TRUE(model.empty() || memcmp(array->bytes, model.data(), model.size() * sizeof(Record)) == 0);
    }
    korDra* copy = _korDra_Copy(ex, 0, array);
    _korDra_AddDra(ex, 0, copy, copy);
    EXPECT_EQ(copy->used, 2 * array->used);
    EXPECT_EQ(memcmp(copy->bytes + array->used, array->bytes, static_cast<size_t>(array->used)), 0);
    destroy(copy);
    destroy(array);
}

// Bad arguments, sizes beyond 32 bits, and an array whose growth has failed are refused, with the error pending and
// not.
TEST_F(KorDraTest, Refusals)
{
    _korDra_CreatePools(ex, 0, nullptr, nullptr, 0, 0);
    EXPECT_CLEAN();
    korPool *noObjects, *noStorages;
    _korDra_CreatePools(ex, 0, &noObjects, &noStorages, INT32_MAX, 2);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    EXPECT_TRUE(noObjects == nullptr && noStorages == nullptr);
    EXPECT_EQ(create(INT32_MAX, 2), nullptr);
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    korDra* array = create(1, 8);
    auto expectNone = [&](int32_t index, int32_t code, const char* text = nullptr) {
        EXPECT_EQ(_korDra_GetNewAtIndex(ex, 0, array, index), nullptr);
        EXPECT_RAISED(code, text);
    };
    expectNone(-1, KOR_ERROR_INVALID_ARGUMENT);
    expectNone(INT32_MAX, KOR_ERROR_NO_MEMORY);
    _korDra_GrowBytes(ex, 0, array, -1);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    EXPECT_FALSE(_korDra_RemoveIndex(array, 0));
    EXPECT_EQ(_korDra_NewGrow(0, ex, nullptr), nullptr);

    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "pending");
    EXPECT_NE(_korDra_New(0, ex, array), nullptr);
    expectNone(0, KOR_ERROR_TIMEOUT, "pending");
    {
        FailingHeap failing(1);
        _korDra_GrowBytes(ex, 0, array, 8);
    }
    EXPECT_RAISED(KOR_ERROR_NO_MEMORY, nullptr);
    EXPECT_EQ(array->bytes, nullptr);
    EXPECT_EQ(_korDra_New(0, ex, array), nullptr);
    expectNone(0, KOR_ERROR_NO_MEMORY);
    destroy(array);
    destroy(nullptr);
    _korDra_Clear(0, ex, nullptr);
}

TEST_F(KorDraTest, AnyRequestMayFail)
{
    sweepFailures(ex, [&] {
        korDra own; // in the caller's storage
        _korDra_Init(ex, 0, &own, 2, 24);
        _korDra_New(0, ex, &own);
        _korDra_Clear(0, ex, &own);
        destroy(create(8, 12, true));
        korDra* array = create(8, 12, true);
        for (int i = 0; i < 30 && ex->code == 0; i++) {
            _korDra_New(0, ex, array);
        }
        destroy(_korDra_Copy(ex, 0, array));
        destroy(array);
    });
}

} // namespace
