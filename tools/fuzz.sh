#!/usr/bin/env bash
# Builds the file readers' libFuzzer targets (tests/fuzz/*_fuzz.cpp) with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer and runs each for a bounded time, starting from
# the seed corpus in tests/fuzz/corpus/<target>/. New inputs go to build-fuzz/corpus/, crashes to
# build-fuzz/<target>-crash-*; a crash fails the script (add the input as a regression test).
# Usage: tools/fuzz.sh [seconds per target, default 20]
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
seconds="${1:-20}"
out=build-fuzz
cxx="${FUZZ_CXX:-clang++}"
mkdir -p "$out/obj"
flags=(-std=c++17 -g -O1 -fno-omit-frame-pointer -fsanitize=address,undefined -fno-sanitize-recover=undefined
       -Wall -Wextra -Isupport -Ibase)

# The readers and the little of the base library they use, built once.
objects=()
for src in support/TextFields.cpp support/InputChecks.cpp support/ObjIO.cpp support/ObjCommonReader.cpp \
           support/MarkerFile.cpp support/ValueFile.cpp support/PointCache.cpp base/KPolyMesh.cpp; do
  object="$out/obj/$(basename "${src%.cpp}").o"
  "$cxx" "${flags[@]}" -fsanitize=fuzzer-no-link -c "$src" -o "$object"
  objects+=("$object")
done

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for target in obj markers values pointcache; do
  "$cxx" "${flags[@]}" -fsanitize=fuzzer "tests/fuzz/${target}_fuzz.cpp" "${objects[@]}" -o "$out/${target}_fuzz"
  mkdir -p "$out/corpus/$target"
  dict=()
  [ -f "tests/fuzz/$target.dict" ] && dict=("-dict=tests/fuzz/$target.dict")
  log="$out/$target.log"
  if ! "$out/${target}_fuzz" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="$out/$target-" "${dict[@]}" \
       "$out/corpus/$target" "tests/fuzz/corpus/$target" >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "fuzz: $target found a crash; the input is in $out/ (add it as a regression test)" >&2
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "fuzz: $target: ${runs:-?} inputs in ${seconds} s, no crash"
done
