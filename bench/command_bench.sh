#!/usr/bin/env bash
# Time and peak memory of `kavrin deltamush` on one pose of a 1,000 x 1,000 grid (1,000,000
# vertices, 998,001 quads), OBJ in and out: the whole command as a user runs it.
#
#   bash bench/command_bench.sh [build] [runs]
#
# The meshes are generated into a temporary folder (about 120 MB); each run prints the wall time
# and the peak resident memory that /usr/bin/time measures, then the median of both.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
runs=${2:-5}
kavrin="$build/apps/kavrin/kavrin"
[ -x "$kavrin" ] || { echo "command_bench: no $kavrin (build first)" >&2; exit 1; }
[ -x /usr/bin/time ] || { echo "command_bench: needs /usr/bin/time (Debian package time)" >&2; exit 1; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# A gently waved grid; the pose bends it along x.
grid() {
  awk -v bend="$1" 'BEGIN {
    n = 1000
    for (j = 0; j < n; j++) for (i = 0; i < n; i++) {
      x = i / (n - 1); z = j / (n - 1)
      printf "v %.6f %.6f %.6f\n", x, 0.2 * sin(i * 0.01) * cos(j * 0.013) + bend * x * x, z
    }
    for (j = 0; j < n - 1; j++) for (i = 0; i < n - 1; i++) {
      a = j * n + i + 1
      printf "f %d %d %d %d\n", a, a + 1, a + n + 1, a + n
    }
  }'
}
grid 0 > "$dir/rest.obj"
grid 0.3 > "$dir/pose.obj"

for ((r = 1; r <= runs; r++)); do
  /usr/bin/time -f "%e %M" -o "$dir/time" "$kavrin" deltamush --rest "$dir/rest.obj" "$dir/pose.obj" \
    -o "$dir/out.obj" >/dev/null 2>&1
  read -r seconds kb < "$dir/time"
  echo "run $r: $seconds s, $((kb / 1024)) MB"
  echo "$seconds $kb" >> "$dir/all"
done
sort -n -k1,1 "$dir/all" | awk -v r="$runs" 'NR == int((r + 1) / 2) { printf "median time %s s\n", $1 }'
sort -n -k2,2 "$dir/all" | awk -v r="$runs" 'NR == int((r + 1) / 2) { printf "median peak memory %d MB\n", $2 / 1024 }'
