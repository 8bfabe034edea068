// Test helpers for the model's statistics: reading an analysis file,
// building a small model in the global records, a portable random source, and
// independent double-precision weighted least squares and REML.
#ifndef FMRI_REM_TEST_MODEL_H
#define FMRI_REM_TEST_MODEL_H

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "rem.h"
#include "test_support.h"
#include "util.h"

namespace rem_test {

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

inline uint32_t bits(float v) {
    uint32_t u;
    std::memcpy(&u, &v, sizeof u);
    return u;
}

struct Outcome {
    int result;
    std::string out;
};

// Reads text as an analysis file; "@" in the output stands for the file's path.
inline Outcome read_text(const std::string &text) {
    static test_support::TempDir dir;
    const std::string path = dir.file("analysis.txt");
    test_support::write_file(path, text);
    testing::internal::CaptureStdout();
    const int result = REM_read_control_file(path.c_str());
    std::string out = testing::internal::GetCapturedStdout();
    for (size_t at = out.find(path); at != std::string::npos; at = out.find(path, at + 1))
        out.replace(at, path.size(), "@");
    return {result, out};
}

struct Event {
    int shape;                                // 0 square, 1 ramp
    std::vector<std::pair<int, int>> ranges;  // inclusive file index ranges
};

// Fills REM for nfiles files and the given events (event numbers 1, 2, ...),
// builds the design (which releases the matrices of an earlier one) and marks
// the model initialised.
inline void build_model(int nfiles, const std::vector<Event> &events,
                        const std::vector<float> &weights = {}) {
    REM_input.design_layout = 0;
    for (int i = 0; i < REM_MAX_FILES; ++i)
        REM_input.file_weight[i] = i < static_cast<int>(weights.size()) ? weights[i] : 1.0f;
    REM.nfiles = nfiles;
    REM.nevents = static_cast<int>(events.size());
    for (int e = 0; e < REM.nevents; ++e) {
        REM.event_number[e] = e + 1;
        REM.event_shape[e] = events[e].shape;
        REM.event_nranges[e] = static_cast<int>(events[e].ranges.size());
        REM.event_nfiles[e] = 0;
        for (size_t r = 0; r < events[e].ranges.size(); ++r) {
            const auto [start, stop] = events[e].ranges[r];
            REM.range_start[e][r] = start;
            REM.range_stop[e][r] = stop;
            REM.event_nfiles[e] += stop - start + 1;
        }
    }
    REMInternal_define_design_matrix();
    REM.initialized = 1;
}

// Deterministic, platform-independent random numbers (64-bit LCG).
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed * 2862933555777941757ULL + 3037000493ULL) {}
    double uniform()  // in (0, 1)
    {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        return (static_cast<double>(state_ >> 11) + 0.5) / 9007199254740992.0;
    }
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    double normal() {
        const double u = uniform(), v = uniform();
        return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * v);
    }

  private:
    uint64_t state_;
};

using Vec = std::vector<double>;
using Mat = std::vector<Vec>;

inline Vec mat_vec(const Mat &A, const Vec &y) {
    Vec t(A.size(), 0.0);
    for (size_t i = 0; i < A.size(); ++i)
        for (size_t j = 0; j < y.size(); ++j) t[i] += A[i][j] * y[j];
    return t;
}

inline double dot(const Vec &a, const Vec &b) {
    double s = 0.0;
    for (size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
    return s;
}

// The design the model built, in double.
inline Mat design() {
    Mat X(REM.nfiles);
    for (int i = 0; i < REM.nfiles; ++i) X[i].assign(REM.design[i], REM.design[i] + REM.nbasis);
    return X;
}

// Weighted least squares with the diagonal W = (S^2 + sigma2 I)^-1.
struct Wls {
    Mat normal_inverse;  // (X'WX)^-1
    Mat estimator;       // (X'WX)^-1 X'W
    Mat R;               // W - W X (X'WX)^-1 X'W
};

inline Wls wls(const Mat &X, const Vec &s, double sigma2) {
    const size_t n = X.size(), k = X[0].size();
    Vec w(n);
    for (size_t i = 0; i < n; ++i) w[i] = 1.0 / (s[i] * s[i] + sigma2);
    // Gauss-Jordan inversion of N = X'WX (symmetric positive definite, small:
    // no pivoting needed), I turning into N^-1.
    Mat N(k, Vec(k, 0.0)), I(k, Vec(k, 0.0));
    for (size_t a = 0; a < k; ++a) {
        I[a][a] = 1.0;
        for (size_t b = 0; b < k; ++b)
            for (size_t i = 0; i < n; ++i) N[a][b] += X[i][a] * w[i] * X[i][b];
    }
    for (size_t c = 0; c < k; ++c) {
        const double d = N[c][c];
        for (size_t j = 0; j < k; ++j) N[c][j] /= d, I[c][j] /= d;
        for (size_t r = 0; r < k; ++r) {
            const double f = r == c ? 0.0 : N[r][c];
            for (size_t j = 0; j < k; ++j) N[r][j] -= f * N[c][j], I[r][j] -= f * I[c][j];
        }
    }
    Wls out{I, Mat(k, Vec(n, 0.0)), Mat(n, Vec(n, 0.0))};
    for (size_t a = 0; a < k; ++a)
        for (size_t i = 0; i < n; ++i)
            for (size_t b = 0; b < k; ++b) out.estimator[a][i] += I[a][b] * X[i][b] * w[i];
    for (size_t i = 0; i < n; ++i) {
        out.R[i][i] = w[i];
        for (size_t j = 0; j < n; ++j)
            for (size_t a = 0; a < k; ++a) out.R[i][j] -= w[i] * X[i][a] * out.estimator[a][j];
    }
    return out;
}

// Restricted maximum likelihood in double precision: the ordinary
// least-squares residual variance (no errors, unit variance: W = I) as the
// start, then EM steps until one changes the estimate by at most 5 %.  NaN
// when a change comes within 1e-3 of 0.05, where float rounding could decide
// the number of steps.
inline double reml(const Mat &X, const Vec &y, const Vec &s) {
    const size_t n = X.size(), k = X[0].size();
    double sigma2 = dot(y, mat_vec(wls(X, Vec(n, 0.0), 1.0).R, y)) / (n - k);
    for (double change = 1.0; change > 0.05;) {
        const Wls w = wls(X, s, sigma2);
        double trace = 0.0;
        for (size_t i = 0; i < n; ++i) trace += s[i] * s[i] * w.R[i][i];
        const Vec Ry = mat_vec(w.R, y);
        const double next = ((trace + k) * sigma2 + sigma2 * sigma2 * dot(Ry, Ry)) / n;
        change = std::fabs(1.0 - next / sigma2);
        if (std::fabs(change - 0.05) < 1e-3) return NAN;
        sigma2 = next;
    }
    return sigma2;
}

}  // namespace rem_test

#endif
