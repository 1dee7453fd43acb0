#!/usr/bin/env bash
# Builds the daemon and shows its usage.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j2 --target TavrineD
build/TavrineD -h
