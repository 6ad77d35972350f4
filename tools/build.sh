#!/usr/bin/env bash
# Configures and builds Velmora into build/ (or $VELMORA_BUILD_DIR).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${VELMORA_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
