// REML estimate of the random-effects variance: checks, the fixed-effects
// variance, the exact degenerate cases, the one-group closed form and random
// designs against a double-precision computation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "rem.h"
#include "rem_test_model.h"

using namespace rem_test;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

struct RemlResult {
    int status;
    float fe;
    float re;
};

RemlResult run_reml(const std::vector<float> &y, const std::vector<float> &s,
                    const std::vector<int> &dof)
{
    RemlResult r{99, 7.0f, 7.0f};
    r.status = REM_REML_iterate(static_cast<int>(y.size()), y.data(), s.data(), dof.data(), &r.fe,
                                &r.re);
    return r;
}

// The estimation in double precision: OLS start, EM steps, stop at a relative
// change of at most 5 %.  `margin` is the closest any change came to 0.05, so
// that a test can make sure both computations take the same number of steps.
struct RemlReference {
    double sigma2;
    double margin;
};

RemlReference reml_reference(const Mat &X, const Vec &y, const Vec &s)
{
    const int n = static_cast<int>(X.size());
    const int k = static_cast<int>(X[0].size());
    const Wls start = wls(X, Vec(n, 0.0), 1.0);  // W = I
    double sigma2 = dot(y, mat_vec(start.R, y)) / (n - k);
    double next = 0.0;
    double change = std::fabs(1.0 - next / sigma2);
    double margin = 1.0;
    while (change > 0.05) {
        const Wls w = wls(X, s, sigma2);
        double trace = 0.0;
        for (int i = 0; i < n; ++i) trace += s[i] * s[i] * w.R[i][i];
        const Vec Ry = mat_vec(w.R, y);
        next = ((trace + k) * sigma2 + sigma2 * sigma2 * dot(Ry, Ry)) / n;
        change = std::fabs(1.0 - next / sigma2);
        margin = std::min(margin, std::fabs(change - 0.05));
        sigma2 = next;
    }
    return {next, margin};
}

}  // namespace

TEST(RemlIterate, RefusesAnUninitialisedModel)
{
    REM.initialized = 0;
    float fe = 7.0f, re = 7.0f;
    const float y[1] = {1.0f}, s[1] = {1.0f};
    const int d[1] = {1};
    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_REML_iterate(1, y, s, d, &fe, &re), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error in REM_fit_data: first initialize the REM\n");
    EXPECT_EQ(fe, 7.0f);
    EXPECT_EQ(re, 7.0f);
}

TEST(RemlIterateDeathTest, EndsTheProcessOnAWrongNumberOfValues)
{
    build_model(4, {{0, {{0, 3}}}});
    const std::vector<float> y{1, 2, 3}, s{1, 1, 1};
    const std::vector<int> d{1, 1, 1};
    EXPECT_EXIT(run_reml(y, s, d), testing::ExitedWithCode(1), "");
}

TEST(RemlIterate, UnusableErrorValueGivesMinusOneAndZeros)
{
    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    const std::vector<int> dof{10, 10, 10, 10};
    const std::vector<std::vector<float>> errors = {
        {0.0f, 1.0f, 1.0f, 1.0f},   {1.0f, 1.0f, 1.0f, -0.0f}, {1.0f, -2.0f, 1.0f, 1.0f},
        {1.0f, 1.0f, kNaN, 1.0f},   {kNaN, -1.0f, 0.0f, 1.0f},
    };
    for (const auto &s : errors) {
        const RemlResult r = run_reml({1, 2, 3, 5}, s, dof);
        EXPECT_EQ(r.status, -1);
        EXPECT_EQ(r.fe, 0.0f);
        EXPECT_EQ(r.re, 0.0f);
    }
}

TEST(RemlIterate, FixedEffectsVarianceIsWeightedByDegreesOfFreedom)
{
    struct Case {
        std::vector<float> s;
        std::vector<int> dof;
        float expected;
        float tolerance;
    };
    const Case cases[] = {
        {{0.5f, 0.5f, 0.5f, 0.5f}, {12, 12, 12, 12}, 0.25f, 0.0f},  // equal: s^2 exactly
        {{1.0f, 2.0f, 1.0f, 2.0f}, {1, 3, 1, 3}, 3.25f, 0.0f},      // 1/8 + 3/8*4, twice
        {{0.3f, 0.3f, 0.3f, 0.3f}, {7, 7, 7, 7}, 0.09f, 1e-7f},
        {{1.0f, 3.0f, 2.0f, 1.0f}, {0, 10, 0, 0}, 9.0f, 0.0f},      // one file carries all
    };
    build_model(4, {{0, {{0, 3}}}});
    for (const Case &c : cases) {
        const RemlResult r = run_reml({1.0f, 2.5f, -1.0f, 0.5f}, c.s, c.dof);
        EXPECT_EQ(r.status, 0);
        EXPECT_NEAR(r.fe, c.expected, c.tolerance);
    }
}

// Degenerate starts: the least-squares residue is exactly 0 (constant data
// under one group; as many events as files, where R0 = 0 and n - k = 0), so
// the start value is 0 or 0/0, the change is not a number and no step runs.
// The weighting is then still the unit start, not (S^2 + sigma2 I)^-1.
TEST(RemlIterate, DegenerateStartSkipsTheLoop)
{
    struct Case {
        int n;
        std::vector<Event> events;
        std::vector<float> y, s;
        float fe;
    };
    const Case cases[] = {
        {4, {{0, {{0, 3}}}}, {2, 2, 2, 2}, {0.5f, 0.5f, 0.5f, 0.5f}, 0.25f},
        {2, {{0, {{0, 0}}}, {0, {{1, 1}}}}, {3, -1}, {1, 2}, 2.5f},
    };
    for (const Case &c : cases) {
        build_model(c.n, c.events);
        const RemlResult r = run_reml(c.y, c.s, std::vector<int>(c.n, 5));
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.re, 0.0f);
        EXPECT_EQ(r.fe, c.fe);
        EXPECT_EQ(REM.v_inverse[0][0], 1.0f);
        EXPECT_EQ(REM.v_inverse[c.n - 1][c.n - 1], 1.0f);
    }
}

// One group with equal errors s^2: W = I/(s^2 + v), R = (I - J/n)/(s^2 + v) and
// the update becomes v' = [v (1 + (n-1) s^2/(s^2+v)) + v^2 SS/(s^2+v)^2] / n,
// whose fixed point is SS/(n-1) - s^2.  The start is SS/(n-1).
TEST(RemlIterate, OneGroupApproachesSampleVarianceMinusErrorVariance)
{
    struct Case {
        float scale;  // y = scale * (1 ... 8), sample variance 6 scale^2
        float s;
    };
    const Case cases[] = {{0.9128709f, 1.0f}, {2.0f, 1.5f}, {1.2f, 2.0f}, {0.3f, 1.0f}, {1.0f, 0.25f}};
    const int n = 8;
    build_model(n, {{0, {{0, n - 1}}}});
    for (const Case &c : cases) {
        std::vector<float> y(n);
        for (int i = 0; i < n; ++i) y[i] = c.scale * static_cast<float>(i + 1);
        double mean = 0.0;
        for (float v : y) mean += v / n;
        double ss = 0.0;
        for (float v : y) ss += (v - mean) * (v - mean);
        const double s2 = static_cast<double>(c.s) * c.s;
        const double fixed_point = ss / (n - 1) - s2;
        auto step = [&](double v) {
            const double total = s2 + v;
            return (v * (1.0 + (n - 1) * s2 / total) + v * v * ss / (total * total)) / n;
        };

        // The sequence, up to the first step that changes by at most 5 %.
        std::vector<double> seq{ss / (n - 1)};
        while (std::fabs(1.0 - step(seq.back()) / seq.back()) > 0.05) seq.push_back(step(seq.back()));
        const double expected = step(seq.back());
        const double change = std::fabs(1.0 - expected / seq.back());
        ASSERT_GT(0.05 - change, 1e-3) << "stopping step too close to the threshold";
        ASSERT_GT(std::fabs(step(expected) - expected), 1e-3 * std::fabs(expected))
            << "one step more would not be told apart";

        // The fixed point holds for the recurrence.
        EXPECT_NEAR(step(fixed_point), fixed_point, 1e-12 * (1.0 + std::fabs(fixed_point)));

        const RemlResult r = run_reml(y, std::vector<float>(n, c.s), std::vector<int>(n, 9));
        ASSERT_EQ(r.status, 0);
        EXPECT_NEAR(r.re, expected, 1e-5 * std::fabs(expected)) << "scale " << c.scale;
        EXPECT_LT(std::fabs(r.re - fixed_point), std::fabs(seq.front() - fixed_point));
    }
}

// Random designs against the double-precision estimation.  Tolerance: float32
// rounding through the inversions and a few EM steps, relative 1e-4 (observed
// errors reach 1e-5).
TEST(RemlIterate, RandomDesignsAgreeWithDoublePrecision)
{
    struct Design {
        int n;
        std::vector<Event> events;
        bool weighted;
    };
    const Design designs[] = {
        {12, {{0, {{0, 5}}}, {0, {{6, 11}}}}, false},
        {15, {{0, {{0, 6}}}, {0, {{7, 14}}}, {1, {{0, 14}}}}, true},
        {16, {{0, {{0, 3}, {8, 11}}}, {0, {{4, 7}, {12, 15}}}, {1, {{0, 7}}}, {1, {{8, 15}}}}, true},
        {9, {{1, {{0, 8}}}, {0, {{0, 8}}}}, true},
    };
    Random rng(20261122);
    for (const Design &d : designs) {
        for (int trial = 0; trial < 3; ++trial) {
            std::vector<float> w(d.n, 1.0f);
            if (d.weighted)
                for (float &v : w) v = static_cast<float>(rng.uniform(0.5, 2.0));
            build_model(d.n, d.events, w);
            const Mat X = design();
            const double true_sigma2 = rng.uniform(0.5, 3.0);
            std::vector<float> y(d.n), s(d.n);
            std::vector<int> dof(d.n);
            for (int i = 0; i < d.n; ++i) {
                s[i] = static_cast<float>(rng.uniform(0.4, 1.6));
                double mu = 0.0;
                for (size_t j = 0; j < d.events.size(); ++j) mu += X[i][j] * (1.0 + j);
                y[i] = static_cast<float>(mu + rng.normal() * std::sqrt(s[i] * s[i] + true_sigma2));
                dof[i] = 10 + static_cast<int>(rng.uniform() * 20);
            }
            const RemlReference ref = reml_reference(X, to_double(y), to_double(s));
            ASSERT_GT(ref.margin, 1e-3) << "a step too close to the 5 % threshold";

            double fe = 0.0, total = 0.0;
            for (int i = 0; i < d.n; ++i) total += dof[i];
            for (int i = 0; i < d.n; ++i) fe += dof[i] / total * s[i] * s[i];

            const RemlResult r = run_reml(y, s, dof);
            ASSERT_EQ(r.status, 0);
            EXPECT_NEAR(r.fe, fe, 1e-6 * fe);
            EXPECT_NEAR(r.re, ref.sigma2, 1e-4 * std::fabs(ref.sigma2));
        }
    }
}
