// Vector kernels of the fast per-voxel path: a multiply-and-add of one row
// into another, and the accumulation of several scaled rows.  Each lane does
// exactly what the scalar statement `out[j] = out[j] + r * x[j]` does in
// float32: a separate multiply and add (never fused), so every variant gives
// the same bits.  The variant is chosen once, from what the processor has.
#include <immintrin.h>

#include <cstring>

#include "fast_internal.h"
#include "rem.h"

namespace {

// ---- SSE2: part of every x86-64 processor ----

void axpy_sse2(float *out, float r, const float *x, int count)
{
    const __m128 rv = _mm_set1_ps(r);
    for (int j = 0; j < count; j += 4) {
        const __m128 p = _mm_mul_ps(rv, _mm_load_ps(x + j));
        _mm_store_ps(out + j, _mm_add_ps(_mm_load_ps(out + j), p));
    }
}

void accumulate_sse2(float *out, const float *M, int ld, const int *rows, const float *coef,
                     int count, const int *start, const int *stop)
{
    for (int c = 0; c < count; ++c) {
        const int l = rows[c];
        const float *x = M + static_cast<long>(l) * ld;
        const __m128 rv = _mm_set1_ps(coef[c]);
        for (int j = start[l]; j < stop[l]; j += 4) {
            const __m128 p = _mm_mul_ps(rv, _mm_load_ps(x + j));
            _mm_store_ps(out + j, _mm_add_ps(_mm_load_ps(out + j), p));
        }
    }
}

// ---- AVX2 ----

__attribute__((target("avx2"))) void axpy_avx2(float *out, float r, const float *x, int count)
{
    const __m256 rv = _mm256_set1_ps(r);
    for (int j = 0; j < count; j += 8) {
        const __m256 p = _mm256_mul_ps(rv, _mm256_load_ps(x + j));
        _mm256_store_ps(out + j, _mm256_add_ps(_mm256_load_ps(out + j), p));
    }
}

__attribute__((target("avx2"))) void accumulate_avx2(float *out, const float *M, int ld,
                                                     const int *rows, const float *coef,
                                                     int count, const int *start, const int *stop)
{
    for (int c = 0; c < count; ++c) {
        const int l = rows[c];
        const float *x = M + static_cast<long>(l) * ld;
        const __m256 rv = _mm256_set1_ps(coef[c]);
        for (int j = start[l]; j < stop[l]; j += 8) {
            const __m256 p = _mm256_mul_ps(rv, _mm256_load_ps(x + j));
            _mm256_store_ps(out + j, _mm256_add_ps(_mm256_load_ps(out + j), p));
        }
    }
}

// ---- AVX-512 ----

__attribute__((target("avx512f"))) void axpy_avx512(float *out, float r, const float *x,
                                                    int count)
{
    const __m512 rv = _mm512_set1_ps(r);
    for (int j = 0; j < count; j += 16) {
        const __m512 p = _mm512_mul_ps(rv, _mm512_load_ps(x + j));
        _mm512_store_ps(out + j, _mm512_add_ps(_mm512_load_ps(out + j), p));
    }
}

__attribute__((target("avx512f"))) void accumulate_avx512(float *out, const float *M, int ld,
                                                          const int *rows, const float *coef,
                                                          int count, const int *start,
                                                          const int *stop)
{
    int c = 0;
    // Two rows at a time: one load and store of out for two terms, which
    // are still added one after the other.
    for (; c + 1 < count; c += 2) {
        const int l0 = rows[c], l1 = rows[c + 1];
        const float *x0 = M + static_cast<long>(l0) * ld;
        const float *x1 = M + static_cast<long>(l1) * ld;
        const __m512 r0 = _mm512_set1_ps(coef[c]);
        const __m512 r1 = _mm512_set1_ps(coef[c + 1]);
        const int a0 = start[l0], b0 = stop[l0], a1 = start[l1], b1 = stop[l1];
        const int lo = a0 < a1 ? a0 : a1;
        const int hi = b0 > b1 ? b0 : b1;
        for (int j = lo; j < hi; j += 16) {
            __m512 acc = _mm512_load_ps(out + j);
            if (j >= a0 && j < b0) acc = _mm512_add_ps(acc, _mm512_mul_ps(r0, _mm512_load_ps(x0 + j)));
            if (j >= a1 && j < b1) acc = _mm512_add_ps(acc, _mm512_mul_ps(r1, _mm512_load_ps(x1 + j)));
            _mm512_store_ps(out + j, acc);
        }
    }
    for (; c < count; ++c) {
        const int l = rows[c];
        const float *x = M + static_cast<long>(l) * ld;
        const __m512 rv = _mm512_set1_ps(coef[c]);
        for (int j = start[l]; j < stop[l]; j += 16) {
            const __m512 p = _mm512_mul_ps(rv, _mm512_load_ps(x + j));
            _mm512_store_ps(out + j, _mm512_add_ps(_mm512_load_ps(out + j), p));
        }
    }
}

const rem_fast_kernels kernels_sse2 = {"sse2", axpy_sse2, accumulate_sse2};
const rem_fast_kernels kernels_avx2 = {"avx2", axpy_avx2, accumulate_avx2};
const rem_fast_kernels kernels_avx512 = {"avx512", axpy_avx512, accumulate_avx512};

bool has_avx2() { return __builtin_cpu_supports("avx2"); }
bool has_avx512() { return __builtin_cpu_supports("avx512f"); }

const rem_fast_kernels *best_kernels()
{
    __builtin_cpu_init();
    if (has_avx512()) return &kernels_avx512;
    if (has_avx2()) return &kernels_avx2;
    return &kernels_sse2;
}

const rem_fast_kernels *current = best_kernels();

}  // namespace

const rem_fast_kernels *rem_fast_current_kernels(void) { return current; }

const char *rem_fast_instruction_set(void) { return current->name; }

int rem_fast_select_instruction_set(const char *name)
{
    __builtin_cpu_init();
    if (std::strcmp(name, "sse2") == 0) {
        current = &kernels_sse2;
        return 0;
    }
    if (std::strcmp(name, "avx2") == 0 && has_avx2()) {
        current = &kernels_avx2;
        return 0;
    }
    if (std::strcmp(name, "avx512") == 0 && has_avx512()) {
        current = &kernels_avx512;
        return 0;
    }
    return 1;
}
