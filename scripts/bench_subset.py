#!/usr/bin/env python3
"""Copies a study written by fmri-rem-simulate, keeping every STEP-th slice
from OFFSET on: the same voxels' values in a thinner volume, so that the plain
voxel passes can be timed on a part of the study whose voxels are spread
evenly over the volume (inside and outside the brain alike).

usage: bench_subset.py SOURCE DEST STEP OFFSET
"""
import array
import os
import re
import sys


def header_value(text, key):
    return int(re.search(r'^%s (\d+)' % key, text, re.M).group(1))


def main():
    src, dst, step, offset = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
    os.makedirs(dst, exist_ok=True)
    for name in sorted(os.listdir(src)):
        path = os.path.join(src, name)
        if name == 'analysis.rem':
            with open(path) as f, open(os.path.join(dst, name), 'w') as g:
                g.write(f.read())
        if not name.endswith('.hdr'):
            continue
        with open(path) as f:
            text = f.read()
        nx, ny, nz, nt = (header_value(text, k) for k in ('x', 'y', 'z', 't'))
        slices = list(range(offset, nz, step))
        with open(os.path.join(dst, name), 'w') as g:
            g.write(re.sub(r'^z \d+', 'z %d' % len(slices), text, flags=re.M))
        data = array.array('f')
        with open(path[:-4] + '.bfloat', 'rb') as f:
            data.fromfile(f, nx * ny * nz * nt)
        plane = nx * ny
        out = array.array('f')
        for t in range(nt):
            for z in slices:
                first = (t * nz + z) * plane
                out.extend(data[first:first + plane])
        with open(os.path.join(dst, name[:-4] + '.bfloat'), 'wb') as g:
            out.tofile(g)


if __name__ == '__main__':
    main()
