// The report server: a daemon's reports served to operators on an abstract
// Unix stream socket, so that a tool can look inside the running daemon.
//
// Socket: "kelvo-report.<name>.<pid>" (reportServerSocketName) in the default
// network namespace, so that every instance of a daemon has its own name and
// a tool finds them all by the prefix; the pid is the text after the last dot.
//
// Protocol: a client connects and sends one line, at most 256 bytes with its
// "\n": a command ("json", "text", "history", "metrics", "timeline"), then
// flags separated by single blanks ("noruns" keeps tasks that never ran,
// "completed" adds finished tasks; json, text and metrics use them, the other
// commands accept and ignore them; "prometheus" asks metrics for the classic
// Prometheus text format instead of OpenMetrics). The answer is the report's
// bytes, then a close. A failure is one line and a close:
// "error: unknown request\n", "error: request too long\n",
// "error: request timed out\n" (no complete line within 5 seconds of the
// accept), "error: busy\n" (64 connections are open already) or
// "error: refused\n". No report starts with "error: ".
//
// Security: abstract sockets have no file permissions, so the peer's
// credentials (SO_PEERCRED) are the only door: a peer whose uid is neither
// the daemon's effective uid nor 0 gets "error: refused\n" and nothing else.
//
// Serving: tasks of the calling thread's root scheduler (schedulerRootKelvo())
// at priority low accept, read the request and time it out; reports are
// rendered on that thread and written without blocking it (the JSON report
// through snapshotRenderJsonAsync). An answer that makes no progress for 30
// seconds (a client that never reads) is cut. Writes to the client use
// MSG_NOSIGNAL, so the daemon need not ignore SIGPIPE. Every outcome is
// traced on the "ReportServer" handle: 1 refusals and system failures, 3 bad
// requests, time-outs and clients gone, 5 requests served, 8 detail.
//
// Fork: the listener and the open connections are close-on-exec, and a
// forked child has them replaced by /dev/null at the fork, so that it never
// answers for its parent (its copy of the server is dead weight until it
// stops it or execs).
//
// Thread: each function acts on the calling thread's server and root; call
// them on the thread that runs that root's loop. Ownership: the server is
// the thread's own (thread-local), owns its listener, connections and tasks,
// and goes with the thread or with reportServerIs("").
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "KelvoBase.h"

namespace Kelvo {

constexpr const char* reportServerSocketPrefix = "kelvo-report.";

// "kelvo-report.<name>.<pid>", without the abstract name's leading zero byte.
KELVO_EXPORT String reportServerSocketName(const String& name, pid_t pid);

// Serves this thread's reports as name (1 to 64 characters of
// [A-Za-z0-9_.-]). The same name again changes nothing; another name moves
// the server (the old socket closes once the new one is bound); "" stops it,
// closing the listener and every connection. A bad name, or a socket name
// bound by someone else, throws RuntimeException and leaves the server as it
// was.
KELVO_EXPORT void reportServerIs(const String& name);

// The name served on this thread, or "".
KELVO_EXPORT String reportServer();

// Connections of this thread's server open now (answers through the JSON
// writer count until the writer is done).
KELVO_EXPORT size_t reportServerConnectionCountForTest();

}  // namespace Kelvo
