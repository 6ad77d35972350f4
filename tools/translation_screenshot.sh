#!/usr/bin/env bash
# Draws docs/translation-hall.png: the Hall program of the real window, offscreen, with three
# translated phrases and the newest highlighted, as the panel's test composes it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${VELMORA_BUILD_DIR:-$root/build}
"$root/tools/build.sh"
QT_QPA_PLATFORM=offscreen "$build_dir/tests/app/tst_translationpanel" "captionsOnTheHall:each on its line" >/dev/null
cp "$build_dir/test-output/tst_translationpanel/translation-hall.png" "$root/docs/translation-hall.png"
