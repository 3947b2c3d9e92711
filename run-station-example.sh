#!/usr/bin/env bash
# Builds what the station example needs, starts the simulated camera in host-link
# mode and pmode-station on the example factory-PC session (examples/pc/session.batch),
# and prints the page's address. Open it in a browser; Ctrl-C stops both.
#
#   ./run-station-example.sh [--port N] [--db WHERE]
#
#   --port N     the station's port on 127.0.0.1 (default 8080; 0 picks a free one)
#   --db WHERE   the results database (default: pmode-station.db in this example's
#                folder below /tmp; postgresql://... for PostgreSQL)
#
# Exit status: 0 when stopped with Ctrl-C, 1 when the station could not start, 2 when
# the build failed or the command line is wrong.
set -euo pipefail
cd "$(dirname "$0")"

usage() { sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'; }

port=8080
db=""
while [ $# -gt 0 ]; do
  case "$1" in
    --port | --db)
      [ $# -ge 2 ] || { echo "run-station-example.sh: $1 needs a value" >&2; exit 2; }
      if [ "$1" = --port ]; then port=$2; else db=$2; fi
      shift 2
      ;;
    -h | --help) usage; exit 0 ;;
    *) echo "run-station-example.sh: unknown argument '$1'" >&2; usage >&2; exit 2 ;;
  esac
done

build=build/default
log=$(mktemp)
if [ ! -f "$build/build.ninja" ]; then
  echo "== configuring $build (first time only)"
  cmake --preset default >"$log" 2>&1 || { cat "$log"; echo "run-station-example.sh: configuring failed" >&2; exit 2; }
fi
echo "== building pmode-sim, its demo plug-ins and pmode-station (with its page and chart library)"
set +e
cmake --build "$build" -j2 --target pmode-sim pmode-station 2>&1 | tee "$log" | grep --line-buffered -E '^\[[0-9]+/[0-9]+\]|no work to do'
built=${PIPESTATUS[0]}
set -e
if [ "$built" != 0 ] || [ ! -x "$build/tools/pmode-station/pmode-station" ]; then
  cat "$log"
  echo "run-station-example.sh: the build failed (pmode-station needs libcpp-httplib-dev)" >&2
  exit 2
fi
rm -f "$log"

work=$(mktemp -d /tmp/pmode-station-example.XXXXXX)
mkdir "$work/root"
[ -n "$db" ] || db=$work/pmode-station.db
build_abs=$(pwd)/$build
"$build_abs/tools/pmode-sim/pmode-sim" --root "$work/root" --card examples/card --host-link >"$work/camera.log" 2>&1 &
sim_pid=$!
trap 'kill -INT "$sim_pid" "${station_pid:-}" 2>/dev/null || true; wait 2>/dev/null || true; echo "camera log: $work/camera.log; database: $db"' EXIT
trap 'exit 0' INT TERM
echo "== the camera serves the host link below $work/root; the station runs examples/pc/session.batch"
"$build_abs/tools/pmode-station/pmode-station" --root "$work/root" --port "$port" --db "$db" \
  --batch examples/pc/session.batch --name example &
station_pid=$!
status=0
wait "$station_pid" || status=$?
exit "$status"
