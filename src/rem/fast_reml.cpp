// Fast, re-entrant per-voxel REML estimate, final fit and F test.
//
// The results are those of REM_REML_iterate, REM_fit_final and REM_calculate_F
// bit for bit.  The plain operations multiply full n x n matrices although the
// covariance S^2 + sigma2.I and its inverse W are diagonal; here the products
// with a diagonal matrix keep only their one non-zero term, and R.R skips the
// terms whose factors are zero.  Neither changes a single bit as long as every
// value is finite:
//
//  - every plain sum is a float that starts at +0.0f and receives one term at
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
// receives its terms one at a time in the plain order.
//
// Before a shortcut is used its conditions are checked (finite design, error
// values, squares, variance, diagonal and weights; a finite R).  When one does
// not hold, the voxel is handed whole to the plain operation itself
// (REM_REML_iterate or REM_fit_final), which works on the model's shared fit
// matrices: those calls are made one at a time, under a lock, and the fit's
// amplitudes and normal_inverse are then copied into the workspace for the
// F test.  Such voxels are rare (values that are not finite, a zero
// variance, ...), so the lock costs little.
//
// The fast route only reads the model's design and conditions, which the
// plain operations never write, so any number of threads can run it at once,
// each with its own workspace, and without the lock.  It allocates nothing
// per voxel: the small float64 inversions (the normal matrix, the F test's
// L.N.L') run the support library's inversion on the workspace's scratch.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "fast_internal.h"
#include "rem.h"
#include "util.h"
#include "weighting.h"

struct rem_workspace {
    int n;                  // files
    int k;                  // basis functions
    int ld;                 // padded row length of the n-column matrices
    float **design_source;  // the REM.design that X was copied from
    int design_finite;
    int general_only;    // every voxel to the plain operations
    long general_count;  // calls handed to the plain operations

    float *X;     // n x k design, rows first
    float *Xt;    // k x ld the design transposed
    float *beta;  // k
    float *NI;    // k x k normal_inverse
    float *N;     // k x k normal_matrix
    float *T;     // k x k scratch of the pseudo-inverse
    // Row pointers into N, T and NI, for Matrix_Product.
    float **N_rows, **T_rows, **NI_rows;
    float *DtW;   // k x ld X'.W
    float *E;     // k x ld estimator
    float *fv2;   // ld: diagonal of S^2
    float *w;     // ld: diagonal of W
    float *t;     // ld: a matrix times y
    float *row;   // ld: one row of R.R
    float *coef;  // k: one column of the estimator
    float *Rt;    // n x ld the residue-forming matrix R, transposed
    int *first;   // n: first non-zero column of each row of Rt
    int *last;    // n: last one
    int *start;   // n: first rounded down to a whole vector (or empty)
    int *stop;    // n: last + 1 rounded up

    int dcap;  // order that D, pivot, dwork and the row pointers can hold
    double *D;
    int *pivot;
    double *dwork;
    double **D_rows;  // rows of D for the order being inverted
    float **A_rows;   // rows of the float matrix being inverted

    // F test: contrast values and L.N.L' for up to mcap rows.
    int mcap;
    float *contrast;
    float *M;
};

namespace {

// ---------------------------------------------------------------------------
// Storage

float *aligned_floats(size_t count) {
    void *p = nullptr;
    if (count == 0) count = 1;
    if (posix_memalign(&p, 64, count * sizeof(float)) != 0 || p == nullptr)
        alloc_error("rem_workspace: not enough memory for the voxel workspace");
    std::memset(p, 0, count * sizeof(float));
    return static_cast<float *>(p);
}

template <typename T>
T *plain_array(size_t count) {
    if (count == 0) count = 1;
    void *p = std::calloc(count, sizeof(T));
    if (p == nullptr) alloc_error("rem_workspace: not enough memory for the voxel workspace");
    return static_cast<T *>(p);
}

void release(rem_workspace *ws) {
    void *blocks[] = {ws->X,    ws->Xt,     ws->beta,   ws->NI,     ws->N,      ws->T,
                      ws->DtW,  ws->E,      ws->fv2,    ws->w,      ws->t,      ws->row,
                      ws->coef, ws->Rt,     ws->start,  ws->stop,   ws->first,  ws->last,
                      ws->D,    ws->pivot,  ws->dwork,  ws->D_rows, ws->A_rows, ws->contrast,
                      ws->M,    ws->N_rows, ws->T_rows, ws->NI_rows};
    for (void *b : blocks) std::free(b);
    const int general_only = ws->general_only;
    const long general_count = ws->general_count;
    std::memset(ws, 0, sizeof(*ws));
    ws->general_only = general_only;
    ws->general_count = general_count;
}

// Sizes the workspace for the design now in REM and copies the design.
void attach_design(rem_workspace *ws) {
    release(ws);
    const int n = REM.nfiles > 0 ? REM.nfiles : 0;
    const int k = REM.nbasis > 0 ? REM.nbasis : 0;
    const size_t ld =
        static_cast<size_t>((n + REM_FAST_BLOCK - 1) / REM_FAST_BLOCK) * REM_FAST_BLOCK +
        (n == 0 ? REM_FAST_BLOCK : 0);
    const size_t nn = static_cast<size_t>(n), kk = static_cast<size_t>(k);
    ws->n = n;
    ws->k = k;
    ws->ld = static_cast<int>(ld);
    ws->design_source = REM.design;

    ws->X = aligned_floats(nn * kk);
    ws->Xt = aligned_floats(kk * ld);
    ws->design_finite = 1;
    for (int i = 0; i < n; ++i) {
        for (int a = 0; a < k; ++a) {
            const float x = REM.design[i][a];
            ws->X[i * k + a] = x;
            ws->Xt[a * ld + i] = x;
            if (!std::isfinite(x)) ws->design_finite = 0;
        }
    }
    ws->beta = aligned_floats(kk);
    ws->NI = aligned_floats(kk * kk);
    ws->N = aligned_floats(kk * kk);
    ws->T = aligned_floats(kk * kk);
    ws->N_rows = plain_array<float *>(kk);
    ws->T_rows = plain_array<float *>(kk);
    ws->NI_rows = plain_array<float *>(kk);
    for (size_t a = 0; a < kk; ++a) {
        ws->N_rows[a] = ws->N + a * kk;
        ws->T_rows[a] = ws->T + a * kk;
        ws->NI_rows[a] = ws->NI + a * kk;
    }
    ws->DtW = aligned_floats(kk * ld);
    ws->E = aligned_floats(kk * ld);
    ws->fv2 = aligned_floats(ld);
    ws->w = aligned_floats(ld);
    ws->t = aligned_floats(ld);
    ws->row = aligned_floats(ld);
    ws->coef = aligned_floats(kk);
    ws->Rt = aligned_floats(nn * ld);
    ws->first = plain_array<int>(nn);
    ws->last = plain_array<int>(nn);
    ws->start = plain_array<int>(nn);
    ws->stop = plain_array<int>(nn);
}

void ensure_double_scratch(rem_workspace *ws, int order) {
    if (order <= ws->dcap) return;
    std::free(ws->D);
    std::free(ws->pivot);
    std::free(ws->dwork);
    std::free(ws->D_rows);
    std::free(ws->A_rows);
    const size_t o = static_cast<size_t>(order);
    ws->D = plain_array<double>(o * o);
    ws->pivot = plain_array<int>(o);
    ws->dwork = plain_array<double>(o);
    ws->D_rows = plain_array<double *>(o);
    ws->A_rows = plain_array<float *>(o);
    ws->dcap = order;
}

// The checks that open REM_REML_iterate and REM_fit_final, and the
// workspace's own: it follows the design that REM holds now.
int check_model(rem_workspace *ws, int n) {
    if (rem_check_model(n) != 0) return 1;
    if (ws->design_source != REM.design || ws->n != REM.nfiles || ws->k != REM.nbasis)
        attach_design(ws);
    return 0;
}

// ---------------------------------------------------------------------------
// In-place inversion of a contiguous float matrix (element [i][j] at
// i*lda + j) through float64, as rInvertSquareMatrix does it, on the
// workspace's scratch: no allocation per voxel.  The result is not used.
void invert_float(rem_workspace *ws, int n, float *A, int lda) {
    ensure_double_scratch(ws, n);
    for (int i = 0; i < n; ++i) {
        ws->D_rows[i] = ws->D + static_cast<size_t>(i) * static_cast<size_t>(n);
        ws->A_rows[i] = A + static_cast<size_t>(i) * static_cast<size_t>(lda);
    }
    int failed_column = -1;
    (void)r_invert_square_matrix_with_scratch(n, ws->A_rows, &failed_column, ws->D_rows, ws->pivot,
                                              ws->dwork);
}

// normal_inverse = (N'.N)^-1.N' for the k x k normal matrix, as
// Matrix_PseudoInverse forms it.
void normal_pseudo_inverse(rem_workspace *ws) {
    const int k = ws->k;
    Matrix_Product(ws->T_rows, k, k, ws->N_rows, 1, k, ws->N_rows, 0);
    invert_float(ws, k, ws->T, k);
    Matrix_Product(ws->NI_rows, k, k, ws->T_rows, 0, k, ws->N_rows, 1);
}

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
    if (ws->general_only || !ws->design_finite || n < 1 || ws->k < 1) return false;
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
    normal_pseudo_inverse(ws);
    for (int a = 0; a < k; ++a) {
        float *out = ws->E + a * ld;
        std::memset(out, 0, sizeof(float) * static_cast<size_t>(ld));
        for (int m = 0; m < k; ++m) kern->axpy(out, ws->NI[a * k + m], ws->DtW + m * ld, ld);
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

// The REML estimate by the fast route; false when a shortcut's conditions
// fail on the way (the caller then hands the whole voxel to
// REM_REML_iterate).  The error values are positive here.
bool fast_reml(rem_workspace *ws, const float *effect, const float *error, float *result) {
    const int n = ws->n, k = ws->k;
    if (!fast_route_applies(ws, error)) return false;

    bool y_finite = true;
    for (int i = 0; i < n; ++i) y_finite = y_finite && std::isfinite(effect[i]);

    // Unit weights first: the inverse of the identity is the identity.
    for (int i = 0; i < n; ++i) ws->w[i] = 1.0f;
    if (!fast_residue(ws, true)) return false;
    transposed_times(ws, ws->Rt, effect, ws->t);
    const float q = dot(n, effect, ws->t);
    float sigma2 = q / static_cast<float>(n - k);

    float sigma2_new = 0.0f;
    float change = std::fabs(1.0f - sigma2_new / sigma2);
    while (change > 0.05f) {
        if (!diagonal_weights(ws, sigma2)) return false;
        if (!fast_residue(ws, true)) return false;
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
    }
    *result = sigma2_new;
    return true;
}

// The weighting of the final fit by the fast route; false when a shortcut's
// conditions do not hold.
bool fast_fit_weights(rem_workspace *ws, float sigma2_re, const float *error) {
    return fast_route_applies(ws, error) && diagonal_weights(ws, sigma2_re);
}

// Serialises the calls to the plain operations, which work on the model's
// shared fit matrices.
std::mutex plain_lock;

}  // namespace

// ---------------------------------------------------------------------------
// Public operations

rem_workspace *rem_workspace_create(void) {
    rem_workspace *ws = plain_array<rem_workspace>(1);
    if (REM.initialized) attach_design(ws);
    return ws;
}

void rem_workspace_free(rem_workspace *ws) {
    if (ws == nullptr) return;
    release(ws);
    std::free(ws);
}

const float *rem_workspace_beta(const rem_workspace *ws) {
    return ws->beta;
}

const float *rem_workspace_normal_inverse(const rem_workspace *ws) {
    return ws->NI;
}

void rem_workspace_set_general_only(rem_workspace *ws, int general_only) {
    ws->general_only = general_only;
}

long rem_workspace_general_count(const rem_workspace *ws) {
    return ws->general_count;
}

int rem_fast_reml(rem_workspace *ws, int n, const float *effect, const float *error, const int *dof,
                  float *sigma2_fe, float *sigma2_re) {
    if (check_model(ws, n)) return 1;
    if (rem_fixed_effects_variance(n, error, dof, sigma2_fe, sigma2_re) != 0) return -1;

    float re = 0.0f;
    if (fast_reml(ws, effect, error, &re)) {
        *sigma2_re = re;
        return 0;
    }
    // The plain operation repeats the checks above, which pass silently and
    // give the same fixed-effects variance.
    std::lock_guard<std::mutex> hold(plain_lock);
    ++ws->general_count;
    return REM_REML_iterate(n, effect, error, dof, sigma2_fe, sigma2_re);
}

int rem_fast_fit_final(rem_workspace *ws, float sigma2_re, int n, const float *effect,
                       const float *error, float *fitted, float *event_sum) {
    if (check_model(ws, n)) return 1;
    const int k = ws->k;

    if (rem_zero_error_fit(n, k, error, fitted, event_sum, ws->beta)) {
        for (int j = 0; j < k * k; ++j) ws->NI[j] = 0.0f;
        return 0;
    }

    if (!fast_fit_weights(ws, sigma2_re, error)) {
        // The plain operation repeats the checks above, which pass silently;
        // the F test reads its amplitudes and normal_inverse from here.
        std::lock_guard<std::mutex> hold(plain_lock);
        ++ws->general_count;
        const int result = REM_fit_final(sigma2_re, n, effect, error, fitted, event_sum);
        for (int j = 0; j < k; ++j) {
            ws->beta[j] = REM.beta[j];
            for (int jj = 0; jj < k; ++jj) ws->NI[j * k + jj] = REM.normal_inverse[j][jj];
        }
        return result;
    }
    fast_residue(ws, false);

    for (int j = 0; j < k; ++j) {
        float s = 0.0f;
        for (int i = 0; i < n; ++i) s += ws->E[j * ws->ld + i] * effect[i];
        ws->beta[j] = s;
    }
    const float *X = ws->X;
    rem_fitted_values(
        n, k, [X, k](int i, int j) { return X[i * k + j]; }, ws->beta, fitted, event_sum);
    return 0;
}

int rem_fast_calculate_F(rem_workspace *ws, int n, int resels, int condition, int dof,
                         float *t_value, float *p_raw, float *p_corrected, float *effect_size,
                         float *effect_error) {
    if (rem_check_condition(n, condition) != 0) return 1;
    if (ws->design_source != REM.design || ws->n != REM.nfiles || ws->k != REM.nbasis)
        attach_design(ws);

    const int k = ws->k;
    const int m = REM.condition_nrows[condition];
    int **L = REM.condition_contrast[condition];
    const float *N = ws->NI;
    if (m > ws->mcap) {
        std::free(ws->contrast);
        std::free(ws->M);
        ws->contrast = aligned_floats(static_cast<size_t>(m));
        ws->M = aligned_floats(static_cast<size_t>(m) * static_cast<size_t>(m));
        ws->mcap = m;
    }
    float *contrast = ws->contrast;
    float *M = ws->M;

    *effect_size = rem_contrast_values(m, k, L, ws->beta, contrast);

    rem_contrast_covariance(
        m, k, L, [N, k](int i, int j) { return N[i * k + j]; },
        [M, m](int r, int s, float value) { M[r * m + s] = value; });
    invert_float(ws, m, M, m);

    const float F = rem_contrast_F(m, contrast, [M, m](int r, int s) { return M[r * m + s]; });
    rem_f_test(F, m, dof, resels, effect_size, t_value, p_raw, p_corrected, effect_error);
    return 0;
}
