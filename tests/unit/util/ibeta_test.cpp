// The regularized incomplete beta function against independent values.
#include "util.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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
        std::string sa, sb, sx, sref;
        fields >> sa >> sb >> sx >> sref;
        const double a = std::strtod(sa.c_str(), nullptr), b = std::strtod(sb.c_str(), nullptr);
        const double x = std::strtod(sx.c_str(), nullptr);
        const long double ref = std::strtold(sref.c_str(), nullptr);
        const double got = ibeta(a, b, x);
        ++rows;
        if (ref < DBL_MIN) {
            // Below the normal double range: only an underflowed value fits.
            EXPECT_LT(got, 1e-300) << line;
            continue;
        }
        // The value is assembled from powers, gamma functions or logarithms
        // of magnitude up to L (below); rounding each of those to double
        // leaves an absolute error of a few ulp of L in the exponent, i.e. a
        // relative error of a few eps·L in the result.  The continued
        // fractions themselves stop at 3·2^-53.  For the small parameters
        // of the F test this is about 1e-14; for a of several hundred it
        // grows to about 1e-12.
        const double L = 1.0 + std::fabs(std::lgamma(a + b)) + std::fabs(a * std::log(x)) +
                         std::fabs(b * std::log1p(-x));
        const long double rel = std::fabs((got - ref) / ref);
        EXPECT_LE(rel, 16.0L * DBL_EPSILON * L) << line << " got " << got;
    }
    EXPECT_GT(rows, 200);
}

TEST(Ibeta, ClosedFormsAndEndpoints) {
    // I_x(1,1) = x; I_x(a,1) = x^a; I_x(1,b) = 1 - (1-x)^b; ends exactly 0 and 1.
    for (double x : {1e-300, 1e-9, 0.01, 0.3, 0.5, 0.75, 0.95, 0.99, 1 - 1e-9}) {
        EXPECT_NEAR(ibeta(1, 1, x), x, 4 * DBL_EPSILON * x + 1e-16) << x;
        EXPECT_NEAR(ibeta(3, 1, x), x * x * x, 1e-14 * x * x * x + 1e-300) << x;
        const double expect = -std::expm1(2.5 * std::log1p(-x));
        EXPECT_NEAR(ibeta(1, 2.5, x), expect, 1e-14 * expect) << x;
    }
    for (double a : {0.1, 1.0, 7.5, 300.0})
        for (double b : {0.5, 2.0, 40.0}) {
            EXPECT_EQ(ibeta(a, b, 0.0), 0.0);
            EXPECT_EQ(ibeta(a, b, 1.0), 1.0);
        }
}

TEST(Ibeta, Symmetry) {
    const double cases[][3] = {{2, 3, 0.4},   {0.5, 0.5, 0.3}, {10, 2, 0.8},
                               {4.5, 7, 0.55}, {30, 0.5, 0.97}, {1.5, 60, 0.02}};
    for (const auto &c : cases) {
        const double sum = ibeta(c[0], c[1], c[2]) + ibeta(c[1], c[0], 1.0 - c[2]);
        EXPECT_NEAR(sum, 1.0, 1e-14) << c[0] << " " << c[1] << " " << c[2];
    }
}

TEST(Ibeta, TwoSidedStudentT) {
    // Exact forms, written without cancellation: nu = 1 (Cauchy)
    // p = 1 - (2/pi)·atan(t) = (2/pi)·atan(1/t); nu = 2
    // p = 1 - t/sqrt(2 + t²) = 2 / (sqrt(2 + t²)·(sqrt(2 + t²) + t)).
    const double pi = std::acos(-1.0);
    for (double t : {0.1, 1.0, 2.5, 12.706, 100.0}) {
        const double p1 = 2.0 / pi * std::atan(1.0 / t);
        EXPECT_NEAR(ibeta(0.5, 0.5, 1.0 / (1.0 + t * t)), p1, 1e-14 * p1) << t;
        const double r = std::sqrt(2.0 + t * t);
        const double p2 = 2.0 / (r * (r + t));
        EXPECT_NEAR(ibeta(1.0, 0.5, 2.0 / (2.0 + t * t)), p2, 1e-14 * p2) << t;
    }
    // Critical values of a printed t table (three decimals), two-sided p.
    // A rounding of 0.0005 in t moves p by well under 0.5 % here.
    const double table[][3] = {{10, 2.228, 0.05}, {20, 2.086, 0.05}, {20, 2.845, 0.01},
                               {5, 4.032, 0.01},  {30, 3.646, 0.001}, {60, 2.000, 0.05},
                               {1, 63.657, 0.01}};
    for (const auto &row : table) {
        const double nu = row[0], t = row[1];
        const double p = ibeta(nu / 2.0, 0.5, nu / (nu + t * t));
        EXPECT_NEAR(p, row[2], 0.005 * row[2]) << "nu=" << nu << " t=" << t;
    }
}

TEST(Ibeta, ReflectedBranchStopsBelowOne) {
    // x above the mean: the complement I_(1-x)(2,2) ≈ 3·(1e-9)² is below
    // 2^-53, so the result is the double just below 1, not 1.
    const double below_one = std::nextafter(1.0, 0.0);
    EXPECT_EQ(below_one, 0.9999999999999999);
    EXPECT_EQ(ibeta(2, 2, 1 - 1e-9), below_one);
    EXPECT_EQ(ibeta(50, 3, 1 - 1e-7), below_one);
}

TEST(Ibeta, OutsideUnitIntervalNotRejected) {
    // Power series with log(-0.1): the logarithmic branch gives NaN.
    EXPECT_TRUE(std::isnan(ibeta(2, 3, -0.1)));
    // Far outside, with b not an integer, the series diverges; it must still
    // come back.
    EXPECT_TRUE(std::isnan(ibeta(2, 3.5, -5.0)));
    EXPECT_TRUE(std::isnan(ibeta(2, 3, 3.0)));
}

TEST(IbetaDeathTest, DomainErrorOnStandardOutput) {
    // The message goes to standard output; the child sends it to standard
    // error so that the death test can see it.
    auto call = [](double a, double b) {
        fflush(stdout);
        dup2(fileno(stderr), fileno(stdout));
        ibeta(a, b, 0.5);
    };
    EXPECT_EXIT(call(0, 1), testing::ExitedWithCode(1), "^ibeta: Domain error!, a = 0, b = 1\n$");
    EXPECT_EXIT(call(2, -0.5), testing::ExitedWithCode(1), "a = 2, b = -0.5");
}
