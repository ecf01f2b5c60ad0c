#!/usr/bin/env bash
# Runs the kelvo-demo binary as a user would, each case with a lock directory
# of its own:
#   RunDemo.sh default BINARY  one virtual minute: exit 0, the report's header
#                              and task rows, the history's header and lines
#   RunDemo.sh usage BINARY    --help exits 0; a bad command line exits 2 with
#                              one line
#   RunDemo.sh serve BINARY    --serve holds the lock (a second start exits 1
#                              naming its pid) and exits 0 on SIGTERM
set -uo pipefail
case=$1
demo=$2
work=$(mktemp -d)
server=
cleanup() {
    [ -n "$server" ] && kill -KILL "$server" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    for f in "$work"/*.out "$work"/*.err; do
        [ -s "$f" ] && { echo "--- $f" >&2; head -80 "$f" >&2; }
    done
    exit 1
}

# Waits up to $2 seconds for the file $1 to contain the text $3.
waitFor() {
    local deadline=$((SECONDS + $2))
    until grep -qF -- "$3" "$1" 2>/dev/null; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.1
    done
}

case $case in
default)
    timeout 60 "$demo" --lock-dir "$work" >"$work/run.out" 2>"$work/run.err"
    status=$?
    [ $status -eq 0 ] || fail "default run exited $status"
    for text in "one virtual minute in" "(same checksum)" \
        "Priority RunnableCount     IdleCount DoneCount   TotalRunCount" \
        "Maximum scheduler slip" "TaskName" "crunch" "pipe:read" "TaskGroup;workers" \
        "Last 24 scheduler events, absolute timestamp and relative to last event"; do
        grep -qF -- "$text" "$work/run.out" || fail "no \"$text\" in the output"
    done
    events=$(grep -c " ns since boot " "$work/run.out")
    [ "$events" -eq 24 ] || fail "$events history lines, not 24"
    ;;
usage)
    "$demo" --help >"$work/help.out" 2>&1 || fail "--help exited $?"
    grep -q "^usage: kelvo-demo" "$work/help.out" || fail "--help shows no usage"
    for args in "--bogus" "--lock-dir" "--serve extra"; do
        # shellcheck disable=SC2086
        "$demo" $args >"$work/bad.out" 2>"$work/bad.err"
        status=$?
        [ $status -eq 2 ] || fail "'$args' exited $status, not 2"
        [ ! -s "$work/bad.out" ] && [ "$(wc -l <"$work/bad.err")" -eq 1 ] ||
            fail "'$args' did not print exactly one line on standard error"
    done
    ;;
serve)
    "$demo" --serve --lock-dir "$work" >"$work/serve.out" 2>"$work/serve.err" &
    server=$!
    waitFor "$work/serve.out" 30 "serving as" || fail "--serve did not start"
    "$demo" --lock-dir "$work" >"$work/second.out" 2>"$work/second.err"
    status=$?
    [ $status -eq 1 ] || fail "a second instance exited $status, not 1"
    grep -qF "already running as pid $server " "$work/second.err" ||
        fail "the second instance did not name pid $server"
    [ "$(wc -l <"$work/second.err")" -eq 1 ] || fail "the refusal is not one line"
    kill -TERM "$server"
    deadline=$((SECONDS + 30))
    while kill -0 "$server" 2>/dev/null && [ $SECONDS -lt $deadline ]; do sleep 0.1; done
    kill -0 "$server" 2>/dev/null && fail "--serve still runs 30 s after SIGTERM"
    wait "$server"
    status=$?
    server=
    [ $status -eq 0 ] || fail "--serve exited $status after SIGTERM"
    grep -qF "stopped after" "$work/serve.out" || fail "--serve did not say it stopped"
    ;;
*)
    fail "unknown case $case"
    ;;
esac
