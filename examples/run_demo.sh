#!/bin/sh
# Runs the demo agent end to end: starts it under a fixed name, drives it through its
# command socket with vellctl (and socat, where installed), prints every exchange, and
# stops it with `quit`. Every wait is bounded; the exit status is non-zero if any step
# failed. Usage: run_demo.sh BUILD_DIR
set -u
BUILD=${1:-build}
AGENT=vell-demo
DEMO="$BUILD/examples/demo_agent"
EXECUTOR="$BUILD/examples/executor_agent"
VELLCTL="$BUILD/tools/vellctl"
LOG=$(mktemp "${TMPDIR:-/tmp}/vell-demo.XXXXXX")
failures=0
agent_pid=
exec_pid=

fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

cleanup() {
  [ -n "$exec_pid" ] && kill "$exec_pid" 2>/dev/null
  if [ -n "$agent_pid" ] && kill -0 "$agent_pid" 2>/dev/null; then
    kill "$agent_pid" 2>/dev/null
    sleep 0.2
    kill -9 "$agent_pid" 2>/dev/null
  fi
  rm -f "$LOG"
}
trap cleanup EXIT

# Runs a command, shows it and what it printed, checks its exit status.
step() {
  want=$1
  shift
  echo
  echo "\$ $*"
  "$@"
  got=$?
  [ "$got" -eq "$want" ] || fail "'$*' exited $got, expected $want"
}

for f in "$DEMO" "$EXECUTOR" "$VELLCTL"; do
  [ -x "$f" ] || { echo "error: $f is not built (run make first)" >&2; exit 1; }
done

if "$VELLCTL" --list | grep -q "^$AGENT "; then
  echo "error: an agent named '$AGENT' is already running:" >&2
  "$VELLCTL" --list | grep "^$AGENT " >&2
  exit 1
fi

echo "== starting the demo agent as '$AGENT'"
"$DEMO" "$AGENT" >"$LOG" 2>&1 &
agent_pid=$!

# Wait (at most 5 s) until it listens, or until it gives up.
i=0
while ! "$VELLCTL" --list | grep -q "^$AGENT "; do
  if ! kill -0 "$agent_pid" 2>/dev/null; then
    wait "$agent_pid"
    status=$?
    cat "$LOG"
    if [ "$status" -eq 3 ]; then
      echo "The demo needs CAP_NET_ADMIN (see above); nothing was run."
    else
      echo "The demo agent exited with status $status before listening."
    fi
    exit 1
  fi
  i=$((i + 1))
  [ "$i" -le 50 ] || { cat "$LOG"; echo "The demo agent did not start listening within 5 s."; exit 1; }
  sleep 0.1
done
cat "$LOG"

# exec-d, the coordinator's fourth executor, runs in a process of its own and answers
# each configuration 0.2 s after it comes.
start_executor() {
  "$EXECUTOR" "$AGENT" exec-d 0.2 >>"$LOG" 2>&1 &
  exec_pid=$!
  i=0
  until "$VELLCTL" "$AGENT" show execStatusMirror connected | grep -q '^1$'; do
    i=$((i + 1))
    [ "$i" -le 50 ] || { fail "the executor process did not connect within 5 s"; return; }
    sleep 0.1
  done
  echo "executor_agent exec-d started (pid $exec_pid) and connected"
}
echo
echo "== starting exec-d, an executor in another process"
start_executor

echo
echo "== the agents listening on this host"
step 0 "$VELLCTL" --list

echo
echo "== commands through vellctl"
step 0 "$VELLCTL" "$AGENT" help
step 0 "$VELLCTL" "$AGENT" show
sleep 1  # let the blocks' workload run for a second, so the figures have moved
for entity in demo socket bitmap allocator wheel eventClock review backlog coordinator; do
  step 0 "$VELLCTL" "$AGENT" show "$entity"
done
echo
echo "-- attributes by name: one attribute, and writes through the mutator (bounds checked)"
step 0 "$VELLCTL" "$AGENT" show wheel processTimeLimit
step 0 "$VELLCTL" "$AGENT" set wheel processTimeLimit 0.02
[ "$("$VELLCTL" "$AGENT" show wheel processTimeLimit)" = "0.02" ] || fail "set did not change processTimeLimit"
echo
echo "\$ $VELLCTL $AGENT set wheel processTimeLimit 9"
out=$("$VELLCTL" "$AGENT" set wheel processTimeLimit 9); echo "$out"
[ "$out" = "TimerWheel::processTimeLimit < 0 or > 0.5 not allowed" ] || fail "no bounds text from set"
echo
echo "\$ $VELLCTL $AGENT frobnicate | od -c    (an unknown word: the 17-byte answer)"
"$VELLCTL" "$AGENT" frobnicate | od -c
[ "$("$VELLCTL" "$AGENT" frobnicate | wc -c)" -eq 17 ] || fail "the unknown-command reply is not 17 bytes"

echo
echo "== transactions: a coordinator and four executors (exec-a, exec-b, exec-c here; exec-d in its own process)"
# Shows the transactions and checks that the listing holds a text.
show_xacts() {
  echo
  echo "\$ $VELLCTL $AGENT xact list"
  out=$("$VELLCTL" "$AGENT" xact list) || fail "xact list failed"
  printf '%s\n' "$out"
  printf '%s\n' "$out" | grep -q -- "$1" || fail "xact list lacks: $1"
}
step 0 "$VELLCTL" "$AGENT" xact start 1
sleep 0.6
show_xacts "^1   xactSuccess"
echo
echo "-- exec-c is told to fail: its comment is filed under its directory name"
step 0 "$VELLCTL" "$AGENT" xact mode exec-c fail disk full
step 0 "$VELLCTL" "$AGENT" xact start 2
sleep 0.6
show_xacts "exec-c='disk full'"
echo
echo "-- exec-c stays silent: the coordinator times the transaction out (timeout 3 s)"
step 0 "$VELLCTL" "$AGENT" xact mode exec-c silent
step 0 "$VELLCTL" "$AGENT" xact start 3
sleep 4
show_xacts "exec-c='Timeout'"
echo
echo "-- a chain: 12 waits for 11, 11 for 10; exec-c answers each after half a second"
step 0 "$VELLCTL" "$AGENT" xact mode exec-c slow 0.5
step 0 "$VELLCTL" "$AGENT" xact start 10
step 0 "$VELLCTL" "$AGENT" xact start 11 after 10
step 0 "$VELLCTL" "$AGENT" xact start 12 after 11
show_xacts "^12 .*blocked"
sleep 2
show_xacts "10:xactSuccess 11:xactSuccess 12:xactSuccess"

echo
echo "== across processes: exec-d is killed in the middle of a transaction, then restarted"
step 0 "$VELLCTL" "$AGENT" xact mode exec-c ok
step 0 "$VELLCTL" "$AGENT" xact start 20
sleep 0.6
show_xacts "^20  *xactSuccess"
step 0 "$VELLCTL" "$AGENT" xact start 21
echo "\$ kill -9 $exec_pid    (exec-d, before it answers 21)"
kill -9 "$exec_pid"
wait "$exec_pid" 2>/dev/null
exec_pid=
sleep 4
show_xacts "exec-d='Timeout'"
step 0 "$VELLCTL" "$AGENT" show execStatusMirror
start_executor
step 0 "$VELLCTL" "$AGENT" xact start 22
sleep 0.8
show_xacts "^22  *xactSuccess"

echo
echo "== watching: two descriptors (watch-1, watch-2) share one kernel watch on the demo's directory"
wdir=$("$VELLCTL" "$AGENT" watch | awk '/^path /{print $2}')
[ -n "$wdir" ] && [ -d "$wdir" ] || fail "the demo's watched directory is missing"
step 0 "$VELLCTL" "$AGENT" watch
echo
echo "\$ echo hello > $wdir/a; echo world > $wdir/b; rm $wdir/a"
echo hello >"$wdir/a"; echo world >"$wdir/b"; rm "$wdir/a"
sleep 0.3
out=$("$VELLCTL" "$AGENT" watch); printf '%s\n' "$out"
printf '%s\n' "$out" | grep -q "watch-2 .*watchCount 3 .*deleted: a" || fail "the counts did not move"
echo
echo "\$ rm -r $wdir    (the watched directory itself)"
rm -r "$wdir"
sleep 0.3
out=$("$VELLCTL" "$AGENT" watch); printf '%s\n' "$out"
printf '%s\n' "$out" | grep -q "watch-1 .*watcher - .*deleted inode" || fail "no 'deleted inode' delivery"

echo
echo "== errors are clear"
step 2 "$VELLCTL" vell-demo-nobody help
echo
echo "\$ $VELLCTL $AGENT show xxxx...    (1100 bytes of argument)"
"$VELLCTL" "$AGENT" show "$(head -c 1100 /dev/zero | tr '\0' x)"
got=$?
[ "$got" -eq 1 ] || fail "an over-long request exited $got, expected 1"

if command -v socat >/dev/null 2>&1; then
  echo
  echo "== any client works: socat"
  echo "\$ printf 'show demo' | socat -t 5 -T 5 - ABSTRACT-CONNECT:s$AGENT"
  out=$(printf 'show demo' | socat -t 5 -T 5 - "ABSTRACT-CONNECT:s$AGENT") || fail "socat failed"
  printf '%s\n' "$out"
  printf '%s\n' "$out" | grep -q commandsServed || fail "socat got no figures"
else
  echo
  echo "(socat is not installed: skipping the socat client)"
fi

echo
echo "== stopping the agent and exec-d"
kill "$exec_pid" 2>/dev/null && wait "$exec_pid" 2>/dev/null
exec_pid=
step 0 "$VELLCTL" "$AGENT" quit
i=0
while kill -0 "$agent_pid" 2>/dev/null; do
  i=$((i + 1))
  [ "$i" -le 50 ] || break
  sleep 0.1
done
if kill -0 "$agent_pid" 2>/dev/null; then
  fail "the agent did not stop within 5 s of quit"
else
  wait "$agent_pid"
  status=$?
  agent_pid=
  tail -n +2 "$LOG"
  [ "$status" -eq 0 ] || fail "the agent exited with status $status"
fi
"$VELLCTL" --list | grep -q "^$AGENT " && fail "the agent still listens"

echo
if [ "$failures" -eq 0 ]; then
  echo "demo finished: every step as expected"
  exit 0
fi
echo "demo finished with $failures failed step(s)"
exit 1
