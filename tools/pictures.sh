#!/usr/bin/env bash
# Remakes the README's pictures, docs/pictures/*.png: runs the demo into a temporary folder and
# copies the pictures its index.html shows. Needs the Release build (bash tools/setup.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
kavrin=build/apps/kavrin/kavrin
if [ ! -x "$kavrin" ]; then
  echo "pictures: $kavrin is missing; build it first (bash tools/setup.sh)" >&2
  exit 1
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
"$kavrin" demo -o "$folder" >/dev/null
mkdir -p docs/pictures
for picture in $(grep -o '<img src="[^"]*"' "$folder/index.html" | cut -d'"' -f2); do
  cp "$folder/$picture" docs/pictures/
done
echo "pictures: remade docs/pictures/ from the demo"
