// The F test of a condition's contrast rows on a voxel's final fit, shared by
// both kernels, and the model's REM_calculate_F, which is that test on REM's
// own fit.
//
// All model numbers are float32 and every running sum is a float variable that
// receives its terms one at a time, in index order: these roundings define the
// program's results.
#include <cmath>
#include <cstdio>

#include "rem.h"
#include "util.h"
#include "weighting.h"
#include "workspace.h"

// (4 ln 2)^(3/2) / (2 pi)^2, rounded: the Euler-characteristic density
// constant of a three-dimensional t field.
static const float euler_characteristic_constant = 0.1169f;

// From F: t, the effect's error and the two p values (see weighting.h).
int rem_f_test(float F, int m, int dof, int resels, const float *effect_size, float *t_value,
               float *p_raw, float *p_corrected, float *effect_error, double *domain_a,
               double *domain_b) {
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
        const double a = 0.5 * static_cast<double>(nu), b = 0.5 * static_cast<double>(m);
        if (ibeta_domain_error(a, b)) {
            *domain_a = a;
            *domain_b = b;
            return 1;
        }
        const float p0 = static_cast<float>(ibeta(a, b, x));
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
    return 0;
}

int REM_check_condition(int n, int condition) {
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

int rem_kernel_test(rem_workspace *ws, int condition, int resels, int dof,
                    rem_test_result *result) {
    const rem_model_view *model = ws->model;
    const int k = ws->k;
    const int m = model->condition_nrows[condition];
    float **L = model->condition_contrast[condition];
    float *const *N = ws->fit.normal_inverse;
    rem_workspace_reserve_test(ws, m);
    float *contrast = ws->contrast;
    float **M = ws->M;

    // Contrast values; the effect size is the first one of largest magnitude.
    result->effect_size = rem_contrast_values(m, k, L, ws->fit.beta, contrast);

    // M = L.N.L', inverted in place; a singular M is used as left.
    rem_contrast_covariance(
        m, k, L, [N](int i, int j) { return N[i][j]; },
        [M](int r, int s, float value) { M[r][s] = value; });
    rem_workspace_invert(ws, m, M);

    const float F = rem_contrast_F(m, contrast, [M](int r, int s) { return M[r][s]; });
    if (rem_f_test(F, m, dof, resels, &result->effect_size, &result->t_value, &result->p_raw,
                   &result->p_corrected, &result->effect_error, &ws->domain_a, &ws->domain_b) != 0)
        return REM_VOXEL_IBETA_DOMAIN_ERROR;
    return REM_VOXEL_DONE;
}

int REM_calculate_F(int n, int resels, int condition, int dof, float *t_value, float *p_raw,
                    float *p_corrected, float *effect_size, float *effect_error) {
    if (REM_check_condition(n, condition) != 0) return 1;
    rem_model_view model = rem_current_model();
    rem_workspace *ws = rem_workspace_on_global_model(&model);
    rem_test_result r;
    const int status = rem_kernel_test(ws, condition, resels, dof, &r);
    double a = ws->domain_a, b = ws->domain_b;
    rem_workspace_free(ws);
    if (status == REM_VOXEL_IBETA_DOMAIN_ERROR) ibeta_domain_exit(a, b);
    *t_value = r.t_value;
    *p_raw = r.p_raw;
    *p_corrected = r.p_corrected;
    *effect_size = r.effect_size;
    *effect_error = r.effect_error;
    return 0;
}

int REM_get_DOF(void) {
    return REM.nfiles - REM.nbasis;
}
