#!/usr/bin/env bash
# Installs what the build and the host tests need (Debian packages). Idempotent: packages
# already present are not touched, and apt is not contacted when nothing is missing.
#
#   scripts/install-deps.sh              what the build and the host tests need
#   scripts/install-deps.sh PACKAGE...   those packages only (other scripts' extra needs)
set -euo pipefail

# clang and its runtime (libFuzzer, sanitizers): scripts/run-fuzz.sh, scripts/run-sanitizers.sh.
# pandoc: the man pages (docs/*.md); python3: the udev rule check (tests/platform).
# libbenchmark-dev, valgrind: the benchmark (scripts/bench.sh), not the tests.
packages=(cmake g++ make libgtest-dev libgmock-dev clang libclang-rt-14-dev pandoc python3
          libbenchmark-dev valgrind)
(($#)) && packages=("$@")

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
    echo "install-deps: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
