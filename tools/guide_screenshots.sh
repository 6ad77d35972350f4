#!/usr/bin/env bash
# Draws the user guide's pictures in docs/guide/ from the real window, under a virtual display when
# one is at hand (offscreen otherwise): the main window on each tab in Spanish, the wizard's second
# page, and the first tab in English. Pass a folder to keep every picture in both languages there
# instead.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${VELMORA_BUILD_DIR:-$root/build}
"$root/tools/build.sh"
shots="$build_dir/tools/shots/velmora-shots"
out=${1:-}
work=${out:-$(mktemp -d)}
for language in es en; do
  if command -v xvfb-run >/dev/null; then
    QT_QPA_PLATFORM=xcb xvfb-run -a -s "-screen 0 1400x1000x24" "$shots" "$work" "$language" >/dev/null
  else
    QT_QPA_PLATFORM=offscreen "$shots" "$work" "$language" >/dev/null
  fi
done
if [ -z "$out" ]; then
  mkdir -p "$root/docs/guide"
  cp "$work"/es-tab-*.png "$work/es-wizard-2.png" "$work/en-tab-1.png" "$root/docs/guide/"
  rm -rf "$work"
fi
