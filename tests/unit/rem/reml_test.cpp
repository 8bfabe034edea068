// REML estimate of the random-effects variance: the model check it shares with
// the final fit, and the exact cases.  The estimate against double precision
// is checked at every voxel of whole runs (e2e/statistics_test.cpp).
#include <gtest/gtest.h>
#include <unistd.h>

#include "rem_test_model.h"
#include "weighting.h"

using namespace rem_test;

// Without a model the estimate and the fit return 1 and touch no result.  The
// test refuses a bad condition (checked first), then a count other than the
// fit's; the model check (which the estimate and the fit call) ends the
// process on a count other than the model's files.
TEST(ModelCheckDeathTest, OperationsRefuse) {
    float fe = 7, re = 7, out[6] = {7, 7, 7, 7, 7, 7};
    const float y[4] = {1, 2, 4, 3}, s[4] = {1, 1, 2, 1};
    const int d[4] = {5, 5, 5, 5};
    const std::string missing = "Error in REM_fit_data: first initialize the REM\n";
    REM.initialized = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(REM_REML_iterate(3, y, s, d, &fe, &re), 1);
    EXPECT_EQ(REM_fit_final(1.0f, 3, y, s, out, out + 3), 1);
    EXPECT_EQ(REM_check_model(3), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), missing + missing + missing);
    for (float v : {fe, re, out[0], out[3]}) EXPECT_EQ(v, 7.0f);

    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    int count = 0;
    ASSERT_EQ(REM_define_conditions("1 2", &count), 0);
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
        EXPECT_EQ(REM_check_condition(c.n, c.condition), 1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(c.message) + c.message);
        EXPECT_EQ(r[0], 7.0f);
    }

    // The message goes to standard output; send it to standard error to match it.
    const char *message =
        "Error: the number of data time points \\(3\\) does not match the number in the REM "
        "\\(4\\)\\.";
    EXPECT_EXIT((dup2(2, 1), REM_check_model(3)), testing::ExitedWithCode(1), message);
}

// Every error value must be positive: 0, a negative value or NaN give -1 and
// two zeros.  Otherwise the fixed-effects variance is s^2 weighted by the
// files' degrees of freedom.  Data constant within each group leave a residue
// of exactly 0 (q = 0): the start is 0, the change 0/0 and no step runs, so the
// weighting stays the unit start.  With as many events as files the start is
// 0/0 (R0 = 0, n - k = 0): again no step runs and the estimate is 0.
TEST(RemlIterate, ExactCases) {
    struct Case {
        int n;
        std::vector<float> y, s;
        std::vector<int> dof;
        int status;
        float fe, re;  // re: NaN where the estimate is not checked here
    };
    const std::vector<float> y{1.0f, 2.5f, -1.0f, 0.5f};
    const std::vector<int> ten(4, 10);
    const Case cases[] = {
        {4, y, {0, 1, 1, 1}, ten, -1, 0, 0},
        {4, y, {1, -2, 1, 1}, ten, -1, 0, 0},
        {4, y, {1, 1, kNaN, 1}, ten, -1, 0, 0},
        {4, y, {1, 2, 1, 2}, {1, 3, 1, 3}, 0, 3.25f, kNaN},                   // 1/8 + 3/8*4, twice
        {4, y, {1, 3, 2, 1}, {0, 10, 0, 0}, 0, 9.0f, kNaN},                   // one file: all
        {4, {2, 2, -1, -1}, {0.5f, 1, 1, 0.5f}, {5, 5, 5, 5}, 0, 0.625f, 0},  // q = 0
        {2, {3, -1}, {1, 2}, {5, 5}, 0, 2.5f, 0},                             // n = k
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        build_model(c.n, {{0, {{0, c.n / 2 - 1}}}, {0, {{c.n / 2, c.n - 1}}}});  // two groups
        float fe = 7.0f, re = 7.0f;
        EXPECT_EQ(REM_REML_iterate(c.n, c.y.data(), c.s.data(), c.dof.data(), &fe, &re), c.status);
        EXPECT_EQ(fe, c.fe);
        if (!std::isnan(c.re)) {
            EXPECT_EQ(re, c.re);
        }
        if (c.status == 0 && c.re == 0.0f) {  // no step ran: still the unit start
            EXPECT_EQ(REM.v_inverse[0][0], 1.0f);
        }
    }
}

// The cycle detection of the REML loop on sequences that repeat from step
// mu + lambda on (a tail of mu distinct values, then a cycle of lambda): it
// never fires before the first repeat, and fires within a few cycle lengths
// after it; a sequence without repeats only meets the step cap.
TEST(RemlIterate, CycleDetectionProperty) {
    for (int mu : {0, 1, 2, 5, 17, 100}) {
        for (int lambda : {1, 2, 3, 7, 64, 129, 1000}) {
            auto x = [&](int t) {  // distinct values, -0 and +0 among them
                const int i = t < mu ? t : mu + (t - mu) % lambda;
                return i == 0 ? -0.0f : static_cast<float>(i - 1) * 0.37f;
            };
            rem_cycle_detector cycle(x(0));
            int fired = 0;
            for (int t = 1; t < 20000 && fired == 0; ++t)
                if (cycle.repeats(x(t))) fired = t;
            EXPECT_GE(fired, mu + lambda) << mu << " " << lambda;
            EXPECT_LE(fired, 4 * (mu + lambda) + 2) << mu << " " << lambda;
        }
    }
    rem_cycle_detector growing(1.0f);
    int fired = 0;
    for (int t = 1; t <= 20000 && fired == 0; ++t)
        if (growing.repeats(1.0f + static_cast<float>(t) * 1e-3f)) fired = t;
    EXPECT_EQ(fired, rem_cycle_detector::kMaxSteps);
}
