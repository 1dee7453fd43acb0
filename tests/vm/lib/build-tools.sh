# Builds the static programs into $BUILD/stage, copied to STAGE (sourced by run-vm.sh):
# SIM_BIN, EVREC_BIN, and unless given DAEMON_BIN, with CTL_BIN (DAEMON_WHY if it did not build).
# -Wstringop-overread stays a warning: GCC 12 misreads the inlined write of an input_event.

# build_component COMPONENT TARGET...: builds and installs one component into $BUILD/stage.
build_component() {
    component=$1 && shift
    cmake --build "$BUILD/daemon" -j2 --target "$@" >> "$BUILD/build.log" 2>&1 &&
        cmake --install "$BUILD/daemon" --prefix "$BUILD/stage" --component "$component" >> "$BUILD/build.log" 2>&1
}

# $1: 1 to build the daemon and tavrinectl too; leaves $BUILD/stage.ok-* markers.
build_programs_locked() {
    : > "$BUILD/build.log"
    rm -f "$BUILD"/stage.ok-*
    cmake -S "$REPO" -B "$BUILD/daemon" -DTAVRINE_STATIC=ON -DTAVRINE_BUILD_TESTS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS=-Wno-error=stringop-overread \
        >> "$BUILD/build.log" 2>&1 || return 1
    man="" && grep -q '^TAVRINE_PANDOC:FILEPATH=/' "$BUILD/daemon/CMakeCache.txt" && man=man
    build_component sim tavrine-sim tavrine-evrec $man && touch "$BUILD/stage.ok-sim"
    if [ "$1" = 1 ]; then
        build_component daemon TavrineD $man && touch "$BUILD/stage.ok-daemon"
        build_component tool tavrinectl $man && touch "$BUILD/stage.ok-tool"
    fi
    # A copy of its own: a later run may install again while this one packs.
    rm -rf "$STAGE" && cp -a "$BUILD/stage" "$STAGE"
}

build_programs() {
    want_daemon=0 && [ -z "$DAEMON_BIN" ] && want_daemon=1
    mkdir -p "$BUILD"
    # Runs side by side share the build folder: one builds at a time.
    (flock 9 && build_programs_locked "$want_daemon") 9> "$BUILD/build.lock" && [ -f "$BUILD/stage.ok-sim" ] ||
        { cat "$BUILD/build.log" >&2; return 1; }
    SIM_BIN=$STAGE/bin/tavrine-sim EVREC_BIN=$STAGE/bin/tavrine-evrec
    [ "$want_daemon" = 1 ] || return 0
    CTL_BIN=$STAGE/bin/tavrinectl
    [ -f "$BUILD/stage.ok-tool" ] || { CTL_BIN="" && echo "run-vm: tavrinectl did not build statically (log: $BUILD/build.log)" >&2; }
    [ -f "$BUILD/stage.ok-daemon" ] && DAEMON_BIN=$STAGE/sbin/TavrineD ||
        DAEMON_WHY="TavrineD did not build statically (log: $BUILD/build.log)"
    return 0
}
