#include <Kelvo/ReportFormatsCpp.h>

#include <rapidjson/document.h>

#include "TestSupport.h"
#include "TimelineHtml.h"

namespace {

using namespace Kelvo;
using namespace std::chrono_literals;
using namespace KelvoTest;
using P = TaskPriority;
using Type = TaskSchedulerEventType;

// Each run advances the root's clock by its length.
struct Worker : Task {
    TaskTimePoint* clock;
    TaskTimeDuration length;
    Worker(std::shared_ptr<TaskScheduler> s, P priority, const std::string& name,
           TaskTimePoint* now, TaskTimeDuration runLength)
        : Task(std::move(s), priority, name), clock(now), length(runLength) {}
    void taskExecute() override { *clock += length; }
};

// Exit status and merged output of a shell command; 127 when it cannot run.
std::pair<int, std::string> shell(const std::string& command) {
    FILE* p = ::popen((command + " 2>&1").c_str(), "r");
    if (!p)
        return {127, ""};
    std::string out;
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    const int status = ::pclose(p);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128, out};
}

bool haveProgram(const char* name) {
    return shell(std::string("command -v ") + name).first == 0;
}

// A root whose tasks need escaping, at four priorities, with twins of one
// name, a task group with a member, and a completed task. heavy uses 2.5
// quanta (a 2x violation); every run starts 1 ms after the one before ends.
class Formats : public ::testing::Test {
  protected:
    TaskTimePoint now = TaskTimePoint(10s);
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootKelvoNonShared("fmt");
    std::shared_ptr<TaskGroup> group;
    std::vector<std::shared_ptr<Worker>> tasks;

    void SetUp() override {
        root->steadyClockIsForTest([this] { return now; });
        group = TaskGroup::TaskGroupIs("grp", P::low, false, root);
        add(root, P::normal, "heavy \"q\"", 50ms);
        add(root, P::high, "back\\slash", 2ms);
        add(root, P::scavenge, "new\nline", 3ms);
        add(root, P::normal, "twin", 1ms);
        add(root, P::normal, "twin", 1ms);
        add(root, P::normal, "caf\u00e9 \u2713", 4ms);
        add(group, P::low, "member", 5ms);
        for (const auto& t : tasks)
            runOnce(*t);
        runOnce(*add(root, P::high, "gone", 1ms));
        tasks.pop_back();
    }
    std::shared_ptr<Worker> add(std::shared_ptr<TaskScheduler> s, P priority,
                                const std::string& name, TaskTimeDuration length) {
        return tasks.emplace_back(std::make_shared<Worker>(s, priority, name, &now, length));
    }
    void runOnce(Worker& t) {
        t.scheduleTask();
        now += 1ms;
        root->handleSchedulerRun();
    }
    std::string metrics(bool includeCompleted = true, bool classic = false) {
        std::ostringstream out;
        (classic ? statsRenderPrometheusText : statsRenderOpenMetrics)(*root, out, false,
                                                                       includeCompleted);
        return out.str();
    }
    std::string traceEvents() {
        std::ostringstream out;
        historyRenderTraceEvents(*root, out);
        return out.str();
    }
};

TEST_F(Formats, MetricsEscapeLabelsKeepSeriesDistinctAndEndWithEof) {
    const std::string text = metrics();
    const std::string live = "priority=\"normal\",record=\"live\"";
    for (const std::string& line : std::vector<std::string>{
             "kelvo_task_runs_total{scheduler=\"fmt\",task=\"heavy \\\"q\\\"\"," + live +
                 ",index=\"0\"} 1",
             "kelvo_task_run_seconds_total{scheduler=\"fmt\",task=\"back\\\\slash\","
             "priority=\"high\",record=\"live\",index=\"0\"} 0.002",
             "kelvo_task_runs_total{scheduler=\"fmt\",task=\"new\\nline\",priority=\"scavenge\","
             "record=\"live\",index=\"0\"} 1",
             "kelvo_task_runs_total{scheduler=\"fmt\",task=\"caf\u00e9 \u2713\"," + live +
                 ",index=\"0\"} 1",
             "kelvo_task_runs_total{scheduler=\"fmt\",task=\"twin\"," + live + ",index=\"1\"} 1",
             "kelvo_task_quantum_violations_total{scheduler=\"fmt\",task=\"heavy \\\"q\\\"\"," +
                 live + ",index=\"0\",over=\"2x\"} 1",
             "kelvo_task_run_seconds_total{scheduler=\"grp\",task=\"member\",priority=\"low\","
             "record=\"live\",index=\"0\"} 0.005",
             "kelvo_task_completed_total{scheduler=\"fmt\",task=\"H gone\",priority=\"high\","
             "record=\"completed\",index=\"0\"} 1",
             "kelvo_scheduler_tasks{scheduler=\"fmt\",priority=\"normal\",state=\"idle\"} 4",
             "kelvo_scheduler_runs_total{scheduler=\"grp\",priority=\"low\"} 1",
             "# UNIT kelvo_task_latency_high_water_seconds seconds",
         })
        EXPECT_THAT(text, HasSubstr("\n" + line + "\n"));
    EXPECT_EQ(text.find("# EOF"), text.size() - 6);  // once, last
    EXPECT_THAT(metrics(false), Not(HasSubstr("kelvo_task_completed")));

    // No raw newline inside a sample, and no sample repeats its name and labels.
    std::set<std::string> series;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind('#', 0) == 0)
            continue;
        ASSERT_THAT(line, MatchesRegex("kelvo_[a-z_]+\\{.*\\} [0-9.e+-]+")) << line;
        EXPECT_TRUE(series.insert(line.substr(0, line.rfind(' '))).second) << line;
    }
}

// promtool lints the classic text format: it must accept that rendering
// without a finding. The OpenMetrics rendering differs only in the counters'
// family names, which carry no "_total" there: promtool reads their samples
// as families of their own without help, its one allowed finding.
TEST_F(Formats, PromtoolAcceptsTheMetrics) {
    if (!haveProgram("promtool"))
        GTEST_SKIP() << "promtool (package prometheus) is not installed";
    const auto lint = [](const std::string& text) {
        const std::string path = ::testing::TempDir() + "kelvo-metrics.txt";
        std::ofstream(path, std::ios::trunc) << text;
        return shell("timeout 60 promtool check metrics < " + path);
    };
    const std::string classic = metrics(true, true), text = metrics();
    EXPECT_EQ(lint(classic), std::make_pair(0, std::string())) << classic;
    EXPECT_THAT(classic, AllOf(HasSubstr("# TYPE kelvo_task_runs_total counter\n"),
                               Not(HasSubstr("# EOF")), Not(HasSubstr("# UNIT"))));
    const auto [status, out] = lint(text);
    ASSERT_TRUE(status == 0 || status == 3) << out;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const std::string finding = "_total no help text";
        ASSERT_THAT(line, AllOf(StartsWith("kelvo_"), EndsWith(finding)));
        const std::string family = line.substr(0, line.size() - finding.size());
        EXPECT_THAT(text, HasSubstr("# TYPE " + family + " counter\n")) << line;
    }
}

TEST_F(Formats, RunsBecomeCompleteEventsOnOneTrackPerTask) {
    rapidjson::Document doc;
    doc.Parse(traceEvents().c_str());
    ASSERT_TRUE(doc.IsObject());
    EXPECT_STREQ(doc["displayTimeUnit"].GetString(), "ms");
    std::map<int, std::string> trackName;
    std::set<std::string> names;
    std::map<std::string, std::vector<std::pair<double, double>>> runs;
    std::multiset<std::string> instants;  // "track event"
    for (const auto& e : doc["traceEvents"].GetArray()) {
        const std::string ph = e["ph"].GetString(), name = e["name"].GetString();
        EXPECT_EQ(e["pid"].GetInt(), ::getpid());
        if (ph == "M") {
            if (name == "thread_name") {
                const std::string track = e["args"]["name"].GetString();
                EXPECT_TRUE(trackName.emplace(e["tid"].GetInt(), track).second);
                EXPECT_TRUE(names.insert(track).second) << "two tracks for " << track;
            }
            continue;
        }
        ASSERT_TRUE(trackName.count(e["tid"].GetInt())) << name;
        const std::string& track = trackName[e["tid"].GetInt()];
        if (ph == "X") {
            EXPECT_EQ(track, name);
            runs[name].emplace_back(e["ts"].GetDouble(), e["dur"].GetDouble());
        } else {
            ASSERT_EQ(ph, "i");
            EXPECT_STREQ(e["s"].GetString(), "t");
            instants.insert(track + " " + name);
        }
    }
    // heavy ran first, 1 ms after 10 s, for 50 ms; the next run starts 1 ms
    // after its end; the group's parent encloses its member's run.
    using Runs = std::vector<std::pair<double, double>>;
    EXPECT_EQ(runs["heavy \"q\""], (Runs{{10'001'000, 50'000}}));
    EXPECT_EQ(runs["back\\slash"], (Runs{{10'052'000, 2'000}}));
    EXPECT_EQ(runs["twin"].size(), 2u);
    ASSERT_EQ(runs["member"].size(), 1u);
    EXPECT_EQ(runs["member"][0].second, 5'000);
    ASSERT_EQ(runs["TaskGroup;grp"].size(), 1u);
    EXPECT_LE(runs["TaskGroup;grp"][0].first, runs["member"][0].first);
    EXPECT_GE(runs["TaskGroup;grp"][0].second, 5'000);
    EXPECT_EQ(instants.count("gone schedule"), 1u);
    EXPECT_EQ(instants.count("gone delete"), 1u);
}

// Runs cut by the ring's window, built event by event on an empty ring.
TEST_F(Formats, RunsCutByTheWindowAreKeptAndMarked) {
    root->clearHistory();
    TaskSchedulerHistory& ring = *root->history();
    const auto a = ring.stringCache().intern("a"), b = ring.stringCache().intern("b");
    const TaskTimePoint t0(20s);
    ring.insert(t0, Type::runEnd, a);          // its start fell out of the window
    ring.insert(t0 + 1ms, Type::runStart, b);  // b starts again before ending:
    ring.insert(t0 + 3ms, Type::runStart, b);  // the first run closes at 3 ms
    ring.insert(t0 + 4ms, Type::runEnd, b);
    ring.insert(t0 + 5ms, Type::runStart, a);  // still running at now
    now = t0 + 9ms;
    rapidjson::Document doc;
    doc.Parse(traceEvents().c_str());
    std::vector<std::string> seen;
    for (const auto& e : doc["traceEvents"].GetArray()) {
        const std::string ph = e["ph"].GetString();
        if (ph == "M")
            continue;
        std::string s =
            fmt::format("{} {} {} {}", ph, e["name"].GetString(), e["ts"].GetDouble() - 20e6,
                        e.HasMember("dur") ? e["dur"].GetDouble() : -1);
        if (e.HasMember("args"))
            s += e["args"]["open"].GetBool() ? " open" : " closed";
        seen.push_back(s);
    }
    EXPECT_THAT(seen, ElementsAre("i run end 0 -1", "X b 1000 2000 open", "X b 3000 1000",
                                  "X a 5000 4000 open"));
}

// A page renders when every event has a name to escape, with no outside reference.
TEST_F(Formats, TimelinePageIsSelfContainedAndDrawsEveryTrack) {
    const std::string json = traceEvents();
    const std::string page = timelineHtml(json, "fmt <&> \"t\"");
    for (const char* outside : {"http", "src=", "<script", "url(", "@import"})
        EXPECT_THAT(page, Not(HasSubstr(outside)));
    EXPECT_THAT(page, HasSubstr("<title>fmt &lt;&amp;&gt; &quot;t&quot;</title>"));
    EXPECT_THAT(page, HasSubstr("<title>heavy &quot;q&quot;: 50.000 ms at "));
    rapidjson::Document doc;
    doc.Parse(json.c_str());
    size_t tracks = 0;
    for (const auto& e : doc["traceEvents"].GetArray())
        tracks += std::string(e["name"].GetString()) == "thread_name";
    size_t rows = 0;
    for (size_t at = 0; (at = page.find("<g class=\"row\">", at)) != std::string::npos; ++at)
        ++rows;
    EXPECT_EQ(rows, tracks);
    EXPECT_THROW(timelineHtml("{\"traceEvents\":3}", "x"), RuntimeException);
    EXPECT_THROW(timelineHtml("[", "x"), RuntimeException);
}

// The page, drawn by a browser, covers far more than a blank page does: the
// screenshot of a blank page compresses to a few kilobytes.
TEST_F(Formats, TimelinePageRendersInAHeadlessBrowser) {
    if (!haveProgram("chromium"))
        GTEST_SKIP() << "chromium is not installed";
    const std::string dir = ::testing::TempDir() + fmt::format("kelvo-timeline-{}/", ::getpid());
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "page.html") << timelineHtml(traceEvents(), "fmt");
    std::ofstream(dir + "blank.html") << "<!DOCTYPE html><html><body></body></html>";
    std::map<std::string, uintmax_t> shotSize;
    for (const std::string page : {"page", "blank"}) {
        // Its own profile directory, so that runs never meet a browser left running.
        const auto [status, out] = shell(
            "timeout -k 5 120 chromium --headless --no-sandbox --disable-gpu "
            "--user-data-dir=" +
            dir + "profile --screenshot=" + dir + page + ".png --window-size=1200,800 file://" +
            dir + page + ".html");
        ASSERT_TRUE(std::filesystem::exists(dir + page + ".png")) << status << out;
        shotSize[page] = std::filesystem::file_size(dir + page + ".png");
    }
    EXPECT_GT(shotSize["page"], 3 * shotSize["blank"]) << "screenshot is blank";
    std::filesystem::remove_all(dir);
}

}  // namespace
