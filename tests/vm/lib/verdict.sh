# Splits the consoles into per-scenario files and judges each scenario (sourced by run-vm.sh).

# Writes every file printed between markers to $OUT/<scenario>/<path>.
split_console() {
    awk -v out="$OUT" '
        FNR == 1 { file = "" }  # a block cut off by a killed VM ends with its console
        { sub(/\r$/, "") }
        /@@BED-FILE-END/ { if (file != "") close(file); file = ""; next }
        match($0, /@@BED-FILE [^ ]+ [^ ]+/) {
            split(substr($0, RSTART, RLENGTH), w, " ")
            if (w[2] ~ /\.\./ || w[3] ~ /\.\./) next
            file = out "/" w[2] "/" w[3] ".b64"
            dir = file; sub(/\/[^\/]*$/, "", dir)
            system("mkdir -p \"" dir "\"")
            printf "" > file
            next
        }
        file != "" { print > file }
    ' $CONSOLES
    find "$OUT" -name '*.b64' | while read -r f; do
        base64 -d < "$f" > "${f%.b64}" 2>/dev/null || echo "run-vm: could not decode ${f%.b64}" >&2
        rm -f "$f"
    done
}

# "rc=N start=S end=E" of scenario $1 from the console, empty if missing.
scenario_end_line() {
    cat $CONSOLES | tr -d '\r' | sed -n "s/.*@@BED-SCENARIO-END $1 //p" | head -n 1
}

# Compares each expected.<name> (expected.<case>.<file> in a family) of scenario $1.
compare_expected() {
    status=0
    for exp in "$(scenario_dir "$1")"/expected.*; do
        [ -f "$exp" ] || continue
        name=${exp##*/expected.}
        actual=$OUT/$1/$name
        [ -d "$OUT/$1/${name%%.*}" ] && actual=$OUT/$1/${name%%.*}/${name#*.}
        [ -f "$actual" ] || : > "$OUT/$1/$name.missing"
        [ -f "$actual" ] || actual=$OUT/$1/$name.missing
        if ! diff -u --label "expected/$name" --label "actual/$name" "$exp" "$actual" >> "$OUT/$1/diff.txt"; then
            status=1
        fi
    done
    [ -s "$OUT/$1/diff.txt" ] && cat "$OUT/$1/diff.txt"
    return $status
}

# Judges scenario $1; prints one PASS/FAIL line; returns 0 for a pass.
judge_scenario() {
    s=$1
    mkdir -p "$OUT/$s"
    rm -f "$OUT/$s/diff.txt"
    end=$(scenario_end_line "$s")
    if [ -z "$end" ]; then
        echo "FAIL $s: did not finish in the guest (see $OUT/console-*.log)"
        return 1
    fi
    rc=$(echo "$end" | sed -n 's/.*rc=\([0-9]*\).*/\1/p')
    secs=$(echo "$end" | awk '{ split($2, a, "="); split($3, b, "="); printf "%.1f", b[2] - a[2] }')
    why=""
    [ "$rc" = 0 ] || why="run.sh exit status $rc (see $OUT/$s/run.out)"
    compare_expected "$s" > "$OUT/$s/diff.out" || why="${why:+$why; }output differs from expected"
    if [ -f "$(scenario_dir "$s")/expect-fail" ]; then
        cat "$OUT/$s/diff.out"
        if [ -n "$why" ] && [ -s "$OUT/$s/diff.txt" ]; then
            echo "PASS $s (${secs} s): failed as it must, with the diff above"
            return 0
        fi
        echo "FAIL $s (${secs} s): this self-test must fail with a diff, but ${why:-it passed}"
        return 1
    fi
    if [ -z "$why" ]; then
        echo "PASS $s (${secs} s)"
        return 0
    fi
    cat "$OUT/$s/diff.out"
    echo "FAIL $s (${secs} s): $why"
    return 1
}
