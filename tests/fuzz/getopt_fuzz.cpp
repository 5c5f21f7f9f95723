// getopt_fuzz.cpp - command lines of any elements, by both forms: every call moves on or ends, and what it points at is
// the caller's.

#include "korutil/korGetopt.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void demand(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

// One element for each NUL.
std::vector<std::string> elementsOf(const uint8_t* data, size_t size)
{
    std::vector<std::string> elements{"program"};
    std::string element;
    for (size_t i = 0; i < size; i++) {
        if (data[i] == 0) {
            elements.push_back(element);
            element.clear();
        } else {
            element += static_cast<char>(data[i]);
        }
    }
    elements.push_back(element);
    return elements;
}

bool pointsInto(const std::vector<std::string>& elements, const char* argument)
{
    return argument == nullptr || std::any_of(elements.begin(), elements.end(), [&](const std::string& element) {
               return argument >= element.data() && argument <= element.data() + element.size();
           });
}

template <typename Next>
void readAll(const std::vector<std::string>& elements, Next next)
{
    size_t steps = 2;
    for (const std::string& element : elements) {
        steps += element.size() + 1;
    }
    spamc_set_optind(1);
    while (next() != -1) {
        demand(steps-- != 0);
        demand(pointsInto(elements, spamc_get_optarg()));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> elements = elementsOf(data, size);
    std::vector<char*> arguments;
    for (std::string& element : elements) {
        arguments.push_back(element.data());
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    static int flag;
    const spamc_option table[] = {
        {"help", 0, nullptr, 'h'}, {"level", 1, nullptr, 'l'}, {"colour", 2, &flag, 1}, {nullptr, 0, nullptr, 0}};
    int row = 0;
    readAll(elements, [&] { return spamc_getopt(count, arguments.data(), "ab:c:d"); });
    readAll(elements, [&] { return spamc_getopt_long(count, arguments.data(), "ab:c:d", table, &row); });
    return 0;
}
