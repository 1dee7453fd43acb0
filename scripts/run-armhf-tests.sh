#!/usr/bin/env bash
# The host unit tests built for 32-bit ARM (arm-linux-gnueabihf) and run under qemu-arm:
# 4-byte long and time_t, unsigned plain char, strict alignment. Installs what it needs,
# builds in build-armhf (or ARMHF_BUILD_DIR), runs `ctest -L unit` through the emulator
# and prints the summary. The process-level tests are not built here (tests/CMakeLists.txt
# says why); everything else of the unit suite runs.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh cmake make g++-arm-linux-gnueabihf libc6-dev-armhf-cross qemu-user \
    libgtest-dev libgmock-dev

build="${ARMHF_BUILD_DIR:-build-armhf}"
start=$(date +%s)
# -O2 as in the release build (its inlining finds warnings -O0 does not), without debug
# information, which would cost a third of the build time, and with assertions kept.
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-linux-gnueabihf.cmake \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O2 >/dev/null
# The daemon, the maintenance tool and the simulator with its recorder (proves they link
# for the target) and every unit test program; the second daemon build the process tests
# use is not needed here.
mapfile -t targets < <(cmake --build "$build" --target help |
                       sed -n 's/^\.\.\. \([a-z]*_tests\|tavrinectl\|tavrine-sim\|tavrine-evrec\)$/\1/p')
cmake --build "$build" -j2 --target TavrineD "${targets[@]}"
# ELF e_machine 0x28: ARM.
if [[ "$(od -An -tx1 -j18 -N1 "$build/TavrineD" | tr -d ' ')" != 28 ]]; then
    echo "run-armhf-tests: $build/TavrineD is not an ARM binary" >&2
    exit 1
fi
built=$(date +%s)

# Tests that user-mode emulation cannot run (each is a limit of qemu-arm on this host, not
# of the target; the native host suite and the VM test bed run them):
emulator_limits=(
    # qemu-user 7.2 copies only the first 4 bytes of the 18-byte struct termio for
    # TCGETA/TCSETA*: the speed and control flags never reach the pty.
    'CheckRS232Device\.'
    'SerialPort\.OpenAtConfiguredSpeedAndRestoreOnClose'
    'SetPortBaudRate\.'
    # The serial speed search and recheck go through the same calls.
    'ForwardTest\.ResetCommandOnRs232RechecksTheSpeed'
)
exclude=$(IFS='|'; echo "${emulator_limits[*]}")

# Each test program runs in its own qemu-arm. Timeouts are stretched for the emulation, and
# a test that fails is run once more: the time bounds of the threaded tests are set for a
# native run, and the emulator can miss one on a busy host (the host suite has no retry).
ctest --test-dir "$build" --output-on-failure -L unit -E "$exclude" -j2 --timeout 300 \
    --repeat until-pass:2
echo "run-armhf-tests: build $((built - start)) s, tests $(($(date +%s) - built)) s"
