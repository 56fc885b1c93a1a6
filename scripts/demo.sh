#!/usr/bin/env bash
# Installs the build dependencies, builds the library and the kel tool, and
# runs the tool's built-in demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target kel_cli
build/tools/kel demo "$@"
