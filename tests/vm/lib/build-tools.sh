# Builds the bed's static programs (sourced by run-vm.sh).
# Needs: BED (tests/vm folder), BUILD (build folder). Sets SIM_BIN, EVREC_BIN.

TOOL_FLAGS="-static -O2 -std=c++17 -Wall -Wextra -Werror"

# Builds $1 from the listed sources in sim/ when any source is newer.
build_tool() {
    out=$BUILD/bin/$1
    shift
    newest=$(cd "$BED/sim" && ls -t -- *.h "$@" | head -n 1)
    if [ -x "$out" ] && [ "$out" -nt "$BED/sim/$newest" ]; then
        return 0
    fi
    mkdir -p "$BUILD/bin"
    (cd "$BED/sim" && g++ $TOOL_FLAGS "$@" -o "$out.tmp.$$") > "$BUILD/$(basename "$out").build.log" 2>&1 || {
        cat "$BUILD/$(basename "$out").build.log" >&2
        rm -f "$out.tmp.$$"
        return 1
    }
    mv "$out.tmp.$$" "$out"
}

build_tools() {
    build_tool tavrine-sim sim_main.cpp sim_engine.cpp sim_script.cpp uhid_port.cpp pty_port.cpp hid_report_sizes.cpp sim_dump.cpp \
        event_log.cpp hex.cpp || return 1
    build_tool tavrine-evrec evrec_main.cpp evdev_trace.cpp mt_checker.cpp event_log.cpp hex.cpp || return 1
    SIM_BIN=$BUILD/bin/tavrine-sim
    EVREC_BIN=$BUILD/bin/tavrine-evrec
}

# Builds the daemon statically. Sets DAEMON_BIN, or DAEMON_WHY on failure.
# GCC 12 sees the inlined write(2) of a whole input_event as reading past
# its first member (-Wstringop-overread, a false positive); here it stays a
# warning so that the bed tests behaviour. The main build keeps its gate.
build_daemon() {
    log=$BUILD/daemon-build.log
    if cmake -S "$REPO" -B "$BUILD/daemon" -DTAVRINE_STATIC=ON -DTAVRINE_BUILD_TESTS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS=-Wno-error=stringop-overread > "$log" 2>&1 &&
        cmake --build "$BUILD/daemon" -j2 --target TavrineD >> "$log" 2>&1; then
        DAEMON_BIN=$(find "$BUILD/daemon" -type f -name TavrineD -perm -u+x | head -n 1)
        [ -n "$DAEMON_BIN" ] && return 0
    fi
    DAEMON_WHY="TavrineD did not build statically (log: $log)"
    return 1
}
