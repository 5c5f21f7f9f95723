// commandLine.h - the options of the exchange's programs: one table says what there is, reads it and explains it.

#ifndef EXCHANGE_COMMAND_LINE_H
#define EXCHANGE_COMMAND_LINE_H

#include <korutil/korEx.h>

#include <cstdint>

/// One option, and where its value goes. What stands there before the reading is its default.
struct Option {
    const char* name;  ///< without the dashes
    const char* value; ///< what the help calls its value; NULL = it takes none
    const char* help;
    const char** text;     ///< or NULL
    uint32_t* number;      ///< or NULL
    bool* flag;            ///< or NULL; true if the option is there
    uint32_t least = 0;    ///< of a number
    uint32_t most = 0;     ///< of a number
    bool isNumber = false; ///< the text must be a number, though it is kept as a text
};

Option textOption(const char* name, const char* value, const char* help, const char** text);
Option numberOption(const char* name, const char* value, const char* help, uint32_t* number, uint32_t least,
                    uint32_t most);
/// A port, which sockets take as a text.
Option portOption(const char* help, const char** text);
Option flagOption(const char* name, const char* help, bool* flag);

/// The most options of a program.
constexpr int32_t maxOptions = 20;

/// Reads all arguments. Code 1: "... is not a number from ... to ...", "... is no option", "--help tells the options".
void readCommandLine(korEx* ex, uint8_t depth, int argc, char** argv, const Option* options, int32_t count);

/// Prints the options with their defaults to standard output.
void printOptions(const Option* options, int32_t count);

/// Says on standard error why a program cannot go on, in one line.
void printFailure(const char* program, const korEx* ex);

#endif
