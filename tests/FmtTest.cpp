#include <Kelvo/Kelvo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Kelvo::Fmt::Impl;

const bool assertsThrow = (Kelvo::throwOnAssertFailIs(true), true);

std::string built(bool detailed, bool isMember, const char* func, const char* cls,
                  const std::string& text) {
    MessageBuffer buffer;
    buffer.append(fmt::string_view("stale"));
    if (detailed) {
        buildDetailedMessageBuffer(buffer, "a/b.cpp", 578, isMember, func, cls, "{}",
                                   fmt::make_format_args(text));
    } else {
        buildMessageBuffer(buffer, isMember, func, cls, "{}", fmt::make_format_args(text));
    }
    return fmt::to_string(buffer);
}

TEST(MessageBuilders, PrefixesAndLengthsAcrossTheInlineBufferBoundary) {
    for (const size_t length : {0, 1, 499, 500, 501, 2000}) {
        const std::string text(length, 'x');
        EXPECT_EQ(built(false, false, "f", "C", text), text);
        EXPECT_EQ(built(false, true, "initialize", "DebugHandler", text),
                  "DebugHandler::initialize() " + text);
        EXPECT_EQ(built(true, false, nullptr, nullptr, text), "a/b.cpp:578: " + text);
        EXPECT_EQ(built(true, true, "f", "C", text), "a/b.cpp:578: C::f() " + text);
        EXPECT_EQ(vformatstr(true, "f", "C", "{}", fmt::make_format_args(text)), "C::f() " + text);
        EXPECT_EQ(
            vformatstr("x.cpp", 1, false, nullptr, nullptr, "{}", fmt::make_format_args(text)),
            "x.cpp:1: " + text);
    }
}

TEST(MessageBuilders, MemberPrefixNeedsBothNames) {
    for (const auto& [func, cls] : {std::pair<const char*, const char*>{nullptr, "C"},
                                    std::pair<const char*, const char*>{"f", nullptr}}) {
        try {
            built(false, true, func, cls, "m");
            ADD_FAILURE() << "accepted a null name";
        } catch (const Kelvo::AssertException& e) {
            EXPECT_THAT(e.message(), testing::EndsWith(": funcName && className"));
        }
    }
}

}  // namespace
