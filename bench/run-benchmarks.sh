#!/usr/bin/env bash
# Builds the benchmark programs (Release, preset "bench") and runs them all, then
# prints one table: each operation's time per call, its floor's and their ratio.
# Extra arguments go to every program (for example --benchmark_min_time=2).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset bench >/dev/null
cmake --build --preset bench
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for program in build/bench/bench/*Bench; do
  echo "running $(basename "$program")" >&2
  "$program" --benchmark_format=json --benchmark_out="$out/$(basename "$program").json" \
    --benchmark_out_format=json "$@" >/dev/null
done
python3 - "$out"/*.json <<'PY'
import json, sys

def shown(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.2f} {unit}"
    return f"{ns:.1f} ns"

rows = []
for path in sys.argv[1:]:
    for b in json.load(open(path))["benchmarks"]:
        if b.get("error_occurred"):
            rows.append((b["name"], "ERROR: " + b.get("error_message", ""), "", ""))
            continue
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b["time_unit"]]
        op = b.get("op_ns", b["real_time"] * scale)
        floor = b.get("floor_ns")
        rows.append((b["name"], shown(op), shown(floor) if floor else "-", f"{b['ratio']:.2f}x" if floor else "-"))
width = max(len(r[0]) for r in rows)
print(f"{'operation':<{width}}  {'per call':>12}  {'floor':>12}  {'ratio':>8}")
for name, op, floor, ratio in rows:
    print(f"{name:<{width}}  {op:>12}  {floor:>12}  {ratio:>8}")
PY
