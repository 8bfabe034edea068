// Steps that every route to a voxel's estimate, fit and test shares: the
// check of the model against the data, the fixed-effects variance, the
// diagonal of per-file error values, the weighting (S^2 + sigma2.I)^-1 and the
// p values of an F statistic.  Internal to the model module.
#ifndef FMRI_REM_WEIGHTING_H
#define FMRI_REM_WEIGHTING_H

#include <cmath>
#include <cstdint>
#include <cstring>

// -1 with both variances 0 when an error value is not positive (0, negative
// or NaN); else 0 with sigma2_fe = the error values squared, weighted by the
// files' degrees of freedom (sigma2_re is not touched).
int rem_fixed_effects_variance(int n, const float *error, const int *dof, float *sigma2_fe,
                               float *sigma2_re);

// The REML loop's update is a function of the float estimate alone, so once
// an estimate repeats, the loop runs through the same values for ever.
// Brent's cycle detection sees such a repeat, bit for bit, within a few
// cycle lengths of its start, keeping one saved estimate: repeats(x) is true
// when x equals the saved estimate, or when the loop has taken kMaxSteps
// steps (a safety net; no float sequence that does not repeat gets there).
class rem_cycle_detector {
  public:
    static constexpr int kMaxSteps = 10000;

    explicit rem_cycle_detector(float start) : saved_(bits(start)) {}

    bool repeats(float x) {
        const uint32_t b = bits(x);
        if (b == saved_ || ++steps_ >= kMaxSteps) return true;
        if (++since_ == power_) {
            saved_ = b;
            power_ *= 2;
            since_ = 0;
        }
        return false;
    }

  private:
    static uint32_t bits(float x) {
        uint32_t b;
        std::memcpy(&b, &x, sizeof b);
        return b;
    }
    uint32_t saved_;
    int power_ = 1;
    int since_ = 0;
    int steps_ = 0;
};

// From F = Q/m of a contrast of m rows and dof degrees of freedom: t =
// sqrt(F) with the sign of the effect size, effect_error = effect size / t,
// p_raw from the upper tail of F(m, dof) (doubled and folded for m > 1) and
// p_corrected = resels * the Euler-characteristic density at t, clamped to
// [0, 1]; both p values at least exp(-100).  A zero effect size gives t 0 and
// p values 1.  Returns 1, with the incomplete beta function's a and b, when
// the raw p is undefined (dof or m not positive); else 0.
int rem_f_test(float F, int m, int dof, int resels, const float *effect_size, float *t_value,
               float *p_raw, float *p_corrected, float *effect_error, double *domain_a,
               double *domain_b);

// 1 when some error value is exactly 0 (NaN and negative values do not
// count): the fit is then all zero, and fitted, event_sum and beta are set
// to 0 here (the caller clears its normal_inverse).  Else 0, nothing set.
inline int rem_zero_error_fit(int n, int k, const float *error, float *fitted, float *event_sum,
                              float *beta) {
    int zero_error = 0;
    for (int i = 0; i < n; ++i) {
        if (error[i] == 0.0f) zero_error = 1;
    }
    if (!zero_error) return 0;
    for (int i = 0; i < n; ++i) {
        fitted[i] = 0.0f;
        event_sum[i] = 0.0f;
    }
    for (int j = 0; j < k; ++j) beta[j] = 0.0f;
    return 1;
}

// fitted[i] = sum over j of X(i, j) * beta[j], and event_sum[i] = the sum of
// beta[j] over the j with X(i, j) not 0 (a NaN counts as not 0), both float
// sums in column order.  design(i, j) gives X(i, j) in the caller's storage.
template <class Design>
void rem_fitted_values(int n, int k, Design design, const float *beta, float *fitted,
                       float *event_sum) {
    for (int i = 0; i < n; ++i) {
        float value = 0.0f;
        float sum = 0.0f;
        for (int j = 0; j < k; ++j) {
            const float x = design(i, j);
            value += x * beta[j];
            if (x != 0.0f) sum += beta[j];
        }
        fitted[i] = value;
        event_sum[i] = sum;
    }
}

// Contrast values contrast[r] = sum over j of L[r][j] * beta[j] (float sums)
// for the m rows of a condition; returns the first value of largest
// magnitude, sign kept (0 when all are 0).
inline float rem_contrast_values(int m, int k, float *const *L, const float *beta,
                                 float *contrast) {
    float largest = 0.0f;
    for (int r = 0; r < m; ++r) {
        float c = 0.0f;
        for (int j = 0; j < k; ++j) c += L[r][j] * beta[j];
        contrast[r] = c;
        if (std::fabs(c) > std::fabs(largest)) largest = c;
    }
    return largest;
}

// M = L.N.L' (m x m), one float sum over i and then j for each element;
// normal_inverse(i, j) reads N and set(r, s, value) stores M in the
// caller's storage.
template <class NormalInverse, class Store>
void rem_contrast_covariance(int m, int k, float *const *L, NormalInverse normal_inverse,
                             Store set) {
    for (int r = 0; r < m; ++r) {
        for (int s = 0; s < m; ++s) {
            float sum = 0.0f;
            for (int i = 0; i < k; ++i) {
                for (int j = 0; j < k; ++j) sum += L[r][i] * normal_inverse(i, j) * L[s][j];
            }
            set(r, s, sum);
        }
    }
}

// F = Q / m with Q = sum over r and then s of c_r * Minv(r, s) * c_s.
template <class Inverse>
float rem_contrast_F(int m, const float *contrast, Inverse m_inverse) {
    float Q = 0.0f;
    for (int r = 0; r < m; ++r) {
        for (int s = 0; s < m; ++s) Q += contrast[r] * m_inverse(r, s) * contrast[s];
    }
    return Q / static_cast<float>(m);
}

#endif
