# The tool pipes: the answers the daemon awaits during set-up after it has
# created the pipes (right-click format, right-click switch-off, format 1)
# never reach /data/MorvelPipe_out; a loop-back command written into
# /data/MorvelPipe_in reaches the controller and its answer (one 64-byte
# report) comes out; a version command answered in two fragments comes out
# merged (8 bytes).
. /bed/lib.sh
. ../cmd-common/cmd.sh

# Prints one read of the output pipe (at most 128 bytes, waiting up to $1 s)
# as hexadecimal bytes on one line.
read_pipe() {
    timeout "$1" dd if=/data/MorvelPipe_out bs=128 count=1 2>/dev/null |
        od -An -tx1 -v | tr -s ' \n' '  ' | sed 's/^ //; s/ $//'
    echo
}

start_sim sim.scn
cmd_start_daemon tool
cmd_wait_setup 150 && step "set-up done" || step "set-up not done"
cmd_logged "Leave SetRCLKFormat with ret=0" && step "logged: right-click switched off"
cmd_logged "Leave SetFormat with ret=0" && step "logged: format 1 confirmed"
# Plain Linux (no getprop): the pipes give others no access (0620, 0640).
[ -p /data/MorvelPipe_in ] && [ -p /data/MorvelPipe_out ] && step "pipes: $(stat -c %a /data/MorvelPipe_in /data/MorvelPipe_out | tr '\n' ' ')"
step "output pipe after set-up: [$(read_pipe 1)]"
printf '\003\001\101' > /data/MorvelPipe_in
read_pipe 3 > "$OUT/tool-loopback.txt"
printf '\003\001\104' > /data/MorvelPipe_in
read_pipe 3 > "$OUT/tool-version.txt"
step "output pipe at the end: [$(read_pipe 1)]"
cmd_received "$OUT/sim.log" > "$OUT/cmds.txt"
