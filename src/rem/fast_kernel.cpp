// The fast kernel: the same REML estimate and final fit as the reference
// kernel, bit for bit, by exact shortcuts and vector instructions.
//
// The reference arithmetic multiplies full n x n matrices although the
// covariance S^2 + sigma2.I and its inverse W are diagonal; here the products
// with a diagonal matrix keep only their one non-zero term, and R.R skips the
// terms whose factors are zero.  Neither changes a single bit as long as every
// value is finite:
//
//  - every reference sum is a float that starts at +0.0f and receives one term at
//    a time.  Such a sum is never -0 (in round-to-nearest x + y is -0 only when
//    both are -0), so a term that is +0 or -0 leaves it unchanged: leaving
//    such terms out is exact.  A product with a zero factor is such a term
//    unless the other factor is infinite or not a number.
//  - a sum with a single non-zero term p is 0.0f + p, which is p except that
//    -0 becomes +0; that is what the code below writes.
//  - the float64 LU inversion of a diagonal matrix with finite, non-zero
//    diagonal d (and zeros elsewhere) never pivots, and its result has
//    1.0 / d on the diagonal and zeros (of either sign) elsewhere; rounded to
//    float that is (float)(1.0 / (double)d).  The sign of those zeros never
//    matters, because they only ever enter sums as factors of finite terms.
//
// R is kept transposed: R.y and (R.R).y are then sums of scaled rows, formed
// for all elements at once by the vector kernels while each element still
// receives its terms one at a time in the reference order.
//
// Before a shortcut is used its conditions are checked (finite design, error
// values, squares, variance, diagonal and weights; a finite R).  When one does
// not hold, the voxel is handed whole to the reference kernel on the same
// workspace, which gives the defined result; such voxels are rare (values
// that are not finite, a zero variance, ...), and are counted.
//
// The fast kernel only reads the model; everything it writes lives in the
// workspace, which belongs to one thread.  It allocates nothing per voxel:
// the small float64 inversions (the normal matrix, the F test's L.N.L') run
// the support library's inversion on the workspace's scratch.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fast_internal.h"
#include "rem.h"
#include "util.h"
#include "weighting.h"
#include "workspace.h"

namespace {

// y'.t, summed in float in index order.
float dot(int n, const float *y, const float *t) {
    float s = 0.0f;
    for (int i = 0; i < n; ++i) s += y[i] * t[i];
    return s;
}

// ---------------------------------------------------------------------------
// The fast route.

// Whether the fast route may start on a voxel: a finite design, at least one
// file and one basis function, finite error values with finite squares,
// which are stored as the diagonal of S^2.
bool fast_route_applies(rem_workspace *ws, const float *error) {
    const int n = ws->n;
    if (!ws->design_finite || n < 1 || ws->k < 1) return false;
    for (int i = 0; i < n; ++i) {
        if (!std::isfinite(error[i])) return false;
        const float s2 = error[i] * error[i];
        if (!std::isfinite(s2)) return false;
        ws->fv2[i] = s2;
    }
    return true;
}

// Weights W = diag(w) from the diagonal of S^2 + sigma2.I; false when the
// shortcut does not apply (the inverse would not be a finite diagonal).
bool diagonal_weights(rem_workspace *ws, float sigma2) {
    if (!std::isfinite(sigma2)) return false;  // sigma2 * 0 off the diagonal
    for (int i = 0; i < ws->n; ++i) {
        const float d = ws->fv2[i] + sigma2 * 1.0f;
        if (d == 0.0f || !std::isfinite(d)) return false;
        const float w = static_cast<float>(1.0 / static_cast<double>(d));
        if (!std::isfinite(w)) return false;
        ws->w[i] = w;
    }
    return true;
}

// The residue step for W = diag(w) with a finite design: X'.W, W.X, the
// normal matrix, its pseudo-inverse and the estimator; with `full` also R,
// kept transposed (Rt[j][i] = R[i][j]), with the non-zero spans of its rows.
// Column j of the hat matrix, hat[i][j] = sum over a of X[i][a].E[a][j], is
// formed for all i at once and not kept; the off-diagonal R[i][j] is then
// 0 - (0.0f + w[i].hat[i][j]) and the diagonal w[j] - (0.0f + w[j].hat[j][j]).
// False when R is not finite.
bool fast_residue(rem_workspace *ws, bool full) {
    const int n = ws->n, k = ws->k, ld = ws->ld;
    const rem_fast_kernels *kern = rem_fast_current_kernels();
    const float *w = ws->w;

    // X'.W; W.X holds the same values transposed (each element is the one
    // product X[j][a].w[j], plus 0.0f), so the normal matrix is X'.(X'.W)'.
    for (int a = 0; a < k; ++a) kern->weigh(ws->DtW + a * ld, ws->Xt + a * ld, w, ld);
    // Its elements four at a time: four independent float sums over l.
    for (int p0 = 0; p0 < k * k; p0 += 4) {
        const float *x[4], *d[4];
        for (int q = 0; q < 4; ++q) {
            const int p = p0 + q < k * k ? p0 + q : p0;
            x[q] = ws->Xt + (p / k) * ld;
            d[q] = ws->DtW + (p % k) * ld;
        }
        float s0 = 0.0f, s1 = 0.0f, s2 = 0.0f, s3 = 0.0f;
        for (int l = 0; l < n; ++l) {
            s0 += x[0][l] * d[0][l];
            s1 += x[1][l] * d[1][l];
            s2 += x[2][l] * d[2][l];
            s3 += x[3][l] * d[3][l];
        }
        const float sums[4] = {s0, s1, s2, s3};
        for (int q = 0; q < 4 && p0 + q < k * k; ++q) ws->N[p0 + q] = sums[q];
    }
    rem_workspace_pseudo_inverse(ws, ws->N_rows, ws->fit.normal_inverse);
    for (int a = 0; a < k; ++a) {
        float *out = ws->E + a * ld;
        std::memset(out, 0, sizeof(float) * static_cast<size_t>(ld));
        for (int m = 0; m < k; ++m)
            kern->axpy(out, ws->fit.normal_inverse[a][m], ws->DtW + m * ld, ld);
    }
    if (!full) return true;

    float *coef = ws->coef;
    for (int j = 0; j < n; ++j) {
        for (int a = 0; a < k; ++a) coef[a] = ws->E[a * ld + j];
        float *rt = ws->Rt + static_cast<long>(j) * ld;
        int first, last;
        if (!kern->residue_column(rt, coef, k, ws->Xt, ld, w, ld, &first, &last)) return false;
        // hat[j][j], as the lane j above formed it.
        float hjj = 0.0f;
        for (int a = 0; a < k; ++a) hjj += coef[a] * ws->Xt[a * ld + j];
        const float diagonal = w[j] - (0.0f + w[j] * hjj);
        if (!std::isfinite(diagonal)) return false;
        rt[j] = diagonal;
        if (diagonal != 0.0f) {
            if (first < 0 || j < first) first = j;
            if (j > last) last = j;
        }
        ws->first[j] = first;
        ws->last[j] = last;
        if (first < 0) {
            ws->start[j] = REM_FAST_EMPTY_START;
            ws->stop[j] = 0;
        } else {
            ws->start[j] = first / REM_FAST_BLOCK * REM_FAST_BLOCK;
            ws->stop[j] = (last + REM_FAST_BLOCK) / REM_FAST_BLOCK * REM_FAST_BLOCK;
        }
    }
    return true;
}

// t = M.y for the n x n matrix M given transposed (Mt[j][i] = M[i][j]): every
// t[i] is the float sum over j in order of M[i][j].y[j], so the rows of Mt
// are added, scaled by y[j], one after the other, all i at once.
void transposed_times(rem_workspace *ws, const float *Mt, const float *y, float *t) {
    const rem_fast_kernels *kern = rem_fast_current_kernels();
    std::memset(t, 0, sizeof(float) * static_cast<size_t>(ws->ld));
    for (int j = 0; j < ws->n; ++j) kern->axpy(t, y[j], Mt + static_cast<long>(j) * ws->ld, ws->ld);
}

// t = (R.R).y with every element of R.R formed exactly.  (R.R)' = R'.R', so
// row j of (R.R)' is the sum over l of Rt[j][l] times row l of Rt, the terms
// added in the order of l (the products are those of R[i][l].R[l][j]),
// leaving out those with Rt[j][l] = 0 and the columns where row l is 0.
// Each finished row j is added into t scaled by y[j], as above; where y[j]
// is finite, the zeros of the row need not be added.
void residue_squared_times(rem_workspace *ws, const float *y, bool y_finite, float *t) {
    const int n = ws->n, ld = ws->ld;
    const rem_fast_kernels *kern = rem_fast_current_kernels();
    float *rr = ws->row;
    std::memset(t, 0, sizeof(float) * static_cast<size_t>(ld));
    for (int j = 0; j < n; ++j) {
        const float *rt = ws->Rt + static_cast<long>(j) * ld;
        const int l0 = ws->first[j];
        const int l1 = ws->last[j] + 1;  // an empty row gives no terms
        if (y_finite && std::isfinite(y[j])) {
            kern->rr_row(nullptr, t, y[j], ws->Rt, ld, rt, l0, l1, ws->start, ws->stop);
        } else {
            std::memset(rr, 0, sizeof(float) * static_cast<size_t>(ld));
            kern->rr_row(rr, nullptr, 0.0f, ws->Rt, ld, rt, l0, l1, ws->start, ws->stop);
            kern->axpy(t, y[j], rr, ld);
        }
    }
}

// The REML estimate by the fast route: REM_VOXEL_DONE with the estimate,
// REM_VOXEL_UNSETTLED, or kHandOn when a shortcut's conditions fail on the
// way (the caller then hands the whole voxel to the reference kernel).  The
// error values are positive here.
const int kHandOn = 100;

int fast_reml(rem_workspace *ws, const float *effect, const float *error, float *result) {
    const int n = ws->n, k = ws->k;
    if (!fast_route_applies(ws, error)) return kHandOn;

    bool y_finite = true;
    for (int i = 0; i < n; ++i) y_finite = y_finite && std::isfinite(effect[i]);

    // Unit weights first: the inverse of the identity is the identity.
    for (int i = 0; i < n; ++i) ws->w[i] = 1.0f;
    if (!fast_residue(ws, true)) return kHandOn;
    transposed_times(ws, ws->Rt, effect, ws->t);
    const float q = dot(n, effect, ws->t);
    float sigma2 = q / static_cast<float>(n - k);

    float sigma2_new = 0.0f;
    float change = std::fabs(1.0f - sigma2_new / sigma2);
    rem_cycle_detector cycle(sigma2);
    while (change > 0.05f) {
        if (!diagonal_weights(ws, sigma2)) return kHandOn;
        if (!fast_residue(ws, true)) return kHandOn;
        // Trace of S^2.R: its diagonal is s_i^2 . R[i][i].
        float trace = 0.0f;
        for (int i = 0; i < n; ++i) trace += ws->fv2[i] * ws->Rt[static_cast<long>(i) * ws->ld + i];
        const float a = (trace + static_cast<float>(k)) * sigma2;
        residue_squared_times(ws, effect, y_finite, ws->t);
        float b = dot(n, effect, ws->t);
        b = (sigma2 * sigma2) * b;
        sigma2_new = (a + b) / static_cast<float>(n);
        change = std::fabs(1.0f - sigma2_new / sigma2);
        sigma2 = sigma2_new;
        if (change > 0.05f && cycle.repeats(sigma2)) return REM_VOXEL_UNSETTLED;
    }
    *result = sigma2_new;
    return REM_VOXEL_DONE;
}

// The weighting of the final fit by the fast route; false when a shortcut's
// conditions do not hold.
bool fast_fit_weights(rem_workspace *ws, float sigma2_re, const float *error) {
    return fast_route_applies(ws, error) && diagonal_weights(ws, sigma2_re);
}

// First pass: the estimate by the fast route where its shortcuts hold, else
// by the reference kernel on this workspace.
int fast_estimate(rem_workspace *ws, const float *effect, const float *error, const int *dof,
                  float *sigma2_fe, float *sigma2_re) {
    if (rem_fixed_effects_variance(ws->n, error, dof, sigma2_fe, sigma2_re) != 0)
        return REM_VOXEL_UNUSABLE;
    float re = 0.0f;
    const int status = fast_reml(ws, effect, error, &re);
    if (status == REM_VOXEL_DONE) {
        *sigma2_re = re;
        return REM_VOXEL_DONE;
    }
    if (status == REM_VOXEL_UNSETTLED) {
        *sigma2_fe = 0.0f;
        *sigma2_re = 0.0f;
        return REM_VOXEL_UNSETTLED;
    }
    ++ws->reference_count;
    return rem_reference_estimate(ws, effect, error, dof, sigma2_fe, sigma2_re);
}

}  // namespace

// Second pass: the fit, likewise.
int rem_fast_fit(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
                 float *fitted, float *event_sum) {
    const int n = ws->n, k = ws->k;
    rem_fit_matrices &f = ws->fit;
    if (rem_zero_error_fit(n, k, error, fitted, event_sum, f.beta)) {
        for (int j = 0; j < k; ++j)
            for (int jj = 0; jj < k; ++jj) f.normal_inverse[j][jj] = 0.0f;
        return REM_VOXEL_DONE;
    }
    if (!fast_fit_weights(ws, sigma2_re, error)) {
        ++ws->reference_count;
        return rem_reference_fit(ws, sigma2_re, effect, error, fitted, event_sum);
    }
    fast_residue(ws, false);
    for (int j = 0; j < k; ++j) {
        float s = 0.0f;
        for (int i = 0; i < n; ++i) s += ws->E[j * ws->ld + i] * effect[i];
        f.beta[j] = s;
    }
    const float *X = ws->X;
    rem_fitted_values(
        n, k, [X, k](int i, int j) { return X[i * k + j]; }, f.beta, fitted, event_sum);
    return REM_VOXEL_DONE;
}

const rem_kernel rem_fast_kernel = {"fast", fast_estimate, rem_fast_fit, rem_kernel_test, nullptr};
