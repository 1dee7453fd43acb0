# Hostile settings files: base.ini cut at every tenth byte offset, a file of
# 200-character words, and two files of binary bytes. For each, with a
# controller plugged (its set-up reads the device block), the daemon is
# started with -f: it must stay alive and reach its scan loop ("Loop in
# endless scan" in its log); then it is killed and the next file is tried.
# The log goes to /data whatever the file says (-d 1 -p 0), and -r names a
# serial path that does not exist, so a file that loses its ScanInterface
# line never makes the daemon probe the console's serial ports.
. ../touch-devices/touch-env.sh

log() { ls /data/Tavrine_*.log 2>/dev/null | head -n 1; }

try() {  # label; /tmp/hostile.ini holds the file
    local pid
    rm -f /data/Tavrine_*.log /data/TouchPID /data/TavrineA.tmp
    cp /tmp/hostile.ini /data/TavrineA.ini
    PATH=/tmp/touchbin:$PATH TavrineD -f -d 1 -p 0 -r /dev/ttyTVnone > /dev/null 2>&1
    if ! wait_until 'grep -q "Loop in endless scan" "$(log)" 2>/dev/null' 100; then
        echo "$1: no scan loop" >> "$OUT/failures.txt"
        return
    fi
    pid=$(pid_file_pid)
    wait_until 'grep -q "Setup Done" "$(log)"' 20 && setups=$((setups + 1))
    if ! is_daemon "$pid"; then
        echo "$1: daemon gone" >> "$OUT/failures.txt"
        cp "$(log)" "$OUT/$1.log"
        return
    fi
    passed=$((passed + 1))
    kill -KILL "$pid"
    wait_until '! is_daemon "$pid"' 30
}

start_sim sim.scn || step "simulator not ready"
passed=0 setups=0 tried=0
size=$(wc -c < base.ini)
cut=0
while [ "$cut" -lt "$size" ]; do
    head -c "$cut" base.ini > /tmp/hostile.ini
    tried=$((tried + 1))
    try "cut-$cut"
    cut=$((cut + 10))
done
step "cut files: $tried, started and scanning: $passed"

w=$(head -c 200 /dev/zero | tr '\0' 'W')
n=$(head -c 200 /dev/zero | tr '\0' '7')
printf '[%s]\n%s %s\nDeviceNums %s\nScanInterface %s\n[String]\nSerialPath %s\n[Device_No.%s]\nPhysical_Address %s\nSupportPoints %s\n%s\n[EndOfDevice%s\n%s' \
    "$w" "$w" "$w" "$n" "$n" "$w" "$w" "$w" "$n" "$w" "$w" "$w" > /tmp/hostile.ini
try long-words
head -c 4096 /bed/bin/tavrine-sim > /tmp/hostile.ini
try binary-elf
{ head -c 200 base.ini; head -c 3000 /dev/urandom; } > /tmp/hostile.ini
cp /tmp/hostile.ini "$OUT/random.ini"
try binary-random
step "all files: $((tried + 3)), started and scanning: $passed"
echo "files whose controller set-up was done: $setups of $((tried + 3))" > "$OUT/figures.txt"
[ -e "$OUT/failures.txt" ] && cat "$OUT/failures.txt" >> "$OUT/steps.txt"
step "TavrineD processes left: $(daemon_count)"
