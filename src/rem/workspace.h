// What one voxel writes, owned by one thread: the fit matrices of the
// reference arithmetic (or, for the model's own operations, REM's), the
// storage of the fast kernel and the scratch of both.  Internal to the model
// module.
#ifndef FMRI_REM_WORKSPACE_H
#define FMRI_REM_WORKSPACE_H

#include "rem.h"

// The matrices of the reference arithmetic, as row pointers (shapes as in
// rem_model).
struct rem_fit_matrices {
    float *beta;                      // k
    float **v_inverse;                // n x n
    float **v_inverse_design;         // n x k
    float **normal_matrix;            // k x k
    float **normal_inverse;           // k x k
    float **design_t_v_inverse;       // k x n
    float **estimator;                // k x n
    float **hat;                      // n x n
    float **residue_forming;          // n x n
    float **residue_forming_squared;  // n x n
    float **fixed_variance;           // n x n
    float **fixed_variance_squared;   // n x n
    float **work;                     // n x n
};

struct rem_workspace {
    const rem_model_view *model;
    int n;   // files
    int k;   // basis functions
    int ld;  // padded row length of the fast kernel's n-column matrices

    rem_fit_matrices fit;  // the reference kernel's matrices
    int owns_fit;          // 0 when fit holds REM's own matrices
    // 1 for a model without n x n matrices (more files than the classic
    // capacity): fit holds beta, normal_matrix and normal_inverse only, the
    // fast kernel's Rt and spans are absent, and the fit of a voxel that the
    // fast route cannot take is rem_lean_fit's.
    int lean;

    // Scratch of both kernels.
    float *t;      // n (padded to ld): a matrix times y
    float **pinv;  // k x k: N'.N of the pseudo-inverse
    int dcap;      // order that the float64 inversion scratch holds
    double **D;
    int *pivot;
    double *dwork;
    int mcap;         // rows of a condition that contrast and M hold
    float *contrast;  // m
    float **M;        // m x m: L.N.L'

    // The fast kernel (see fast_kernel.cpp); its beta and normal_inverse are
    // fit.beta and fit.normal_inverse.
    int design_finite;
    float *X;        // n x k design, rows first
    float *Xt;       // k x ld the design transposed
    float *N;        // k x k normal matrix
    float **N_rows;  // rows of N
    float *DtW;      // k x ld X'.W
    float *E;        // k x ld estimator
    float *fv2;      // ld: diagonal of S^2
    float *w;        // ld: diagonal of W
    float *row;      // ld: one row of R.R
    float *coef;     // k: one column of the estimator
    float *Rt;       // n x ld the residue-forming matrix R, transposed
    int *first;      // n: first non-zero column of each row of Rt
    int *last;       // n: last one
    int *start;      // n: first rounded down to a whole vector (or empty)
    int *stop;       // n: last + 1 rounded up

    double *converged_scratch;  // of the converged estimate

    long reference_count;  // estimates and fits handed to the reference kernel
    double domain_a, domain_b;
};

// A workspace whose fit matrices are REM's own, for the model's operations
// on the global model; free with rem_workspace_free.
rem_workspace *rem_workspace_on_global_model(const rem_model_view *model);

// Makes the float64 inversion scratch hold order n.
void rem_workspace_reserve_inversion(rem_workspace *ws, int n);

// Makes contrast and M hold a condition of m rows (and the inversion
// scratch order m).
void rem_workspace_reserve_test(rem_workspace *ws, int m);

// In-place inversion of a float matrix through float64 on the workspace's
// scratch, as rInvertSquareMatrix does it; the result is not used.
void rem_workspace_invert(rem_workspace *ws, int n, float **A);

// P = (N'.N)^-1.N' for the k x k matrix N, as Matrix_PseudoInverse forms it.
void rem_workspace_pseudo_inverse(rem_workspace *ws, float **N, float **P);

// The reference kernel's steps on a workspace (reference_kernel.cpp).
void rem_reference_residue_matrix(rem_workspace *ws);
int rem_reference_estimate(rem_workspace *ws, const float *effect, const float *error,
                           const int *dof, float *sigma2_fe, float *sigma2_re);
int rem_reference_fit(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
                      float *fitted, float *event_sum);
// The fast kernel's fit (fast_kernel.cpp).
int rem_fast_fit(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
                 float *fitted, float *event_sum);
// The final fit as the reference kernel gives it for W = (S^2 + sigma2.I)^-1,
// in storage that grows as n k (lean_fit.cpp); for lean workspaces.
int rem_lean_fit(rem_workspace *ws, float sigma2_re, const float *effect, const float *error,
                 float *fitted, float *event_sum);
// The converged kernel's first pass over a group of voxels
// (converged_lanes.cpp).
int rem_converged_estimate_many(rem_workspace *ws, int count, const float *const *effects,
                                const float *const *errors, const int *dof, float *sigma2_fe,
                                float *sigma2_re, int *result);
// The test on the workspace's last fit (f_test.cpp), shared by both kernels.
int rem_kernel_test(rem_workspace *ws, int condition, int resels, int dof, rem_test_result *result);

#endif
