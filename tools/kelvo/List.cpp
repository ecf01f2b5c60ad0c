// kelvo list: the daemons on this host that serve reports.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "Tool.h"

namespace KelvoTool {

namespace {

constexpr const char* listHelp =
    "usage: kelvo list [--json]\n"
    "\n"
    "Lists the daemons on this host that serve reports, one line each: pid,\n"
    "name, start time (local), uptime and command line.\n"
    "\n"
    "  --json  a JSON array instead, times in UTC, the command line as a list\n";

struct Daemon {
    Server server;
    String title;
    std::vector<String> commandLine;
    Kelvo::Util::ProcessStartTime started;
    double uptime = 0;
};

double secondsSinceBoot() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

// A socket counts only while the process its name claims holds it: a name
// left to a forked child of a daemon that has exited, or claimed by another
// process, is not that daemon.
std::vector<Daemon> daemons() {
    auto& h = handle();
    std::vector<Daemon> found;
    const double now = secondsSinceBoot();
    for (Server& server : servers()) {
        // Only the claimed pid's descriptors are read: with many daemons a
        // scan of every process per name would cost seconds.
        if (!Kelvo::Util::abstractSocketHeldBy(h, server.socketName, server.pid).value_or(false)) {
            KELVO_TRACE(h, 3, "{}: not held by pid {}", server.socketName, server.pid);
            continue;
        }
        auto title = Kelvo::Util::processTitle(h, server.pid);
        auto commandLine = Kelvo::Util::processCommandLine(h, server.pid);
        auto started = Kelvo::Util::processStartTime(h, server.pid);
        if (!title || !commandLine || !started)
            continue;  // exited meanwhile
        const double uptime = std::max(0.0, now - started->secondsSinceBoot);
        found.push_back(
            {std::move(server), std::move(*title), std::move(*commandLine), *started, uptime});
    }
    std::sort(found.begin(), found.end(), [](const Daemon& a, const Daemon& b) {
        return std::tie(a.server.name, a.server.pid) < std::tie(b.server.name, b.server.pid);
    });
    return found;
}

String timeText(std::chrono::system_clock::time_point when, bool utc) {
    const time_t seconds = std::chrono::system_clock::to_time_t(when);
    tm parts{};
    if (utc)
        ::gmtime_r(&seconds, &parts);
    else
        ::localtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, utc ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

// "3:07:15", or "2d 3:07:15" past a day.
String uptimeText(double seconds) {
    const long total = long(seconds);
    const long days = total / 86400;
    char text[48];
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total % 86400 / 3600, total % 3600 / 60,
                  total % 60);
    return days ? std::to_string(days) + "d " + text : String(text);
}

String joined(const std::vector<String>& words) {
    String line;
    for (const String& word : words)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

void printTable(const std::vector<Daemon>& found) {
    size_t nameWidth = 4;
    for (const Daemon& daemon : found)
        nameWidth = std::max(nameWidth, daemon.server.name.size());
    String out = fmt::format("{:<8} {:<{}} {:<19} {:>11} {}\n", "PID", "NAME", nameWidth, "STARTED",
                             "UPTIME", "COMMAND");
    for (const Daemon& daemon : found) {
        out += fmt::format("{:<8} {:<{}} {:<19} {:>11} {}\n", daemon.server.pid, daemon.server.name,
                           nameWidth, timeText(daemon.started.wallClock, false),
                           uptimeText(daemon.uptime), joined(daemon.commandLine));
    }
    writeOut(out);
}

void printJson(const std::vector<Daemon>& found) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
    json.StartArray();
    for (const Daemon& daemon : found) {
        json.StartObject();
        json.Key("pid");
        json.Int(daemon.server.pid);
        json.Key("name");
        json.String(daemon.server.name.c_str(), rapidjson::SizeType(daemon.server.name.size()));
        json.Key("socket");
        json.String(daemon.server.socketName.c_str(),
                    rapidjson::SizeType(daemon.server.socketName.size()));
        json.Key("title");
        json.String(daemon.title.c_str(), rapidjson::SizeType(daemon.title.size()));
        json.Key("commandLine");
        json.StartArray();
        for (const String& word : daemon.commandLine)
            json.String(word.c_str(), rapidjson::SizeType(word.size()));
        json.EndArray();
        json.Key("started");
        const String started = timeText(daemon.started.wallClock, true);
        json.String(started.c_str(), rapidjson::SizeType(started.size()));
        json.Key("uptimeSeconds");
        json.Double(daemon.uptime);
        json.EndObject();
    }
    json.EndArray();
    writeOut(String(buffer.GetString(), buffer.GetSize()) + "\n");
}

}  // namespace

int runList(const std::vector<String>& args) {
    bool asJson = false;
    for (const String& arg : args) {
        if (isHelp(arg)) {
            writeOut(listHelp);
            return 0;
        }
        if (arg == "--json")
            asJson = true;
        else
            throw UsageError("list: unknown argument '" + arg + "'");
    }
    const std::vector<Daemon> found = daemons();
    if (asJson)
        printJson(found);
    else
        printTable(found);
    return 0;
}

}  // namespace KelvoTool
