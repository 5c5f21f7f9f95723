// logger_bench.cpp - a statement stopped by its level, and one to nowhere, to a file and to rolling files, beside
// spdlog's synchronous logger with the same layout and the same rule: a flush after every statement.

#include "korutil/korLogger.h"

#include <benchmark/benchmark.h>

#ifdef KOR_HAVE_SPDLOG
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <filesystem>
#include <memory>
#include <mutex>

namespace {

constexpr uint64_t rollingSize = 1000000;
constexpr uint32_t rollingFiles = 3;
constexpr uint8_t component = 5;

std::string freshPrefix(const char* name)
{
    auto folder = std::filesystem::temp_directory_path() / "korutil_logger_bench";
    std::filesystem::create_directories(folder);
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::filesystem::remove(entry.path());
    }
    return (folder / name).string();
}

// ---- The library ----------------------------------------------------------------------------------------------------

// A handler that drops what was laid out.
korHandler nowhere;

void restart()
{
    korEx* ex = korEx_Create();
    _korLogger_Uninitialize(KOR_AT_D(0, ex));
    _korLogger_Initialize(KOR_AT(ex, 0));
    korEx_Destroy(ex);
}

void sendNowhere(const benchmark::State&)
{
    restart();
    nowhere = *_gLogger.defaultHandler;
    nowhere.log = [](korHandler*, const char* statement) { benchmark::DoNotOptimize(statement); };
    _gLogger.currentHandler = &nowhere;
}

void sendToFiles(uint64_t maxSize)
{
    restart();
    korEx* ex = korEx_Create();
    _korLogger_SetLogFiles(KOR_AT(ex, 0), freshPrefix("ours").c_str(), maxSize, rollingFiles);
    korEx_Destroy(ex);
}

void sendToFile(const benchmark::State&)
{
    sendToFiles(INT32_MAX);
}

void sendToRollingFiles(const benchmark::State&)
{
    sendToFiles(rollingSize);
}

void stop(const benchmark::State&)
{
    restart();
}

void ourStopped(benchmark::State& state)
{
    int number = 0;
    for (auto step : state) {
        KOR_LOG(component, KOR_LOG_DEBUG, "order %d of %s is on its way", number++, "the client");
        benchmark::DoNotOptimize(number);
    }
}

// The same through the function itself, its arguments evaluated.
void ourStoppedCall(benchmark::State& state)
{
    int number = 0;
    for (auto step : state) {
        _korLogger_LogExN(component, nullptr, KOR_LOG_DEBUG, nullptr, "order %d of %s is on its way", number++,
                          "the client");
        benchmark::DoNotOptimize(number);
    }
}

void ourStatement(benchmark::State& state)
{
    int number = 0;
    for (auto step : state) {
        KOR_LOG(component, KOR_LOG_INFO, "order %d of %s is on its way", number++, "the client");
    }
}

// ---- spdlog ---------------------------------------------------------------------------------------------------------

#ifdef KOR_HAVE_SPDLOG
class NowhereSink : public spdlog::sinks::base_sink<std::mutex>
{
protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        spdlog::memory_buf_t formatted;
        formatter_->format(message, formatted);
        benchmark::DoNotOptimize(formatted.data());
    }
    void flush_() override {}
};

std::shared_ptr<spdlog::logger> peer;

void usePeer(const std::shared_ptr<spdlog::sinks::sink>& sink)
{
    peer = std::make_shared<spdlog::logger>("exec", sink);
    peer->set_pattern("%Y-%m-%d %H:%M:%S.%e %4l %4n: %v");
    peer->set_level(spdlog::level::info);
    peer->flush_on(spdlog::level::trace);
}

void peerNowhere(const benchmark::State&)
{
    usePeer(std::make_shared<NowhereSink>());
}

void peerToFile(const benchmark::State&)
{
    usePeer(std::make_shared<spdlog::sinks::basic_file_sink_mt>(freshPrefix("peer")));
}

void peerToRollingFiles(const benchmark::State&)
{
    usePeer(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(freshPrefix("peer"), rollingSize, rollingFiles - 1));
}

void peerStopped(benchmark::State& state)
{
    int number = 0;
    for (auto step : state) {
        peer->debug("order {} of {} is on its way", number++, "the client");
        benchmark::DoNotOptimize(number);
    }
}

void peerStatement(benchmark::State& state)
{
    int number = 0;
    for (auto step : state) {
        peer->info("order {} of {} is on its way", number++, "the client");
    }
}
#endif

BENCHMARK(ourStopped)->Name("BM_Log_stopped/korLogger")->Setup(stop);
#ifdef KOR_HAVE_SPDLOG
BENCHMARK(peerStopped)->Name("BM_Log_stopped/spdlog")->Setup(peerNowhere);
#endif
BENCHMARK(ourStoppedCall)->Name("BM_Log_stoppedCall/korLogger")->Setup(stop);

#define STATEMENT(function, name, setup) BENCHMARK(function)->Name(name)->Setup(setup)->ThreadRange(1, 2)->UseRealTime()
STATEMENT(ourStatement, "BM_Log_null/korLogger", sendNowhere);
#ifdef KOR_HAVE_SPDLOG
STATEMENT(peerStatement, "BM_Log_null/spdlog", peerNowhere);
#endif
STATEMENT(ourStatement, "BM_Log_file/korLogger", sendToFile);
#ifdef KOR_HAVE_SPDLOG
STATEMENT(peerStatement, "BM_Log_file/spdlog", peerToFile);
#endif
STATEMENT(ourStatement, "BM_Log_rolling/korLogger", sendToRollingFiles);
#ifdef KOR_HAVE_SPDLOG
STATEMENT(peerStatement, "BM_Log_rolling/spdlog", peerToRollingFiles);
#endif

} // namespace

BENCHMARK_MAIN();
