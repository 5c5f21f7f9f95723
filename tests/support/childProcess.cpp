// childProcess.cpp - starting programs, on both systems, with their output in a pipe.

#include "support/childProcess.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
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

struct ProcessHandles {
    HANDLE process = nullptr;
    HANDLE output = nullptr;
};

namespace {

// A fault ends the process with its code. The system's debugger, which would come otherwise, opens a desktop of its
// own; that inherits the output's pipe and keeps it open long after the process has gone.
LONG WINAPI endAtOnce(EXCEPTION_POINTERS* fault)
{
    std::fprintf(stderr, "fault %08lx\n", fault->ExceptionRecord->ExceptionCode);
    TerminateProcess(GetCurrentProcess(), fault->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

[[maybe_unused]] const auto formerFilter = SetUnhandledExceptionFilter(endAtOnce);

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

std::string thisProgram()
{
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    return program;
}

// No argument may have a quotation mark or end with a backslash.
std::unique_ptr<ProcessHandles> start(const std::string& program, const std::vector<std::string>& arguments,
                                      const std::map<std::string, std::string>& environment)
{
    auto handles = std::make_unique<ProcessHandles>();
    std::string command = "\"" + program + "\"";
    for (const std::string& argument : arguments) {
        command += " \"" + argument + "\"";
    }
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE written;
    CreatePipe(&handles->output, &written, &inheritable, 0);
    SetHandleInformation(handles->output, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOA start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = written;
    start.hStdError = written;
    PROCESS_INFORMATION started = {};
    if (CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, TRUE, 0, environmentBlock(environment).data(),
                       nullptr, &start, &started)) {
        handles->process = started.hProcess;
        CloseHandle(started.hThread);
    }
    CloseHandle(written);
    return handles;
}

// Gives 0 at the end of the output.
size_t readOutput(ProcessHandles* handles, char* text, size_t size)
{
    DWORD length = 0;
    return ReadFile(handles->output, text, static_cast<DWORD>(size), &length, nullptr) ? length : 0;
}

void sendSignal(ProcessHandles* handles, int)
{
    if (handles->process != nullptr) {
        TerminateProcess(handles->process, 1);
    }
}

int finish(ProcessHandles* handles)
{
    CloseHandle(handles->output);
    if (handles->process == nullptr) {
        return -1;
    }
    DWORD code;
    WaitForSingleObject(handles->process, INFINITE);
    GetExitCodeProcess(handles->process, &code);
    CloseHandle(handles->process);
    return static_cast<int>(code);
}

} // namespace

#else

struct ProcessHandles {
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

std::string thisProgram()
{
    return "/proc/self/exe";
}

std::unique_ptr<ProcessHandles> start(const std::string& program, std::vector<std::string> arguments,
                                      const std::map<std::string, std::string>& environment)
{
    auto handles = std::make_unique<ProcessHandles>();
    arguments.insert(arguments.begin(), program);
    std::vector<std::string> variables = environmentOf(environment);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return handles;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    if (posix_spawn(&handles->process, program.c_str(), &actions, nullptr, pointersTo(arguments).data(),
                    pointersTo(variables).data()) != 0) {
        handles->process = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    handles->output = ends[0];
    return handles;
}

// Gives 0 at the end of the output.
size_t readOutput(ProcessHandles* handles, char* text, size_t size)
{
    ssize_t length = read(handles->output, text, size);
    return length > 0 ? static_cast<size_t>(length) : 0;
}

void sendSignal(ProcessHandles* handles, int number)
{
    if (handles->process > 0) {
        kill(handles->process, number);
    }
}

int finish(ProcessHandles* handles)
{
    close(handles->output);
    int status;
    bool ended = handles->process > 0 && waitpid(handles->process, &status, 0) > 0 && WIFEXITED(status);
    return ended ? WEXITSTATUS(status) : -1;
}

} // namespace

#endif

Program::Program(const std::string& path, const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment)
    : handles_(start(path, arguments, environment)), collector_([this] { collect(); })
{}

void Program::collect()
{
    char text[4096];
    while (size_t length = readOutput(handles_.get(), text, sizeof text)) {
        std::lock_guard lock(mutex_);
        output_.append(text, length);
        std::erase(output_, '\r');
        changed_.notify_all();
    }
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

namespace {

constexpr auto patience = std::chrono::minutes(3);
constexpr int killing = 9; // SIGKILL, which Windows has no name for

size_t count(const std::string& whole, const std::string& part)
{
    size_t found = 0;
    for (size_t at = whole.find(part); at != std::string::npos; at = whole.find(part, at + part.size())) {
        found++;
    }
    return found;
}

} // namespace

bool Program::waitFor(const std::string& text, size_t times)
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] { return ended_ || count(output_, text) >= times; });
    return count(output_, text) >= times;
}

void Program::signal(int number)
{
    sendSignal(handles_.get(), number);
}

int Program::wait()
{
    if (waited_) {
        return exitCode_;
    }
    waited_ = true;
    std::unique_lock lock(mutex_);
    bool ended = changed_.wait_for(lock, patience, [&] { return ended_; });
    lock.unlock();
    if (!ended) {
        sendSignal(handles_.get(), killing);
    }
    collector_.join();
    int code = finish(handles_.get());
    exitCode_ = ended ? code : -1;
    return exitCode_;
}

std::string Program::output()
{
    std::lock_guard lock(mutex_);
    return output_;
}

Program::~Program()
{
    if (!waited_) {
        sendSignal(handles_.get(), killing);
    }
    wait();
}

ChildProcess::ChildProcess(const std::string& filter, const std::map<std::string, std::string>& environment)
    : Program(thisProgram(), {"--gtest_also_run_disabled_tests", "--gtest_filter=" + filter}, environment)
{}

ChildProcess::~ChildProcess()
{
    wait();
}

std::string besideThisProgram(const std::string& relative)
{
    auto folder = std::filesystem::canonical(thisProgram()).parent_path();
    return (folder / relative).lexically_normal().make_preferred().string();
}

std::string uniqueName(const std::string& stem)
{
    static const auto ofProcess = std::to_string(std::random_device{}());
    static std::atomic<int> calls;
    return stem + "-" + ofProcess + "-" + std::to_string(++calls);
}

} // namespace kor::test
