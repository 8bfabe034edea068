// The converged estimate of the between-subject variance of one voxel: the
// restricted maximum likelihood estimate of tau2 >= 0 for
//   y = X beta + e,  Cov(e) = V = diag(s_i^2 + tau2),
// iterated in double precision until it no longer moves, as an alternative
// to the classic estimate, which stops its EM steps at a 5 % change.
//
// With W = V^-1, M = X'WX and P = W - WX M^- X'W the REML log-likelihood is
//   l(tau2) = -1/2 (log|V| + log|M| + y'Py)
// with score        S = 1/2 (y'P^2y - tr P),
// observed info     J = y'P^3y - 1/2 tr P^2,
// expected info     I = 1/2 tr P^2.
// V is diagonal, so everything comes from the Cholesky factor L of M
// (k x k) and the rows z_i = L^-1 w_i^1/2 x_i of Z = W^1/2 X L^-T, whose
// columns are orthonormal: P = W^1/2 (I - ZZ') W^1/2.  One evaluation costs
// O(n k^2); nothing n x n is formed.
//
// The root of S is found by a safeguarded Newton iteration on a bracket:
// start at tau2 = 0; if S(0) <= 0 the maximum over tau2 >= 0 is at the
// boundary and the estimate is 0 (a negative maximiser truncated to 0).
// Otherwise lo = 0 has S > 0 and hi is open (S < 0 for large tau2, where S
// behaves as (y'Py - (n - p) tau2) / (2 tau2^2)).  Each step is Newton's
// S/J when 0 < J < 2 I, else the scoring step S/I (far below the root J is
// large: Newton would creep where scoring jumps; both steps go the way S
// points); a step that leaves the bracket, or (once the
// bracket is closed) one that is not below half the step before the last,
// is replaced by bisection.  Every evaluation replaces one end of the
// bracket.  While hi is open the steps only go up from lo and can come to
// rest only at a root of S; once it is closed, bisection at least every
// other step halves it.  So the iteration converges to a point where S
// changes sign from + to -, a local maximum of l, and near it the Newton
// steps converge quadratically (on null studies 4 to 6 evaluations a voxel
// on average, at most 9).
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "converged.h"
#include "rem.h"
#include "util.h"
#include "weighting.h"
#include "workspace.h"

namespace {

using converged::evaluation;
using converged::kDependentColumn;

// Pointers into the caller's scratch.
struct scratch_layout {
    double *m;     // k x k: lower triangle X'WX, then its Cholesky factor L
    double *g;     // k x k: lower triangle Z'WZ
    double *z;     // n x k: rows z_i
    double *w;     // n: weights 1 / (s_i^2 + tau2)
    double *root;  // n: their square roots
    double *e;     // n: W^1/2 y less its projection onto Z
    double *c;     // k: Z' W^1/2 y, then Z' W e
    double *kept;  // k: 1 for a column in the factor, 0 for a left-out one
};

scratch_layout lay_out(int n, int k, double *scratch) {
    const size_t kk = static_cast<size_t>(k) * static_cast<size_t>(k);
    scratch_layout s;
    s.m = scratch;
    s.g = s.m + kk;
    s.z = s.g + kk;
    s.w = s.z + static_cast<size_t>(n) * static_cast<size_t>(k);
    s.root = s.w + n;
    s.e = s.root + n;
    s.c = s.e + n;
    s.kept = s.c + k;
    return s;
}

struct problem {
    int n, k;
    const float *x;   // n x k, rows first
    const double *y;  // n effects, scaled
    const double *v;  // n squared error values, scaled
};

// Everything at tau2 = t.  K is the number of columns when it is known at
// compile time (0: pr.k): the same operations in the same order, with the
// short loops over the columns unrolled.
template <int K>
evaluation evaluate_columns(const problem &pr, double t, const scratch_layout &s) {
    const int n = pr.n, k = K > 0 ? K : pr.k;
    auto x_at = [&pr, k](const problem &, int i, int j) {
        return static_cast<double>(pr.x[static_cast<size_t>(i) * k + j]);
    };
    for (int i = 0; i < n; ++i) {
        s.w[i] = 1.0 / (pr.v[i] + t);
        s.root[i] = std::sqrt(s.w[i]);
    }

    // M = X'WX, lower triangle.
    for (int a = 0; a < k; ++a)
        for (int b = 0; b <= a; ++b) s.m[a * k + b] = 0.0;
    for (int i = 0; i < n; ++i) {
        for (int a = 0; a < k; ++a) {
            const double xa = x_at(pr, i, a) * s.w[i];
            if (xa == 0.0) continue;
            for (int b = 0; b <= a; ++b) s.m[a * k + b] += xa * x_at(pr, i, b);
        }
    }

    // Cholesky factor in place, leaving out dependent columns.
    evaluation ev{};
    for (int j = 0; j < k; ++j) {
        double d = s.m[j * k + j];
        const double original = d;
        for (int l = 0; l < j; ++l) d -= s.m[j * k + l] * s.m[j * k + l];
        if (!(original > 0.0) || !(d > kDependentColumn * original)) {
            s.kept[j] = 0.0;
            for (int i = j; i < k; ++i) s.m[i * k + j] = 0.0;
            continue;
        }
        s.kept[j] = 1.0;
        ++ev.rank;
        const double root_d = std::sqrt(d);
        s.m[j * k + j] = root_d;
        for (int i = j + 1; i < k; ++i) {
            double sum = s.m[i * k + j];
            for (int l = 0; l < j; ++l) sum -= s.m[i * k + l] * s.m[j * k + l];
            s.m[i * k + j] = sum / root_d;
        }
    }

    // Rows of Z, their squared lengths h_i (the leverages), tr P, and
    // G = Z'WZ (lower triangle).
    for (int a = 0; a < k; ++a)
        for (int b = 0; b <= a; ++b) s.g[a * k + b] = 0.0;
    double trace_p = 0.0, trace_p2 = 0.0;
    for (int i = 0; i < n; ++i) {
        double *zi = s.z + static_cast<size_t>(i) * k;
        double h = 0.0;
        for (int j = 0; j < k; ++j) {
            if (s.kept[j] == 0.0) {
                zi[j] = 0.0;
                continue;
            }
            double sum = s.root[i] * x_at(pr, i, j);
            for (int l = 0; l < j; ++l) sum -= s.m[j * k + l] * zi[l];
            zi[j] = sum / s.m[j * k + j];
            h += zi[j] * zi[j];
        }
        trace_p += s.w[i] * (1.0 - h);
        trace_p2 += s.w[i] * s.w[i] * (1.0 - 2.0 * h);
        for (int a = 0; a < k; ++a) {
            const double za = s.w[i] * zi[a];
            if (za == 0.0) continue;
            for (int b = 0; b <= a; ++b) s.g[a * k + b] += za * zi[b];
        }
    }
    // tr P^2 = tr W^2 - 2 tr(W^2 H) + tr(WHWH), H = ZZ', tr(WHWH) = |G|^2.
    for (int a = 0; a < k; ++a) {
        trace_p2 += s.g[a * k + a] * s.g[a * k + a];
        for (int b = 0; b < a; ++b) trace_p2 += 2.0 * s.g[a * k + b] * s.g[a * k + b];
    }

    // e = (I - ZZ') W^1/2 y, so that Py = W^1/2 e: y'Py = |e|^2 and
    // y'P^2y = sum of w_i e_i^2.  Then f = (I - ZZ') W e: y'P^3y = |f|^2.
    for (int j = 0; j < k; ++j) s.c[j] = 0.0;
    for (int i = 0; i < n; ++i) {
        const double b = s.root[i] * pr.y[i];
        const double *zi = s.z + static_cast<size_t>(i) * k;
        for (int j = 0; j < k; ++j) s.c[j] += zi[j] * b;
    }
    double y_p2_y = 0.0;
    for (int i = 0; i < n; ++i) {
        const double *zi = s.z + static_cast<size_t>(i) * k;
        double fitted = 0.0;
        for (int j = 0; j < k; ++j) fitted += zi[j] * s.c[j];
        s.e[i] = s.root[i] * pr.y[i] - fitted;
        y_p2_y += s.w[i] * s.e[i] * s.e[i];
    }
    for (int j = 0; j < k; ++j) s.c[j] = 0.0;
    for (int i = 0; i < n; ++i) {
        const double a = s.w[i] * s.e[i];
        const double *zi = s.z + static_cast<size_t>(i) * k;
        for (int j = 0; j < k; ++j) s.c[j] += zi[j] * a;
    }
    double y_p3_y = 0.0;
    for (int i = 0; i < n; ++i) {
        const double *zi = s.z + static_cast<size_t>(i) * k;
        double projected = 0.0;
        for (int j = 0; j < k; ++j) projected += zi[j] * s.c[j];
        const double f = s.w[i] * s.e[i] - projected;
        y_p3_y += f * f;
    }

    ev.score = 0.5 * (y_p2_y - trace_p);
    ev.observed = y_p3_y - 0.5 * trace_p2;
    ev.expected = 0.5 * trace_p2;
    return ev;
}

evaluation evaluate(const problem &pr, double t, const scratch_layout &s) {
    switch (pr.k) {
        case 1:
            return evaluate_columns<1>(pr, t, s);
        case 2:
            return evaluate_columns<2>(pr, t, s);
        case 3:
            return evaluate_columns<3>(pr, t, s);
        case 4:
            return evaluate_columns<4>(pr, t, s);
        default:
            return evaluate_columns<0>(pr, t, s);
    }
}

}  // namespace

size_t rem_converged_reml_scratch_size(int n, int k) {
    const size_t nn = n > 0 ? static_cast<size_t>(n) : 0;
    const size_t kk = k > 0 ? static_cast<size_t>(k) : 0;
    return 2 * kk * kk + nn * kk + 3 * nn + 2 * kk + 2 * nn;
}

namespace converged {

bool scale_voxel(int n, const float *effect, const float *error, double *y, double *v,
                 size_t stride, double *scale) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        const double e = static_cast<double>(error[i]);
        if (!(e > 0.0) || !std::isfinite(e) || !std::isfinite(effect[i])) return false;
        sum += e * e;
    }
    if (n < 1) return false;
    sum /= n;
    const double root_scale = std::sqrt(sum);
    for (int i = 0; i < n; ++i) {
        y[i * stride] = static_cast<double>(effect[i]) / root_scale;
        v[i * stride] = static_cast<double>(error[i]) * static_cast<double>(error[i]) / sum;
    }
    *scale = sum;
    return true;
}

bool next_point(newton *s, const evaluation &ev, int n) {
    ++s->iterations;
    if (s->iterations == 1) {
        // No residual degrees of freedom, or the score points below 0: the
        // maximum over tau2 >= 0 is at 0.
        if (ev.rank >= n || !(ev.score > 0.0)) return true;
        s->status = REM_CONVERGED_CAPPED;
    } else {
        if (ev.score > 0.0) {
            s->lo = s->t;
        } else if (ev.score < 0.0) {
            s->hi = s->t;
        } else {  // 0: the maximum; NaN (an overflow): no further step
            if (ev.score == 0.0) s->status = 0;
            return true;
        }
        if (s->hi - s->lo < 1e-10 * (1.0 + s->lo)) {
            s->status = 0;
            return true;
        }
    }
    if (s->iterations >= REM_CONVERGED_ITERATION_CAP) return true;

    double step = ev.score / ev.expected;
    if (ev.observed > 0.0 && ev.observed < 2.0 * ev.expected) step = ev.score / ev.observed;
    double next = s->t + step;
    const bool outside = !(next > s->lo && next < s->hi);
    const bool slow = std::isfinite(s->hi) && std::fabs(step) > 0.5 * s->change_before;
    // Only a step down can leave the bracket, and only from a finite hi (an
    // infinite one would take a step that is not a number).
    if (outside || slow) {
        if (!std::isfinite(s->hi)) return true;
        next = 0.5 * (s->lo + s->hi);
    }
    const double tolerance = 1e-10 * (1.0 + s->t);
    if (std::fabs(next - s->t) < tolerance) {  // the score is zero to this precision
        s->t = next;
        s->status = 0;
        return true;
    }
    s->change_before = s->last_change;
    s->last_change = std::fabs(next - s->t);
    s->t = next;
    return false;
}

}  // namespace converged

int rem_converged_reml(int n, int k, const float *design, const float *effect, const float *error,
                       double *scratch, double *tau2, int *iterations) {
    *tau2 = 0.0;
    *iterations = 0;
    // The scaled effects and squared errors live at the end of the scratch.
    const scratch_layout s = lay_out(n, k, scratch);
    double *y = s.kept + k;
    double *v = y + n;
    double scale = 0.0;
    if (!converged::scale_voxel(n, effect, error, y, v, 1, &scale)) return -1;
    const problem pr{n, k, design, y, v};

    converged::newton state;
    while (!converged::next_point(&state, evaluate(pr, state.t, s), n)) {
    }
    *iterations = state.iterations;
    *tau2 = state.t * scale;
    return state.status;
}

// The converged estimate as the first pass of a kernel: the fixed-effects
// variance as the classic estimate gives it, bit for bit, and the converged
// estimate of the random-effects variance, on the workspace's copy of the
// design and its scratch.
int rem_converged_estimate(rem_workspace *ws, const float *effect, const float *error,
                           const int *dof, float *sigma2_fe, float *sigma2_re) {
    if (rem_fixed_effects_variance(ws->n, error, dof, sigma2_fe, sigma2_re) != 0)
        return REM_VOXEL_UNUSABLE;
    double tau2 = 0.0;
    int iterations = 0;
    const int status = rem_converged_reml(ws->n, ws->k, ws->X, effect, error, ws->converged_scratch,
                                          &tau2, &iterations);
    *sigma2_re = static_cast<float>(tau2);
    return status == REM_CONVERGED_CAPPED ? REM_VOXEL_CAPPED : REM_VOXEL_DONE;
}

// The converged kernel estimates a group of voxels side by side; its
// reference route takes them one by one.
const rem_kernel rem_converged_kernel = {"converged", rem_converged_estimate, rem_fast_fit,
                                         rem_kernel_test, rem_converged_estimate_many};
const rem_kernel rem_converged_reference_kernel = {"converged, reference fit",
                                                   rem_converged_estimate, rem_reference_fit,
                                                   rem_kernel_test, nullptr};
