// korDra_test.cpp - arrays of records by value: capacities, zeroed storage, pools, and a model check.

#include "korutil/korDra.h"

#include "korutil/korAlloc.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <array>
#include <cstring>
#include <vector>

namespace {

using namespace kor::test;

class KorDraTest : public KorTest
{
protected:
    korDra* create(int32_t size, int32_t recordSize, korPool* objects = nullptr, korPool* storages = nullptr)
    {
        return _korDra_PerformCreate(KOR_AT(ex, 0), size, recordSize, objects, storages);
    }
    void destroy(korDra* array) { _korDra_Destroy(KOR_AT_D(0, ex), array); }
};

TEST_F(KorDraTest, Capacities)
{
    korPool* storages;
    _korDra_CreatePools(KOR_AT(ex, 0), nullptr, &storages, 8, 12); // chunks of 96 bytes
    struct {
        int32_t size, recordSize;
        korPool* pool;
        int32_t capacity;
        bool pooled;
    } cases[] = {{0, 8, nullptr, 40, false},  {7, 8, nullptr, 56, false},  {-1, 0, nullptr, 5, false},
                 {0, 12, storages, 96, true}, {8, 12, storages, 96, true}, {9, 12, storages, 108, false},
                 {1, 40, storages, 80, true}, {1, 96, storages, 96, true}, {1, 97, storages, 97, false}};
    for (const auto& c : cases) {
        korDra* array = create(c.size, c.recordSize, nullptr, c.pool);
        ASSERT_CLEAN();
        EXPECT_EQ(array->capacity, c.capacity) << c.size << " of " << c.recordSize;
        EXPECT_EQ(array->storagePool != nullptr, c.pooled) << c.size << " of " << c.recordSize;
        destroy(array);
    }
    _korPool_Destroy(KOR_AT_D(0, ex), storages);
}

TEST_F(KorDraTest, StorageIsZeroFromChunkToHeap)
{
    korPool *objects, *storages;
    _korDra_CreatePools(KOR_AT(ex, 0), &objects, &storages, 4, 16);
    korDra* dirty = create(4, 16, objects, storages);
    memset(dirty->bytes, 0xEE, 64);
    destroy(dirty);
    korDra* array = create(4, 16, objects, storages); // the same chunk again
    EXPECT_EQ(array->objectPool, objects);
    for (int i = 0; i < 50; i++) { // by way of 4, 12, 36 and 108 records
        auto* record = static_cast<uint8_t*>(_korDra_New(KOR_AT_D(0, ex), array));
        EXPECT_EQ(std::count(record, record + 16, 0), 16) << i;
        memset(record, i + 1, 16);
    }
    EXPECT_EQ(array->capacity, 108 * 16);
    EXPECT_EQ(array->storagePool, nullptr);
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(array->bytes[i * 16 + 15], i + 1);
    }
    destroy(array);
    _korPool_Destroy(KOR_AT_D(0, ex), storages);
    _korPool_Destroy(KOR_AT_D(0, ex), objects);
}

TEST_F(KorDraTest, AgreesWithAVector)
{
    using Record = std::array<uint8_t, 5>;
    Random random;
    korDra own;
    _korDra_Init(KOR_AT(ex, 0), &own, 0, sizeof(Record));
    korDra* array = &own;
    std::vector<Record> model;
    for (int step = 0; step < 3000; step++) {
        auto fill = static_cast<uint8_t>(random.next() | 1);
        auto index = static_cast<int32_t>(random.below(model.size() + 4));
        if (random.chance(40)) {
            bool there = static_cast<size_t>(index) < model.size();
            EXPECT_EQ(_korDra_RemoveIndex(array, index), there);
            if (there) {
                model.erase(model.begin() + index);
            }
        } else if (random.chance(50)) {
            memset(_korDra_GetNewAtIndex(KOR_AT(ex, 0), array, index), fill, sizeof(Record));
            if (static_cast<size_t>(index) >= model.size()) {
                model.resize(static_cast<size_t>(index) + 1, Record{});
            }
            model[static_cast<size_t>(index)].fill(fill);
        } else {
            memset(_korDra_New(KOR_AT_D(0, ex), array), fill, sizeof(Record));
            model.emplace_back().fill(fill);
        }
        ASSERT_EQ(static_cast<size_t>(array->used), model.size() * sizeof(Record));
        ASSERT_TRUE(model.empty() || memcmp(array->bytes, model.data(), model.size() * sizeof(Record)) == 0);
    }
    korDra* copy = _korDra_Copy(KOR_AT(ex, 0), array);
    _korDra_AddDra(KOR_AT(ex, 0), copy, copy);
    EXPECT_EQ(copy->used, 2 * array->used);
    EXPECT_EQ(memcmp(copy->bytes + array->used, array->bytes, static_cast<size_t>(array->used)), 0);
    destroy(copy);
    _korDra_Clear(KOR_AT_D(0, ex), array);
}

TEST_F(KorDraTest, Refusals)
{
    korPool *objects, *storages;
    _korDra_CreatePools(KOR_AT(ex, 0), &objects, &storages, INT32_MAX, 2);
    EXPECT_RAISED(1, nullptr);
    EXPECT_TRUE(objects == nullptr && storages == nullptr);
    EXPECT_EQ(create(INT32_MAX, 2), nullptr);
    EXPECT_RAISED(2, nullptr);
    korDra* array = create(1, 8);
    const std::pair<int32_t, int32_t> wrong[] = {{-1, 1}, {INT32_MAX, 2}};
    for (auto [index, code] : wrong) {
        EXPECT_EQ(_korDra_GetNewAtIndex(KOR_AT(ex, 0), array, index), nullptr);
        EXPECT_RAISED(code, nullptr);
    }
    EXPECT_FALSE(_korDra_RemoveIndex(array, 0));
    EXPECT_EQ(_korDra_NewGrow(KOR_AT_D(0, ex), nullptr), nullptr);

    KOR_RAISE(ex, 0, 100, "pending");
    EXPECT_EQ(_korDra_GetNewAtIndex(KOR_AT(ex, 0), array, 0), nullptr);
    EXPECT_NE(_korDra_New(KOR_AT_D(0, ex), array), nullptr);
    EXPECT_RAISED(100, "pending");
    {
        FailingHeap failing(1);
        _korDra_GrowBytes(KOR_AT(ex, 0), array, 8);
    }
    EXPECT_RAISED(2, nullptr); // from here on it has no storage, and says so
    EXPECT_EQ(_korDra_New(KOR_AT_D(0, ex), array), nullptr);
    EXPECT_RAISED(2, nullptr);
    destroy(array);
}

TEST_F(KorDraTest, AnyRequestMayFail)
{
    korPool* storages;
    _korDra_CreatePools(KOR_AT(ex, 0), nullptr, &storages, 4, 16);
    sweepFailures(ex, [&] {
        korDra* array = create(4, 16, nullptr, storages);
        for (int i = 0; array != nullptr && i < 20 && korEx_GetErrorCode(ex) == 0; i++) {
            _korDra_New(KOR_AT_D(0, ex), array);
        }
        korDra* copy = array != nullptr ? _korDra_Copy(KOR_AT(ex, 0), array) : nullptr;
        destroy(copy);
        destroy(array);
    });
    _korPool_Destroy(KOR_AT_D(0, ex), storages);
}

} // namespace
