// kelvo: the operator's view into running daemons built on libKelvo.
#include <cstdio>
#include <exception>

#include "Tool.h"

namespace {

constexpr const char* usage =
    "usage: kelvo <command> [options]\n"
    "\n"
    "Looks inside the daemons on this host that serve reports.\n"
    "\n"
    "commands:\n"
    "  list       the serving daemons: pid, name, start time, uptime, command\n"
    "  report     one report of a daemon (JSON, text or history)\n"
    "  top        a live view of a daemon's busiest tasks\n"
    "  timeline   a daemon's scheduler history as a trace-event file or HTML page\n"
    "  metrics    a daemon's statistics as OpenMetrics text\n"
    "\n"
    "A daemon is named by its pid, or by its name when one process serves it.\n"
    "Run 'kelvo <command> --help' for the command's options.\n";

}  // namespace

int main(int argc, char** argv) {
    using namespace KelvoTool;
    if (argc < 2) {
        std::fputs(usage, stderr);
        return exitUsage;
    }
    const String command = argv[1];
    const std::vector<String> args(argv + 2, argv + argc);
    try {
        if (isHelp(command)) {
            writeOut(usage);
            return 0;
        }
        if (command == "list")
            return runList(args);
        if (command == "report")
            return runReport(args);
        if (command == "metrics")
            return runMetrics(args);
        if (command == "top")
            return runTop(args);
        if (command == "timeline")
            return runTimeline(args);
        throw UsageError("unknown command '" + command + "' (see kelvo --help)");
    } catch (const UsageError& e) {
        std::fprintf(stderr, "kelvo: %s\n", e.what());
        return exitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kelvo: %s\n", e.what());
        return exitFailure;
    }
}
