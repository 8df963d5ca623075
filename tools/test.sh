#!/usr/bin/env bash
# Builds and runs the whole test suite. With --sanitize the build uses AddressSanitizer and
# UndefinedBehaviorSanitizer (in build-sanitize/, without the benchmarks and the Python package).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh

if [ "${1:-}" = "--sanitize" ]; then
  dir=build-sanitize
  # Decision (behaviour note "Python: tests without the sanitizers")
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKAVRIN_SANITIZE=ON -DKAVRIN_BUILD_BENCH=OFF \
        -DKAVRIN_BUILD_PYTHON=OFF >/dev/null
  echo "test: the Python package and its tests are left out of the sanitizer build (Debian's python3 and NumPy" \
       "are not built with the sanitizers; the plain build runs them)"
  # Decision (behaviour note "Blender: tests without the sanitizers")
  echo "test: the Blender add-on's tests are left out of the sanitizer build too (they run in Debian's Blender," \
       "which is not built with the sanitizers; the plain build runs them)"
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
else
  dir=build
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build "$dir" -j"$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
