// Typed vector and matrix allocation.  Running out of memory is fatal: the
// allocators report through alloc_error, which ends the process, so callers
// never test what they get back.
#include "util.h"

#include <cstdio>
#include <cstdlib>

extern "C" void alloc_error(const char *message) {
    fprintf(stderr, "Fatal Error:\n");
    fprintf(stderr, "%s\n", message);
    fprintf(stderr, "Program aborted.\n");
    exit(1);
}

namespace {

template <typename T>
T *vector_of(uint32_t n, const char *message) {
    T *v = static_cast<T *>(malloc(static_cast<size_t>(n) * sizeof(T)));
    if (v == nullptr) alloc_error(message);
    return v;
}

// The row pointer array first, then each row in order; rows obtained before a
// failure are not released (the process ends anyway).
template <typename T>
T **matrix_of(uint32_t r, uint32_t c, const char *message1, const char *message2) {
    T **m = static_cast<T **>(malloc(static_cast<size_t>(r) * sizeof(T *)));
    if (m == nullptr) alloc_error(message1);
    for (uint32_t i = 0; i < r; ++i) {
        m[i] = static_cast<T *>(malloc(static_cast<size_t>(c) * sizeof(T)));
        if (m[i] == nullptr) alloc_error(message2);
    }
    return m;
}

template <typename T>
void free_matrix_of(T **m, uint32_t r) {
    if (m == nullptr) return;
    for (uint32_t i = r; i > 0; --i) free(m[i - 1]);
    free(m);
}

}  // namespace

extern "C" {

float *float_vector(uint32_t n) {
    return vector_of<float>(n, "Allocation error in float_vector().");
}

double *double_vector(uint32_t n) {
    return vector_of<double>(n, "Allocation error in double_vector().");
}

int *int_vector(uint32_t n) {
    return vector_of<int>(n, "Allocation error in int_vector().");
}

fcomplex *fcomplex_vector(uint32_t n) {
    return vector_of<fcomplex>(n, "Allocation error in fcomplex_vector().");
}

void free_float_vector(float *v) {
    free(v);
}
void free_double_vector(double *v) {
    free(v);
}
void free_int_vector(int *v) {
    free(v);
}
void free_fcomplex_vector(fcomplex *v) {
    free(v);
}

float **float_matrix(uint32_t r, uint32_t c) {
    return matrix_of<float>(r, c, "Allocation failure 1 in float_matrix().",
                            "Allocation failure 2 in float_matrix().");
}

double **double_matrix(uint32_t r, uint32_t c) {
    return matrix_of<double>(r, c, "Allocation failure 1 in double_matrix().",
                             "Allocation failure 2 in double_matrix().");
}

// The messages name "integer_matrix()", as they always have.
int **int_matrix(uint32_t r, uint32_t c) {
    return matrix_of<int>(r, c, "Allocation failure 1 in integer_matrix().",
                          "Allocation failure 2 in integer_matrix().");
}

void free_float_matrix(float **m, uint32_t r) {
    free_matrix_of(m, r);
}
void free_double_matrix(double **m, uint32_t r) {
    free_matrix_of(m, r);
}
void free_int_matrix(int **m, uint32_t r) {
    free_matrix_of(m, r);
}

}  // extern "C"
