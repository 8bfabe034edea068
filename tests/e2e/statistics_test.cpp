// The statistics of whole runs against an independent computation in double
// precision (REML by its EM iteration, weighted least squares, the t
// distribution in closed form), and the false-positive rate of a null study.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

using rem_test::Mat;
using rem_test::Vec;
using test_support::read_floats;
using test_support::TempDir;

// Restricted maximum likelihood by the EM update, starting from the ordinary
// least-squares residual variance, until a step changes the estimate by at
// most 5 %.
double reml(const Mat &X, const Vec &y, const Vec &s) {
    const double n = y.size(), k = X[0].size();
    // No errors and unit variance give unit weights: ordinary least squares.
    double sigma2 =
        rem_test::dot(y, rem_test::mat_vec(rem_test::wls(X, Vec(y.size(), 0.0), 1.0).R, y)) /
        (n - k);
    for (double change = 1.0; change > 0.05;) {
        Mat R = rem_test::wls(X, s, sigma2).R;
        double trace = 0.0;
        for (size_t i = 0; i < y.size(); ++i) trace += s[i] * s[i] * R[i][i];
        Vec Ry = rem_test::mat_vec(R, y);
        double next = ((trace + k) * sigma2 + sigma2 * sigma2 * rem_test::dot(Ry, Ry)) / n;
        change = std::fabs(1.0 - next / sigma2);
        sigma2 = next;
    }
    return sigma2;
}

// P(|T| > t) for Student's t with an even number of degrees of freedom.
double t_two_sided(double t, int nu) {
    double c2 = nu / (nu + t * t), term = 1.0, sum = 1.0;
    for (int j = 2; j <= nu - 2; j += 2) sum += (term *= (j - 1.0) / j * c2);
    return 1.0 - std::fabs(t) / std::sqrt(nu + t * t) * sum;
}

// Eight files in two events with 20 degrees of freedom each, no ratio
// smoothing: the test's degrees of freedom are rint(1/(1/6 + 1/160)) = 6.
// Every voxel's maps are compared, raw and corrected for 40 resels.  The
// volume of 9 x 9 voxels (fewer than 100) shows progress at every voxel.
TEST(Statistics, AgainstDoublePrecision) {
    for (int resels : {0, 40}) {
        SCOPED_TRACE(resels);
        TempDir dir;
        e2e::study s;
        s.g = e2e::geometry{9, 9, 1};
        const int nv = 81;
        s.smoothing = "smoothing 0 0";
        if (resels) s.extra_header = "multiple-comparisons 40\n";
        s.add_group('a', 4, 1.0f, 20, 21);
        s.add_group('b', 4, 0.2f, 20, 22);
        // The sign of an error value does not matter: the model squares it.
        for (int v = 0; v < nv; v += 2) s.files[2].error[v] = -s.files[2].error[v];
        s.write(dir.path());
        auto r = test_support::run_fmri_rem({"study.rem"}, dir.path());
        ASSERT_EQ(r.status, 0) << r.out;
        ASSERT_NE(r.out.find("Degrees of freedom: fixed = 160, random = 6, smoothed = 6\n"),
                  std::string::npos);
        ASSERT_EQ(r.out.find("corrected for multiple comparisons (40)") != std::string::npos,
                  resels > 0);
        EXPECT_NE(r.out.find("\r 80 percent done computing statistics\r 100"), std::string::npos);

        const int n = 8, nu = 6;
        Mat X(n, Vec{1, 0});
        for (int i = 4; i < n; ++i) X[i] = {0, 1};
        const char *names[] = {"a", "b", "a-b"};
        const double contrasts[3][2] = {{1, 0}, {0, 1}, {1, -1}};
        std::vector<float> sigma2 = read_floats(dir.file("sigma2.bfloat")), maps[3][3];
        ASSERT_EQ(sigma2.size(), 2u * nv);
        for (int c = 0; c < 3; ++c) {
            for (int m = 0; m < 3; ++m)
                maps[c][m] =
                    read_floats(dir.file(std::string(1, "TPS"[m]) + "-" + names[c] + ".bfloat"));
            ASSERT_EQ(maps[c][2].size(), 2u * nv);
        }
        int compared = 0;
        for (int v = 0; v < nv; ++v) {
            Vec y(n), se(n);
            double fe = 0.0;
            for (int i = 0; i < n; ++i) {
                y[i] = s.files[i].effect[v];
                se[i] = s.files[i].error[v];
                fe += 20.0 / 160.0 * se[i] * se[i];
            }
            EXPECT_NEAR(sigma2[v], fe, 1e-5 * fe) << "voxel " << v;
            double re = reml(X, y, se);
            EXPECT_NEAR(sigma2[nv + v], re, 1e-3 * re + 1e-6) << "voxel " << v;
            // The final fit uses the program's own variance estimate.
            if (!(sigma2[nv + v] > 0.0f)) continue;
            ++compared;
            rem_test::Wls fit = rem_test::wls(X, se, sigma2[nv + v]);
            Vec beta = rem_test::mat_vec(fit.estimator, y);
            for (int c = 0; c < 3; ++c) {
                const double *l = contrasts[c];
                double effect = l[0] * beta[0] + l[1] * beta[1];
                double variance = 0.0;
                for (int a = 0; a < 2; ++a)
                    for (int b = 0; b < 2; ++b) variance += l[a] * fit.normal_inverse[a][b] * l[b];
                double f = effect * effect / variance, t = std::copysign(std::sqrt(f), effect);
                double p = t_two_sided(t, nu);
                if (resels) {
                    p = resels * 0.1169 * ((nu - 1.0) / nu * f - 1.0) *
                        std::pow(1.0 + f / nu, -(nu - 1.0) / 2.0);
                    if (p > 1.0 || p < 0.0) p = 1.0;
                }
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
}

// Without any group effect, about 5 % of the voxels reach p < 0.05.  With
// 6912 independent voxels per condition the binomial standard error is
// 0.26 %; the band allows for the approximate degrees of freedom of the
// smoothed variance.
TEST(Statistics, NullStudyFalsePositiveRate) {
    TempDir dir;
    std::string simulate =
        test_support::shell_quote(std::string(FMRI_REM_BUILD_DIR) + "/fmri-rem-simulate");
    ASSERT_EQ(test_support::run_command(
                  simulate + " -o study --prefix ../study/ --null --no-mask --uniform "
                             "--smoothing 0 8 --size 24 24 12 --seed 7 && mkdir results",
                  dir.path())
                  .status,
              0);
    auto r = test_support::run_fmri_rem({"../study/analysis.rem"}, dir.file("results"));
    ASSERT_EQ(r.status, 0) << r.out;
    for (const char *c : {"p", "c", "p-c"}) {
        std::vector<float> p = read_floats(dir.file(std::string("results/P-") + c + ".bfloat"));
        ASSERT_EQ(p.size(), 24u * 24 * 12);
        size_t hits = 0;
        for (float v : p) hits += std::fabs(v) > -std::log10(0.05);
        double rate = static_cast<double>(hits) / p.size();
        EXPECT_GT(rate, 0.035) << c;
        EXPECT_LT(rate, 0.065) << c;
    }
}

}  // namespace
