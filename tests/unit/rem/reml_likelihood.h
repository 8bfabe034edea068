// The REML log-likelihood of the between-subject variance in double
// precision, straight from its definition, and its maximum found by
// searching ever finer grids (no derivatives): an independent check of the
// converged estimate.
#ifndef FMRI_REM_REML_LIKELIHOOD_H
#define FMRI_REM_REML_LIKELIHOOD_H

#include <algorithm>
#include <cmath>

#include "rem_test_model.h"

namespace rem_test {

// log det of a symmetric positive definite matrix (Gaussian elimination).
inline double log_det(Mat A) {
    double sum = 0.0;
    for (size_t c = 0; c < A.size(); ++c) {
        sum += std::log(A[c][c]);
        for (size_t r = c + 1; r < A.size(); ++r) {
            const double f = A[r][c] / A[c][c];
            for (size_t j = c; j < A.size(); ++j) A[r][j] -= f * A[c][j];
        }
    }
    return sum;
}

// -1/2 (log|V| + log|X'V^-1X| + y'Py) with V = diag(s_i^2 + tau2).
inline double reml_loglik(const Mat &X, const Vec &y, const Vec &s, double tau2) {
    double log_v = 0.0;
    for (double si : s) log_v += std::log(si * si + tau2);
    const Wls fit = wls(X, s, tau2);
    return -0.5 * (log_v - log_det(fit.normal_inverse) + dot(y, mat_vec(fit.R, y)));
}

// The maximiser of f over [lo, hi]: 400 points, then 400 over the two
// intervals around the best one, and so on.
template <class F>
double grid_maximum(F f, double lo, double hi) {
    double best = lo;
    for (int level = 0; level < 8; ++level) {
        double best_value = -HUGE_VAL;
        const double h = (hi - lo) / 400;
        for (int p = 0; p <= 400; ++p) {
            const double value = f(lo + p * h);
            if (value > best_value) best_value = value, best = lo + p * h;
        }
        lo = std::max(lo, best - h);
        hi = std::min(hi, best + h);
    }
    return best;
}

inline double reml_grid_maximum(const Mat &X, const Vec &y, const Vec &s, double lo, double hi) {
    return grid_maximum([&](double t) { return reml_loglik(X, y, s, t); }, lo, hi);
}

}  // namespace rem_test

#endif
