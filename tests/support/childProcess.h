// childProcess.h - a second process for a test: the test program starts itself again with one test of its own, or
// another program runs beside it.
//
//     TEST(Thing, DISABLED_ChildOfCrossing) { ... what the other process does; nothing runs it by itself ... }
//     TEST(Thing, Crossing)
//     {
//         ChildProcess child("Thing.DISABLED_ChildOfCrossing", {{"KOR_TEST_NAME", name}});
//         ...
//         EXPECT_EQ(child.wait(), 0) << child.output();
//     }

#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kor::test {

struct ProcessHandles;

/// A second process. What it writes, to its standard output and error, is collected while it runs.
class Program
{
public:
    Program(const std::string& path, const std::vector<std::string>& arguments,
            const std::map<std::string, std::string>& environment = {});
    ~Program(); ///< kills it, if nobody has waited for its end

    /// Waits until the output has `text` `times` times; false if the program ends or three minutes pass before.
    bool waitFor(const std::string& text, size_t times = 1);
    /// Sends it a signal. Windows has none: there it is ended at once.
    void signal(int number);
    /// Waits for its end and gives the exit code; -1 if it did not start, was ended by a signal, or had to be killed
    /// after three minutes.
    int wait();
    /// What it has written so far, with plain line ends.
    std::string output();

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

private:
    void collect();

    std::unique_ptr<ProcessHandles> handles_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string output_;
    bool ended_ = false; ///< the output has, and with it the program
    bool waited_ = false;
    int exitCode_ = -1;
    std::thread collector_;
};

/// This program once more, running one test, with further environment variables.
class ChildProcess : public Program
{
public:
    explicit ChildProcess(const std::string& filter, const std::map<std::string, std::string>& environment = {});
    ~ChildProcess(); ///< waits, if nobody has
};

/// The path of a file that lies at `relative` from the folder of this program.
std::string besideThisProgram(const std::string& relative);

/// A name that no other process and no other call has: for objects that processes share.
std::string uniqueName(const std::string& stem);

} // namespace kor::test
