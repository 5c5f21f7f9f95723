// korTopicList_test.cpp - the index against a slow model that takes the same steps over plain vectors, the order of
// results as a table, pruning, topics of any depth.

#include "korutil/korTopicList.h"

#include "korutil/korAlloc.h"
#include "support/failingHeap.h"
#include "support/korTest.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace kor::test;
using Values = std::vector<uint64_t>;

Values valuesOf(const korDpa* array)
{
    return array == nullptr ? Values() : Values(array->items, array->items + array->count);
}

// ---- The model: a tree of vectors, children in the order of their coming --------------------------------------------

std::vector<std::string> tokensOf(const std::string& topic)
{
    std::vector<std::string> tokens(1);
    for (char character : topic) {
        if (character == '/') {
            tokens.emplace_back();
        } else {
            tokens.back() += character;
        }
    }
    return tokens;
}

class Model
{
public:
    struct Node {
        std::string token;
        Values values;
        std::vector<std::unique_ptr<Node>> children;

        Node* child(const std::string& name) const
        {
            for (auto& one : children) {
                if (one->token == name) {
                    return one.get();
                }
            }
            return nullptr;
        }
        bool goesOn() const { return !children.empty(); }
    };
    using Tokens = std::vector<std::string>;

    void insert(const std::string& topic, uint64_t value)
    {
        Node* node = &root_;
        for (const std::string& token : tokensOf(topic)) {
            Node* next = node->child(token);
            if (next == nullptr) {
                node->children.push_back(std::make_unique<Node>());
                next = node->children.back().get();
                next->token = token;
            }
            node = next;
        }
        node->values.push_back(value);
        count++;
    }

    int32_t remove(const std::string& topic, uint64_t value)
    {
        int32_t removed = 0;
        removeBelow(root_, tokensOf(topic), 0, value, &removed);
        count -= static_cast<uint32_t>(removed);
        return removed;
    }

    Values literal(const std::string& topic) const
    {
        const Node* node = &root_;
        for (const std::string& token : tokensOf(topic)) {
            node = node == nullptr ? nullptr : node->child(token);
        }
        return node == nullptr ? Values() : node->values;
    }

    Values get(const std::string& topic)
    {
        found_.clear();
        getLevel(root_, tokensOf(topic), 0);
        return found_;
    }

    Values narrow(const std::string& topic)
    {
        found_.clear();
        narrowLevel(root_, tokensOf(topic), 0);
        return found_;
    }

    Values all()
    {
        found_.clear();
        addBelow(root_);
        return found_;
    }

    uint32_t count = 0;

private:
    static void removeBelow(Node& parent, const Tokens& tokens, size_t at, uint64_t value, int32_t* removed)
    {
        auto same = [&](const std::unique_ptr<Node>& one) { return one->token == tokens[at]; };
        auto found = std::find_if(parent.children.begin(), parent.children.end(), same);
        if (found == parent.children.end()) {
            return;
        }
        Node& node = **found;
        if (at + 1 < tokens.size()) {
            removeBelow(node, tokens, at + 1, value, removed);
        } else if (value == 0) {
            *removed = static_cast<int32_t>(node.values.size());
            node.values.clear();
        } else if (auto one = std::find(node.values.begin(), node.values.end(), value); one != node.values.end()) {
            *one = node.values.back(); // the last takes its place
            node.values.pop_back();
            *removed = 1;
        }
        if (node.values.empty() && node.children.empty()) {
            parent.children.erase(found);
        }
    }

    void add(const Node* node)
    {
        if (node != nullptr) {
            found_.insert(found_.end(), node->values.begin(), node->values.end());
        }
    }

    void addBelow(const Node& node)
    {
        for (auto& child : node.children) {
            add(child.get());
            addBelow(*child);
        }
    }

    static bool restIsHash(const Tokens& tokens, size_t at) { return at + 2 == tokens.size() && tokens[at + 1] == "#"; }

    void getWildcard(const Node& level, const Tokens& tokens, size_t at)
    {
        if (tokens[at] == "#") {
            addBelow(level);
            return;
        }
        for (auto& child : level.children) {
            if (at + 1 == tokens.size() || child->token == "#") {
                add(child.get());
                continue;
            }
            if (restIsHash(tokens, at)) {
                add(child.get());
            }
            if (child->goesOn()) {
                getLevel(*child, tokens, at + 1);
            }
        }
    }

    void getLevel(const Node& level, const Tokens& tokens, size_t at)
    {
        const std::string& token = tokens[at];
        if (token == "+" || token == "#") {
            getWildcard(level, tokens, at);
            return;
        }
        add(level.child("#"));
        Node* literal = level.child(token);
        Node* plus = level.child("+");
        if (at + 1 == tokens.size()) {
            add(literal);
            add(plus);
            return;
        }
        bool hashNext = restIsHash(tokens, at);
        Node* way = nullptr;
        if (literal != nullptr && literal->goesOn()) {
            if (plus != nullptr && hashNext) {
                add(plus);
            }
            if (plus != nullptr && plus->goesOn()) {
                getLevel(*plus, tokens, at + 1);
            }
            way = literal;
        } else if (plus != nullptr && plus->goesOn()) {
            way = plus;
        } else {
            if (hashNext) {
                add(literal);
            }
            return;
        }
        if (hashNext) {
            add(way);
        }
        getLevel(*way, tokens, at + 1);
    }

    void narrowLevel(const Node& level, const Tokens& tokens, size_t at)
    {
        const std::string& token = tokens[at];
        bool last = at + 1 == tokens.size();
        bool hashNext = restIsHash(tokens, at);
        add(level.child("#"));
        if (token == "#") {
            return;
        }
        if (Node* plus = level.child("+")) {
            if (last) {
                add(plus);
            } else if (plus->goesOn()) {
                if (hashNext) {
                    add(plus);
                }
                narrowLevel(*plus, tokens, at + 1);
            }
        }
        if (token == "+") {
            return;
        }
        Node* literal = level.child(token);
        if (literal == nullptr) {
            return;
        }
        if (last || (!literal->goesOn() && hashNext)) {
            add(literal);
        } else if (literal->goesOn()) {
            narrowLevel(*literal, tokens, at + 1);
        }
    }

    Node root_;
    Values found_;
};

// ---- The list -------------------------------------------------------------------------------------------------------

class KorTopicListTest : public KorTest
{
protected:
    KorTopicListTest() : list(_korTopicList_CreatePooled(KOR_AT(ex, 0))) {}
    ~KorTopicListTest() override { _korTopicList_Destroy(KOR_AT_D(0, ex), list); }

    void insert(const std::string& topic, uint64_t value)
    {
        _korTopicList_Insert(KOR_AT(ex, 0), list, topic.c_str(), value);
    }
    int32_t remove(const std::string& topic, uint64_t value)
    {
        return _korTopicList_Remove(KOR_AT_D(0, ex), list, topic.c_str(), value);
    }
    Values get(const std::string& topic) { return valuesOf(_korTopicList_Get(KOR_AT(ex, 0), list, topic.c_str())); }
    Values narrow(const std::string& topic)
    {
        return valuesOf(_korTopicList_GetNarrow(KOR_AT(ex, 0), list, topic.c_str()));
    }
    Values literal(const std::string& topic)
    {
        return valuesOf(_korTopicList_GetLiteral(KOR_AT(ex, 0), list, topic.c_str()));
    }
    Values all() { return valuesOf(_korTopicList_All(KOR_AT(ex, 0), list)); }

    korTopicList* list;
};

TEST_F(KorTopicListTest, ResultsComeInTheirOrder)
{
    const char* stored[] = {"a/b", "a/+", "a/#", "#", "+/b", "a", "c", "c/#", "+", "a/b/c"};
    for (uint64_t value = 1; const char* topic : stored) {
        insert(topic, value++);
    }
    struct Row {
        const char* query;
        Values get, narrow;
    };
    const Row rows[] = {
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
    for (const Row& row : rows) {
        EXPECT_EQ(get(row.query), row.get) << row.query;
        EXPECT_EQ(narrow(row.query), row.narrow) << row.query;
    }
    EXPECT_EQ(literal("a/+"), (Values{2}));
    EXPECT_EQ(_korTopicList_GetLiteral(KOR_AT(ex, 0), list, "+/x"), nullptr);
    EXPECT_EQ(_korTopicList_Get(KOR_AT(ex, 0), list, "a"), _korTopicList_All(KOR_AT(ex, 0), list)); // one array
}

TEST_F(KorTopicListTest, EmptyTokensAreTokens)
{
    insert("a//b", 1);
    insert("a/+/b", 2);
    insert("a/", 3);
    insert("a", 4);
    insert("+", 5);
    insert("", 6);
    EXPECT_EQ(get("a//b"), (Values{2, 1}));
    EXPECT_EQ(literal("a/"), (Values{3}));
    EXPECT_EQ(literal("a"), (Values{4}));
    EXPECT_EQ(get(""), (Values{6, 5}));
}

// Random topics of few tokens, wildcards in every place, against the model.
TEST_F(KorTopicListTest, AgreesWithTheModel)
{
    Random random;
    Model model;
    const std::string tokens[] = {"a", "b", "", "+", "#", "+x", "a token that is longer than a chunk of the pool"};
    std::vector<std::string> known = {"a"};
    auto topic = [&] {
        if (random.chance(40)) {
            return known[random.below(known.size())];
        }
        std::string text = tokens[random.below(std::size(tokens))];
        for (uint64_t more = random.below(5); more > 0; more--) {
            text += "/" + tokens[random.below(std::size(tokens))];
        }
        return text;
    };
    for (int step = 0; step < 6000; step++) {
        std::string text = topic();
        uint64_t value = 1 + random.below(5);
        bool growing = step / 1000 % 2 == 0;
        if (random.chance(growing ? 60 : 25)) {
            known.push_back(text);
            insert(text, value);
            model.insert(text, value);
        } else if (random.chance(60)) {
            value = random.chance(30) ? 0 : value;
            EXPECT_EQ(remove(text, value), model.remove(text, value)) << text;
        }
        std::string query = topic();
        ASSERT_EQ(get(query), model.get(query)) << query << " at step " << step;
        ASSERT_EQ(narrow(query), model.narrow(query)) << query << " at step " << step;
        ASSERT_EQ(literal(query), model.literal(query)) << query;
        ASSERT_EQ(_korTopicList_Count(KOR_AT(ex, 0), list), model.count);
        if (step % 100 == 0) {
            ASSERT_EQ(all(), model.all());
        }
    }
    for (const std::string& text : known) {
        EXPECT_EQ(remove(text, 0), model.remove(text, 0));
    }
    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(list->rootLevel->nodes->count, 0); // all is pruned
    EXPECT_EQ(list->rootLevel->plusNode, nullptr);
}

TEST_F(KorTopicListTest, RemovingPrunesWhatFallsEmpty)
{
    korTopicNode* b = nullptr;
    _korTopicList_InsertEx(KOR_AT(ex, 0), list, "a/b", 1, &b);
    insert("a/b", 1);
    insert("a/b/c/d", 2);
    EXPECT_EQ(_korTopicList_SameTopicCount(KOR_AT(ex, 0), b), 2);
    int32_t remaining = -1;
    EXPECT_EQ(_korTopicList_RemoveEx(KOR_AT_D(0, ex), list, "a/b/c", 2, &remaining), 0);
    EXPECT_EQ(remaining, -1); // the topic has no values
    EXPECT_EQ(_korTopicList_RemoveEx(KOR_AT_D(0, ex), list, "a/b/c/d", 9, &remaining), 0);
    EXPECT_EQ(remaining, 1);
    EXPECT_NE(b->childLevel, nullptr);
    EXPECT_EQ(_korTopicList_RemoveEx(KOR_AT_D(0, ex), list, "a/b/c/d", 2, &remaining), 1);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(b->childLevel, nullptr);
    EXPECT_EQ(remove("a/b", 1), 1);
    EXPECT_EQ(remove("a/b", 0), 1);
    EXPECT_EQ(list->rootLevel->nodes->count, 0);
    EXPECT_EQ(_korTopicList_Remove(KOR_AT_D(0, ex), nullptr, "a", 0), 0);
    EXPECT_EQ(_korTopicList_Remove(KOR_AT_D(0, ex), list, nullptr, 0), 0);
    _korTopicList_Insert(KOR_AT(ex, 0), list, nullptr, 1);
    _korTopicList_Insert(KOR_AT(ex, 0), nullptr, "a", 1);
}

TEST_F(KorTopicListTest, TheTextOfATopic)
{
    char* buffer = nullptr;
    int32_t size = 0;
    std::string hundred(100, 'x');
    hundred[49] = '/';
    const std::pair<std::string, int32_t> cases[] = {{"a/", 64}, {"", 64}, {"a//b", 64}, {hundred, 202}};
    for (auto& [topic, expectedSize] : cases) {
        korTopicNode* node = nullptr;
        _korTopicList_InsertEx(KOR_AT(ex, 0), list, topic.c_str(), 1, &node);
        EXPECT_EQ(_korTopicList_Topic(KOR_AT(ex, 0), list, node, &buffer, &size),
                  static_cast<int32_t>(topic.size()) + 1);
        EXPECT_EQ(buffer, topic);
        EXPECT_EQ(size, expectedSize);
    }
    _kor_free(KOR_AT_D(0, ex), buffer);
}

struct Shown {
    std::vector<std::pair<std::string, Values>> topics;
    bool takeFirst = false;
    size_t failAt = SIZE_MAX;
};

uint64_t show(korEx* ex, uint8_t depth, const char* topic, const korDpa* values, void* closure)
{
    auto* shown = static_cast<Shown*>(closure);
    shown->topics.emplace_back(topic, valuesOf(values));
    if (shown->topics.size() == shown->failAt) {
        KOR_RAISE(ex, depth, KOR_ERROR_EXCEPTION, "enough");
    }
    return shown->takeFirst ? values->items[0] : 0;
}

TEST_F(KorTopicListTest, EnumerationShowsAndPrunes)
{
    const std::pair<std::string, uint64_t> stored[] = {{"a/b/c", 1}, {"a", 2}, {"+/#", 3}, {"a/b/c", 4}, {"//", 5}};
    for (auto& [topic, value] : stored) {
        insert(topic, value);
    }
    Shown shown;
    _korTopicList_Enumerate(KOR_AT(ex, 0), list, show, &shown);
    EXPECT_EQ(shown.topics, (decltype(shown.topics){{"a", {2}}, {"a/b/c", {1, 4}}, {"+/#", {3}}, {"//", {5}}}));
    shown = {{}, true, 2};
    _korTopicList_Enumerate(KOR_AT(ex, 0), list, show, &shown);
    EXPECT_RAISED(100, "enough");
    EXPECT_EQ(shown.topics.size(), 2U);
    EXPECT_EQ(list->count, 3U); // what the failing call gave is removed, too
    shown = {{}, true};
    _korTopicList_Enumerate(KOR_AT(ex, 0), list, show, &shown);
    EXPECT_EQ(shown.topics, (decltype(shown.topics){{"a/b/c", {4}}, {"+/#", {3}}, {"//", {5}}}));
    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(list->rootLevel->nodes->count, 0);
    EXPECT_EQ(list->rootLevel->plusNode, nullptr);
}

// A topic of any depth costs neither stack nor the trace.
TEST_F(KorTopicListTest, ATopicOfManyLevels)
{
    constexpr size_t levels = 100000;
    std::string plain = "a";
    std::string wild = "+";
    for (size_t i = 1; i < levels; i++) {
        plain += "/a";
        wild += "/+";
    }
    insert(plain, 1);
    insert(wild, 2);
    insert(plain + "/b", 3);
    EXPECT_EQ(get(plain), (Values{2, 1}));
    EXPECT_EQ(narrow(plain), (Values{2, 1}));
    EXPECT_EQ(get(wild), (Values{1, 2}));
    EXPECT_EQ(narrow(wild), (Values{2}));
    EXPECT_EQ(all(), (Values{1, 3, 2}));
    Shown shown;
    _korTopicList_Enumerate(KOR_AT(ex, 0), list, show, &shown);
    EXPECT_EQ(shown.topics.size(), 3U);
    EXPECT_EQ(shown.topics[2].first, wild);
    EXPECT_EQ(remove(wild, 0), 1);
    EXPECT_EQ(get("a/#"), (Values{1, 3}));
}

TEST_F(KorTopicListTest, ListsShareTheirCallersPools)
{
    korPool** pools = _korTopicList_CreatePools(KOR_AT(ex, 0));
    korTopicList* lists[] = {_korTopicList_CreatePooledEx(KOR_AT(ex, 0), pools),
                             _korTopicList_CreatePooledEx(KOR_AT(ex, 0), pools),
                             _korTopicList_CreatePooledEx(KOR_AT(ex, 0), nullptr), _korTopicList_Create(KOR_AT(ex, 0))};
    for (korTopicList* one : lists) {
        _korTopicList_Insert(KOR_AT(ex, 0), one, "a/b", 1);
        EXPECT_EQ(valuesOf(_korTopicList_Get(KOR_AT(ex, 0), one, "a/+")), (Values{1}));
        _korTopicList_Destroy(KOR_AT_D(0, ex), one);
    }
    _korTopicList_DestroyPools(KOR_AT_D(0, ex), pools);
    _korTopicList_DestroyPools(KOR_AT_D(0, ex), nullptr);
    _korTopicList_Destroy(KOR_AT_D(0, ex), nullptr);
}

TEST_F(KorTopicListTest, AnyRequestMayFail)
{
    const char* stored[] = {"a/b", "a/+", "#", "a token that is longer than a chunk of the pool", "a/b", "c/d/e/f"};
    for (auto create : {_korTopicList_Create, _korTopicList_CreatePooled}) {
        sweepFailures(ex, [&] {
            korTopicList* own = create(KOR_AT(ex, 0));
            for (uint64_t value = 1; const char* topic : stored) {
                if (own != nullptr) {
                    _korTopicList_Insert(KOR_AT(ex, 0), own, topic, value++);
                }
            }
            if (korEx_GetErrorCode(ex) == 0) {
                _korTopicList_Get(KOR_AT(ex, 0), own, "+/#");
                _korTopicList_GetNarrow(KOR_AT(ex, 0), own, "a/b");
            }
            if (korEx_GetErrorCode(ex) == 0) {
                char* buffer = nullptr;
                int32_t size = 0;
                korTopicNode* node = own->rootLevel->hashNode;
                _korTopicList_Topic(KOR_AT(ex, 0), own, node, &buffer, &size);
                _kor_free(KOR_AT_D(0, ex), buffer);
            }
            _korTopicList_Destroy(KOR_AT_D(0, ex), own);
        });
    }
}

} // namespace
