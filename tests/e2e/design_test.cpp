// A whole run with a design of the user's own (two groups and an age
// covariate) against weighted least squares in double precision at the
// program's random-effects variance, which is itself checked against the
// maximum of the REML likelihood.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
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

// Twelve files of 5 degrees of freedom: the design leaves 12 - 3 = 9, and
// without smoothing the test has rint(1 / (1/9 + 1/60)) = 8.
TEST(DesignLayout, CovariateAgainstDoublePrecision) {
    const int n = 12, nu = 8;
    const double age[n] = {-6.5, -3, 0.5, 2, 4.25, 2.75, -5, -1.5, 1, 3.5, 0.75, 1.25};
    Mat X(n);
    for (int i = 0; i < n; ++i) X[i] = {i < 6 ? 1.0 : 0.0, i < 6 ? 0.0 : 1.0, age[i]};
    struct Condition {
        const char *name;
        Mat L;
    };
    const Condition conditions[] = {{"p-c", {{1, -1, 0}}},
                                    {"a", {{0, 0, 1}}},
                                    {"0.5*p+0.5*c", {{0.5, 0.5, 0}}},
                                    {"p-2*c,a", {{1, -2, 0}, {0, 0, 1}}}};

    test_support::TempDir dir;
    e2e::study s;
    s.g = e2e::geometry{10, 5, 2};
    s.add_group('p', 6, 1.0f, 5, 31);
    s.add_group('c', 6, 0.2f, 5, 32);
    const int nv = s.g.voxels();
    for (int i = 0; i < n; ++i)
        for (int v = 0; v < nv; ++v) {
            s.files[i].effect[v] += static_cast<float>(0.2 * age[i]);
            s.files[i].error[v] *= 0.3f;  // below the spread between files
        }
    s.write(dir.path(), "listed.rem");
    std::string text =
        "smoothing 0 0\nconditions p-c a 0.5*p+0.5*c p-2*c,a\nreml converged\n"
        "design p c a  # groups, age\nmeasurements\n";
    for (int i = 0; i < n; ++i) {
        char line[128];
        std::snprintf(line, sizeof line, "%s %d %d %g\n", s.files[i].name.c_str(), i < 6, i >= 6,
                      age[i]);
        text += line;
    }
    test_support::write_file(dir.file("study.rem"), text);

    auto plain = test_support::run_fmri_rem({"study.rem"}, dir.path(), "", "FMRI_REM_PLAIN=1");
    ASSERT_EQ(plain.status, 0) << plain.out;
    std::vector<float> saved[4], maps[4][3];  // T- of the plain run; T-, P-, S- of the fast one
    for (int c = 0; c < 4; ++c)
        saved[c] = read_floats(dir.file(std::string("T-") + conditions[c].name + ".bfloat"));
    auto r = test_support::run_fmri_rem({"study.rem"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.out;
    for (int c = 0; c < 4; ++c) {
        for (int m = 0; m < 3; ++m)
            maps[c][m] = read_floats(
                dir.file(std::string(1, "TPS"[m]) + "-" + conditions[c].name + ".bfloat"));
        EXPECT_EQ(maps[c][0], saved[c]) << c;  // both kernels give the same bits
    }
    EXPECT_NE(r.out.find("\nDESIGN matrix of 12 files and 3 columns, events p c a:\n"
                         "file[0] = p1.bfloat , p = 1 , c = 0 , a = -6.5\n"),
              std::string::npos);
    EXPECT_NE(r.out.find("Degrees of freedom: fixed = 60, random = 9, smoothed = 8\n"),
              std::string::npos);
    const std::string rows = "x eventp eventc eventa \n0 1.000000 0.000000 -6.500000 \n";
    EXPECT_EQ(test_support::read_file(dir.file("basis.dat")).substr(0, rows.size()), rows);

    const std::vector<float> sigma2 = read_floats(dir.file("sigma2.bfloat"));
    ASSERT_EQ(sigma2.size(), 2u * nv);  // no smoothing: no third frame
    int compared = 0;
    for (int v = 0; v < nv; ++v) {
        Vec y, se;
        e2e::samples(s, v, &y, &se);
        const double re = sigma2[nv + v];
        if (v % 10 == 0) {  // the likelihood's maximum, on a grid: costly
            const double best = rem_test::reml_grid_maximum(X, y, se, 0.0, 20.0);
            EXPECT_NEAR(re, best, 1e-4 * best + 1e-6) << "voxel " << v;
        }
        if (!(re > 0.0)) continue;
        ++compared;
        const rem_test::Wls fit = rem_test::wls(X, se, re);
        const Vec beta = rem_test::mat_vec(fit.estimator, y);
        for (int c = 0; c < 4; ++c) {
            const Mat &L = conditions[c].L;
            SCOPED_TRACE(std::string(conditions[c].name) + " voxel " + std::to_string(v));
            // Contrast values, their covariance L.N.L' and F = c'(LNL')^-1 c / m.
            Vec values;
            Mat M;
            for (const Vec &l : L) values.push_back(rem_test::dot(l, beta));
            for (const Vec &l : L) {
                M.emplace_back();
                for (const Vec &k : L)
                    M.back().push_back(rem_test::dot(l, rem_test::mat_vec(fit.normal_inverse, k)));
            }
            // For two rows, (LNL')^-1 by its adjugate.
            const bool two = L.size() == 2;
            const double F =
                two ? (values[0] * values[0] * M[1][1] - 2 * values[0] * values[1] * M[0][1] +
                       values[1] * values[1] * M[0][0]) /
                          (M[0][0] * M[1][1] - M[0][1] * M[1][0]) / 2
                    : values[0] * values[0] / M[0][0];
            const double effect =
                two && std::fabs(values[1]) > std::fabs(values[0]) ? values[1] : values[0];
            const double t = std::copysign(std::sqrt(F), effect);
            EXPECT_NEAR(maps[c][2][v], effect, 1e-4 * std::fabs(effect) + 1e-5);
            EXPECT_NEAR(maps[c][0][v], t, 1e-3 * std::fabs(t) + 1e-5);
            if (!two) {
                const double code = std::copysign(-std::log10(t_two_sided(t, nu)), t);
                EXPECT_NEAR(maps[c][1][v], code, 1e-3 * std::fabs(code) + 1e-4);
            }
        }
    }
    EXPECT_GT(compared, nv / 2);
}

}  // namespace
