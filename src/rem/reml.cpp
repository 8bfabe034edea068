// Restricted maximum likelihood estimate of the random-effects variance of
// one voxel, and the residue-forming matrices that the estimate and the final
// fit share.
//
// All model numbers are float32 and every running sum is a float variable that
// receives its terms one at a time, in index order: these roundings define the
// program's results.
#include "rem.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "util.h"
#include "weighting.h"

// With W = v_inverse: R = W - W.X.(X'.W.X)^-1.X'.W and its square, together
// with the intermediate products that the final fit reads (estimator,
// normal_inverse).
void REMInternal_compute_residue_matrix(void) {
    const int n = REM.nfiles;
    const int k = REM.nbasis;
    float **W = REM.v_inverse;
    float **X = REM.design;

    Matrix_Product(REM.design_t_v_inverse, k, n, X, 1, n, W, 0);                // X'.W
    Matrix_Product(REM.v_inverse_design, n, k, W, 0, n, X, 0);                  // W.X
    Matrix_Product(REM.normal_matrix, k, k, X, 1, n, REM.v_inverse_design, 0);  // X'.W.X
    // (N'.N)^-1.N' rather than N^-1: kept as is, it decides the rounding.
    Matrix_PseudoInverse(REM.normal_matrix, k, k, REM.normal_inverse);
    Matrix_Product(REM.estimator, k, n, REM.normal_inverse, 0, k, REM.design_t_v_inverse, 0);
    Matrix_Product(REM.hat, n, n, X, 0, k, REM.estimator, 0);
    Matrix_Product(REM.residue_forming, n, n, W, 0, n, REM.hat, 0);  // W.hat
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            REM.residue_forming[i][j] = W[i][j] - REM.residue_forming[i][j];
        }
    }
    Matrix_Product(REM.residue_forming_squared, n, n, REM.residue_forming, 0, n,
                   REM.residue_forming, 0);
}

// t = A.y, each element summed in float over j in order.
static void matrix_times_vector(int n, float **A, const float *y, float *t) {
    for (int i = 0; i < n; ++i) {
        float s = 0.0f;
        for (int j = 0; j < n; ++j) {
            s += A[i][j] * y[j];
        }
        t[i] = s;
    }
}

// y'.t, summed in float in index order.
static float dot(int n, const float *y, const float *t) {
    float s = 0.0f;
    for (int i = 0; i < n; ++i) {
        s += y[i] * t[i];
    }
    return s;
}

// The check both the estimate and the final fit start with.
int rem_check_model(int n) {
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

// fixed_variance = diag(s), fixed_variance_squared = its square by a full
// product.  Shared with the final fit.
void rem_set_fixed_variance(int n, const float *error) {
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            REM.fixed_variance[i][j] = (i == j) ? error[i] : 0.0f;
        }
    }
    Matrix_Product(REM.fixed_variance_squared, n, n, REM.fixed_variance, 0, n, REM.fixed_variance,
                   0);
}

// v_inverse = (S^2 + sigma2.I)^-1, element by element before the inversion.
void rem_set_weighting(int n, float sigma2) {
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            REM.v_inverse[i][j] = REM.fixed_variance_squared[i][j] + sigma2 * REM.identity[i][j];
        }
    }
    int failed_column = -1;
    (void)rInvertSquareMatrix(n, REM.v_inverse, &failed_column);  // a singular matrix is left as is
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

    // Fixed-effects variance: s_i^2 weighted by the files' degrees of freedom.
    int total_dof = 0;
    for (int i = 0; i < n; ++i) total_dof += dof[i];
    float fe = 0.0f;
    for (int i = 0; i < n; ++i) {
        const float weight = static_cast<float>(dof[i]) / static_cast<float>(total_dof);
        fe += weight * error[i] * error[i];
    }
    *sigma2_fe = fe;
    return 0;
}

int REM_REML_iterate(int n, const float *effect, const float *error, const int *dof,
                     float *sigma2_fe, float *sigma2_re) {
    if (rem_check_model(n) != 0) return 1;

    if (rem_fixed_effects_variance(n, error, dof, sigma2_fe, sigma2_re) != 0) return -1;

    const int k = REM.nbasis;
    float *t = float_vector(static_cast<uint32_t>(n));

    rem_set_fixed_variance(n, error);

    // Start from unit weights: the ordinary least-squares residual variance.
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) REM.v_inverse[i][j] = REM.identity[i][j];
    }
    int failed_column = -1;
    (void)rInvertSquareMatrix(n, REM.v_inverse, &failed_column);
    REMInternal_compute_residue_matrix();
    matrix_times_vector(n, REM.residue_forming, effect, t);
    const float q = dot(n, effect, t);
    float sigma2 = q / static_cast<float>(n - k);

    // Expectation-maximisation steps until one changes the estimate by at
    // most 5 %.  No iteration limit; a NaN change (0/0) ends the loop.
    float sigma2_new = 0.0f;
    float change = std::fabs(1.0f - sigma2_new / sigma2);
    while (change > 0.05f) {
        rem_set_weighting(n, sigma2);
        REMInternal_compute_residue_matrix();

        Matrix_Product(REM.work, n, n, REM.fixed_variance_squared, 0, n, REM.residue_forming, 0);
        const float a = (Trace_of_Matrix(n, REM.work) + static_cast<float>(k)) * sigma2;

        matrix_times_vector(n, REM.residue_forming_squared, effect, t);
        float b = dot(n, effect, t);
        b = (sigma2 * sigma2) * b;

        sigma2_new = (a + b) / static_cast<float>(n);
        change = std::fabs(1.0f - sigma2_new / sigma2);
        sigma2 = sigma2_new;
    }

    *sigma2_re = sigma2_new;
    free_float_vector(t);
    return 0;
}
