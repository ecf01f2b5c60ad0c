#include "TestSupport.h"

#include <sys/time.h>

#include <atomic>

using namespace KelvoTest;

namespace {

using namespace Kelvo;
using Sarn::DebugControl;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Handles = std::vector<std::shared_ptr<Platform::DebugHandler>>;

Handles handles(std::initializer_list<const char*> names) {
    Handles out;
    for (const char* name : names)
        out.push_back(Platform::getDebugHandler(name));
    return out;
}

// "name=mask " for each handle, mask in hex.
std::string masksOf(const Handles& handles) {
    std::string out;
    for (const auto& h : handles)
        out += fmt::format("{}={:x} ", h->name, h->levels.load());
    return out;
}

std::shared_ptr<Sarn::DebugHandler> fixedHandle(const char* name, int levels) {
    Platform::LocoGuard guard;
    return std::make_shared<Sarn::DebugHandler>(name, levels, true);
}

std::string formatSwitches() {
    CaptureStdout();
    Platform::printAllTraceFormat();
    return GetCapturedStdout();
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
        // An item without levels still makes a control that later wildcards reach.
        {"NoLvFoo,NoLvFo*/3,NoLvF*/5", {{"NoLvFoo", 0x28}, {"NoLvFox", 0x20}}},
        {"NoLvA*/1,NoLvAbc,NoLvAb*/2", {{"NoLvAbc", 0x6}, {"NoLvAbx", 0x2}}},
        // From here on the empty prefix, the smallest, shadows every other.
        {"/,//,*,*/,/*x", {{"MalI", 0}}},
        {"MalJ/1a3,MalK/0*,MalL/10", {{"MalJ", 0xa}, {"MalK", 0x3ff}, {"MalL", 0x3}}},
    };
    for (const auto& [traceText, expected] : cases) {
        Platform::setupKelvoDebug(traceText.c_str());
        for (const auto& [name, mask] : expected)
            EXPECT_EQ(Platform::getDebugHandler(name)->levels.load(), mask) << traceText;
    }
    Platform::clearKelvoDebug("*/*");  // else the empty prefix shadows later cases' wildcards
}

// Setting is additive and reaches controls under a wildcard and live handles,
// but not fixed ones; the smallest matching prefix wins, not the longest;
// clearing stays within its name and drops controls it empties.
TEST(TraceRegistry, SetAndClearReachControlsAndLiveHandles) {
    Handles live = handles({"RegA", "WildX1", "WilX", "ClrA1", "ClrB", "FmtX"});
    live.push_back(fixedHandle("WildFixed", 0x1));
    live.push_back(fixedHandle("FmtZ", 0x3ff));
    for (const char* traceText :
         {"RegA/1,RegA/2", "RegA/1,RegA/2", "WildX2/4,WildXY*/5,Wild*/1", "PfxAb*/1,PfxAbc*/2",
          "ClrA*/12,ClrA2/3,ClrB/12", "FmtX/31,FmtY*/*,FmtW*/0123456789"})
        Platform::setupKelvoDebug(traceText);
    Platform::clearKelvoDebug("ClrA*/2,ClrA2/1");
    EXPECT_EQ(masksOf(live), "RegA=6 WildX1=2 WilX=0 ClrA1=2 ClrB=6 FmtX=a WildFixed=1 FmtZ=3ff ");
    EXPECT_EQ(masksOf(handles(
                  {"RegA", "RegAb", "WildX2", "WildXYZ", "WildZ", "PfxAbcd", "Pfx", "ClrA2"})),
              "RegA=6 RegAb=0 WildX2=12 WildXYZ=2 WildZ=2 PfxAbcd=2 Pfx=0 ClrA2=8 ");

    Platform::clearKelvoDebug("ClrA*/*");
    CaptureStdout();
    Platform::dumpKelvoDebugMap();
    std::istringstream dump(GetCapturedStdout());
    // Specific controls are kept unordered: compare each section as a set.
    std::vector<std::pair<std::string, std::set<std::string>>> shown;
    for (std::string line; std::getline(dump, line);) {
        if (line.back() == ':')
            shown.emplace_back(line, std::set<std::string>());
        else if (line.find("Clr") == 4 || line.find("Fmt") == 4)
            shown.back().second.insert(line);
    }
    EXPECT_EQ(shown, (std::vector<std::pair<std::string, std::set<std::string>>>{
                         {"Handlers:", {"    ClrA1/", "    ClrB/12", "    FmtX/13", "    FmtZ+/*"}},
                         {"Specific:", {"    ClrB/12", "    FmtX/13"}},
                         {"Wildcard:", {"    FmtW*/*", "    FmtY*/*"}}}));
}

// A wildcard in a handle's name is warned about and dropped; only a handle
// that owns its mask may change it, a level past 31 wrapping round.
TEST(TraceRegistry, WildcardHandleNameAndEnabledIs) {
    Platform::setupKelvoDebug("Foo/3");
    CaptureStderr();
    auto h = Platform::getDebugHandler("Foo*");
    EXPECT_EQ(GetCapturedStderr(),
              "Kelvo::Debug - Warning - Wild card specifier ignored getting "
              "handler for Foo* using Foo\n");
    EXPECT_EQ((std::vector<uint32_t>{h->levels, h->enabledIs(35, true), h->enabledIs(34, true),
                                     h->enabledIs(3, false)}),
              (std::vector<uint32_t>{0x8, 0x8, 0xc, 0x4}));
    std::atomic<uint32_t> external = 0;
    h->levelsPtr = &external;
    EXPECT_THAT(thrownMessage([&] { h->enabledIs(1, true); }),
                HasSubstr("Cannot use this with a non-null levelsPtr passed to constructor"));
    h->levelsPtr = &h->levels;
}

TEST(TraceRegistryDeathTest, HandlesAndControlsAbortWithoutTheLoco) {
    const std::string loco = "Kelvo::Platform::loco\\(\\)\\.owns_lock\\(\\) && \"";
    EXPECT_DEATH(Sarn::DebugHandler("x", 1, false), loco + "DebugHandler::DebugHandler");
    const auto control = [] {
        Platform::LocoGuard guard;
        return new DebugControl("DeathCtl", 1, false);
    };
    EXPECT_DEATH(delete control(), loco + "DebugControl::~DebugControl\\(\\) no loco");
}

// Trace output into a TRACEFILE of its own.
class TraceOutput : public testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/kelvo-trace-XXXXXX";
        dir_ = ::mkdtemp(dir);
        useFile(path_ = dir_ + "/trace");
        Platform::setupKelvoDebug("OutH/3");
    }
    void TearDown() override {
        Platform::setTraceFormat("date,time,tid,handle,level");
        std::filesystem::remove_all(dir_);
    }
    static void useFile(const std::string& path) {
        ::setenv("TRACEFILE", path.c_str(), 1);
        Platform::setupKelvoDebug("");
    }
    std::vector<std::string> lines() {
        std::istringstream in(readFile(path_));
        std::vector<std::string> out;
        for (std::string l; std::getline(in, l);)
            out.push_back(l);
        return out;
    }
    std::string dir_, path_;
    std::shared_ptr<Platform::DebugHandler> handle_ = Platform::getDebugHandler("OutH");
};

struct Traced {
    void member(const std::shared_ptr<Platform::DebugHandler>& h) { KELVO_TRACEM(h, 3, "m{}", 1); }
};

// Microseconds are not padded: only a line in the first tenth of a second can
// show it, so trace until one lands there (bounded by the clock).
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
    for (size_t i = 0; i < cases.size() * 20; ++i)
        EXPECT_THAT(got[i], MatchesRegex(cases[i / 20].second));
    EXPECT_EQ(got.back(), "3 Traced::member() m1");

    Platform::setTraceFormat("time");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    struct timeval before, after;
    do {
        ::gettimeofday(&before, nullptr);
        KELVO_TRACE(handle_, 3, "x");
        ::gettimeofday(&after, nullptr);
    } while ((before.tv_sec != after.tv_sec || after.tv_usec >= 100000) &&
             std::chrono::steady_clock::now() < deadline);
    ASSERT_LT(after.tv_usec, 100000) << "no line was traced in the first tenth of a second";
    EXPECT_THAT(lines().back(), MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.(0|[1-9][0-9]{0,4}) x"));
}

// Whatever the bytes or length, and whichever way it is traced (an assertion
// through a handle too, which then throws), a message is written whole; a kept
// file is not truncated, a reopened one is. The observer sees every line with
// its handle, level and message, and decides whether it still reaches the file.
TEST_F(TraceOutput, MessagesTheirObserverAndTheFileTheyGoTo) {
    Platform::setTraceFormat("");
    const std::string big(600, 'b');
    KELVO_TRACE(handle_, 3, "{}", big);
    Platform::dumpDebugMsg("a\0b\nc", 5, 3, handle_.get(), nullptr, nullptr, 0);
    useFile(path_);
    Platform::DebugStream stream;
    stream << "streamed " << 5;
    handle_->dump(stream, 3, __FILE__, __LINE__, __func__);
    for (Platform::DebugHandler* h : {static_cast<Platform::DebugHandler*>(nullptr), handle_.get()})
        EXPECT_EQ(
            thrownMessage([&] { debugAndThrowAssertException(h, 3, stream, "f.cpp", "fn", 12); }),
            "f.cpp:fn:12: streamed 5");
    EXPECT_EQ(readFile(path_),
              big + "\n" + std::string("a\0b\nc\n", 6) + "streamed 5\nf.cpp:fn:12: streamed 5\n");

    useFile(dir_ + "/other");
    useFile(path_);
    std::vector<std::string> seen;
    auto observe = [](void* context, const Platform::ObservedTraceLine& line) {
        static_cast<std::vector<std::string>*>(context)->push_back(
            fmt::format("{}|{}|{}|{}", line.handle ? line.handle->name : "-", line.level, line.line,
                        line.message));
        return line.message != "kept 1";
    };
    Platform::setTraceFormat("handle,level");
    Platform::traceLineObserverIs({observe, &seen});
    KELVO_TRACE(handle_, 3, "kept {}", 1);
    KELVO_TRACE(handle_, 3, "withheld");
    Platform::dumpDebugMsg("raw", 3, 3, nullptr, nullptr, nullptr, 0);
    Platform::traceLineObserverIs({});
    KELVO_TRACE(handle_, 3, "unobserved");
    EXPECT_THAT(seen, ElementsAre("OutH|3|OutH 3 kept 1|kept 1", "OutH|3|OutH 3 withheld|withheld",
                                  "-|3|3 raw|raw"));
    EXPECT_EQ(lines(), (std::vector<std::string>{"OutH 3 kept 1", "OutH 3 unobserved"}));
}

// Malformed TRACEFORMAT values never crash and keep the previous switches.
TEST_F(TraceOutput, MalformedTraceFormatValues) {
    const std::string invalid =
        " is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information.\n";
    const std::string kept = "1 1 0 1 1 1 0 0\n";
    std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {",,pid,,", "0 0 1 0 0 0 0 0\n", ""},
        {"line-info,line-info,", "0 0 0 0 0 0 1 0\n", ""},
        {"", "0 0 0 0 0 0 0 0\n", ""},
        {"date,bogus", kept, "bogus" + invalid},
        {"help", kept,
         "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n  pid\n"
         "  tid\n  handle\n  level\n  line-info\n  func-name\n"},
    };
    // Fields are neither trimmed nor case-folded, nor split at spaces.
    for (const std::string& bad :
         std::vector<std::string>{" pid", "PID", "pid date", "*", std::string(3000, 'f')})
        cases.emplace_back(bad, kept, bad + invalid);
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

// Eight threads share one TRACEFILE while levels and fields change under them:
// every line arrives whole, each always-on line exactly once, and each shows a
// field set that some setting had (ThreadSanitizer checks the unlocked reads of
// mask and switches).
TEST_F(TraceOutput, ConcurrentLinesStayWholeWhileSettingsChange) {
    constexpr int threads = 8, perThread = 10000;
    Platform::setTraceFormat("");
    std::atomic<int> running = threads;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([this, t, &running] {
            for (int i = 0; i < perThread; ++i) {
                KELVO_TRACE(handle_, 3, "#{} {:->60}", t * perThread + i, "end");
                KELVO_TRACE(handle_, 4, "toggled");
            }
            --running;
        });
    for (int i = 0; running > 0; ++i) {
        Platform::setupKelvoDebug("OutH/4");
        Platform::setTraceFormat(i % 2 ? "level" : "");
        Platform::clearKelvoDebug("OutH/4");
        handle_->enabledIs(4, i % 3 == 0);
    }
    for (auto& w : workers)
        w.join();
    std::multiset<std::string> numbered, expected;
    for (const std::string& l : lines())
        if (l != "toggled" && l != "4 toggled")
            numbered.insert(l.substr(l.starts_with("3 ") ? 2 : 0));
    for (int i = 0; i < threads * perThread; ++i)
        expected.insert(fmt::format("#{} {:->60}", i, "end"));
    EXPECT_TRUE(numbered == expected) << numbered.size() << " lines";
}

// What happens at load runs in a child with its own environment. A bad
// TRACEFILE is reported once, although the load-time set-up applies two
// settings; a FIFO without a reader cannot be opened at once, and must not block.
TEST(TraceAtLoad, EnvironmentIsReadInOrder) {
    const std::string levels = "KelvoTimer 3\nOther 0\nKabc 0\n", defaults = "1 1 0 1 1 1 0 0\n";
    const std::vector<std::tuple<std::vector<std::string>, std::string, std::string>> cases = {
        {{}, levels + defaults, ""},
        {{"TRACE=Other/9,Ka*/*"}, "KelvoTimer 3\nOther 512\nKabc 1023\n" + defaults, ""},
        {{"TRACE=Other/1,Other/2,Kelvo*/5"}, "KelvoTimer 35\nOther 6\nKabc 0\n" + defaults, ""},
        {{"TRACEFORMAT="}, levels + "0 0 0 0 0 0 0 0\n", ""},
    };
    for (const auto& [env, out, err] : cases) {
        const auto r = runProbe({"levels", "KelvoTimer", "Other", "Kabc"}, env);
        EXPECT_EQ(r.text(), out + err + "exit 0") << testing::PrintToString(env);
    }
    char dir[] = "/tmp/kelvo-load-XXXXXX";
    const std::string base = ::mkdtemp(dir), file = base + "/trace", fifo = base + "/fifo";
    auto r = runProbe({"trace"}, {"TRACEFILE=" + file, "TRACEFORMAT=handle,level"});
    EXPECT_EQ(r.text() + readFile(file), "exit 0KelvoProbe 1 hello 42\n");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& bad : {base + "/no/trace", fifo})
        EXPECT_EQ(runProbe({"trace"}, {"TRACEFILE=" + bad, "TRACEFORMAT="}).text(),
                  "Error opening TRACEFILE=" + bad +
                      "\nDefaulting to std::cerr for trace output.\nhello 42\nexit 0");
    std::filesystem::remove_all(base);
}

}  // namespace
