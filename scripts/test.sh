#!/usr/bin/env bash
# The whole test suite: installs what it needs, builds, runs the host unit tests and the
# end-to-end scenarios in the VM test bed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
[[ -x scripts/install-vm-deps.sh ]] && scripts/install-vm-deps.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j2
ctest --test-dir build --output-on-failure -L unit -j2
if [[ -f tests/vm/CMakeLists.txt ]]; then
    ctest --test-dir build --output-on-failure -L vm
fi
