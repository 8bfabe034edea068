// Vector kernels of the fast per-voxel path, one variant per instruction set.
// Internal to the model module.
#ifndef FMRI_REM_FAST_INTERNAL_H
#define FMRI_REM_FAST_INTERNAL_H

// Rows of the workspace matrices are padded to a multiple of this many floats
// and start on 64-byte boundaries, so that every kernel works on whole
// aligned vectors.
#define REM_FAST_BLOCK 16

// Start of an empty span (its stop is 0): larger than any row length.
#define REM_FAST_EMPTY_START (1 << 30)

struct rem_fast_kernels {
    const char *name;
    // out[j] = out[j] + r * x[j] for j in [0, count); count is a multiple of
    // REM_FAST_BLOCK, out and x are 64-byte aligned.
    void (*axpy)(float *out, float r, const float *x, int count);
    // One row of R.R, transposed: the sum over l in [l0, l1) of rt[l] times
    // row l of Rt (ld floats per row, 64-byte aligned), the terms of each
    // element added in the order of l, formed over the union of the rows'
    // non-zero spans [start[l], stop[l]) (multiples of REM_FAST_BLOCK, or
    // [REM_FAST_EMPTY_START, 0) for a zero row; the rows are zero outside
    // them).  With out, the row is stored there over
    // that union (out must hold zeros elsewhere); with out null, t[i] =
    // t[i] + yj * row[i] over the union instead.
    void (*rr_row)(float *out, float *t, float yj, const float *Rt, int ld, const float *rt, int l0,
                   int l1, const int *start, const int *stop);
    // out[i] = 0.0f + x[i] * w[i] for i in [0, count).
    void (*weigh)(float *out, const float *x, const float *w, int count);
    // One column of R, as a row of Rt: with h[i] the float sum over a of
    // coef[a] * Xt[a*ld + i] (a = 0 .. k-1 in order, from +0), r[i] = 0.0f -
    // (0.0f + w[i] * h[i]) for i in [0, count).  Returns 1 when every r[i] is
    // finite, and sets *first and *last to the first and last i with r[i] not
    // zero (both -1 when there is none).
    int (*residue_column)(float *r, const float *coef, int k, const float *Xt, int ld,
                          const float *w, int count, int *first, int *last);
};

const rem_fast_kernels *rem_fast_current_kernels(void);

#endif
