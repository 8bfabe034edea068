// The reference kernel: the restricted maximum likelihood estimate of one
// voxel's random-effects variance and the final weighted least-squares fit,
// in the model's own arithmetic on full row-pointer matrices, on a
// workspace.  The model's operations REMInternal_compute_residue_matrix,
// REM_REML_iterate and REM_fit_final are this kernel on REM's own matrices.
//
// All model numbers are float32 and every running sum is a float variable that
// receives its terms one at a time, in index order: these roundings define the
// program's results.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "rem.h"
#include "util.h"
#include "weighting.h"
#include "workspace.h"

namespace {

// t = A.y, each element summed in float over j in order.
void matrix_times_vector(int n, float **A, const float *y, float *t) {
    for (int i = 0; i < n; ++i) {
        float s = 0.0f;
        for (int j = 0; j < n; ++j) s += A[i][j] * y[j];
        t[i] = s;
    }
}

// y'.t, summed in float in index order.
float dot(int n, const float *y, const float *t) {
    float s = 0.0f;
    for (int i = 0; i < n; ++i) s += y[i] * t[i];
    return s;
}

// fixed_variance = diag(s), fixed_variance_squared = its square by a full
// product.
void set_fixed_variance(rem_workspace *ws, const float *error) {
    const int n = ws->n;
    rem_fit_matrices &f = ws->fit;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) f.fixed_variance[i][j] = (i == j) ? error[i] : 0.0f;
    Matrix_Product(f.fixed_variance_squared, n, n, f.fixed_variance, 0, n, f.fixed_variance, 0);
}

// v_inverse = (S^2 + sigma2.I)^-1, element by element before the inversion;
// a singular matrix is left as the inversion leaves it.
void set_weighting(rem_workspace *ws, float sigma2) {
    const int n = ws->n;
    rem_fit_matrices &f = ws->fit;
    float *const *I = ws->model->identity;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            f.v_inverse[i][j] = f.fixed_variance_squared[i][j] + sigma2 * I[i][j];
    rem_workspace_invert(ws, n, f.v_inverse);
}

}  // namespace

// With W = v_inverse: R = W - W.X.(X'.W.X)^-1.X'.W and its square, together
// with the intermediate products that the final fit reads (estimator,
// normal_inverse).
void rem_reference_residue_matrix(rem_workspace *ws) {
    const int n = ws->n;
    const int k = ws->k;
    rem_fit_matrices &f = ws->fit;
    float **W = f.v_inverse;
    float **X = const_cast<float **>(ws->model->design);  // read only

    Matrix_Product(f.design_t_v_inverse, k, n, X, 1, n, W, 0);              // X'.W
    Matrix_Product(f.v_inverse_design, n, k, W, 0, n, X, 0);                // W.X
    Matrix_Product(f.normal_matrix, k, k, X, 1, n, f.v_inverse_design, 0);  // X'.W.X
    rem_workspace_pseudo_inverse(ws, f.normal_matrix, f.normal_inverse);
    Matrix_Product(f.estimator, k, n, f.normal_inverse, 0, k, f.design_t_v_inverse, 0);
    Matrix_Product(f.hat, n, n, X, 0, k, f.estimator, 0);
    Matrix_Product(f.residue_forming, n, n, W, 0, n, f.hat, 0);  // W.hat
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) f.residue_forming[i][j] = W[i][j] - f.residue_forming[i][j];
    Matrix_Product(f.residue_forming_squared, n, n, f.residue_forming, 0, n, f.residue_forming, 0);
}

int rem_reference_estimate(rem_workspace *ws, const float *effect, const float *error,
                           const int *dof, float *sigma2_fe, float *sigma2_re) {
    const int n = ws->n;
    const int k = ws->k;
    rem_fit_matrices &f = ws->fit;
    if (rem_fixed_effects_variance(n, error, dof, sigma2_fe, sigma2_re) != 0)
        return REM_VOXEL_UNUSABLE;

    float *t = ws->t;
    set_fixed_variance(ws, error);

    // Start from unit weights: the ordinary least-squares residual variance.
    float *const *I = ws->model->identity;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) f.v_inverse[i][j] = I[i][j];
    rem_workspace_invert(ws, n, f.v_inverse);
    rem_reference_residue_matrix(ws);
    matrix_times_vector(n, f.residue_forming, effect, t);
    const float q = dot(n, effect, t);
    float sigma2 = q / static_cast<float>(n - k);

    // Expectation-maximisation steps until one changes the estimate by at
    // most 5 %.  A NaN change (0/0) ends the loop; an estimate that repeats
    // would keep it going for ever: the voxel is then left out.
    float sigma2_new = 0.0f;
    float change = std::fabs(1.0f - sigma2_new / sigma2);
    rem_cycle_detector cycle(sigma2);
    while (change > 0.05f) {
        set_weighting(ws, sigma2);
        rem_reference_residue_matrix(ws);

        Matrix_Product(f.work, n, n, f.fixed_variance_squared, 0, n, f.residue_forming, 0);
        const float a = (Trace_of_Matrix(n, f.work) + static_cast<float>(k)) * sigma2;

        matrix_times_vector(n, f.residue_forming_squared, effect, t);
        float b = dot(n, effect, t);
        b = (sigma2 * sigma2) * b;

        sigma2_new = (a + b) / static_cast<float>(n);
        change = std::fabs(1.0f - sigma2_new / sigma2);
        sigma2 = sigma2_new;
        if (change > 0.05f && cycle.repeats(sigma2)) {
            *sigma2_fe = 0.0f;
            *sigma2_re = 0.0f;
            return REM_VOXEL_UNSETTLED;
        }
    }

    *sigma2_re = sigma2_new;
    return REM_VOXEL_DONE;
}

int rem_reference_fit(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
                      float *fitted, float *event_sum) {
    const int n = ws->n;
    const int k = ws->k;
    rem_fit_matrices &f = ws->fit;

    // A file without an error value cannot be weighted: an all-zero fit.
    if (rem_zero_error_fit(n, k, error, fitted, event_sum, f.beta)) {
        for (int j = 0; j < k; ++j)
            for (int jj = 0; jj < k; ++jj) f.normal_inverse[j][jj] = 0.0f;
        return REM_VOXEL_DONE;
    }
    // Beyond the classic capacity there are no n x n matrices.
    if (ws->lean) return rem_lean_fit(ws, sigma2_re, effect, error, fitted, event_sum);

    set_fixed_variance(ws, error);
    set_weighting(ws, sigma2_re);
    rem_reference_residue_matrix(ws);

    for (int j = 0; j < k; ++j) {
        float s = 0.0f;
        for (int i = 0; i < n; ++i) s += f.estimator[j][i] * effect[i];
        f.beta[j] = s;
    }

    float *const *X = ws->model->design;
    rem_fitted_values(
        n, k, [X](int i, int j) { return X[i][j]; }, f.beta, fitted, event_sum);
    return REM_VOXEL_DONE;
}

const rem_kernel rem_reference_kernel = {"reference", rem_reference_estimate, rem_reference_fit,
                                         rem_kernel_test, nullptr};

// ---- the model's operations on REM itself ----

// The check both the estimate and the final fit start with.
int REM_check_model(int n) {
    if (!REM.initialized) {
        printf("Error in REM_fit_data: first initialize the REM\n");
        return 1;
    }
    if (n != REM.nfiles) {
        printf(
            "Error: the number of data time points (%d) does not match the number in the REM "
            "(%d).\n",
            n, REM.nfiles);
        exit(1);
    }
    return 0;
}

int rem_fixed_effects_variance(int n, const float *error, const int *dof, float *sigma2_fe,
                               float *sigma2_re) {
    // Every error value must be positive; NaN fails the test as well.
    int unusable = 0;
    for (int i = 0; i < n; ++i) {
        if (!(error[i] > 0.0f)) unusable = 1;
    }
    if (unusable) {
        *sigma2_fe = 0.0f;
        *sigma2_re = 0.0f;
        return -1;
    }

    // Fixed-effects variance: s_i^2 weighted by the files' degrees of
    // freedom, whose sum is formed in 64 bits so that it cannot overflow.
    int64_t total_dof = 0;
    for (int i = 0; i < n; ++i) total_dof += dof[i];
    float fe = 0.0f;
    for (int i = 0; i < n; ++i) {
        const float weight = static_cast<float>(dof[i]) / static_cast<float>(total_dof);
        fe += weight * error[i] * error[i];
    }
    *sigma2_fe = fe;
    return 0;
}

void REMInternal_compute_residue_matrix(void) {
    rem_model_view model = rem_current_model();
    rem_workspace *ws = rem_workspace_on_global_model(&model);
    rem_reference_residue_matrix(ws);
    rem_workspace_free(ws);
}

int REM_REML_iterate(int n, const float *effect, const float *error, const int *dof,
                     float *sigma2_fe, float *sigma2_re) {
    if (REM_check_model(n) != 0) return 1;
    rem_model_view model = rem_current_model();
    rem_workspace *ws = rem_workspace_on_global_model(&model);
    const int result = rem_reference_estimate(ws, effect, error, dof, sigma2_fe, sigma2_re);
    rem_workspace_free(ws);
    return result == REM_VOXEL_DONE ? 0 : -1;
}

int REM_fit_final(float sigma2_re, int n, const float *effect, const float *error, float *fitted,
                  float *event_sum) {
    if (REM_check_model(n) != 0) return 1;
    rem_model_view model = rem_current_model();
    rem_workspace *ws = rem_workspace_on_global_model(&model);
    rem_reference_fit(ws, sigma2_re, effect, error, fitted, event_sum);
    rem_workspace_free(ws);
    return 0;
}
