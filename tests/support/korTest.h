// korTest.h - what every test stands on: a fresh exception object, checks that print what they saw, guards for the
// process's environment and streams, and a source of random numbers whose seed is told.

#pragma once

#include "korutil/korEx.h"
#include "korutil/korText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <random>
#include <string>

namespace kor::test {

/// Code, description and trace of an exception, for a failed check.
std::string describe(const korEx* ex);

/// True if `ex` holds `code` with exactly `description` (NULL: none). The error is cleared, so that a test can go on.
testing::AssertionResult raised(korEx* ex, int32_t code, const char* description);

/// True if `ex` holds no error. An error is cleared.
testing::AssertionResult clean(korEx* ex);

/// A test with an exception object of its own; ends with a check that no error was left behind.
class KorTest : public testing::Test
{
protected:
    KorTest() : ex(korEx_Create()) {}
    ~KorTest() override { korEx_Destroy(ex); }
    void TearDown() override { EXPECT_TRUE(clean(ex)); }

    korEx* ex;
};

#define EXPECT_RAISED(code, description) EXPECT_TRUE(::kor::test::raised(ex, code, description))
#define EXPECT_CLEAN() EXPECT_TRUE(::kor::test::clean(ex))
#define ASSERT_CLEAN() ASSERT_TRUE(::kor::test::clean(ex))

/// Sets or, with NULL, unsets an environment variable until the end of the scope.
class EnvironmentGuard
{
public:
    EnvironmentGuard(const char* name, const char* value);
    ~EnvironmentGuard();
    EnvironmentGuard(const EnvironmentGuard&) = delete;
    EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;

private:
    std::string name_;
    std::optional<std::string> before_;
};

/// Collects what is written to a stream of the process, by whatever module, from construction to text().
class StreamCapture
{
public:
    enum Stream { out, error };
    explicit StreamCapture(Stream stream);
    ~StreamCapture();
    std::string text(); ///< ends the capture and gives what was written, with plain line ends
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;

private:
    Stream stream_;
    bool active_ = true;
};

/// Random numbers for a model check. The seed is new for each run, KOR_TEST_SEED sets it, and a failing test prints it.
class Random
{
public:
    Random();
    uint64_t next() { return engine_(); }
    /// Uniform in [0, bound).
    uint64_t below(uint64_t bound) { return engine_() % bound; }
    /// True in `percent` of a hundred draws.
    bool chance(unsigned percent) { return below(100) < percent; }

private:
    uint64_t seed_;
    testing::ScopedTrace trace_;
    std::mt19937_64 engine_;
};

} // namespace kor::test
