// topic_fuzz.cpp - topics of any bytes, one a line, stored, asked for and taken away again: what is stored is found,
// its text comes back, and nothing stays behind.

#include "fuzz.h"

#include "korutil/korAlloc.h"
#include "korutil/korTopicList.h"

#include <set>

namespace kor::fuzz {
namespace {

bool holds(const korDpa* found, uint64_t value)
{
    return found != nullptr && std::count(found->items, found->items + found->count, value) > 0;
}

void store(korEx* ex, korTopicList* list, const std::string& topic, uint64_t value)
{
    korTopicNode* node = nullptr;
    char* text = nullptr;
    int32_t size = 0;
    _korTopicList_InsertEx(ex, 0, list, topic.c_str(), value, &node);
    demand(_korTopicList_Topic(ex, 0, list, node, &text, &size) == static_cast<int32_t>(topic.size()) + 1);
    demand(text == topic);
    _kor_free(0, ex, text);
}

// Wildcards before the end may hide a topic from a query of its own text, so only a query by its words must find it.
void ask(korEx* ex, korTopicList* list, const std::string& topic, uint64_t value)
{
    demand(holds(_korTopicList_GetLiteral(ex, 0, list, topic.c_str()), value));
    bool plain = topic.find_first_of("+#") == std::string::npos;
    demand(holds(_korTopicList_Get(ex, 0, list, topic.c_str()), value) || !plain);
    demand(holds(_korTopicList_GetNarrow(ex, 0, list, topic.c_str()), value) || !plain);
}

} // namespace

void check(korEx* ex, const std::string& input)
{
    korTopicList* list = _korTopicList_Create(ex, 0);
    std::vector<std::string> topics;
    for (const std::string& line : piecesOf(input, '\n')) {
        topics.push_back(line.c_str()); // up to the first NUL
        store(ex, list, topics.back(), topics.size());
    }
    for (size_t i = 0; i < topics.size(); i++) {
        ask(ex, list, topics[i], i + 1);
    }
    const korDpa* all = _korTopicList_All(ex, 0, list);
    demand(std::set<uint64_t>(all->items, all->items + all->count).size() == topics.size());
    for (size_t i = 0; i < topics.size(); i++) {
        demand(_korTopicList_Remove(0, ex, list, topics[i].c_str(), i + 1) == 1);
    }
    demand(_korTopicList_Count(ex, 0, list) == 0 &&
           list->rootLevel->nodes->firstEntry == list->rootLevel->nodes->cursor);
    demand(korEx_GetErrorCode(ex) == 0);
    _korTopicList_Destroy(0, ex, list);
}

} // namespace kor::fuzz
