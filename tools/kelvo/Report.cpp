// kelvo report and kelvo metrics: one answer, streamed to stdout as it comes.
#include "Tool.h"

namespace KelvoTool {

namespace {

constexpr const char* reportHelp =
    "usage: kelvo report <name|pid> [--json|--text|--history] [--noruns] [--completed]\n"
    "\n"
    "Prints one report of the daemon as it arrives.\n"
    "\n"
    "  --json       the JSON report of the root scheduler and its task groups (default)\n"
    "  --text       the same as a text report\n"
    "  --history    the root scheduler's history of events\n"
    "  --noruns     include tasks that never ran\n"
    "  --completed  include the records of completed tasks\n";

constexpr const char* metricsHelp =
    "usage: kelvo metrics <name|pid> [--prometheus] [--noruns] [--completed]\n"
    "\n"
    "Prints the daemon's scheduler statistics in the OpenMetrics text format:\n"
    "per-priority task counts, and per task its runs, run time, scheduling\n"
    "latency and quantum violations.\n"
    "\n"
    "  --prometheus the classic Prometheus text format instead, as the node\n"
    "               exporter's textfile collector and promtool read it\n"
    "  --noruns     include tasks that never ran\n"
    "  --completed  include the records of completed tasks\n";

// Parses "<target> [options]": options named in kinds set the request's
// command (the last one wins); --noruns, --completed and --prometheus add
// flags.
int streamAnswer(const std::vector<String>& args, const char* help, const char* command,
                 const char* defaultRequest, const std::vector<std::pair<String, String>>& kinds) {
    String target, request = defaultRequest, flags;
    for (const String& arg : args) {
        if (isHelp(arg)) {
            writeOut(help);
            return 0;
        }
    }
    for (const String& arg : args) {
        bool known = false;
        for (const auto& [option, kind] : kinds)
            if (arg == option) {
                request = kind;
                known = true;
            }
        if (known)
            continue;
        if (arg == "--noruns" || arg == "--completed" ||
            (arg == "--prometheus" && String(command) == "metrics"))
            flags += " " + arg.substr(2);
        else
            takeTarget(command, arg, target);
    }
    if (target.empty())
        throw UsageError(String(command) + ": which daemon? (kelvo " + command + " <name|pid>)");
    const Server server = findServer(target);
    fetch(server, target, request + flags, writeOut);
    return 0;
}

}  // namespace

int runReport(const std::vector<String>& args) {
    return streamAnswer(args, reportHelp, "report", "json",
                        {{"--json", "json"}, {"--text", "text"}, {"--history", "history"}});
}

int runMetrics(const std::vector<String>& args) {
    return streamAnswer(args, metricsHelp, "metrics", "metrics", {});
}

}  // namespace KelvoTool
