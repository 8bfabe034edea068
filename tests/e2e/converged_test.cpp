// Whole runs with "reml converged": the same printed text and files as the
// classic run, except the between-subject variance and what follows from it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

using test_support::read_floats;

// With and without ratio smoothing, on the fast passes and the plain ones:
// the printed text, the headers, basis.dat, .vistra and the fixed-effects
// variance are those of the classic run (the estimate and the test against
// double precision: e2e/statistics_test.cpp).  A voxel with an error of 0 is
// still skipped.  Indicator columns in a design layout are the listed
// layout's design: the classic run's files, bit for bit, in both kernels.
TEST(Converged, SameRunAsClassicExceptTheEstimate) {
    const int nv = 200, skipped = 57;
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
        // Every file the same, but for the analysis file and what the options exclude.
        auto same = [&](int a, int b, const std::string &options) {
            return test_support::run_command("diff -r -x study.rem " + options + " " + runs[a] +
                                             " " + runs[b])
                       .status == 0;
        };
        EXPECT_TRUE(same(0, 1, "-x '*.bfloat'"));  // converged: all but the volumes
        EXPECT_TRUE(same(1, 2, ""));
        EXPECT_TRUE(same(0, 3, ""));
        EXPECT_TRUE(same(0, 4, ""));

        const std::vector<float> classic = read_floats(runs[0] + "/sigma2.bfloat");
        const std::vector<float> sigma2 = read_floats(runs[1] + "/sigma2.bfloat");
        ASSERT_EQ(sigma2.size(), (smoothed ? 3u : 2u) * nv);
        EXPECT_TRUE(std::equal(classic.begin(), classic.begin() + nv, sigma2.begin()));
        EXPECT_EQ(sigma2[skipped], 0.0f);
        EXPECT_EQ(sigma2[nv + skipped], 0.0f);
        EXPECT_EQ(read_floats(runs[1] + "/T-a-b.bfloat")[skipped], 0.0f);
    }
}
