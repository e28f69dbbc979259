#!/usr/bin/env bash
# Builds the fuzz targets and gives each a short run: a few thousand generated
# inputs under libFuzzer with AddressSanitizer and UndefinedBehaviorSanitizer
# when clang is installed, otherwise the seed corpus through the file driver.
# Exits non-zero on a crash, a sanitizer report or a build failure; with clang
# the build also compiles the positioning library with the thread-safety
# analysis, whose warnings are errors here. For long runs see fuzz/run.sh.
#
#   fuzz/smoke.sh                     build into build-fuzz/ and run
#   FUZZ_RUNS=20000 fuzz/smoke.sh     more inputs per target
#   FUZZ_BUILD_DIR=dir fuzz/smoke.sh  another build folder
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$here"
source fuzz/common.sh
build=${FUZZ_BUILD_DIR:-build-fuzz}
runs=${FUZZ_RUNS:-5000}

fuzz_build "$build"
fuzz_quiet_logs

for target in "${fuzz_targets[@]}"; do
  corpus="fuzz/corpus/$target"
  mkdir -p "$fuzz_scratch/$target"
  seeds=()
  [ -d "$corpus" ] && seeds=("$corpus")
  if [ "$fuzz_libfuzzer" = 1 ]; then
    # New inputs go to a scratch folder, never into the repository.
    "$build/bin/${target}_fuzz" -runs="$runs" -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 "$fuzz_scratch/$target" "${seeds[@]}"
  else
    if [ -d "$corpus" ]; then
      "$build/bin/${target}_fuzz" --runs "$runs" --seed 7 "$corpus"/*
    else
      "$build/bin/${target}_fuzz" --runs "$runs" --seed 7
    fi
  fi
  echo "fuzz smoke: $target ok"
done
