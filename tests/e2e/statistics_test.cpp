// The statistics of whole runs against an independent computation in double
// precision: classic REML by its EM iteration, converged REML as the
// likelihood's maximum, weighted least squares, the t distribution in closed
// form.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../unit/rem/reml_likelihood.h"
#include "study.h"
#include "test_support.h"

namespace {

using e2e::t_two_sided;
using rem_test::Mat;
using rem_test::Vec;
using test_support::read_floats;

// Eight files in two events with 20 degrees of freedom each.  The classic
// estimate with the variance ratio smoothed with 2 mm on voxels of 2 mm:
// r = 8^0.3333 = 1.99986, 6 (8 / r^2 + 1)^1.5 = 31.18, so the test has
// rint(1/(1/31.18 + 1/160)) = 26 degrees of freedom, not the design's 6; the
// maps raw and corrected for 40 resels; the final fit uses the program's own
// smoothed variance.  "reml converged" without smoothing: the estimate is the
// maximiser of the REML likelihood (found by a grid search), the test has
// rint(1/(1/6 + 1/160)) = 6 degrees of freedom and the final fit uses the raw
// estimate, also where that is 0, which the classic second pass would skip.
// Every voxel's maps are compared.  The 9 x 9 voxels (fewer than 100) show
// progress at every voxel.
TEST(Statistics, AgainstDoublePrecision) {
    const int nv = 81;
    const Mat X = {{1, 0}, {1, 0}, {1, 0}, {1, 0}, {0, 1}, {0, 1}, {0, 1}, {0, 1}};
    const char *names[] = {"a", "b", "a-b"};
    const double contrasts[3][2] = {{1, 0}, {0, 1}, {1, -1}};
    const struct {
        const char *header;
        int resels, nu;
        bool converged;
    } runs[] = {{"", 0, 26, false},
                {"multiple-comparisons 40\n", 40, 26, false},
                {"reml converged\n", 0, 6, true}};
    for (const auto &run : runs) {
        SCOPED_TRACE(run.header);
        const int resels = run.resels, nu = run.nu;
        test_support::TempDir dir;
        e2e::study s;
        s.g = e2e::geometry{9, 9, 1};
        s.smoothing = run.converged ? "smoothing 0 0" : "smoothing 0 2";
        s.extra_header = run.header;
        s.add_group('a', 4, 1.0f, 20, 21);
        s.add_group('b', 4, 0.2f, 20, 22);
        // The sign of an error value does not matter: the model squares it.
        for (int v = 0; v < nv; v += 2) s.files[2].error[v] = -s.files[2].error[v];
        s.write(dir.path());
        auto r = test_support::run_fmri_rem({"study.rem"}, dir.path());
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_NE(r.out.find("Degrees of freedom: fixed = 160, random = 6, smoothed = " +
                             std::to_string(nu) + "\n"),
                  std::string::npos);
        EXPECT_EQ(r.out.find("corrected for multiple comparisons (40)") != std::string::npos,
                  resels > 0);
        EXPECT_NE(r.out.find("\r 80 percent done computing statistics\r 100"), std::string::npos);

        std::vector<float> sigma2 = read_floats(dir.file("sigma2.bfloat")), maps[3][3];
        ASSERT_EQ(sigma2.size(), (run.converged ? 2u : 3u) * nv);
        for (int c = 0; c < 3; ++c) {
            for (int m = 0; m < 3; ++m) {  // T-, P-, S-
                std::vector<float> &map = maps[c][m];
                map = read_floats(dir.file(std::string(1, "TPS"[m]) + "-" + names[c] + ".bfloat"));
                ASSERT_EQ(map.size(), (m == 2 ? 2u : 1u) * nv);
            }
        }
        int compared = 0, zeros = 0;
        for (int v = 0; v < nv; ++v) {
            Vec y, se;
            e2e::samples(s, v, &y, &se);
            // The files' variances weighted by their degrees of freedom.
            const double fe = 20.0 / 160.0 * rem_test::dot(se, se);
            EXPECT_NEAR(sigma2[v], fe, 1e-5 * fe) << "voxel " << v;
            // NaN: the step count of the classic estimate is in doubt.
            const double re = run.converged ? rem_test::reml_grid_maximum(X, y, se, 0.0, 20.0)
                                            : rem_test::reml(X, y, se);
            if (!std::isnan(re)) {
                EXPECT_NEAR(sigma2[nv + v], re, (run.converged ? 1e-5 : 1e-3) * re + 1e-6)
                    << "voxel " << v;
            }
            const float used = sigma2[(run.converged ? 1 : 2) * nv + v];
            zeros += used == 0.0f;
            if (!run.converged && !(used > 0.0f)) continue;
            ++compared;
            rem_test::Wls fit = rem_test::wls(X, se, used);
            Vec beta = rem_test::mat_vec(fit.estimator, y);
            for (int c = 0; c < 3; ++c) {
                const Vec l(contrasts[c], contrasts[c] + 2);
                double effect = rem_test::dot(l, beta),
                       variance = rem_test::dot(l, rem_test::mat_vec(fit.normal_inverse, l));
                double f = effect * effect / variance, t = std::copysign(std::sqrt(f), effect);
                double p = resels ? resels * 0.1169 * ((nu - 1.0) / nu * f - 1.0) *
                                        std::pow(1.0 + f / nu, -(nu - 1.0) / 2.0)
                                  : t_two_sided(t, nu);
                if (p > 1.0 || p < 0.0) p = 1.0;  // only a corrected value leaves [0, 1]
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
        EXPECT_TRUE(!run.converged || zeros > 10) << zeros;  // common with 8 files
    }
}

}  // namespace
