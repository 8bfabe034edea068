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
