// The statistics of a whole run against an independent computation in double
// precision: classic REML by its EM iteration, weighted least squares, and the
// corrected p from the Euler-characteristic density of the t field (converged
// REML against the likelihood's maximum: bridge/design_model_test.cpp and
// e2e/cohort_test.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../unit/rem/reml_likelihood.h"
#include "study.h"
#include "test_support.h"

namespace {

using rem_test::Mat;
using rem_test::Vec;
using test_support::read_floats;

// Eight files in two events with 20 degrees of freedom each, the variance
// ratio smoothed with 2 mm on voxels of 2 mm: r = 8^0.3333 = 1.99986,
// 6 (8 / r^2 + 1)^1.5 = 31.18, so the test has rint(1/(1/31.18 + 1/160)) = 26
// degrees of freedom, not the design's 6; p corrected for 40 resels; the final
// fit uses the program's own smoothed variance.  Every voxel's maps are
// compared.  The 9 x 9 voxels (fewer than 100) show progress at every voxel.
TEST(Statistics, AgainstDoublePrecision) {
    const int nv = 81, resels = 40, nu = 26;
    const Mat X = {{1, 0}, {1, 0}, {1, 0}, {1, 0}, {0, 1}, {0, 1}, {0, 1}, {0, 1}};
    const char *names[] = {"a", "b", "a-b"};
    const double contrasts[3][2] = {{1, 0}, {0, 1}, {1, -1}};
    test_support::TempDir dir;
    e2e::study s;
    s.g = e2e::geometry{9, 9, 1};
    s.smoothing = "smoothing 0 2";
    s.extra_header = "multiple-comparisons 40\n";
    s.add_group('a', 4, 1.0f, 20, 21);
    s.add_group('b', 4, 0.2f, 20, 22);
    // The sign of an error value does not matter: the model squares it.
    for (int v = 0; v < nv; v += 2) s.files[2].error[v] = -s.files[2].error[v];
    s.write(dir.path());
    auto r = test_support::run_fmri_rem({"study.rem"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.out;
    for (const char *line : {"Degrees of freedom: fixed = 160, random = 6, smoothed = 26\n",
                             "corrected for multiple comparisons (40)",
                             "\r 80 percent done computing statistics\r 100"})
        EXPECT_TRUE(holds(r.out, line));

    std::vector<float> sigma2 = read_floats(dir.file("sigma2.bfloat")), maps[3][3];
    ASSERT_EQ(sigma2.size(), 3u * nv);
    for (int c = 0; c < 3; ++c)
        for (int m = 0; m < 3; ++m) {  // T-, P-, S-
            maps[c][m] =
                read_floats(dir.file(std::string(1, "TPS"[m]) + "-" + names[c] + ".bfloat"));
            ASSERT_EQ(maps[c][m].size(), (m == 2 ? 2u : 1u) * nv);
        }
    int compared = 0;
    for (int v = 0; v < nv; ++v) {
        Vec y, se;
        e2e::samples(s, v, &y, &se);
        // The files' variances weighted by their degrees of freedom.
        const double fe = 20.0 / 160.0 * rem_test::dot(se, se);
        EXPECT_NEAR(sigma2[v], fe, 1e-5 * fe) << "voxel " << v;
        // NaN: the step count of the classic estimate is in doubt.
        const double re = rem_test::reml(X, y, se);
        EXPECT_TRUE(std::isnan(re) || std::fabs(sigma2[nv + v] - re) <= 1e-3 * re + 1e-6) << v;
        const float used = sigma2[2 * nv + v];
        if (!(used > 0.0f)) continue;
        ++compared;
        rem_test::Wls fit = rem_test::wls(X, se, used);
        Vec beta = rem_test::mat_vec(fit.estimator, y);
        for (int c = 0; c < 3; ++c) {
            const Vec l(contrasts[c], contrasts[c] + 2);
            double effect = rem_test::dot(l, beta),
                   variance = rem_test::dot(l, rem_test::mat_vec(fit.normal_inverse, l));
            double f = effect * effect / variance, t = std::copysign(std::sqrt(f), effect);
            double p = resels * 0.1169 * ((nu - 1.0) / nu * f - 1.0) *
                       std::pow(1.0 + f / nu, -(nu - 1.0) / 2.0);
            if (p > 1.0 || p < 0.0) p = 1.0;  // a corrected value may leave [0, 1]
            double code = std::copysign(-std::log10(p), t);
            SCOPED_TRACE(std::string(names[c]) + " voxel " + std::to_string(v));
            EXPECT_NEAR(maps[c][0][v], t, 1e-3 * std::fabs(t) + 1e-5);
            EXPECT_NEAR(maps[c][1][v], code, 1e-3 * std::fabs(code) + 1e-4);
            EXPECT_NEAR(maps[c][2][v], effect, 1e-4 * std::fabs(effect) + 1e-5);
            // The error is the effect divided by sqrt(F): it carries the effect's sign.
            EXPECT_NEAR(maps[c][2][nv + v], std::copysign(std::sqrt(variance), effect),
                        1e-3 * std::sqrt(variance));
        }
    }
    EXPECT_GT(compared, nv / 2);
}

}  // namespace
