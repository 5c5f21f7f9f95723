// korBtree_test.cpp - the B-tree: how nodes fill, split, pass items sideways and merge, what the remembered place is,
// refusals, a failing heap, and long random runs against a standard map with the integrity check after every operation.

#include "korutil/korBtree.h"
#include "support/failingHeap.h"

#include <cstring>
#include <functional>
#include <map>
#include <vector>

using kor::test::KorTest;
using kor::test::Random;
using kor::test::sweepFailures;

namespace {

using Keys = std::vector<int64_t>;

uint64_t valueOf(int64_t key)
{
    return static_cast<uint64_t>(key) * 3 + 1;
}

class KorBtree : public KorTest
{
protected:
    ~KorBtree() override { _korBtree_Destroy(0, ex, tree); }

    void make(uint16_t maxItemsPerNode)
    {
        _korBtree_Destroy(0, ex, tree);
        tree = _korBtree_Create(ex, 0, nullptr, maxItemsPerNode, 0);
        ASSERT_NE(tree, nullptr);
    }

    void set(int64_t key) { _korBtree_Set(ex, 0, tree, key, valueOf(key)); }
    // Sets the positive ones, removes the negative.
    void apply(const Keys& keys)
    {
        for (int64_t key : keys) {
            if (key >= 0) {
                set(key);
            } else {
                EXPECT_EQ(_korBtree_Remove(0, ex, tree, -key), valueOf(-key));
            }
            check();
        }
    }
    void check()
    {
        _korBtree_CheckIntegrity(ex, 0, tree);
        ASSERT_CLEAN();
    }
    void expectFault(const char* description)
    {
        _korBtree_CheckIntegrity(ex, 0, tree);
        EXPECT_RAISED(KOR_ERROR_ILLEGAL_STATE, description);
    }

    const korBtreeItem& item(const korBtreeNode* node, int32_t position) const
    {
        return node->items[(node->start + position) & tree->indexMask];
    }
    korBtreeNode* child(int32_t position) const
    {
        return reinterpret_cast<korBtreeNode*>(item(tree->root, position).value);
    }
    // Keys of the leaves, node by node.
    std::vector<Keys> leaves() const
    {
        std::vector<Keys> all;
        for (const korBtreeNode* node = tree->firstLeaf; node != nullptr; node = node->next) {
            Keys keys;
            for (int32_t position = 0; position < node->itemCount; ++position) {
                keys.push_back(item(node, position).key);
            }
            all.push_back(keys);
        }
        return all;
    }

    korBtree* tree = nullptr;
};

TEST_F(KorBtree, CapacitiesArePowersOfTwoFromFour)
{
    for (int capacity : {0, 2, 6, 32768, 65535}) {
        EXPECT_EQ(_korBtree_Create(ex, 0, nullptr, static_cast<uint16_t>(capacity), 0), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "maxItemsPerNode must be 4 or greater power of 2");
        EXPECT_EQ(_korBtree_CreateSharedPool(ex, 0, static_cast<int16_t>(capacity)), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "maxItemsPerNode must be 4 or greater power of 2");
    }
    make(16384);
    set(5);
    check();
}

TEST_F(KorBtree, TreesShareAPoolThroughCaches)
{
    korPool* pool = _korBtree_CreateSharedPool(ex, 0, 8);
    for (int64_t cacheSize : {4, -1}) {
        korPoolCache* cache = _korBtree_CreatePoolsEx(ex, 0, pool, cacheSize);
        EXPECT_EQ(_korBtree_Create(ex, 0, cache, 16, 0), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "chunks of the pool are smaller than a node");
        korBtree other;
        _korBtree_Init(ex, 0, &other, cache, 8, 0);
        for (int64_t key = 0; key < 100; ++key) {
            _korBtree_Set(ex, 0, &other, key, valueOf(key));
        }
        EXPECT_EQ(_korBtree_Get(ex, 0, &other, 77), valueOf(77));
        _korBtree_Clear(0, ex, &other);
        _korBtree_DestroyPool(0, ex, cache);
    }
    _korBtree_DestroyPools(0, ex, _korBtree_CreatePools(ex, 0, 8, 0));
    _korBtree_DestroyPools(0, ex, nullptr);
    EXPECT_EQ(_korBtree_CreatePoolsEx(ex, 0, nullptr, 0), nullptr);
    EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, nullptr);
    _korPool_Destroy(0, ex, pool);
}

TEST_F(KorBtree, NodesFillSplitBorrowAndMerge)
{
    const struct {
        const char* what;
        Keys keys; // the last one makes the difference
        std::vector<Keys> leaves;
    } cases[] = {
        {"a full root splits in the upper half", {10, 20, 30, 40, 50}, {{10, 20}, {30, 40, 50}}},
        {"and in the lower", {10, 20, 30, 40, 15}, {{10, 15, 20}, {30, 40}}},
        {"the previous node takes a batch", {10, 20, 30, 40, 50, 60, 70}, {{10, 20, 30, 40}, {50, 60, 70}}},
        {"the batch ends at the position", {10, 20, 30, 40, 50, 60, 35}, {{10, 20, 30}, {35, 40, 50, 60}}},
        {"the next node takes a batch", {40, 50, 60, 70, 30, 20, 10}, {{10, 20, 30}, {40, 50, 60, 70}}},
        {"the batch starts at the position", {40, 50, 60, 70, 30, 20, 45}, {{20, 30, 40, 45}, {50, 60, 70}}},
        {"full on one side", {10, 20, 30, 40, 50, 60, 70, 80, 90}, {{10, 20, 30, 40}, {50, 60}, {70, 80, 90}}},
        {"from 50, before a full node: the previous one's tail",
         {10, 20, 30, 40, 50, 60, 70, 80, -30, 50, 45},
         {{10, 20, 40, 45}, {50, 60, 70, 80}}},
        {"from 10, behind a full node: the next one's front",
         {10, 20, 30, 40, 50, 60, 70, 80, -60, 10, 47},
         {{10, 20, 30, 40}, {47, 50, 70, 80}}},
        {"two are borrowed of the next node",
         {10, 20, 30, 40, 50, 60, 70, 80, -50, -40, 55, -20, -30},
         {{10, 55, 60}, {70, 80}}},
        {"one of the previous", {10, 20, 30, 40, 50, 60, 70, 80, -50, -40, 55, -20, -30, -80}, {{10, 55}, {60, 70}}},
        {"a merge", {10, 20, 30, 40, 50, 60, 70, 80, -50, -40, 55, -20, -30, -80, -10}, {{55, 60, 70}}},
    };
    for (const auto& c : cases) {
        make(4);
        apply(c.keys);
        EXPECT_EQ(leaves(), c.leaves) << c.what;
    }
}

TEST_F(KorBtree, TheShorterSideMoves)
{
    const struct {
        const char* what;
        Keys keys;
        int32_t start;
    } cases[] = {
        {"nothing moves behind what is prepended", {30, 20, 10}, 6},
        {"from 0 the tail", {10, 20, 30, 40, 15}, 0},
        {"two behind two, the head", {10, 20, 30, 40, 15, -20}, 1},
        {"wrapped, before the wrap: the head", {30, 40, 50, 20, 10, 15}, 5},
        {"and back", {30, 40, 50, 20, 10, 15, -20}, 6},
        {"wrapped, behind it: the tail", {20, 30, 40, 50, 10, 35}, 7},
        {"in one piece, near the front: the head", {5, 10, 20, 30, 40, 50, -5, 15}, 0},
        {"near the end: the tail", {5, 10, 20, 30, 40, 50, -5, 45, -40}, 1},
        {"up to the ring's end the head", {1, 2, 10, 20, 30, 40, 50, 60, -1, -2, 55}, 1},
    };
    for (const auto& c : cases) {
        make(8);
        apply(c.keys);
        EXPECT_EQ(tree->root->start, c.start) << c.what;
    }
}

TEST_F(KorBtree, ReadsMoveTheRememberedPlace)
{
    make(4);
    EXPECT_FALSE(_korBtree_GetNext(ex, 0, tree, 0, nullptr, nullptr));
    for (int64_t one = 0; one < 100; ++one) {
        set(one * 10);
    }
    _korBtree_Get(ex, 0, tree, 300);
    _korBtree_Get(ex, 0, tree, 555);
    EXPECT_EQ(tree->lastKey, 300) << "an absent key moves nothing";
    _korBtree_GetNext(ex, 0, tree, 555, nullptr, nullptr);
    EXPECT_EQ(tree->lastKey, 560);
    _korBtree_GetPrevious(ex, 0, tree, 555, nullptr, nullptr);
    EXPECT_EQ(tree->lastKey, 550);
    _korBtree_Remove(0, ex, tree, 700);
    EXPECT_EQ(tree->lastKey, 710);
}

TEST_F(KorBtree, TheExtremesOfTheRange)
{
    make(4);
    for (int64_t key : {INT64_C(0), INT64_MAX, INT64_C(-1), INT64_MIN + 1, INT64_C(1)}) {
        set(key);
    }
    check();
    set(INT64_MIN);
    EXPECT_EQ(leaves(), (std::vector<Keys>{{INT64_MIN, INT64_MIN + 1, -1}, {0, 1, INT64_MAX}}));
    expectFault("keys out of order");
    EXPECT_EQ(_korBtree_Remove(0, ex, tree, INT64_MIN), valueOf(INT64_MIN));
    EXPECT_EQ(tree->minKey, INT64_MIN + 1);
}

TEST_F(KorBtree, EveryFaultHasItsText)
{
    make(4);
    tree->levels = 2;
    expectFault("empty tree should have exactly 1 level");
    tree->levels = 1;
    check();
    apply({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    ASSERT_EQ(tree->root->itemCount, 3);
    korBtreeNode* root = tree->root;
    korBtreeNode* leaf = child(1);
    const struct {
        const char* description;
        std::function<void()> damage;
    } cases[] = {
        {"bad root", [&] { tree->root = nullptr; }},
        {"bad root", [&] { root->itemCount = 5; }},
        {"bad root", [&] { root->itemCount = -1; }},
        {"bad root", [&] { root->next = leaf; }},
        {"bad first child", [&] { child(0)->previous = leaf; }},
        {"bad node links", [&] { leaf->previous = leaf; }},
        {"bad node links", [&] { leaf->next = leaf; }},
        {"bad last child", [&] { child(2)->next = leaf; }},
        {"bad min", [&] { tree->minKey = 0; }},
        {"bad min", [&] { tree->firstLeaf = leaf; }},
        {"bad max", [&] { tree->maxKey = 13; }},
        {"bad max", [&] { tree->lastLeaf = leaf; }},
        {"node count too low", [&] { leaf->itemCount = 1; }},
        {"bad node start", [&] { leaf->start = 4 + leaf->start; }},
        {"bad node start", [&] { leaf->start = -4 + leaf->start; }},
        {"keys out of order", [&] { leaf->items[(leaf->start + 1) & 3].key = leaf->items[leaf->start].key; }},
        {"null entry", [&] { leaf->items[leaf->start].value = 0; }},
        {"bad last key", [&] { tree->lastIndex ^= 1; }},
        {"bad parent", [&] { root->items[1].key = leaf->items[leaf->start].key + 1; }},
        {"bad parent min", [&] { root->items[1].key = leaf->items[leaf->start].key - 1; }},
        {"dangling last key", [&] { tree->lastKey = 100; }},
        {"dangling last key", [&] { tree->levels = 0; }},
        {"bad count", [&] { tree->count++; }},
    };
    for (const auto& c : cases) {
        korBtree tree_ = *tree;
        std::vector<std::pair<korBtreeNode*, std::string>> saved;
        for (korBtreeNode* node : {root, child(0), child(1), child(2)}) {
            saved.emplace_back(node, std::string(reinterpret_cast<const char*>(node), 24 + 4 * 16));
        }
        c.damage();
        expectFault(c.description);
        *tree = tree_;
        for (auto& [node, bytes] : saved) {
            memcpy(static_cast<void*>(node), bytes.data(), bytes.size());
        }
        check();
    }
}

TEST_F(KorBtree, WithAnErrorPendingOnlyRemovingWorks)
{
    make(4);
    set(2);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(_korBtree_Set(ex, 0, tree, 9, 9), 0u);
    EXPECT_EQ(_korBtree_Get(ex, 0, tree, 2), 0u);
    EXPECT_FALSE(_korBtree_GetNext(ex, 0, tree, 1, nullptr, nullptr));
    EXPECT_FALSE(_korBtree_GetPrevious(ex, 0, tree, 3, nullptr, nullptr));
    EXPECT_EQ(_korBtree_Create(ex, 0, nullptr, 4, 0), nullptr);
    EXPECT_EQ(_korBtree_Remove(0, ex, tree, 2), valueOf(2));
    EXPECT_EQ(_korBtree_Remove(0, ex, nullptr, 2), 0u);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(tree->count, 0);
}

// A set that fails for want of memory leaves the tree whole, but for a bound that runs ahead until the next attempt.
TEST_F(KorBtree, AFailedSetChangesNoEntry)
{
    uint64_t requests = sweepFailures(ex, [&] {
        korPool* pool = _korPool_Create(ex, 0, 1, 4 * 16 + 24, nullptr, nullptr, 1, 1); // a block for each node
        korPoolCache* cache = _korBtree_CreatePoolsEx(ex, 0, pool, -1);
        korBtree* made = _korBtree_Create(ex, 0, cache, 4, 0);
        int64_t done = 0;
        for (; made != nullptr && done < 40; ++done) { // at both ends in turn
            int64_t key = done % 2 == 0 ? done : -done;
            _korBtree_Set(ex, 0, made, key, valueOf(key));
            if (ex->code != 0) {
                KOR_EX_LOCAL(other);
                EXPECT_EQ(made->count, done);
                EXPECT_EQ(_korBtree_Get(&other, 0, made, key), 0u);
                EXPECT_EQ(_korBtree_Remove(0, &other, made, key), 0u) << "a bound that is no key";
                EXPECT_EQ(_korBtree_Set(&other, 0, made, key, valueOf(key)), 0u);
                _korBtree_CheckIntegrity(&other, 0, made);
                EXPECT_EQ(other.code, 0) << other.description;
                break;
            }
        }
        _korBtree_Destroy(0, ex, made);
        _korBtree_DestroyPool(0, ex, cache);
        _korPool_Destroy(0, ex, pool);
    });
    EXPECT_GT(requests, 20u);
    sweepFailures(ex, [&] { _korBtree_Destroy(0, ex, _korBtree_Create(ex, 0, nullptr, 8, 16)); });
}

struct Pattern {
    const char* name;
    int64_t drift; // of the place where keys come, with each new one
    uint64_t span;
    unsigned jumps; // percent
};

class KorBtreeModel : public KorBtree
{
protected:
    int64_t draw(uint64_t bound) { return static_cast<int64_t>(random.below(bound)); }
    int64_t newKey(const Pattern& pattern)
    {
        place = random.chance(pattern.jumps) ? draw(20) * 100 : place + pattern.drift;
        return place + draw(pattern.span);
    }
    // One that is there, or nearly, at an end or anywhere.
    int64_t oldKey()
    {
        if (model.empty()) {
            return place;
        }
        int64_t least = model.begin()->first, greatest = model.rbegin()->first;
        return random.chance(15)   ? least
               : random.chance(15) ? greatest
                                   : least - 1 + draw(static_cast<uint64_t>(greatest - least + 3));
    }

    void setOne(int64_t key)
    {
        auto found = model.find(key);
        ASSERT_EQ(_korBtree_Set(ex, 0, tree, key, ++lastValue), found == model.end() ? 0 : found->second);
        model[key] = lastValue;
    }
    void removeOne(int64_t key)
    {
        auto found = model.find(key);
        ASSERT_EQ(_korBtree_Remove(0, ex, tree, key), found == model.end() ? 0 : found->second);
        model.erase(key);
    }
    void lookUp(int64_t key)
    {
        auto at = model.lower_bound(key), above = model.upper_bound(key);
        using Entry = std::pair<int64_t, uint64_t>;
        Entry found;
        ASSERT_EQ(_korBtree_Get(ex, 0, tree, key), at == above ? 0 : at->second);
        ASSERT_EQ(_korBtree_GetNext(ex, 0, tree, key, &found.first, &found.second), above != model.end());
        ASSERT_TRUE(above == model.end() || Entry(*above) == found) << key;
        ASSERT_EQ(_korBtree_GetPrevious(ex, 0, tree, key, &found.first, &found.second), at != model.begin());
        ASSERT_TRUE(at == model.begin() || Entry(*std::prev(at)) == found) << key;
    }
    void run(const Pattern& pattern, int steps)
    {
        for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
            if (random.chance(30)) {
                lookUp(oldKey() + draw(3) - 1);
            } else if (random.chance(step / 400 % 2 == 0 ? 75 : 25)) {
                setOne(newKey(pattern));
            } else {
                removeOne(oldKey());
            }
            ASSERT_EQ(tree->count, static_cast<int64_t>(model.size()));
            check();
        }
    }
    // Everything out from one end.
    void drain(bool fromBelow)
    {
        while (!model.empty() && !HasFatalFailure()) {
            removeOne(fromBelow ? model.begin()->first : model.rbegin()->first);
            check();
        }
        EXPECT_EQ(tree->levels, 1);
    }

    Random random;
    std::map<int64_t, uint64_t> model;
    uint64_t lastValue = 0;
    int64_t place = 0;
};

TEST_F(KorBtreeModel, MatchesAMapWithTheIntegrityCheckAfterEveryStep)
{
    const Pattern patterns[] = {
        {"ascending", 2, 3, 0}, {"descending", -2, 3, 0}, {"anywhere", 0, 1500, 0}, {"clustered", 0, 60, 5}};
    for (int capacity : {4, 8, 16, 32, 64}) {
        for (const Pattern& pattern : patterns) {
            SCOPED_TRACE(testing::Message() << "capacity " << capacity << " " << pattern.name);
            make(static_cast<uint16_t>(capacity));
            run(pattern, 2800); // ends grown
            drain(true);
            run(pattern, 400);
            drain(false);
            ASSERT_FALSE(HasFailure());
        }
    }
}

} // namespace
