#!/usr/bin/env bash
# The host unit suite under the sanitizers (clang):
#   1. every unit test built with AddressSanitizer + UndefinedBehaviorSanitizer
#      (build dir build-asan, shared with scripts/run-fuzz.sh), run through ctest -L unit;
#   2. the threaded tests built with ThreadSanitizer (build dir build-tsan): the whole device
#      suite (receive thread start and stop, command channel, set-up), the settings-file
#      mutex tests, the two-thread log test, the reply routing to a waiting sender, the
#      probe readers under endless traffic from another thread, and the plug-and-play check
#      of a serial controller whose receive thread is still busy.
# Any sanitizer report fails the run (halt_on_error / abort_on_error).
#
#   scripts/run-sanitizers.sh          both
#   scripts/run-sanitizers.sh asan     only the first
#   scripts/run-sanitizers.sh tsan     only the second
set -euo pipefail
cd "$(dirname "$0")/.."

what=${1:-all}
asan_dir=${ASAN_BUILD_DIR:-build-asan}
tsan_dir=${TSAN_BUILD_DIR:-build-tsan}
command -v clang++ >/dev/null || { echo "run-sanitizers: clang++ is missing (scripts/install-deps.sh)" >&2; exit 2; }
started=$(date +%s)

if [[ $what == all || $what == asan ]]; then
    echo "run-sanitizers: unit suite under AddressSanitizer + UndefinedBehaviorSanitizer"
    CC=clang CXX=clang++ cmake -S . -B "$asan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTAVRINE_SANITIZERS=address,undefined >/dev/null
    cmake --build "$asan_dir" -j2
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        ctest --test-dir "$asan_dir" --output-on-failure -L unit -j2 --repeat until-pass:2
fi

if [[ $what == all || $what == tsan ]]; then
    echo "run-sanitizers: threaded tests under ThreadSanitizer"
    CC=clang CXX=clang++ cmake -S . -B "$tsan_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTAVRINE_SANITIZERS=thread >/dev/null
    cmake --build "$tsan_dir" -j2 --target device_tests config_tests log_tests discovery_tests core_tests
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    # Test executable and gtest filter of each group of threaded tests.
    groups=(
        "device_tests *"
        "config_tests ParamFileTest.ConcurrentDevices*"
        "log_tests LogFileFixture.LinesOfTwoThreadsNeverMix"
        "discovery_tests ReadDeviceResponse.*"
        "core_tests ManagerTest.CheckOfASilentSerialControllerWhileAnotherRequestArrives:ManagerTest.AnsweringSerialControllerIsKept"
    )
    for group in "${groups[@]}"; do
        read -r exe filter <<<"$group"
        echo "run-sanitizers: $exe --gtest_filter=$filter"
        out=$("$tsan_dir/tests/$exe" --gtest_filter="$filter" 2>&1) || {
            echo "$out" | tail -80
            echo "run-sanitizers: $exe failed under ThreadSanitizer" >&2
            exit 1
        }
        # A report that did not stop the process (halt_on_error covers the rest).
        if grep -q "WARNING: ThreadSanitizer" <<<"$out"; then
            echo "$out" | grep -A40 "WARNING: ThreadSanitizer" | head -80
            exit 1
        fi
        echo "$out" | grep -E '^\[  (PASSED|FAILED)' || true
    done
fi
echo "run-sanitizers: $(( $(date +%s) - started )) s"
