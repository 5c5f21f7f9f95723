// korGetopt_test.cpp - command lines as a table: what each option gives, the lines on standard error, and where the
// parser stands at the end. Then any elements at all.

#include "korutil/korGetopt.h"

#include "support/korTest.h"

#include <sstream>
#include <string>
#include <vector>

using kor::test::Random;
using kor::test::StreamCapture;

namespace {

// argv with the program's name and the words of a text (two spaces: an empty one), ended by a NULL, each element in a
// block of its own size.
class CommandLine
{
public:
    explicit CommandLine(const std::string& text)
    {
        std::istringstream stream("program " + text);
        for (std::string word; std::getline(stream, word, ' ');) {
            elements_.push_back(word);
        }
        for (std::string& element : elements_) {
            element.shrink_to_fit();
            argv_.push_back(element.data());
        }
        argv_.push_back(nullptr);
    }

    int argc() const { return static_cast<int>(elements_.size()); }
    char* const* argv() const { return argv_.data(); }

private:
    std::vector<std::string> elements_;
    std::vector<char*> argv_;
};

struct Case {
    const char* line;
    const char* options; // results with their arguments, then where the rest begins
    const char* errors;
};

template <typename Cases, typename Step>
void expectCases(const Cases& cases, Step step)
{
    for (const Case& one : cases) {
        CommandLine line(one.line);
        std::string found;
        spamc_set_optind(-1);
        spamc_getopt_long(line.argc(), line.argv(), "", nullptr, nullptr); // forgets the last argument
        spamc_set_optind(1);
        StreamCapture capture(StreamCapture::error);
        for (int result; (result = step(line)) != -1;) {
            const char* argument = result == '?' ? nullptr : spamc_get_optarg();
            found += result == 0 ? "0" : std::string(1, static_cast<char>(result));
            found += (argument == nullptr ? "" : std::string("=") + argument) + " ";
        }
        EXPECT_EQ(capture.text(), one.errors) << one.line;
        EXPECT_EQ(found + std::to_string(spamc_get_optind()), one.options) << one.line;
    }
}

TEST(korGetopt, ShortOptions)
{
    const Case cases[] = {
        {"", "1", ""},
        {"-ab -- -a", "a b 3", ""},
        {"-ax -b", "a ? b 3", "Error in argument 1, char 3: option not found x\n"},
        {"-n", "? 3", "Error in argument 1, char 2: argument required for option n\n"},
        {"-nab 7 file", "n=7 3", ""}, // the rest of the cluster is dropped
        {"-n 5 -a", "n=5 a=5 4", ""}, // the argument stays to be seen
    };
    expectCases(cases, [](const CommandLine& line) { return spamc_getopt(line.argc(), line.argv(), "abn:"); });
    EXPECT_EQ(spamc_get_optopt(), 'n');
    EXPECT_EQ(spamc_get_opterr(), 1);
}

TEST(korGetopt, LongOptions)
{
    static int flag;
    const spamc_option table[] = {
        {"version", 0, nullptr, 'V'}, {"verbose", 0, &flag, 7}, {"level", 1, nullptr, 'l'},
        {"color", 2, nullptr, 'c'},   {nullptr, 0, nullptr, 0},
    };
    const Case cases[] = {
        {"--ver --verb", "V 0 3", ""}, // the first row that it begins
        {"--level=3 --level 4 --level=", "l=3 l=4 l= 5", ""},
        {"--level -3", "? ? 3",
         "Error in argument 1 : argument required for option --level\n"
         "Error in argument 2, char 2: option not found 3\n"},
        {"--color --color=red --color blue -a", "c c=red c=blue a 6", ""},
        {"--colors", "? 2", "Error in argument 1 : option not found --colors\n"},
        {"--:x", "? 2", "Error in argument 1 : : in flags\n"},
        {"-ab file", "a 2", ""}, // no clusters here
        {"-n5 6 -n", "n=6 ? 4", "Error in argument 3, char 2: argument required for option n\n"},
        {"-:", "? 2", "Error in argument 1, char 2: : in flags\n"},
    };
    int row = -1;
    expectCases(cases, [&](const CommandLine& line) {
        return spamc_getopt_long(line.argc(), line.argv(), "abn:", table, &row);
    });
    EXPECT_EQ(flag, 7);
    EXPECT_EQ(row, 3) << "that of --color, seen last";
}

TEST(korGetopt, AMovedPlaceForgetsTheCluster)
{
    CommandLine first("-abbbbbbb -a");
    CommandLine second("-b");
    spamc_set_optind(1);
    EXPECT_EQ(spamc_getopt(first.argc(), first.argv(), "ab"), 'a');
    EXPECT_EQ(spamc_getopt(first.argc(), first.argv(), "ab"), 'b');
    EXPECT_EQ(spamc_getopt(second.argc(), second.argv(), "ab"), 'b') << "another argv, too short for the place";
    for (int index : {-1, 3, 100}) {
        spamc_set_optind(index);
        EXPECT_EQ(spamc_getopt(first.argc(), first.argv(), "ab"), -1);
    }
}

TEST(korGetopt, AnyElementsComeToAnEnd)
{
    Random random;
    const spamc_option table[] = {{"a", 1, nullptr, 'a'}, {"ab", 2, nullptr, 'b'}, {nullptr, 0, nullptr, 0}};
    StreamCapture capture(StreamCapture::error);
    for (int round = 0; round < 2000; round++) {
        std::string text;
        for (uint64_t length = random.below(30); length > 0; length--) {
            text += "--:=abx  "[random.below(9)];
        }
        CommandLine line(text);
        spamc_set_optind(1);
        for (size_t steps = 0, done = 0; done == 0; steps++) {
            ASSERT_LE(steps, text.size());
            int result = random.chance(50) ? spamc_getopt(line.argc(), line.argv(), "a:b")
                                           : spamc_getopt_long(line.argc(), line.argv(), "a:b", table, nullptr);
            done = result == -1;
        }
        ASSERT_LE(spamc_get_optind(), line.argc() + 1);
    }
}

} // namespace
