// Whole runs with "reml converged": the same printed text and files as the
// classic run, except the between-subject variance and what follows from it.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

using rem_test::Mat;
using rem_test::Vec;
using test_support::read_floats;

// With and without ratio smoothing, on the fast passes and the plain ones:
// the printed text, the headers, basis.dat, .vistra and the fixed-effects
// variance are those of the classic run (the REML frame against the
// likelihood's maximum: bridge/design_model_test.cpp); the test
// of a-b is a weighted least-squares fit with the smoothed or, without
// smoothing, the raw estimate, also where that is 0, which the classic
// second pass would skip.  A voxel with an error of 0 is still skipped.
// Indicator columns in a design layout are the listed layout's design: the
// classic run's files, bit for bit, in both kernels.
TEST(Converged, SameRunAsClassicExceptTheEstimate) {
    const int nv = 200, skipped = 57;
    const Mat X = {{1, 0}, {1, 0}, {1, 0}, {0, 1}, {0, 1}, {0, 1}};
    for (const char *smoothing : {"smoothing 0 4", "smoothing 0 0"}) {
        SCOPED_TRACE(smoothing);
        const bool smoothed = std::string(smoothing) != "smoothing 0 0";
        test_support::TempDir dir;
        e2e::study s = e2e::small_study();
        s.smoothing = smoothing;
        s.conditions = "conditions a b a-b a,b";
        s.files[4].error[skipped] = 0.0f;
        std::string design = s.smoothing + "\n" + s.conditions + "\ndesign a b\nmeasurements\n";
        for (const e2e::signal_file &f : s.files)
            design += f.name + (f.event == 'a' ? " 1 0\n" : " 0 1\n");
        const std::string runs[] = {dir.file("classic"), dir.file("converged"), dir.file("plain"),
                                    dir.file("design"), dir.file("design-plain")};
        std::string out[5];
        for (int r = 0; r < 5; ++r) {
            std::filesystem::create_directory(runs[r]);
            s.extra_header = r == 1 || r == 2 ? "reml converged\n" : "";
            s.write(runs[r]);
            if (r >= 3) test_support::write_file(runs[r] + "/study.rem", design);
            auto result = test_support::run_fmri_rem({"study.rem"}, runs[r], "",
                                                     r % 2 == 0 && r ? "FMRI_REM_PLAIN=1" : "");
            ASSERT_EQ(result.status, 0) << result.out;
            EXPECT_EQ(result.err, "");
            out[r] = result.out;
        }
        EXPECT_EQ(out[1], out[0]);
        EXPECT_EQ(out[4], out[3]);
        EXPECT_EQ(out[2], out[0]);
        auto file = [&](int r, const std::string &name) {
            return test_support::read_file(runs[r] + "/" + name);
        };
        EXPECT_EQ(file(1, "sigma2.bfloat"), file(2, "sigma2.bfloat"));
        for (std::string name : {"basis.dat", ".vistra", "sigma2.hdr"})
            EXPECT_EQ(file(1, name), file(0, name)) << name;
        for (int r : {3, 4})
            for (std::string name : {"sigma2.bfloat", "basis.dat"})
                EXPECT_EQ(file(r, name), file(0, name)) << runs[r] << name;
        for (std::string c : {"a", "b", "a-b", "a,b"})
            for (std::string m : {"P-", "T-", "S-"}) {
                EXPECT_EQ(file(1, m + c + ".hdr"), file(0, m + c + ".hdr")) << m + c;
                EXPECT_EQ(file(1, m + c + ".bfloat"), file(2, m + c + ".bfloat")) << m + c;
                for (int r : {3, 4})
                    EXPECT_EQ(file(r, m + c + ".bfloat"), file(0, m + c + ".bfloat")) << r << m + c;
            }

        const std::vector<float> classic = read_floats(runs[0] + "/sigma2.bfloat");
        const std::vector<float> sigma2 = read_floats(runs[1] + "/sigma2.bfloat");
        const std::vector<float> t = read_floats(runs[1] + "/T-a-b.bfloat");
        ASSERT_EQ(sigma2.size(), (smoothed ? 3u : 2u) * nv);
        int zeros = 0;
        for (int v = 0; v < nv; ++v) {
            SCOPED_TRACE("voxel " + std::to_string(v));
            ASSERT_EQ(sigma2[v], classic[v]);
            const float re = sigma2[nv + v];
            if (v == skipped) {
                EXPECT_EQ(sigma2[v] + std::fabs(re) + std::fabs(t[v]), 0.0f);
                continue;
            }
            Vec y, se;
            e2e::samples(s, v, &y, &se);
            zeros += re == 0.0f;  // common with 6 files
            const rem_test::Wls fit = rem_test::wls(X, se, smoothed ? sigma2[2 * nv + v] : re);
            const Vec beta = rem_test::mat_vec(fit.estimator, y);
            const Mat &N = fit.normal_inverse;
            const double t_ab = (beta[0] - beta[1]) / std::sqrt(N[0][0] + N[1][1] - 2 * N[0][1]);
            EXPECT_NEAR(t[v], t_ab, 1e-4 * std::fabs(t[v]) + 1e-5);
        }
        EXPECT_GT(zeros, 10);
    }
}
