#!/usr/bin/env bash
# Runs pbr-app on the emulated element with its embedded defaults: installs what is missing,
# builds, starts the management server and pbr-app (memory backend), loads the example rules when
# the running configuration is empty, and shows the operational view. Then it keeps both running
# until Ctrl-C (PBR_RUN_ONCE=1: stop right after showing the view).
#
# The element's files go to build/run/element unless PBR_ELEMENT_RUNTIME_DIR and
# PBR_ELEMENT_STATE_DIR say otherwise; logs are in its log/ folder.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

bash .ci/deps
build=build/run
cmake -S . -B "$build" -DPBR_BUILD_TESTS=OFF -DPBR_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target pbr-app pbr-mgmtd pbr-cli

element=$root/$build/element
export PBR_ELEMENT_RUNTIME_DIR=${PBR_ELEMENT_RUNTIME_DIR:-$element/runtime}
export PBR_ELEMENT_STATE_DIR=${PBR_ELEMENT_STATE_DIR:-$element/state}
export PBR_ELEMENT_BACKEND=${PBR_ELEMENT_BACKEND:-memory}
export PBR_ELEMENT_NETCONF_SSH=${PBR_ELEMENT_NETCONF_SSH:-127.0.0.1:8830}
mkdir -p "$PBR_ELEMENT_RUNTIME_DIR" "$PBR_ELEMENT_STATE_DIR" "$element/log"
cli=("$root/$build/element/cli/pbr-cli" --timeout 10)

pids=()
stop() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap stop EXIT
trap 'exit 0' INT TERM

PBR_ELEMENT_LOG=$element/log/pbr-mgmtd.log "$root/$build/element/mgmt/pbr-mgmtd" &
pids+=($!)
for _ in $(seq 100); do [ -S "$PBR_ELEMENT_RUNTIME_DIR/mgmt.sock" ] && break; sleep 0.1; done

if [ "$("${cli[@]}" show running --json | tr -d ' \n')" = "{}" ]; then
  "${cli[@]}" load merge "$root/element/examples/pbr-example.json"
fi

PBR_ELEMENT_LOG=$element/log/pbr-app.log "$root/$build/app/pbr-app" &
pids+=($!)
# The view fills in once pbr-app has attached and the PBR manager has reported.
for _ in $(seq 50); do
  "${cli[@]}" show pbr 2>/dev/null | grep -q programmed && break
  sleep 0.1
done
"${cli[@]}" show pbr

cat <<MSG

pbr-mgmtd and pbr-app are running (element files in $element).
In another shell, with the same PBR_ELEMENT_* variables:
  export PBR_ELEMENT_RUNTIME_DIR=$PBR_ELEMENT_RUNTIME_DIR PBR_ELEMENT_STATE_DIR=$PBR_ELEMENT_STATE_DIR
  $build/element/cli/pbr-cli set /router/pbr{7}/rule/action/next-hop/ip 192.0.2.9
  $build/element/cli/pbr-cli show pbr
NETCONF: $PBR_ELEMENT_RUNTIME_DIR/netconf.sock, and SSH on $PBR_ELEMENT_NETCONF_SSH
  ssh -p ${PBR_ELEMENT_NETCONF_SSH##*:} -s $(id -un)@${PBR_ELEMENT_NETCONF_SSH%:*} netconf
  cat $PBR_ELEMENT_STATE_DIR/pbr-manager.json
Ctrl-C stops both.
MSG
[ "${PBR_RUN_ONCE:-0}" = 1 ] && exit 0
wait -n
