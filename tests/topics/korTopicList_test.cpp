// korTopicList_test.cpp - the topic index: what queries find and in which order, storing and pruning, topics as text,
// depth without end, and a check against a plain recursive model.

#include "korutil/korAlloc.h"
#include "korutil/korTopicList.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

using kor::test::FailingHeap;
using kor::test::KorTest;
using kor::test::Random;
using kor::test::sweepFailures;

namespace {

using Values = std::vector<uint64_t>;
using Tokens = std::vector<std::string>;

Values valuesOf(const korDpa* array)
{
    return array == nullptr ? Values{} : Values(array->items, array->items + array->count);
}

std::string join(const Tokens& tokens)
{
    std::string topic = tokens[0];
    for (size_t i = 1; i < tokens.size(); i++) {
        topic += "/" + tokens[i];
    }
    return topic;
}

class KorTopicList : public KorTest
{
protected:
    void TearDown() override
    {
        _korTopicList_Destroy(0, ex, list);
        _korTopicList_DestroyPools(0, ex, pools);
        _kor_free(0, ex, text);
        KorTest::TearDown();
    }

    korTopicNode* insert(const std::string& topic, uint64_t value)
    {
        korTopicNode* node = nullptr;
        _korTopicList_InsertEx(ex, 0, list, topic.c_str(), value, &node);
        return node;
    }
    int32_t remove(const std::string& topic, uint64_t value)
    {
        return _korTopicList_Remove(0, ex, list, topic.c_str(), value);
    }
    Values get(const std::string& topic) { return valuesOf(_korTopicList_Get(ex, 0, list, topic.c_str())); }
    Values narrow(const std::string& topic) { return valuesOf(_korTopicList_GetNarrow(ex, 0, list, topic.c_str())); }
    Values literal(const std::string& topic) { return valuesOf(_korTopicList_GetLiteral(ex, 0, list, topic.c_str())); }
    Values all() { return valuesOf(_korTopicList_All(ex, 0, list)); }
    uint32_t count() { return _korTopicList_Count(ex, 0, list); }

    // All texts of a test go through one buffer.
    std::string textOf(const korTopicNode* node)
    {
        int32_t length = _korTopicList_Topic(ex, 0, list, node, &text, &textSize);
        EXPECT_LE(length, textSize);
        EXPECT_EQ(length, static_cast<int32_t>(strlen(text)) + 1);
        return text;
    }

    using Victim = std::function<uint64_t(const korDpa* values)>;
    // What an enumeration shows. From each topic it removes what `victim` chooses.
    std::string enumerate(const Victim& victim)
    {
        std::pair<std::string, Victim> closure = {"", victim};
        auto visit = [](korEx*, uint8_t, const char* topic, const korDpa* values, void* argument) {
            auto& [seen, choose] = *static_cast<decltype(closure)*>(argument);
            seen += std::string(topic) + "=" + std::to_string(values->count) + " ";
            return choose(values);
        };
        _korTopicList_Enumerate(ex, 0, list, visit, &closure);
        return closure.first;
    }
    static uint64_t first(const korDpa* values) { return values->items[0]; }

    bool isBare() const
    {
        const korTopicLevel* root = list->rootLevel;
        return list->count == 0 && root->nodes->count == 0 && root->nodes->oldHash == nullptr &&
               root->plusNode == nullptr && root->hashNode == nullptr;
    }

    korPool** pools = _korTopicList_CreatePools(ex, 0);
    korTopicList* list = _korTopicList_Create(ex, 0);
    char* text = nullptr;
    int32_t textSize = 0;
};

TEST_F(KorTopicList, FindsInTheOrderOfTheWalk)
{
    uint64_t value = 0;
    for (const char* topic : {"a/b", "a/+", "a/#", "#", "+/b", "a", "c", "c/#", "+", "a/b/c"}) {
        insert(topic, ++value);
    }
    const struct {
        const char* query;
        Values wide, narrow;
    } cases[] = {
        {"a/b", {4, 5, 3, 1, 2}, {4, 5, 3, 2, 1}},     {"a", {4, 6, 9}, {4, 9, 6}},
        {"a/#", {4, 9, 5, 6, 1, 10, 2, 3}, {4, 9, 3}}, {"#", {6, 1, 10, 2, 3, 4, 9, 5, 7, 8}, {4}},
        {"+/b", {3, 1, 2, 4, 5, 8}, {4, 5}},           {"a/+", {4, 5, 1, 2, 3}, {4, 3, 2}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(get(c.query), c.wide) << c.query;
        EXPECT_EQ(narrow(c.query), c.narrow) << c.query;
    }
    EXPECT_EQ(literal("a/+"), (Values{2}));
}

TEST_F(KorTopicList, CountsAndRemovesValues)
{
    korTopicNode* node = insert("a/b", 1);
    for (uint64_t value : {1u, 2u, 0u}) {
        EXPECT_EQ(insert("a/b", value), node);
    }
    EXPECT_EQ(_korTopicList_SameTopicCount(ex, 0, node), 4);
    EXPECT_EQ(_korTopicList_GetLiteral(ex, 0, list, "a/b"), node->values);
    EXPECT_EQ(_korTopicList_Get(ex, 0, list, "a/b"), _korTopicList_All(ex, 0, list)) << "one array for all results";
    int32_t remaining = 99;
    EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, "a/c", 0, &remaining), 0);
    EXPECT_EQ(remaining, 99);
    EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, "a/b", 1, &remaining), 1);
    EXPECT_EQ(remaining, 3);
    EXPECT_EQ(literal("a/b"), (Values{0, 1, 2})) << "the last value takes the place of the first equal one";
    EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, "a/b", 0, &remaining), 3);
    EXPECT_EQ(remaining, 0);
    EXPECT_TRUE(isBare());
}

TEST_F(KorTopicList, StopsAtAnErrorPendingButForRemoving)
{
    insert("a", 1);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(insert("b", 2), nullptr);
    for (const Values& found : {get("a"), narrow("a"), literal("a"), all()}) {
        EXPECT_EQ(found, Values{});
    }
    EXPECT_EQ(remove("a", 1), 1);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_TRUE(isBare());
}

TEST_F(KorTopicList, EnumeratesDepthFirstAndRemoves)
{
    for (const char* topic : {"a/b/c", "#", "a", "a//", "a/+", "a/b/c", "+/#"}) {
        insert(topic, 5);
    }
    std::string seen = "a=1 a/b/c=2 a//=1 a/+=1 #=1 +/#=1 ";
    EXPECT_EQ(enumerate([](const korDpa*) { return 6; }), seen) << "a value that is not there";
    EXPECT_EQ(enumerate(first), seen);
    EXPECT_EQ(count(), 1u);
    auto fail = [&](const korDpa* values) {
        KOR_RAISE(ex, 0, KOR_ERROR_INTERRUPTED, "enough");
        return first(values);
    };
    insert("a/e", 5);
    EXPECT_EQ(enumerate(fail), "a/b/c=1 ") << "an error of the visitor ends it; what it chose is removed";
    EXPECT_RAISED(KOR_ERROR_INTERRUPTED, "enough");
    EXPECT_EQ(all().size(), 1u);
}

// Recursion of any kind would run out of stack here, and depth, an 8-bit number, goes round many times.
TEST_F(KorTopicList, DepthHasNoLimit)
{
    std::string deep = join(Tokens(100000, "a")), pluses = join(Tokens(100000, "+"));
    EXPECT_EQ(textOf(insert(deep, 1)), deep);
    insert(pluses, 2);
    EXPECT_EQ(get(deep), (Values{2, 1}));
    EXPECT_EQ(get(pluses), (Values{1, 2}));
    EXPECT_EQ(narrow(deep), (Values{2, 1}));
    EXPECT_EQ(narrow(pluses), (Values{2}));
    EXPECT_EQ(get("#"), (Values{1, 2}));
    EXPECT_EQ(enumerate([](const korDpa*) { return 1; }), deep + "=1 " + pluses + "=1 ");
    EXPECT_EQ(remove(pluses, 2), 1);
    EXPECT_TRUE(isBare());
    _korTopicList_Insert(ex, 0, list, deep.c_str(), 1); // for the end of the list
}

TEST_F(KorTopicList, BranchesAtEveryLevelAreAllFollowed)
{
    constexpr uint64_t levels = 150;
    Tokens topic(levels, "a");
    std::string query = join(topic);
    for (uint64_t pluses = 0; pluses < levels; pluses++) {
        insert(join(topic), pluses);
        topic[pluses] = "+";
    }
    for (const Values& found : {get(query), narrow(query)}) {
        ASSERT_EQ(found.size(), levels);
        EXPECT_TRUE(std::is_sorted(found.rbegin(), found.rend())) << "the branch of the + comes first";
    }
}

// The trie without shortcuts, tables or stacks: children in the order they came, and the two queries by recursion.
struct Model {
    std::string token;
    Values values = {};
    std::vector<std::unique_ptr<Model>> children = {};

    Model* child(const std::string& name) const
    {
        auto found = std::find_if(children.begin(), children.end(), [&](auto& c) { return c->token == name; });
        return found == children.end() ? nullptr : found->get();
    }

    void insert(const Tokens& topic, uint64_t value)
    {
        Model* node = this;
        for (const std::string& name : topic) {
            if (node->child(name) == nullptr) {
                node->children.push_back(std::make_unique<Model>(Model{name}));
            }
            node = node->child(name);
        }
        node->values.push_back(value);
    }

    size_t remove(const Tokens& topic, size_t at, uint64_t value)
    {
        if (at < topic.size()) {
            Model* next = child(topic[at]);
            size_t removed = next == nullptr ? 0 : next->remove(topic, at + 1, value);
            std::erase_if(children, [](auto& c) { return c->values.empty() && c->children.empty(); });
            return removed;
        }
        size_t before = values.size();
        auto found = std::find(values.begin(), values.end(), value);
        if (value == 0) {
            values.clear();
        } else if (found != values.end()) {
            *found = values.back();
            values.pop_back();
        }
        return before - values.size();
    }

    static bool leads(const Model* node) { return node != nullptr && !node->children.empty(); }

    static void add(Values& out, const Model* node)
    {
        if (node != nullptr) {
            out.insert(out.end(), node->values.begin(), node->values.end());
        }
    }

    void addAll(Values& out) const
    {
        add(out, this);
        for (const auto& c : children) {
            c->addAll(out);
        }
    }

    // `this` stands for the level below it.
    void get(const Tokens& query, size_t at, bool narrow, Values& out) const
    {
        const std::string& name = query[at];
        bool last = at + 1 == query.size();
        bool hashNext = at + 2 == query.size() && query[at + 1] == "#";
        if (!narrow && name == "#") {
            for (const auto& c : children) {
                c->addAll(out);
            }
            return;
        }
        if (!narrow && name == "+") {
            for (const auto& c : children) {
                add(out, last || hashNext || c->token == "#" ? c.get() : nullptr);
                if (!last && c->token != "#" && leads(c.get())) {
                    c->get(query, at + 1, narrow, out);
                }
            }
            return;
        }
        add(out, child("#"));
        if (name == "#") {
            return;
        }
        const Model* plain = name == "+" ? nullptr : child(name);
        const Model* plus = child("+");
        if (last) {
            add(out, narrow ? plus : plain);
            add(out, narrow ? plain : plus);
            return;
        }
        // Before a last "#", who gives its values depends on who leads down.
        add(out, hashNext && (leads(plus) || (!narrow && leads(plain))) ? plus : nullptr);
        if (leads(plus)) {
            plus->get(query, at + 1, narrow, out);
        }
        add(out, hashNext && (narrow ? !leads(plain) : leads(plain) || !leads(plus)) ? plain : nullptr);
        if (leads(plain)) {
            plain->get(query, at + 1, narrow, out);
        }
    }
};

// Few names and short topics, so that topics meet; `wild` percent of the tokens are wildcards.
Tokens randomTopic(Random& random, unsigned wild)
{
    Tokens tokens(1 + random.below(random.chance(5) ? 20 : 4));
    for (std::string& token : tokens) {
        const char* odd[] = {"", "+x", "##", "a token longer than a chunk of the token pool"};
        token = random.chance(wild) ? (random.chance(60) ? "+" : "#")
                : random.chance(5)  ? odd[random.below(4)]
                : random.chance(20) ? std::to_string(random.below(300)) // lets tables grow and shrink
                                    : std::string(1, "abc"[random.below(3)]);
    }
    return tokens;
}

TEST_F(KorTopicList, MatchesTheModel)
{
    constexpr int steps = 6000;
    Random random;
    for (korTopicList* made :
         {_korTopicList_Create(ex, 0), _korTopicList_CreatePooled(ex, 0), _korTopicList_CreatePooledEx(ex, 0, pools)}) {
        _korTopicList_Destroy(0, ex, std::exchange(list, made));
        Model model;
        size_t stored = 0;
        std::vector<Tokens> used;
        for (int step = 0; step < steps; step++) {
            uint64_t value = 1 + random.below(4);
            if (used.empty() || random.chance(step < steps / 2 ? 65 : 20)) {
                used.push_back(randomTopic(random, 25));
                ASSERT_EQ(textOf(insert(join(used.back()), value)), join(used.back()));
                model.insert(used.back(), value);
                stored++;
            } else {
                const Tokens& topic = used[random.below(used.size())];
                value = random.chance(15) ? 0 : value;
                size_t removed = model.remove(topic, 0, value);
                ASSERT_EQ(remove(join(topic), value), removed);
                stored -= removed;
            }
            ASSERT_EQ(count(), stored);
            Tokens query = randomTopic(random, random.chance(50) ? 0 : 40);
            Values wide, covering;
            model.get(query, 0, false, wide);
            model.get(query, 0, true, covering);
            ASSERT_EQ(get(join(query)), wide) << join(query);
            ASSERT_EQ(narrow(join(query)), covering) << join(query);
        }
        Values everything;
        model.addAll(everything);
        EXPECT_EQ(all(), everything);
        while (count() > 0) {
            enumerate(first);
        }
        EXPECT_TRUE(isBare());
    }
}

// What was stored before a failure is found after it, and what failed has left nothing that a removal stumbles over.
// The scenario itself asks the heap for nothing.
TEST_F(KorTopicList, FailedAllocationsLeaveAWholeList)
{
    Tokens topics; // each level changes its size several times
    for (const char* start : {"a/", "+/", "", "long/"}) {
        for (size_t i = 0; i < 12; i++) {
            topics.push_back(start + std::string(i * 6, 'x') + "/#");
        }
    }
    topics.push_back(join(Tokens(20, "d")));
    auto choose = [](korEx*, uint8_t, const char*, const korDpa* values, void*) { return first(values); };
    auto useAll = [&] {
        KOR_EX_LOCAL(other);
        char* buffer = nullptr;
        int32_t size = 0;
        korTopicNode* node = nullptr;
        for (const std::string& topic : topics) {
            int32_t stored = 0;
            for (; stored < 3 && ex->code == 0; stored += ex->code == 0) {
                _korTopicList_InsertEx(ex, 0, list, topic.c_str(), 7, &node);
            }
            const korDpa* found = _korTopicList_GetLiteral(&other, 0, list, topic.c_str());
            EXPECT_EQ(found == nullptr ? 0 : found->count, stored) << topic;
            _korTopicList_Get(ex, 0, list, "a/xxxxxx/y");
        }
        _korTopicList_Topic(ex, 0, list, node, &buffer, &size);
        _kor_free(0, &other, buffer);
        _korTopicList_All(ex, 0, list);
        _korTopicList_Enumerate(ex, 0, list, choose, nullptr);
        for (const std::string& topic : topics) {
            _korTopicList_Remove(0, &other, list, topic.c_str(), 0);
        }
        EXPECT_EQ(_korTopicList_Count(&other, 0, list), 0u);
    };
    for (auto create : {_korTopicList_Create, _korTopicList_CreatePooled}) {
        uint64_t requests = sweepFailures(ex, [&] {
            _korTopicList_Destroy(0, ex, list);
            list = create(ex, 0);
            if (list != nullptr) {
                useAll();
            }
            _korTopicList_Destroy(0, ex, std::exchange(list, nullptr));
        });
        EXPECT_GT(requests, 20u);
    }
    sweepFailures(ex, [&] { _korTopicList_DestroyPools(0, ex, _korTopicList_CreatePools(ex, 0)); });
}

TEST_F(KorTopicList, RemovingNeedsNoMemory)
{
    auto topic = [](int number) { return "t" + std::to_string(number) + "/z"; };
    for (int count = 1; count < 100; count++) { // its tables are in the middle of a change of size for some of them
        for (int number = 0; number < count; number++) {
            _korTopicList_Insert(ex, 0, list, topic(number).c_str(), 7);
        }
        for (int number = 0; number < count; number++) {
            std::string name = topic(number);
            FailingHeap heap(1, UINT64_MAX);
            EXPECT_EQ(_korTopicList_Remove(0, ex, list, name.c_str(), 7), 1) << name << " of " << count;
        }
    }
}

} // namespace
