#!/usr/bin/env bash
# Runs one fuzz target of the "fuzz" preset for a while:
#
#   fuzz/run-fuzzer.sh TARGET [SECONDS] [extra libFuzzer options...]
#
# New interesting inputs go to build/fuzz/corpus/TARGET (seeded from the saved
# corpus fuzz/corpus/TARGET, which stays as it is); a crash, leak or time-out is
# written to fuzz/findings/TARGET/ and makes the script exit non-zero. The
# library's standard output (its error log) is closed to keep the run fast.
set -euo pipefail
cd "$(dirname "$0")/.."

target=${1:?usage: fuzz/run-fuzzer.sh TARGET [SECONDS] [libFuzzer options...]}
seconds=${2:-600}
shift $(( $# >= 2 ? 2 : 1 ))

program=build/fuzz/fuzz/$target
[ -x "$program" ] || { echo "no $program: cmake --preset fuzz && cmake --build --preset fuzz" >&2; exit 2; }
work=build/fuzz/corpus/$target
findings=fuzz/findings/$target
mkdir -p "$work" "$findings"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1:suppressions=$PWD/fuzz/known-issues.supp}
exec "$program" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -max_len=4096 -close_fd_mask=1 \
  -print_final_stats=1 -artifact_prefix="$findings/" "$@" "$work" "fuzz/corpus/$target"
