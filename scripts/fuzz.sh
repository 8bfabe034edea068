#!/usr/bin/env bash
# Builds the libFuzzer harnesses of fuzz/ (clang++, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz and runs each for FUZZ_SECONDS
# seconds (default 60), or for FUZZ_RUNS executions when that is set.
#
#   scripts/fuzz.sh [harness ...]      # default: every harness built
#
# Seeds come from fuzz/corpus/<harness> (kept as they are); inputs found on
# the way are kept in build-fuzz/corpus/<harness>, and a failing input in
# build-fuzz/artifacts/.  Every input must end within FUZZ_TIMEOUT seconds
# (default 10).  The status is 1 when any harness reports a finding.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD=${FUZZ_BUILD:-build-fuzz}
SECONDS_EACH=${FUZZ_SECONDS:-60}
RUNS=${FUZZ_RUNS:-}
TIMEOUT=${FUZZ_TIMEOUT:-10}
JOBS=${JOBS:-$(nproc 2>/dev/null || echo 2)}

# The parsers, then one voxel through both kernels.
HARNESSES=(control_file vistra_header nifti_single nifti_pair freesurfer_header help_menu voxel)
# Longest input per harness (the NIfTI header and its first extension are
# 368 bytes).
declare -A MAX_LEN=([nifti_single]=1024 [nifti_pair]=1024)
# The voxel harness may run a REML loop to its cap of 10,000 steps on both
# kernels under the sanitizers: it gets longer per input.
declare -A TIMEOUT_OF=([voxel]=120)

cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DFMRI_REM_FUZZ=ON -DFMRI_REM_TESTS=OFF \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$BUILD" -j "$JOBS" --target fuzzers

selected=("$@")
[ ${#selected[@]} -gt 0 ] || selected=("${HARNESSES[@]}")
status=0
summary=()
for name in "${selected[@]}"; do
    binary="$BUILD/fuzz/${name}_fuzz"
    if [ ! -x "$binary" ]; then
        echo "fuzz.sh: no harness $name" >&2
        exit 1
    fi
    corpus="$BUILD/corpus/$name"
    mkdir -p "$corpus" "$BUILD/artifacts"
    options=(-timeout="${TIMEOUT_OF[$name]:-$TIMEOUT}" -close_fd_mask=1 -print_final_stats=1
             -max_len="${MAX_LEN[$name]:-4096}" -artifact_prefix="$BUILD/artifacts/$name-")
    [ -f "fuzz/dict/$name.dict" ] && options+=(-dict="fuzz/dict/$name.dict")
    if [ -n "$RUNS" ]; then options+=(-runs="$RUNS"); else options+=(-max_total_time="$SECONDS_EACH"); fi
    seeds=()
    [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
    log="$BUILD/$name.log"
    echo "fuzzing $name (${RUNS:-$SECONDS_EACH s}${RUNS:+ runs}) ..."
    if "$binary" "${options[@]}" "$corpus" "${seeds[@]}" >"$log" 2>&1; then
        result=ok
    else
        result="FINDING (see $log and $BUILD/artifacts/)"
        status=1
        tail -n 40 "$log"
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    summary+=("$(printf '%-18s %10s executions  %s' "$name" "${runs:-?}" "$result")")
done
printf '%s\n' "${summary[@]}"
exit $status
