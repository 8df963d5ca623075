#!/usr/bin/env bash
# Fresh-machine set-up: installs the packages, builds in Release, installs the Python package and runs
# the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$(nproc)"
# The Python package, into the site folder of Debian's python3 (docs/python.md).
cmake --install build --component python
./build/apps/kavrin/kavrin demo
echo
echo "kavrin is $PWD/build/apps/kavrin/kavrin. To call it as 'kavrin', run:"
echo "  export PATH=\"$PWD/build/apps/kavrin:\$PATH\""
