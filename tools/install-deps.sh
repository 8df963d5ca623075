#!/usr/bin/env bash
# Installs the Debian 12 packages Kavrin builds with. Idempotent: when everything is present
# it installs nothing and prints nothing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libsuitesparse-dev libnanoflann-dev libcli11-dev
  libopenimageio-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libgl-dev libglu1-mesa-dev libosmesa6-dev
  clang libclang-rt-dev
  libopenblas0-pthread
  python3-dev python3-numpy pybind11-dev python3-pytest python3-distributed
  blender
  debootstrap
  time
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  echo "install-deps: installing the packages failed" >&2
  exit 1
fi
rm -f "$log"
