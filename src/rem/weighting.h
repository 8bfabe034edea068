// Steps that every route to a voxel's estimate, fit and test shares: the
// check of the model against the data, the fixed-effects variance, the
// diagonal of per-file error values, the weighting (S^2 + sigma2.I)^-1 and the
// p values of an F statistic.  Internal to the model module.
#ifndef FMRI_REM_WEIGHTING_H
#define FMRI_REM_WEIGHTING_H

// 0 when a model is ready for n files; 1 after its message when none was
// read.  A number of files other than the model's ends the process (exit 1).
int rem_check_model(int n);

// -1 with both variances 0 when an error value is not positive (0, negative
// or NaN); else 0 with sigma2_fe = the error values squared, weighted by the
// files' degrees of freedom (sigma2_re is not touched).
int rem_fixed_effects_variance(int n, const float *error, const int *dof, float *sigma2_fe,
                               float *sigma2_re);

// fixed_variance = diag(error), fixed_variance_squared = its square (full
// n x n product).
void rem_set_fixed_variance(int n, const float *error);

// v_inverse = fixed_variance_squared + sigma2 * identity, element by element,
// then inverted in place; the inversion's result is not used.
void rem_set_weighting(int n, float sigma2);

// From F = Q/m of a contrast of m rows and dof degrees of freedom: t =
// sqrt(F) with the sign of the effect size, effect_error = effect size / t,
// p_raw from the upper tail of F(m, dof) (doubled and folded for m > 1) and
// p_corrected = resels * the Euler-characteristic density at t, clamped to
// [0, 1]; both p values at least exp(-100).  A zero effect size gives t 0 and
// p values 1.
void rem_f_test(float F, int m, int dof, int resels, const float *effect_size, float *t_value,
                float *p_raw, float *p_corrected, float *effect_error);

#endif
