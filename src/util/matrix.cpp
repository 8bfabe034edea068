// Matrix products, trace, in-place inversion and the pseudo-inverse, on the
// row-pointer matrices of the allocators.  Products and traces are summed in
// float32, one term at a time; the inversion works in float64.
#include "util.h"

#include <cmath>
#include <cstdio>

extern "C" {

void Matrix_Product(float **C, int rows, int cols, float **A, int transpose_a, int inner, float **B,
                    int transpose_b) {
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            float sum = 0.0f;
            for (int k = 0; k < inner; ++k) {
                const float a = transpose_a ? A[k][i] : A[i][k];
                const float b = transpose_b ? B[j][k] : B[k][j];
                sum += a * b;
            }
            C[i][j] = sum;
        }
    }
}

float Trace_of_Matrix(int n, float **A) {
    float trace = 0.0f;
    for (int i = 0; i < n; ++i) trace += A[i][i];
    return trace;
}

int rInvertSquareMatrix(int n, float **A, int *failed_column) {
    if (n < 0) return dInvertSquareMatrix(n, nullptr, failed_column);
    const uint32_t size = static_cast<uint32_t>(n);
    double **D = double_matrix(size, size);
    int *pivot = int_vector(size);
    double *work = double_vector(size);
    const int result = r_invert_square_matrix_with_scratch(n, A, failed_column, D, pivot, work);
    free_double_vector(work);
    free_int_vector(pivot);
    free_double_matrix(D, size);
    return result;
}

int r_invert_square_matrix_with_scratch(int n, float **A, int *failed_column, double **D,
                                        int *pivot, double *work) {
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) D[i][j] = static_cast<double>(A[i][j]);
    const int result = d_invert_square_matrix_with_scratch(n, D, failed_column, pivot, work);
    // Copied back whatever the result: after a failure A holds the partly
    // factorised matrix.
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) A[i][j] = static_cast<float>(D[i][j]);
    return result;
}

// LU factorisation with partial pivoting, inversion of the upper factor, and
// solution of inverse(A)·L = inverse(U), all in place; the row exchanges of
// the factorisation are finally undone as column exchanges.
int dInvertSquareMatrix(int n, double **A, int *failed_column) {
    *failed_column = -1;
    if (n < 0) {
        printf("Error: the matrix order is %d\n", n);
        return 1;
    }
    int *pivot = int_vector(static_cast<uint32_t>(n));
    double *work = double_vector(static_cast<uint32_t>(n));
    const int result = d_invert_square_matrix_with_scratch(n, A, failed_column, pivot, work);
    free_int_vector(pivot);
    free_double_vector(work);
    return result;
}

int d_invert_square_matrix_with_scratch(int n, double **A, int *failed_column, int *pivot,
                                        double *work) {
    *failed_column = -1;
    for (int k = 0; k < n; ++k) {
        // The first row of largest magnitude wins.
        int p = k;
        double best = std::fabs(A[k][k]);
        for (int i = k + 1; i < n; ++i) {
            if (std::fabs(A[i][k]) > best) {
                p = i;
                best = std::fabs(A[i][k]);
            }
        }
        pivot[k] = p;
        // Only an exact zero counts as singular.
        if (A[p][k] == 0.0) {
            *failed_column = k;
            return 1;
        }
        if (p != k) {
            // Values are exchanged, not row pointers: the caller's rows stay
            // where they were allocated.
            for (int j = 0; j < n; ++j) {
                const double t = A[k][j];
                A[k][j] = A[p][j];
                A[p][j] = t;
            }
        }
        for (int i = k + 1; i < n; ++i) A[i][k] = A[i][k] / A[k][k];
        for (int j = k + 1; j < n; ++j)
            for (int i = k + 1; i < n; ++i) A[i][j] = A[i][j] - A[i][k] * A[k][j];
    }

    // Inverse of the upper triangle, column by column.
    for (int j = 0; j < n; ++j) {
        A[j][j] = 1.0 / A[j][j];
        const double ajj = -A[j][j];
        for (int jj = 0; jj < j; ++jj) {
            for (int i = 0; i < jj; ++i) A[i][j] = A[i][j] + A[i][jj] * A[jj][j];
            A[jj][j] = A[jj][j] * A[jj][jj];
        }
        for (int i = 0; i < j; ++i) A[i][j] = A[i][j] * ajj;
    }

    // Solve inverse(A)·L = inverse(U), from the last column back.
    for (int j = n - 1; j >= 0; --j) {
        for (int i = j + 1; i < n; ++i) {
            work[i] = A[i][j];
            A[i][j] = 0.0;
        }
        if (j < n - 1) {
            for (int c = j + 1; c < n; ++c)
                for (int r = 0; r < n; ++r) A[r][j] = A[r][j] - A[r][c] * work[c];
        }
    }

    for (int j = n - 2; j >= 0; --j) {
        const int p = pivot[j];
        if (p != j) {
            for (int r = 0; r < n; ++r) {
                const double t = A[r][j];
                A[r][j] = A[r][p];
                A[r][p] = t;
            }
        }
    }

    return 0;
}

void Matrix_PseudoInverse(float **A, int m, int n, float **P) {
    const uint32_t size = n > 0 ? static_cast<uint32_t>(n) : 0u;
    float **T = float_matrix(size, size);
    int failed_column;
    Matrix_Product(T, n, n, A, 1, m, A, 0);
    rInvertSquareMatrix(n, T, &failed_column);
    Matrix_Product(P, n, m, T, 0, n, A, 1);
    free_float_matrix(T, size);
}

}  // extern "C"
