// The voxelwise random-effects analysis: the effective degrees of freedom of
// the smoothed variance, the REML pass that estimates the fixed- and
// random-effects variances, and the pass that fits the final model and tests
// every condition.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "driver.h"
#include "fast_passes.h"
#include "io.h"
#include "rem.h"
#include "signal_data.h"
#include "util.h"

float *Sigma2_FE_map = nullptr;
float *Sigma2_RE_map = nullptr;
float **P_map = nullptr;
float **T_map = nullptr;
float **S_map = nullptr;
float **dS_map = nullptr;
float *Residue_series = nullptr;

namespace {

// Per-voxel working vectors, one value per signal file.
struct voxel_work {
    int nfiles;
    file_list_entry **entries;  // the list's nodes, in order
    float *effects;
    float *errors;
    int *dofs;
    float *fitted;
    float *event_sum;
};

int count_files() {
    int count = 0;
    for (const file_list_entry *e = &file_list_root; e != nullptr; e = e->next) ++count;
    return count;
}

// Progress is printed at every step-th voxel.
void print_progress(int voxel, int step, const char *what) {
    if (voxel % step == 0) {
        std::printf("\r %d percent done computing %s", (100 / 100 * voxel) / step, what);
        std::fflush(stdout);
    }
}

// First pass at one voxel: REML estimates of both variances.  The model
// squares the errors; their absolute values are passed.
void estimate_variances(int voxel, voxel_work *w, int *unestimable, int *capped) {
    for (int k = 0; k < w->nfiles; ++k) {
        w->effects[k] = w->entries[k]->effect[voxel];
        w->errors[k] = std::fabs(w->entries[k]->effect_stderr[voxel]);
    }
    float fe = 0.0f;
    float re = 0.0f;
    int result = 0;
    // Temporary wiring of "reml converged": fe as above, re converged.
    if (REM_input.reml_method == REM_REML_CONVERGED) {
        static rem_converged_workspace *converged = rem_converged_workspace_create();
        result = rem_converged_first_pass(converged, w->nfiles, w->effects, w->errors, w->dofs, &fe,
                                          &re);
        if (result == REM_CONVERGED_CAPPED) ++*capped;
    } else {
        result = REM_REML_iterate(w->nfiles, w->effects, w->errors, w->dofs, &fe, &re);
    }
    if (result == 1) std::exit(1);
    if (result < 0) ++*unestimable;
    Sigma2_FE_map[voxel] = fe;
    Sigma2_RE_map[voxel] = re;
}

// Second pass at one voxel: final fit with the (smoothed) random variance
// and the test of every condition.  A voxel whose random variance is exactly
// 0 is skipped and gets zeros throughout.
int test_conditions(int voxel, int nvoxels, int residue_requested, int nconditions, int dof,
                    voxel_work *w) {
    for (int k = 0; k < w->nfiles; ++k) {
        w->effects[k] = w->entries[k]->effect[voxel];
        w->errors[k] = w->entries[k]->effect_stderr[voxel];
    }
    float re = Sigma2_RE_map[voxel];
    bool skipped = skip_voxel(voxel);
    if (skipped) {
        if (residue_requested) {
            for (int k = 0; k < w->nfiles; ++k) {
                Residue_series[static_cast<int64_t>(k) * nvoxels + voxel] = 0.0f;
            }
        }
    } else {
        REM_fit_final(re, w->nfiles, w->effects, w->errors, w->fitted, w->event_sum);
        if (residue_requested) {
            for (int k = 0; k < w->nfiles; ++k) {
                Residue_series[static_cast<int64_t>(k) * nvoxels + voxel] =
                    w->effects[k] - w->fitted[k];
            }
        }
    }
    for (int c = 0; c < nconditions; ++c) {
        float t = 0.0f;
        float p_raw = 0.0f;
        float p_corrected = 0.0f;
        float s = 0.0f;
        float ds = 0.0f;
        if (!skipped &&
            REM_calculate_F(w->nfiles, resels, c, dof, &t, &p_raw, &p_corrected, &s, &ds) != 0) {
            return 1;
        }
        store_condition_results(c, voxel, skipped, REM_input.multiple_comparisons != 0, t, p_raw,
                                p_corrected, s, ds);
    }
    return 0;
}

}  // namespace

int compute_effective_dof(int *dof) {
    const float p = REM_input.prior_smoothing;
    const float f = REM_input.ratio_smoothing;
    const float dx = file_list_root.resolution[0];
    const float dy = file_list_root.resolution[1];
    const float dz = file_list_root.resolution[2];

    // Resolution after the prior smoothing, per axis and as an isotropic mean.
    float rx = static_cast<float>(std::sqrt(static_cast<double>(p * p + dx * dx)));
    float ry = static_cast<float>(std::sqrt(static_cast<double>(p * p + dy * dy)));
    float rz = static_cast<float>(std::sqrt(static_cast<double>(p * p + dz * dz)));
    float volume = rx * ry * rz;
    float r = static_cast<float>(std::pow(static_cast<double>(volume), 0.3333));

    int fixed_dof = 0;
    for (const file_list_entry *e = &file_list_root; e != nullptr; e = e->next) {
        fixed_dof += e->dof;
    }
    int random_dof = REM_get_DOF();

    // Smoothing the ratio over a Gaussian of width f multiplies the random
    // degrees of freedom by (2 f^2 / r^2 + 1)^1.5; combine harmonically with
    // the fixed degrees of freedom.
    float ratio = 2 * f * f / (r * r) + 1;
    float boost = static_cast<float>(std::pow(static_cast<double>(ratio), 1.5));
    float smoothed_random = static_cast<float>(random_dof) * boost;
    double combined =
        1.0 / (1.0 / static_cast<double>(smoothed_random) + 1.0 / static_cast<double>(fixed_dof));
    *dof = static_cast<int>(std::rint(combined));

    std::printf("Effective isotropic resolution    = %4.2f mm\n", static_cast<double>(r));
    std::printf("Smoothing FWHM for variance ratio = %g mm\n", static_cast<double>(f));
    return std::printf("Degrees of freedom: fixed = %d, random = %d, smoothed = %d\n", fixed_dof,
                       random_dof, *dof);
}

int analyze_random_effects(int residue_requested, int nconditions, int dof) {
    std::printf("\nAnalyzing random effects ...\n");
    const int nvoxels = file_list_root.nx * file_list_root.ny * file_list_root.nz;
    const uint32_t n = static_cast<uint32_t>(nvoxels);

    // Static, so that it stays reachable when an error ends the run early.
    static voxel_work w;
    w.nfiles = count_files();
    const uint32_t nf = static_cast<uint32_t>(w.nfiles);

    Sigma2_FE_map = float_vector(n);
    Sigma2_RE_map = float_vector(n);
    if (residue_requested) Residue_series = float_vector(nf * n);
    uint32_t nc = static_cast<uint32_t>(nconditions > 0 ? nconditions : 0);
    P_map = float_matrix(nc, n);
    T_map = float_matrix(nc, n);
    S_map = float_matrix(nc, n);
    dS_map = float_matrix(nc, n);

    w.entries = static_cast<file_list_entry **>(std::malloc(nf * sizeof(file_list_entry *)));
    if (w.entries == nullptr) alloc_error("file list");
    w.effects = float_vector(nf);
    w.errors = float_vector(nf);
    w.dofs = int_vector(nf);
    w.fitted = float_vector(nf);
    w.event_sum = float_vector(nf);
    {
        int k = 0;
        for (file_list_entry *e = &file_list_root; e != nullptr; e = e->next, ++k) {
            w.entries[k] = e;
            w.dofs[k] = e->dof;
        }
    }

    // Volumes of fewer than 100 voxels report every voxel.
    int step = nvoxels / 100;
    if (step < 1) step = 1;

    // The fast passes give the same maps and lines as the plain ones below;
    // FMRI_REM_PLAIN=1 asks for the plain ones.
    const bool fast = fast_passes_usable(w.nfiles, nconditions) != 0;

    // The plain passes read the data from memory.
    if (!fast && signal_data_streamed() && load_streamed_signal_data() != 0) return 1;

    int unestimable = 0;
    int capped = 0;
    if (fast) {
        if (fast_variance_pass(nvoxels, step, w.entries, w.dofs, w.nfiles, &unestimable, &capped) !=
                0 ||
            check_streamed_signal_files() != 0)
            return 1;
    } else {
        for (int i = 0; i < nvoxels; ++i) {
            estimate_variances(i, &w, &unestimable, &capped);
            print_progress(i, step, "RE variance");
        }
    }
    std::printf("\r 100 percent done computing RE variance\n");
    if (capped > 0)
        std::printf(
            "Warning: the converged REML estimate stopped at its iteration cap (%d) in %d "
            "voxels; their estimate is the last iterate.\n",
            REM_CONVERGED_ITERATION_CAP, capped);

    // The second pass reads the signal files again: they must survive the
    // writing of "sigma2".
    if (keep_signal_data_from("sigma2") != 0) return 1;
    FILE *stream = nullptr;
    if (open_output_file(0, 3, dof, "sigma2", &stream) != 0) return 1;
    std::fwrite(Sigma2_FE_map, sizeof(float), n, stream);
    if (std::fwrite(Sigma2_RE_map, sizeof(float), n, stream) != n) return 1;
    if (REM_input.ratio_smoothing != 0.0f) {
        regularize_random_effects();
        if (std::fwrite(Sigma2_RE_map, sizeof(float), n, stream) != n) return 1;
    }
    // Without smoothing the third frame announced by the header stays absent.
    std::fclose(stream);

    if (REM_input.multiple_comparisons != 0) {
        std::printf("\nCalculate p values corrected for multiple comparisons (%d).\n", resels);
    } else {
        std::printf("\nCalculating raw pvalues without correction for multiple comparisons.\n");
    }

    if (fast) {
        if (fast_statistics_pass(nvoxels, step, w.entries, w.nfiles, residue_requested, nconditions,
                                 dof) != 0 ||
            check_streamed_signal_files() != 0)
            return 1;
    } else {
        for (int i = 0; i < nvoxels; ++i) {
            if (test_conditions(i, nvoxels, residue_requested, nconditions, dof, &w) != 0) return 1;
            print_progress(i, step, "statistics");
        }
    }

    std::printf("\r 100 percent done computing RE variance\n");
    std::printf("\nResults output to files\n  average.bfloat (average + stdev)\n");
    static char condition[DRIVER_NAME_LENGTH];
    for (int c = 0; c < nconditions; ++c) {
        if (REM_get_condition_string(c, condition) != 0) return 1;
        std::printf("  P-%s.bfloat, T-%s.bfloat, & S-%s.bfloat\n", condition, condition, condition);
    }

    std::free(w.entries);
    free_float_vector(w.effects);
    free_float_vector(w.errors);
    free_int_vector(w.dofs);
    free_float_vector(w.fitted);
    free_float_vector(w.event_sum);
    return 0;
}

int skip_voxel(int voxel) {
    // With the converged estimate a between-subject variance of 0 is an
    // estimate like any other; only a voxel without a fixed-effects variance
    // (one that could not be estimated) is skipped.
    if (REM_input.reml_method == REM_REML_CONVERGED)
        return Sigma2_RE_map[voxel] == 0.0f && Sigma2_FE_map[voxel] == 0.0f;
    return Sigma2_RE_map[voxel] == 0.0f;
}

void store_condition_results(int c, int voxel, int skipped, int correct, float t, float p_raw,
                             float p_corrected, float s, float ds) {
    float p_code = 0.0f;
    if (!skipped) {
        const float p = correct ? p_corrected : p_raw;
        p_code = static_cast<float>(-std::log10(static_cast<double>(p)));
        if (t < 0.0f) p_code = -p_code;
    }
    P_map[c][voxel] = p_code;
    T_map[c][voxel] = t;
    S_map[c][voxel] = s;
    dS_map[c][voxel] = ds;
}
