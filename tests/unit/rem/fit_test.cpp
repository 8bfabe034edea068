// Final fit and F test: the checks, the zero-error shortcut, the exact cases of
// the test (effect size, signs, folding, clamps, floors) and random designs
// against a double-precision weighted least-squares fit and F distribution.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "rem.h"
#include "rem_test_model.h"

using namespace rem_test;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kPMin = static_cast<float>(std::exp(-100.0));

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
    const double rho = 0.1169 * ((nu - 1.0) / nu * F - 1.0) / std::pow(1.0 + F / nu, (nu - 1.0) / 2.0);
    return resels * rho;
}

double clamp_and_floor(double p)
{
    if (p > 1.0 || p < 0.0) p = 1.0;
    return p < kPMin ? kPMin : p;
}

// Two events over four files; beta and normal_inverse are then set by hand.
void two_event_model()
{
    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
}

}  // namespace

TEST(FitFinal, RefusesAnUninitialisedModel)
{
    REM.initialized = 0;
    float fitted[1] = {7}, sums[1] = {7};
    const float y[1] = {1}, s[1] = {1};
    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_fit_final(1.0f, 1, y, s, fitted, sums), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error in REM_fit_data: first initialize the REM\n");
    EXPECT_EQ(fitted[0], 7.0f);
}

TEST(FitFinalDeathTest, EndsTheProcessOnAWrongNumberOfValues)
{
    two_event_model();
    float fitted[3], sums[3];
    const float y[3] = {1, 2, 3}, s[3] = {1, 1, 1};
    EXPECT_EXIT(REM_fit_final(1.0f, 3, y, s, fitted, sums), testing::ExitedWithCode(1), "");
}

// Only an exact zero (of either sign) triggers the all-zero fit; a negative
// value is squared like its absolute value, a NaN goes into the fit.
TEST(FitFinal, ZeroErrorValueGivesAnAllZeroFit)
{
    two_event_model();
    const std::vector<float> y{1.0f, 2.0f, 4.0f, 3.5f};
    const std::vector<std::vector<float>> zero = {
        {1.0f, 0.0f, 2.0f, 1.0f}, {1.0f, 1.0f, 2.0f, -0.0f}, {kNaN, 0.0f, -2.0f, 1.0f}};
    for (const auto &s : zero) {
        REM.beta[1] = REM.normal_inverse[1][0] = 5.0f;
        std::vector<float> fitted(4, 7.0f), sums(4, 7.0f);
        ASSERT_EQ(REM_fit_final(0.5f, 4, y.data(), s.data(), fitted.data(), sums.data()), 0);
        EXPECT_EQ(fitted, std::vector<float>(4, 0.0f));
        EXPECT_EQ(sums, std::vector<float>(4, 0.0f));
        EXPECT_EQ(REM.beta[1], 0.0f);
        EXPECT_EQ(REM.normal_inverse[1][0], 0.0f);
    }
    std::vector<float> f1(4), s1(4), f2(4), s2(4), f3(4), s3(4);
    const std::vector<float> plus{1.0f, 1.5f, 2.0f, 0.5f}, minus{-1.0f, 1.5f, -2.0f, 0.5f},
        nan{1.0f, kNaN, 2.0f, 0.5f};
    REM_fit_final(0.3f, 4, y.data(), plus.data(), f1.data(), s1.data());
    REM_fit_final(0.3f, 4, y.data(), minus.data(), f2.data(), s2.data());
    EXPECT_NE(f1[0], 0.0f);
    EXPECT_EQ(f1, f2);
    EXPECT_EQ(s1, s2);
    REM_fit_final(0.3f, 4, y.data(), nan.data(), f3.data(), s3.data());
    EXPECT_TRUE(std::isnan(f3[0]));
}

TEST(CalculateF, RejectsABadConditionBeforeABadCount)
{
    two_event_model();
    set_condition(0, {{1, 0}});
    set_condition(1, {{0, 1}});
    struct Case {
        int n, condition;
        std::string message;
    };
    const Case cases[] = {
        {4, 2, "Error: the specified condition (2) is out of range (0-2)\n"},
        {4, -1, "Error: the specified condition (-1) is out of range (0-2)\n"},
        {3, 7, "Error: the specified condition (7) is out of range (0-2)\n"},
        {3, 0, "Error: # time points (3) != # used in REM fit (4).\n"},
    };
    for (const Case &c : cases) {
        testing::internal::CaptureStdout();
        const FResult r = run_f(c.n, 10, c.condition, 10);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.t, 7.0f);
    }
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
    const double s65 = std::sqrt(6.5);
    const Case cases[] = {
        {"zero beta", 0, 0, 1, {{1, 0}, {0, 1}}, 10, 100, 0, 0, 1, 1},
        {"all-zero contrast row", 3, 5, 1, {{0, 0}}, 10, 100, 0, 0, 1, 1},
        {"2 and -2: first wins", 2, -2, 1, {{1, 0}, {0, 1}}, 10, 0, 2, 2,
         2 * std::pow(10.0 / 18.0, 5), kPMin},
        {"-3 and 2: sign kept", -3, 2, 1, {{1, 0}, {0, 1}}, 10, 0, -3, -s65,
         2 * std::pow(10.0 / 23.0, 5), kPMin},
        {"m = 2, p0 = 0.3 doubled", static_cast<float>(std::sqrt(14.0 / 3.0)), 0, 1,
         {{1, 0}, {0, 1}}, 2, 0, static_cast<float>(std::sqrt(14.0 / 3.0)), std::sqrt(7.0 / 3.0),
         0.6, kPMin},
        {"m = 2, p0 = 0.7 folded", static_cast<float>(std::sqrt(6.0 / 7.0)), 0, 1,
         {{1, 0}, {0, 1}}, 2, 0, static_cast<float>(std::sqrt(6.0 / 7.0)), std::sqrt(3.0 / 7.0),
         0.6, kPMin},
        {"m = 2, p0 = 1 gives 2, set to 1", 1e-5f, 0, 1, {{1, 0}, {0, 1}}, 2, 10, 1e-5f,
         std::sqrt(5e-11), 1, 1},
        {"m = 1, Student t with 2 dof", 1.5f, 0, 0.25f, {{1, 0}}, 2, 10, 1.5f, 3,
         1 - 3 / std::sqrt(11.0), 1},
        {"corrected p inside (0, 1)", 0, -3, 1, {{0, 1}}, 10, 10, -3, -3, f_tail(9, 1, 10),
         corrected_p(9, 10, 10)},
        {"negative rho", 0.5f, 0, 1, {{1, 0}}, 10, 100, 0.5f, 0.5, f_tail(0.25, 1, 10), 1},
        {"huge F floored", 1e10f, 0, 1, {{1, 0}}, 20, 1000, 1e10f, 1e10, kPMin, kPMin},
        {"resels 0", 3, 0, 1, {{1, 0}}, 10, 0, 3, 3, f_tail(9, 1, 10), kPMin},
    };
    EXPECT_NEAR(kPMin, 3.78e-44, 0.01e-44);  // a denormal, not 0
    two_event_model();
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
        if (c.effect == 0.0f) {
            EXPECT_TRUE(std::isnan(r.effect_error));  // 0 / 0
        } else {
            EXPECT_NEAR(r.effect_error, c.effect / std::fabs(c.t), 1e-6 * std::fabs(r.effect_error));
        }
        EXPECT_NEAR(r.p_raw, c.p_raw, 1e-5 * c.p_raw);
        EXPECT_NEAR(r.p_corrected, c.p_corrected, 1e-5 * c.p_corrected);
    }
}

// Random designs against a double-precision weighted least-squares fit and
// the F distribution.  Tolerances: float32 rounding through two inversions
// (relative 1e-4 on beta, fitted values and F, observed 1e-6); p values move
// by up to nu/2 times the relative error of F (relative 2e-3).
TEST(FitAndTest, RandomDesignsAgreeWithDoublePrecision)
{
    struct Design {
        int n;
        std::vector<Event> events;
        std::vector<std::vector<std::vector<int>>> conditions;
    };
    const Design designs[] = {
        {12, {{0, {{0, 5}}}, {0, {{6, 11}}}}, {{{1, 0}}, {{1, -1}}, {{1, 0}, {0, 1}}}},
        {15,
         {{0, {{0, 6}}}, {0, {{7, 14}}}, {1, {{0, 14}}}},
         {{{0, 0, 1}}, {{1, -1, 0}}, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, {{1, -1, 0}, {0, 0, 1}}}},
        {16,
         {{0, {{0, 3}, {8, 11}}}, {0, {{4, 7}, {12, 15}}}, {1, {{0, 6}}}, {1, {{8, 14}}}},
         {{{1, 1, 0, 0}}, {{0, 0, 1, -1}}, {{0, 0, 1, 0}, {0, 0, 0, 1}}}},
    };
    Random rng(7031);
    for (const Design &d : designs) {
        const int k = static_cast<int>(d.events.size());
        for (int trial = 0; trial < 3; ++trial) {
            std::vector<float> w(d.n);
            for (float &v : w) v = static_cast<float>(rng.uniform(0.5, 2.0));
            build_model(d.n, d.events, w);
            EXPECT_EQ(REM_get_DOF(), d.n - k);
            const Mat X = design();
            std::vector<float> y(d.n), s(d.n);
            for (int i = 0; i < d.n; ++i) {
                s[i] = static_cast<float>(rng.uniform(0.3, 1.5));
                y[i] = static_cast<float>(rng.normal() * 2.0 + 0.5 * X[i][0]);
            }
            const float sigma2 = static_cast<float>(rng.uniform(0.1, 2.0));
            std::vector<float> fitted(d.n), sums(d.n);
            ASSERT_EQ(REM_fit_final(sigma2, d.n, y.data(), s.data(), fitted.data(), sums.data()),
                      0);

            const Wls ref = wls(X, to_double(s), sigma2);
            const Vec beta = mat_vec(ref.estimator, to_double(y));
            for (int j = 0; j < k; ++j) EXPECT_NEAR(REM.beta[j], beta[j], 1e-4 * (std::fabs(beta[j]) + 0.1));
            for (int i = 0; i < d.n; ++i) {
                double f = 0.0, sum = 0.0;
                for (int j = 0; j < k; ++j) {
                    f += X[i][j] * beta[j];
                    if (X[i][j] != 0.0) sum += beta[j];
                }
                EXPECT_NEAR(fitted[i], f, 1e-4 * (std::fabs(f) + 0.1));
                EXPECT_NEAR(sums[i], sum, 1e-4 * (std::fabs(sum) + 0.1));
            }

            for (size_t c = 0; c < d.conditions.size(); ++c) set_condition(static_cast<int>(c), d.conditions[c]);
            for (size_t c = 0; c < d.conditions.size(); ++c) {
                const auto &L = d.conditions[c];
                const int m = static_cast<int>(L.size());
                Vec cv(m, 0.0);
                Mat M = zeros(m, m);
                double effect = 0.0;
                for (int r = 0; r < m; ++r) {
                    for (int j = 0; j < k; ++j) cv[r] += L[r][j] * beta[j];
                    if (std::fabs(cv[r]) > std::fabs(effect)) effect = cv[r];
                    for (int s2 = 0; s2 < m; ++s2)
                        for (int i = 0; i < k; ++i)
                            for (int j = 0; j < k; ++j)
                                M[r][s2] += L[r][i] * ref.normal_inverse[i][j] * L[s2][j];
                }
                const double F = dot(cv, mat_vec(inverse(M), cv)) / m;
                const int dof = 2 * (3 + static_cast<int>(rng.uniform() * 12));
                const int resels = static_cast<int>(rng.uniform() * 20);
                double p = f_tail(F, m, dof);
                if (m > 1) p = 2 * p > 1 ? 2 - 2 * p : 2 * p;

                const FResult r = run_f(d.n, resels, static_cast<int>(c), dof);
                ASSERT_EQ(r.status, 0);
                EXPECT_NEAR(r.effect, effect, 1e-4 * (std::fabs(effect) + 0.1));
                EXPECT_NEAR(r.t, std::copysign(std::sqrt(F), effect), 1e-4 * std::sqrt(F));
                EXPECT_NEAR(r.effect_error, effect / std::sqrt(F),
                            1e-4 * std::fabs(effect / std::sqrt(F)));
                EXPECT_NEAR(r.p_raw, clamp_and_floor(p), 2e-3 * clamp_and_floor(p));
                const double pc = clamp_and_floor(corrected_p(F, dof, resels));
                EXPECT_NEAR(r.p_corrected, pc, 2e-3 * pc);
            }
        }
    }
}
