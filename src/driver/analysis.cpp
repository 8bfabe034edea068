// The voxelwise random-effects analysis: the effective degrees of freedom of
// the smoothed variance, the REML pass that estimates the fixed- and
// random-effects variances, and the pass that fits the final model and tests
// every condition.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "driver.h"
#include "io.h"
#include "rem.h"
#include "smoothness.h"
#include "voxel_passes.h"
#include "util.h"

float *Sigma2_FE_map = nullptr;
float *Sigma2_RE_map = nullptr;
float **P_map = nullptr;
float **T_map = nullptr;
float **S_map = nullptr;
float **dS_map = nullptr;
float *Residue_series = nullptr;

namespace {

int count_files() {
    int count = 0;
    for (const file_list_entry *e = &file_list_root; e != nullptr; e = e->next) ++count;
    return count;
}

// With "smoothness estimated": the smoothness of the data is estimated from
// its residuals and the smoothed degrees of freedom follow from it.  Prints
// the estimate and the three lines of compute_effective_dof.
int estimated_effective_dof(int *dof) {
    // The estimate fits the design: one that cannot be estimated ends the run
    // here as it would before the voxel passes.
    if (REM_check_design() != 0) std::exit(1);
    double fwhm[3];
    int maps = 0;
    if (estimate_residual_smoothness(fwhm, &maps) != 0) std::exit(1);
    const float *d = file_list_root.resolution;
    const double f = REM_input.ratio_smoothing;
    double volume = 1.0;
    for (int a = 0; a < 3; ++a)
        volume *= std::sqrt(fwhm[a] * fwhm[a] + static_cast<double>(d[a]) * d[a]);
    int64_t fixed_dof = 0;
    for (const file_list_entry *e = &file_list_root; e != nullptr; e = e->next) fixed_dof += e->dof;
    const int random_dof = REM_get_DOF();
    const double boost = smoothed_dof_boost(fwhm, d, f);
    const double combined =
        1.0 / (1.0 / (random_dof * boost) + 1.0 / static_cast<double>(fixed_dof));
    const double rounded = std::rint(combined);
    if (!(rounded >= -2147483648.0 && rounded <= 2147483647.0)) {
        std::printf("Error: the smoothed degrees of freedom (%g) are out of range.\n", combined);
        std::exit(1);
    }
    *dof = static_cast<int>(rounded);
    std::printf(
        "Estimated smoothness (FWHM)       = %.2f x %.2f x %.2f mm, from %d residual maps\n",
        fwhm[0], fwhm[1], fwhm[2], maps);
    std::printf("Effective isotropic resolution    = %4.2f mm\n", std::cbrt(volume));
    std::printf("Smoothing FWHM for variance ratio = %g mm\n", f);
    return std::printf("Degrees of freedom: fixed = %lld, random = %d, smoothed = %d\n",
                       static_cast<long long>(fixed_dof), random_dof, *dof);
}

// The residue series of nfiles frames of n voxels.  Up to the classic
// capacity it fits a 32-bit count; beyond it the count is 64 bits, and a
// series that cannot be held ends the run with a message that says so.
float *residue_storage(uint32_t nfiles, uint32_t n) {
    const uint64_t count = static_cast<uint64_t>(nfiles) * n;
    if (count <= UINT32_MAX) return float_vector(static_cast<uint32_t>(count));
    void *series = std::malloc(count * sizeof(float));
    if (series == nullptr) {
        std::printf(
            "Error: the residue series of %u files (%.1f GB) does not fit into memory; run "
            "without -r.\n",
            nfiles, static_cast<double>(count) * sizeof(float) / 1e9);
        std::exit(1);
    }
    return static_cast<float *>(series);
}

}  // namespace

int compute_effective_dof(int *dof) {
    if (REM_input.smoothness_method == REM_SMOOTHNESS_ESTIMATED)
        return estimated_effective_dof(dof);

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

    // Summed in 64 bits: the files' degrees of freedom may add up to more
    // than an int holds.
    int64_t fixed_dof = 0;
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
    const double rounded = std::rint(combined);
    if (!(rounded >= -2147483648.0 && rounded <= 2147483647.0)) {
        // Not a number, or beyond an int (huge widths or degrees of freedom).
        std::printf("Error: the smoothed degrees of freedom (%g) are out of range.\n", combined);
        std::exit(1);
    }
    *dof = static_cast<int>(rounded);

    std::printf("Effective isotropic resolution    = %4.2f mm\n", static_cast<double>(r));
    std::printf("Smoothing FWHM for variance ratio = %g mm\n", static_cast<double>(f));
    return std::printf("Degrees of freedom: fixed = %lld, random = %d, smoothed = %d\n",
                       static_cast<long long>(fixed_dof), random_dof, *dof);
}

int analyze_random_effects(int residue_requested, int nconditions, int dof) {
    return analyze_random_effects_on(voxel_route_from_environment(), residue_requested, nconditions,
                                     dof);
}

int analyze_random_effects_on(const voxel_route &route, int residue_requested, int nconditions,
                              int dof) {
    std::printf("\nAnalyzing random effects ...\n");
    const int nvoxels = file_list_root.nx * file_list_root.ny * file_list_root.nz;
    const uint32_t n = static_cast<uint32_t>(nvoxels);
    const int nfiles = count_files();
    const uint32_t nf = static_cast<uint32_t>(nfiles);

    Sigma2_FE_map = float_vector(n);
    Sigma2_RE_map = float_vector(n);
    if (residue_requested) Residue_series = residue_storage(nf, n);
    uint32_t nc = static_cast<uint32_t>(nconditions > 0 ? nconditions : 0);
    P_map = float_matrix(nc, n);
    T_map = float_matrix(nc, n);
    S_map = float_matrix(nc, n);
    dS_map = float_matrix(nc, n);

    std::vector<file_list_entry *> entries;
    std::vector<int> dofs;
    for (file_list_entry *e = &file_list_root; e != nullptr; e = e->next) {
        entries.push_back(e);
        dofs.push_back(e->dof);
    }

    // The model's own checks (no model, another number of files) end the run
    // as its operations would at the first voxel.
    if (REM_check_model(nfiles) != 0) std::exit(1);
    for (int c = 0; c < nconditions; ++c)
        if (REM_check_condition(nfiles, c) != 0) return 1;

    // The passes read the model, which stays as it is until they end.
    const rem_model_view model = rem_current_model();
    voxel_pass_setup setup;
    setup.route = route;
    setup.model = &model;
    setup.entries = entries.data();
    setup.dofs = dofs.data();
    setup.nfiles = nfiles;
    setup.nvoxels = nvoxels;
    // Volumes of fewer than 100 voxels report every voxel.
    setup.step = nvoxels / 100 > 0 ? nvoxels / 100 : 1;
    setup.zero_estimates_tested = REM_input.reml_method == REM_REML_CONVERGED;

    int unestimable = 0, unsettled = 0, capped = 0;
    if (variance_pass(setup, &unestimable, &unsettled, &capped) != 0) return 1;
    std::printf("\r 100 percent done computing RE variance\n");
    if (unsettled > 0)
        std::printf("Warning: %d voxels were left out: their variance estimate did not settle.\n",
                    unsettled);
    if (capped > 0)
        std::printf(
            "Warning: the converged REML estimate stopped at its iteration cap (%d) in %d "
            "voxels; their estimate is the last iterate.\n",
            REM_CONVERGED_ITERATION_CAP, capped);

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

    if (statistics_pass(setup, residue_requested, nconditions, dof) != 0) return 1;

    std::printf("\r 100 percent done computing RE variance\n");
    std::printf("\nResults output to files\n  average.bfloat (average + stdev)\n");
    static char condition[DRIVER_NAME_LENGTH];
    for (int c = 0; c < nconditions; ++c) {
        if (REM_get_condition_string(c, condition) != 0) return 1;
        std::printf("  P-%s.bfloat, T-%s.bfloat, & S-%s.bfloat\n", condition, condition, condition);
    }
    return 0;
}
