#!/usr/bin/env python3
"""Share of voxel tests below given p values in result folders of fmri-rem.

usage: calibrate_rates.py VOXELS-PER-RESEL FOLDER...

Pools the conditions of every folder (each P-<c>.bfloat with its T- and S-
maps, and sigma2.bfloat) and prints one line:
  - the number of analysed voxel tests: a fixed-effects variance > 0 (first
    frame of sigma2) and not skipped (not all of T, S and its error 0);
  - for p < 0.05, 0.01 and 0.001, the share in per cent with a Wilson 95 %
    interval; neighbouring voxels are correlated, so the interval counts
    one independent test per VOXELS-PER-RESEL voxels;
  - the share of those voxels whose REML estimate (second frame) is 0;
  - when the folder's parent holds true-between-variance.bfloat (as
    fmri-rem-simulate writes it), the mean estimate over the mean true
    between-subject variance of the same voxels, else "-".
"""
import array
import math
import os
import re
import sys

LEVELS = (0.05, 0.01, 0.001)


def read_floats(path):
    data = array.array('f')
    with open(path, 'rb') as f:
        data.frombytes(f.read())
    return data


def wilson(rate, n, z=1.959964):
    if n <= 0:
        return 0.0, 0.0
    centre = (rate + z * z / (2 * n)) / (1 + z * z / n)
    half = z * math.sqrt(rate * (1 - rate) / n + z * z / (4 * n * n)) / (1 + z * z / n)
    return max(0.0, centre - half), min(1.0, centre + half)


def main():
    per_resel = float(sys.argv[1])
    codes = [-math.log10(a) for a in LEVELS]  # the P maps hold -log10 p
    tests = 0
    hits = [0] * len(LEVELS)
    voxels = zeros = 0
    estimate_sum = true_sum = 0.0
    have_truth = True
    for folder in sys.argv[2:]:
        sigma2 = read_floats(os.path.join(folder, 'sigma2.bfloat'))
        truth_path = os.path.join(folder, '..', 'true-between-variance.bfloat')
        truth = read_floats(truth_path) if os.path.exists(truth_path) else None
        have_truth = have_truth and truth is not None
        conditions = sorted(m.group(1) for m in
                            (re.match(r'P-(.*)\.bfloat$', f) for f in os.listdir(folder)) if m)
        for c in conditions:
            P = read_floats(os.path.join(folder, 'P-%s.bfloat' % c))
            T = read_floats(os.path.join(folder, 'T-%s.bfloat' % c))
            S = read_floats(os.path.join(folder, 'S-%s.bfloat' % c))
            n = len(P)
            for i in range(n):
                if not sigma2[i] > 0.0 or (T[i] == 0.0 and S[i] == 0.0 and S[n + i] == 0.0):
                    continue
                tests += 1
                a = abs(P[i])
                for j, code in enumerate(codes):
                    if a > code:
                        hits[j] += 1
        n = len(read_floats(os.path.join(folder, 'P-%s.bfloat' % conditions[0])))
        for i in range(n):
            if sigma2[i] > 0.0:
                voxels += 1
                zeros += sigma2[n + i] == 0.0
                estimate_sum += sigma2[n + i]
                if truth is not None:
                    true_sum += truth[i]
    fields = ['%8d' % tests]
    for j in range(len(LEVELS)):
        rate = hits[j] / tests if tests else 0.0
        lo, hi = wilson(rate, tests / per_resel)
        fields.append('%5.2f (%5.2f-%5.2f)' % (100 * rate, 100 * lo, 100 * hi))
    fields.append('%6.1f' % (100.0 * zeros / voxels if voxels else 0.0))
    fields.append('%7.2f' % (estimate_sum / true_sum) if have_truth and true_sum > 0 else '      -')
    print('  '.join(fields))


if __name__ == '__main__':
    main()
