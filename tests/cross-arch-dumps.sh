#!/usr/bin/env bash
# A cross build must store the calibration data byte for byte as the host build does
# (byte order, struct layout, sizes of types). From the same inputs, the host's tools
# and the target's (under the emulator) run the example card and then set an item of
# every kind with adjtool; the adjust dump, the stored preference groups and adjtool's
# listing must be identical.
#   tests/cross-arch-dumps.sh HOST_BUILD TARGET_BUILD SOURCE_DIR
set -euo pipefail
host_build=$1 target_build=$2 source=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
head -c 2380000 /dev/urandom >"$work/defects.bin"
shading=$(for ((i = 0; i < 4000; i++)); do printf '%02x' $(((i * 37 + 11) % 256)); done)

# One value of each kind: signed and unsigned numbers of 1, 2 and 4 bytes, text,
# a byte string, arrays, the shipment country (its items come from the country
# table) and line values.
settings=(
    "ADJUST_EV_STEP_DISPLAY -3" "ADJUST_EFUSE_VALUE 0xa5" "ADJUST_CIS_CHIP_VERSION 0x1234"
    "ADJUST_AFE_GAIN_CH2_OFFSET -2" "ADJUST_PAF_H_OFFSET -123456" "ADJUST_GYRO_CAL_DATA_X 0x89abcdef"
    "ADJUST_CIS_LOT_NUMBER text:LOT-2024-ARM-CHECK" "ADJUST_WIFI_MAC_ADDRESS hex:0123456789abcdef01234567"
    "ADJUST_CAPTURE_COLOR_SHADING_LIGHT_B_ADDR hex:$shading"
    "ADJUST_CAPTURE_LTE_DEFECT_PIXEL_ADR file:$work/defects.bin" "ADJUST_SHIPMENT_COUNTRY 17"
    "LINE_PTP_AUTO_ENABLE 0x01020304" "143 -2"
)

# record SIDE SIM ADJTOOL: the side's files under $work/SIDE.
record() {
    local side=$1 sim=$2 adjtool=$3 root=$work/$1/root
    mkdir -p "$work/$side"
    "$sim" --root "$root" --card "$source/examples/card" >"$work/$side/run.txt" 2>&1 ||
        { cat "$work/$side/run.txt"; echo "$side: the example card's run failed"; return 1; }
    for setting in "${settings[@]}"; do
        read -r item value <<<"$setting"
        "$adjtool" --root "$root" set "$item" "$value" >/dev/null || { echo "$side: set $item failed"; return 1; }
    done
    "$adjtool" --root "$root" dump "$work/$side/adjust.dump" >/dev/null
    "$adjtool" --root "$root" list >"$work/$side/list.txt"
    cp "$root"/mnt/ubi1/pref/store/group{1,3}.bin "$work/$side/"
}

for tool in "$host_build"/tools/{pmode-sim/pmode-sim,adjtool/adjtool} "$target_build"/emulated-tools/{pmode-sim,adjtool}; do
    [ -x "$tool" ] || { echo "missing $tool: build the host's and the target's tools first"; exit 1; }
done
record host "$host_build/tools/pmode-sim/pmode-sim" "$host_build/tools/adjtool/adjtool"
record target "$target_build/emulated-tools/pmode-sim" "$target_build/emulated-tools/adjtool"

grep -q "LOT-2024-ARM-CHECK" "$work/host/list.txt" || { echo "the host's listing lacks a value set"; exit 1; }
status=0
for file in adjust.dump group1.bin group3.bin list.txt; do
    if cmp "$work/host/$file" "$work/target/$file"; then
        echo "same: $file ($(stat -c %s "$work/host/$file") bytes)"
    else
        status=1
        [ "$file" = list.txt ] && diff "$work/host/$file" "$work/target/$file" | head -40
    fi
done
exit $status
