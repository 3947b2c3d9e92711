#!/usr/bin/env bash
# Builds what the example needs and runs the simulated camera body on the
# example card (examples/card), printing the run as it goes.
#
#   ./run-example.sh [--root DIR] [--fail]   the card's production script (script mode)
#   ./run-example.sh [--root DIR] --host-link
#                          host-link mode, driven by the example factory-PC session
#                          (examples/pc/session.batch)
#
#   --root DIR   the device root to run in (made when missing; kept afterwards).
#                Without it every run gets a fresh root below /tmp. Run twice on
#                one root to see the camera resume: the first run with --fail stops
#                at step 2, the second (without --fail) starts at label ADJ_02.
#   --fail       the card's shutter adjustment (step 2) fails, as on a bad unit.
#
# Exit status: the run's (0 when it passed; see pmode-sim --help), 2 when the
# build failed or the command line is wrong.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
  sed -n '2,17p' "$0" | sed 's/^# \{0,1\}//'
}

root=""
mode=script
fail=0
while [ $# -gt 0 ]; do
  case "$1" in
    --root)
      [ $# -ge 2 ] || { echo "run-example.sh: --root needs a directory" >&2; exit 2; }
      root=$2
      shift 2
      ;;
    --host-link) mode=host-link; shift ;;
    --fail) fail=1; shift ;;
    -h | --help) usage; exit 0 ;;
    *) echo "run-example.sh: unknown argument '$1'" >&2; usage >&2; exit 2 ;;
  esac
done
if [ "$mode" = host-link ] && [ "$fail" = 1 ]; then
  echo "run-example.sh: --fail is for script mode (the PC session provokes its own failure)" >&2
  exit 2
fi

build=build/default
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if [ ! -f "$build/build.ninja" ]; then
  echo "== configuring $build (first time only)"
  if ! cmake --preset default >"$log" 2>&1; then
    cat "$log"
    echo "run-example.sh: configuring failed" >&2
    exit 2
  fi
fi
# Only the simulator, its plug-ins and the PC client; Ninja prints one line per step.
echo "== building pmode-sim, its demo plug-ins and pmode-pc"
set +e
cmake --build "$build" -j2 --target pmode-sim pmode-pc 2>&1 | tee "$log" | grep --line-buffered -E '^\[[0-9]+/[0-9]+\]|no work to do'
built=${PIPESTATUS[0]}
set -e
if [ "$built" != 0 ]; then
  cat "$log"
  echo "run-example.sh: the build failed" >&2
  exit 2
fi

sim=$build/tools/pmode-sim/pmode-sim
pc=$build/tools/pmode-pc/pmode-pc
if [ -z "$root" ]; then
  root=$(mktemp -d /tmp/pmode-example.XXXXXX)
else
  mkdir -p "$root"
fi

card=examples/card
if [ "$fail" = 1 ]; then
  card=$(mktemp -d /tmp/pmode-example-card.XXXXXX)
  cp examples/card/* "$card/"
  sed -i 's|^shutter adjust 1/4000$|shutter adjust 1/4000 fail|' "$card/production.adj"
fi

echo "== checking the card's production script"
"$sim" check --quiet "$card/production.adj"

if [ "$mode" = host-link ]; then
  echo "== pmode-sim serving the factory PC; pmode-pc sending examples/pc/session.batch"
  "$sim" --root "$root" --card "$card" --host-link --serve-seconds 60 --json "$root/report.json" \
    >"$root/camera.log" 2>&1 &
  sim_pid=$!
  status=0
  "$pc" --root "$root" batch examples/pc/session.batch || status=$?
  # The PC is done: stop the camera as the line does, by switching it off.
  kill -INT "$sim_pid" 2>/dev/null || true
  camera=0
  wait "$sim_pid" || camera=$?
  echo "== the camera's side (the session provokes one failure on purpose)"
  cat "$root/camera.log"
  echo "report: $root/report.json"
  [ "$status" = 0 ] && status=$camera
  exit "$status"
fi

echo "== pmode-sim running the card"
status=0
"$sim" --root "$root" --card "$card" --json "$root/report.json" || status=$?
[ "$fail" = 1 ] && rm -rf "$card"
echo "report: $root/report.json; result tables: $root/mnt/mmc/*.csv"
if [ "$fail" = 1 ]; then
  echo "run again on this root to resume: ./run-example.sh --root $root"
fi
exit "$status"
