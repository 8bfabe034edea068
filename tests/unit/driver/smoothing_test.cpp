// Variance-ratio smoothing: bad indices, the regularisation of uniform fields
// and the Gaussian smoothing of a single spike, compared with the analytic
// kernel.  Axes of odd and even length check the turns of each line around
// the transforms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "driver.h"
#include "rem.h"

namespace {

// The k-space kernel at the element where the zero frequency lands.  The line
// is turned by n/2 before the transform and back after it; on an axis of odd
// length the turn back is n/2 + 1, which moves the zero frequency one element
// on: k = 0.5 on an axis of even length, 1.5 on one of odd length.
double kernel_at_zero(const int n[3], const float d[3], double fwhm) {
    double g = 1.0;
    for (int a = 0; a < 3; ++a) {
        const double k = n[a] % 2 ? 1.5 : 0.5,
                     width = d[a] * d[a] * n[a] * n[a] * 0.1404824543408127 / fwhm / fwhm;
        g *= std::exp(-k * k / 2.0 / width);
    }
    return g;
}

TEST(DataStackDeathTest, BadIndexEndsTheProcess) {
    data_stack s;
    create_simple_data_stack(&s, 4, 3, 2, 1, 1, 1, 1, 0);
    EXPECT_EQ(index4d_stack(3, 2, 1, 0, &s), 23);
    EXPECT_EXIT(index4d_stack(4, 0, 0, 0, &s), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(index4d_stack(0, -1, 0, 0, &s), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(index4d_stack(0, 0, 0, 1, &s), testing::ExitedWithCode(1), "");
    free_float_vector(static_cast<float *>(s.data));
}

// The regularisation smooths the ratio of total to fixed variance and maps it
// back.  A uniform ratio keeps its level times the kernel at the zero
// frequency; a ratio of 1e9 keeps that factor visible in the result even
// where the kernel is 6e-8 (4 voxels of 1 mm, 10 mm wide).  Voxels without
// fixed variance stay at zero.  The tolerance covers the float32 roundings of
// the six FFT passes.
TEST(Smoothing, RegularizeUniformRatio) {
    struct Case {
        int n[3];
        float d[3], fwhm, fixed, random;
    };
    const Case cases[] = {
        {{8, 8, 8}, {2, 2, 2}, 6, 1, 1e9f},    {{16, 8, 4}, {1, 2, 3}, 4, 1, 1e9f},
        {{4, 4, 4}, {1, 1, 1}, 10, 1, 1e9f},   {{8, 8, 4}, {2, 2, 2}, 5, 2, 3},  // ratio 2.5
        {{8, 8, 4}, {2, 2, 2}, 5, 0, 3},       {{8, 5, 4}, {2, 2, 2}, 6, 1, 1e9f},
        {{5, 3, 7}, {1, 2, 1.5f}, 4, 1, 1e9f},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        file_list_root.nx = c.n[0];
        file_list_root.ny = c.n[1];
        file_list_root.nz = c.n[2];
        std::copy(c.d, c.d + 3, file_list_root.resolution);
        REM_input.ratio_smoothing = c.fwhm;
        const int n = c.n[0] * c.n[1] * c.n[2];
        Sigma2_FE_map = float_vector(n);
        Sigma2_RE_map = float_vector(n);
        std::fill(Sigma2_FE_map, Sigma2_FE_map + n, c.fixed);
        std::fill(Sigma2_RE_map, Sigma2_RE_map + n, c.random);
        testing::internal::CaptureStdout();
        regularize_random_effects();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nsmoothing variance ratio\n");
        const double smoothed =
            c.fixed == 0 ? 0.0
                         : (c.random / c.fixed + 1.0) * c.fixed * kernel_at_zero(c.n, c.d, c.fwhm);
        for (int i = 0; i < n; ++i)
            ASSERT_NEAR(Sigma2_RE_map[i], std::fabs(smoothed - c.fixed), 2e-6 * smoothed) << i;
        free_float_vector(Sigma2_FE_map);
        free_float_vector(Sigma2_RE_map);
    }
}

// A single spike becomes the sampled Gaussian of the given full width at
// half maximum, in place (the modulus removes the phase ramps of the offsets
// in k-space); on the axis of odd length the turns before and after the
// transforms must add up to whole turns.  Tolerance: float32 FFT roundings
// relative to the peak.
TEST(Smoothing, SpikeBecomesTheGaussianKernel) {
    const int c = 16;
    const double fwhm = 4.0, sigma = fwhm / 2.355;  // a full width at half maximum is 2.355 sd
    data_stack s;
    create_simple_data_stack(&s, 2 * c, 2 * c + 1, 2 * c, 1, 1, 1, 1, 0);
    float *v = static_cast<float *>(s.data);
    std::fill(v, v + s.nxyz, 0.0f);
    v[index4d_stack(c, c, c, 0, &s)] = 1000.0f;
    smooth_or_sharpen_isotropic(0, static_cast<float>(fwhm), &s);
    auto gauss = [&](int x) {
        return std::exp(-x * x / (2.0 * sigma * sigma)) / (sigma * std::sqrt(2.0 * M_PI));
    };
    const double peak = 1000.0 * std::pow(gauss(0), 3);
    const int offsets[][3] = {{0, 0, 0}, {1, 0, 0}, {0, -2, 1}, {3, 2, -1}, {-4, 0, 4}, {8, 8, 8}};
    for (const auto &o : offsets) {
        EXPECT_NEAR(v[index4d_stack(c + o[0], c + o[1], c + o[2], 0, &s)],
                    1000.0 * gauss(o[0]) * gauss(o[1]) * gauss(o[2]), 1e-5 * peak)
            << o[0] << "," << o[1] << "," << o[2];
    }
    free_float_vector(v);
}

}  // namespace
