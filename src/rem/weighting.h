// Steps shared by the REML estimate and the final fit: the check of the
// model against the data, the diagonal of per-file error values and the
// weighting (S^2 + sigma2.I)^-1.  Internal to the model module.
#ifndef FMRI_REM_WEIGHTING_H
#define FMRI_REM_WEIGHTING_H

// 0 when a model is ready for n files; 1 after its message when none was
// read.  A number of files other than the model's ends the process (exit 1).
int rem_check_model(int n);

// fixed_variance = diag(error), fixed_variance_squared = its square (full
// n x n product).
void rem_set_fixed_variance(int n, const float *error);

// v_inverse = fixed_variance_squared + sigma2 * identity, element by element,
// then inverted in place; the inversion's result is not used.
void rem_set_weighting(int n, float sigma2);

#endif
