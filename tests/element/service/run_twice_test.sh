#!/usr/bin/env bash
# element/run.sh twice in a row with the same runtime directory, the second time on an empty
# state: each run loads the example rules, shows them programmed, and leaves no socket behind.
# Usage: run_twice_test.sh BUILD_DIR
set -euo pipefail
command -v socat >/dev/null || { echo "SKIP: socat is missing (bash .ci/deps installs it)"; exit 77; }
export PBR_RUN_BUILD=$1 PBR_RUN_ONCE=1
run=$(cd "$(dirname "$0")/../../.." && pwd)/element/run.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PBR_ELEMENT_RUNTIME_DIR=$work/run
for n in 1 2; do
  out=$(PBR_ELEMENT_STATE_DIR=$work/state$n bash "$run" 2>&1) || { echo "FAIL: run $n: $out"; exit 1; }
  [ "$(grep -cE '^[0-9]+ +[0-9]+ .* programmed( |$)' <<<"$out")" = 2 ] || { echo "FAIL: run $n showed: $out"; exit 1; }
  [ ! -e "$work/run/mgmt.sock" ] || { echo "FAIL: run $n left mgmt.sock"; exit 1; }
done
echo "run.sh twice: the example rules programmed both times"
