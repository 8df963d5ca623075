#!/usr/bin/env bash
# Checks that a built Kavrin module loads on a workstation that has nothing but Maya:
#
#   1. every shared object in it (plug-ins/ and lib/ of each Maya version) needs only the C
#      library's and the compiler's libraries, Maya's own libraries and the module's lib/;
#      a plug-in exports only initializePlugin, uninitializePlugin and MApiVersion; nothing needs
#      more than GLIBC_2.28, GLIBCXX_3.4.25, CXXABI_1.3.11 or GCC_7.0.0 (RHEL/Rocky Linux 8 with
#      GCC 8's runtime); every symbol left to the loader is Maya's or OpenGL's; run paths stay
#      inside the module; Kavrin.mod names folders that exist;
#   2. in a minimal Debian root (debootstrap --variant=minbase from this machine's own apt
#      source, built once and cached; no SuiteSparse, BLAS, OpenGL, OpenMP or compiler in it),
#      `ldd -r` finds every library except Maya's own and leaves only Maya's and OpenGL's
#      symbols unresolved.
#
# Usage: tools/check-module.sh [MODULE_DIR]
#   MODULE_DIR  a staged (<build>/module) or installed module: the folder holding Kavrin.mod.
#   Without it, the module is built from the Maya devkit headers named by KAVRIN_MAYA_INCLUDE_DIR
#   (the folder holding maya/*.h) into build-module/ and checked; without headers the script
#   says so and succeeds, so that machines without a devkit can run it.
# The root needs root privileges (debootstrap, chroot). It is kept in
# $KAVRIN_DEPENDENCY_CACHE (default ~/.cache/kavrin); remove it there to build it again.
set -euo pipefail
cd "$(dirname "$0")/.."

fail=0
problem() { echo "  FAIL: $*"; fail=1; }

module=${1:-}
if [ -z "$module" ]; then
  headers=${KAVRIN_MAYA_INCLUDE_DIR:-}
  if [ -z "$headers" ] || [ ! -f "$headers/maya/MFn.h" ]; then
    echo "check-module: no Maya devkit headers (set KAVRIN_MAYA_INCLUDE_DIR to the folder holding maya/*.h); nothing to check"
    exit 0
  fi
  bash tools/install-deps.sh
  log=build-module/build.log
  mkdir -p build-module
  echo "check-module: building the module from $headers into build-module/ (log: $log)"
  if ! { cmake -S . -B build-module -DCMAKE_BUILD_TYPE=Release -DKAVRIN_MAYA_INCLUDE_DIR="$headers" \
           -DKAVRIN_BUILD_TESTS=OFF -DKAVRIN_BUILD_BENCH=OFF -DKAVRIN_BUILD_APPS=OFF &&
         cmake --build build-module -j2 --target Kavrin &&
         rm -rf build-module/install &&
         cmake --install build-module --prefix build-module/install; } >"$log" 2>&1; then
    tail -n 30 "$log" >&2
    echo "check-module: building the module failed" >&2
    exit 1
  fi
  module=build-module/install
fi
[ -f "$module/Kavrin.mod" ] || { echo "check-module: $module holds no Kavrin.mod" >&2; exit 1; }
module=$(cd "$module" && pwd)
mapfile -t objects < <(cd "$module" && find . -type f \( -name '*.so' -o -name '*.so.*' \) | sed 's|^\./||' | sort)
[ ${#objects[@]} -gt 0 ] || { echo "check-module: no shared object in $module" >&2; exit 1; }

# Sonames the module ships itself (in a lib/ folder).
shipped=" "
for object in "${objects[@]}"; do
  case "$object" in */lib/*) shipped+="$(readelf -d "$module/$object" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p') " ;; esac
done

system_lib='^(libc\.so\.6|libm\.so\.6|libpthread\.so\.0|libdl\.so\.2|ld-linux-x86-64\.so\.2|libgcc_s\.so\.1|libstdc\+\+\.so\.6)$'
maya_lib='^lib(OpenMaya[A-Za-z]*|Foundation)\.so$'

# Symbols left to the loader are Maya's (classes M..., namespace MHWRender) or OpenGL's (gl...).
# Reads demangled names, prints those that are neither.
foreign_symbols() {
  sed -E 's/^(vtable for |typeinfo for |typeinfo name for |VTT for |non-virtual thunk to |virtual thunk to )//' |
    grep -Ev '^(M[A-Z0-9][A-Za-z0-9_]*|MHWRender)(::|\(|$)|^gl[A-Z][A-Za-z0-9]*$' || true
}

# Highest of the versions in "LIST" starting with PREFIX ("none" for none).
highest() { tr ' ' '\n' <<<"$2" | grep "^$1" | sort -V | tail -n 1 | grep . || echo "none"; }
# Whether version A is above version B (both as PREFIX_x.y.z).
above() { [ "$1" != "none" ] && [ "$(printf '%s\n%s\n' "$1" "$2" | sort -V | tail -n 1)" != "$2" ]; }

echo "check-module: $module"
for object in "${objects[@]}"; do
  file="$module/$object"
  echo "== $object"
  needed=$(readelf -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
  echo "  needed: $needed"
  for lib in $needed; do
    if ! [[ $lib =~ $system_lib || $lib =~ $maya_lib || $shipped == *" $lib "* ]]; then
      problem "$lib is neither the C library's, the compiler's, Maya's nor in the module's lib/"
    fi
  done

  runpath=$(readelf -d "$file" | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p')
  if [ -n "$runpath" ]; then
    echo "  run path: $runpath"
    for entry in ${runpath//:/ }; do
      [[ $entry == '$ORIGIN'* ]] || problem "run path entry $entry is not inside the module (\$ORIGIN/...)"
    done
  fi

  exports=$(nm -D --defined-only "$file" | awk '{print $3}' | c++filt | sort | tr '\n' ' ')
  echo "  exports: $exports"
  case "$object" in
    */plug-ins/*)
      [ "$exports" = "MApiVersion initializePlugin(MObject) uninitializePlugin(MObject) " ] ||
        problem "a plug-in exports exactly initializePlugin, uninitializePlugin and MApiVersion" ;;
  esac

  versions=$(objdump -p "$file" | awk '/^Version References:/ { on = 1; next } on && NF == 4 { print $4 } on && NF == 0 { exit }' | tr '\n' ' ')
  glibc=$(highest GLIBC_ "$versions"); glibcxx=$(highest GLIBCXX_ "$versions")
  cxxabi=$(highest CXXABI_ "$versions"); gcc=$(highest GCC_ "$versions")
  echo "  highest versions: GLIBC $glibc, GLIBCXX $glibcxx, CXXABI $cxxabi, GCC $gcc"
  above "$glibc" GLIBC_2.28 && problem "needs $glibc; RHEL/Rocky Linux 8 have GLIBC_2.28"
  above "$glibcxx" GLIBCXX_3.4.25 && problem "needs $glibcxx; GCC 8's libstdc++ has GLIBCXX_3.4.25"
  above "$cxxabi" CXXABI_1.3.11 && problem "needs $cxxabi; GCC 8's libstdc++ has CXXABI_1.3.11"
  above "$gcc" GCC_7.0.0 && problem "needs $gcc; GCC 8's libgcc_s has GCC_7.0.0"

  if readelf -d "$file" | grep -q 'STATIC_TLS'; then
    tls=$(readelf -lW "$file" | awk '$1 == "TLS" { print $6 }')
    echo "  static TLS: $((tls)) bytes"
  fi

  # Strong symbols without a version: resolved at load from whatever is loaded already.
  unresolved=$(readelf --dyn-syms -W "$file" | awk '$7 == "UND" && $5 != "WEAK" && $8 != "" && $8 !~ /@/ { print $8 }')
  count=$(grep -c . <<<"$unresolved" || true)
  others=$(c++filt <<<"$unresolved" | foreign_symbols)
  echo "  left to Maya: $count symbols (Maya API and OpenGL)"
  [ -z "$others" ] || problem "symbols no library in the module provides: $(head -n 10 <<<"$others" | tr '\n' ' ')"
done

# Every entry of Kavrin.mod points at existing folders, with the plug-in in its plug-ins/.
echo "== Kavrin.mod"
sed 's/^/  /' "$module/Kavrin.mod"
while read -r plus conditions; do
  root=$(awk '{print $NF}' <<<"$conditions")
  [ -f "$module/$root/plug-ins/Kavrin.so" ] || problem "entry \"$plus $conditions\": no $root/plug-ins/Kavrin.so"
done < <(grep '^+ ' "$module/Kavrin.mod")
while read -r key path; do
  for root in $(grep '^+ ' "$module/Kavrin.mod" | awk '{print $NF}'); do
    [ -d "$module/$root/$path" ] || problem "$key $path: no folder $root/$path"
  done
done < <(grep -E '^(scripts|icons):' "$module/Kavrin.mod")

# ---- A Debian root with nothing but the base system ---------------------------------------
if [ "$(id -u)" -ne 0 ]; then
  echo "check-module: the clean-root check needs root (debootstrap, chroot)" >&2
  exit 1
fi
bash tools/install-deps.sh
read -r mirror suite keyring < <(bash tools/debian-apt.sh mirror)
cache=${KAVRIN_DEPENDENCY_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kavrin}
root="$cache/root-$suite-minbase"
if [ ! -x "$root/usr/bin/ldd" ]; then
  echo "check-module: building a minimal $suite root in $root (once)"
  rm -rf "$root.partial"
  mkdir -p "$cache"
  keyring_option=()
  [ -n "$keyring" ] && keyring_option=(--keyring="$keyring")
  if ! debootstrap --variant=minbase "${keyring_option[@]}" "$suite" "$root.partial" "$mirror" >"$cache/debootstrap.log" 2>&1; then
    tail -n 20 "$cache/debootstrap.log" >&2
    echo "check-module: debootstrap failed (log: $cache/debootstrap.log)" >&2
    exit 1
  fi
  rm -rf "$root"
  mv "$root.partial" "$root"
fi
echo "== clean root: $root"
present=$(chroot "$root" dpkg-query -W -f='${Package}\n' |
  grep -E '^(libcholmod|libsuitesparse|libamd|libcolamd|libmetis|libblas|libopenblas|liblapack|libgfortran|libgomp|libgl1|libglx|libopengl|libglu|libegl)|^(gcc|g\+\+|cpp|clang)(-[0-9]+)?$' || true)
[ -z "$present" ] || problem "the root is not minimal; it holds $(tr '\n' ' ' <<<"$present")"
rm -rf "$root/module"
cp -a "$module" "$root/module"
for object in "${objects[@]}"; do
  echo "  ldd -r /module/$object"
  output=$(chroot "$root" ldd -r "/module/$object" 2>&1 || true)
  grep -v 'undefined symbol' <<<"$output" | sed 's/^/  /'
  missing=$(grep 'not found' <<<"$output" | awk '{print $1}' || true)
  for lib in $missing; do
    [[ $lib =~ $maya_lib ]] || problem "$lib is not found in the clean root"
  done
  undefined=$(grep 'undefined symbol' <<<"$output" | sed -E 's/^undefined symbol: ([^ \t]+).*/\1/' || true)
  others=$(c++filt <<<"$undefined" | grep . | foreign_symbols)
  echo "    unresolved there: $(sort -u <<<"$undefined" | grep -c . || true) symbols, all Maya's or OpenGL's unless listed below"
  [ -z "$others" ] || problem "unresolved in the clean root: $(head -n 10 <<<"$others" | tr '\n' ' ')"
done
rm -rf "$root/module"

if [ $fail -ne 0 ]; then
  echo "check-module: the module breaks the rules above" >&2
  exit 1
fi
echo "check-module: the module needs nothing but Maya"
