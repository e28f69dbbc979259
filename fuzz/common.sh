# Shared by fuzz/smoke.sh and fuzz/run.sh (sourced, not run): the list of fuzz
# targets, the build of them, and a quiet logging set-up for the library.
#
# After sourcing, with the repository root as the current folder:
#   fuzz_targets     every target's short name; the program is NAME_fuzz and
#                    its seed corpus fuzz/corpus/NAME/
#   fuzz_build DIR   configures and builds the targets into DIR (clang with
#                    libFuzzer and the sanitizers when clang is installed,
#                    else GCC with the file driver) and sets fuzz_libfuzzer
#                    to 1 or 0
#   fuzz_quiet_logs  points the library's logging at a FATAL-only
#                    configuration in the file $fuzz_scratch/log4cpp.conf
#                    (fuzz_scratch: a temporary folder removed on exit)

fuzz_targets=(protocol tile_reader timezone_boundaries timezone_service ip_location
              property_list scan_file geolocation_answer)

fuzz_scratch=$(mktemp -d)
trap 'rm -rf "$fuzz_scratch"' EXIT

fuzz_build() {
  local build=$1
  local cmake_args=(-S . -B "$build" -DZONARA_BUILD_TESTS=OFF
                    -DZONARA_BUILD_BENCHMARKS=OFF -DZONARA_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo)
  fuzz_libfuzzer=0
  if command -v clang++ >/dev/null 2>&1 && command -v clang >/dev/null 2>&1; then
    # A lock-annotation warning of the thread-safety analysis fails the build.
    cmake_args+=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-Werror=thread-safety)
    fuzz_libfuzzer=1
  fi
  cmake "${cmake_args[@]}" >/dev/null
  local programs=()
  local target
  for target in "${fuzz_targets[@]}"; do programs+=("${target}_fuzz"); done
  # With clang, the whole positioning library too, for the thread-safety analysis.
  [ "$fuzz_libfuzzer" = 1 ] && programs+=(wps)
  cmake --build "$build" -j "${FUZZ_JOBS:-2}" --target "${programs[@]}" >/dev/null
}

# Library logging of every rejected input would only slow the runs down.
fuzz_quiet_logs() {
  echo "log4cpp.rootCategory=FATAL" > "$fuzz_scratch/log4cpp.conf"
  export LOG4CPP_CONFIGURATION="$fuzz_scratch/log4cpp.conf"
}
