#include <Kelvo/Kelvo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <thread>

#include "ChildProcess.h"

namespace {

using namespace Kelvo;
using Sarn::DebugControl;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

const bool assertsThrow = (throwOnAssertFailIs(true), true);

uint32_t levelsOf(const String& name) {
    return Platform::getDebugHandler(name)->levels;
}

std::string failure(const std::function<void()>& body) {
    try {
        body();
    } catch (const AssertException& e) {
        return e.message();
    }
    return "no assertion";
}

std::string formatSwitches() {
    CaptureStdout();
    Platform::printAllTraceFormat();
    return GetCapturedStdout();
}

TEST(TraceGrammar, LevelAndNameParsing) {
    const std::map<String, uint32_t> levels = {{"1a3", 0xa}, {"", 0},      {"*", 0x3ff},
                                               {"10", 0x3},  {"9", 0x200}, {"x/y -", 0},
                                               {"0*", 0x3ff}};
    for (const auto& [text, mask] : levels)
        EXPECT_EQ(DebugControl::parseLevels(text), mask) << text;
    const std::vector<std::tuple<String, String, bool>> names = {{"Kelvo*", "Kelvo", true},
                                                                 {"*", "", true},
                                                                 {"a*b", "a*b", false},
                                                                 {"", "", false},
                                                                 {"**", "*", true}};
    for (const auto& [text, name, wild] : names) {
        bool wildcard = !wild;
        EXPECT_EQ(DebugControl::parseName(text, wildcard), name) << text;
        EXPECT_EQ(wildcard, wild) << text;
    }
}

// Malformed TRACE items never crash and mean what the grammar says.
TEST(TraceGrammar, MalformedTraceValues) {
    const String longName(5000, 'L');
    const std::vector<std::pair<String, std::map<String, uint32_t>>> cases = {
        {",,MalA/1,,", {{"MalA", 0x2}}},
        {"MalB/", {{"MalB", 0}}},
        {"MalC/1/2", {{"MalC", 0x6}}},
        {" MalD/1", {{"MalD", 0}, {" MalD", 0x2}}},
        {"MalE/ 1 x", {{"MalE", 0x2}}},
        {"MalF*x/3", {{"MalF*x", 0x8}, {"MalFy", 0}}},
        {"MalG**/2", {{"MalG*z", 0x4}, {"MalGz", 0}}},
        {"MalH/abc,MalH", {{"MalH", 0}}},
        {longName + "/9", {{longName, 0x200}, {longName.substr(1), 0}}},
        {"/,//,*,*/,/*x", {{"MalI", 0}}},
    };
    for (const auto& [spec, expected] : cases) {
        Platform::setupKelvoDebug(spec.c_str());
        for (const auto& [name, mask] : expected)
            EXPECT_EQ(levelsOf(name), mask) << spec;
    }
}

TEST(TraceRegistry, SetIsAdditiveAndReachesLiveHandles) {
    auto live = Platform::getDebugHandler("RegA");
    Platform::setupKelvoDebug("RegA/1,RegA/2");
    EXPECT_EQ(live->levels, 0x6u);
    Platform::setupKelvoDebug("RegA/1,RegA/2");
    EXPECT_EQ(live->levels, 0x6u);
    EXPECT_EQ(levelsOf("RegA"), 0x6u);
    EXPECT_EQ(levelsOf("RegAb"), 0u);  // a specific control is not a prefix
}

TEST(TraceRegistry, WildcardReachesPrefixedControlsAndHandlesButNotFixedOnes) {
    auto live = Platform::getDebugHandler("WildX1");
    auto other = Platform::getDebugHandler("WilX");
    std::shared_ptr<Sarn::DebugHandler> fixed;
    {
        Platform::LocoGuard guard;
        fixed = std::make_shared<Sarn::DebugHandler>("WildFixed", 0x1, true);
    }
    Platform::setupKelvoDebug("WildX2/4,WildXY*/5,Wild*/1");
    EXPECT_EQ(live->levels, 0x2u);
    EXPECT_EQ(other->levels, 0u);
    EXPECT_EQ(fixed->levels, 0x1u);
    EXPECT_EQ(levelsOf("WildX2"), 0x12u);  // specific control under the prefix
    EXPECT_EQ(levelsOf("WildXYZ"), 0x2u);  // smallest prefix "Wild" wins over "WildXY"
    EXPECT_EQ(levelsOf("WildZ"), 0x2u);
}

TEST(TraceRegistry, SmallestMatchingPrefixWinsNotTheLongest) {
    Platform::setupKelvoDebug("PfxAb*/1,PfxAbc*/2");
    EXPECT_EQ(levelsOf("PfxAbcd"), 0x2u);
    Platform::LocoGuard guard;
    EXPECT_EQ(DebugControl::findWildcard("PfxAbcd")->name, "PfxAb");
    EXPECT_EQ(DebugControl::findWildcard("Pfx"), nullptr);
}

TEST(TraceRegistry, ClearRemovesOnlyWithinItsNameAndDropsEmptyControls) {
    auto a = Platform::getDebugHandler("ClrA1");
    auto b = Platform::getDebugHandler("ClrB");
    Platform::setupKelvoDebug("ClrA*/12,ClrA2/3,ClrB/12");
    Platform::clearKelvoDebug("ClrA*/2,ClrA2/1");
    EXPECT_EQ(a->levels, 0x2u);
    EXPECT_EQ(b->levels, 0x6u);
    EXPECT_EQ(levelsOf("ClrA2"), 0x8u);
    Platform::clearKelvoDebug("ClrA*/*");
    EXPECT_EQ(a->levels, 0u);
    CaptureStdout();
    DebugControl::printAll();
    const std::string out = GetCapturedStdout();
    EXPECT_THAT(out, testing::Not(HasSubstr("ClrA")));
    EXPECT_THAT(out, HasSubstr("    ClrB/12\n"));
}

TEST(TraceRegistry, WildcardNameWhenGettingAHandleWarnsAndUsesThePrefix) {
    Platform::setupKelvoDebug("Foo/3");
    CaptureStderr();
    auto h = Platform::getDebugHandler("Foo*");
    EXPECT_EQ(GetCapturedStderr(),
              "Kelvo::Debug - Warning - Wild card specifier ignored getting handler for Foo* using "
              "Foo\n");
    EXPECT_EQ(h->name, "Foo*");
    EXPECT_EQ(h->levels, 0x8u);
}

TEST(TraceRegistry, EnabledIsOnlyOnAHandleThatOwnsItsMask) {
    auto h = Platform::getDebugHandler("EnabledIsH");
    EXPECT_EQ(h->enabledIs(3, true), 0x8u);
    EXPECT_EQ(h->enabledIs(35, true), 0x8u);
    EXPECT_EQ(h->enabledIs(34, true), 0xcu);
    EXPECT_EQ(h->enabledIs(3, false), 0x4u);
    uint32_t external = 0;
    h->levelsPtr = &external;
    EXPECT_THAT(failure([&] { h->enabledIs(1, true); }),
                HasSubstr("Cannot use this with a non-null levelsPtr passed to constructor"));
    h->levelsPtr = &h->levels;
}

TEST(TraceRegistry, PrintAllFormats) {
    auto x = Platform::getDebugHandler("FmtX");
    std::shared_ptr<Sarn::DebugHandler> z;
    {
        Platform::LocoGuard guard;
        z = std::make_shared<Sarn::DebugHandler>("FmtZ", 0x3ff, true);
    }
    Platform::setupKelvoDebug("FmtX/31,FmtY*/*,FmtW*/0123456789");
    CaptureStdout();
    Platform::dumpKelvoDebugMap();
    const std::string out = GetCapturedStdout();
    EXPECT_THAT(out, testing::StartsWith("Handlers:\n"));
    for (const char* line : {"\n    FmtX/13\n", "\n    FmtZ+/*\n", "\nSpecific:\n",
                             "\n    FmtY*/*\n", "\n    FmtW*/*\n"}) {
        EXPECT_THAT(out, HasSubstr(line));
    }
    EXPECT_LT(out.find("Specific:"), out.find("Wildcard:"));
    EXPECT_LT(out.find("Wildcard:"), out.find("FmtY*"));
}

TEST(TraceRegistry, InitializeWithoutTheLocoFails) {
    EXPECT_THAT(failure([] { Sarn::DebugHandler::initialize(); }),
                testing::EndsWith(": DebugHandler::initialize() no loco"));
}

TEST(TraceRegistryDeathTest, InternalsAbortWithoutTheLoco) {
    const auto quote = [](const char* what) {
        return std::string("Kelvo::Platform::loco\\(\\)\\.owns_lock\\(\\) && \"") + what +
               "\\(\\) no loco\"";
    };
    EXPECT_DEATH(DebugControl::initialize(), quote("DebugControl::initialize"));
    EXPECT_DEATH(DebugControl::findWildcard("x"), quote("DebugControl::findWildcard"));
    EXPECT_DEATH(DebugControl("x", 1, false), quote("DebugControl::DebugControl"));
    EXPECT_DEATH(Sarn::DebugHandler("x", 1, false), quote("DebugHandler::DebugHandler"));
    EXPECT_DEATH(
        {
            DebugControl* c;
            {
                Platform::LocoGuard guard;
                c = new DebugControl("DeathCtl", 1, false);
            }
            delete c;
        },
        quote("DebugControl::~DebugControl"));
}

// Trace output into a TRACEFILE of its own.
class TraceOutput : public testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/kelvo-trace-XXXXXX";
        dir_ = ::mkdtemp(dir);
        path_ = dir_ + "/trace";
        ::setenv("TRACEFILE", path_.c_str(), 1);
        Platform::setupKelvoDebug("OutH/3");
        handle_ = Platform::getDebugHandler("OutH");
    }
    void TearDown() override {
        Platform::setTraceFormat("date,time,tid,handle,level");
        std::system(("rm -rf " + dir_).c_str());
    }
    std::vector<std::string> lines() {
        std::istringstream in(KelvoTest::readFile(path_));
        std::vector<std::string> out;
        for (std::string l; std::getline(in, l);)
            out.push_back(l);
        return out;
    }
    std::string dir_, path_;
    std::shared_ptr<Platform::DebugHandler> handle_;
};

struct Traced {
    void member(const std::shared_ptr<Platform::DebugHandler>& h) { KELVO_TRACEM(h, 3, "m{}", 1); }
};

TEST_F(TraceOutput, FieldsAppearInFixedOrderWhateverTheFormatSays) {
    const std::string tid = std::to_string(Kelvo::gettid()), pid = std::to_string(::getpid());
    const std::string date = "[0-9]{4}-[0-9]{2}-[0-9]{2} ",
                      time = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.(0|[1-9][0-9]{0,5}) ";
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"", "msg 7"},
        {"pid,date", date + pid + " msg 7"},
        {"date,time,tid,handle,level", date + time + tid + " OutH 3 msg 7"},
        {"func-name,,line-info,", "DebugTest\\.cpp:[0-9]+ TestBody msg 7"},
        {"level,handle,tid,pid,time,date,func-name",
         date + time + pid + " " + tid + " OutH 3 TestBody msg 7"},
    };
    for (const auto& [format, pattern] : cases) {
        Platform::setTraceFormat(format);
        for (int i = 0; i < 20; ++i)
            KELVO_TRACE(handle_, 3, "msg {}", 7);
    }
    Platform::setTraceFormat("level");
    Traced().member(handle_);
    KELVO_TRACE(handle_, 4, "level 4 is off: {}", [] {
        ADD_FAILURE() << "argument evaluated";
        return 0;
    }());
    const auto got = lines();
    ASSERT_EQ(got.size(), cases.size() * 20 + 1);
    for (size_t i = 0; i < cases.size() * 20; ++i) {
        EXPECT_THAT(got[i], testing::MatchesRegex(cases[i / 20].second));
    }
    EXPECT_EQ(got.back(), "3 Traced::member() m1");
}

// Only a line in the first tenth of a second can show padding: trace until
// one lands there (bounded by the clock, not by sleeping).
TEST_F(TraceOutput, MicrosecondsAreNotPadded) {
    Platform::setTraceFormat("time");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < deadline) {
        struct timeval before, after;
        ::gettimeofday(&before, nullptr);
        KELVO_TRACE(handle_, 3, "x");
        ::gettimeofday(&after, nullptr);
        if (before.tv_sec == after.tv_sec && after.tv_usec < 100000) {
            EXPECT_THAT(lines().back(), testing::MatchesRegex(
                                            "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.(0|[1-9][0-9]{0,4}) x"));
            return;
        }
    }
    ADD_FAILURE() << "no line was traced in the first tenth of a second";
}

TEST_F(TraceOutput, MessagesAreWrittenWholeWhateverTheirBytes) {
    Platform::setTraceFormat("");
    const std::string big(600, 'b');
    KELVO_TRACE(handle_, 3, "{}", big);
    Platform::dumpDebugMsg("a\0b\nc", 5, 3, handle_.get(), nullptr, nullptr, 0);
    Platform::DebugStream stream;
    stream << "streamed " << 5;
    handle_->dump(stream, 3, __FILE__, __LINE__, __func__);
    EXPECT_EQ(KelvoTest::readFile(path_),
              big + "\n" + std::string("a\0b\nc\n", 6) + "streamed 5\n");
}

TEST_F(TraceOutput, TraceFileIsKeptReopenedOrAbandoned) {
    Platform::setTraceFormat("");
    KELVO_TRACE(handle_, 3, "first");
    Platform::setupKelvoDebug("");  // same name: kept open, not truncated
    KELVO_TRACE(handle_, 3, "second");
    EXPECT_EQ(lines(), (std::vector<std::string>{"first", "second"}));
    ::setenv("TRACEFILE", (dir_ + "/other").c_str(), 1);
    Platform::setupKelvoDebug("");
    ::setenv("TRACEFILE", path_.c_str(), 1);
    Platform::setupKelvoDebug("");  // another name again: truncated
    KELVO_TRACE(handle_, 3, "third");
    EXPECT_EQ(lines(), std::vector<std::string>{"third"});

    const std::string bad = dir_ + "/missing/trace";
    ::setenv("TRACEFILE", bad.c_str(), 1);
    CaptureStderr();
    Platform::setupKelvoDebug("");
    KELVO_TRACE(handle_, 3, "to stderr");
    EXPECT_EQ(GetCapturedStderr(), "Error opening TRACEFILE=" + bad +
                                       "\nDefaulting to std::cerr for trace output.\nto stderr\n");
    ::setenv("TRACEFILE", path_.c_str(), 1);
    Platform::setupKelvoDebug("");
}

// Malformed TRACEFORMAT values never crash and keep the previous switches.
TEST_F(TraceOutput, MalformedTraceFormatValues) {
    const std::string invalid =
        " is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n";
    const std::string longField(3000, 'f');
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {",,pid,,", "0 0 1 0 0 0 0 0\n", ""},
        {"line-info,line-info,", "0 0 0 0 0 0 1 0\n", ""},
        {"", "0 0 0 0 0 0 0 0\n", ""},
        {"date,bogus", "1 1 0 1 1 1 0 0\n", "bogus" + invalid},
        {" pid", "1 1 0 1 1 1 0 0\n", " pid" + invalid},
        {"PID", "1 1 0 1 1 1 0 0\n", "PID" + invalid},
        {"pid date", "1 1 0 1 1 1 0 0\n", "pid date" + invalid},
        {"*", "1 1 0 1 1 1 0 0\n", "*" + invalid},
        {longField, "1 1 0 1 1 1 0 0\n", longField + invalid},
        {"help", "1 1 0 1 1 1 0 0\n",
         "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n  pid\n "
         " "
         "tid\n  handle\n  level\n  line-info\n  func-name\n"},
    };
    for (const auto& [format, switches, err] : cases) {
        Platform::setTraceFormat("date,time,tid,handle,level");
        CaptureStderr();
        Platform::setTraceFormat(format.c_str());
        EXPECT_EQ(GetCapturedStderr(), err) << format;
        EXPECT_EQ(formatSwitches(), switches) << format;
    }
    Platform::clearTraceFormat();
    EXPECT_EQ(formatSwitches(), "0 0 0 0 0 0 0 0\n");
}

TEST_F(TraceOutput, AssertionThroughAHandleTracesThenFails) {
    Platform::setTraceFormat("");
    for (Platform::DebugHandler* h :
         {static_cast<Platform::DebugHandler*>(nullptr), handle_.get()}) {
        Platform::DebugStream message;
        message << "broken " << 1;
        try {
            debugAndThrowAssertException(h, 3, message, "f.cpp", "fn", 12);
        } catch (const AssertException& e) {
            EXPECT_EQ(e.message(), "f.cpp:fn:12: broken 1");
        }
    }
    EXPECT_EQ(lines(), std::vector<std::string>{"f.cpp:fn:12: broken 1"});
}

// Eight threads share one TRACEFILE: every line arrives whole, exactly once.
TEST_F(TraceOutput, ConcurrentLinesNeverInterleave) {
    constexpr int threads = 8, perThread = 10000;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([this, t] {
            for (int i = 0; i < perThread; ++i) {
                KELVO_TRACE(handle_, 3, "worker {} line {} {:->60}", t, i, "end");
            }
        });
    }
    for (auto& w : workers)
        w.join();
    const std::string tail = std::string(57, '-') + "end";
    std::vector<std::vector<int>> seen(threads, std::vector<int>(perThread));
    int bad = 0;
    for (const auto& l : lines()) {
        int t = -1, i = -1, used = 0;
        if (std::sscanf(l.c_str(), "%*s %*s %*d OutH 3 worker %d line %d %n", &t, &i, &used) != 2 ||
            t < 0 || t >= threads || i < 0 || i >= perThread || l.compare(used, -1, tail) != 0) {
            ++bad;
            continue;
        }
        ++seen[t][i];
    }
    EXPECT_EQ(bad, 0);
    for (int t = 0; t < threads; ++t) {
        EXPECT_EQ(std::count(seen[t].begin(), seen[t].end(), 1), perThread) << "thread " << t;
    }
}

// What happens at load runs in a child with its own environment.
TEST(TraceAtLoad, EnvironmentIsReadInOrder) {
    const std::string defaults = "1 1 0 1 1 1 0 0\n";
    const struct {
        std::vector<std::string> env;
        std::string out, err;
    } cases[] = {
        {{}, "KelvoTimer 3\nOther 0\nKabc 0\n" + defaults, ""},
        {{"TRACE=Other/9,Ka*/*"}, "KelvoTimer 3\nOther 512\nKabc 1023\n" + defaults, ""},
        {{"TRACE=Other/1,Other/2,Kelvo*/5"}, "KelvoTimer 35\nOther 6\nKabc 0\n" + defaults, ""},
        {{"TRACEFORMAT=pid,date"}, "KelvoTimer 3\nOther 0\nKabc 0\n1 0 1 0 0 0 0 0\n", ""},
        {{"TRACEFORMAT="}, "KelvoTimer 3\nOther 0\nKabc 0\n0 0 0 0 0 0 0 0\n", ""},
        {{"TRACEFORMAT=date,bogus"},
         "KelvoTimer 3\nOther 0\nKabc 0\n" + defaults,
         "bogus is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n"},
    };
    for (const auto& c : cases) {
        const auto r = KelvoTest::runProbe({"levels", "KelvoTimer", "Other", "Kabc"}, c.env);
        EXPECT_TRUE(r.exitedOk());
        EXPECT_EQ(r.out, c.out) << testing::PrintToString(c.env);
        EXPECT_EQ(r.err, c.err) << testing::PrintToString(c.env);
    }
}

TEST(TraceAtLoad, TraceFileFromTheEnvironment) {
    char dir[] = "/tmp/kelvo-load-XXXXXX";
    const std::string base = ::mkdtemp(dir), file = base + "/trace";
    auto r = KelvoTest::runProbe({"trace"}, {"TRACEFILE=" + file, "TRACEFORMAT=handle,level"});
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(KelvoTest::readFile(file), "KelvoProbe 1 hello 42\n");
    r = KelvoTest::runProbe({"trace"}, {"TRACEFILE=" + base + "/no/trace", "TRACEFORMAT="});
    // Reported once, although the load-time set-up applies two settings.
    EXPECT_EQ(r.err, "Error opening TRACEFILE=" + base +
                         "/no/trace\nDefaulting to std::cerr for trace output.\nhello 42\n");
    std::system(("rm -rf " + base).c_str());
}

}  // namespace
