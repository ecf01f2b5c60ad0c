// kelvo top: a daemon's busiest tasks, refreshed every second, in the manner
// of top(1): the alternate screen with the cursor hidden, 'q' quits, and the
// terminal is restored on every way out (q, SIGINT, SIGTERM, a failure).
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <optional>

#include "Tool.h"

namespace KelvoTool {

namespace {

constexpr const char* topHelp =
    "usage: kelvo top <name|pid> [-d SECONDS] [-n FRAMES]\n"
    "\n"
    "Shows the daemon's tasks that ran longest in the last interval, with their\n"
    "runs, run time, share of the interval and scheduling latency, and per\n"
    "priority the task counts, runs and latency high-water mark. The first\n"
    "frame counts from the tasks' start. On a terminal it refreshes until 'q'\n"
    "or Ctrl-C; otherwise it prints one frame.\n"
    "\n"
    "  -d SECONDS  time between frames (default 1)\n"
    "  -n FRAMES   stop after this many frames\n";

constexpr const char* priorities[] = {"absolute", "high", "normal", "low", "scavenge"};

struct TaskRow {
    String name, scheduler, priority;
    uint32_t runCount = 0;
    double runTime = 0, lastLatency = 0, latencyHighWater = 0;
    uint32_t violations = 0;
};

struct PriorityRow {
    uint32_t runnable = 0, idle = 0, completed = 0, runs = 0;
    double latencyHighWater = 0;
};

// One fetched report, reduced to what a frame shows.
struct Sample {
    std::chrono::steady_clock::time_point when;
    std::map<String, TaskRow> tasks;  // by scheduler path and task address
    std::map<String, PriorityRow> byPriority;
    double slipHighWater = 0;
};

uint32_t u32(const rapidjson::Value& object, const char* key) {
    const auto member = object.FindMember(key);
    return member != object.MemberEnd() && member->value.IsUint() ? member->value.GetUint() : 0;
}

double seconds(const rapidjson::Value& object, const char* key) {
    const auto member = object.FindMember(key);
    return member != object.MemberEnd() && member->value.IsNumber() ? member->value.GetDouble() : 0;
}

String text(const rapidjson::Value& object, const char* key) {
    const auto member = object.FindMember(key);
    return member != object.MemberEnd() && member->value.IsString()
               ? String(member->value.GetString(), member->value.GetStringLength())
               : String();
}

void addScheduler(Sample& sample, const rapidjson::Value& scheduler, const String& path) {
    if (!scheduler.IsObject())
        return;
    sample.slipHighWater = std::max(sample.slipHighWater, seconds(scheduler, "maxSchedulerSlip"));
    const auto stats = scheduler.FindMember("priorityStats");
    if (stats != scheduler.MemberEnd() && stats->value.IsObject()) {
        for (const char* priority : priorities) {
            const auto row = stats->value.FindMember(priority);
            if (row == stats->value.MemberEnd() || !row->value.IsObject())
                continue;
            PriorityRow& sum = sample.byPriority[priority];
            sum.runnable += u32(row->value, "runnableTasks");
            sum.idle += u32(row->value, "idleTasks");
            sum.completed += u32(row->value, "completedTasks");
            sum.runs += u32(row->value, "totalRunCount");
        }
    }
    const auto tasks = scheduler.FindMember("tasks");
    if (tasks != scheduler.MemberEnd() && tasks->value.IsObject()) {
        const auto list = tasks->value.FindMember("tasks");
        if (list != tasks->value.MemberEnd() && list->value.IsArray()) {
            for (const auto& task : list->value.GetArray()) {
                if (!task.IsObject())
                    continue;
                TaskRow row{text(task, "name"),
                            path,
                            text(task, "priority"),
                            u32(task, "runCount"),
                            seconds(task, "totalRunTime"),
                            seconds(task, "lastSchedulingLatency"),
                            seconds(task, "schedulingLatencyHighWaterMark"),
                            u32(task, "qv200") + u32(task, "qv500")};
                PriorityRow& sum = sample.byPriority[row.priority];
                sum.latencyHighWater = std::max(sum.latencyHighWater, row.latencyHighWater);
                sample.tasks[path + "\n" + text(task, "address")] = std::move(row);
            }
        }
    }
    const auto subs = scheduler.FindMember("subSchedulers");
    if (subs != scheduler.MemberEnd() && subs->value.IsObject()) {
        for (const auto& sub : subs->value.GetObject())
            addScheduler(sample, sub.value, text(sub.value, "schedulerName"));
    }
}

Sample parse(const String& json, const String& target) {
    rapidjson::Document document;
    document.Parse(json.c_str(), json.size());
    if (document.HasParseError() || !document.IsObject() || !document.HasMember("schedulers") ||
        !document["schedulers"].IsObject())
        throw Failure(target + ": the JSON report cannot be read");
    Sample sample;
    sample.when = std::chrono::steady_clock::now();
    for (const auto& scheduler : document["schedulers"].GetObject())
        addScheduler(sample, scheduler.value, text(scheduler.value, "schedulerName"));
    return sample;
}

String fitted(const String& s, size_t width) {
    return s.size() <= width ? s : s.substr(0, width ? width - 1 : 0) + "~";
}

String ms(double seconds) {
    return fmt::format("{:.2f}", seconds * 1e3);
}

// The frame as lines, at most rows of them and each at most columns wide.
// Counters are differences against previous; without one they count from
// the tasks' start. Run counts are 32-bit and wrap, so their difference is
// taken modulo 2^32.
std::vector<String> frame(const Server& server, const Sample& current,
                          const std::optional<Sample>& previous, size_t columns, size_t rows) {
    const double interval =
        previous ? std::chrono::duration<double>(current.when - previous->when).count() : 0;
    std::vector<String> lines;
    const time_t wallClock = std::time(nullptr);
    tm parts{};
    ::localtime_r(&wallClock, &parts);
    char clock[16];
    std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    lines.push_back(fmt::format(
        "kelvo top - {} (pid {})  {}  {}  tasks {}  slip high water {} ms", server.name, server.pid,
        clock, previous ? fmt::format("interval {:.2f} s", interval) : String("since start"),
        current.tasks.size(), ms(current.slipHighWater)));
    lines.push_back("");
    lines.push_back(fmt::format("{:<9} {:>8} {:>6} {:>9} {:>10} {:>12}", "PRIORITY", "RUNNABLE",
                                "IDLE", "COMPLETED", previous ? "RUNS/S" : "RUNS", "LAT HW MS"));
    for (const char* priority : priorities) {
        const auto now = current.byPriority.find(priority);
        const PriorityRow row = now == current.byPriority.end() ? PriorityRow{} : now->second;
        uint32_t runs = row.runs;
        if (previous) {
            const auto before = previous->byPriority.find(priority);
            if (before != previous->byPriority.end())
                runs -= before->second.runs;
        }
        lines.push_back(fmt::format("{:<9} {:>8} {:>6} {:>9} {:>10} {:>12}", priority, row.runnable,
                                    row.idle, row.completed,
                                    previous
                                        ? fmt::format("{:.0f}", interval > 0 ? runs / interval : 0)
                                        : std::to_string(runs),
                                    ms(row.latencyHighWater)));
    }
    lines.push_back("");

    struct Delta {
        const TaskRow* task;
        uint32_t runs;
        double runTime;
    };
    std::vector<Delta> deltas;
    for (const auto& [key, task] : current.tasks) {
        Delta delta{&task, task.runCount, task.runTime};
        if (previous) {
            const auto before = previous->tasks.find(key);
            if (before != previous->tasks.end()) {
                delta.runs -= before->second.runCount;
                delta.runTime = std::max(0.0, task.runTime - before->second.runTime);
            }
        }
        deltas.push_back(delta);
    }
    std::stable_sort(deltas.begin(), deltas.end(), [](const Delta& a, const Delta& b) {
        return a.runTime != b.runTime ? a.runTime > b.runTime : a.runs > b.runs;
    });

    // The name takes what the columns after it (71 characters with their
    // blanks) leave, between 12 and 40.
    constexpr size_t fixedWidth = 71;
    const size_t nameWidth =
        std::clamp<size_t>(columns > fixedWidth ? columns - fixedWidth : 0, 12, 40);
    lines.push_back(fmt::format("{:<{}} {:<11} {:<8} {:>8} {:>9} {:>6} {:>8} {:>9} {:>4}", "TASK",
                                nameWidth, "SCHEDULER", "PRIORITY", previous ? "RUNS/S" : "RUNS",
                                "RUN MS", "CPU%", "LAT MS", "LAT HW MS", "QV"));
    for (const Delta& delta : deltas) {
        if (lines.size() >= rows)
            break;
        const TaskRow& task = *delta.task;
        const double share = interval > 0 ? 100 * delta.runTime / interval : 0;
        lines.push_back(fmt::format(
            "{:<{}} {:<11} {:<8} {:>8} {:>9} {:>6} {:>8} {:>9} {:>4}", fitted(task.name, nameWidth),
            nameWidth, fitted(task.scheduler, 11), task.priority,
            previous ? fmt::format("{:.0f}", interval > 0 ? delta.runs / interval : 0)
                     : std::to_string(delta.runs),
            ms(delta.runTime), previous ? fmt::format("{:.1f}", share) : String("-"),
            ms(task.lastLatency), ms(task.latencyHighWater), task.violations));
    }
    if (lines.size() > rows)
        lines.resize(rows);
    for (String& line : lines)
        if (line.size() > columns)
            line.resize(columns);
    return lines;
}

void onStopSignal(int signal) {
    stopRequested = signal;
}

// The terminal as top leaves it to the user: on construction (for a
// terminal) the alternate screen, a hidden cursor and, when stdin is a
// terminal too, keys read one at a time without echo; all undone by the
// destructor, whatever ends the view.
class Screen {
  public:
    Screen() : interactive_(::isatty(STDOUT_FILENO)) {
        if (!interactive_)
            return;
        if (::isatty(STDIN_FILENO) && ::tcgetattr(STDIN_FILENO, &saved_) == 0) {
            termios raw = saved_;
            raw.c_lflag &= ~(ICANON | ECHO);
            raw.c_cc[VMIN] = 1;
            raw.c_cc[VTIME] = 0;
            keys_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw) == 0;
        }
        writeOut("\x1b[?1049h\x1b[?25l");
    }
    ~Screen() {
        if (!interactive_)
            return;
        // Modes first: once the screen is back, what the user types echoes.
        if (keys_)
            ::tcsetattr(STDIN_FILENO, TCSADRAIN, &saved_);
        static constexpr char restore[] = "\x1b[?25h\x1b[?1049l";
        [[maybe_unused]] const ssize_t n = ::write(STDOUT_FILENO, restore, sizeof restore - 1);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool interactive() const { return interactive_; }

    std::pair<size_t, size_t> size() const {
        winsize size{};
        if (interactive_ && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 &&
            size.ws_row > 0)
            return {size.ws_col, size.ws_row};
        return {120, 1000};
    }

    void show(const std::vector<String>& lines) const {
        String out;
        if (interactive_) {
            out = "\x1b[H";
            for (size_t i = 0; i < lines.size(); ++i)
                out += lines[i] + "\x1b[K" + (i + 1 < lines.size() ? "\r\n" : "");
            out += "\x1b[J";
        } else {
            for (const String& line : lines)
                out += line + "\n";
        }
        writeOut(out);
    }

    // Waits up to timeout for the next frame; false when the user quit.
    bool wait(std::chrono::milliseconds timeout) const {
        const auto until = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            if (stopRequested)
                return false;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                until - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return true;
            pollfd in{STDIN_FILENO, POLLIN, 0};
            const int ready = ::poll(&in, keys_ ? 1 : 0, int(left.count()));
            if (ready <= 0)
                continue;  // timed out (checked above) or interrupted
            char key = 0;
            const ssize_t n = ::read(STDIN_FILENO, &key, 1);
            if (n == 0)
                return false;  // the terminal hung up
            if (n == 1 && (key == 'q' || key == 'Q'))
                return false;
        }
    }

  private:
    bool interactive_;
    bool keys_ = false;
    termios saved_{};
};

double positiveNumber(const std::vector<String>& args, size_t& i) {
    if (++i == args.size())
        throw UsageError("top: " + args[i - 1] + " needs a number");
    char* end = nullptr;
    const double value = std::strtod(args[i].c_str(), &end);
    if (*end != '\0' || !(value > 0) || !std::isfinite(value))
        throw UsageError("top: " + args[i - 1] + " needs a positive number, not '" + args[i] + "'");
    return value;
}

}  // namespace

int runTop(const std::vector<String>& args) {
    String target;
    double delay = 1;
    std::optional<long> frames;
    for (size_t i = 0; i < args.size(); ++i) {
        const String& arg = args[i];
        if (isHelp(arg)) {
            writeOut(topHelp);
            return 0;
        }
        if (arg == "-d")
            delay = positiveNumber(args, i);
        else if (arg == "-n") {
            const double count = positiveNumber(args, i);
            if (count != std::floor(count))
                throw UsageError("top: -n needs a whole number, not '" + args[i] + "'");
            frames = long(count);
        } else
            takeTarget("top", arg, target);
    }
    if (target.empty())
        throw UsageError("top: which daemon? (kelvo top <name|pid>)");
    const Server server = findServer(target);

    // Without SA_RESTART, so that a signal ends a wait or a fetch at once.
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    try {
        Screen screen;
        if (!frames && !screen.interactive())
            frames = 1;
        std::optional<Sample> previous;
        for (long shown = 0; !frames || shown < *frames; ++shown) {
            if (shown > 0 && !screen.wait(std::chrono::milliseconds(std::lround(delay * 1000))))
                break;
            Sample current = parse(fetchAll(server, target, "json noruns"), target);
            const auto [columns, rows] = screen.size();
            screen.show(frame(server, current, previous, columns, rows));
            previous = std::move(current);
        }
    } catch (const Failure&) {
        if (!stopRequested)
            throw;  // a fetch cut short by the signal is no failure of its own
    }
    if (stopRequested) {
        // The terminal is restored; end as the signal would have.
        const int signal = stopRequested;
        ::signal(signal, SIG_DFL);
        ::raise(signal);
    }
    return 0;
}

}  // namespace KelvoTool
