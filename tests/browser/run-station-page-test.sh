#!/usr/bin/env bash
# The browser test of pmode-station's pages (ctest label "browser"): skipped, with
# the reason, when node, the npm packages, chromium or the station are missing
# (exit 77, ctest's SKIP_RETURN_CODE). Arguments: the build tree and the source tree.
set -euo pipefail
build=$1 source=$2
skip() { echo "SKIPPED: $*"; exit 77; }
command -v node >/dev/null || skip "node is missing (apt-get install nodejs)"
chromium=${PM_CHROMIUM:-/usr/bin/chromium}
[ -x "$chromium" ] || skip "chromium is missing at $chromium (apt-get install chromium)"
modules=$build/tools/pmode-station/npm/node_modules
[ -d "$modules/playwright-core" ] || skip "the npm package playwright-core is missing in $modules (npm ci failed or npm is missing)"
[ -f "$build/tools/pmode-station/web/vendor/chart.umd.js" ] || skip "the npm package chart.js is missing (npm ci failed or npm is missing)"
[ -x "$build/tools/pmode-station/pmode-station" ] || skip "pmode-station is not built (cpp-httplib missing?)"
export PM_BUILD_DIR=$build PM_SOURCE_DIR=$source PM_CHROMIUM=$chromium NODE_PATH=$modules
exec node "$(dirname "$0")/station-page.cjs"
