// mosquitto_test.cpp - the server with clients that are not ours: the programs of the package mosquitto-clients.

#ifndef _WIN32

#include "exchangeServer.h"

#include <filesystem>
#include <fstream>
#include <list>
#include <random>
#include <unistd.h>

namespace {

using namespace kor::test;

std::string found(const std::string& name)
{
    for (const char* folder : {"/usr/bin/", "/usr/local/bin/", "/bin/"}) {
        if (std::filesystem::exists(folder + name)) {
            return folder + name;
        }
    }
    return "";
}

class MosquittoTest : public ExchangeTest
{
protected:
    void SetUp() override
    {
        if (found("mosquitto_pub").empty() || found("mosquitto_sub").empty()) {
            GTEST_SKIP() << "mosquitto_pub and mosquitto_sub are not installed: package mosquitto-clients";
        }
        start({"--log", "clients:debug"});
    }

    std::vector<std::string> atServer(const std::vector<std::string>& options,
                                      std::vector<std::string> before = {}) const
    {
        before.insert(before.end(), {"-h", "127.0.0.1", "-p", std::to_string(port)});
        before.insert(before.end(), options.begin(), options.end());
        return before;
    }

    void publish(const std::vector<std::string>& options)
    {
        Program publisher(found("mosquitto_pub"), atServer(options));
        EXPECT_EQ(publisher.wait(), 0) << publisher.output();
    }

    // Gives messages, "topic payload" a line, and ends after `count` of them. Has subscribed when this returns: the
    // server tells it.
    Program& subscriber(int count, const std::vector<std::string>& options)
    {
        std::vector<std::string> all = atServer({"-C", std::to_string(count), "-W", "30", "-v"});
        all.insert(all.end(), options.begin(), options.end());
        Program& started = programs_.emplace_back(found("mosquitto_sub"), all);
        for (const std::string& option : options) {
            filters_ += option == "-t";
        }
        EXPECT_TRUE(server->waitFor(" subscribes to ", filters_)) << server->output();
        return started;
    }

    static void expectOutput(Program& program, const std::string& expected)
    {
        EXPECT_EQ(program.wait(), 0) << program.output();
        EXPECT_EQ(program.output(), expected);
    }

    std::list<Program> programs_;
    size_t filters_ = 0;
};

TEST_F(MosquittoTest, BothQualitiesOfService)
{
    for (const char* subscribed : {"0", "1", "2"}) {
        for (const char* published : {"0", "1"}) {
            Program& receiver = subscriber(1, {"-t", "qos/+", "-q", subscribed});
            publish({"-t", "qos/1", "-m", published, "-q", published});
            expectOutput(receiver, "qos/1 " + std::string(published) + "\n");
        }
    }
}

TEST_F(MosquittoTest, ManyMessagesInOrder)
{
    std::string lines;
    std::string expected;
    for (int i = 0; i < 1000; i++) {
        lines += std::to_string(i) + "\n";
        expected += "many " + std::to_string(i) + "\n";
    }
    std::string name = testing::TempDir() + uniqueName("lines");
    std::ofstream(name) << lines;
    Program& receiver = subscriber(1000, {"-t", "many", "-q", "1"});
    Program shell("/bin/sh", {"-c", found("mosquitto_pub") + " -h 127.0.0.1 -p " + std::to_string(port) +
                                        " -t many -q 1 -l < '" + name + "'"});
    EXPECT_EQ(shell.wait(), 0) << shell.output();
    expectOutput(receiver, expected);
    std::filesystem::remove(name);
}

TEST_F(MosquittoTest, Retained)
{
    publish({"-t", "kept/1", "-m", "first", "-r"});
    publish({"-t", "kept/1", "-m", "second", "-r", "-q", "1"});
    publish({"-t", "kept/2", "-m", "gone", "-r"});
    publish({"-t", "kept/2", "-n", "-r"});
    publish({"-t", "kept/3", "-m", "third", "-r"});
    expectOutput(subscriber(1, {"-t", "kept/1", "--retained-only"}), "kept/1 second\n");
    Program& all = subscriber(3, {"-t", "kept/#", "-q", "1"});
    publish({"-t", "kept/last", "-m", "fresh"});
    EXPECT_EQ(all.wait(), 0);
    std::string output = all.output();
    EXPECT_NE(output.find("kept/1 second\n"), std::string::npos) << output;
    EXPECT_NE(output.find("kept/3 third\n"), std::string::npos) << output;
    EXPECT_NE(output.find("kept/last fresh\n"), std::string::npos) << output;
}

TEST_F(MosquittoTest, Wills)
{
    Program& watcher = subscriber(1, {"-t", "will/#"});
    subscriber(1, {"-t", "x", "--will-topic", "will/orderly", "--will-payload", "never"});
    publish({"-t", "x", "-m", "enough"}); // it has its message, and disconnects
    EXPECT_EQ(programs_.back().wait(), 0);
    Program& killed = subscriber(
        1, {"-t", "x", "--will-topic", "will/killed", "--will-payload", "gone", "--will-qos", "1", "--will-retain"});
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.wait(), -1);
    expectOutput(watcher, "will/killed gone\n");
    expectOutput(subscriber(1, {"-t", "will/+"}), "will/killed gone\n");
}

TEST_F(MosquittoTest, Wildcards)
{
    Program& several = subscriber(4, {"-t", "a/#", "-t", "+/b"});
    Program& everything = subscriber(5, {"-t", "#"});
    Program& hidden = subscriber(1, {"-t", "$x/#"});
    for (const char* topic : {"a", "a/b", "$x/b", "c/b", "b", "a/b/c"}) {
        publish({"-t", topic, "-m", "m"});
    }
    expectOutput(several, "a m\na/b m\nc/b m\na/b/c m\n");
    expectOutput(everything, "a m\na/b m\nc/b m\nb m\na/b/c m\n");
    expectOutput(hidden, "$x/b m\n");
}

// That the filter is gone only the client's own statements tell, which must come line by line.
TEST_F(MosquittoTest, Unsubscribe)
{
    Program receiver("/usr/bin/stdbuf",
                     atServer({"-d", "-v", "-C", "1", "-W", "30", "-t", "left/#", "-t", "stays/#", "-U", "left/#"},
                              {"-oL", found("mosquitto_sub")}));
    ASSERT_TRUE(receiver.waitFor("received UNSUBACK")) << receiver.output();
    publish({"-t", "left/1", "-m", "never"});
    publish({"-t", "stays/1", "-m", "here"});
    EXPECT_EQ(receiver.wait(), 0);
    EXPECT_NE(receiver.output().find("\nstays/1 here\n"), std::string::npos) << receiver.output();
    EXPECT_EQ(receiver.output().find("left/1"), std::string::npos) << receiver.output();
}

TEST_F(MosquittoTest, LargePayload)
{
    std::mt19937 engine(1);
    std::string payload(900 * 1024, '\0');
    for (char& c : payload) {
        c = static_cast<char>('!' + engine() % 90);
    }
    std::string name = testing::TempDir() + uniqueName("payload");
    std::ofstream(name, std::ios::binary) << payload;
    for (const char* qos : {"0", "1"}) {
        Program& receiver = subscriber(1, {"-t", "large", "-q", qos});
        publish({"-t", "large", "-q", qos, "-f", name});
        EXPECT_EQ(receiver.wait(), 0);
        EXPECT_TRUE(receiver.output() == "large " + payload + "\n");
    }
    std::filesystem::remove(name);
}

TEST_F(MosquittoTest, HundredSubscribers)
{
    for (int i = 0; i < 100; i++) {
        subscriber(1, {"-t", "everybody", "-q", i % 2 == 0 ? "0" : "1"});
    }
    publish({"-t", "everybody", "-m", "hello", "-q", "1"});
    for (Program& program : programs_) {
        expectOutput(program, "everybody hello\n");
    }
}

} // namespace

#endif
