// commandLine.cpp - a table of options as the library's parser wants it: what it gives for an option is its row.

#include "commandLine.h"

#include <korutil/korGetopt.h>
#include <korutil/korText.h>

#include <cstdio>

namespace {

constexpr int helpColumn = 24;

uint32_t readNumber(korEx* ex, uint8_t depth, const char* text, const Option& option)
{
    char* end = nullptr;
    uint64_t number = _kor_parseU64(text, &end);
    if (end == text || *end != 0 || number < option.least || number > option.most) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "\"%s\" is not a number from %u to %u, as --%s wants one",
                    text, option.least, option.most, option.name);
    }
    return static_cast<uint32_t>(number);
}

void take(korEx* ex, uint8_t depth, const Option& option, const char* text)
{
    if (option.flag != nullptr) {
        *option.flag = true;
        return;
    }
    uint32_t number = option.number != nullptr || option.isNumber ? readNumber(KOR_AT(ex, depth), text, option) : 0;
    if (option.number != nullptr) {
        *option.number = number;
    } else {
        *option.text = text;
    }
}

void printDefault(const Option& option)
{
    if (option.number != nullptr) {
        std::printf(" (%u)", *option.number);
    } else if (option.text != nullptr && *option.text != nullptr) {
        std::printf(" (%s)", *option.text);
    }
}

} // namespace

Option textOption(const char* name, const char* value, const char* help, const char** text)
{
    return {name, value, help, text, nullptr, nullptr};
}

Option numberOption(const char* name, const char* value, const char* help, uint32_t* number, uint32_t least,
                    uint32_t most)
{
    return {name, value, help, nullptr, number, nullptr, least, most};
}

Option portOption(const char* help, const char** text)
{
    return {"port", "N", help, text, nullptr, nullptr, 0, 65535, true};
}

Option flagOption(const char* name, const char* help, bool* flag)
{
    return {name, nullptr, help, nullptr, nullptr, flag};
}

void readCommandLine(korEx* ex, uint8_t depth, int argc, char** argv, const Option* options, int32_t count)
{
    spamc_option table[maxOptions + 1] = {};
    for (int32_t i = 0; i < count; i++) {
        table[i] = {options[i].name, options[i].flag == nullptr ? 1 : 0, nullptr, i + 1};
    }
    int row;
    while (ex->code == 0 && (row = spamc_getopt_long(argc, argv, "", table, nullptr)) != -1) {
        if (row < 1 || row > count) {
            KOR_RAISE(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "--help tells the options");
        } else {
            take(KOR_AT(ex, depth), options[row - 1], spamc_get_optarg());
        }
    }
    if (ex->code == 0 && spamc_get_optind() < argc) {
        KOR_RAISE_F(ex, depth, KOR_ERROR_INVALID_ARGUMENT, "\"%s\" is no option", argv[spamc_get_optind()]);
    }
}

void printOptions(const Option* options, int32_t count)
{
    for (int32_t i = 0; i < count; i++) {
        const char* value = options[i].value != nullptr ? options[i].value : "";
        char text[64];
        _kor_snprintf(text, sizeof(text), "--%s %s", options[i].name, value);
        std::printf("  %-*s %s", helpColumn, text, options[i].help);
        printDefault(options[i]);
        std::printf("\n");
    }
}

void printFailure(const char* program, const korEx* ex)
{
    char text[KOR_DESCRIPTION_SIZE];
    _korEx_PrintErrInfo(ex, text, sizeof(text));
    std::fprintf(stderr, "%s: %s\n", program, text);
}
