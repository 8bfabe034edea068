# Reads the maps that fmri-rem-export wrote into FOLDER with nibabel, applies the
# distribution their intent names (scipy.stats) and compares the p so found with
# the z and (uncorrected, RESELS 0) -log10 p maps.  Usage: check_intents.py FOLDER
# RESELS.  Prints the problems and "checked N maps"; status 1 on any problem.
import glob
import os
import sys

import nibabel as nib
import numpy as np
from scipy import stats

out, resels = sys.argv[1], int(sys.argv[2])
problems = []
mask = np.asarray(nib.load(os.path.join(out, "mask.nii.gz")).dataobj) != 0


def load(path):
    img = nib.load(path)
    return img.header, np.asarray(img.dataobj, dtype=np.float64)[mask]


def close(what, got, want, tol):
    bad = ~np.isclose(got, want, rtol=tol, atol=tol)
    if bad.any():
        k = np.argmax(bad)
        problems.append("%s: %d voxels differ, e.g. %r against %r" % (what, bad.sum(), got[k], want[k]))


checked = 0
for stat_path in sorted(glob.glob(os.path.join(out, "contrast-*_stat-[tF]_statmap.nii.gz"))):
    stem = stat_path[: stat_path.index("_stat-")]
    header, s = load(stat_path)
    name, params, _ = header.get_intent()
    if name == "t test":
        m, nu = 1, params[0]
        p, lower = 2 * stats.t.sf(np.abs(s), nu), None
    elif name == "f test":
        m, nu = int(params[0]), params[1]
        p, lower = stats.f.sf(s, m, nu), stats.f.cdf(s, m, nu)
    else:
        problems.append("%s: intent %s" % (stat_path, name))
        continue
    ok = p > 1e-290
    z_header, z = load(stem + "_stat-z_statmap.nii.gz")
    if z_header.get_intent()[0] != "z score":
        problems.append(stem + ": the z map's intent is " + z_header.get_intent()[0])
    if m == 1:
        want = np.sign(s) * stats.norm.isf(p / 2)
    else:
        want = np.where(p <= 0.5, stats.norm.isf(p), stats.norm.ppf(np.maximum(lower, 1e-300)))
    close(stem + " z", z[ok], want[ok], 2e-5)
    lp_header, lp = load(stem + "_stat-logp_statmap.nii.gz")
    code = int(lp_header["intent_code"])
    iname = lp_header["intent_name"].tobytes().rstrip(b"\0").decode()
    if code != 0 or "log10p" not in iname or ("FWE" in iname) != (resels > 0):
        problems.append("%s: the logp map has intent %d, %r" % (stem, code, iname))
    if resels == 0:  # the corrected p are checked in the unit tests of the p values
        with np.errstate(divide="ignore"):
            want = -np.log10(p) * (np.sign(s) if m == 1 else 1)
        close(stem + " logp", lp[ok], want[ok], 1e-5)
    checked += 3

print("\n".join(problems + ["checked %d maps" % checked]))
sys.exit(1 if problems else 0)
