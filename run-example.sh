#!/usr/bin/env bash
# Builds the project and runs the simulated camera body on the example card
# (examples/card) in a fresh device root, printing the run as it goes.
#   ./run-example.sh              the production script of the card (script mode)
#   ./run-example.sh --host-link  host-link mode, driven by the example factory-PC
#                                 session (examples/pc/session.batch)
# Exit status: the run's (0 when it passed).
set -euo pipefail
cd "$(dirname "$0")"

log=$(mktemp)
if ! { cmake --preset default && cmake --build --preset default -j2; } >"$log" 2>&1; then
  cat "$log"
  echo "run-example.sh: the build failed" >&2
  exit 2
fi
rm -f "$log"

sim=build/default/tools/pmode-sim/pmode-sim
pc=build/default/tools/pmode-pc/pmode-pc
root=$(mktemp -d /tmp/pmode-example.XXXXXX)

echo "== checking the card's production script"
"$sim" check --quiet examples/card/production.adj

if [ "${1:-}" = "--host-link" ]; then
  echo "== pmode-sim serving the factory PC; pmode-pc sending examples/pc/session.batch"
  "$sim" --root "$root" --card examples/card --host-link --serve-seconds 60 --json "$root/report.json" \
    >"$root/camera.log" 2>&1 &
  sim_pid=$!
  status=0
  "$pc" --root "$root" batch examples/pc/session.batch || status=$?
  kill -INT "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" || true
  echo "== the camera's side (the session provokes one failure on purpose)"
  cat "$root/camera.log"
  echo "report: $root/report.json"
  exit "$status"
fi

echo "== pmode-sim running the card"
status=0
"$sim" --root "$root" --card examples/card --json "$root/report.json" || status=$?
echo "report: $root/report.json; result tables: $root/mnt/mmc/*.csv"
exit "$status"
