#!/usr/bin/env bash
# Calibration of the ratio smoothing on realistic null studies
# (`make calibrate-smooth`): each subject's deviation from the group effect
# is spatially smoother than the stated first-level smoothing (6 mm), as
# registration error and anatomy make it in real data, and the standard
# errors vary over subjects and over space (a smooth log-normal factor per
# subject on top of a trend).  No effect anywhere.  Each study is analysed
# with "reml converged" (and "reml classic" with ratio smoothing) without
# ratio smoothing, and with 6 and 10 mm of it, once with the degrees of
# freedom that the stated smoothness gives ("smoothness stated", the
# default) and once with "smoothness estimated".  For each it prints the
# mean smoothed degrees of freedom over the seeds, the mean estimated
# smoothness, and the share of analysed voxel tests (every condition pooled)
# with p below 0.05, 0.01 and 0.001, which should be those levels, with a
# Wilson 95 % interval that counts one independent test per resolution
# element of the deviations ((FWHM / voxel)^3 voxels).
#
# usage: scripts/calibrate-smooth.sh [build-dir] [seeds]   (seeds default "1 2 3")
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[[ $build == /* ]] || build=$root/$build
seeds=${2:-1 2 3}
bin=$build/fmri-rem
sim=$build/fmri-rem-simulate
if [[ ! -x $bin || ! -x $sim ]]; then
  echo "Error: $bin or $sim is missing; build first (make build)."
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/fmri-rem-calibrate-smooth.XXXXXX")
trap 'rm -rf "$work"' EXIT

# name | groups subjects | size | voxel mm | deviation FWHM mm
studies=(
  "1x16|1 16|46 55 46|4|10"
  "2x12|2 12|56 66 52|3|8"
  "1x40|1 40|46 55 46|4|12"
  "2x20|2 20|64 76 60|2|8"
)

echo "fmri-rem calibration of the ratio smoothing: null studies with subject deviations smoother"
echo "than the stated 6 mm, seeds $seeds.  Share of analysed voxel tests in per cent, with a Wilson"
echo "95 % interval counting one independent test per resolution element of the deviations."
printf "\n%-9s %-5s %-5s %-9s %5s %6s  %-19s  %-19s  %-19s\n" \
  method study ratio smoothness dof fwhm "p < 0.05" "p < 0.01" "p < 0.001"

for study in "${studies[@]}"; do
  IFS='|' read -r name layout size voxel deviation <<<"$study"
  read -r groups subjects <<<"$layout"
  resel=$(awk -v f="$deviation" -v v="$voxel" 'BEGIN { printf "%.1f", (f / v) ^ 3 }')
  for seed in $seeds; do
    "$sim" -o "$work/$name-$seed" --prefix ../ --size $size --voxel "$voxel" --groups "$groups" \
      --subjects "$subjects" --seed "$seed" --null --between 1 --within 0.5 --smoothing 6 0 \
      --between-fwhm "$deviation" --error-spread 0.3 >/dev/null
  done
  for setting in "converged 0 stated" \
    "classic 6 stated" "classic 6 estimated" "converged 6 stated" "converged 6 estimated" \
    "classic 10 stated" "classic 10 estimated" "converged 10 stated" "converged 10 estimated"; do
    read -r method ratio smoothness <<<"$setting"
    tag=$method-$ratio-$smoothness
    folders=()
    dofs=()
    widths=()
    for seed in $seeds; do
      dir=$work/$name-$seed
      mkdir -p "$dir/$tag"
      sed -e "s/^smoothing .*/smoothing 6 $ratio\nreml $method\nsmoothness $smoothness/" \
        "$dir/analysis.rem" >"$dir/$tag.rem"
      (cd "$dir/$tag" && "$bin" "../$tag.rem" >out.txt) ||
        { echo "Error: fmri-rem failed in $dir/$tag"; tail -5 "$dir/$tag/out.txt"; exit 1; }
      dofs+=("$(sed -n 's/.*smoothed = \([0-9]*\).*/\1/p' "$dir/$tag/out.txt")")
      widths+=("$(sed -n 's/^Estimated smoothness (FWHM) *= \([0-9.]*\) x \([0-9.]*\) x \([0-9.]*\).*/\1 \2 \3/p' \
        "$dir/$tag/out.txt")")
      folders+=("$dir/$tag")
    done
    dof=$(printf "%s\n" "${dofs[@]}" | awk '{ s += $1 } END { printf "%.0f", s / NR }')
    fwhm=$(printf "%s\n" "${widths[@]}" |
      awk 'NF == 3 { s += ($1 * $2 * $3) ^ (1 / 3); n++ } END { if (n) printf "%.1f", s / n; else printf "-" }')
    # The rates of calibrate_rates.py, without the count of tests before them
    # and the two columns after.
    rates=$(python3 "$root/scripts/calibrate_rates.py" "$resel" "${folders[@]}")
    printf "%-9s %-5s %-5s %-9s %5s %6s  %s\n" "$method" "$name" "${ratio}mm" "$smoothness" "$dof" \
      "$fwhm" "${rates:10:61}"
  done
  rm -rf "$work/$name"-*
done
echo
echo "Studies: groups x subjects per group; 1x16 and 1x40: 46 x 55 x 46 voxels of 4 mm, deviations"
echo "10 and 12 mm; 2x12: 56 x 66 x 52 voxels of 3 mm, 8 mm; 2x20: 64 x 76 x 60 voxels of 2 mm, 8 mm."
echo "dof: mean smoothed degrees of freedom over the seeds; fwhm: mean estimated smoothness (mm)."
echo "Target with ratio smoothing: 4.5-5.5 % at p < 0.05, at most 1.3 % at 0.01 and 0.13 % at 0.001."
