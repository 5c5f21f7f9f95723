// korTopicList_test.cpp - the topic index: what queries find and in which order, storing and pruning, topics as text,
// depth without end, and a check against a plain recursive model.

#include "korutil/korAlloc.h"
#include "korutil/korTopicList.h"
#include "support/failingHeap.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <sstream>
#include <vector>

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

std::string repeated(const std::string& token, int count)
{
    std::string topic = token;
    for (int i = 1; i < count; i++) {
        topic += "/" + token;
    }
    return topic;
}

enum class Kind { heap, pooled, shared };

class KorTopicList : public KorTest
{
protected:
    void SetUp() override { make(Kind::heap); }

    void TearDown() override
    {
        _korTopicList_Destroy(0, ex, list);
        _korTopicList_DestroyPools(0, ex, pools);
        KorTest::TearDown();
    }

    void make(Kind kind)
    {
        _korTopicList_Destroy(0, ex, list);
        if (kind == Kind::shared) {
            pools = _korTopicList_CreatePools(ex, 0);
        }
        list = kind == Kind::heap     ? _korTopicList_Create(ex, 0)
               : kind == Kind::pooled ? _korTopicList_CreatePooled(ex, 0)
                                      : _korTopicList_CreatePooledEx(ex, 0, pools);
        ASSERT_NE(list, nullptr);
        ASSERT_EQ(list->ownsPools, kind == Kind::pooled);
        ASSERT_EQ(list->dpaArrayPool != nullptr, kind != Kind::heap);
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

    std::string textOf(const korTopicNode* node)
    {
        char* buffer = nullptr;
        int32_t size = 0;
        int32_t length = _korTopicList_Topic(ex, 0, list, node, &buffer, &size);
        std::string text = buffer == nullptr ? "" : buffer;
        EXPECT_EQ(length, static_cast<int32_t>(text.size()) + 1);
        _kor_free(0, ex, buffer);
        return text;
    }

    // What an enumeration shows. From each topic it removes what `victim` chooses.
    std::string enumerate(const std::function<uint64_t(const korDpa*)>& victim)
    {
        struct Closure {
            std::ostringstream seen;
            const std::function<uint64_t(const korDpa*)>& victim;
        } closure = {{}, victim};
        auto visit = [](korEx*, uint8_t, const char* topic, const korDpa* values, void* argument) {
            auto* to = static_cast<Closure*>(argument);
            to->seen << topic << "=" << values->count << " ";
            return to->victim(values);
        };
        _korTopicList_Enumerate(ex, 0, list, visit, &closure);
        return closure.seen.str();
    }

    bool isBare() const
    {
        const korTopicLevel* root = list->rootLevel;
        return list->count == 0 && root->nodes->count == 0 && root->nodes->oldHash == nullptr &&
               root->plusNode == nullptr && root->hashNode == nullptr;
    }

    korPool** pools = nullptr;
    korTopicList* list = nullptr;
};

// ---- Queries --------------------------------------------------------------------------------------------------------

TEST_F(KorTopicList, FindsInTheOrderOfTheWalk)
{
    struct Case {
        const char* query;
        Values wide;
        Values narrow;
    };
    const Case cases[] = {
        {"a/b", {4, 5, 3, 1, 2}, {4, 5, 3, 2, 1}},
        {"a", {4, 6, 9}, {4, 9, 6}},
        {"a/x", {4, 3, 2}, {4, 3, 2}},
        {"x", {4, 9}, {4, 9}},
        {"x/b", {4, 5}, {4, 5}},
        {"x/y", {4}, {4}},
        {"c/d", {4, 8}, {4, 8}},
        {"a/b/c", {4, 3, 10}, {4, 3, 10}},
        {"a/#", {4, 9, 5, 6, 1, 10, 2, 3}, {4, 9, 3}},
        {"x/#", {4, 9, 5}, {4, 9}},
        {"c/#", {4, 9, 5, 7, 8}, {4, 9, 8}},
        {"a/b/#", {4, 5, 3, 2, 1, 10}, {4, 5, 3}},
        {"#", {6, 1, 10, 2, 3, 4, 9, 5, 7, 8}, {4}},
        {"+", {6, 4, 9, 7}, {4, 9}},
        {"+/b", {3, 1, 2, 4, 5, 8}, {4, 5}},
        {"a/+", {4, 5, 1, 2, 3}, {4, 3, 2}},
        {"+/+", {1, 2, 3, 4, 5, 8}, {4}},
    };
    const char* topics[] = {"a/b", "a/+", "a/#", "#", "+/b", "a", "c", "c/#", "+", "a/b/c"};
    for (Kind kind : {Kind::heap, Kind::pooled, Kind::shared}) {
        make(kind);
        uint64_t value = 0;
        for (const char* topic : topics) {
            insert(topic, ++value);
        }
        for (const Case& c : cases) {
            EXPECT_EQ(get(c.query), c.wide) << c.query;
            EXPECT_EQ(narrow(c.query), c.narrow) << c.query;
        }
        EXPECT_EQ(all(), (Values{6, 1, 10, 2, 3, 4, 9, 5, 7, 8}));
        EXPECT_EQ(literal("a/+"), (Values{2}));
    }
}

TEST_F(KorTopicList, TokensMayBeEmptyAndAreWildcardsOnlyAlone)
{
    uint64_t value = 0;
    for (const char* topic : {"a//b", "a/+/b", "+", "a/", "a", "+x/##", "", "#/tail"}) {
        EXPECT_EQ(textOf(insert(topic, ++value)), topic);
    }
    EXPECT_EQ(get("a//b"), (Values{2, 1})) << "the branch of the + comes first";
    EXPECT_EQ(get(""), (Values{7, 3}));
    EXPECT_EQ(get("a/"), (Values{4}));
    EXPECT_EQ(get("yx/z"), Values{});
    EXPECT_EQ(get("+x/##"), (Values{6}));
    EXPECT_EQ(get("q/tail"), Values{}) << "nothing is found below a stored #";
    EXPECT_EQ(get("+/tail"), Values{});
    EXPECT_EQ(literal("#/tail"), (Values{8}));
    EXPECT_EQ(literal("#"), Values{}) << "a node without values";
    EXPECT_EQ(get("+/#/x"), (Values{4, 1, 2, 6})) << "what follows a # is not looked at, and only \"#\" is a #";
}

// A literal node and a stored "+" side by side, before a last "#": who gives its values depends on who leads down.
TEST_F(KorTopicList, ValuesBeforeALastHashDependOnWhoLeadsDown)
{
    struct Case {
        std::vector<const char*> topics; // values 1, 2, ...
        Values wide;
        Values narrow;
    };
    const Case cases[] = {
        {{"a", "+"}, {1}, {1}},
        {{"+"}, {}, {}},
        {{"a", "+", "a/x"}, {2, 1, 3}, {}},
        {{"a", "+", "+/x"}, {2, 3}, {2, 1}},
        {{"a", "+", "a/x", "+/x"}, {2, 4, 1, 3}, {2}},
        {{"a", "a/x"}, {1, 2}, {}},
    };
    for (const Case& c : cases) {
        make(Kind::heap);
        uint64_t value = 0;
        for (const char* topic : c.topics) {
            insert(topic, ++value);
        }
        EXPECT_EQ(get("a/#"), c.wide) << c.topics.size() << c.topics.back();
        EXPECT_EQ(narrow("a/#"), c.narrow) << c.topics.size() << c.topics.back();
    }
}

TEST_F(KorTopicList, ResultsAreOneArrayAndLiteralOnesTheNodes)
{
    EXPECT_EQ(_korTopicList_All(ex, 0, list), nullptr);
    korTopicNode* node = insert("a/b", 7);
    insert("a/b", 7);
    insert("c", 8);
    const korDpa* results = _korTopicList_Get(ex, 0, list, "a/b");
    EXPECT_EQ(valuesOf(results), (Values{7, 7}));
    EXPECT_EQ(_korTopicList_All(ex, 0, list), results);
    EXPECT_EQ(valuesOf(results), (Values{7, 7, 8}));
    EXPECT_EQ(_korTopicList_GetNarrow(ex, 0, list, "c"), results);
    EXPECT_EQ(_korTopicList_GetLiteral(ex, 0, list, "a/b"), node->values);
    EXPECT_EQ(_korTopicList_GetLiteral(ex, 0, list, "a"), nullptr);
    EXPECT_EQ(_korTopicList_GetLiteral(ex, 0, list, "a/b/c"), nullptr);
    EXPECT_EQ(_korTopicList_Get(ex, 0, list, "d"), nullptr);
}

// ---- Storing and removing -------------------------------------------------------------------------------------------

TEST_F(KorTopicList, CountsAndRemovesValues)
{
    korTopicNode* node = insert("a/b", 1);
    EXPECT_EQ(insert("a/b", 1), node);
    insert("a/b", 2);
    insert("a/b", 0);
    EXPECT_EQ(_korTopicList_SameTopicCount(ex, 0, node), 4);
    int32_t remaining = 99;
    EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, "a/b", 1, &remaining), 1);
    EXPECT_EQ(remaining, 3);
    EXPECT_EQ(literal("a/b"), (Values{0, 1, 2})) << "the last value takes the place of the first equal one";
    EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, "a/b", 5, &remaining), 0);
    EXPECT_EQ(remaining, 3);
    for (const char* absent : {"a", "a/c", "b", "a/b/c", "", "a/"}) {
        remaining = 99;
        EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, absent, 0, &remaining), 0) << absent;
        EXPECT_EQ(remaining, 99) << absent;
    }
    EXPECT_EQ(count(), 3u);
    EXPECT_EQ(_korTopicList_RemoveEx(0, ex, list, "a/b", 0, &remaining), 3);
    EXPECT_EQ(remaining, 0);
    EXPECT_TRUE(isBare());
}

TEST_F(KorTopicList, PrunesUpToWhatIsStillInUse)
{
    korTopicNode* node = insert("a/b", 1);
    insert("a/b/c/d", 2);
    EXPECT_EQ(remove("a/b/c/d", 2), 1);
    EXPECT_EQ(node->childLevel, nullptr);
    EXPECT_EQ(get("a/b"), (Values{1}));
    insert("a/+", 3);
    korTopicLevel* level = node->parent->childLevel;
    ASSERT_NE(level->plusNode, nullptr);
    EXPECT_EQ(remove("a/+", 0), 1);
    EXPECT_EQ(level->plusNode, nullptr);
    EXPECT_EQ(level->nodes->count, 1);
    EXPECT_EQ(insert("a/+", 4), level->plusNode);
    EXPECT_EQ(insert("a/#", 5), level->hashNode);
    EXPECT_EQ(remove("a/b", 1), 1);
    EXPECT_EQ(remove("a/#", 5), 1);
    EXPECT_EQ(get("a/q"), (Values{4}));
    EXPECT_EQ(remove("a/+", 4), 1);
    EXPECT_TRUE(isBare());
}

TEST_F(KorTopicList, RefusesNothingAndWorksWithAnErrorPendingWhereItMust)
{
    insert("a", 1);
    _korTopicList_Insert(ex, 0, nullptr, "a", 1);
    _korTopicList_Insert(ex, 0, list, nullptr, 1);
    EXPECT_EQ(_korTopicList_Remove(0, ex, nullptr, "a", 1), 0);
    EXPECT_EQ(_korTopicList_Remove(0, ex, list, nullptr, 1), 0);
    EXPECT_EQ(_korTopicList_Get(ex, 0, list, nullptr), nullptr);
    _korTopicList_Destroy(0, ex, nullptr);
    _korTopicList_DestroyPools(0, ex, nullptr);
    KOR_RAISE(ex, 0, KOR_ERROR_TIMEOUT, "before");
    EXPECT_EQ(insert("b", 2), nullptr);
    EXPECT_EQ(_korTopicList_Create(ex, 0), nullptr);
    EXPECT_EQ(_korTopicList_CreatePools(ex, 0), nullptr);
    EXPECT_EQ(get("a"), Values{});
    EXPECT_EQ(narrow("a"), Values{});
    EXPECT_EQ(literal("a"), Values{});
    EXPECT_EQ(all(), Values{});
    EXPECT_EQ(count(), 0u);
    EXPECT_EQ(remove("a", 1), 1);
    EXPECT_RAISED(KOR_ERROR_TIMEOUT, "before");
    EXPECT_TRUE(isBare());
}

// ---- Topics as text, enumeration ------------------------------------------------------------------------------------

TEST_F(KorTopicList, TextGrowsByDoubling)
{
    char* buffer = nullptr;
    int32_t size = 0;
    EXPECT_EQ(_korTopicList_Topic(ex, 0, list, insert("a/", 1), &buffer, &size), 3);
    EXPECT_STREQ(buffer, "a/");
    EXPECT_EQ(size, 64);
    std::string longer(100, 'x');
    longer[40] = '/';
    EXPECT_EQ(_korTopicList_Topic(ex, 0, list, insert(longer, 1), &buffer, &size), 101);
    EXPECT_EQ(buffer, longer);
    EXPECT_EQ(size, 202);
    EXPECT_EQ(_korTopicList_Topic(ex, 0, list, nullptr, &buffer, &size), 0);
    _kor_free(0, ex, buffer);
}

TEST_F(KorTopicList, EnumeratesDepthFirstAndRemoves)
{
    auto first = [](const korDpa* values) { return values->items[0]; };
    for (const char* topic : {"a/b/c", "#", "a", "a//", "a/+", "a/b/c", "+/#"}) {
        insert(topic, 5);
    }
    std::string seen = "a=1 a/b/c=2 a//=1 a/+=1 #=1 +/#=1 ";
    EXPECT_EQ(enumerate([](const korDpa*) { return 0; }), seen);
    EXPECT_EQ(enumerate([](const korDpa*) { return 6; }), seen) << "a value that is not there";
    EXPECT_EQ(enumerate(first), seen);
    EXPECT_EQ(count(), 1u) << "one value of a node goes at a time";
    EXPECT_EQ(enumerate(first), "a/b/c=1 ");
    EXPECT_TRUE(isBare());
}

TEST_F(KorTopicList, AnErrorOfTheVisitorEndsTheEnumeration)
{
    for (const char* topic : {"a/b/c", "a/b/d", "a/e", "f"}) {
        insert(topic, 1);
    }
    auto fail = [](korEx* callers, uint8_t depth, const char*, const korDpa* values, void* visits) {
        ++*static_cast<int*>(visits);
        KOR_RAISE(callers, depth, KOR_ERROR_INTERRUPTED, "enough");
        return values->items[0];
    };
    int visits = 0;
    _korTopicList_Enumerate(ex, 0, list, fail, &visits);
    EXPECT_RAISED(KOR_ERROR_INTERRUPTED, "enough");
    EXPECT_EQ(visits, 1);
    EXPECT_EQ(enumerate([](const korDpa*) { return 0; }), "a/b/d=1 a/e=1 f=1 ") << "what it gave was removed";
    for (const char* topic : {"a/b/d", "a/e"}) {
        EXPECT_EQ(remove(topic, 1), 1);
    }
    _korTopicList_Enumerate(ex, 0, list, fail, &visits);
    EXPECT_RAISED(KOR_ERROR_INTERRUPTED, "enough");
    EXPECT_TRUE(isBare());
}

// ---- Depth ----------------------------------------------------------------------------------------------------------

// Recursion of any kind would run out of stack here, and depth, an 8-bit number, goes round many times.
TEST_F(KorTopicList, DepthHasNoLimit)
{
    constexpr int levels = 100000;
    std::string deep = repeated("a", levels);
    std::string pluses = repeated("+", levels);
    korTopicNode* node = insert(deep, 1);
    insert(pluses, 2);
    EXPECT_EQ(textOf(node), deep);
    EXPECT_EQ(get(deep), (Values{2, 1}));
    EXPECT_EQ(get(pluses), (Values{1, 2}));
    EXPECT_EQ(narrow(deep), (Values{2, 1}));
    EXPECT_EQ(narrow(pluses), (Values{2}));
    EXPECT_EQ(get("#"), (Values{1, 2}));
    EXPECT_EQ(enumerate([](const korDpa*) { return 1; }), deep + "=1 " + pluses + "=1 ");
    EXPECT_EQ(all(), (Values{2}));
    EXPECT_EQ(remove(pluses, 2), 1);
    EXPECT_TRUE(isBare());
    insert(deep, 1); // for the end of the list
}

TEST_F(KorTopicList, BranchesAtEveryLevelAreAllFollowed)
{
    constexpr int levels = 150;
    for (int pluses = 0; pluses < levels; pluses++) {
        std::string rest = repeated("a", levels - pluses);
        insert(pluses == 0 ? rest : repeated("+", pluses) + "/" + rest, static_cast<uint64_t>(pluses) + 1);
    }
    std::string query = repeated("a", levels);
    for (Values found : {get(query), narrow(query)}) {
        ASSERT_EQ(found.size(), size_t{levels});
        EXPECT_TRUE(std::is_sorted(found.rbegin(), found.rend())) << "the branch of the + comes first";
    }
}

// ---- The model ------------------------------------------------------------------------------------------------------

// The trie without shortcuts, tables or stacks: children in the order they came, and the two queries by recursion.
struct Model {
    std::string token;
    Values values;
    std::vector<std::unique_ptr<Model>> children;

    Model* child(const std::string& name) const
    {
        auto found = std::find_if(children.begin(), children.end(), [&](auto& c) { return c->token == name; });
        return found == children.end() ? nullptr : found->get();
    }

    void insert(const Tokens& topic, size_t at, uint64_t value)
    {
        if (at == topic.size()) {
            values.push_back(value);
            return;
        }
        if (child(topic[at]) == nullptr) {
            children.push_back(std::make_unique<Model>());
            children.back()->token = topic[at];
        }
        child(topic[at])->insert(topic, at + 1, value);
    }

    int remove(const Tokens& topic, size_t at, uint64_t value)
    {
        if (at == topic.size()) {
            return removeHere(value);
        }
        Model* next = child(topic[at]);
        int removed = next == nullptr ? 0 : next->remove(topic, at + 1, value);
        std::erase_if(children, [](auto& c) { return c->values.empty() && c->children.empty(); });
        return removed;
    }

    int removeHere(uint64_t value)
    {
        auto found = std::find(values.begin(), values.end(), value);
        if (value != 0 && found == values.end()) {
            return 0;
        }
        int removed = value == 0 ? static_cast<int>(values.size()) : 1;
        if (value == 0) {
            values.clear();
        } else {
            *found = values.back();
            values.pop_back();
        }
        return removed;
    }

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
    void get(const Tokens& query, size_t at, Values& out) const
    {
        const std::string& name = query[at];
        bool last = at + 1 == query.size();
        bool hashNext = at + 2 == query.size() && query[at + 1] == "#";
        if (name == "#" || name == "+") {
            for (const auto& c : children) {
                if (name == "#") {
                    c->addAll(out);
                } else if (last || c->token == "#") {
                    add(out, c.get());
                } else {
                    if (hashNext) {
                        add(out, c.get());
                    }
                    if (!c->children.empty()) {
                        c->get(query, at + 1, out);
                    }
                }
            }
            return;
        }
        const Model* plain = child(name);
        const Model* plus = child("+");
        add(out, child("#"));
        if (last) {
            add(out, plain);
            add(out, plus);
            return;
        }
        bool plainLeads = plain != nullptr && !plain->children.empty();
        bool plusLeads = plus != nullptr && !plus->children.empty();
        if (hashNext && (plainLeads || plusLeads)) {
            add(out, plus);
        }
        if (plusLeads) {
            plus->get(query, at + 1, out);
        }
        if (hashNext && (plainLeads || !plusLeads)) {
            add(out, plain);
        }
        if (plainLeads) {
            plain->get(query, at + 1, out);
        }
    }

    void getNarrow(const Tokens& query, size_t at, Values& out) const
    {
        const std::string& name = query[at];
        bool last = at + 1 == query.size();
        bool hashNext = at + 2 == query.size() && query[at + 1] == "#";
        const Model* plus = child("+");
        const Model* plain = name == "+" ? nullptr : child(name);
        add(out, child("#"));
        if (name == "#") {
            return;
        }
        if (last) {
            add(out, plus);
            add(out, plain);
            return;
        }
        if (plus != nullptr && !plus->children.empty()) {
            add(out, hashNext ? plus : nullptr);
            plus->getNarrow(query, at + 1, out);
        }
        if (plain != nullptr && !plain->children.empty()) {
            plain->getNarrow(query, at + 1, out);
        } else if (hashNext) {
            add(out, plain);
        }
    }
};

std::string join(const Tokens& tokens)
{
    std::string topic = tokens[0];
    for (size_t i = 1; i < tokens.size(); i++) {
        topic += "/" + tokens[i];
    }
    return topic;
}

// What the words say about a query without wildcards, topic by topic.
bool covers(const Tokens& stored, const Tokens& query)
{
    for (size_t i = 0; i < stored.size(); i++) {
        if (i == query.size()) {
            return false;
        }
        if (stored[i] == "#") {
            return i + 1 == stored.size();
        }
        if (stored[i] != "+" && stored[i] != query[i]) {
            return false;
        }
    }
    return stored.size() == query.size();
}

class Topics
{
public:
    explicit Topics(Random* random) : random_(random) {}

    // Few names and short topics, so that topics meet; `wild` percent of the tokens are wildcards.
    Tokens topic(unsigned wild)
    {
        Tokens tokens(1 + random_->below(random_->chance(5) ? 20 : 4));
        for (std::string& token : tokens) {
            const char* odd[] = {"", "+x", "##", "a token longer than a chunk of the token pool"};
            token = random_->chance(wild) ? (random_->chance(60) ? "+" : "#")
                    : random_->chance(5)  ? odd[random_->below(4)]
                    : random_->chance(20) ? std::to_string(random_->below(300)) // lets tables grow and shrink
                                          : std::string(1, static_cast<char>('a' + random_->below(3)));
        }
        return tokens;
    }

private:
    Random* random_;
};

TEST_F(KorTopicList, MatchesTheModel)
{
    constexpr int steps = 6000;
    Random random;
    Topics topics(&random);
    for (Kind kind : {Kind::heap, Kind::pooled}) {
        make(kind);
        Model model;
        std::vector<std::pair<Tokens, uint64_t>> stored;
        for (int step = 0; step < steps; step++) {
            bool growing = step < steps / 2;
            if (stored.empty() || random.chance(growing ? 65 : 25)) {
                stored.emplace_back(topics.topic(25), 1 + random.below(9));
                insert(join(stored.back().first), stored.back().second);
                model.insert(stored.back().first, 0, stored.back().second);
            } else {
                auto [topic, value] = stored[random.below(stored.size())];
                value = random.chance(10) ? 0 : value;
                int removed = model.remove(topic, 0, value);
                ASSERT_EQ(remove(join(topic), value), removed);
                for (; removed > 0; removed--) {
                    stored.erase(std::find_if(stored.begin(), stored.end(), [&](auto& pair) {
                        return pair.first == topic && (value == 0 || pair.second == value);
                    }));
                }
            }
            ASSERT_EQ(count(), stored.size());
            Tokens query = topics.topic(random.chance(50) ? 0 : 40);
            Values wide;
            Values covering;
            model.get(query, 0, wide);
            model.getNarrow(query, 0, covering);
            ASSERT_EQ(get(join(query)), wide) << join(query);
            ASSERT_EQ(narrow(join(query)), covering) << join(query);
            if (std::none_of(query.begin(), query.end(), [](auto& t) { return t == "+" || t == "#"; })) {
                Values byWords;
                for (const auto& [topic, value] : stored) {
                    if (covers(topic, query)) {
                        byWords.push_back(value);
                    }
                }
                std::sort(byWords.begin(), byWords.end());
                std::sort(wide.begin(), wide.end());
                ASSERT_EQ(wide, byWords) << join(query);
            }
        }
        Values everything;
        for (const auto& c : model.children) {
            c->addAll(everything);
        }
        EXPECT_EQ(all(), everything);
        while (count() > 0) {
            enumerate([](const korDpa* values) { return values->items[0]; });
        }
        EXPECT_TRUE(isBare());
    }
}

// ---- Failures of memory ---------------------------------------------------------------------------------------------

// What was stored before a failure is found after it, and what failed has left nothing that a removal stumbles over.
// The scenario itself asks the heap for nothing.
TEST_F(KorTopicList, FailedAllocationsLeaveAWholeList)
{
    std::vector<std::string> topics; // each level changes its size several times
    for (const char* start : {"a/", "+/", "", "long/"}) {
        for (size_t i = 0; i < 12; i++) {
            topics.push_back(start + std::string(i * 6, 'x') + "/#");
        }
    }
    topics.push_back(repeated("d", 20));
    Values stored(topics.size());
    auto first = [](korEx*, uint8_t, const char*, const korDpa* values, void*) { return values->items[0]; };
    auto useAll = [&](korTopicList* made) {
        char* buffer = nullptr;
        int32_t size = 0;
        korTopicNode* node = nullptr;
        for (size_t i = 0; i < topics.size(); i++) {
            for (stored[i] = 0; stored[i] < 3 && ex->code == 0; stored[i] += ex->code == 0 ? 1 : 0) {
                _korTopicList_InsertEx(ex, 0, made, topics[i].c_str(), stored[i] + 1, &node);
            }
            _korTopicList_Get(ex, 0, made, "a/xxxxxx/y");
        }
        _korTopicList_Topic(ex, 0, made, node, &buffer, &size);
        _kor_free(0, ex, buffer);
        _korTopicList_All(ex, 0, made);
        _korTopicList_Remove(0, ex, made, topics.back().c_str(), 0);
        _korTopicList_Enumerate(ex, 0, made, first, nullptr);
    };
    auto checkStored = [&](korTopicList* made) {
        KOR_EX_LOCAL(other);
        uint32_t left = _korTopicList_Count(&other, 0, made);
        for (size_t i = 0; i < topics.size(); i++) {
            const korDpa* found = _korTopicList_GetLiteral(&other, 0, made, topics[i].c_str());
            uint64_t values = found == nullptr ? 0 : static_cast<uint64_t>(found->count);
            EXPECT_TRUE(values == stored[i] || i + 1 == topics.size() || values + 1 == stored[i]) << topics[i];
            left -= static_cast<uint32_t>(_korTopicList_Remove(0, &other, made, topics[i].c_str(), 0));
        }
        EXPECT_EQ(left, 0u);
    };
    for (bool pooled : {false, true}) {
        uint64_t requests = sweepFailures(ex, [&] {
            korTopicList* made = pooled ? _korTopicList_CreatePooled(ex, 0) : _korTopicList_Create(ex, 0);
            if (made != nullptr) {
                useAll(made);
                checkStored(made);
            }
            _korTopicList_Destroy(0, ex, made);
        });
        EXPECT_GT(requests, 20u);
    }
    sweepFailures(ex, [&] { _korTopicList_DestroyPools(0, ex, _korTopicList_CreatePools(ex, 0)); });
}

} // namespace
