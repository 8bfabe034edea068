// Effective degrees of freedom of the smoothed random-effects variance,
// against hand calculations of
//   r = (rx ry rz)^0.3333 with ri = sqrt(p^2 + di^2),
//   dof = rint(1 / (1 / (Dr (2 f^2 / r^2 + 1)^1.5) + 1 / Df)).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver.h"
#include "rem.h"

namespace {

TEST(ComputeEffectiveDof, HandCalculations) {
    struct Case {
        float prior, ratio;
        float d[3];
        std::vector<int> dofs;  // per signal file
        int nbasis;
        int expected;
        const char *resolution_line;
        const char *smoothing_line;
        const char *dof_line;
    };
    const Case cases[] = {
        // r = 8^0.3333 = 1.99986; 1/(1/2 + 1/40) = 1.905
        {0, 0, {2, 2, 2}, {10, 10, 10, 10}, 2, 2, "Effective isotropic resolution    = 2.00 mm\n",
         "Smoothing FWHM for variance ratio = 0 mm\n",
         "Degrees of freedom: fixed = 40, random = 2, smoothed = 2\n"},
        // r = 6.70693; factor 5.1455^1.5; 1/(1/(22 x 11.672) + 1/2827) = 156.71
        {6, 8, {3, 3, 3}, std::vector<int>(24, 0), 2, 157,
         "Effective isotropic resolution    = 6.71 mm\n",
         "Smoothing FWHM for variance ratio = 8 mm\n",
         "Degrees of freedom: fixed = 2827, random = 22, smoothed = 157\n"},
        // anisotropic voxels: r = 4.83578; 1/(1/(2 x 28.7) + 1/300) = 49.34
        {4, 10, {2, 2, 4}, {100, 100, 100}, 1, 49, "Effective isotropic resolution    = 4.84 mm\n",
         "Smoothing FWHM for variance ratio = 10 mm\n",
         "Degrees of freedom: fixed = 300, random = 2, smoothed = 49\n"},
        // r = 1 exactly; 1/(1/(10 x 51^1.5) + 1/1000) = 784.58
        {0, 5, {1, 1, 1}, std::vector<int>(12, 0), 2, 785,
         "Effective isotropic resolution    = 1.00 mm\n",
         "Smoothing FWHM for variance ratio = 5 mm\n",
         "Degrees of freedom: fixed = 1000, random = 10, smoothed = 785\n"},
    };
    for (const Case &c : cases) {
        std::vector<int> dofs = c.dofs;
        if (dofs.size() == 24) {  // 2827 spread over 24 files
            for (int k = 0; k < 24; ++k) dofs[k] = 117 + (k < 19 ? 1 : 0);
        }
        if (dofs.size() == 12) {
            for (int k = 0; k < 12; ++k) dofs[k] = k < 4 ? 84 : 83;
        }
        // The list: the root and further nodes.
        static std::vector<file_list_entry> nodes;
        nodes.assign(dofs.size(), file_list_entry{});
        file_list_root = file_list_entry{};
        file_list_entry *previous = &file_list_root;
        file_list_root.dof = dofs[0];
        for (size_t k = 1; k < dofs.size(); ++k) {
            nodes[k].dof = dofs[k];
            previous->next = &nodes[k];
            previous = &nodes[k];
        }
        for (int a = 0; a < 3; ++a) file_list_root.resolution[a] = c.d[a];
        REM_input.prior_smoothing = c.prior;
        REM_input.ratio_smoothing = c.ratio;
        REM.nfiles = static_cast<int>(dofs.size());
        REM.nbasis = c.nbasis;

        int dof = -1;
        testing::internal::CaptureStdout();
        int length = compute_effective_dof(&dof);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(dof, c.expected) << c.dof_line;
        EXPECT_EQ(out, std::string(c.resolution_line) + c.smoothing_line + c.dof_line);
        EXPECT_EQ(length, static_cast<int>(std::string(c.dof_line).size()));
    }
}

}  // namespace
