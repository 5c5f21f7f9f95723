// loggerTest.h - what the logger's tests share: a system that is fresh for each test, a receiver of statements, a
// folder for files.

#pragma once

#include "support/korTest.h"

#include "korutil/korLogger.h"
#include "korutil/korObjectMap.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

namespace kor::test {

/// Takes statements through a callback; the closure is the receiver itself.
class Receiver
{
public:
    static void callback(korDateTime, const char* statement, void* closure)
    {
        auto* self = static_cast<Receiver*>(closure);
        std::lock_guard guard(self->mutex_);
        self->statements_.emplace_back(statement);
    }

    /// What has come since the last call.
    std::vector<std::string> take()
    {
        std::lock_guard guard(mutex_);
        return std::exchange(statements_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> statements_;
};

using Statements = std::vector<std::string>;

/// The logging system is brought up anew for each test, so that handlers can be set and components registered again.
class LoggerTest : public KorTest
{
protected:
    void SetUp() override
    {
        _korLogger_Uninitialize(KOR_AT_D(0, ex));
        _korLogger_Initialize(KOR_AT(ex, 0));
        ASSERT_CLEAN();
        gLoggingMsgTracingSet = gLoggingMsgFullTracingSet = 0;
    }
    /// No later test logs into a receiver that has gone.
    void TearDown() override
    {
        _korLogger_Uninitialize(KOR_AT_D(0, ex));
        KorTest::TearDown();
    }

    /// Sends the statements of a key, 0 for the global logger, to `receiver`.
    void receive(Receiver& receiver, uint64_t logKey = 0)
    {
        _korLogger_SetLogCallbackForId(KOR_AT(ex, 0), logKey, Receiver::callback, &receiver);
        ASSERT_CLEAN();
    }

    static uint64_t loggerIdOf(uint64_t logKey)
    {
        korLogSourceEx source = {};
        _korLogger_InitializeLogSourceEx(&source, logKey, 1, "%s", "");
        return source.loggerId;
    }
};

/// A folder for the files of one test, gone at its end.
class Folder
{
public:
    Folder()
    {
        static int number = 0;
        auto stamp = std::to_string(std::random_device{}());
        path_ = std::filesystem::temp_directory_path() / ("korlog" + stamp + "_" + std::to_string(++number));
        std::filesystem::create_directory(path_);
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path(const std::string& name) const { return (path_ / name).string(); }
    bool has(const std::string& name) const { return std::filesystem::exists(path_ / name); }

    /// A file's text with plain line ends; empty if there is no such file.
    std::string text(const std::string& name) const
    {
        std::ifstream file(path_ / name, std::ios::binary);
        std::string content{std::istreambuf_iterator<char>(file), {}};
        std::erase(content, '\r');
        return content;
    }
    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(path_ / name, std::ios::binary) << content;
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            found.push_back(entry.path().filename().string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

private:
    std::filesystem::path path_;
};

} // namespace kor::test
