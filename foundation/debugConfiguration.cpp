// debugConfiguration.cpp - KOR_MEM_DEBUG_CONF: its options, its help, and what is said of it at the start.

#include "foundation/debugConfiguration.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kor::debugAllocator {
namespace {

void printHelp()
{
    fputs("Settings for KOR_MEM_DEBUG_CONF:\n"
          "\tno-track             Don't track memory usage.\n"
          "\tno-scribble          Don't overwrite memory on alloc and free.\n"
          "\tdouble-free          Check for double free's.\n"
          "\tprotect              Use memory fence to detect overruns.\n"
          "\tbackset=n            Prefix this many bytes for under-run detection.\n"
          "\tdisplay-threshold=n  Only show stacks for this many bytes or more.\n"
          "\tdisplay-count-threshold=n  Only show stacks for this many allocations or more.\n"
          "\tchanged-only         Only show stacks that changed in count from last pring.\n"
          "\tup-only              Only show stacks that increased in count from last pring.\n"
          "\tmax-only             Only show stacks that increased in count (bytes is identical) from max pring.\n"
          "\tfree-hold=n          Keep free memory protected for this many seconds.\n"
          "\texcess=n             Report stack when alloc requests more than n bytes.\n"
          "\ttiming=n:m:t         Check hold periods every n*m milliseconds. Print stacks every n*t milliseconds.\n"
          "\tkeep-pools           Keep using pools.\n"
          "\tkeep-pools           Keep using pools.\n"
          "\tfail-alloc-above     fail allocations above this threshold (in bytes).\n"
          "If the only parameter is 'no-track', the only effect is to disable pools.\n"
          "\n",
          stderr);
}

// What stands behind a "name=", or NULL.
const char* findValue(const char* text, const char* name)
{
    const char* found = strstr(text, name);
    return found == nullptr ? nullptr : found + strlen(name);
}

template <typename Number>
void readNumber(const char* text, const char* name, Number& number)
{
    if (const char* value = findValue(text, name)) {
        number = static_cast<Number>(atoll(value));
    }
}

// A number of bytes; a negative one is no limit.
void readLimit(const char* text, const char* name, uint64_t& limit)
{
    if (const char* value = findValue(text, name)) {
        long long read = atoll(value);
        limit = read < 0 ? UINT64_MAX : static_cast<uint64_t>(read);
    }
}

void readTiming(const char* text, Configuration& configuration)
{
    const char* value = findValue(text, "timing=");
    if (value == nullptr) {
        return;
    }
    long long wake;
    long long hold;
    long long print;
    if (sscanf(value, "%lld:%lld:%lld", &wake, &hold, &print) != 3) {
        printHelp();
        return;
    }
    constexpr long long least = 1;
    configuration.wakeMilliseconds = std::clamp<long long>(wake, least, INT32_MAX);
    configuration.holdWakes = std::clamp<long long>(hold, least, INT32_MAX);
    configuration.printWakes = std::clamp<long long>(print, least, INT32_MAX);
}

// In seconds; goes before the number of wakes in "timing".
void readHold(const char* text, Configuration& configuration)
{
    if (const char* value = findValue(text, "free-hold=")) {
        long long seconds = std::clamp<long long>(atoll(value), 0, INT32_MAX);
        configuration.holdWakes = seconds * 1000 / configuration.wakeMilliseconds + 1;
    }
}

void readBackset(const char* text, Configuration& configuration)
{
    constexpr long long most = 1 << 20;
    if (const char* value = findValue(text, "backset=")) {
        configuration.backset += static_cast<uint64_t>(std::clamp<long long>(atoll(value), 0, most));
    }
}

const char* yesOrNo(bool value)
{
    return value ? "true" : "false";
}

const char* named(bool value, const char* name)
{
    return value ? name : "";
}

void printSettings(const Configuration& c)
{
    fprintf(stderr,
            "KOR_MEM_DEBUG_CONF=\"%s%s%s%sbackset=%d, display-threshold=%d, display-count-threshold=%d, free-hold=%d, "
            "changed-only=%s, excess=%" PRIu64 ", up-only=%s, max-only=%s, timing=%" PRId64 ":%" PRId64 ":%" PRId64
            " milliseconds, fail-alloc-above=%" PRIu64 "\n",
            named(!c.track, "no-track, "), named(!c.scribble, "no-scribble, "), named(c.doubleFree, "double-free, "),
            named(c.protect, "protect, "), static_cast<int>(c.backset) - 16, static_cast<int>(c.displayBytes),
            static_cast<int>(c.displayCount), static_cast<int>(c.holdWakes * c.wakeMilliseconds / 1000),
            yesOrNo(c.changedOnly), c.excess, yesOrNo(c.upOnly), yesOrNo(c.maxOnly), c.wakeMilliseconds,
            c.wakeMilliseconds * c.holdWakes, c.wakeMilliseconds * c.printWakes, c.failAbove);
    if (c.protect) {
        fputs("If the system runs out of mappings for \"protect\", raise their number: "
              "echo 128000 > /proc/sys/vm/max_map_count\n",
              stderr);
    }
}

} // namespace

Configuration readConfiguration(const char* text)
{
    Configuration configuration;
    auto has = [text](const char* option) { return strstr(text, option) != nullptr; };
    if (has("help")) {
        printHelp();
    }
    configuration.track = !has("no-track");
    configuration.scribble = !has("no-scribble");
    configuration.doubleFree = has("double-free");
    configuration.protect = has("protect");
    configuration.keepPools = has("keep-pools");
    configuration.externalMemcheck = has("external-memcheck");
    configuration.changedOnly = has("changed-only");
    configuration.upOnly = has("up-only");
    configuration.maxOnly = has("max-only");
    readBackset(text, configuration);
    readNumber(text, "display-threshold=", configuration.displayBytes);
    readNumber(text, "display-count-threshold=", configuration.displayCount);
    readTiming(text, configuration);
    readHold(text, configuration);
    readLimit(text, "excess=", configuration.excess);
    readLimit(text, "fail-alloc-above=", configuration.failAbove);
    return configuration;
}

void printConfiguration(const Configuration& configuration)
{
    if (configuration.isPlain()) {
        fprintf(stderr, "KOR_MEM_DEBUG_CONF: pools are disabled. Reporting excess at %" PRIu64 "\n",
                configuration.excess);
    } else {
        printSettings(configuration);
    }
    fputs("Set KOR_MEM_DEBUG_CONF to \"help\" for help on configuration.\n", stderr);
    fflush(stderr);
}

} // namespace kor::debugAllocator
