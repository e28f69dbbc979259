#!/usr/bin/env bash
# Long fuzz runs: each target for MINUTES minutes under libFuzzer with
# AddressSanitizer and UndefinedBehaviorSanitizer (clang required), one after
# the other. The corpus each run grows lives outside the repository, in
# ${XDG_CACHE_HOME:-~/.cache}/zonara-fuzz/NAME/ (seeded from fuzz/corpus/NAME/
# on every run, kept between runs); an input that crashes is written to
# .../zonara-fuzz/NAME-crashes/ and the run's output to NAME.log. Prints executions, executions per second,
# corpus entries and crashes per target; exits non-zero when any target
# crashed, leaked, hung or ran out of memory.
#
#   fuzz/run.sh MINUTES [NAME...]     every target, or the NAMEd ones
#   FUZZ_BUILD_DIR=dir                another build folder (default build-fuzz)
#   FUZZ_SKIP_BUILD=1                 use the programs already built (for
#                                     several runs side by side)
set -euo pipefail

if [ $# -lt 1 ] || ! [[ $1 =~ ^[0-9]+$ ]] || [ "$1" -eq 0 ]; then
  echo "usage: $0 MINUTES [TARGET...]" >&2
  exit 2
fi
minutes=$1
shift

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$here"
source fuzz/common.sh
build=${FUZZ_BUILD_DIR:-build-fuzz}
cache=${XDG_CACHE_HOME:-$HOME/.cache}/zonara-fuzz
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=("${fuzz_targets[@]}")

if [ "${FUZZ_SKIP_BUILD:-0}" != 1 ]; then
  fuzz_build "$build"
  if [ "$fuzz_libfuzzer" != 1 ]; then
    echo "fuzz/run.sh needs clang and its libFuzzer runtime" >&2
    exit 2
  fi
fi
fuzz_quiet_logs

# The value of libFuzzer's final statistic NAME in LOG, 0 when absent.
stat() { sed -n "s/^stat::$1: *//p" "$2" | tail -1 | grep . || echo 0; }

failed=0
summary=()
for target in "${targets[@]}"; do
  program="$build/bin/${target}_fuzz"
  [ -x "$program" ] || { echo "no fuzz target $program" >&2; exit 2; }
  corpus="$cache/$target"
  crashes="$cache/$target-crashes"
  mkdir -p "$corpus" "$crashes"
  seeds=()
  [ -d "fuzz/corpus/$target" ] && seeds=("fuzz/corpus/$target")
  log="$cache/$target.log"  # the last run's output
  before=$(find "$crashes" -type f | wc -l)
  echo "fuzzing $target for $minutes min (corpus $corpus)"
  status=0
  "$program" -max_total_time=$((minutes * 60)) -max_len=8192 -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$crashes/" "$corpus" "${seeds[@]}" >"$log" 2>&1 || status=$?
  found=$(( $(find "$crashes" -type f | wc -l) - before ))
  if [ "$status" != 0 ] || [ "$found" != 0 ]; then
    failed=1
    tail -n 60 "$log"
  fi
  summary+=("$(printf '%-20s %12s %8s %8s %8s' "$target" "$(stat number_of_executed_units "$log")" \
                "$(stat average_exec_per_sec "$log")" "$(find "$corpus" -type f | wc -l)" "$found")")
done

printf '%-20s %12s %8s %8s %8s\n' target executions exec/s corpus crashes
printf '%s\n' "${summary[@]}"
exit "$failed"
