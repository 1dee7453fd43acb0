#!/usr/bin/env bash
# Size of the tests against the code they test, in non-blank lines of the files git tracks
# (files on disk that git does not track, such as build output, are not counted).
#
#   test code    every file under tests/, except
#                  - fuzz seed corpora: tests/fuzz/corpus/** (binary inputs for the fuzzers)
#                  - recorded expected traces: files named expected.* anywhere under tests/
#                    (the evdev traces, transcripts and file images a VM scenario's output is
#                    compared with byte for byte) and *.dump under tests/ (the simulator's
#                    recorded parse of a script)
#                Everything else counts: C/C++, shell, Python, awk, CMake, the simulator
#                scripts (*.scn), descriptors and byte fixtures (*.hex), hand-written
#                multi-touch checker inputs (*.trace), READMEs.
#   code         every file under src/ and tools/
#
# Prints one line per side and the ratio:
#   tests: <lines> non-blank lines (<files> files)
#   code:  <lines> non-blank lines (<files> files)
#   ratio: <100 * tests / code> %
set -euo pipefail
cd "$(dirname "$0")/.."

# Non-blank lines (a line with at least one non-whitespace character) of the NUL-separated
# file names on standard input; prints "<lines> <files>".
count_non_blank() {
    local names
    names=$(mktemp)
    cat >"$names"
    local files lines
    files=$(tr -cd '\0' <"$names" | wc -c)
    lines=$( (xargs -0 -r awk '/[^[:space:]]/ { n++ } END { print n + 0 }' <"$names") |
        awk '{ s += $1 } END { print s + 0 }')
    rm -f "$names"
    echo "$lines $files"
}

test_files() {
    git ls-files -z -- tests | while IFS= read -r -d '' f; do
        case $f in
            tests/fuzz/corpus/*) continue ;;
            */expected.*) continue ;;
            *.dump) continue ;;
        esac
        printf '%s\0' "$f"
    done
}

read -r test_lines test_files_n < <(test_files | count_non_blank)
read -r code_lines code_files_n < <(git ls-files -z -- src tools | count_non_blank)

echo "tests: $test_lines non-blank lines ($test_files_n files)"
echo "code:  $code_lines non-blank lines ($code_files_n files)"
if ((code_lines > 0)); then
    awk -v t="$test_lines" -v c="$code_lines" 'BEGIN { printf "ratio: %.1f %%\n", 100 * t / c }'
fi
