#!/usr/bin/env bash
# End to end on the emulated element: pbr-mgmtd, pbr-app (memory backend) and pbr-cli as
# processes in a private element directory. Commits go through the CLI; what pbr-app sent to the
# PBR manager is read from the memory backend's trace records and state file.
# Usage: element_e2e_test.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
mgmtd=$build/element/mgmt/pbr-mgmtd
app=$build/app/pbr-app
work=$(mktemp -d)
export PBR_ELEMENT_RUNTIME_DIR=$work/run PBR_ELEMENT_STATE_DIR=$work/state
export PBR_ELEMENT_TRACE=pbr-app=10 PBR_ELEMENT_BACKEND=memory
mkdir -p "$PBR_ELEMENT_RUNTIME_DIR" "$PBR_ELEMENT_STATE_DIR"
mgmtd_pid="" app_pid=""

cleanup() {
  for pid in $app_pid $mgmtd_pid; do kill -KILL "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*"
  echo "--- pbr-app log (tail)"; tail -20 "$work/app.log" 2>/dev/null || true
  echo "--- pbr-mgmtd log (tail)"; tail -20 "$work/mgmtd.log" 2>/dev/null || true
  exit 1
}
step() { echo "== $*"; }
cli() { "$build/element/cli/pbr-cli" --timeout 10 "$@"; }

# Waits up to 10 s for `command` to succeed.
wait_for() {
  for _ in $(seq 200); do "$@" >/dev/null 2>&1 && return 0; sleep 0.05; done
  fail "timed out waiting for: $*"
}
count() { grep -c -- "$1" "$work/app.log" 2>/dev/null || true; }
at_least() { [ "$(count "$1")" -ge "$2" ]; }

start_mgmtd() {
  PBR_ELEMENT_LOG=$work/mgmtd.log "$mgmtd" &
  mgmtd_pid=$!
  wait_for test -S "$PBR_ELEMENT_RUNTIME_DIR/mgmt.sock"
}
# Starts pbr-app and waits for its attachment (initial load and apply done).
start_app() {
  local attached
  attached=$(count "attached to the management server")
  PBR_ELEMENT_LOG=$work/app.log "$app" &
  app_pid=$!
  wait_for at_least "attached to the management server" $((attached + 1))
  wait_for at_least "ApplyInitialConfig: Entry Point" $((attached + 1))
}
stop() {  # stop PID: SIGTERM, and the exit status must be 0
  kill -TERM "$1"
  wait "$1" || fail "process $1 ended with status $?"
}

# The PBR manager calls made since mark(), as "set 7" / "deleted 7", one per line.
mark() { sent_mark=0; [ ! -f "$work/app.log" ] || sent_mark=$(wc -l <"$work/app.log"); }
calls() {
  tail -n +"$((sent_mark + 1))" "$work/app.log" |
    sed -nE 's/.*memory backend: rule ([0-9]+) (set|deleted).*/\2 \1/p'
}
expect_calls() {  # expect_calls "set 3" "set 9" ...: exactly these, in this order
  local want
  want=$(printf '%s\n' "$@")
  for _ in $(seq 100); do [ "$(calls)" = "$want" ] && return 0; sleep 0.05; done
  fail "PBR manager calls: wanted [$(echo $want)], got [$(calls | tr '\n' ' ')]"
}
expect_no_calls() {
  sleep 0.3
  [ -z "$(calls)" ] || fail "unexpected PBR manager calls: $(calls | tr '\n' ' ')"
}
expect_row() {  # expect_row ID TEXT: `show pbr ID` shows TEXT in its row
  local row
  row=$(cli show pbr "$1" | sed -n 2p | tr -s ' ')
  [ "$row" = "$2" ] || fail "show pbr $1: wanted [$2], got [$row]"
}
# A refused commit: exit 1, the reason on stderr, nothing changed anywhere.
expect_refused() {  # expect_refused REASON-FRAGMENT CLI-ARGS...
  local reason=$1 before err status=0
  shift
  before=$(cli show running --json)
  mark
  err=$(cli "$@" 2>&1 >/dev/null) || status=$?
  [ "$status" = 1 ] || fail "$* exited $status, wanted 1 (refused); said: $err"
  grep -qF -- "$reason" <<<"$err" || fail "$*: wanted a reason with [$reason], got [$err]"
  [ "$(cli show running --json)" = "$before" ] || fail "$*: the running configuration changed"
  expect_no_calls
}

rule=/router/pbr

step "an empty element: pbr-app attaches and sends nothing"
start_mgmtd
mark
start_app
expect_no_calls

step "a committed rule reaches the PBR manager whole, once, and shows as programmed"
mark
cli set "$rule{7}/rule/priority" 10 \
  -- set "$rule{7}/rule/match/source/ipv4-address/mask/ip" 10.1.0.0/16 \
  -- set "$rule{7}/rule/action/next-hop/ip" 192.0.2.1 \
  -- set "$rule{7}/rule/match/interface{eth1}" || fail "commit of rule 7"
expect_calls "set 7"
grep -qF '{"id":7,"priority":10,"status":1,"match":{"ingress-interfaces":["eth1"],"source-ipv4":{"address":"10.1.0.0","mask":"255.255.0.0"}},"action":{"next-hop":"192.0.2.1"}}' \
  "$PBR_ELEMENT_STATE_DIR/pbr-manager.json" || fail "rule 7 in the memory backend: $(cat "$PBR_ELEMENT_STATE_DIR/pbr-manager.json")"
wait_for expect_row 7 "7 10 eth1 10.1.0.0/16 - 192.0.2.1 programmed -"

step "one commit: rules created are sent first, then deleted ids, each in ascending id"
mark
cli set "$rule{9}/rule/priority" 20 -- set "$rule{3}/rule/priority" 5 \
  -- set "$rule{3}/rule/match/destination/ipv4-address/no-mask/ip" 198.51.100.7 \
  -- delete "$rule{7}" || fail "commit of rules 3, 9 and deletion of 7"
expect_calls "set 3" "set 9" "deleted 7"
expect_row 3 "3 5 - - 198.51.100.7 l3-routing programmed -"

step "a description change sends the whole rule"
mark
cli set "$rule{3}/rule/description" "to the lab" || fail "description of rule 3"
expect_calls "set 3"

step "invalid configurations are refused and change nothing"
expect_refused "$rule{11}/rule/priority: Mandatory node \"priority\"" set "$rule{11}/rule/description" x
cat >"$work/both.json" <<'JSON'
{"pbr:router":{"pbr":[{"id":12,"rule":{"priority":1,"match":{"source":{"ipv4-address":
  {"mask":{"ip":"10.0.0.0/8"},"no-mask":{"ip":"10.0.0.1"}}}}}}]}}
JSON
expect_refused "$rule{12}/rule/match/source/ipv4-address: Data for both cases" \
  load merge "$work/both.json"

step "a restarted pbr-app sends every rule again"
stop "$app_pid"
mark
start_app
expect_calls "set 3" "set 9"

step "a restarted management server gets pbr-app back"
stop "$mgmtd_pid"
mark
start_mgmtd
wait_for at_least "attached to the management server" 3
expect_calls "set 3" "set 9"
expect_row 9 "9 20 - - - l3-routing programmed -"
err=$(cli show pbr 99 2>&1 >/dev/null) && fail "show pbr 99 showed a rule"
[ "$err" = "error: no rule 99" ] || fail "show pbr 99: wanted [error: no rule 99], got [$err]"

step "pbr-app ends cleanly and reported no fault"
stop "$app_pid"
[ ! -s "$PBR_ELEMENT_RUNTIME_DIR/faults.log" ] || fail "faults: $(cat "$PBR_ELEMENT_RUNTIME_DIR/faults.log")"
echo "element end to end: all steps passed"
