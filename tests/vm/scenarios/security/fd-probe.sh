#!/bin/busybox sh
# Stands in for /bin/sh while the scenario runs. When its parent is TavrineD
# (every command the daemon starts runs as "/bin/sh -c COMMAND"), it appends
# one line to $FD_PROBE_LOG: the command, " @fds:", then each descriptor
# this shell inherited as " N=TARGET". It then runs the command with the real shell.
# FD_PROBE_ALL=1 logs for any parent (the scenario's own control).
FD_PROBE_LOG=/tmp/fd-probe.log
parent=$(sed -n 's/^Name:[[:space:]]*//p' "/proc/$PPID/status" 2>/dev/null)
if [ "$parent" = TavrineD ] || [ "${FD_PROBE_ALL:-0}" = 1 ]; then
    # The listing runs in a subshell with its own redirection, so that this
    # shell holds no descriptor for it; $$ stays the pid of this shell.
    (cd "/proc/$$/fd" && for n in *; do printf ' %s=%s' "$n" "$(readlink "$n")"; done) > "/tmp/fd-probe.$$"
    line="$* @fds:$(cat "/tmp/fd-probe.$$")"
    rm -f "/tmp/fd-probe.$$"
    echo "$line" >> "$FD_PROBE_LOG"
fi
exec /bin/busybox sh "$@"
