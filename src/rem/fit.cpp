// Final weighted least-squares fit of one voxel with its random-effects
// variance held fixed, and the F test of a condition's contrast rows.
//
// All model numbers are float32 and every running sum is a float variable that
// receives its terms one at a time, in index order: these roundings define the
// program's results.
#include <cmath>
#include <cstdio>

#include "rem.h"
#include "util.h"
#include "weighting.h"

// (4 ln 2)^(3/2) / (2 pi)^2, rounded: the Euler-characteristic density
// constant of a three-dimensional t field.
static const float euler_characteristic_constant = 0.1169f;

// From F: t, the effect's error and the two p values (see weighting.h).
void rem_f_test(float F, int m, int dof, int resels, const float *effect_size, float *t_value,
                float *p_raw, float *p_corrected, float *effect_error) {
    float t = static_cast<float>(std::sqrt(static_cast<double>(F)));
    *effect_error = *effect_size / t;

    // Expected Euler characteristic of a 3-D t field above t = sqrt(F).
    const float nu = static_cast<float>(dof);
    const float numerator = euler_characteristic_constant * ((nu - 1) / nu * F - 1);
    const float base = 1 + F / nu;
    const float exponent = (nu - 1) / 2;
    const float rho = static_cast<float>(
        numerator / std::pow(static_cast<double>(base), static_cast<double>(exponent)));
    float corrected = resels * rho;

    if (*effect_size < 0.0f) t = -t;

    float raw;
    if (*effect_size == 0.0f) {
        t = 0.0f;
        raw = 1.0f;
        corrected = 1.0f;
    } else {
        // Upper tail of the F distribution with m and nu degrees of freedom.
        // x is formed in double from the float nu and F, so that a tiny F
        // still leaves x below 1.
        const double x =
            static_cast<double>(nu) /
            (static_cast<double>(m) * static_cast<double>(F) + static_cast<double>(nu));
        const float p0 = static_cast<float>(
            ibeta(0.5 * static_cast<double>(nu), 0.5 * static_cast<double>(m), x));
        if (m == 1) {
            raw = p0;
        } else {
            // Several rows: doubled, and folded back into [0, 1].
            raw = 2 * p0;
            if (raw == 2.0f) raw = 1.0f;
            if (raw > 1.0f) raw = 2 - raw;
        }
    }

    if (corrected > 1.0f || corrected < 0.0f) corrected = 1.0f;

    // Never 0, so that -log10 p stays finite.
    const float p_min = static_cast<float>(std::exp(-100.0));
    if (raw < p_min) raw = p_min;
    if (corrected < p_min) corrected = p_min;

    *t_value = t;
    *p_raw = raw;
    *p_corrected = corrected;
}

int REM_fit_final(float sigma2_re, int n, const float *effect, const float *error, float *fitted,
                  float *event_sum) {
    if (rem_check_model(n) != 0) return 1;
    const int k = REM.nbasis;

    // A file without an error value cannot be weighted: an all-zero fit.
    if (rem_zero_error_fit(n, k, error, fitted, event_sum, REM.beta)) {
        for (int j = 0; j < k; ++j) {
            for (int jj = 0; jj < k; ++jj) REM.normal_inverse[j][jj] = 0.0f;
        }
        return 0;
    }

    rem_set_fixed_variance(n, error);
    rem_set_weighting(n, sigma2_re);
    REMInternal_compute_residue_matrix();

    for (int j = 0; j < k; ++j) {
        float s = 0.0f;
        for (int i = 0; i < n; ++i) s += REM.estimator[j][i] * effect[i];
        REM.beta[j] = s;
    }

    rem_fitted_values(
        n, k, [](int i, int j) { return REM.design[i][j]; }, REM.beta, fitted, event_sum);
    return 0;
}

int rem_check_condition(int n, int condition) {
    if (condition < 0 || condition >= REM.nconditions) {
        printf("Error: the specified condition (%d) is out of range (0-%d)\n", condition,
               REM.nconditions);
        return 1;
    }
    if (n != REM.nfiles) {
        printf("Error: # time points (%d) != # used in REM fit (%d).\n", n, REM.nfiles);
        return 1;
    }
    return 0;
}

int REM_calculate_F(int n, int resels, int condition, int dof, float *t_value, float *p_raw,
                    float *p_corrected, float *effect_size, float *effect_error) {
    if (rem_check_condition(n, condition) != 0) return 1;

    const int k = REM.nbasis;
    const int m = REM.condition_nrows[condition];
    int **L = REM.condition_contrast[condition];
    float **N = REM.normal_inverse;
    float *contrast = float_vector(static_cast<uint32_t>(m));
    float **M = float_matrix(static_cast<uint32_t>(m), static_cast<uint32_t>(m));

    // Contrast values; the effect size is the first one of largest magnitude.
    *effect_size = rem_contrast_values(m, k, L, REM.beta, contrast);

    // M = L.N.L', inverted in place; a singular M is used as left.
    rem_contrast_covariance(
        m, k, L, [N](int i, int j) { return N[i][j]; },
        [M](int r, int s, float value) { M[r][s] = value; });
    int failed_column = -1;
    (void)rInvertSquareMatrix(m, M, &failed_column);

    const float F = rem_contrast_F(m, contrast, [M](int r, int s) { return M[r][s]; });
    free_float_matrix(M, static_cast<uint32_t>(m));
    free_float_vector(contrast);

    rem_f_test(F, m, dof, resels, effect_size, t_value, p_raw, p_corrected, effect_error);
    return 0;
}

int REM_get_DOF(void) {
    return REM.nfiles - REM.nbasis;
}
