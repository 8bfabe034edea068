// The converged estimate of several voxels at once: kLanes voxels are
// iterated side by side, one in each lane of a vector of doubles, so that
// the long sums over the files, each of which must be added in file order,
// run kLanes at a time instead of one after the other.  Each lane does
// exactly the operations of the one-voxel evaluation (converged_reml.cpp) on
// its own voxel, in the same order, so every voxel gets the same bits as
// rem_converged_reml gives it.  The design is the same for every voxel; what
// differs by lane is the point tau2 and the data.  A lane whose voxel is
// done takes the next voxel of the group, so the lanes stay busy until the
// group runs out.
//
// Where the one-voxel evaluation skips a term (a product that is exactly 0,
// a column left out of the factor), a lane adds +0 or keeps its value: the
// sums start at +0 and an IEEE sum is -0 only when both terms are, so adding
// +0 never changes one of them.
//
// The lanes are the four doubles of AVX2 or the eight of AVX-512, as the
// fast kernel's instruction set is; the code for each is compiled for it
// (converged_lanes.inc).  Elsewhere (older processors, other architectures,
// the instruction set "sse2" or "scalar" chosen) the voxels are estimated
// one after the other.
#include <cmath>
#include <cstddef>
#include <cstring>

#include "converged.h"
#include "rem.h"
#include "weighting.h"
#include "workspace.h"

#if defined(__x86_64__) && defined(__GNUC__)
#define CONVERGED_LANES 1
#include <immintrin.h>

namespace {

using converged::evaluation;
using converged::kDependentColumn;

// Vectors are passed by reference: by value their calling convention would
// depend on the instruction set.
#ifdef __clang__
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace avx2 {
const int kLanes = 4;
typedef double lane __attribute__((vector_size(kLanes * sizeof(double))));
typedef long long lane_mask __attribute__((vector_size(kLanes * sizeof(long long))));
// r = the square root of x, lane by lane, correctly rounded as std::sqrt.
inline void lane_sqrt(const lane &x, lane *r) {
    *r = _mm256_sqrt_pd(x);
}
#include "converged_lanes.inc"
}  // namespace avx2
#ifdef __clang__
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

#ifdef __clang__
#pragma clang attribute push(__attribute__((target("avx512f"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx512f")
#endif
namespace avx512 {
const int kLanes = 8;
typedef double lane __attribute__((vector_size(kLanes * sizeof(double))));
typedef long long lane_mask __attribute__((vector_size(kLanes * sizeof(long long))));
// (Every lane selected: the masked form needs no undefined source.)
inline void lane_sqrt(const lane &x, lane *r) {
    *r = _mm512_mask_sqrt_pd(x, 0xff, x);
}
#include "converged_lanes.inc"
}  // namespace avx512
#ifdef __clang__
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

}  // namespace

#endif  // CONVERGED_LANES

size_t rem_converged_reml_many_scratch_size(int n, int k) {
    const size_t one = rem_converged_reml_scratch_size(n, k);
#ifdef CONVERGED_LANES
    // One extra lane vector of room to align the start.
    const size_t nn = n > 0 ? n : 0, kk = k > 0 ? k : 0;
    const size_t four = (avx2::lanes_count(nn, kk) + 1) * avx2::kLanes;
    const size_t eight = (avx512::lanes_count(nn, kk) + 1) * avx512::kLanes;
    const size_t lanes = four > eight ? four : eight;
    return lanes > one ? lanes : one;
#else
    return one;
#endif
}

void rem_converged_reml_many(int n, int k, const float *design, int count,
                             const float *const *effects, const float *const *errors,
                             double *scratch, double *tau2, int *iterations, int *status) {
#ifdef CONVERGED_LANES
    const char *set = rem_fast_instruction_set();
    if (std::strcmp(set, "avx512") == 0) {
        avx512::estimate_lanes(n, k, design, count, effects, errors, scratch, tau2, iterations,
                               status);
        return;
    }
    if (std::strcmp(set, "avx2") == 0) {
        avx2::estimate_lanes(n, k, design, count, effects, errors, scratch, tau2, iterations,
                             status);
        return;
    }
#endif
    for (int v = 0; v < count; ++v)
        status[v] = rem_converged_reml(n, k, design, effects[v], errors[v], scratch, &tau2[v],
                                       &iterations[v]);
}

// The kernel's first pass over a group of voxels: the fixed-effects variance
// of each, then the converged estimates of those that have one, side by side.
int rem_converged_estimate_many(rem_workspace *ws, int count, const float *const *effects,
                                const float *const *errors, const int *dof, float *sigma2_fe,
                                float *sigma2_re, int *result) {
    if (count > REM_CONVERGED_GROUP) return 1;
    const float *effect[REM_CONVERGED_GROUP] = {};
    const float *error[REM_CONVERGED_GROUP] = {};
    int which[REM_CONVERGED_GROUP] = {};
    int usable = 0;
    for (int v = 0; v < count; ++v) {
        if (rem_fixed_effects_variance(ws->n, errors[v], dof, &sigma2_fe[v], &sigma2_re[v]) != 0) {
            result[v] = REM_VOXEL_UNUSABLE;
            continue;
        }
        effect[usable] = effects[v];
        error[usable] = errors[v];
        which[usable++] = v;
    }
    double tau2[REM_CONVERGED_GROUP];
    int iterations[REM_CONVERGED_GROUP], status[REM_CONVERGED_GROUP];
    rem_converged_reml_many(ws->n, ws->k, ws->X, usable, effect, error, ws->converged_scratch, tau2,
                            iterations, status);
    for (int u = 0; u < usable; ++u) {
        const int v = which[u];
        sigma2_re[v] = static_cast<float>(tau2[u]);
        result[v] = status[u] == REM_CONVERGED_CAPPED ? REM_VOXEL_CAPPED : REM_VOXEL_DONE;
    }
    return 0;
}
