// kelvo timeline: the root scheduler's history as a trace-event file, or as a
// self-contained HTML page drawing it.
#include <cerrno>
#include <cstring>
#include <fstream>

#include "TimelineHtml.h"
#include "Tool.h"

namespace KelvoTool {

namespace {

constexpr const char* timelineHelp =
    "usage: kelvo timeline <name|pid> -o FILE [--html]\n"
    "\n"
    "Writes the daemon's scheduler history to FILE as trace-event JSON, which\n"
    "Perfetto and chrome://tracing open: each task run a bar on its task's\n"
    "track, schedule and timer events as instants.\n"
    "\n"
    "  -o FILE  where to write (required; '-' is standard output)\n"
    "  --html   a self-contained HTML page drawing the timeline instead\n";

}  // namespace

int runTimeline(const std::vector<String>& args) {
    String target, file;
    bool html = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const String& arg = args[i];
        if (isHelp(arg)) {
            writeOut(timelineHelp);
            return 0;
        }
        if (arg == "--html")
            html = true;
        else if (arg == "-o" || arg == "--output") {
            if (++i == args.size())
                throw UsageError("timeline: " + arg + " needs a file name");
            file = args[i];
        } else
            takeTarget("timeline", arg, target);
    }
    if (target.empty())
        throw UsageError("timeline: which daemon? (kelvo timeline <name|pid> -o FILE)");
    if (file.empty())
        throw UsageError("timeline: where to? (-o FILE)");

    const Server server = findServer(target);
    String content = fetchAll(server, target, "timeline");
    if (html) {
        content = Kelvo::timelineHtml(content, "kelvo timeline: " + server.name + " (pid " +
                                                   std::to_string(server.pid) + ")");
    }
    if (file == "-") {
        writeOut(content);
        return 0;
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out)
        throw Failure(file + ": " + std::strerror(errno));
    return 0;
}

}  // namespace KelvoTool
