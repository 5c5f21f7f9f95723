// korRadixHeap_test.cpp - the radix heap: where keys lie, what becomes due and in which order, refusals, and a model
// check against a multimap.

#include "korutil/korRadixHeap.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <deque>
#include <map>
#include <vector>

using kor::test::KorTest;
using kor::test::Random;
using kor::test::StreamCapture;
using kor::test::sweepFailures;

namespace {

using Keys = std::vector<int64_t>;

class KorRadixHeap : public KorTest
{
protected:
    KorRadixHeap() { _korRadixHeap_Init(ex, 0, &heap, 0); }
    ~KorRadixHeap() override { _korRadixHeap_Clear(0, ex, &heap); }

    void restart(int64_t key)
    {
        _korRadixHeap_Clear(0, ex, &heap);
        _korRadixHeap_Init(ex, 0, &heap, key);
    }

    korRadixItem* insert(int64_t key)
    {
        korRadixItem* item = &items.emplace_back();
        _korRadixHeap_Insert(ex, 0, &heap, item, key);
        return item;
    }

    Keys keysIn(int bucket) const
    {
        Keys keys;
        for (const korRadixItem* item = heap.buckets[bucket].head; item != nullptr; item = item->next) {
            keys.push_back(item->key);
        }
        return keys;
    }

    // Out of the middle of a bucket, as an owner does who cancels. The bucket's minKey may then be stale.
    void cancel(korRadixItem* item)
    {
        korRadixBucket* bucket = &heap.buckets[item->bucket];
        if (bucket->head == item) {
            bucket->head = item->next;
        } else {
            item->prev->next = item->next;
        }
        if (item->next != nullptr) {
            item->next->prev = item->prev;
        } else if (bucket->head != nullptr) {
            bucket->head->prev = item->prev;
        }
    }

    korRadixHeap heap;
    std::deque<korRadixItem> items;
};

TEST_F(KorRadixHeap, KeysLieByTheHighestBitOfDifference)
{
    const struct {
        int64_t reference, key;
        int bucket;
    } cases[] = {{7, 7, 0},   {7, 8, 4},   {0, 1, 1},           {-1, 0, 64}, {0, INT64_MAX, 63},
                 {-8, -1, 3}, {-5, 5, 64}, {INT64_MIN, -1, 63}, {0, 3, 2},   {INT64_MAX, INT64_MAX, 0}};
    for (const auto& c : cases) {
        restart(c.reference);
        korRadixItem* item = insert(c.key);
        EXPECT_EQ(item->bucket, c.bucket) << c.reference << " " << c.key;
        EXPECT_EQ(_korRadixHeap_ExtractMin(ex, 0, &heap), item);
        EXPECT_EQ(heap.buckets[0].minKey, c.key) << "the reference key goes to what was taken";
        EXPECT_EQ(_korRadixHeap_ExtractMin(ex, 0, &heap), nullptr);
    }
}

TEST_F(KorRadixHeap, KeysBelowTheReferenceAreRefused)
{
    restart(100);
    insert(130);
    korRadixItem refused = {1, nullptr, nullptr, 77};
    _korRadixHeap_Insert(ex, 0, &heap, &refused, 99);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "violated radix heap invariant. (min:100 key:99)");
    EXPECT_EQ(refused.bucket, 77);
    _korRadixHeap_DecreaseKey(ex, 0, &heap, 99);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "violated radix heap invariant");
    _korRadixHeap_Reset(ex, 0, &heap, 5);
    EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, "Cannot reset a non-empty heap");
    EXPECT_EQ(_korRadixHeap_ExtractMin(ex, 0, &heap)->key, 130);
    _korRadixHeap_Reset(ex, 0, &heap, 5);
    EXPECT_EQ(insert(6)->bucket, 2);
    ex->code = KOR_ERROR_TIMEOUT;
    EXPECT_EQ(_korRadixHeap_ExtractMin(ex, 0, &heap), nullptr);
    korEx_Clear(ex);
}

TEST_F(KorRadixHeap, AnyKeyIsLinkedBeforeAHigherOne)
{
    restart(50);
    for (int64_t key : {20, 10, 30, 51}) {
        korRadixItem* item = &items.emplace_back();
        item->key = key;
        _korRadixHeap_InsertAnyKey(ex, 0, &heap, item, key);
    }
    EXPECT_EQ(keysIn(0), (Keys{10, 20})) << "a key above all due ones is not linked";
    EXPECT_EQ(heap.buckets[0].head->prev, &items[0]);
    EXPECT_EQ(keysIn(1), (Keys{51}));
    _korRadixHeap_InsertAnyKey(ex, 0, &heap, &items.emplace_back(), 5);
    EXPECT_EQ(keysIn(0).size(), 2u) << "linked before each higher key in turn: the one passed drops out";
    _korRadixHeap_Assert(&heap);
}

TEST_F(KorRadixHeap, PrintNamesEveryBucket)
{
    for (int64_t key : {0, 2, 3}) {
        insert(key);
    }
    StreamCapture capture(StreamCapture::error);
    _korRadixHeap_Print(&heap);
    EXPECT_NE(capture.text().find("[(0)]\nbucket  1 min 9223372036854775807 []\nbucket  2 min 2 [(2)(3)]\n"),
              std::string::npos);
}

TEST_F(KorRadixHeap, AFailedGrowthLeavesTheHeapAsItWas)
{
    uint64_t requests = sweepFailures(ex, [&] {
        korRadixHeap* made = _korRadixHeap_Create(ex, 0, 0);
        korRadixItem some[4] = {};
        int64_t stored = 0;
        for (korRadixItem& item : some) {
            _korRadixHeap_Insert(ex, 0, made, &item, int64_t{1} << (10 * stored));
            stored += ex->code == 0;
        }
        KOR_EX_LOCAL(other);
        for (int64_t at = 0; at < stored; at++) {
            EXPECT_EQ(_korRadixHeap_ExtractMin(&other, 0, made), &some[at]);
        }
        EXPECT_TRUE(made == nullptr || _korRadixHeap_ExtractMin(&other, 0, made) == nullptr);
        _korRadixHeap_Destroy(0, ex, made);
    });
    EXPECT_EQ(requests, 6u) << "the object, its first bucket, and a growth for each key";
}

// The life of a timer: tasks come, some of them leave as they are cancelled, some as they are due at a time, some as
// the next to come. Equal keys leave in the order they came.
TEST_F(KorRadixHeap, MatchesAMultimapUnderCancellation)
{
    Random random;
    std::multimap<int64_t, korRadixItem*> model;
    restart(-5000);
    for (int step = 0; step < 50000; step++) {
        int64_t now = heap.buckets[0].minKey;
        int64_t delay = static_cast<int64_t>(random.below(uint64_t{1} << random.below(40)));
        if (random.chance(50)) {
            model.emplace(now + delay, insert(now + delay));
        } else if (!model.empty() && random.chance(60)) {
            bool cancels = random.chance(50);
            auto victim = cancels ? model.lower_bound(now + delay) : model.begin();
            victim = victim == model.end() ? model.begin() : victim;
            if (cancels) {
                cancel(victim->second);
            } else {
                ASSERT_EQ(_korRadixHeap_ExtractMin(ex, 0, &heap), victim->second);
            }
            model.erase(victim);
        } else {
            now += delay / 8;
            _korRadixHeap_DecreaseKey(ex, 0, &heap, now);
            Keys extracted, due;
            while (heap.buckets[0].head != nullptr) {
                extracted.push_back(_korRadixHeap_ExtractMin(ex, 0, &heap)->key);
            }
            for (; !model.empty() && model.begin()->first <= now; model.erase(model.begin())) {
                due.push_back(model.begin()->first);
            }
            std::sort(extracted.begin(), extracted.end());
            ASSERT_EQ(extracted, due) << now;
            ASSERT_EQ(korRadixHeap_nextKey(&heap) == INT64_MAX, model.empty());
            ASSERT_TRUE(model.empty() || korRadixHeap_nextKey(&heap) <= model.begin()->first);
        }
    }
}

} // namespace
