// topics_bench.cpp - korTopicList beside a trie of standard containers: queries over 1,000 to 1,000,000 subscriptions,
// literal ones and with a tenth of them wildcards; subscribing and leaving; memory a subscription.

#include "korutil/korTopicList.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

korEx* sharedEx = korEx_Create();

template <bool pooled>
class Ours
{
public:
    static constexpr const char* name = pooled ? "korTopicList" : "korTopicList_heap";
    Ours() : list_(pooled ? _korTopicList_CreatePooled(KOR_AT(sharedEx, 0)) : _korTopicList_Create(KOR_AT(sharedEx, 0)))
    {}
    ~Ours() { _korTopicList_Destroy(KOR_AT_D(0, sharedEx), list_); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    void insert(const std::string& topic, uint64_t value)
    {
        _korTopicList_Insert(KOR_AT(sharedEx, 0), list_, topic.c_str(), value);
    }
    void remove(const std::string& topic, uint64_t value)
    {
        _korTopicList_Remove(KOR_AT_D(0, sharedEx), list_, topic.c_str(), value);
    }
    uint64_t get(const std::string& topic)
    {
        const korDpa* found = _korTopicList_Get(KOR_AT(sharedEx, 0), list_, topic.c_str());
        return found == nullptr ? 0 : static_cast<uint64_t>(found->count);
    }

private:
    korTopicList* list_;
};

// What one would write in an afternoon: a map of children and a vector of values at each node, matching by recursion.
class StdTrie
{
public:
    static constexpr const char* name = "std_trie";
    void insert(const std::string& topic, uint64_t value) { nodeOf(topic)->values.push_back(value); }
    void remove(const std::string& topic, uint64_t value) { removeBelow(root_, topic, value); }
    uint64_t get(const std::string& topic)
    {
        found_.clear();
        match(root_, topic);
        return found_.size();
    }

private:
    struct ViewHash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    struct Node {
        std::unordered_map<std::string, std::unique_ptr<Node>, ViewHash, std::equal_to<>> children;
        std::vector<uint64_t> values;
    };

    static std::string_view cut(std::string_view& topic, bool& last)
    {
        size_t end = topic.find('/');
        last = end == std::string_view::npos;
        std::string_view token = topic.substr(0, end);
        topic = last ? std::string_view() : topic.substr(end + 1);
        return token;
    }

    Node* nodeOf(std::string_view topic)
    {
        Node* node = &root_;
        for (bool last = false; !last;) {
            std::unique_ptr<Node>& child = node->children[std::string(cut(topic, last))];
            if (child == nullptr) {
                child = std::make_unique<Node>();
            }
            node = child.get();
        }
        return node;
    }

    void removeBelow(Node& node, std::string_view topic, uint64_t value)
    {
        bool last;
        auto found = node.children.find(cut(topic, last));
        if (found == node.children.end()) {
            return;
        }
        Node& child = *found->second;
        if (last) {
            std::erase(child.values, value);
        } else {
            removeBelow(child, topic, value);
        }
        if (child.values.empty() && child.children.empty()) {
            node.children.erase(found);
        }
    }

    void add(const Node& node) { found_.insert(found_.end(), node.values.begin(), node.values.end()); }

    void match(const Node& node, std::string_view topic)
    {
        bool last;
        std::string_view token = cut(topic, last);
        if (auto hash = node.children.find("#"); hash != node.children.end()) {
            add(*hash->second);
        }
        for (std::string_view step : {token, std::string_view("+")}) {
            auto child = node.children.find(step);
            if (child == node.children.end()) {
                continue;
            }
            if (last) {
                add(*child->second);
            } else {
                match(*child->second, topic);
            }
        }
    }

    Node root_;
    std::vector<uint64_t> found_;
};

// Topics as a market has them: region, venue, instrument, field. One in ten has wildcards if they are asked for.
std::vector<std::string> subscriptions(int64_t count, bool wildcards)
{
    std::mt19937_64 engine(11);
    auto numbered = [&](const char* word, int64_t bound) {
        return word + std::to_string(engine() % static_cast<uint64_t>(bound));
    };
    std::vector<std::string> made;
    for (int64_t i = 0; i < count; i++) {
        std::string region = numbered("region", 10);
        std::string venue = numbered("venue", count / 100);
        std::string item = numbered("item", count);
        switch (wildcards && i % 10 == 0 ? engine() % 4 : 4) {
        case 0:
            made.push_back("+/" + venue + "/" + item + "/price");
            break;
        case 1:
            made.push_back(region + "/+/" + item + "/#");
            break;
        case 2:
            made.push_back(region + "/" + venue + "/+/price");
            break;
        case 3:
            made.push_back(region + "/" + venue + "/#");
            break;
        default:
            made.push_back(region + "/" + venue + "/" + item + "/price");
        }
    }
    return made;
}

// Queries for literal topics: three of four are subscribed to, the others end at a node that is not there.
std::vector<std::string> queriesFor(const std::vector<std::string>& topics)
{
    std::mt19937_64 engine(13);
    std::vector<std::string> queries;
    while (queries.size() < 4096) {
        std::string topic = topics[engine() % topics.size()];
        if (topic.find_first_of("+#") == std::string::npos) {
            queries.push_back(queries.size() % 4 == 3 ? topic + "x" : topic);
        }
    }
    return queries;
}

template <class Index, bool wildcards>
struct Filled {
    explicit Filled(int64_t count) : topics(subscriptions(count, wildcards)), queries(queriesFor(topics))
    {
        for (size_t i = 0; i < topics.size(); i++) {
            index.insert(topics[i], i + 1);
        }
    }
    std::vector<std::string> topics;
    std::vector<std::string> queries;
    Index index;
};

// A benchmark's function is called several times: the index that was filled last is kept, of whatever type.
std::shared_ptr<void> kept;

template <class Wanted>
Wanted& keptFor(int64_t count)
{
    static std::weak_ptr<Wanted> last;
    static int64_t lastCount = 0;
    std::shared_ptr<Wanted> wanted = last.lock();
    if (wanted == nullptr || lastCount != count) {
        wanted = nullptr;
        kept = nullptr;
        wanted = std::make_shared<Wanted>(count);
        last = wanted;
        lastCount = count;
        kept = wanted;
    }
    return *wanted;
}

template <class Index, bool wildcards>
void query(benchmark::State& state)
{
    auto& filled = keptFor<Filled<Index, wildcards>>(state.range(0));
    uint64_t found = 0;
    size_t next = 0;
    for (auto _ : state) {
        found += filled.index.get(filled.queries[next++ % filled.queries.size()]);
    }
    state.counters["found"] = benchmark::Counter(static_cast<double>(found), benchmark::Counter::kAvgIterations);
    state.SetItemsProcessed(state.iterations());
}

// One leaves and comes back.
template <class Index>
void churn(benchmark::State& state)
{
    auto& filled = keptFor<Filled<Index, true>>(state.range(0));
    size_t next = 0;
    for (auto _ : state) {
        size_t i = next++ % filled.topics.size();
        filled.index.remove(filled.topics[i], i + 1);
        filled.index.insert(filled.topics[i], i + 1);
    }
    state.SetItemsProcessed(state.iterations());
}

#ifdef __GLIBC__
// Bytes of the heap that a subscription takes, as the "time" of one, so that the table has the ratio.
template <class Index>
void memory(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<std::string> topics = subscriptions(state.range(0), true);
        kept = nullptr;
        struct mallinfo2 before = mallinfo2();
        Index index;
        for (size_t i = 0; i < topics.size(); i++) {
            index.insert(topics[i], i + 1);
        }
        struct mallinfo2 after = mallinfo2();
        size_t bytes = after.uordblks + after.hblkhd - before.uordblks - before.hblkhd;
        state.SetIterationTime(static_cast<double>(bytes) / static_cast<double>(topics.size()) * 1e-9);
    }
}
#endif

template <class Index>
void registerFor(int64_t count)
{
    auto add = [count](const char* area, void (*run)(benchmark::State&)) {
        std::string full = std::string("BM_Topics_") + area + "/" + Index::name;
        return benchmark::RegisterBenchmark(full.c_str(), run)->Arg(count);
    };
    add("query_literal", query<Index, false>);
    add("query_wild", query<Index, true>);
    add("churn", churn<Index>);
#ifdef __GLIBC__
    add("bytes", memory<Index>)->Iterations(1)->UseManualTime();
#endif
}

} // namespace

int main(int argc, char** argv)
{
    for (int64_t count : {1000, 100'000, 1'000'000}) {
        registerFor<Ours<true>>(count);
        registerFor<Ours<false>>(count);
        registerFor<StdTrie>(count);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    kept = nullptr;
    return 0;
}
