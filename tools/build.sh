#!/usr/bin/env bash
# Configures and builds Velmora into build/ (or $VELMORA_BUILD_DIR), with $VELMORA_CMAKE_ARGS if set.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${VELMORA_BUILD_DIR:-$root/build}
# shellcheck disable=SC2086 # the extra arguments are meant to split
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${VELMORA_CMAKE_ARGS:-} >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
