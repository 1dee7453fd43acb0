# The daemon on USB as on Android 9, for the benchmarks (sourced from a bench folder).
. /bed/lib.sh
touch_settings() { case_settings "bits=$1" android=9; }  # getprop answers 9, in /tmp/bin
touch_go() { printf '\003\001\176' > /dev/hidraw0; }  # releases the script's touch steps

# touch_start SCRIPT: controller, daemon, set-up and touch device (status 1 if not).
touch_start() {
    start_sim "$1" || return 1
    start_daemon
    wait_until 'logged "Device[/dev/hidraw0] Setup Done"' 300 && wait_until 'has_input MorvelTouch_VirtualDevice' 50
}

# touch_record FILE [ARGS]: records the touch device (protocol check on) once it is open.
touch_record() { rec_ready "$@" --check; }
