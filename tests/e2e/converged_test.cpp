// Whole runs with "reml converged": the same printed text and files as the
// classic run, except the between-subject variance and what follows from it.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "../unit/rem/reml_likelihood.h"
#include "study.h"
#include "test_support.h"

namespace {

using rem_test::Mat;
using rem_test::Vec;
using test_support::read_file;
using test_support::read_floats;
using test_support::run_fmri_rem;
using test_support::TempDir;

}  // namespace

// With and without ratio smoothing, on the fast passes and the plain ones:
// the printed text, the headers, basis.dat, .vistra and the fixed-effects
// variance are those of the classic run; the REML frame holds the maximiser
// of the REML likelihood over tau2 >= 0 (found by a grid search); the test
// of a-b is a weighted least-squares fit with the smoothed or, without
// smoothing, the raw estimate, also where that is 0, which the classic
// second pass would skip.  A voxel with an error of 0 is still skipped.
TEST(Converged, SameRunAsClassicExceptTheEstimate) {
    const int nv = 200, skipped = 57;
    const Mat X = {{1, 0}, {1, 0}, {1, 0}, {0, 1}, {0, 1}, {0, 1}};
    for (const char *smoothing : {"smoothing 0 4", "smoothing 0 0"}) {
        SCOPED_TRACE(smoothing);
        const bool smoothed = std::string(smoothing) != "smoothing 0 0";
        TempDir dir;
        e2e::study s = e2e::small_study();
        s.smoothing = smoothing;
        s.files[4].error[skipped] = 0.0f;
        const char *runs[] = {"classic", "converged", "plain"};
        std::string out[3];
        for (int r = 0; r < 3; ++r) {
            std::filesystem::create_directory(dir.file(runs[r]));
            s.extra_header = r == 0 ? "" : "reml converged\n";
            s.write(dir.file(runs[r]));
            auto result = run_fmri_rem({"study.rem"}, dir.file(runs[r]), "",
                                       r == 2 ? "FMRI_REM_PLAIN=1" : "");
            ASSERT_EQ(result.status, 0) << result.out;
            EXPECT_EQ(result.err, "");
            out[r] = result.out;
        }
        EXPECT_EQ(out[1], out[0]);
        EXPECT_EQ(out[2], out[0]);
        auto file = [&](int r, const std::string &name) {
            return read_file(dir.file(runs[r]) + "/" + name);
        };
        std::vector<std::string> names = {"basis.dat", ".vistra", "sigma2.hdr"};
        for (std::string c : {"a", "b", "a-b"})
            for (std::string m : {"P-", "T-", "S-"}) {
                names.push_back(m + c + ".hdr");
                EXPECT_EQ(file(1, m + c + ".bfloat"), file(2, m + c + ".bfloat")) << m + c;
            }
        for (const std::string &name : names) EXPECT_EQ(file(1, name), file(0, name)) << name;
        EXPECT_EQ(file(1, "sigma2.bfloat"), file(2, "sigma2.bfloat"));

        const std::vector<float> classic = read_floats(dir.file("classic/sigma2.bfloat"));
        const std::vector<float> sigma2 = read_floats(dir.file("converged/sigma2.bfloat"));
        const std::vector<float> t = read_floats(dir.file("converged/T-a-b.bfloat"));
        ASSERT_EQ(sigma2.size(), (smoothed ? 3u : 2u) * nv);
        int zeros = 0;
        for (int v = 0; v < nv; ++v) {
            SCOPED_TRACE("voxel " + std::to_string(v));
            ASSERT_EQ(sigma2[v], classic[v]);
            const float re = sigma2[nv + v];
            if (v == skipped) {
                EXPECT_EQ(sigma2[v], 0.0f);
                EXPECT_EQ(re, 0.0f);
                EXPECT_EQ(t[v], 0.0f);
                continue;
            }
            Vec y(6), se(6);
            for (int i = 0; i < 6; ++i) {
                y[i] = s.files[i].effect[v];
                se[i] = s.files[i].error[v];
            }
            if (v % 5 == 0) {
                const double grid = rem_test::reml_grid_maximum(X, y, se, 0.0, 20.0);
                EXPECT_NEAR(re, grid, 1e-5 * grid + 1e-7);
            }
            if (re == 0.0f) ++zeros;
            const float used = smoothed ? sigma2[2 * nv + v] : re;
            const rem_test::Wls fit = rem_test::wls(X, se, used);
            const Vec beta = rem_test::mat_vec(fit.estimator, y);
            const double effect = beta[0] - beta[1];
            const double variance =
                fit.normal_inverse[0][0] + fit.normal_inverse[1][1] - 2 * fit.normal_inverse[0][1];
            EXPECT_NEAR(t[v], effect / std::sqrt(variance), 1e-4 * std::fabs(t[v]) + 1e-5);
        }
        EXPECT_GT(zeros, 10);  // an estimate of 0 is common with 6 files
    }
}
