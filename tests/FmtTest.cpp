#include <Kelvo/Kelvo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

namespace {

using namespace Kelvo::Fmt::Impl;

const bool assertsThrow = (Kelvo::throwOnAssertFailIs(true), true);

struct Point {
    int x, y;
};

}  // namespace

template <>
struct fmt::formatter<Point> {
    constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
    auto format(const Point& p, fmt::format_context& ctx) const {
        return Kelvo::Fmtrace::Impl::vformat_to(ctx, "({}, {})", fmt::make_format_args(p.x, p.y));
    }
};

namespace {

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

TEST(MessageBuilders, NestedFormattingAndPrinting) {
    EXPECT_EQ(fmt::format("at {} and {:}", Point{1, 2}, Point{-3, 4}), "at (1, 2) and (-3, 4)");
    char out[64] = {};
    std::FILE* file = fmemopen(out, sizeof out - 1, "w");
    ZuFmt::Impl::vprint(file, "{}-{}", fmt::make_format_args("a", 7));
    std::fclose(file);
    EXPECT_STREQ(out, "a-7");
    testing::internal::CaptureStdout();
    ZuFmt::Impl::vprint("{} {}", fmt::make_format_args(Point{5, 6}, "ok"));
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "(5, 6) ok");
}

}  // namespace
