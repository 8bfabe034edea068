// The two voxel passes of the random-effects analysis: one loop over the
// voxels, shared by every route, that runs a kernel of the model on each
// voxel and keeps the results in the maps.  Internal to the driver.
//
// The voxels are taken in chunks from the chunk source.  Within a chunk the
// threads share the voxels out; each thread owns a workspace, and each
// voxel's results go to its own map slots, so the maps do not depend on which
// thread did what.  Kernels only report a status per voxel; once a chunk is
// done the main thread goes through its voxels in order, counts, prints the
// progress lines and ends the run on a fatal status, so standard output is
// the same for any number of threads, and the same as one voxel at a time.
#ifndef FMRI_REM_VOXEL_PASSES_H
#define FMRI_REM_VOXEL_PASSES_H

#include "driver.h"
#include "rem.h"

// How the voxels are analysed.  By default the fast kernel on every core
// (OMP_NUM_THREADS limits them), with the signal values read from the files
// as the passes go.  FMRI_REM_PLAIN=1 asks for the reference kernel on one
// thread with the signal data held in memory, the model's arithmetic one
// voxel at a time.  With "reml converged" in the analysis file the first
// pass takes the converged estimate instead.
struct voxel_route {
    const rem_kernel *kernel;
    int threads;
    int read_on_demand;
};

voxel_route voxel_route_from_environment(void);

// As analyze_random_effects, on the given route.
int analyze_random_effects_on(const voxel_route &route, int residue_requested, int nconditions,
                              int dof);

// What the passes need besides the maps.
struct voxel_pass_setup {
    voxel_route route;
    const rem_model_view *model;
    file_list_entry *const *entries;  // the signal files, in list order
    const int *dofs;                  // their degrees of freedom
    int nfiles;
    int nvoxels;
    int step;  // progress is printed every step voxels
    // 1 when a random-effects variance of exactly 0 is tested all the same
    // (the converged estimate), unless the fixed-effects variance is 0 too.
    int zero_estimates_tested;
};

// First pass: REML variances into Sigma2_FE_map and Sigma2_RE_map; the
// voxels that could not be estimated are added to *unestimable, those whose
// estimate did not settle to *did_not_settle (both are left out of the
// second pass), those whose converged estimate stopped at its iteration cap
// to *at_cap.  0, or 1 when the signal data could not be read.
int variance_pass(const voxel_pass_setup &setup, int *unestimable, int *did_not_settle,
                  int *at_cap);

// Second pass: final fit and every condition's test into P_map, T_map,
// S_map, dS_map (and Residue_series when requested).  0, or 1 when the
// signal data could not be read.  A test whose p value is undefined ends the
// run with the incomplete beta function's message.
int statistics_pass(const voxel_pass_setup &setup, int residue_requested, int nconditions, int dof);

// Stores one voxel's results for condition c.  The p code is -log10 of the
// corrected p (when correct is non-zero) or of the raw p, its sign bit
// toggled where t is negative; a skipped voxel stores 0 throughout.
void store_condition_results(int c, int voxel, int skipped, int correct, float t, float p_raw,
                             float p_corrected, float s, float ds);

#endif
