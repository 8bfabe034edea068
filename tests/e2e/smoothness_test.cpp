// Whole runs with "smoothness estimated": the smoothness printed, the degrees
// of freedom that follow from it in the printed line and the result headers,
// and the ratio smoothed over the analysed voxels only.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

// Signs +1/-1 in runs: 4 along x (8 voxels), 3 along y (6), 2 along z (4).
float sign_at(int x, int y, int z) {
    return (x / 4 % 2 ? -1.0f : 1.0f) * (y / 3 % 2 ? -1.0f : 1.0f) * (z / 2 % 2 ? -1.0f : 1.0f);
}

// Width at half maximum of a Gaussian field whose neighbours d mm apart
// correlate by c.
double width(double c, double d) {
    return d * std::sqrt(-2.0 * std::log(2.0) / std::log(c));
}

}  // namespace

// Twelve files of one event, effect_k = 3 + s_k * sign(x, y, z) with errors
// of 1, except at x = 7 where file 5 has an error of 0, which leaves that
// slab out.  The least-squares residuals are (s_k - mean s) * sign, so the
// standardised residuals are signs whose neighbour correlation is counted by
// hand: along x 6 pairs per line, 1 of them across a change of sign, which
// makes 1 - 2/6; along y 1 - 2/5; along z 1 - 2/3.  Every analysed voxel has
// the same samples up to sign, hence the same variances: the ratio smoothed
// over the analysed voxels stays what it was (smoothing over the slab too
// would pull it down there).
TEST(SmoothnessEstimated, PrintsTheWidthAndItsDegreesOfFreedom) {
    e2e::study s;
    s.g = e2e::geometry{8, 6, 4};
    s.smoothing = "smoothing 6 8";
    s.conditions = "conditions a";
    for (int k = 0; k < 12; ++k) {
        e2e::signal_file f{"a" + std::to_string(k) + ".bfloat", 'a', 20, {}, {}};
        const float sk = static_cast<float>((k * 7) % 12) - 5.0f;
        for (int z = 0; z < 4; ++z)
            for (int y = 0; y < 6; ++y)
                for (int x = 0; x < 8; ++x) {
                    f.effect.push_back(3.0f + sk * sign_at(x, y, z));
                    f.error.push_back(k == 5 && x == 7 ? 0.0f : 1.0f);
                }
        s.files.push_back(f);
    }
    const double w[3] = {width(1 - 2.0 / 6, 2), width(1 - 2.0 / 5, 2), width(1 - 2.0 / 3, 2)};
    // Random dof 11, fixed 240; smoothing of 8 mm over voxels of 2 mm.
    double boost = 1.0;
    for (double wa : w) boost *= std::sqrt(2 * 64 / (wa * wa + 4) + 1);
    const int dof = static_cast<int>(std::lround(1 / (1 / (11 * boost) + 1 / 240.0)));
    const double resolution = std::cbrt(std::sqrt(w[0] * w[0] + 4) * std::sqrt(w[1] * w[1] + 4) *
                                        std::sqrt(w[2] * w[2] + 4));
    char expected[300];
    std::snprintf(expected, sizeof expected,
                  "Estimated smoothness (FWHM)       = %.2f x %.2f x %.2f mm, from 12 residual "
                  "maps\nEffective isotropic resolution    = %4.2f mm\n"
                  "Smoothing FWHM for variance ratio = 8 mm\n"
                  "Degrees of freedom: fixed = 240, random = 11, smoothed = %d\n",
                  w[0], w[1], w[2], resolution, dof);

    test_support::TempDir dir;
    s.extra_header = "smoothness estimated\n";
    s.write(dir.path());
    auto result = test_support::run_fmri_rem({"study.rem"}, dir.path());
    ASSERT_EQ(result.status, 0) << result.out;
    EXPECT_TRUE(holds(result.out, expected));
    EXPECT_TRUE(holds(test_support::read_file(dir.file("P-a.hdr")),
                      "degrees-of-freedom " + std::to_string(dof) + "\n"));
    const std::vector<float> sigma2 = test_support::read_floats(dir.file("sigma2.bfloat"));
    const size_t n = 8 * 6 * 4;
    ASSERT_EQ(sigma2.size(), 3 * n);
    for (size_t i = 0; i < n; ++i)
        EXPECT_NEAR(sigma2[2 * n + i], i % 8 == 7 ? 0.0f : sigma2[n + i], 1e-4 * sigma2[n + i]);
}
