// The final fit of a voxel that the fast route cannot take, for models with
// more files than the classic capacity, whose n x n matrices do not exist.
//
// The reference fit forms C = S.S + sigma2.I by full products, inverts it
// through float64 and multiplies full matrices.  What it gives can be told
// without forming C:
//
//  - a value that is not finite in S or sigma2 puts a not-a-number into C
//    off its diagonal (inf . 0 and NaN . 0, from S.S or sigma2.I), and one
//    in the design does the same in X'.W; the elimination then spreads it
//    through the inverse and every product after it.  The fit is not a
//    number: beta and normal_inverse are NaN, and so are the fitted values
//    and event sums that beta enters.
//  - otherwise C is diagonal with d_i = s_i^2 + sigma2 (s_i^2 may be +inf).
//    When no d_i is 0, the elimination never pivots and leaves 1.0 / d_i on
//    the diagonal and zeros elsewhere; rounded to float, w_i =
//    (float)(1.0 / (double)d_i), which is 0 for d_i = inf and inf for a
//    d_i too small for its inverse to be a float.  When some d_i is 0, the
//    elimination stops at the first zero pivot before it has changed a
//    value, and W is C itself: w_i = d_i.
//  - with W diagonal and the design finite, every element of X'.W and W.X
//    is 0.0f plus its one product x . w (the other terms are zeros that
//    leave a sum unchanged), and the products after them are formed here
//    term by term in the reference order, inf and NaN terms included.  So
//    the values are the reference fit's, with the n x n products left out.
//
// Storage: the fast kernel's k x n arrays of the workspace; nothing n x n.
#include <cmath>
#include <cstring>
#include <limits>

#include "rem.h"
#include "weighting.h"
#include "workspace.h"

namespace {

// The not-a-number that an invalid operation gives on common processors
// (sign bit set).
float invalid() {
    return -std::numeric_limits<float>::quiet_NaN();
}

}  // namespace

int rem_lean_fit(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
                 float *fitted, float *event_sum) {
    const int n = ws->n, k = ws->k, ld = ws->ld;
    rem_fit_matrices &f = ws->fit;
    const float *X = ws->X;
    auto design = [X, k](int i, int j) { return X[static_cast<size_t>(i) * k + j]; };

    bool defined = ws->design_finite && std::isfinite(sigma2_re);
    for (int i = 0; i < n && defined; ++i) defined = std::isfinite(error[i]);
    if (!defined) {
        for (int j = 0; j < k; ++j) {
            f.beta[j] = invalid();
            for (int jj = 0; jj < k; ++jj) f.normal_inverse[j][jj] = invalid();
        }
        rem_fitted_values(n, k, design, f.beta, fitted, event_sum);
        return REM_VOXEL_DONE;
    }

    // The diagonal of C, and W.
    bool singular = false;
    float *w = ws->w;
    for (int i = 0; i < n; ++i) {
        const float d = error[i] * error[i] + sigma2_re * 1.0f;
        w[i] = d;
        if (d == 0.0f) singular = true;
    }
    if (!singular)
        for (int i = 0; i < n; ++i) w[i] = static_cast<float>(1.0 / static_cast<double>(w[i]));

    // X'.W, the normal matrix X'.(W.X), its pseudo-inverse, the estimator
    // normal_inverse.X'.W and beta, each sum in its reference order.
    for (int a = 0; a < k; ++a)
        for (int j = 0; j < n; ++j) ws->DtW[a * ld + j] = 0.0f + ws->Xt[a * ld + j] * w[j];
    for (int a = 0; a < k; ++a) {
        for (int b = 0; b < k; ++b) {
            float sum = 0.0f;
            for (int l = 0; l < n; ++l) sum += ws->Xt[a * ld + l] * ws->DtW[b * ld + l];
            ws->N[a * k + b] = sum;
        }
    }
    rem_workspace_pseudo_inverse(ws, ws->N_rows, f.normal_inverse);
    for (int a = 0; a < k; ++a) {
        float *out = ws->E + a * ld;
        for (int j = 0; j < n; ++j) {
            float sum = 0.0f;
            for (int m = 0; m < k; ++m) sum += f.normal_inverse[a][m] * ws->DtW[m * ld + j];
            out[j] = sum;
        }
    }
    for (int a = 0; a < k; ++a) {
        float sum = 0.0f;
        for (int i = 0; i < n; ++i) sum += ws->E[a * ld + i] * effect[i];
        f.beta[a] = sum;
    }
    rem_fitted_values(n, k, design, f.beta, fitted, event_sum);
    return REM_VOXEL_DONE;
}
