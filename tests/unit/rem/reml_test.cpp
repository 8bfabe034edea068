// REML estimate of the random-effects variance: the model check it shares with
// the final fit, the exact cases and the one-group closed form.  Random designs
// against double precision are in fit_test.cpp, together with the fit.
#include <gtest/gtest.h>
#include <unistd.h>

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
    float fe, re;
};

RemlResult run_reml(const std::vector<float> &y, const std::vector<float> &s,
                    const std::vector<int> &dof)
{
    RemlResult r{99, 7.0f, 7.0f};
    r.status = REM_REML_iterate(static_cast<int>(y.size()), y.data(), s.data(), dof.data(), &r.fe,
                                &r.re);
    return r;
}

}  // namespace

// Without a model the estimate and the fit, plain or fast, return 1 and touch
// no result.  The test refuses a bad condition (checked first), then a count
// other than the fit's; the estimate and the fit end the process on a count
// other than the model's files.  A workspace follows the design built after it.
TEST(ModelCheckDeathTest, PlainAndFastRefuseTheSameWay)
{
    float fe = 7, re = 7, out[6] = {7, 7, 7, 7, 7, 7};
    const float y[4] = {1, 2, 4, 3}, s[4] = {1, 1, 2, 1};
    const int d[4] = {5, 5, 5, 5};
    const std::string missing = "Error in REM_fit_data: first initialize the REM\n";
    REM.initialized = 0;
    rem_workspace *ws = rem_workspace_create();
    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_REML_iterate(3, y, s, d, &fe, &re), 1);
    EXPECT_EQ(REM_fit_final(1.0f, 3, y, s, out, out + 3), 1);
    EXPECT_EQ(rem_fast_reml(ws, 3, y, s, d, &fe, &re), 1);
    EXPECT_EQ(rem_fast_fit_final(ws, 1.0f, 3, y, s, out, out + 3), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), missing + missing + missing + missing);
    for (float v : {fe, re, out[0], out[3]}) EXPECT_EQ(v, 7.0f);

    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    set_condition(0, {{1, 0}});
    set_condition(1, {{0, 1}});
    const struct {
        int n, condition;
        const char *message;
    } cases[] = {
        {4, 2, "Error: the specified condition (2) is out of range (0-2)\n"},
        {4, -1, "Error: the specified condition (-1) is out of range (0-2)\n"},
        {3, 7, "Error: the specified condition (7) is out of range (0-2)\n"},
        {3, 0, "Error: # time points (3) != # used in REM fit (4).\n"},
    };
    for (const auto &c : cases) {
        float r[5] = {7, 7, 7, 7, 7};
        testing::internal::CaptureStdout();
        EXPECT_EQ(REM_calculate_F(c.n, 10, c.condition, 10, &r[0], &r[1], &r[2], &r[3], &r[4]), 1);
        EXPECT_EQ(rem_fast_calculate_F(ws, c.n, 10, c.condition, 10, &r[0], &r[1], &r[2], &r[3],
                                       &r[4]), 1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(c.message) + c.message);
        EXPECT_EQ(r[0], 7.0f);
    }
    EXPECT_EQ(rem_fast_reml(ws, 4, y, s, d, &fe, &re), 0);

    // The message goes to standard output; send it to standard error to match it.
    const char *message =
        "Error: the number of data time points \\(3\\) does not match the number in the REM "
        "\\(4\\)\\.";
    EXPECT_EXIT((dup2(2, 1), REM_REML_iterate(3, y, s, d, &fe, &re)), testing::ExitedWithCode(1),
                message);
    EXPECT_EXIT((dup2(2, 1), REM_fit_final(1.0f, 3, y, s, out, out + 3)),
                testing::ExitedWithCode(1), message);
    EXPECT_EXIT((dup2(2, 1), rem_fast_reml(ws, 3, y, s, d, &fe, &re)), testing::ExitedWithCode(1),
                message);
    rem_workspace_free(ws);
}

// Every error value must be positive: 0, -0, a negative value or NaN give -1
// and two zeros.  Otherwise the fixed-effects variance is s^2 weighted by the
// files' degrees of freedom.  Data constant within each group leave a residue
// of exactly 0 (q = 0): the start is 0, the change 0/0 and no step runs, so
// the weighting stays the unit start.
TEST(RemlIterate, ExactCases)
{
    struct Case {
        std::vector<float> y, s;
        std::vector<int> dof;
        int status;
        float fe, re;  // re: NaN where the estimate is not checked here
    };
    const std::vector<float> y{1.0f, 2.5f, -1.0f, 0.5f};
    const std::vector<int> ten(4, 10);
    const Case cases[] = {
        {y, {0, 1, 1, 1}, ten, -1, 0, 0},
        {y, {1, 1, 1, -0.0f}, ten, -1, 0, 0},
        {y, {1, -2, 1, 1}, ten, -1, 0, 0},
        {y, {1, 1, kNaN, 1}, ten, -1, 0, 0},
        {y, {0.5f, 0.5f, 0.5f, 0.5f}, {12, 12, 12, 12}, 0, 0.25f, kNaN},  // equal: s^2
        {y, {1, 2, 1, 2}, {1, 3, 1, 3}, 0, 3.25f, kNaN},                   // 1/8 + 3/8*4, twice
        {y, {1, 3, 2, 1}, {0, 10, 0, 0}, 0, 9.0f, kNaN},                   // one file carries all
        {{2, 2, -1, -1}, {0.5f, 1, 1, 0.5f}, {5, 5, 5, 5}, 0, 0.625f, 0},  // q = 0
    };
    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    for (const Case &c : cases) {
        const RemlResult r = run_reml(c.y, c.s, c.dof);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.fe, c.fe);
        if (!std::isnan(c.re)) {
            EXPECT_EQ(r.re, c.re);
        }
    }
    EXPECT_EQ(REM.v_inverse[0][0], 1.0f);  // after q = 0: not 1 / (0.5^2 + sigma2)

    // As many events as files: R0 = 0 and n - k = 0, the start is 0/0.
    build_model(2, {{0, {{0, 0}}}, {0, {{1, 1}}}});
    const RemlResult r = run_reml({3, -1}, {1, 2}, {5, 5});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.fe, 2.5f);
    EXPECT_EQ(r.re, 0.0f);
    EXPECT_EQ(REM.v_inverse[1][1], 1.0f);
}

// One group with equal errors s^2: W = I/(s^2 + v), R = (I - J/n)/(s^2 + v) and
// the update becomes v' = [v (1 + (n-1) s^2/(s^2+v)) + v^2 SS/(s^2+v)^2] / n,
// starting from SS/(n-1).
TEST(RemlIterate, OneGroupFollowsTheClosedForm)
{
    const struct {
        float scale;  // y = scale * (1 ... 8)
        float s;
    } cases[] = {{0.9128709f, 1.0f}, {2.0f, 1.5f}, {1.2f, 2.0f}, {1.0f, 0.25f}};
    const int n = 8;
    build_model(n, {{0, {{0, n - 1}}}});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.scale);
        std::vector<float> y(n);
        for (int i = 0; i < n; ++i) y[i] = c.scale * static_cast<float>(i + 1);
        double mean = 0.0, ss = 0.0;
        for (float v : y) mean += v / n;
        for (float v : y) ss += (v - mean) * (v - mean);
        const double s2 = static_cast<double>(c.s) * c.s;
        auto step = [&](double v) {
            const double total = s2 + v;
            return (v * (1.0 + (n - 1) * s2 / total) + v * v * ss / (total * total)) / n;
        };
        // Up to the first step that changes the value by at most 5 %; neither
        // that change nor one step more may be too close to call.
        double v = ss / (n - 1);
        while (std::fabs(1.0 - step(v) / v) > 0.05) v = step(v);
        const double expected = step(v);
        ASSERT_GT(0.05 - std::fabs(1.0 - expected / v), 1e-3);
        ASSERT_GT(std::fabs(step(expected) - expected), 1e-3 * std::fabs(expected));

        const RemlResult r = run_reml(y, std::vector<float>(n, c.s), std::vector<int>(n, 9));
        ASSERT_EQ(r.status, 0);
        EXPECT_NEAR(r.re, expected, 1e-5 * std::fabs(expected));
    }
}
