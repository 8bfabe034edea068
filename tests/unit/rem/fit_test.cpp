// Final fit and F test: the zero-error shortcut and the exact cases of the
// test (effect size, signs, folding, clamps, floors).  The estimate and the
// fit against double precision are checked at every voxel of whole runs
// (e2e/statistics_test.cpp), the kernels bit for bit in kernel_test.cpp.
#include <gtest/gtest.h>

#include "rem_test_model.h"

using namespace rem_test;

namespace {

const float kPMin = static_cast<float>(std::exp(-100.0));  // 3.78e-44, a denormal

// Relative closeness; a NaN expectation asks for a NaN.
void expect_close(float got, double want, double rel) {
    if (std::isnan(want))
        EXPECT_TRUE(std::isnan(got));
    else
        EXPECT_NEAR(got, want, rel * std::fabs(want));
}

// Upper tail of the F distribution with m and nu degrees of freedom, nu even:
// with x = nu/(nu + m F) and A = nu/2, the tail is I_x(A, m/2)
// = 1 - (1-x)^(m/2) * sum_{j<A} (m/2)_j / j! * x^j.
double f_tail(double F, int m, int nu) {
    const double x = nu / (nu + m * F);
    const double b = 0.5 * m;
    double term = 1.0, sum = 1.0;
    for (int j = 1; j < nu / 2; ++j) {
        term *= (b + j - 1) / j * x;
        sum += term;
    }
    return 1.0 - std::pow(1.0 - x, b) * sum;
}

}  // namespace

// A negative error value weighs like its magnitude, a NaN goes into the fit,
// and only an exact zero (of either sign) gives the all-zero fit, beta and
// normal_inverse included.
TEST(FitFinal, ErrorSignsAndTheZeroErrorShortcut) {
    build_model(3, {{0, {{0, 2}}}, {1, {{0, 2}}}});
    using V = std::vector<float>;
    const float y[3] = {1.0f, 2.0f, 4.0f};
    auto fit = [&](const V &s) {  // fitted values, then event sums
        V out(6, 7.0f);
        EXPECT_EQ(REM_fit_final(0.3f, 3, y, s.data(), out.data(), out.data() + 3), 0);
        return out;
    };
    EXPECT_EQ(fit({-1, 1, -1}), fit({1, 1, 1}));
    EXPECT_TRUE(std::isnan(fit({1, kNaN, 1})[0]));
    for (const V &s : {V{1, 0, 2}, V{1, 1, -0.0f}, V{kNaN, 0, -2}}) {
        REM.beta[1] = REM.normal_inverse[1][0] = 5.0f;
        EXPECT_EQ(fit(s), V(6, 0.0f));
        EXPECT_EQ(REM.beta[1] + REM.normal_inverse[1][0], 0.0f);
    }
}

// Hand-set beta and normal_inverse (N = diagonal d, off-diagonal o): the
// contrast values are exactly known, and so are F, the effect size and its
// sign.  With N = [2 1; 1 2] and c = (1, 1), Q = c' N^-1 c = 2/3 and F = 1/3.
TEST(CalculateF, ExactCases) {
    struct Case {
        const char *what;
        float b0, b1, d, o;
        const char *rows;  // the condition
        int dof, resels;
        float effect;
        double t, p_raw, p_corrected;
    };
    const char *two = "1,2", *first = "1";
    const float p3 = static_cast<float>(std::sqrt(14.0 / 3.0));
    const float p7 = static_cast<float>(std::sqrt(6.0 / 7.0));
    const Case cases[] = {
        {"zero contrast values", 0, 0, 1, 0, two, 10, 100, 0, 0, 1, 1},
        {"2 and -2: first wins; F = 4, resels 1", 2, -2, 1, 0, two, 10, 1, 2, 2,
         2 * std::pow(10.0 / 18.0, 5), 0.1169 * (0.9 * 4 - 1) / std::pow(1.4, 4.5)},
        {"N not diagonal; p0 folded", 1, 1, 2, 1, two, 10, 0, 1, std::sqrt(1.0 / 3),
         2 - 2 * std::pow(15.0 / 16.0, 5), kPMin},
        {"-3 and 2: sign kept", -3, 2, 1, 0, two, 10, 0, -3, -std::sqrt(6.5),
         2 * std::pow(10.0 / 23.0, 5), kPMin},
        {"m = 2, p0 = 0.3 doubled", p3, 0, 1, 0, two, 2, 0, p3, std::sqrt(7.0 / 3.0), 0.6, kPMin},
        {"m = 2, p0 = 0.7 folded", p7, 0, 1, 0, two, 2, 0, p7, std::sqrt(3.0 / 7.0), 0.6, kPMin},
        {"m = 2, p0 = 1: 2, set to 1", 1e-5f, 0, 1, 0, two, 2, 10, 1e-5f, std::sqrt(5e-11), 1, 1},
        {"m = 1, Student t with 2 dof", 1.5f, 0, 0.25f, 0, first, 2, 10, 1.5f, 3,
         1 - 3 / std::sqrt(11.0), 1},
        {"negative rho", 0.5f, 0, 1, 0, first, 10, 100, 0.5f, 0.5, f_tail(0.25, 1, 10), 1},
        {"huge F floored", 1e10f, 0, 1, 0, first, 20, 1000, 1e10f, 1e10, kPMin, kPMin},
        {"resels 0", 3, 0, 1, 0, first, 10, 0, 3, 3, f_tail(9, 1, 10), kPMin},
        // x = 10/(1e-8 + 10) is 1 in float but not in double.
        {"tiny F", 1e-4f, 0, 1, 0, first, 10, 0, 1e-4f, 1e-4, f_tail(1e-8, 1, 10), kPMin},
    };
    build_model(4, {{0, {{0, 1}}}, {0, {{2, 3}}}});
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        REM.beta[0] = c.b0;
        REM.beta[1] = c.b1;
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j) REM.normal_inverse[i][j] = i == j ? c.d : c.o;
        int count = 0;
        ASSERT_EQ(REM_define_conditions(c.rows, &count), 0);
        float t, p_raw, p_corrected, effect, error;
        ASSERT_EQ(REM_calculate_F(4, c.resels, 0, c.dof, &t, &p_raw, &p_corrected, &effect, &error),
                  0);
        EXPECT_EQ(effect, c.effect);
        expect_close(t, c.t, 1e-6);
        expect_close(error, c.effect / std::fabs(c.t), 1e-6);  // 0/0 for a zero effect
        expect_close(p_raw, c.p_raw, 1e-5);
        expect_close(p_corrected, c.p_corrected, 1e-5);
    }
}
