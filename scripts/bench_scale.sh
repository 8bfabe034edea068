#!/usr/bin/env bash
# Times fmri-rem with "reml converged" on simulated cohort studies of two
# groups (2 x 100, 2 x 1,000 and 2 x 5,000 files of 46 x 55 x 46 voxels of
# 4 mm): wall and CPU time, peak resident memory, and the input read per
# second against one plain read of the same files (cat > /dev/null).  Before
# the cat and before fmri-rem the study's files are dropped from the page
# cache (posix_fadvise DONTNEED, after writing them out), so that both read
# from the disk; BENCH_WARM=1 leaves the cache alone.  Prints a table; each
# study is deleted once it is timed.
#   scripts/bench_scale.sh [build folder]
# SUBJECTS="100 1000 5000" (per group) and BENCH_DIR (default bench-scale/)
# choose the studies and where they are written.  Where Debian's python3-nipy
# is installed, its mixed-effects EM (mfx_stat, 5 iterations, the study held
# in memory) is timed on the study of 2 x 1,000 files as well, below the table.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$root/$build ;; esac
work=${BENCH_DIR:-$root/bench-scale}
subjects=${SUBJECTS:-"100 1000 5000"}
nx=46 ny=55 nz=46

for program in fmri-rem fmri-rem-simulate; do
    if [ ! -x "$build/$program" ]; then
        echo "Error: $build/$program is not built (make build)" >&2
        exit 1
    fi
done
if [ ! -x /usr/bin/time ]; then
    echo "Error: /usr/bin/time is needed (Debian package time)" >&2
    exit 1
fi

mkdir -p "$work"
seconds() { date +%s.%N; }
# Drops the signal files of folder $1 from the page cache (unless BENCH_WARM=1).
evict() {
    [ "${BENCH_WARM:-0}" = 1 ] && return 0
    /usr/bin/python3 - "$1" <<'EOF2'
import os, sys
d = sys.argv[1]
for n in os.listdir(d):
    if n.endswith('.bfloat'):
        fd = os.open(os.path.join(d, n), os.O_RDONLY)
        os.fdatasync(fd)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(fd)
EOF2
}
# Value of a line "<label>: value" of /usr/bin/time -v.
field() { sed -n "s/^[[:space:]]*$1: //p" "$2"; }
# h:mm:ss or m:ss.ss as seconds.
wall_seconds() { awk -F: '{ s = 0; for (i = 1; i <= NF; ++i) s = s * 60 + $i; print s }'; }

printf '%-8s %9s %9s %10s %9s %9s %9s %10s %8s\n' files "input GB" "cat s" "cat MB/s" \
    "wall s" "CPU s" "RSS MB" "read MB/s" "wall/cat"
for s in $subjects; do
    files=$((2 * s))
    need=$((files * nx * ny * nz * 8 + 100000000))
    free=$(df --output=avail -B1 "$work" | tail -1)
    if [ "$free" -lt "$need" ]; then
        echo "Error: $files files need $((need / 1000000)) MB in $work; $((free / 1000000)) MB are free" >&2
        exit 1
    fi
    study=$work/study-$files
    run=$work/run-$files
    rm -rf "$study" "$run"
    "$build/fmri-rem-simulate" -o "$study" --size $nx $ny $nz --voxel 4 --subjects "$s" \
        --converged --smoothing 6 8 --prefix "../$(basename "$study")/" > /dev/null
    bytes=$(find "$study" -name 'subject-*.bfloat' -printf '%s\n' | awk '{ s += $1 } END { print s }')

    evict "$study"
    start=$(seconds)
    find "$study" -name 'subject-*.bfloat' -print0 | xargs -0 cat > /dev/null
    cat_s=$(echo "$(seconds) - $start" | bc -l)

    mkdir -p "$run"
    evict "$study"
    (cd "$run" && /usr/bin/time -v "$build/fmri-rem" "../$(basename "$study")/analysis.rem" \
        > fmri-rem.log 2> time.txt) || {
        echo "Error: fmri-rem failed on $files files (see $run)" >&2
        exit 1
    }
    wall=$(field "Elapsed (wall clock) time (h:mm:ss or m:ss)" "$run/time.txt" | wall_seconds)
    user=$(field "User time (seconds)" "$run/time.txt")
    system=$(field "System time (seconds)" "$run/time.txt")
    rss=$(field "Maximum resident set size (kbytes)" "$run/time.txt")
    awk -v f="$files" -v b="$bytes" -v c="$cat_s" -v w="$wall" -v u="$user" -v y="$system" \
        -v r="$rss" 'BEGIN {
            printf "%-8d %9.2f %9.1f %10.0f %9.1f %9.1f %9.0f %10.0f %8.1f\n",
                f, b / 1e9, c, b / 1e6 / c, w, u + y, r / 1024, b / 1e6 / w, w / c }'
    if [ "$s" = 1000 ] && /usr/bin/python3 -c 'import nipy.algorithms.statistics.mixed_effects_stat' \
        2>/dev/null; then
        evict "$study"
        nipy_line=$(/usr/bin/python3 - "$study" <<'EOF2'
import os, sys, time, resource
import numpy as np
from nipy.algorithms.statistics.mixed_effects_stat import mfx_stat
d = sys.argv[1]
names = sorted(n for n in os.listdir(d) if n.startswith('subject-') and n.endswith('.bfloat'))
start = time.time(); cpu = time.process_time()
data = [np.fromfile(os.path.join(d, n), dtype=np.float32).reshape(2, -1) for n in names]
Y = np.array([x[0] for x in data], dtype=np.float64)
V = np.array([x[1] for x in data], dtype=np.float64) ** 2
del data
groups = [0 if n.startswith('subject-p') else 1 for n in names]
X = np.zeros((len(names), 2)); X[np.arange(len(names)), groups] = 1
inside = np.all(V > 0, axis=0)
Y, V = Y[:, inside], V[:, inside]
with np.errstate(all='ignore'):
    for column in (0, 1):
        mfx_stat(Y, V, X, column, n_iter=5, return_t=True)
    mfx_stat(Y, V, X @ np.array([[1.0, 1.0], [0.0, 1.0]]), 0, n_iter=5)
wall = time.time() - start; cpu = time.process_time() - cpu
rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
print("nipy mfx_stat (5 EM iterations, conditions p, c, p-c, reading included) on the same "
      "%d files: wall %.1f s, CPU %.1f s, peak RSS %.0f MB" % (len(names), wall, cpu, rss))
EOF2
        )
    fi
    rm -rf "$study" "$run"
done
if [ -n "${nipy_line:-}" ]; then echo "$nipy_line"; fi
