// korTest.cpp - the checks and guards of korTest.h.

#include "support/korTest.h"

#include "korutil/korProcess.h"

#include <cstring>

namespace kor::test {

std::string describe(const korEx* ex)
{
    std::string text(65536, '\0');
    int32_t length = korEx_ToString(ex, text.data(), static_cast<int32_t>(text.size()));
    text.resize(length > 0 ? static_cast<size_t>(length) - 1 : 0);
    return text;
}

testing::AssertionResult raised(korEx* ex, int32_t code, const char* description)
{
    const char* found = ex->code != 0 ? ex->description : nullptr;
    bool same = ex->code == code && ((found == nullptr) == (description == nullptr)) &&
                (found == nullptr || std::strcmp(found, description) == 0);
    std::string seen = same ? std::string() : describe(ex);
    korEx_Clear(ex);
    if (same) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "wanted code " << code << " with \""
                                       << (description == nullptr ? "(none)" : description) << "\", found:\n"
                                       << seen;
}

testing::AssertionResult clean(korEx* ex)
{
    if (ex->code == 0) {
        return testing::AssertionSuccess();
    }
    std::string seen = describe(ex);
    korEx_Clear(ex);
    return testing::AssertionFailure() << "unexpected error:\n" << seen;
}

namespace {

void setEnvironment(const std::string& name, const char* value)
{
    if (value != nullptr) {
        _kor_setenv(name.c_str(), value);
    } else {
        _kor_unsetenv(name.c_str());
    }
}

} // namespace

EnvironmentGuard::EnvironmentGuard(const char* name, const char* value) : name_(name)
{
    if (const char* before = _kor_getenv(name)) {
        before_ = before;
    }
    setEnvironment(name_, value);
}

EnvironmentGuard::~EnvironmentGuard()
{
    setEnvironment(name_, before_ ? before_->c_str() : nullptr);
}

StreamCapture::StreamCapture(Stream stream) : stream_(stream)
{
    stream_ == out ? testing::internal::CaptureStdout() : testing::internal::CaptureStderr();
}

StreamCapture::~StreamCapture()
{
    if (active_) {
        text();
    }
}

std::string StreamCapture::text()
{
    active_ = false;
    std::fflush(nullptr);
    std::string raw = stream_ == out ? testing::internal::GetCapturedStdout() : testing::internal::GetCapturedStderr();
    std::erase(raw, '\r'); // Windows' text streams
    return raw;
}

namespace {

uint64_t chooseSeed()
{
    if (const char* given = std::getenv("KOR_TEST_SEED")) {
        return std::strtoull(given, nullptr, 0);
    }
    return std::random_device{}();
}

} // namespace

Random::Random()
    : seed_(chooseSeed()), trace_(__FILE__, __LINE__, "KOR_TEST_SEED=" + std::to_string(seed_)), engine_(seed_)
{}

} // namespace kor::test
