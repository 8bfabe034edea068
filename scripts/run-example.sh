#!/usr/bin/env bash
# Makes the example study with the simulator, analyses it with fmri-rem,
# prints a short summary of the results, exports them as NIfTI maps, and
# last writes the report page and prints its path.
#   scripts/run-example.sh [build folder]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$root/$build ;; esac

study=$root/example-study
results=$root/results

echo "== Simulating the example study in example-study/"
rm -rf "$study"
"$build/fmri-rem-simulate" -o "$study" --prefix ../example-study/

echo
echo "== Running fmri-rem in results/"
rm -rf "$results"
mkdir -p "$results"
cd "$results"
status=0
"$build/fmri-rem" ../example-study/analysis.rem > fmri-rem.log || status=$?
# The progress lines end in carriage returns; leave them out of the listing.
tr '\r' '\n' < fmri-rem.log | grep -v 'percent done computing' || true
if [ "$status" -ne 0 ]; then
    echo "fmri-rem failed with status $status" >&2
    exit "$status"
fi

echo
echo "== Result files in results/"
ls -l "$results"
echo
echo "== Summary (the true effects are in example-study/true-effect-*.bfloat)"
"$build/fmri-rem-summary" "$results"

echo
echo "== NIfTI maps in results/nifti/ (fmri-rem-export)"
"$build/fmri-rem-export"

echo
echo "== Report page (open it in a browser)"
"$build/fmri-rem-report" "$results" | sed -n 's/^Report: //p'
