#include "TestSupport.h"

using namespace KelvoTest;

namespace {

using namespace Kelvo::Fmt::Impl;

// Each builder into a buffer that already holds text, then the string forms.
std::vector<std::string> built(bool isMember, const char* func, const char* cls,
                               const std::string& text) {
    const auto args = fmt::make_format_args(text);
    MessageBuffer plain, detailed;
    plain.append(fmt::string_view("stale"));
    detailed.append(fmt::string_view("stale"));
    buildMessageBuffer(plain, isMember, func, cls, "{}", args);
    buildDetailedMessageBuffer(detailed, "a/b.cpp", 578, isMember, func, cls, "{}", args);
    return {fmt::to_string(plain), fmt::to_string(detailed),
            vformatstr(isMember, func, cls, "{}", args),
            vformatstr("x.cpp", 1, isMember, func, cls, "{}", args)};
}

TEST(MessageBuilders, PrefixesAndLengthsAcrossTheInlineBufferBoundary) {
    for (const size_t length : {0, 1, 499, 500, 501, 2000}) {
        const std::string text(length, 'x'), member = "DebugHandler::initialize() " + text;
        EXPECT_EQ(
            built(false, nullptr, nullptr, text),
            (std::vector<std::string>{text, "a/b.cpp:578: " + text, text, "x.cpp:1: " + text}));
        EXPECT_EQ(built(true, "initialize", "DebugHandler", text),
                  (std::vector<std::string>{member, "a/b.cpp:578: " + member, member,
                                            "x.cpp:1: " + member}));
    }
    for (const auto& [func, cls] :
         {std::pair<const char*, const char*>{nullptr, "C"}, {"f", nullptr}})
        EXPECT_THAT(KelvoTest::thrownMessage([f = func, c = cls] { built(true, f, c, "m"); }),
                    testing::EndsWith(": funcName && className"));
}

// Most messages are written without fmt's parser; whichever way a message is
// built, its text is fmt's own, byte for byte, and fmt's errors stay errors.
TEST(MessageBuilders, EveryMessageReadsAsFmtWritesIt) {
    const double quarter = 3.25;
    auto values = std::tuple(-42, 4294967295u, INT64_MIN, UINT64_MAX, true, 'c', "cstr",
                             std::string("a\0b", 3), quarter, static_cast<const void*>(&quarter));
    const auto args = std::apply([](auto&... v) { return fmt::make_format_args(v...); }, values);
    for (const char* format :
         {"", "text only", "{}", "<{}|{}|{}|{}|{}|{}|{}|{}>", "{}{}{}{}{}{}{}{}{}{}", "{1} {0}",
          "{:>5}|{}", "{{}} {}", "{} }} {{", "a{}b{{", "{}{:x}", "yes, every day: {} by {}y",
          "\x7fyyyyyyyyyyyyyyy{}", "0123456789abcdef{}{{"}) {
        EXPECT_EQ(vformatstr(false, nullptr, nullptr, format, args), fmt::vformat(format, args))
            << format;
    }
    const char* null = nullptr;
    for (const char* format :
         {"{", "}", "{} }", "x {", "{}{}{}{}{}{}{}{}{}{}{}", "0123456789 } x", "0123456789{"}) {
        EXPECT_THROW(vformatstr(false, nullptr, nullptr, format, args), fmt::format_error)
            << format;
    }
    EXPECT_THROW(vformatstr(false, nullptr, nullptr, "{}", fmt::make_format_args(null)),
                 fmt::format_error);
}

}  // namespace
