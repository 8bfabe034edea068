#!/usr/bin/env bash
# Calibration of the p values (`make calibrate`): null studies simulated at
# fixed seeds (no group effect anywhere; a between-subject variance that
# rises from 0.09 to 0.49 along x; each subject's standard error between
# about 0.55 and 1.55, varying over subjects and along y), analysed with
# "reml classic" and "reml converged", with and without ratio smoothing.
# For each method and setting it prints the share of analysed voxel tests
# (conditions p, c and p-c pooled) with p below 0.05, 0.01 and 0.001, which
# should be those levels, with a Wilson 95 % interval.  The noise of the
# subjects' maps is smooth (FWHM 6 mm on 3 mm voxels), so neighbouring tests
# are not independent: the interval counts one independent test per 8 voxels
# (one resolution element).
#
# usage: scripts/calibrate.sh [build-dir] [seeds]   (seeds default "1 2")
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[[ $build == /* ]] || build=$root/$build
seeds=${2:-1 2}
bin=$build/fmri-rem
sim=$build/fmri-rem-simulate
if [[ ! -x $bin || ! -x $sim ]]; then
  echo "Error: $bin or $sim is missing; build first (make build)."
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/fmri-rem-calibrate.XXXXXX")
trap 'rm -rf "$work"' EXIT

size="64 64 32"
echo "fmri-rem calibration: null studies of $size voxels of 3 mm, seeds $seeds"
echo "Share of analysed voxel tests (p, c and p-c) in per cent, with a Wilson 95 % interval"
echo "for one independent test per 8 voxels."
printf "\n%-9s %-7s %-5s %4s %6s %8s  %-19s  %-19s  %-19s  %6s  %7s\n" \
  method study ratio dof wall-s tests "p < 0.05" "p < 0.01" "p < 0.001" "re=0 %" re/true

for subjects in 10 40; do
  for seed in $seeds; do
    "$sim" -o "$work/s$subjects-$seed" --prefix ../ --size $size --subjects "$subjects" \
      --seed "$seed" --null --within 1 --between 0.5 --smoothing 6 8 >/dev/null
  done
  for ratio in 0 8; do
    for method in classic converged; do
      folders=()
      wall=0
      for seed in $seeds; do
        dir=$work/s$subjects-$seed
        run=$dir/$method-$ratio
        mkdir -p "$run"
        sed -e "s/^smoothing .*/smoothing 6 $ratio\nreml $method/" "$dir/analysis.rem" \
          >"$dir/$method-$ratio.rem"
        start=$(date +%s.%N)
        (cd "$run" && "$bin" "../$method-$ratio.rem" >out.txt) ||
          { echo "Error: fmri-rem failed in $run"; tail -5 "$run/out.txt"; exit 1; }
        wall=$(awk -v w="$wall" -v s="$start" -v e="$(date +%s.%N)" 'BEGIN { print w + e - s }')
        folders+=("$run")
      done
      dof=$(sed -n 's/.*smoothed = \([0-9]*\).*/\1/p' "${folders[0]}/out.txt")
      printf "%-9s %-7s %-5s %4s %6.1f %s\n" "$method" "2 x $subjects" "${ratio}mm" "$dof" "$wall" \
        "$(python3 "$root/scripts/calibrate_rates.py" 8 "${folders[@]}")"
    done
  done
done
echo
echo "dof: degrees of freedom of the test; wall-s: run time of fmri-rem over all seeds;"
echo "re=0 %: share of voxels whose REML estimate is 0; re/true: mean REML estimate over the"
echo "mean true between-subject variance.  Target for converged: 4.5-5.5 % at p < 0.05 and"
echo "0.7-1.3 % at p < 0.01."
