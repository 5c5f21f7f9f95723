// getopt_fuzz.cpp - command lines of any elements, by both forms: every call moves on or ends, and what it points at is
// the caller's.

#include "fuzz.h"

#include "korutil/korGetopt.h"

namespace kor::fuzz {

// One element for each NUL.
void check(korEx*, const std::string& input)
{
    std::vector<std::string> elements = piecesOf(std::string("program\0", 8) + input, '\0');
    std::vector<char*> arguments;
    size_t most = 2 + elements.size();
    for (std::string& element : elements) {
        arguments.push_back(element.data());
        most += element.size();
    }
    auto isCallers = [&](const char* argument) {
        return argument == nullptr || std::any_of(elements.begin(), elements.end(), [&](const std::string& element) {
                   return argument >= element.data() && argument <= element.data() + element.size();
               });
    };
    auto readAll = [&](auto next) {
        spamc_set_optind(1);
        for (size_t steps = 0; next() != -1; steps++) {
            demand(steps < most && isCallers(spamc_get_optarg()));
        }
    };
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    static int flag;
    const spamc_option table[] = {
        {"help", 0, nullptr, 'h'}, {"level", 1, nullptr, 'l'}, {"colour", 2, &flag, 1}, {nullptr, 0, nullptr, 0}};
    int row = 0;
    readAll([&] { return spamc_getopt(count, arguments.data(), "ab:c:d"); });
    readAll([&] { return spamc_getopt_long(count, arguments.data(), "ab:c:d", table, &row); });
}

} // namespace kor::fuzz
