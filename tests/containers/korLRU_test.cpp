// korLRU_test.cpp - the list in the order of last use, against std::list.

#include "korutil/korLRU.h"
#include "support/korTest.h"

#include <algorithm>
#include <list>
#include <vector>

using kor::test::Random;

namespace {

std::list<korLRUItem*> walk(const korLRU* lru)
{
    std::list<korLRUItem*> items;
    for (korLRUItem* item = _korLRU_Last(lru); item != nullptr; item = _korLRU_Prev(item)) {
        items.push_back(item);
    }
    return items;
}

TEST(KorLRU, AgainstAModel)
{
    Random random;
    korLRU lru;
    _korLRU_Init(&lru);
    std::vector<korLRUItem> items(12);
    std::list<korLRUItem*> model; // the oldest first
    for (int round = 0; round < 5000; round++) {
        korLRUItem* item = &items[random.below(items.size())];
        bool listed = std::find(model.begin(), model.end(), item) != model.end();
        ASSERT_EQ(item->prev != nullptr, listed);
        unsigned draw = static_cast<unsigned>(random.below(4));
        if (draw == 0) {
            ASSERT_EQ(_korLRU_RemoveLast(&lru), model.empty() ? nullptr : model.front());
            item = model.empty() ? nullptr : model.front();
        } else if (draw == 1) {
            _korLRU_Remove(&lru, item);
        } else {
            draw == 2 ? _korLRU_Use(&lru, item) : _korLRU_Add(&lru, item);
        }
        if (draw != 3) {
            model.remove(item);
        }
        if (draw == 2 || (draw == 3 && !listed)) { // what is added again stays where it is
            model.push_back(item);
        }
        ASSERT_EQ(lru.count, static_cast<int64_t>(model.size()));
        ASSERT_EQ(walk(&lru), model);
        ASSERT_TRUE(lru.tailNext == nullptr && lru.headPrev == nullptr);
    }
    auto before = walk(&lru);
    _korLRU_Clear(&lru);
    EXPECT_EQ(walk(&lru), before);
}

} // namespace
