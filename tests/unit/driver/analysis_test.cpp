// Effective degrees of freedom of the smoothed random-effects variance,
// against hand calculations of
//   r = (rx ry rz)^0.3333 with ri = sqrt(p^2 + di^2),
//   dof = rint(1 / (1 / (Dr (2 f^2 / r^2 + 1)^1.5) + 1 / Df)).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "driver.h"
#include "rem.h"

namespace {

TEST(ComputeEffectiveDof, HandCalculations) {
    struct Case {
        float prior, ratio, d[3];
        int nfiles, fixed, nbasis, expected;
        const char *resolution;
    };
    const Case cases[] = {
        // r = 6.70693; factor 5.1455^1.5; 1/(1/(22 x 11.672) + 1/2827) = 156.71
        {6, 8, {3, 3, 3}, 24, 2827, 2, 157, "6.71"},
        // anisotropic voxels: r = 4.83578; 1/(1/(2 x 28.7) + 1/300) = 49.34
        {4, 10, {2, 2, 4}, 3, 300, 1, 49, "4.84"},
        // r = 1 exactly; 1/(1/(10 x 51^1.5) + 1/1000) = 784.58
        {0, 5, {1, 1, 1}, 12, 1000, 2, 785, "1.00"},
    };
    static file_list_entry nodes[24];
    for (const Case &c : cases) {
        // The fixed degrees of freedom spread over the list of files.
        for (int k = 0; k < c.nfiles; ++k) {
            file_list_entry &e = k == 0 ? file_list_root : nodes[k];
            e.dof = c.fixed / c.nfiles + (k < c.fixed % c.nfiles ? 1 : 0);
            e.next = k + 1 < c.nfiles ? &nodes[k + 1] : nullptr;
        }
        std::copy(c.d, c.d + 3, file_list_root.resolution);
        REM_input.prior_smoothing = c.prior;
        REM_input.ratio_smoothing = c.ratio;
        REM.nfiles = c.nfiles;
        REM.nbasis = c.nbasis;
        const std::string last = "Degrees of freedom: fixed = " + std::to_string(c.fixed) +
                                 ", random = " + std::to_string(c.nfiles - c.nbasis) +
                                 ", smoothed = " + std::to_string(c.expected) + "\n";
        int dof = -1;
        testing::internal::CaptureStdout();
        EXPECT_EQ(compute_effective_dof(&dof), static_cast<int>(last.size()));
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Effective isotropic resolution    = " + std::string(c.resolution) +
                      " mm\nSmoothing FWHM for variance ratio = " + std::to_string(int(c.ratio)) +
                      " mm\n" + last);
        EXPECT_EQ(dof, c.expected);
    }
}

}  // namespace
