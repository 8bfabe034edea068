// Vector kernels of the fast per-voxel path.  Each lane does exactly what the
// scalar statement `out[j] = out[j] + r * x[j]` does in float32: a separate
// multiply and add (never fused) on the lane's own running sum, so every
// variant gives the same bits.  The variant is chosen once, from what the
// processor has; on processors other than x86 the scalar variant is the only
// one.
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#define REM_FAST_X86 1
#include <immintrin.h>
#endif

#include "fast_internal.h"
#include "rem.h"

namespace {

// Most vectors of one row of R.R kept in registers at a time.
const int kTile = 8;

// The union [*a, *b) of the non-zero spans of rows l0 .. l1-1; an empty span
// is stored as [kEmptyStart, 0), which leaves the union as it is.
inline void union_span_scalar(const int *start, const int *stop, int l0, int l1, int *a, int *b) {
    int lo = REM_FAST_EMPTY_START, hi = 0;
    for (int l = l0; l < l1; ++l) {
        if (start[l] < lo) lo = start[l];
        if (stop[l] > hi) hi = stop[l];
    }
    *a = lo;
    *b = hi;
}

// The scalar variant: the statements that every vector lane performs.
void axpy_scalar(float *out, float r, const float *x, int count) {
    for (int j = 0; j < count; ++j) out[j] = out[j] + r * x[j];
}

void rr_row_scalar(float *out, float *t, float yj, const float *Rt, int ld, const float *rt, int l0,
                   int l1, const int *start, const int *stop) {
    int a, b;
    union_span_scalar(start, stop, l0, l1, &a, &b);
    for (int j = a; j < b; ++j) {
        float acc = 0.0f;
        for (int l = l0; l < l1; ++l) {
            const float c = rt[l];
            if (c == 0.0f) continue;  // a zero term leaves the sum as it is
            acc = acc + c * Rt[static_cast<long>(l) * ld + j];
        }
        if (out != nullptr)
            out[j] = acc;
        else
            t[j] = t[j] + yj * acc;
    }
}

void weigh_scalar(float *out, const float *x, const float *w, int count) {
    for (int i = 0; i < count; ++i) out[i] = 0.0f + x[i] * w[i];
}

int residue_column_scalar(float *r, const float *coef, int k, const float *Xt, int ld,
                          const float *w, int count, int *first, int *last) {
    float finite = 0.0f;  // becomes not a number once any value is not finite
    int a = -1, b = -1;
    for (int i = 0; i < count; ++i) {
        float h = 0.0f;
        for (int m = 0; m < k; ++m) h = h + coef[m] * Xt[static_cast<long>(m) * ld + i];
        const float v = 0.0f - (0.0f + w[i] * h);
        r[i] = v;
        finite = finite + v * 0.0f;
        if (v != 0.0f) {  // not a number included
            if (a < 0) a = i;
            b = i;
        }
    }
    *first = a;
    *last = b;
    return !(finite != 0.0f);
}

const rem_fast_kernels kernels_scalar = {"scalar", axpy_scalar, rr_row_scalar, weigh_scalar,
                                         residue_column_scalar};

#ifdef REM_FAST_X86
__attribute__((target("avx2"))) inline void union_span_avx2(const int *start, const int *stop,
                                                            int l0, int l1, int *a, int *b) {
    const __m256i empty = _mm256_set1_epi32(REM_FAST_EMPTY_START);
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256i lo = empty, hi = _mm256_setzero_si256();
    for (int l = l0; l < l1; l += 8) {
        // Lanes below l1 - l are loaded; the others stay out of the union.
        const __m256i mask = _mm256_cmpgt_epi32(_mm256_set1_epi32(l1 - l), lanes);
        const __m256i s = _mm256_maskload_epi32(start + l, mask);
        const __m256i e = _mm256_maskload_epi32(stop + l, mask);
        lo = _mm256_min_epi32(lo, _mm256_blendv_epi8(empty, s, mask));
        hi = _mm256_max_epi32(hi, e);
    }
    int los[8], his[8];
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(los), lo);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(his), hi);
    int x = los[0], y = his[0];
    for (int i = 1; i < 8; ++i) {
        if (los[i] < x) x = los[i];
        if (his[i] > y) y = his[i];
    }
    *a = x;
    *b = y;
}

__attribute__((target("avx512f"))) inline void union_span_avx512(const int *start, const int *stop,
                                                                 int l0, int l1, int *a, int *b) {
    const __m512i empty = _mm512_set1_epi32(REM_FAST_EMPTY_START);
    __m512i lo = empty, hi = _mm512_setzero_si512();
    for (int l = l0; l < l1; l += 16) {
        const int left = l1 - l;
        const __mmask16 mask = left >= 16 ? 0xffff : static_cast<__mmask16>((1u << left) - 1);
        const __m512i s = _mm512_mask_loadu_epi32(empty, mask, start + l);
        const __m512i e = _mm512_maskz_loadu_epi32(mask, stop + l);
        lo = _mm512_mask_blend_epi32(_mm512_cmplt_epi32_mask(s, lo), lo, s);
        hi = _mm512_mask_blend_epi32(_mm512_cmpgt_epi32_mask(e, hi), hi, e);
    }
    int los[16], his[16];
    _mm512_storeu_si512(los, lo);
    _mm512_storeu_si512(his, hi);
    int x = los[0], y = his[0];
    for (int i = 1; i < 16; ++i) {
        if (los[i] < x) x = los[i];
        if (his[i] > y) y = his[i];
    }
    *a = x;
    *b = y;
}

// The three variants share their shape; only the vector type and its
// operations differ.  TILE is one tile of NV vectors of a row of R.R: the sum
// over l of rt[l] * Rt[l][j0 + ...], the terms in the order of l, held in
// registers, then stored, or scaled by yj and added into t.
#define REM_FAST_VARIANT(SUFFIX, TARGET, VEC, W, SETZERO, SET1, LOAD, STORE, ADD, MUL, SUB, UNION) \
    TARGET void axpy_##SUFFIX(float *out, float r, const float *x, int count) {                    \
        const VEC rv = SET1(r);                                                                    \
        for (int j = 0; j < count; j += W)                                                         \
            STORE(out + j, ADD(LOAD(out + j), MUL(rv, LOAD(x + j))));                              \
    }                                                                                              \
                                                                                                   \
    template <int NV>                                                                              \
    TARGET inline void tile_##SUFFIX(float *out, float *t, float yj, const float *Rt, int ld,      \
                                     const float *rt, int l0, int l1, int j0) {                    \
        VEC acc[NV];                                                                               \
        _Pragma("GCC unroll 8") for (int v = 0; v < NV; ++v) acc[v] = SETZERO();                   \
        for (int l = l0; l < l1; ++l) {                                                            \
            const float c = rt[l];                                                                 \
            if (c == 0.0f) continue; /* a zero term leaves every sum as it is */                   \
            const VEC r = SET1(c);                                                                 \
            const float *x = Rt + static_cast<long>(l) * ld + j0;                                  \
            _Pragma("GCC unroll 8") for (int v = 0; v < NV; ++v) acc[v] =                          \
                ADD(acc[v], MUL(r, LOAD(x + W * v)));                                              \
        }                                                                                          \
        if (out != nullptr) {                                                                      \
            _Pragma("GCC unroll 8") for (int v = 0; v < NV; ++v) STORE(out + j0 + W * v, acc[v]);  \
        } else {                                                                                   \
            const VEC y = SET1(yj);                                                                \
            _Pragma("GCC unroll 8") for (int v = 0; v < NV; ++v)                                   \
                STORE(t + j0 + W * v, ADD(LOAD(t + j0 + W * v), MUL(y, acc[v])));                  \
        }                                                                                          \
    }                                                                                              \
                                                                                                   \
    TARGET void rr_row_##SUFFIX(float *out, float *t, float yj, const float *Rt, int ld,           \
                                const float *rt, int l0, int l1, const int *start,                 \
                                const int *stop) {                                                 \
        int a, b;                                                                                  \
        UNION(start, stop, l0, l1, &a, &b);                                                        \
        for (int j0 = a; j0 < b; j0 += W * kTile) {                                                \
            const int left = (b - j0) / W;                                                         \
            switch (left < kTile ? left : kTile) {                                                 \
                case 1:                                                                            \
                    tile_##SUFFIX<1>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                case 2:                                                                            \
                    tile_##SUFFIX<2>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                case 3:                                                                            \
                    tile_##SUFFIX<3>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                case 4:                                                                            \
                    tile_##SUFFIX<4>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                case 5:                                                                            \
                    tile_##SUFFIX<5>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                case 6:                                                                            \
                    tile_##SUFFIX<6>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                case 7:                                                                            \
                    tile_##SUFFIX<7>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
                default:                                                                           \
                    tile_##SUFFIX<8>(out, t, yj, Rt, ld, rt, l0, l1, j0);                          \
                    break;                                                                         \
            }                                                                                      \
        }                                                                                          \
    }                                                                                              \
                                                                                                   \
    TARGET void weigh_##SUFFIX(float *out, const float *x, const float *w, int count) {            \
        const VEC zero = SETZERO();                                                                \
        for (int i = 0; i < count; i += W)                                                         \
            STORE(out + i, ADD(zero, MUL(LOAD(x + i), LOAD(w + i))));                              \
    }                                                                                              \
                                                                                                   \
    TARGET int residue_column_##SUFFIX(float *r, const float *coef, int k, const float *Xt,        \
                                       int ld, const float *w, int count, int *first, int *last) { \
        const VEC zero = SETZERO();                                                                \
        VEC finite = zero; /* becomes not a number once any value is not finite */                 \
        int a = -1, b = -1;                                                                        \
        for (int i = 0; i < count; i += W) {                                                       \
            VEC h = zero;                                                                          \
            for (int m = 0; m < k; ++m)                                                            \
                h = ADD(h, MUL(SET1(coef[m]), LOAD(Xt + static_cast<long>(m) * ld + i)));          \
            const VEC v = SUB(zero, ADD(zero, MUL(LOAD(w + i), h)));                               \
            STORE(r + i, v);                                                                       \
            finite = ADD(finite, MUL(v, zero));                                                    \
            const unsigned nonzero = NONZERO(v, zero);                                             \
            if (nonzero != 0) {                                                                    \
                if (a < 0) a = i + __builtin_ctz(nonzero);                                         \
                b = i + 31 - __builtin_clz(nonzero);                                               \
            }                                                                                      \
        }                                                                                          \
        *first = a;                                                                                \
        *last = b;                                                                                 \
        return NONZERO(finite, zero) == 0;                                                         \
    }

#define NO_TARGET
#define TARGET_AVX2 __attribute__((target("avx2")))
#define TARGET_AVX512 __attribute__((target("avx512f")))

// Bit mask of the lanes of v that are not equal to zero (not a number
// included).
#define NONZERO(v, zero) static_cast<unsigned>(_mm_movemask_ps(_mm_cmpneq_ps(v, zero)))
REM_FAST_VARIANT(sse2, NO_TARGET, __m128, 4, _mm_setzero_ps, _mm_set1_ps, _mm_load_ps, _mm_store_ps,
                 _mm_add_ps, _mm_mul_ps, _mm_sub_ps, union_span_scalar)
#undef NONZERO
#define NONZERO(v, zero) \
    static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(v, zero, _CMP_NEQ_UQ)))
REM_FAST_VARIANT(avx2, TARGET_AVX2, __m256, 8, _mm256_setzero_ps, _mm256_set1_ps, _mm256_load_ps,
                 _mm256_store_ps, _mm256_add_ps, _mm256_mul_ps, _mm256_sub_ps, union_span_avx2)
#undef NONZERO
#define NONZERO(v, zero) static_cast<unsigned>(_mm512_cmp_ps_mask(v, zero, _CMP_NEQ_UQ))
REM_FAST_VARIANT(avx512, TARGET_AVX512, __m512, 16, _mm512_setzero_ps, _mm512_set1_ps,
                 _mm512_load_ps, _mm512_store_ps, _mm512_add_ps, _mm512_mul_ps, _mm512_sub_ps,
                 union_span_avx512)
#undef NONZERO

const rem_fast_kernels kernels_sse2 = {"sse2", axpy_sse2, rr_row_sse2, weigh_sse2,
                                       residue_column_sse2};
const rem_fast_kernels kernels_avx2 = {"avx2", axpy_avx2, rr_row_avx2, weigh_avx2,
                                       residue_column_avx2};
const rem_fast_kernels kernels_avx512 = {"avx512", axpy_avx512, rr_row_avx512, weigh_avx512,
                                         residue_column_avx512};

bool has_avx2() {
    return __builtin_cpu_supports("avx2");
}
bool has_avx512() {
    return __builtin_cpu_supports("avx512f");
}

#endif  // REM_FAST_X86

const rem_fast_kernels *best_kernels() {
#ifdef REM_FAST_X86
    __builtin_cpu_init();
    if (has_avx512()) return &kernels_avx512;
    if (has_avx2()) return &kernels_avx2;
    return &kernels_sse2;
#else
    return &kernels_scalar;
#endif
}

const rem_fast_kernels *current = best_kernels();

}  // namespace

const rem_fast_kernels *rem_fast_current_kernels(void) {
    return current;
}

const char *rem_fast_instruction_set(void) {
    return current->name;
}

int rem_fast_select_instruction_set(const char *name) {
    if (std::strcmp(name, "scalar") == 0) {
        current = &kernels_scalar;
        return 0;
    }
#ifdef REM_FAST_X86
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
#endif
    return 1;
}
