// korBtree_test.cpp - the B-tree: how nodes fill, the faults that the integrity check tells, a failing heap, and long
// random runs against a standard map with the integrity check after every operation.

#include "korutil/korBtree.h"
#include "support/failingHeap.h"

#include <array>
#include <cstring>
#include <functional>
#include <map>

using kor::test::KorTest;
using kor::test::Random;
using kor::test::sweepFailures;

namespace {

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

    korBtree* tree = nullptr;
};

TEST_F(KorBtree, CapacitiesArePowersOfTwoFromFour)
{
    for (int capacity : {2, 6, 32768}) {
        EXPECT_EQ(_korBtree_Create(ex, 0, nullptr, static_cast<uint16_t>(capacity), 0), nullptr);
        EXPECT_RAISED(KOR_ERROR_INVALID_ARGUMENT, "maxItemsPerNode must be 4 or greater power of 2");
    }
    make(16384);
}

TEST_F(KorBtree, TreesShareAPoolThroughACache)
{
    korPool* pool = _korBtree_CreateSharedPool(ex, 0, 8);
    korPoolCache* cache = _korBtree_CreatePoolsEx(ex, 0, pool, 4);
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
    _korPool_Destroy(0, ex, pool);
    _korBtree_DestroyPools(0, ex, _korBtree_CreatePools(ex, 0, 8, 0));
}

// Full nodes pass items sideways before they split, so that keys in order fill them.
TEST_F(KorBtree, KeysInOrderFillTheNodes)
{
    for (int64_t direction : {1, -1}) {
        make(4);
        for (int64_t key = 1; key <= 100; ++key) {
            set(key * direction);
        }
        check();
        for (korBtreeNode* node = tree->firstLeaf->next; node != tree->lastLeaf; node = node->next) {
            EXPECT_EQ(node->itemCount, 4) << item(node, 0).key;
        }
    }
}

TEST_F(KorBtree, TheExtremesOfTheRange)
{
    make(4);
    for (int64_t key : {INT64_C(0), INT64_MAX, INT64_C(-1), INT64_MIN + 1, INT64_C(1)}) {
        set(key);
    }
    check();
    set(INT64_MIN);
    EXPECT_EQ(item(tree->firstLeaf, 0).key, INT64_MIN);
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
    for (int64_t key = 1; key <= 12; ++key) {
        set(key);
    }
    ASSERT_EQ(tree->root->itemCount, 3);
    korBtreeNode* root = tree->root;
    korBtreeNode* leaf = child(1);
    const struct {
        const char* description;
        std::function<void()> damage;
    } cases[] = {
        {"bad root", [&] { tree->root = nullptr; }},
        {"bad first child", [&] { child(0)->previous = leaf; }},
        {"bad node links", [&] { leaf->previous = leaf; }},
        {"bad last child", [&] { child(2)->next = leaf; }},
        {"bad min", [&] { tree->minKey = 0; }},
        {"bad max", [&] { tree->maxKey = 13; }},
        {"node count too low", [&] { leaf->itemCount = 1; }},
        {"bad node start", [&] { leaf->start = 4 + leaf->start; }},
        {"keys out of order", [&] { leaf->items[(leaf->start + 1) & 3].key = leaf->items[leaf->start].key; }},
        {"null entry", [&] { leaf->items[leaf->start].value = 0; }},
        {"bad last key", [&] { tree->lastIndex ^= 1; }},
        {"bad parent", [&] { root->items[1].key = leaf->items[leaf->start].key + 1; }},
        {"bad parent min", [&] { root->items[1].key = leaf->items[leaf->start].key - 1; }},
        {"dangling last key", [&] { tree->lastKey = 100; }},
        {"bad count", [&] { tree->count++; }},
    };
    for (const auto& c : cases) {
        korBtree tree_ = *tree;
        std::map<void*, std::array<char, 24 + 4 * 16>> saved;
        for (void* node : {root, child(0), child(1), child(2)}) {
            memcpy(&saved[node], node, sizeof(saved[node]));
        }
        c.damage();
        expectFault(c.description);
        *tree = tree_;
        for (auto& [node, bytes] : saved) {
            memcpy(node, &bytes, sizeof(bytes));
        }
        check();
    }
}

TEST_F(KorBtree, WithAnErrorPendingOnlyRemovingWorks)
{
    make(4);
    set(2);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(_korBtree_Set(ex, 0, tree, 9, 9) + _korBtree_Get(ex, 0, tree, 2), 0u);
    EXPECT_FALSE(_korBtree_GetNext(ex, 0, tree, 1, nullptr, nullptr));
    EXPECT_EQ(_korBtree_Remove(0, ex, tree, 2), valueOf(2));
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
