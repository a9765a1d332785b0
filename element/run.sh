#!/usr/bin/env bash
# Runs pbr-app on the emulated element with its embedded defaults: installs what is missing,
# builds, starts the management server and pbr-app (memory backend), loads the example rules when
# the running configuration is empty, and shows the operational view. Then it keeps both running
# until Ctrl-C (PBR_RUN_ONCE=1: stop right after showing the view).
#
# The element's files go to build/run/element unless PBR_ELEMENT_RUNTIME_DIR and
# PBR_ELEMENT_STATE_DIR say otherwise; logs are in its log/ folder. PBR_RUN_BUILD=DIR runs the
# binaries of an existing build instead, installing and building nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

if [ -n "${PBR_RUN_BUILD:-}" ]; then
  build=$PBR_RUN_BUILD
else
  bash .ci/deps
  build=build/run
  cmake -S . -B "$build" -DPBR_BUILD_TESTS=OFF -DPBR_BUILD_BENCH=OFF >/dev/null
  cmake --build "$build" -j"$(nproc)" --target pbr-app pbr-mgmtd pbr-cli
fi
bin=$(cd "$build" && pwd)

element=$bin/element
export PBR_ELEMENT_RUNTIME_DIR=${PBR_ELEMENT_RUNTIME_DIR:-$element/runtime}
export PBR_ELEMENT_STATE_DIR=${PBR_ELEMENT_STATE_DIR:-$element/state}
export PBR_ELEMENT_BACKEND=${PBR_ELEMENT_BACKEND:-memory}
export PBR_ELEMENT_NETCONF_SSH=${PBR_ELEMENT_NETCONF_SSH:-127.0.0.1:8830}
mkdir -p "$PBR_ELEMENT_RUNTIME_DIR" "$PBR_ELEMENT_STATE_DIR" "$element/log"
cli=("$bin/element/cli/pbr-cli" --timeout 10)

pids=()
listener=""
notify_dir=$(mktemp -d)
stop() {
  for pid in "${pids[@]}" $listener; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$notify_dir"
}
trap stop EXIT
trap 'exit 0' INT TERM

# Starts a daemon as a service manager does for Type=notify: NOTIFY_SOCKET names a socket this
# script listens on, and the daemon counts as started once it sent READY=1 there. A socket file
# proves nothing: one left by an earlier run refuses connections until the new server listens.
start_service() {  # start_service NAME PROGRAM
  local name=$1 program=$2 notify=$notify_dir/$1.sock said=$notify_dir/$1.said pid
  socat -u UNIX-RECV:"$notify" OPEN:"$said",creat,append &
  listener=$!
  for _ in $(seq 100); do [ -S "$notify" ] && break; sleep 0.05; done
  PBR_ELEMENT_LOG=$element/log/$name.log NOTIFY_SOCKET=$notify "$program" &
  pid=$!
  pids+=("$pid")
  for _ in $(seq 400); do
    if grep -q READY=1 "$said" 2>/dev/null; then
      kill "$listener"
      wait "$listener" 2>/dev/null || true  # reaped here, so that the final wait -n is not it
      listener=""
      return 0
    fi
    if ! kill -0 "$pid" 2>/dev/null; then
      echo "$name did not start; the end of $element/log/$name.log:" >&2
      tail -5 "$element/log/$name.log" >&2
      exit 1
    fi
    sleep 0.05
  done
  echo "$name did not tell it was ready within 20 s; see $element/log/$name.log" >&2
  exit 1
}

start_service pbr-mgmtd "$bin/element/mgmt/pbr-mgmtd"

if [ "$("${cli[@]}" show running --json | tr -d ' \n')" = "{}" ]; then
  "${cli[@]}" load merge "$root/element/examples/pbr-example.json"
fi

start_service pbr-app "$bin/app/pbr-app"
# The view fills in once pbr-app has attached and the PBR manager has reported.
for _ in $(seq 50); do
  "${cli[@]}" show pbr 2>/dev/null | grep -q programmed && break
  sleep 0.1
done
"${cli[@]}" show pbr

cat <<MSG

pbr-mgmtd and pbr-app are running (logs in $element/log).
In another shell, with the same PBR_ELEMENT_* variables:
  export PBR_ELEMENT_RUNTIME_DIR=$PBR_ELEMENT_RUNTIME_DIR PBR_ELEMENT_STATE_DIR=$PBR_ELEMENT_STATE_DIR
  $bin/element/cli/pbr-cli set /router/pbr{7}/rule/action/next-hop/ip 192.0.2.9
  $bin/element/cli/pbr-cli show pbr
NETCONF: $PBR_ELEMENT_RUNTIME_DIR/netconf.sock, and SSH on $PBR_ELEMENT_NETCONF_SSH
  ssh -p ${PBR_ELEMENT_NETCONF_SSH##*:} -s $(id -un)@${PBR_ELEMENT_NETCONF_SSH%:*} netconf
  cat $PBR_ELEMENT_STATE_DIR/pbr-manager.json
Ctrl-C stops both.
MSG
[ "${PBR_RUN_ONCE:-0}" = 1 ] && exit 0
wait -n
