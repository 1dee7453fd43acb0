#!/bin/sh
# Host check without the VM: every scenario script (a *.steps after its folder's pcap4155.scn)
# parses with the installed tavrine-sim, laid out as in the guest.
set -u
BED=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$BED/../.." && pwd)
BUILD=${TAVRINE_VM_BUILD:-$BED/.build}
WORK=$(mktemp -d) && trap 'rm -rf "$WORK"' EXIT
. "$BED/lib/build-tools.sh"
STAGE=$WORK/stage DAEMON_BIN=none # the simulator only
build_programs || { echo "vm-scripts: the simulator did not build"; exit 1; }
mkdir -p "$WORK/bed/scenarios" "$WORK/bed/sim"
for dir in "$BED/scenarios" "$REPO/bench/vm" "$REPO/scripts/demo"; do [ -d "$dir" ] && cp -r "$dir/." "$WORK/bed/scenarios/"; done
cp -r "$STAGE/share/tavrine-sim/descriptors" "$WORK/bed/sim/descriptors"
for f in "$WORK"/bed/scenarios/*/*.steps; do [ -f "$f" ] && cat "${f%/*}/pcap4155.scn" "$f" > "$f.scn"; done
passed=0 failed=0
for scn in "$WORK"/bed/scenarios/*/*.scn; do
    "$SIM_BIN" "$scn" --check > "$WORK/out" 2>&1 && passed=$((passed + 1)) ||
        { failed=$((failed + 1)) && echo "FAIL ${scn#"$WORK"/bed/}: $(cat "$WORK/out")"; }
done
echo "vm-scripts: $passed passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" -gt 0 ]
