// json_bench.cpp - reading and printing 1 MiB of JSON beside plain cJSON, and what a check costs that finds nothing.
//
// ./bench json. Peers: cJSON of the distribution, called as it is; for a check, the same test of an unordered_map of
// the standard library under a mutex.

#include "korutil/korFailures.h"
#include "korutil/kor_cJSON.h"

#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>

#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>

namespace {

constexpr size_t textSize = 1 << 20;

// Half of them whole numbers of up to 64 bits, half with a point.
std::string makeNumbers()
{
    std::mt19937_64 random(1);
    std::string text = "[0";
    while (text.size() < textSize) {
        uint64_t whole = random() >> random() % 60 >> 1;
        text += ',' + std::to_string(whole);
        text += ',' + std::to_string(whole % 100000) + '.' + std::to_string(random() % 1000000);
    }
    return text + ']';
}

// Of 0 to 39 letters; one in eight with an escape.
std::string makeStrings()
{
    std::mt19937_64 random(2);
    std::string text = "[\"\"";
    while (text.size() < textSize) {
        text += ",\"" + std::string(random() % 40, 'x') + (random() % 8 == 0 ? "\\n\"" : "\"");
    }
    return text + ']';
}

const std::string& textOf(int kind)
{
    static const std::string texts[] = {makeNumbers(), makeStrings()};
    return texts[kind];
}

struct Ours {
    using Item = kor_cJSON;
    static constexpr auto parse = _kor_cJSON_Parse;
    static constexpr auto print = _kor_cJSON_PrintUnformatted;
    static constexpr auto destroy = _kor_cJSON_Delete;
    static constexpr auto release = _kor_cJSON_Free;
};

struct Plain {
    using Item = cJSON;
    static constexpr auto parse = cJSON_Parse;
    static constexpr auto print = cJSON_PrintUnformatted;
    static constexpr auto destroy = cJSON_Delete;
    static constexpr auto release = cJSON_free;
};

// Reading and freeing the tree.
template <class Who, int kind>
void parse(benchmark::State& state)
{
    const std::string& text = textOf(kind);
    for (auto step : state) {
        typename Who::Item* item = Who::parse(text.c_str());
        benchmark::DoNotOptimize(item);
        Who::destroy(item);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

// Printing and freeing the text.
template <class Who, int kind>
void print(benchmark::State& state)
{
    typename Who::Item* item = Who::parse(textOf(kind).c_str());
    for (auto step : state) {
        char* text = Who::print(item);
        benchmark::DoNotOptimize(text);
        Who::release(text);
    }
    Who::destroy(item);
}

void checkUnconfigured(benchmark::State& state)
{
    KOR_EX_LOCAL(ex);
    for (auto step : state) {
        benchmark::DoNotOptimize(_korFailures_Check(KOR_AT(&ex, 0), "absent point"));
    }
}

void checkConfigured(benchmark::State& state)
{
    KOR_EX_LOCAL(ex);
    _korFailures_Open(KOR_AT(&ex, 0), "buf:{\"failures\":[{\"name\":\"other point\"},{\"name\":\"third point\"}]}");
    for (auto step : state) {
        benchmark::DoNotOptimize(_korFailures_Check(KOR_AT(&ex, 0), "absent point"));
    }
}

std::unordered_map<std::string, int>* plainTable;

bool plainCheck(const char* name)
{
    static std::mutex mutex;
    if (plainTable == nullptr) {
        return false;
    }
    std::lock_guard guard(mutex);
    return plainTable->find(name) != plainTable->end();
}

template <bool configured>
void plainChecks(benchmark::State& state)
{
    std::unordered_map<std::string, int> table = {{"other point", 1}, {"third point", 2}};
    plainTable = configured ? &table : nullptr;
    for (auto step : state) {
        benchmark::DoNotOptimize(plainCheck("absent point"));
        benchmark::ClobberMemory();
    }
    plainTable = nullptr;
}

BENCHMARK(parse<Ours, 0>)->Name("BM_Json_parseNumbers/ours/1MiB");
BENCHMARK(parse<Plain, 0>)->Name("BM_Json_parseNumbers/cjson/1MiB");
BENCHMARK(print<Ours, 0>)->Name("BM_Json_printNumbers/ours/1MiB");
BENCHMARK(print<Plain, 0>)->Name("BM_Json_printNumbers/cjson/1MiB");
BENCHMARK(parse<Ours, 1>)->Name("BM_Json_parseStrings/ours/1MiB");
BENCHMARK(parse<Plain, 1>)->Name("BM_Json_parseStrings/cjson/1MiB");
BENCHMARK(print<Ours, 1>)->Name("BM_Json_printStrings/ours/1MiB");
BENCHMARK(print<Plain, 1>)->Name("BM_Json_printStrings/cjson/1MiB");
BENCHMARK(checkUnconfigured)->Name("BM_Json_failureCheckUnconfigured/ours/1"); // before the one that configures
BENCHMARK(plainChecks<false>)->Name("BM_Json_failureCheckUnconfigured/map/1");
BENCHMARK(checkConfigured)->Name("BM_Json_failureCheckOtherName/ours/1");
BENCHMARK(plainChecks<true>)->Name("BM_Json_failureCheckOtherName/map/1");

} // namespace

BENCHMARK_MAIN();
