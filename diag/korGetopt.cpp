// korGetopt.cpp - the options of a command line.
//
// spamc_getopt reads clusters of short options and keeps its place within one; spamc_getopt_long reads one option from
// each element. Both keep the number of the next element.

#include "korutil/korGetopt.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int failed = '?';
constexpr int finished = -1;

enum class Fault { colon, notFound, argumentRequired };

int nextIndex = 1;
int printErrors = 1;
int faultyOption = 0;
char* argument = nullptr;
bool restart = false;       // `nextIndex` was moved: what is known of a cluster holds no longer
bool inCluster = false;     // `nextIndex` is a cluster that has been begun
size_t clusterPosition = 0; // of its next option

// The element at `index`, or NULL behind the last one.
char* elementAt(int argc, char* const* argv, int index)
{
    return index >= 0 && index < argc ? argv[index] : nullptr;
}

// A '-' and more. A '-' alone stands for a file, as a rule, and is no option.
bool looksLikeOption(const char* element)
{
    return element != nullptr && element[0] == '-' && element[1] != '\0';
}

// Where `option` stands in the option text, or NULL.
const char* findShort(const char* options, char option)
{
    return options != nullptr && option != '\0' ? std::strchr(options, option) : nullptr;
}

// ---- Errors ---------------------------------------------------------------------------------------------------------

void tell(Fault fault, const char* option)
{
    switch (fault) {
    case Fault::colon:
        std::fprintf(stderr, ": in flags\n");
        break;
    case Fault::notFound:
        std::fprintf(stderr, "option not found %s\n", option);
        break;
    case Fault::argumentRequired:
        std::fprintf(stderr, "argument required for option %s\n", option);
        break;
    default:
        std::fprintf(stderr, "unknown\n");
    }
}

int failShort(Fault fault, int index, size_t position, char option)
{
    faultyOption = static_cast<unsigned char>(option);
    if (printErrors != 0) {
        const char text[] = {option, '\0'};
        std::fprintf(stderr, "Error in argument %d, char %d: ", index, static_cast<int>(position) + 1);
        tell(fault, text);
    }
    return failed;
}

int failLong(Fault fault, int index, const char* element)
{
    if (printErrors != 0) {
        std::fprintf(stderr, "Error in argument %d : ", index);
        tell(fault, element);
    }
    return failed;
}

// ---- Clusters -------------------------------------------------------------------------------------------------------

// Forgets a place that belongs to another element, or to another argv altogether.
bool standsInCluster(const char* element)
{
    inCluster = inCluster && !restart && clusterPosition < std::strlen(element);
    restart = false;
    return inCluster;
}

void leaveCluster(int elements)
{
    inCluster = false;
    nextIndex += elements;
}

void stepInCluster(const char* element)
{
    clusterPosition++;
    if (element[clusterPosition] == '\0') {
        leaveCluster(1);
    }
}

// ---- One option from each element -----------------------------------------------------------------------------------

// The next element as an option's argument, or NULL if there is none that does not look like an option.
char* takeArgument(int argc, char* const* argv)
{
    char* element = elementAt(argc, argv, nextIndex);
    if (element == nullptr || element[0] == '-') {
        return nullptr;
    }
    nextIndex++;
    return element;
}

int takeShort(int argc, char* const* argv, const char* options)
{
    int index = nextIndex++;
    char option = argv[index][1];
    if (option == ':') {
        return failShort(Fault::colon, index, 1, option);
    }
    const char* found = findShort(options, option);
    if (found == nullptr) {
        return failShort(Fault::notFound, index, 1, option);
    }
    if (found[1] == ':') {
        argument = takeArgument(argc, argv);
        if (argument == nullptr) {
            return failShort(Fault::argumentRequired, index, 1, option);
        }
    }
    return static_cast<unsigned char>(option);
}

// The first row whose name begins with these characters, or NULL.
const spamc_option* findLong(const spamc_option* table, const char* name, size_t length)
{
    for (const spamc_option* row = table; row != nullptr && row->name != nullptr; row++) {
        if (std::strncmp(row->name, name, length) == 0) {
            return row;
        }
    }
    return nullptr;
}

int takeLong(int argc, char* const* argv, const spamc_option* table, int* rowNumber)
{
    int index = nextIndex++;
    char* element = argv[index];
    char* name = element + 2;
    if (name[0] == ':') {
        return failLong(Fault::colon, index, element);
    }
    size_t length = std::strcspn(name, "=");
    const spamc_option* row = findLong(table, name, length);
    if (row == nullptr) {
        return failLong(Fault::notFound, index, element);
    }
    if (rowNumber != nullptr) {
        *rowNumber = static_cast<int>(row - table);
    }
    if (row->has_arg != 0) {
        argument = name[length] == '=' ? name + length + 1 : takeArgument(argc, argv);
        if (argument == nullptr && row->has_arg == 1) {
            return failLong(Fault::argumentRequired, index, element);
        }
    }
    if (row->flag == nullptr) {
        return row->val;
    }
    *row->flag = row->val;
    return 0;
}

} // namespace

int spamc_getopt(int argc, char* const* argv, const char* options)
{
    char* element = elementAt(argc, argv, nextIndex);
    if (element == nullptr) {
        return finished;
    }
    if (!standsInCluster(element)) {
        if (!looksLikeOption(element)) {
            return finished;
        }
        if (element[1] == '-') {
            nextIndex++;
            return finished;
        }
        inCluster = true;
        clusterPosition = 1;
    }
    int index = nextIndex;
    size_t position = clusterPosition;
    char option = element[position];
    if (option == ':') {
        leaveCluster(1);
        return failShort(Fault::colon, index, position, option);
    }
    const char* found = findShort(options, option);
    if (found == nullptr) {
        stepInCluster(element);
        return failShort(Fault::notFound, index, position, option);
    }
    if (found[1] != ':') {
        stepInCluster(element);
        return static_cast<unsigned char>(option);
    }
    leaveCluster(2);
    argument = elementAt(argc, argv, index + 1);
    return argument != nullptr ? static_cast<unsigned char>(option)
                               : failShort(Fault::argumentRequired, index, position, option);
}

int spamc_getopt_long(int argc, char* const* argv, const char* options, const spamc_option* table, int* index)
{
    argument = nullptr;
    restart = true;
    const char* element = elementAt(argc, argv, nextIndex);
    if (!looksLikeOption(element)) {
        return finished;
    }
    if (element[1] != '-') {
        return takeShort(argc, argv, options);
    }
    if (element[2] == '\0') {
        return finished;
    }
    return takeLong(argc, argv, table, index);
}

char* spamc_get_optarg(void)
{
    return argument;
}

int spamc_get_optind(void)
{
    return nextIndex;
}

int spamc_get_opterr(void)
{
    return printErrors;
}

int spamc_get_optopt(void)
{
    return faultyOption;
}

void spamc_set_optind(int index)
{
    nextIndex = index;
    restart = true;
}
