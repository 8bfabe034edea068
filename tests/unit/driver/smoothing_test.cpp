// Variance-ratio smoothing: line rotation, bad indices, and the Gaussian smoothing of uniform
// fields and of a single spike compared with the analytic kernel.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "driver.h"
#include "rem.h"

namespace {

// k-space factor of one axis at the element where the zero frequency lands
// on an axis of even length (k = 0.5).
double dc_factor(int n, double d, double fwhm) {
    double a = d * d * n * n * 0.1404824543408127 / fwhm / fwhm;
    return std::exp(-0.25 / 2.0 / a);
}

// A real stack of one frame holding `value` everywhere.
float *filled_stack(data_stack *s, int nx, int ny, int nz, const float d[3], float value) {
    create_simple_data_stack(s, nx, ny, nz, 1, d[0], d[1], d[2], 0);
    float *v = static_cast<float *>(s->data);
    for (int i = 0; i < s->nxyz; ++i) v[i] = value;
    return v;
}

TEST(SwapX, RotatesByHalfTheLength) {
    struct Case {
        int n, back;
        std::vector<float> expected;  // real parts after the rotation of 0, 1, 2, ...
    };
    const Case cases[] = {
        {4, 0, {2, 3, 0, 1}},
        {4, 1, {2, 3, 0, 1}},
        {5, 0, {3, 4, 0, 1, 2}},  // 2 places on
        {5, 1, {2, 3, 4, 0, 1}},  // 3 places on
        {1, 1, {0}},
        {2, 0, {1, 0}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "n=" << c.n << " back=" << c.back);
        std::vector<fcomplex> line(c.n);
        for (int k = 0; k < c.n; ++k) line[k] = {static_cast<float>(k), -static_cast<float>(k)};
        swap_x(line.data(), c.n, c.back);
        for (int k = 0; k < c.n; ++k) {
            EXPECT_EQ(line[k].r, c.expected[k]);
            EXPECT_EQ(line[k].i, -c.expected[k]);
        }
    }
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

// A uniform field keeps its level times the kernel at the zero frequency;
// the tolerance covers the float32 roundings of the six FFT passes.
TEST(Smoothing, UniformFieldDropsByTheKernelAtZeroFrequency) {
    struct Case {
        int nx, ny, nz;
        float d[3];
        float fwhm;
    };
    for (const Case &c : {Case{8, 8, 8, {2, 2, 2}, 6}, Case{16, 8, 4, {1, 2, 3}, 4},
                          Case{4, 4, 4, {1, 1, 1}, 10}}) {
        SCOPED_TRACE(c.nx);
        data_stack s;
        float *v = filled_stack(&s, c.nx, c.ny, c.nz, c.d, 2.5f);
        smooth_or_sharpen_isotropic(0, c.fwhm, &s);
        double expected = 2.5 * dc_factor(c.nx, c.d[0], c.fwhm) * dc_factor(c.ny, c.d[1], c.fwhm) *
                          dc_factor(c.nz, c.d[2], c.fwhm);
        for (int i = 0; i < s.nxyz; ++i) ASSERT_NEAR(v[i], expected, 2e-6 * expected) << i;
        free_float_vector(v);
    }
}

// A single spike becomes the sampled Gaussian of the given full width at
// half maximum (the modulus removes the phase ramp of the half-sample
// offset).  Tolerance: float32 FFT roundings relative to the peak.
TEST(Smoothing, SpikeBecomesTheGaussianKernel) {
    const int c = 16;
    const double fwhm = 4.0, sigma = fwhm / 2.355;  // a full width at half maximum is 2.355 sd
    const float d[3] = {1, 1, 1};
    data_stack s;
    float *v = filled_stack(&s, 2 * c, 2 * c, 2 * c, d, 0.0f);
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

// The regularisation smooths the ratio of total to fixed variance and maps
// it back; voxels without fixed variance stay at zero.
TEST(Smoothing, RegularizeUniformRatio) {
    file_list_root.nx = 8;
    file_list_root.ny = 8;
    file_list_root.nz = 4;
    for (int a = 0; a < 3; ++a) file_list_root.resolution[a] = 2.0f;
    REM_input.ratio_smoothing = 5.0f;
    const int n = 8 * 8 * 4;
    const double g = dc_factor(8, 2, 5) * dc_factor(8, 2, 5) * dc_factor(4, 2, 5);
    Sigma2_FE_map = float_vector(n);
    Sigma2_RE_map = float_vector(n);
    // Ratio (3 + 2) / 2 = 2.5; then zero fixed variance everywhere: ratio 0, random variance 0.
    for (float fixed : {2.0f, 0.0f}) {
        for (int i = 0; i < n; ++i) {
            Sigma2_FE_map[i] = fixed;
            Sigma2_RE_map[i] = 3.0f;
        }
        testing::internal::CaptureStdout();
        regularize_random_effects();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nsmoothing variance ratio\n");
        for (int i = 0; i < n; ++i)
            ASSERT_NEAR(Sigma2_RE_map[i], std::fabs(2.5 * g * fixed - fixed), 2e-5) << i;
    }
    free_float_vector(Sigma2_FE_map);
    free_float_vector(Sigma2_RE_map);
}

}  // namespace
