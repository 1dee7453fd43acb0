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

# Runs "$@" while holding the build folder's lock: runs started side by side
# share the programs and the daemon's build folder.
with_build_lock() {
    mkdir -p "$BUILD"
    (
        flock 9
        "$@"
    ) 9> "$BUILD/build.lock"
}

build_tools() {
    with_build_lock build_tools_locked || return 1
    SIM_BIN=$BUILD/bin/tavrine-sim
    EVREC_BIN=$BUILD/bin/tavrine-evrec
}

build_tools_locked() {
    build_tool tavrine-sim sim_main.cpp sim_engine.cpp sim_script.cpp uhid_port.cpp pty_port.cpp hid_report_sizes.cpp sim_dump.cpp \
        event_log.cpp hex.cpp || return 1
    build_tool tavrine-evrec evrec_main.cpp evdev_trace.cpp mt_checker.cpp event_log.cpp hex.cpp
}

# Builds the daemon statically. Sets DAEMON_BIN, or DAEMON_WHY on failure; also builds
# the maintenance tool tavrinectl in the same folder (CTL_BIN, empty when it fails).
# GCC 12 sees the inlined write(2) of a whole input_event as reading past
# its first member (-Wstringop-overread, a false positive); here it stays a
# warning so that the bed tests behaviour. The main build keeps its gate.
build_daemon() {
    log=$BUILD/daemon-build.log
    DAEMON_BIN=""
    CTL_BIN=""
    if with_build_lock build_daemon_locked "$log"; then
        DAEMON_BIN=$(find "$BUILD/daemon" -type f -name TavrineD -perm -u+x | head -n 1)
        if [ -f "$BUILD/daemon/.tavrinectl-built" ]; then
            CTL_BIN=$(find "$BUILD/daemon" -type f -name tavrinectl -perm -u+x | head -n 1)
        else
            echo "run-vm: tavrinectl did not build statically (log: $log)" >&2
        fi
        [ -n "$DAEMON_BIN" ] && return 0
    fi
    DAEMON_WHY="TavrineD did not build statically (log: $log)"
    return 1
}

# Configures and builds into $BUILD/daemon, logging to $1; the marker file
# says whether tavrinectl built too.
build_daemon_locked() {
    rm -f "$BUILD/daemon/.tavrinectl-built"
    cmake -S "$REPO" -B "$BUILD/daemon" -DTAVRINE_STATIC=ON -DTAVRINE_BUILD_TESTS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS=-Wno-error=stringop-overread > "$1" 2>&1 &&
        cmake --build "$BUILD/daemon" -j2 --target TavrineD >> "$1" 2>&1 || return 1
    if cmake --build "$BUILD/daemon" -j2 --target tavrinectl >> "$1" 2>&1; then
        touch "$BUILD/daemon/.tavrinectl-built"
    fi
    return 0
}
