#!/bin/busybox sh
# /bin/sh for a TavrineD parent (any with FD_PROBE_ALL=1): logs "COMMAND @fds: N=TARGET..." of
# its inherited descriptors, listed by a subshell into a file so no pipe of its own shows.
if grep -q '^Name:[[:space:]]*TavrineD$' "/proc/$PPID/status" 2>/dev/null || [ "${FD_PROBE_ALL:-0}" = 1 ]; then
    (cd "/proc/$$/fd" && for n in *; do printf ' %s=%s' "$n" "$(readlink "$n")"; done) > "/tmp/fd-probe.$$"
    echo "$* @fds:$(cat "/tmp/fd-probe.$$")" >> /tmp/fd-probe.log
    rm -f "/tmp/fd-probe.$$"
fi
exec /bin/busybox sh "$@"
