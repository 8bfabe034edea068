// Support library: typed allocation with a fatal exit, matrix algebra, the
// regularized incomplete beta function, text lines, option scanning and the
// interactive help menu.
#ifndef FMRI_REM_UTIL_H
#define FMRI_REM_UTIL_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

// A complex number of two float32 values, real part first.
typedef struct {
    float r;
    float i;
} fcomplex;

// ---- allocation (alloc.cpp) ----
// Contents are not initialised.  On failure the process ends through
// alloc_error with exit status 1; callers never test the result.
void alloc_error(const char *message);

float *float_vector(uint32_t n);
double *double_vector(uint32_t n);
int *int_vector(uint32_t n);
fcomplex *fcomplex_vector(uint32_t n);
void free_float_vector(float *v);
void free_double_vector(double *v);
void free_int_vector(int *v);
void free_fcomplex_vector(fcomplex *v);

// Matrices: an array of r row pointers, each row a separate allocation.
float **float_matrix(uint32_t r, uint32_t c);
double **double_matrix(uint32_t r, uint32_t c);
int **int_matrix(uint32_t r, uint32_t c);
void free_float_matrix(float **m, uint32_t r);
void free_double_matrix(double **m, uint32_t r);
void free_int_matrix(int **m, uint32_t r);

// ---- matrix algebra (matrix.cpp) ----
// C (rows x cols) = op(A) . op(B), each element summed in float32 over
// k = 0 .. inner-1 in order.
void Matrix_Product(float **C, int rows, int cols, float **A, int transpose_a, int inner, float **B,
                    int transpose_b);
float Trace_of_Matrix(int n, float **A);
// In-place inversion; 0 on success, 1 on failure with *failed_column set to
// the column of an exactly zero pivot (else -1).
int rInvertSquareMatrix(int n, float **A, int *failed_column);
int dInvertSquareMatrix(int n, double **A, int *failed_column);
// The same inversions on scratch the caller provides (pivot and work of n
// elements, D an n x n float64 matrix), so that repeated inversions need no
// allocation; n >= 0.
int d_invert_square_matrix_with_scratch(int n, double **A, int *failed_column, int *pivot,
                                        double *work);
int r_invert_square_matrix_with_scratch(int n, float **A, int *failed_column, double **D,
                                        int *pivot, double *work);
// P (n x m) = (A^T A)^-1 A^T for A of m rows and n columns.
void Matrix_PseudoInverse(float **A, int m, int n, float **P);

// ---- incomplete beta function (ibeta.cpp) ----
// ibeta ends the process with a message when a or b is not positive; the
// voxel kernels test for that first and leave the message to the caller.
double ibeta(double a, double b, double x);
int ibeta_domain_error(double a, double b);
void ibeta_domain_exit(double a, double b);
double incbcf(double a, double b, double x);
double incbd(double a, double b, double x);
double pseries(double a, double b, double x);

// ---- text lines and option scanning (text.cpp) ----
// buffer must hold at least 1024 characters.
char *get_line(FILE *file, char *buffer);
int get_line_with_comment(FILE *file, char *buffer);
char *next_non_white(const char *text);
int my_getopt(int argc, char **argv, const char *options, int *index);

// ---- interactive help menu (help_menu.cpp) ----
int help_menu(int linked, const char *file_name);

#ifdef __cplusplus
}

#include <string>

// printf into a string of at most 511 characters (text.cpp).
std::string format_text(const char *format, ...) __attribute__((format(printf, 1, 2)));
#endif

#endif
