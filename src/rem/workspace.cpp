// Workspaces of the voxel kernels: the read-only view of the model, the
// storage that a voxel writes, and the inversions on the workspace's own
// scratch.
#include "workspace.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fast_internal.h"
#include "util.h"

namespace {

void *zeroed(size_t bytes) {
    void *p = nullptr;
    if (bytes == 0) bytes = 1;
    // 64-byte boundaries: every vector of the fast kernel is aligned.
    if (posix_memalign(&p, 64, bytes) != 0 || p == nullptr)
        alloc_error("rem_workspace: not enough memory for the voxel workspace");
    std::memset(p, 0, bytes);
    return p;
}

template <typename T>
T *array(size_t count) {
    return static_cast<T *>(zeroed(count * sizeof(T)));
}

// A rows x cols matrix as row pointers into one block (rows padded to a
// multiple of 16 floats, so that every row starts aligned).
float **matrix(int rows, int cols) {
    const size_t r = rows > 0 ? static_cast<size_t>(rows) : 0;
    const size_t c = static_cast<size_t>((cols > 0 ? cols : 0) + 15) / 16 * 16;
    float **m = array<float *>(r > 0 ? r : 1);
    float *block = array<float>(r * c);
    m[0] = block;  // freed through the first row, also when there is none
    for (size_t i = 0; i < r; ++i) m[i] = block + i * c;
    return m;
}

void free_matrix(float **m) {
    if (m == nullptr) return;
    std::free(m[0]);
    std::free(m);
}

void free_double_rows(double **m) {
    if (m == nullptr) return;
    std::free(m[0]);
    std::free(m);
}

void allocate_fit(rem_workspace *ws) {
    const int n = ws->n, k = ws->k;
    rem_fit_matrices &f = ws->fit;
    f.beta = array<float>(static_cast<size_t>(k));
    ws->owns_fit = 1;
    if (ws->lean) {
        f.normal_matrix = matrix(k, k);
        f.normal_inverse = matrix(k, k);
        return;
    }
    f.v_inverse = matrix(n, n);
    f.v_inverse_design = matrix(n, k);
    f.normal_matrix = matrix(k, k);
    f.normal_inverse = matrix(k, k);
    f.design_t_v_inverse = matrix(k, n);
    f.estimator = matrix(k, n);
    f.hat = matrix(n, n);
    f.residue_forming = matrix(n, n);
    f.residue_forming_squared = matrix(n, n);
    f.fixed_variance = matrix(n, n);
    f.fixed_variance_squared = matrix(n, n);
    f.work = matrix(n, n);
}

void free_fit(rem_workspace *ws) {
    rem_fit_matrices &f = ws->fit;
    std::free(f.beta);
    float **matrices[] = {f.v_inverse,
                          f.v_inverse_design,
                          f.normal_matrix,
                          f.normal_inverse,
                          f.design_t_v_inverse,
                          f.estimator,
                          f.hat,
                          f.residue_forming,
                          f.residue_forming_squared,
                          f.fixed_variance,
                          f.fixed_variance_squared,
                          f.work};
    for (float **m : matrices) free_matrix(m);
}

// Scratch of both kernels and the fast kernel's storage.
void allocate_common(rem_workspace *ws, bool fast) {
    const int n = ws->n, k = ws->k;
    const size_t ld =
        static_cast<size_t>((n + REM_FAST_BLOCK - 1) / REM_FAST_BLOCK) * REM_FAST_BLOCK +
        (n == 0 ? REM_FAST_BLOCK : 0);
    const size_t nn = static_cast<size_t>(n), kk = static_cast<size_t>(k);
    ws->ld = static_cast<int>(ld);
    ws->t = array<float>(ld);
    ws->pinv = matrix(k, k);
    // The float64 inversions are of order n only in the classic arithmetic.
    rem_workspace_reserve_inversion(ws, n > k && !ws->lean ? n : k);
    int rows = 1;
    for (int c = 0; c < ws->model->nconditions; ++c)
        if (ws->model->condition_nrows[c] > rows) rows = ws->model->condition_nrows[c];
    rem_workspace_reserve_test(ws, rows);
    if (!fast) return;

    const rem_model_view *model = ws->model;
    ws->X = array<float>(nn * kk);
    ws->Xt = array<float>(kk * ld);
    ws->design_finite = 1;
    for (int i = 0; i < n; ++i) {
        for (int a = 0; a < k; ++a) {
            const float x = model->design[i][a];
            ws->X[i * k + a] = x;
            ws->Xt[a * ld + i] = x;
            if (!std::isfinite(x)) ws->design_finite = 0;
        }
    }
    ws->N = array<float>(kk * kk);
    ws->N_rows = array<float *>(kk);
    for (size_t a = 0; a < kk; ++a) ws->N_rows[a] = ws->N + a * kk;
    ws->DtW = array<float>(kk * ld);
    ws->E = array<float>(kk * ld);
    ws->fv2 = array<float>(ld);
    ws->w = array<float>(ld);
    ws->row = array<float>(ld);
    ws->coef = array<float>(kk);
    if (!ws->lean) {  // R and its spans, for the classic estimate
        ws->Rt = array<float>(nn * ld);
        ws->first = array<int>(nn);
        ws->last = array<int>(nn);
        ws->start = array<int>(nn);
        ws->stop = array<int>(nn);
    }
    // One scratch for the converged estimate of one voxel or of several side
    // by side.
    const size_t one = rem_converged_reml_scratch_size(n, k);
    const size_t many = rem_converged_reml_many_scratch_size(n, k);
    ws->converged_scratch = array<double>(one > many ? one : many);
}

rem_workspace *new_workspace(const rem_model_view *model) {
    rem_workspace *ws = array<rem_workspace>(1);
    ws->model = model;
    ws->n = model->nfiles > 0 ? model->nfiles : 0;
    ws->k = model->nbasis > 0 ? model->nbasis : 0;
    ws->lean = model->identity == nullptr && ws->n > 0;
    return ws;
}

}  // namespace

rem_model_view rem_current_model(void) {
    rem_model_view view;
    view.nfiles = REM.nfiles;
    view.nbasis = REM.nbasis;
    view.design = REM.design;
    view.identity = REM.identity;
    view.nconditions = REM.nconditions;
    view.condition_nrows = REM.condition_nrows;
    view.condition_contrast = REM.condition_contrast;
    return view;
}

rem_workspace *rem_workspace_create(const rem_model_view *model) {
    rem_workspace *ws = new_workspace(model);
    allocate_fit(ws);
    allocate_common(ws, true);
    return ws;
}

rem_workspace *rem_workspace_on_global_model(const rem_model_view *model) {
    rem_workspace *ws = new_workspace(model);
    rem_fit_matrices &f = ws->fit;
    f.beta = REM.beta;
    f.v_inverse = REM.v_inverse;
    f.v_inverse_design = REM.v_inverse_design;
    f.normal_matrix = REM.normal_matrix;
    f.normal_inverse = REM.normal_inverse;
    f.design_t_v_inverse = REM.design_t_v_inverse;
    f.estimator = REM.estimator;
    f.hat = REM.hat;
    f.residue_forming = REM.residue_forming;
    f.residue_forming_squared = REM.residue_forming_squared;
    f.fixed_variance = REM.fixed_variance;
    f.fixed_variance_squared = REM.fixed_variance_squared;
    f.work = REM.work;
    allocate_common(ws, false);
    return ws;
}

void rem_workspace_free(rem_workspace *ws) {
    if (ws == nullptr) return;
    if (ws->owns_fit) free_fit(ws);
    free_matrix(ws->pinv);
    free_matrix(ws->M);
    free_double_rows(ws->D);
    void *blocks[] = {ws->t,     ws->pivot, ws->dwork,  ws->contrast, ws->X,
                      ws->Xt,    ws->N,     ws->N_rows, ws->DtW,      ws->E,
                      ws->fv2,   ws->w,     ws->row,    ws->coef,     ws->Rt,
                      ws->first, ws->last,  ws->start,  ws->stop,     ws->converged_scratch};
    for (void *b : blocks) std::free(b);
    std::free(ws);
}

void rem_workspace_reserve_inversion(rem_workspace *ws, int n) {
    if (n <= ws->dcap) return;
    free_double_rows(ws->D);
    std::free(ws->pivot);
    std::free(ws->dwork);
    const size_t o = static_cast<size_t>(n);
    ws->D = array<double *>(o);
    double *block = array<double>(o * o);
    for (size_t i = 0; i < o; ++i) ws->D[i] = block + i * o;
    ws->pivot = array<int>(o);
    ws->dwork = array<double>(o);
    ws->dcap = n;
}

void rem_workspace_reserve_test(rem_workspace *ws, int m) {
    rem_workspace_reserve_inversion(ws, m);
    if (m <= ws->mcap) return;
    std::free(ws->contrast);
    free_matrix(ws->M);
    ws->contrast = array<float>(static_cast<size_t>(m));
    ws->M = matrix(m, m);
    ws->mcap = m;
}

void rem_workspace_invert(rem_workspace *ws, int n, float **A) {
    int failed_column = -1;
    (void)r_invert_square_matrix_with_scratch(n, A, &failed_column, ws->D, ws->pivot, ws->dwork);
}

void rem_workspace_pseudo_inverse(rem_workspace *ws, float **N, float **P) {
    const int k = ws->k;
    // (N'.N)^-1.N' rather than N^-1: kept as is, it decides the rounding.
    Matrix_Product(ws->pinv, k, k, N, 1, k, N, 0);
    rem_workspace_invert(ws, k, ws->pinv);
    Matrix_Product(P, k, k, ws->pinv, 0, k, N, 1);
}

void rem_workspace_ibeta_domain(const rem_workspace *ws, double *a, double *b) {
    *a = ws->domain_a;
    *b = ws->domain_b;
}

long rem_workspace_reference_count(const rem_workspace *ws) {
    return ws->reference_count;
}

const float *rem_workspace_beta(const rem_workspace *ws) {
    return ws->fit.beta;
}

float *const *rem_workspace_normal_inverse(const rem_workspace *ws) {
    return ws->fit.normal_inverse;
}

void rem_estimate_group(const rem_kernel *kernel, rem_workspace *ws, int count,
                        const float *const *effects, const float *const *errors, const int *dof,
                        float *sigma2_fe, float *sigma2_re, int *result) {
    for (int v = 0; v < count; ++v) sigma2_fe[v] = sigma2_re[v] = 0.0f;
    if (kernel->estimate_many != nullptr &&
        kernel->estimate_many(ws, count, effects, errors, dof, sigma2_fe, sigma2_re, result) == 0)
        return;
    for (int v = 0; v < count; ++v)
        result[v] = kernel->estimate(ws, effects[v], errors[v], dof, &sigma2_fe[v], &sigma2_re[v]);
}
