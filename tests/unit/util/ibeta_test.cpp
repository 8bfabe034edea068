// The regularized incomplete beta function against independent values.
#include "util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

TEST(Ibeta, AgreesWithHighPrecisionReference) {
    std::ifstream in(std::string(FMRI_REM_REFERENCE_DIR) + "/ibeta.tsv");
    ASSERT_TRUE(in.good()) << "reference table missing";
    std::string line;
    int rows = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#' || line[0] == 'a') continue;
        std::istringstream fields(line);
        double a, b, x;
        std::string ref_text;
        fields >> a >> b >> x >> ref_text;
        const long double ref = std::strtold(ref_text.c_str(), nullptr);
        const double got = ibeta(a, b, x);
        ++rows;
        if (ref < DBL_MIN) {  // below the normal double range
            EXPECT_LT(got, 1e-300) << line;
            continue;
        }
        // Powers, gamma functions or their logarithms of magnitude up to L,
        // rounded to double, leave a relative error of a few eps·L.
        const double L = 1.0 + std::fabs(std::lgamma(a + b)) + std::fabs(a * std::log(x)) +
                         std::fabs(b * std::log1p(-x));
        EXPECT_LE(std::fabs((got - ref) / ref), 16.0L * DBL_EPSILON * L) << line << " got " << got;
    }
    EXPECT_GT(rows, 200);
}

TEST(Ibeta, ClosedFormsSymmetryAndStudentT) {
    for (double x : {1e-300, 1e-9, 0.3, 0.75, 0.99, 1 - 1e-9})
        EXPECT_NEAR(ibeta(1, 1, x), x, 4 * DBL_EPSILON * x) << x;  // I_x(1,1) = x
    const double cases[][3] = {{2, 3, 0.4}, {0.5, 0.5, 0.3}, {10, 2, 0.8}, {30, 0.5, 0.97}};
    for (const auto &c : cases) {
        EXPECT_NEAR(ibeta(c[0], c[1], c[2]) + ibeta(c[1], c[0], 1.0 - c[2]), 1.0, 1e-14) << c[0];
        EXPECT_EQ(ibeta(c[0], c[1], 0.0), 0.0);
        EXPECT_EQ(ibeta(c[0], c[1], 1.0), 1.0);
    }
    // Two-sided p values of Student's t in closed form: nu = 1,
    // p = (2/pi)·atan(1/t); nu = 2, p = 2 / (r·(r + t)) with r = sqrt(2 + t²).
    for (double t : {0.1, 1.0, 2.5, 12.706, 100.0}) {
        const double p1 = 2.0 / std::acos(-1.0) * std::atan(1.0 / t);
        EXPECT_NEAR(ibeta(0.5, 0.5, 1.0 / (1.0 + t * t)), p1, 1e-14 * p1) << t;
        const double r = std::sqrt(2.0 + t * t), p2 = 2.0 / (r * (r + t));
        EXPECT_NEAR(ibeta(1.0, 0.5, 2.0 / (2.0 + t * t)), p2, 1e-14 * p2) << t;
    }
}

TEST(Ibeta, ReflectedBranchAndOddArguments) {
    // x above the mean, complement I_(1-x)(2,2) ≈ 3e-18 below 2^-53: the
    // double just below 1 comes back, never 1 itself.
    EXPECT_EQ(ibeta(2, 2, 1 - 1e-9), 0.9999999999999999);
    EXPECT_EQ(ibeta(50, 3, 1 - 1e-7), 0.9999999999999999);
    // x outside [0, 1] is not rejected: log(x) of a negative x gives NaN,
    // and a diverging series (b not an integer) still comes back.
    EXPECT_TRUE(std::isnan(ibeta(2, 3, -0.1)));
    EXPECT_TRUE(std::isnan(ibeta(2, 3.5, -5.0)));
}

TEST(IbetaDeathTest, DomainErrorOnStandardOutput) {
    // The child sends standard output to standard error for the check.
    auto call = [](double a, double b) {
        fflush(stdout);
        dup2(fileno(stderr), fileno(stdout));
        ibeta(a, b, 0.5);
    };
    EXPECT_EXIT(call(0, 1), testing::ExitedWithCode(1), "^ibeta: Domain error!, a = 0, b = 1\n$");
    EXPECT_EXIT(call(2, -0.5), testing::ExitedWithCode(1), "a = 2, b = -0.5\n$");
}
