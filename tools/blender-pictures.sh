#!/usr/bin/env bash
# Remakes the pictures of docs/blender.md (docs/pictures/blender-*.png): Blender runs the add-on on
# the cat and the lion (from ../shared/data/cat-lion, or the folder given) and on generated meshes,
# headless, and renders each step with Workbench. Needs the Release build (bash tools/setup.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
data=${1:-../shared/data/cat-lion}
if [ ! -e build/python/kavrin/__init__.py ]; then
  echo "blender-pictures: build/python holds no kavrin package; build first (bash tools/setup.sh)" >&2
  exit 1
fi
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! blender -b --factory-startup --python-exit-code 1 --python tools/blender_pictures.py -- \
    "$PWD/build" "$data" "$PWD/docs/pictures" >"$log" 2>&1; then
  cat "$log" >&2
  echo "blender-pictures: rendering failed" >&2
  exit 1
fi
grep "^pictures:" "$log"
