// Vector kernels of the fast per-voxel path, one variant per instruction set.
// Internal to the model module.
#ifndef FMRI_REM_FAST_INTERNAL_H
#define FMRI_REM_FAST_INTERNAL_H

// Rows of the workspace matrices are padded to a multiple of this many floats
// and start on 64-byte boundaries, so that every kernel works on whole
// aligned vectors.
#define REM_FAST_BLOCK 16

struct rem_fast_kernels {
    const char *name;
    // out[j] = out[j] + r * x[j] for j in [0, count); count is a multiple of
    // REM_FAST_BLOCK, out and x are 64-byte aligned.
    void (*axpy)(float *out, float r, const float *x, int count);
    // For c = 0 .. count-1, with l = rows[c]:
    //   out[j] = out[j] + coef[c] * M[l*ld + j]  for j in [start[l], stop[l]),
    // the terms of each element added in the order of c.  start and stop are
    // multiples of REM_FAST_BLOCK.
    void (*accumulate)(float *out, const float *M, int ld, const int *rows, const float *coef,
                       int count, const int *start, const int *stop);
};

const rem_fast_kernels *rem_fast_current_kernels(void);

#endif
