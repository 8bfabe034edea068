// Final fit and F test: the zero-error shortcut, the exact cases of the test
// (effect size, signs, folding, clamps, floors), and random designs run through
// the estimate, the fit and the test against a double-precision computation.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "rem.h"
#include "rem_test_model.h"

using namespace rem_test;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kPMin = static_cast<float>(std::exp(-100.0));  // 3.78e-44, a denormal

struct FResult {
    int status;
    float t, p_raw, p_corrected, effect, effect_error;
};

FResult run_f(int n, int resels, int condition, int dof)
{
    FResult r{99, 7, 7, 7, 7, 7};
    r.status = REM_calculate_F(n, resels, condition, dof, &r.t, &r.p_raw, &r.p_corrected, &r.effect,
                               &r.effect_error);
    return r;
}

// Upper tail of the F distribution with m and nu degrees of freedom, nu even:
// with x = nu/(nu + m F) and A = nu/2, the tail is I_x(A, m/2)
// = 1 - (1-x)^(m/2) * sum_{j<A} (m/2)_j / j! * x^j.
double f_tail(double F, int m, int nu)
{
    const double x = nu / (nu + m * F);
    const double b = 0.5 * m;
    double term = 1.0, sum = 1.0;
    for (int j = 1; j < nu / 2; ++j) {
        term *= (b + j - 1) / j * x;
        sum += term;
    }
    return 1.0 - std::pow(1.0 - x, b) * sum;
}

// Expected Euler characteristic density times resels, before the clamp.
double corrected_p(double F, int nu, int resels)
{
    return resels * 0.1169 * ((nu - 1.0) / nu * F - 1.0) /
           std::pow(1.0 + F / nu, (nu - 1.0) / 2.0);
}

double clamp_and_floor(double p)
{
    if (p > 1.0 || p < 0.0) p = 1.0;
    return p < kPMin ? kPMin : p;
}

// The estimation in double precision: OLS start, EM steps, stop at a relative
// change of at most 5 %.  NaN when a change comes within 1e-3 of 0.05, where
// float rounding could decide the number of steps.
double reml_reference(const Mat &X, const Vec &y, const Vec &s)
{
    const int n = static_cast<int>(X.size()), k = static_cast<int>(X[0].size());
    const Wls start = wls(X, Vec(n, 0.0), 1.0);  // W = I
    double sigma2 = dot(y, mat_vec(start.R, y)) / (n - k);
    for (double change = 1.0; change > 0.05;) {
        const Wls w = wls(X, s, sigma2);
        double trace = 0.0;
        for (int i = 0; i < n; ++i) trace += s[i] * s[i] * w.R[i][i];
        const Vec Ry = mat_vec(w.R, y);
        const double next = ((trace + k) * sigma2 + sigma2 * sigma2 * dot(Ry, Ry)) / n;
        change = std::fabs(1.0 - next / sigma2);
        if (std::fabs(change - 0.05) < 1e-3) return NAN;
        sigma2 = next;
    }
    return sigma2;
}

}  // namespace

// Only an exact zero (of either sign) gives the all-zero fit; a negative
// error value weighs like its absolute value and a NaN goes into the fit.
TEST(FitFinal, ZeroErrorValueGivesAnAllZeroFit)
{
    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    const std::vector<float> y{1.0f, 2.0f, 4.0f, 3.5f};
    auto fit = [&](const std::vector<float> &s) {  // fitted values, then event sums
        std::vector<float> out(8, 7.0f);
        EXPECT_EQ(REM_fit_final(0.3f, 4, y.data(), s.data(), out.data(), out.data() + 4), 0);
        return out;
    };
    const std::vector<std::vector<float>> zero = {{1, 0, 2, 1}, {1, 1, 2, -0.0f}, {kNaN, 0, -2, 1}};
    for (const auto &s : zero) {
        REM.beta[1] = REM.normal_inverse[1][0] = 5.0f;
        EXPECT_EQ(fit(s), std::vector<float>(8, 0.0f));
        EXPECT_EQ(REM.beta[1], 0.0f);
        EXPECT_EQ(REM.normal_inverse[1][0], 0.0f);
    }
    const std::vector<float> plus = fit({1, 1.5f, 2, 0.5f});
    EXPECT_NE(plus[0], 0.0f);
    EXPECT_EQ(fit({-1, 1.5f, -2, 0.5f}), plus);
    EXPECT_TRUE(std::isnan(fit({1, kNaN, 2, 0.5f})[0]));
}

// Hand-set beta and normal_inverse (N = scale * I): the contrast values are
// exactly known, and so are F, the effect size and its sign.
TEST(CalculateF, ExactCases)
{
    struct Case {
        const char *what;
        float b0, b1, n_scale;
        std::vector<std::vector<int>> rows;
        int dof, resels;
        float effect;
        double t, p_raw, p_corrected;
    };
    const std::vector<std::vector<int>> two{{1, 0}, {0, 1}}, first{{1, 0}};
    const float p3 = static_cast<float>(std::sqrt(14.0 / 3.0));
    const float p7 = static_cast<float>(std::sqrt(6.0 / 7.0));
    const Case cases[] = {
        {"zero beta, two rows", 0, 0, 1, two, 10, 100, 0, 0, 1, 1},
        {"all-zero contrast row", 3, 5, 1, {{0, 0}}, 10, 100, 0, 0, 1, 1},
        {"2 and -2: first wins", 2, -2, 1, two, 10, 0, 2, 2, 2 * std::pow(10.0 / 18.0, 5), kPMin},
        {"-3 and 2: sign kept", -3, 2, 1, two, 10, 0, -3, -std::sqrt(6.5),
         2 * std::pow(10.0 / 23.0, 5), kPMin},
        {"m = 2, p0 = 0.3 doubled", p3, 0, 1, two, 2, 0, p3, std::sqrt(7.0 / 3.0), 0.6, kPMin},
        {"m = 2, p0 = 0.7 folded", p7, 0, 1, two, 2, 0, p7, std::sqrt(3.0 / 7.0), 0.6, kPMin},
        {"m = 2, p0 = 1 gives 2, set to 1", 1e-5f, 0, 1, two, 2, 10, 1e-5f, std::sqrt(5e-11), 1, 1},
        {"m = 1, Student t with 2 dof", 1.5f, 0, 0.25f, first, 2, 10, 1.5f, 3,
         1 - 3 / std::sqrt(11.0), 1},
        {"negative rho", 0.5f, 0, 1, first, 10, 100, 0.5f, 0.5, f_tail(0.25, 1, 10), 1},
        {"huge F floored", 1e10f, 0, 1, first, 20, 1000, 1e10f, 1e10, kPMin, kPMin},
        {"resels 0", 3, 0, 1, first, 10, 0, 3, 3, f_tail(9, 1, 10), kPMin},
    };
    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        REM.beta[0] = c.b0;
        REM.beta[1] = c.b1;
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j) REM.normal_inverse[i][j] = i == j ? c.n_scale : 0.0f;
        set_condition(0, c.rows);
        const FResult r = run_f(4, c.resels, 0, c.dof);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.effect, c.effect);
        EXPECT_NEAR(r.t, c.t, 1e-6 * std::fabs(c.t));
        const double error = c.effect / std::fabs(c.t);  // 0 / 0 for a zero effect
        if (std::isnan(error))
            EXPECT_TRUE(std::isnan(r.effect_error));
        else
            EXPECT_NEAR(r.effect_error, error, 1e-6 * std::fabs(error));
        EXPECT_NEAR(r.p_raw, c.p_raw, 1e-5 * c.p_raw);
        EXPECT_NEAR(r.p_corrected, c.p_corrected, 1e-5 * c.p_corrected);
    }
}

// Random designs (groups, square and ramp events, weights, several-row
// contrasts) through the estimate, the fit at its value and the test of each
// condition, against double precision.  Tolerances: float32 rounding through
// the inversions and a few EM steps (relative 1e-4, observed 1e-5); p values
// move by up to nu/2 times the relative error of F (relative 2e-3).
TEST(EstimateFitAndTest, RandomDesignsAgreeWithDoublePrecision)
{
    using Rows = std::vector<std::vector<int>>;
    struct Design {
        int n;
        std::vector<Event> events;
        std::vector<Rows> conditions;
    };
    const Design designs[] = {
        {12, {{0, {{0, 5}}}, {0, {{6, 11}}}}, {{{1, 0}}, {{1, -1}}, {{1, 0}, {0, 1}}}},
        {15,
         {{0, {{0, 6}}}, {0, {{7, 14}}}, {1, {{0, 14}}}},
         {{{0, 0, 1}}, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {{1, -1, 0}, {0, 0, 1}}}},
        {16,
         {{0, {{0, 3}, {8, 11}}}, {0, {{4, 7}, {12, 15}}}, {1, {{0, 6}}}, {1, {{8, 14}}}},
         {{{1, 1, 0, 0}}, {{0, 0, 1, -1}}, {{0, 0, 1, 0}, {0, 0, 0, 1}}}},
        {9, {{1, {{0, 8}}}, {0, {{0, 8}}}}, {{{1, 0}}, {{1, 0}, {0, 1}}}},
    };
    Random rng(20261122);
    for (const Design &d : designs) {
        const int k = static_cast<int>(d.events.size());
        for (int trial = 0; trial < 3; ++trial) {
            std::vector<float> w(d.n, 1.0f);  // unit weights in the first trial
            for (float &v : w) v = trial == 0 ? 1.0f : static_cast<float>(rng.uniform(0.5, 2.0));
            build_model(d.n, d.events, w);
            const Mat X = design();
            const double v = rng.uniform(0.5, 3.0);  // the true random-effects variance
            std::vector<float> y(d.n), s(d.n);
            std::vector<int> dof(d.n);
            double sigma2_ref = NAN;
            while (std::isnan(sigma2_ref)) {  // new data while the step count is in doubt
                for (int i = 0; i < d.n; ++i) {
                    s[i] = static_cast<float>(rng.uniform(0.4, 1.6));
                    double mu = 0.0;
                    for (int j = 0; j < k; ++j) mu += X[i][j] * (1.0 + j);
                    y[i] = static_cast<float>(mu + rng.normal() * std::sqrt(s[i] * s[i] + v));
                    dof[i] = 10 + static_cast<int>(rng.uniform() * 20);
                }
                sigma2_ref = reml_reference(X, to_double(y), to_double(s));
            }
            float fe = 0.0f, sigma2 = 0.0f;
            ASSERT_EQ(REM_REML_iterate(d.n, y.data(), s.data(), dof.data(), &fe, &sigma2), 0);
            EXPECT_NEAR(sigma2, sigma2_ref, 1e-4 * std::fabs(sigma2_ref));

            std::vector<float> fitted(d.n), sums(d.n);
            ASSERT_EQ(REM_fit_final(sigma2, d.n, y.data(), s.data(), fitted.data(), sums.data()),
                      0);
            const Wls fit = wls(X, to_double(s), sigma2);
            const Vec beta = mat_vec(fit.estimator, to_double(y));
            for (int j = 0; j < k; ++j)
                EXPECT_NEAR(REM.beta[j], beta[j], 1e-4 * (std::fabs(beta[j]) + 0.1));
            for (int i = 0; i < d.n; ++i) {
                double f = 0.0, sum = 0.0, size = 0.1;  // size: the terms' magnitude
                for (int j = 0; j < k; ++j) {
                    f += X[i][j] * beta[j];
                    size += std::fabs(X[i][j] * beta[j]) + std::fabs(beta[j]);
                    sum += X[i][j] != 0.0 ? beta[j] : 0.0;
                }
                EXPECT_NEAR(fitted[i], f, 1e-4 * size);
                EXPECT_NEAR(sums[i], sum, 1e-4 * size);
            }

            for (size_t c = 0; c < d.conditions.size(); ++c) {
                const Rows &L = d.conditions[c];
                set_condition(static_cast<int>(c), L);
                const int m = static_cast<int>(L.size());
                Vec cv(m, 0.0);
                Mat M = zeros(m, m);
                double effect = 0.0;
                for (int r = 0; r < m; ++r) {
                    for (int j = 0; j < k; ++j) cv[r] += L[r][j] * beta[j];
                    if (std::fabs(cv[r]) > std::fabs(effect)) effect = cv[r];
                    for (int r2 = 0; r2 < m; ++r2)
                        for (int i = 0; i < k; ++i)
                            for (int j = 0; j < k; ++j)
                                M[r][r2] += L[r][i] * fit.normal_inverse[i][j] * L[r2][j];
                }
                const double F = dot(cv, mat_vec(inverse(M), cv)) / m;
                const int nu = 2 * (3 + static_cast<int>(rng.uniform() * 12));
                const int resels = static_cast<int>(rng.uniform() * 20);
                double p = f_tail(F, m, nu);
                if (m > 1) p = 2 * p > 1 ? 2 - 2 * p : 2 * p;

                const FResult r = run_f(d.n, resels, static_cast<int>(c), nu);
                ASSERT_EQ(r.status, 0);
                EXPECT_NEAR(r.effect, effect, 1e-4 * (std::fabs(effect) + 0.1));
                EXPECT_NEAR(r.t, std::copysign(std::sqrt(F), effect), 1e-4 * std::sqrt(F));
                const double error = effect / std::sqrt(F);
                EXPECT_NEAR(r.effect_error, error, 1e-4 * std::fabs(error));
                EXPECT_NEAR(r.p_raw, clamp_and_floor(p), 2e-3 * clamp_and_floor(p));
                const double pc = clamp_and_floor(corrected_p(F, nu, resels));
                EXPECT_NEAR(r.p_corrected, pc, 2e-3 * pc);
            }
        }
    }
}
