// childProcess.cpp - starting this program again, on both systems, with its output in a pipe.

#include "support/childProcess.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace kor::test {

#ifdef _WIN32

struct ChildProcess::Handles {
    HANDLE process = nullptr;
    HANDLE output = nullptr;
};

namespace {

// This process's environment with the child's variables behind it, in the system's form: texts one behind the other.
std::string environmentBlock(const std::map<std::string, std::string>& added)
{
    std::string block;
    char* own = GetEnvironmentStringsA();
    for (const char* text = own; *text != '\0'; text += strlen(text) + 1) {
        block.append(text, strlen(text) + 1);
    }
    FreeEnvironmentStringsA(own);
    for (const auto& [name, value] : added) {
        block += name + "=" + value + '\0';
    }
    return block + '\0';
}

} // namespace

ChildProcess::ChildProcess(const std::string& filter, const std::map<std::string, std::string>& environment)
    : handles_(std::make_unique<Handles>())
{
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string command = "\"" + std::string(program) + "\" --gtest_also_run_disabled_tests --gtest_filter=" + filter;
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE written;
    CreatePipe(&handles_->output, &written, &inheritable, 0);
    SetHandleInformation(handles_->output, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = written;
    start.hStdError = written;
    PROCESS_INFORMATION started = {};
    if (CreateProcessA(program, command.data(), nullptr, nullptr, TRUE, 0, environmentBlock(environment).data(),
                       nullptr, &start, &started)) {
        handles_->process = started.hProcess;
        CloseHandle(started.hThread);
    }
    CloseHandle(written);
}

int ChildProcess::wait()
{
    if (waited_) {
        return exitCode_;
    }
    waited_ = true;
    char text[4096];
    DWORD length;
    while (ReadFile(handles_->output, text, sizeof text, &length, nullptr) && length > 0) {
        output_.append(text, length);
    }
    std::erase(output_, '\r');
    CloseHandle(handles_->output);
    if (handles_->process != nullptr) {
        DWORD code;
        WaitForSingleObject(handles_->process, INFINITE);
        GetExitCodeProcess(handles_->process, &code);
        CloseHandle(handles_->process);
        exitCode_ = static_cast<int>(code);
    }
    return exitCode_;
}

#else

struct ChildProcess::Handles {
    pid_t process = -1;
    int output = -1;
};

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// The child's variables before this process's own, since the first of a name counts.
std::vector<std::string> environmentOf(const std::map<std::string, std::string>& added)
{
    std::vector<std::string> texts;
    for (const auto& [name, value] : added) {
        texts.push_back(name + "=" + value);
    }
    for (char** own = environ; *own != nullptr; own++) {
        texts.emplace_back(*own);
    }
    return texts;
}

} // namespace

ChildProcess::ChildProcess(const std::string& filter, const std::map<std::string, std::string>& environment)
    : handles_(std::make_unique<Handles>())
{
    std::vector<std::string> arguments = {"child", "--gtest_also_run_disabled_tests", "--gtest_filter=" + filter};
    std::vector<std::string> variables = environmentOf(environment);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    if (posix_spawn(&handles_->process, "/proc/self/exe", &actions, nullptr, pointersTo(arguments).data(),
                    pointersTo(variables).data()) != 0) {
        handles_->process = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    handles_->output = ends[0];
}

int ChildProcess::wait()
{
    if (waited_) {
        return exitCode_;
    }
    waited_ = true;
    char text[4096];
    ssize_t length;
    while ((length = read(handles_->output, text, sizeof text)) > 0) {
        output_.append(text, static_cast<size_t>(length));
    }
    close(handles_->output);
    int status;
    if (handles_->process > 0 && waitpid(handles_->process, &status, 0) > 0 && WIFEXITED(status)) {
        exitCode_ = WEXITSTATUS(status);
    }
    return exitCode_;
}

#endif

ChildProcess::~ChildProcess()
{
    wait();
}

std::string uniqueName(const std::string& stem)
{
    static const auto ofProcess = std::to_string(std::random_device{}());
    static std::atomic<int> calls;
    return stem + "-" + ofProcess + "-" + std::to_string(++calls);
}

} // namespace kor::test
