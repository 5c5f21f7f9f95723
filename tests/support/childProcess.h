// childProcess.h - a second process for a test: the test program starts itself again with one test of its own.
//
//     TEST(Thing, DISABLED_ChildOfCrossing) { ... what the other process does; nothing runs it by itself ... }
//     TEST(Thing, Crossing)
//     {
//         ChildProcess child("Thing.DISABLED_ChildOfCrossing", {{"KOR_TEST_NAME", name}});
//         ...
//         EXPECT_EQ(child.wait(), 0) << child.output();
//     }

#pragma once

#include <map>
#include <memory>
#include <string>

namespace kor::test {

/// This program once more, running one test, with further environment variables. It has started when the constructor
/// returns; what it writes is collected by wait().
class ChildProcess
{
public:
    explicit ChildProcess(const std::string& filter, const std::map<std::string, std::string>& environment = {});
    ~ChildProcess(); ///< waits, if nobody has

    /// Waits for the end and gives the exit code: 0 if the test passed, -1 if the child did not start or was ended by a
    /// signal.
    int wait();

    /// What the child wrote to its standard output and error, with plain line ends. After wait().
    const std::string& output() const { return output_; }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

private:
    struct Handles;
    std::unique_ptr<Handles> handles_;
    std::string output_;
    int exitCode_ = -1;
    bool waited_ = false;
};

/// A name that no other process and no other call has: for objects that processes share.
std::string uniqueName(const std::string& stem);

} // namespace kor::test
