// The two voxel passes of the random-effects analysis on the fast per-voxel
// kernel of the model, spread over all cores (OpenMP; OMP_NUM_THREADS limits
// the number of threads).  Maps, counts and printed progress are the same,
// bit for bit and line for line, as those of the plain passes, for any
// number of threads.
#ifndef FMRI_REM_FAST_PASSES_H
#define FMRI_REM_FAST_PASSES_H

#include "driver.h"

#ifdef __cplusplus
extern "C" {
#endif

// 1 unless the environment variable FMRI_REM_PLAIN asks for the plain
// passes (set, and neither empty nor "0").
int fast_passes_requested(void);

// 1 when the fast passes are to be used: the environment variable
// FMRI_REM_PLAIN is unset, empty or "0", and the model is ready for nfiles
// files and nconditions conditions (otherwise the plain passes run, which
// report such problems in their own words).
int fast_passes_usable(int nfiles, int nconditions);

// First pass: REML variances into Sigma2_FE_map and Sigma2_RE_map; adds the
// voxels that could not be estimated to *unestimable, and those where the
// converged estimate reached its iteration cap to *capped.  entries and dofs
// list the nfiles signal files in order; progress is printed every step
// voxels.  Returns 0, or 1 when the signal data could not be read.
int fast_variance_pass(int nvoxels, int step, file_list_entry *const *entries, const int *dofs,
                       int nfiles, int *unestimable, int *capped);

// Second pass: final fit and every condition's test into P_map, T_map,
// S_map, dS_map (and Residue_series when requested).  Returns 0, or 1 when
// a test fails or the signal data could not be read.
int fast_statistics_pass(int nvoxels, int step, file_list_entry *const *entries, int nfiles,
                         int residue_requested, int nconditions, int dof);

// 1 when the second pass skips the voxel (zeros in every map): its random
// variance is 0 (with the converged estimate: and so is its fixed one).
int skip_voxel(int voxel);

// Stores one voxel's results for condition c.  The p code is -log10 of the
// corrected p (when correct is non-zero) or of the raw p, its sign bit
// toggled where t is negative; a skipped voxel stores 0 throughout.
void store_condition_results(int c, int voxel, int skipped, int correct, float t, float p_raw,
                             float p_corrected, float s, float ds);

#ifdef __cplusplus
}
#endif

#endif
