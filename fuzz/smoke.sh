#!/usr/bin/env bash
# Builds the fuzz targets and gives each a short run: a few thousand generated
# inputs under libFuzzer with AddressSanitizer and UndefinedBehaviorSanitizer
# when clang is installed, otherwise the seed corpus through the file driver.
# Exits non-zero on a crash, a sanitizer report or a build failure; with clang
# the build also compiles the positioning library with the thread-safety
# analysis, whose warnings are errors here.
#
#   fuzz/smoke.sh                     build into build-fuzz/ and run
#   FUZZ_RUNS=20000 fuzz/smoke.sh     more inputs per target
#   FUZZ_BUILD_DIR=dir fuzz/smoke.sh  another build folder
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$here"
build=${FUZZ_BUILD_DIR:-build-fuzz}
runs=${FUZZ_RUNS:-5000}
jobs=${FUZZ_JOBS:-2}

cmake_args=(-S . -B "$build" -DZONARA_BUILD_TESTS=OFF
            -DZONARA_BUILD_BENCHMARKS=OFF -DZONARA_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo)
libfuzzer=0
if command -v clang++ >/dev/null 2>&1 && command -v clang >/dev/null 2>&1; then
  # A lock-annotation warning of the thread-safety analysis fails the build.
  cmake_args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-Werror=thread-safety)
  libfuzzer=1
fi
cmake "${cmake_args[@]}" >/dev/null
targets=(protocol_fuzz tile_reader_fuzz timezone_boundaries_fuzz)
# With clang, the whole positioning library too, for the thread-safety analysis.
[ "$libfuzzer" = 1 ] && targets+=(wps)
cmake --build "$build" -j "$jobs" --target "${targets[@]}" >/dev/null

# Library logging of every rejected input would only slow the run down.
quiet=$(mktemp)
scratch=$(mktemp -d)
trap 'rm -rf "$quiet" "$scratch"' EXIT
echo "log4cpp.rootCategory=FATAL" > "$quiet"
export LOG4CPP_CONFIGURATION="$quiet"

for target in protocol tile_reader timezone_boundaries; do
  corpus="fuzz/corpus/$target"
  mkdir -p "$scratch/$target"
  seeds=()
  [ -d "$corpus" ] && seeds=("$corpus")
  if [ "$libfuzzer" = 1 ]; then
    # New inputs go to a scratch folder, never into the repository.
    "$build/bin/${target}_fuzz" -runs="$runs" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 "$scratch/$target" "${seeds[@]}"
  else
    if [ -d "$corpus" ]; then
      "$build/bin/${target}_fuzz" --runs "$runs" --seed 7 "$corpus"/*
    else
      "$build/bin/${target}_fuzz" --runs "$runs" --seed 7
    fi
  fi
  echo "fuzz smoke: $target ok"
done
