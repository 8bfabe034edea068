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
// The lanes are four doubles of AVX2; the functions that work on them are
// compiled for it and run only where the fast kernel runs its AVX2 or
// AVX-512 variant.  Elsewhere (older processors, other architectures, the
// instruction set "sse2" or "scalar" chosen) the voxels are estimated one
// after the other.
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
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace {

using converged::evaluation;
using converged::kDependentColumn;

// Voxels estimated side by side.
const int kLanes = 4;

#ifdef CONVERGED_LANES

typedef double lane __attribute__((vector_size(kLanes * sizeof(double))));
typedef long long lane_mask __attribute__((vector_size(kLanes * sizeof(long long))));

// r = the square root of x, lane by lane, correctly rounded as std::sqrt.
// (Vectors are passed by reference: by value their calling convention
// would depend on the instruction set.)
inline void lane_sqrt(const lane &x, lane *r) {
    *r = _mm256_sqrt_pd(x);
}

// Pointers into the caller's scratch, every entry one lane vector.
struct lanes_layout {
    lane *m;     // k x k: lower triangle X'WX, then its Cholesky factor L
    lane *g;     // k x k: lower triangle Z'WZ
    lane *c;     // k: Z' W^1/2 y
    lane *c2;    // k: Z' W e
    lane *kept;  // k: 1 for a column in the factor, 0 for a left-out one
    lane *z;     // n x k: rows z_i
    lane *w;     // n: weights 1 / (v_i + t)
    lane *root;  // n: their square roots
    lane *e;     // n
    lane *y;     // n: scaled effects
    lane *v;     // n: scaled squared errors
};

size_t lanes_count(int n, int k) {
    const size_t nn = static_cast<size_t>(n), kk = static_cast<size_t>(k);
    return 2 * kk * kk + 3 * kk + nn * kk + 5 * nn;
}

lanes_layout lay_out(int n, int k, lane *at) {
    const size_t nn = static_cast<size_t>(n), kk = static_cast<size_t>(k);
    lanes_layout s;
    s.m = at;
    s.g = s.m + kk * kk;
    s.c = s.g + kk * kk;
    s.c2 = s.c + kk;
    s.kept = s.c2 + kk;
    s.z = s.kept + kk;
    s.w = s.z + nn * kk;
    s.root = s.w + nn;
    s.e = s.root + nn;
    s.y = s.e + nn;
    s.v = s.y + nn;
    return s;
}

// The evaluation at tau2 = t in every lane; the operations of
// evaluate_columns in converged_reml.cpp, lane by lane.
template <int K>
void evaluate_lanes(int n, int pk, const float *x, const lane &t, const lanes_layout &s,
                    evaluation ev[kLanes]) {
    const int k = K > 0 ? K : pk;
    auto x_at = [x, k](int i, int j) {
        return static_cast<double>(x[static_cast<size_t>(i) * k + j]);
    };
    const lane zero = {0.0, 0.0, 0.0, 0.0};
    // The weights and M = X'WX, lower triangle.  w is positive and finite,
    // so x w is 0 in every lane where x is; elsewhere a product may still
    // round to 0.  (The one-voxel evaluation makes these and the following
    // sums in passes of their own; each sum gets the same terms in the same
    // order here, where fewer passes read the rows.)
    for (int a = 0; a < k; ++a)
        for (int b = 0; b <= a; ++b) s.m[a * k + b] = zero;
    for (int i = 0; i < n; ++i) {
        s.w[i] = 1.0 / (s.v[i] + t);
        lane_sqrt(s.w[i], &s.root[i]);
        for (int a = 0; a < k; ++a) {
            const double x_ia = x_at(i, a);
            if (x_ia == 0.0) continue;
            const lane xa = x_ia * s.w[i];
            const lane_mask none = xa == 0.0;
            for (int b = 0; b <= a; ++b) s.m[a * k + b] += none ? zero : xa * x_at(i, b);
        }
    }

    // Cholesky factor in place, lane by lane, leaving out dependent columns.
    int rank[kLanes] = {0, 0, 0, 0};
    for (int l = 0; l < kLanes; ++l) {
        for (int j = 0; j < k; ++j) {
            double d = s.m[j * k + j][l];
            const double original = d;
            for (int q = 0; q < j; ++q) d -= s.m[j * k + q][l] * s.m[j * k + q][l];
            if (!(original > 0.0) || !(d > kDependentColumn * original)) {
                s.kept[j][l] = 0.0;
                for (int i = j; i < k; ++i) s.m[i * k + j][l] = 0.0;
                continue;
            }
            s.kept[j][l] = 1.0;
            ++rank[l];
            const double root_d = std::sqrt(d);
            s.m[j * k + j][l] = root_d;
            for (int i = j + 1; i < k; ++i) {
                double sum = s.m[i * k + j][l];
                for (int q = 0; q < j; ++q) sum -= s.m[i * k + q][l] * s.m[j * k + q][l];
                s.m[i * k + j][l] = sum / root_d;
            }
        }
    }
    // Rows of Z, the leverages h_i, tr P, tr P^2, G = Z'WZ and Z' W^1/2 y.
    for (int a = 0; a < k; ++a)
        for (int b = 0; b <= a; ++b) s.g[a * k + b] = zero;
    for (int j = 0; j < k; ++j) s.c[j] = zero;
    lane trace_p = zero, trace_p2 = zero;
    for (int i = 0; i < n; ++i) {
        lane *zi = s.z + static_cast<size_t>(i) * k;
        lane h = zero;
        for (int j = 0; j < k; ++j) {
            lane sum = s.root[i] * x_at(i, j);
            for (int q = 0; q < j; ++q) sum -= s.m[j * k + q] * zi[q];
            const lane_mask keep = s.kept[j] != 0.0;
            const lane zj = keep ? sum / s.m[j * k + j] : zero;
            zi[j] = zj;
            h = keep ? h + zj * zj : h;
        }
        trace_p += s.w[i] * (1.0 - h);
        trace_p2 += s.w[i] * s.w[i] * (1.0 - 2.0 * h);
        for (int a = 0; a < k; ++a) {
            const lane za = s.w[i] * zi[a];
            const lane_mask none = za == 0.0;
            for (int b = 0; b <= a; ++b) s.g[a * k + b] += none ? zero : za * zi[b];
        }
        const lane b = s.root[i] * s.y[i];
        for (int j = 0; j < k; ++j) s.c[j] += zi[j] * b;
    }
    for (int a = 0; a < k; ++a) {
        trace_p2 += s.g[a * k + a] * s.g[a * k + a];
        for (int b = 0; b < a; ++b) trace_p2 += 2.0 * s.g[a * k + b] * s.g[a * k + b];
    }

    // e = (I - ZZ') W^1/2 y, y'P^2y and Z' W e; then f = (I - ZZ') W e.
    for (int j = 0; j < k; ++j) s.c2[j] = zero;
    lane y_p2_y = zero;
    for (int i = 0; i < n; ++i) {
        const lane *zi = s.z + static_cast<size_t>(i) * k;
        lane fitted = zero;
        for (int j = 0; j < k; ++j) fitted += zi[j] * s.c[j];
        s.e[i] = s.root[i] * s.y[i] - fitted;
        y_p2_y += s.w[i] * s.e[i] * s.e[i];
        const lane a = s.w[i] * s.e[i];
        for (int j = 0; j < k; ++j) s.c2[j] += zi[j] * a;
    }
    lane y_p3_y = zero;
    for (int i = 0; i < n; ++i) {
        const lane *zi = s.z + static_cast<size_t>(i) * k;
        lane projected = zero;
        for (int j = 0; j < k; ++j) projected += zi[j] * s.c2[j];
        const lane f = s.w[i] * s.e[i] - projected;
        y_p3_y += f * f;
    }

    const lane score = 0.5 * (y_p2_y - trace_p);
    const lane observed = y_p3_y - 0.5 * trace_p2;
    const lane expected = 0.5 * trace_p2;
    for (int l = 0; l < kLanes; ++l)
        ev[l] = evaluation{score[l], observed[l], expected[l], rank[l]};
}

void evaluate(int n, int k, const float *x, const lane &t, const lanes_layout &s,
              evaluation ev[kLanes]) {
    switch (k) {
        case 1:
            return evaluate_lanes<1>(n, k, x, t, s, ev);
        case 2:
            return evaluate_lanes<2>(n, k, x, t, s, ev);
        case 3:
            return evaluate_lanes<3>(n, k, x, t, s, ev);
        case 4:
            return evaluate_lanes<4>(n, k, x, t, s, ev);
        default:
            return evaluate_lanes<0>(n, k, x, t, s, ev);
    }
}

// The estimates of count voxels, kLanes at a time (see
// rem_converged_reml_many).
void estimate_lanes(int n, int k, const float *design, int count, const float *const *effects,
                    const float *const *errors, double *scratch, double *tau2, int *iterations,
                    int *status) {
    // The scratch aligned to a whole lane vector.
    const size_t bytes = sizeof(lane);
    const size_t misaligned = reinterpret_cast<size_t>(scratch) % bytes;
    lane *base = reinterpret_cast<lane *>(reinterpret_cast<char *>(scratch) +
                                          (misaligned != 0 ? bytes - misaligned : 0));
    const lanes_layout s = lay_out(n > 0 ? n : 0, k > 0 ? k : 0, base);
    double *y = reinterpret_cast<double *>(s.y);
    double *v = reinterpret_cast<double *>(s.v);

    int voxel[kLanes];
    double scale[kLanes];
    converged::newton state[kLanes];
    lane t = {0.0, 0.0, 0.0, 0.0};
    int next = 0, busy = 0;
    // Gives lane l the next voxel whose values can be used (the others get
    // -1 at once), or leaves it idle on harmless values.
    auto take = [&](int l) {
        while (next < count) {
            const int at = next++;
            tau2[at] = 0.0;
            iterations[at] = 0;
            if (!converged::scale_voxel(n, effects[at], errors[at], y + l, v + l, kLanes,
                                        &scale[l])) {
                status[at] = -1;
                continue;
            }
            voxel[l] = at;
            state[l] = converged::newton();
            t[l] = 0.0;
            ++busy;
            return;
        }
        voxel[l] = -1;
        for (int i = 0; i < n; ++i) {
            y[static_cast<size_t>(i) * kLanes + l] = 0.0;
            v[static_cast<size_t>(i) * kLanes + l] = 1.0;
        }
        t[l] = 0.0;
    };
    for (int l = 0; l < kLanes; ++l) take(l);
    evaluation ev[kLanes];
    while (busy > 0) {
        evaluate(n, k, design, t, s, ev);
        for (int l = 0; l < kLanes; ++l) {
            if (voxel[l] < 0) continue;
            if (!converged::next_point(&state[l], ev[l], n)) {
                t[l] = state[l].t;
                continue;
            }
            const int at = voxel[l];
            tau2[at] = state[l].t * scale[l];
            iterations[at] = state[l].iterations;
            status[at] = state[l].status;
            --busy;
            take(l);
        }
    }
}

#endif  // CONVERGED_LANES

}  // namespace

#ifdef CONVERGED_LANES
#pragma GCC pop_options
#endif

size_t rem_converged_reml_many_scratch_size(int n, int k) {
    const size_t one = rem_converged_reml_scratch_size(n, k);
#ifdef CONVERGED_LANES
    // One extra lane vector of room to align the start.
    const size_t lanes = (lanes_count(n > 0 ? n : 0, k > 0 ? k : 0) + 1) * kLanes;
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
    if (std::strcmp(set, "avx2") == 0 || std::strcmp(set, "avx512") == 0) {
        estimate_lanes(n, k, design, count, effects, errors, scratch, tau2, iterations, status);
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
