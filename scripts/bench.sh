#!/usr/bin/env bash
# Benchmark of fmri-rem (`make bench`): simulated studies at fixed seeds,
# analysed by the fast parallel voxel passes (all cores unless
# OMP_NUM_THREADS says otherwise) and by the plain passes (FMRI_REM_PLAIN=1,
# one thread), with the classic REML estimate, and by the fast passes with
# "reml converged".  Prints wall time, CPU time, peak memory and voxels per
# second.
#
# The plain passes would take many minutes on a whole study, so they are
# timed on an evenly spread subset of slices (every PLAIN_STEP-th slice), and
# their time for the whole study is that figure scaled by the voxel count.
# The fast passes are timed on the same subset too, and the two subset runs
# must write identical files.
#
# usage: scripts/bench.sh [build-dir]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[[ $build == /* ]] || build=$root/$build
bin=$build/fmri-rem
sim=$build/fmri-rem-simulate
if [[ ! -x $bin || ! -x $sim ]]; then
  echo "Error: $bin or $sim is missing; build first (make build)."
  exit 1
fi

# /usr/bin/time (Debian package "time") reports the peak resident memory.
if [[ ! -x /usr/bin/time ]]; then
  sudo=""
  [[ $(id -u) -eq 0 ]] || sudo=sudo
  echo "Installing the package 'time' ..."
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq time >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/fmri-rem-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# run LABEL STUDY-DIR [VAR=VALUE ...]: analyses STUDY-DIR/analysis.rem (or
# $ANALYSIS when set) in the fresh folder STUDY-DIR/LABEL; sets WALL, CPU
# (user + system, s) and RSS (KB).
run() {
  local label=$1 dir=$2
  shift 2
  mkdir -p "$dir/$label"
  (cd "$dir/$label" &&
    env "$@" /usr/bin/time -f '%e %U %S %M' -o time.txt "$bin" "../${ANALYSIS:-analysis.rem}" \
      >stdout.txt)
  local user sys
  read -r WALL user sys RSS <"$dir/$label/time.txt"
  CPU=$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f", u + s }')
}

voxels_of() { # study dir -> nx*ny*nz of its first header
  local h
  h=$(ls "$1"/*.hdr | head -1)
  awk '$1 == "x" { x = $2 } $1 == "y" { y = $2 } $1 == "z" { z = $2 } END { print x * y * z }' "$h"
}

row() { # label voxels wall cpu rss-KB
  awk -v l="$1" -v n="$2" -v w="$3" -v c="$4" -v m="$5" 'BEGIN {
    printf "  %-34s %8d %8.2f %8.2f %8.1f %10.0f\n", l, n, w, c, m / 1024, (w > 0 ? n / w : 0) }'
}

header() {
  printf "  %-34s %8s %8s %8s %8s %10s\n" "" "voxels" "wall s" "CPU s" "peak MB" "voxels/s"
}

# bench NAME SIZE SUBJECTS SEED PLAIN_STEP [simulator options]
bench() {
  local name=$1 size=$2 subjects=$3 seed=$4 step=$5
  shift 5
  local dir=$work/$name
  # shellcheck disable=SC2086
  "$sim" -o "$dir" --prefix ../ --size $size --subjects "$subjects" --seed "$seed" "$@" >/dev/null
  local n files input_mb conditions maps_mb
  n=$(voxels_of "$dir")
  # The signal files that the analysis file lists (the simulator also writes
  # the true maps beside them).
  files=$(awk '$1 ~ /\.bfloat$/ { print $1 }' "$dir/analysis.rem" | wc -l)
  input_mb=$(awk '$1 ~ /\.bfloat$/ { sub("^\\.\\./", "", $1); print $1 }' "$dir/analysis.rem" |
    (cd "$dir" && xargs du -cb) | tail -1 | awk '{ printf "%.1f", $1 / 1048576 }')
  conditions=$(awk '$1 == "conditions" { print NF - 1 }' "$dir/analysis.rem")
  # sigma2 (2 maps) and P, T, S (two frames) per condition.
  maps_mb=$(awk -v n="$n" -v c="$conditions" 'BEGIN { printf "%.1f", n * 4 * (2 + 4 * c) / 1048576 }')

  echo
  echo "$name study: $size voxels, $files files ($subjects per group), $conditions conditions"
  echo "  input data $input_mb MB, result maps $maps_mb MB"
  header
  run fast "$dir"
  local fast_wall=$WALL fast_rss=$RSS
  row "fast, ${OMP_NUM_THREADS:-all} threads" "$n" "$WALL" "$CPU" "$RSS"
  run fast1 "$dir" OMP_NUM_THREADS=1
  row "fast, 1 thread" "$n" "$WALL" "$CPU" "$RSS"
  # The same study with "reml converged" (the default above is classic).
  sed 's/^smoothing .*/&\nreml converged/' "$dir/analysis.rem" >"$dir/converged.rem"
  ANALYSIS=converged.rem run converged "$dir"
  row "converged, ${OMP_NUM_THREADS:-all} threads" "$n" "$WALL" "$CPU" "$RSS"
  ANALYSIS=converged.rem run converged1 "$dir" OMP_NUM_THREADS=1
  row "converged, 1 thread" "$n" "$WALL" "$CPU" "$RSS"

  # The same study in the overlapping layout with one more event, a ramp
  # over a single file: its design value is not a number, so every voxel
  # takes the reference kernel (on every thread).
  awk '$1 == "smoothing" || $1 == "conditions" { print; next }
       $1 == "event" { if (ev != "") { print "event " ev; print first " " k - 1; print "" }
                       ev = $2; first = k + 0; next }
       $1 ~ /\.bfloat$/ { files[k++] = $1 }
       END { print "event " ev; print first " " k - 1; print ""
             print "event Z ramp"; print "0 0"; print ""; print "measurements"
             for (i = 0; i < k; ++i) print files[i] }' "$dir/analysis.rem" >"$dir/ramp.rem"
  ANALYSIS=ramp.rem run ramp "$dir"
  row "single-file ramp, ${OMP_NUM_THREADS:-all} threads" "$n" "$WALL" "$CPU" "$RSS"
  ANALYSIS=ramp.rem run ramp1 "$dir" OMP_NUM_THREADS=1
  row "single-file ramp, 1 thread" "$n" "$WALL" "$CPU" "$RSS"

  # The plain passes on every step-th slice.
  local sub=$work/$name-subset
  python3 "$root/scripts/bench_subset.py" "$dir" "$sub" "$step" $((step / 2))
  local m
  m=$(voxels_of "$sub")
  run plain "$sub" FMRI_REM_PLAIN=1 OMP_NUM_THREADS=1
  local plain_wall=$WALL plain_cpu=$CPU plain_rss=$RSS
  run fast "$sub"
  local sub_fast_wall=$WALL sub_fast_cpu=$CPU sub_fast_rss=$RSS
  echo "  subset: every ${step}th slice, $m voxels"
  row "plain, 1 thread" "$m" "$plain_wall" "$plain_cpu" "$plain_rss"
  row "fast, ${OMP_NUM_THREADS:-all} threads" "$m" "$sub_fast_wall" "$sub_fast_cpu" "$sub_fast_rss"
  local same=identical
  for f in "$sub/plain"/*; do
    cmp -s "$f" "$sub/fast/$(basename "$f")" || { [[ $(basename "$f") == time.txt ]] || same=DIFFERENT; }
  done
  awk -v pw="$plain_wall" -v pc="$plain_cpu" -v n="$n" -v m="$m" -v fw="$fast_wall" \
    -v sfw="$sub_fast_wall" -v same="$same" 'BEGIN {
      est = pw * n / m
      printf "  plain estimate for the whole study: %.1f s wall (%.2f s x %d / %d voxels)\n", est, pw, n, m
      printf "  speed-up: %.0fx on the whole study (estimate), %.0fx measured on the subset\n", est / fw, pw / sfw
      printf "  output files of plain and fast on the subset: %s\n", same
    }'
  awk -v r="$fast_rss" -v b="$BASE_RSS" -v i="$input_mb" -v mp="$maps_mb" 'BEGIN {
      d = i + mp; peak = r / 1024; base = b / 1024
      printf "  peak memory %.1f MB = input + maps %.1f MB %+.1f%%; less the %.1f MB of an idle process: %+.1f%%\n",
        peak, d, 100 * (peak - d) / d, base, 100 * (peak - base - d) / d
      printf "  (the fast passes read the signal files on demand; the plain passes hold them in memory)\n"
    }'
}

BASE_RSS=$( (/usr/bin/time -f '%M' "$bin" -h >/dev/null) 2>&1 | tail -1)

echo "fmri-rem benchmark: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
bench standard "64 64 32" 20 1 4 --smoothing 4 8
bench large-group "32 32 16" 100 2 8

# nipy's mixed-effects EM, when that package is there: 5 iterations on a
# 32 x 32 x 16 study of 2 groups of 40 files.
nipy_python=""
for p in python3 /usr/bin/python3; do
  if "$p" -c 'import nipy.algorithms.statistics.mixed_effects_stat' 2>/dev/null; then
    nipy_python=$p
    break
  fi
done
if [[ -n $nipy_python ]]; then
  dir=$work/nipy
  "$sim" -o "$dir" --prefix ../ --size 32 32 16 --subjects 40 --seed 3 >/dev/null
  n=$(voxels_of "$dir")
  echo
  echo "nipy comparison: 32 32 16 voxels, 2 groups of 40 files"
  header
  run fast "$dir"
  row "fmri-rem fast" "$n" "$WALL" "$CPU" "$RSS"
  "$nipy_python" - "$dir" <<'EOF'
import os, re, sys, time, resource
import numpy as np
from nipy.algorithms.statistics.mixed_effects_stat import mfx_stat
d = sys.argv[1]
words = [l.split() for l in open(os.path.join(d, 'analysis.rem'))]
names = [os.path.basename(w[0]) for w in words if w and w[0].endswith('.bfloat')]
effects, variances, groups = [], [], []
for name in names:
    data = np.fromfile(os.path.join(d, name), dtype=np.float32).reshape(2, -1)
    effects.append(data[0]); variances.append(data[1].astype(np.float64) ** 2)
    groups.append(0 if os.path.basename(name).startswith('subject-p') else 1)
Y = np.array(effects, dtype=np.float64); V = np.array(variances)
X = np.zeros((len(names), 2)); X[np.arange(len(names)), groups] = 1
inside = np.all(V > 0, axis=0)
start = time.time(); cpu = time.process_time()
with np.errstate(all='ignore'):
    for column in (0, 1):
        mfx_stat(Y[:, inside], V[:, inside], X, column, n_iter=5, return_t=True)
    # p - c as the first coefficient of the design [p, p + c].
    mfx_stat(Y[:, inside], V[:, inside], X @ np.array([[1.0, 1.0], [0.0, 1.0]]), 0, n_iter=5)
wall = time.time() - start; cpu = time.process_time() - cpu
rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
vox = Y.shape[1]
print("  %-34s %8d %8.2f %8.2f %8.1f %10.0f" % ("nipy mfx_stat, 5 EM iterations", vox, wall, cpu, rss / 1024, vox / wall))
print("  (nipy: the 3 contrasts p, c, p-c on the %d voxels with data; reading excluded)" % inside.sum())
EOF
else
  echo
  echo "nipy comparison skipped: python3-nipy is not installed."
fi
echo
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
