// The kelvo tool's shared pieces: finding the daemons that serve reports,
// asking one for a report, and the failures every subcommand reports the same
// way ("kelvo: <what>" on standard error, then a non-zero exit).
//
// The tool is single-threaded; the only state shared with a signal handler is
// stopRequested.
#pragma once

#include <Kelvo/Kelvo.h>

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace KelvoTool {

using Kelvo::String;

// Exit statuses: a failure to get or write an answer, and a bad command line.
constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

// A failure the user should read: main prints "kelvo: " and the message, and
// exits with exitFailure.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A bad command line: main prints "kelvo: " and the message, and exits with
// exitUsage.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Set by the SIGINT and SIGTERM handlers of the subcommands that install
// them (top); a blocking read interrupted while it is set gives up.
extern volatile sig_atomic_t stopRequested;

// The tool's trace handle ("kelvo"), enabled through TRACE like any other.
Kelvo::Platform::DebugHandler& handle();

// One serving daemon, as its socket name tells it.
struct Server {
    String name;
    pid_t pid = 0;
    String socketName;
};

// Every report socket on the host, by socket name. The name and pid are the
// socket's own claim; list checks it against the socket's owners.
std::vector<Server> servers();

// The one server that target names: a decimal pid, or else a name served by
// exactly one process. Failure "<target>: no such daemon" or "<target>:
// several daemons match: name (pid 1), name (pid 2)".
Server findServer(const String& target);

// Sends request to server and passes the answer to sink as it arrives. A
// connection or read that makes no progress for 10 seconds fails with
// "<target>: timed out"; an answer that is one "error: " line fails with
// "<target>: <the rest of that line>", so that nothing of it reaches sink.
void fetch(const Server& server, const String& target, const String& request,
           const std::function<void(std::string_view)>& sink);
String fetchAll(const Server& server, const String& target, const String& request);

// Parsing helpers for the subcommands' command lines.
bool isHelp(std::string_view arg);
// An argument of command that no option took: the daemon, given once;
// anything else starting with '-' is an unknown option. Throws UsageError.
void takeTarget(const char* command, const String& arg, String& target);
// Writes all of data to stdout; a Failure when it cannot.
void writeOut(std::string_view data);

int runList(const std::vector<String>& args);
int runReport(const std::vector<String>& args);
int runMetrics(const std::vector<String>& args);
int runTop(const std::vector<String>& args);
int runTimeline(const std::vector<String>& args);

}  // namespace KelvoTool
