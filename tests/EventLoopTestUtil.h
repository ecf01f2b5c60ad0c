// Helpers shared by the event-loop suites.
#pragma once

#include <Kelvo/DebugCpp.h>
#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/PlatformCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace KelvoTest {

constexpr double inf = std::numeric_limits<double>::infinity();

// Assertions throw in these suites, so that their messages can be checked.
struct ThrowingAsserts : ::testing::Environment {
    void SetUp() override { Kelvo::throwOnAssertFailIs(true); }
};
inline const auto* const throwingAsserts = ::testing::AddGlobalTestEnvironment(new ThrowingAsserts);

// The message of the assertion that f raises.
template <typename F>
std::string assertMessage(F&& f) {
    try {
        f();
    } catch (const Kelvo::AssertException& e) {
        return e.message();
    }
    return "no assertion";
}

// The trace lines written while f runs with the given TRACE setting.
template <typename F>
std::string traced(const char* spec, F&& f) {
    Kelvo::Platform::setupKelvoDebug(spec);
    ::testing::internal::CaptureStderr();
    f();
    std::string text = ::testing::internal::GetCapturedStderr();
    Kelvo::Platform::clearKelvoDebug(spec);
    return text;
}

// Tests that run with virtual time on (they run on the main thread).
class FastForward : public ::testing::Test {
  protected:
    void SetUp() override { Kelvo::Platform::setFastForward(true); }
    void TearDown() override { Kelvo::Platform::setFastForward(false); }
};

}  // namespace KelvoTest
