// Variance-ratio smoothing: line rotation, stack indexing, modulus and
// phase, and the Gaussian smoothing of uniform fields and of a single spike
// compared with the analytic kernel.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "driver.h"
#include "rem.h"

namespace {

// k-space factor of one axis at the element where the zero frequency lands
// on an axis of even length (k = 0.5).
double dc_factor(int n, double d, double fwhm) {
    double q = 0.1404824543408127 / fwhm / fwhm;
    double a = d * d * n * n * q;
    return std::exp(-0.25 / 2.0 / a);
}

void release(data_stack *s) {
    if (s->is_complex) {
        free_fcomplex_vector(static_cast<fcomplex *>(s->data));
    } else {
        free_float_vector(static_cast<float *>(s->data));
    }
}

TEST(SwapX, RotatesByHalfTheLength) {
    struct Case {
        int n;
        int back;
        std::vector<float> expected;  // real parts after the rotation of 0, 1, 2, ...
    };
    const Case cases[] = {
        {4, 0, {2, 3, 0, 1}},
        {4, 1, {2, 3, 0, 1}},
        {5, 0, {3, 4, 0, 1, 2}},  // every element moves 2 places on
        {5, 1, {2, 3, 4, 0, 1}},  // every element moves 3 places on
        {1, 0, {0}},
        {1, 1, {0}},
        {2, 0, {1, 0}},
    };
    for (const Case &c : cases) {
        std::vector<fcomplex> line(c.n);
        for (int k = 0; k < c.n; ++k) line[k] = {static_cast<float>(k), -static_cast<float>(k)};
        swap_x(line.data(), c.n, c.back);
        for (int k = 0; k < c.n; ++k) {
            EXPECT_EQ(line[k].r, c.expected[k]) << "n=" << c.n << " back=" << c.back << " k=" << k;
            EXPECT_EQ(line[k].i, -c.expected[k]);
        }
    }
}

TEST(DataStack, DescriptionAndIndexing) {
    data_stack s;
    create_simple_data_stack(&s, 4, 3, 2, 2, 1.5f, 2.0f, 3.0f, 0);
    EXPECT_EQ(s.nxy, 12);
    EXPECT_EQ(s.nxyz, 24);
    EXPECT_EQ(s.nxyzt, 48);
    EXPECT_EQ(s.nvalues, 24);
    EXPECT_FLOAT_EQ(s.field_of_view[0], 6.0f);
    EXPECT_FLOAT_EQ(s.field_of_view[2], 6.0f);
    EXPECT_EQ(s.origin[1], 0.0f);
    EXPECT_EQ(s.direction[1], 1.0f);
    EXPECT_EQ(s.time_resolution, 1.0f);
    struct Case {
        int x, y, z, t, index;
    };
    for (const Case &c : {Case{0, 0, 0, 0, 0}, Case{3, 0, 0, 0, 3}, Case{0, 1, 0, 0, 4},
                          Case{0, 0, 1, 0, 12}, Case{3, 2, 1, 1, 47}}) {
        EXPECT_EQ(index4d_stack(c.x, c.y, c.z, c.t, &s), c.index);
    }
    data_stack complex_stack;
    create_simple_data_stack(&complex_stack, 4, 3, 2, 1, 1, 1, 1, 1);
    EXPECT_EQ(complex_stack.nvalues, 48);
    release(&s);
    release(&complex_stack);
}

TEST(DataStackDeathTest, BadIndexEndsTheProcess) {
    data_stack s;
    create_simple_data_stack(&s, 4, 3, 2, 1, 1, 1, 1, 0);
    EXPECT_EXIT(index4d_stack(4, 0, 0, 0, &s), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(index4d_stack(0, -1, 0, 0, &s), testing::ExitedWithCode(1), "");
    EXPECT_EXIT(index4d_stack(0, 0, 0, 1, &s), testing::ExitedWithCode(1), "");
    release(&s);
}

TEST(AmplitudeAndPhase, Table) {
    struct Case {
        float re, im, amplitude, phase;
    };
    const Case cases[] = {
        {3, 4, 5, 0.9272952f},
        {0, 0, 0, 0},
        {0, 2, 2, 1.5707964f},
        {0, -2, 2, -1.5707964f},
        {-1, 0, 1, 3.1415927f},
        {-1, -1, 1.4142135f, -2.3561945f},
        {1, -1, 1.4142135f, -0.7853982f},
    };
    for (const Case &c : cases) {
        EXPECT_FLOAT_EQ(compute_amplitude(c.re, c.im), c.amplitude) << c.re << "," << c.im;
        EXPECT_NEAR(compute_phase(c.re, c.im), c.phase, 1e-6) << c.re << "," << c.im;
    }
}

// A uniform field keeps its level times the kernel at the zero frequency;
// the tolerance covers the float32 roundings of the six FFT passes.
TEST(Smoothing, UniformFieldDropsByTheKernelAtZeroFrequency) {
    struct Case {
        int nx, ny, nz;
        float d[3];
        float fwhm;
    };
    const Case cases[] = {
        {8, 8, 8, {2, 2, 2}, 6},
        {16, 8, 4, {1, 2, 3}, 4},
        {4, 4, 4, {1, 1, 1}, 10},
    };
    for (const Case &c : cases) {
        data_stack s;
        create_simple_data_stack(&s, c.nx, c.ny, c.nz, 1, c.d[0], c.d[1], c.d[2], 0);
        float *v = static_cast<float *>(s.data);
        for (int i = 0; i < s.nxyz; ++i) v[i] = 2.5f;
        smooth_or_sharpen_isotropic(0, c.fwhm, &s);
        double expected = 2.5 * dc_factor(c.nx, c.d[0], c.fwhm) * dc_factor(c.ny, c.d[1], c.fwhm) *
                          dc_factor(c.nz, c.d[2], c.fwhm);
        for (int i = 0; i < s.nxyz; ++i) {
            ASSERT_NEAR(v[i], expected, 2e-6 * expected) << "voxel " << i << " of " << c.nx;
        }
        release(&s);
    }
}

// A single spike becomes the sampled Gaussian of the given full width at
// half maximum (the modulus removes the phase ramp of the half-sample
// offset).  Tolerance: float32 FFT roundings relative to the peak.
TEST(Smoothing, SpikeBecomesTheGaussianKernel) {
    const int n = 32;
    const double d = 1.0, fwhm = 4.0;
    data_stack s;
    create_simple_data_stack(&s, n, n, n, 1, 1, 1, 1, 0);
    float *v = static_cast<float *>(s.data);
    for (int i = 0; i < s.nxyz; ++i) v[i] = 0.0f;
    const int c = 16;
    v[index4d_stack(c, c, c, 0, &s)] = 1000.0f;
    smooth_or_sharpen_isotropic(0, static_cast<float>(fwhm), &s);

    const double sigma_k = fwhm / 2.355;  // a full width at half maximum is 2.355 sd
    auto gauss = [&](int off) {
        double x = off * d;
        return d / (sigma_k * std::sqrt(2.0 * M_PI)) * std::exp(-x * x / (2.0 * sigma_k * sigma_k));
    };
    const double peak = 1000.0 * gauss(0) * gauss(0) * gauss(0);
    const int offsets[][3] = {{0, 0, 0}, {1, 0, 0}, {0, -2, 1}, {3, 2, -1}, {-4, 0, 4}, {8, 8, 8}};
    for (const auto &o : offsets) {
        double expected = 1000.0 * gauss(o[0]) * gauss(o[1]) * gauss(o[2]);
        float got = v[index4d_stack(c + o[0], c + o[1], c + o[2], 0, &s)];
        EXPECT_NEAR(got, expected, 1e-5 * peak) << o[0] << "," << o[1] << "," << o[2];
    }
    release(&s);
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
    Sigma2_FE_map = float_vector(n);
    Sigma2_RE_map = float_vector(n);
    for (int i = 0; i < n; ++i) {
        Sigma2_FE_map[i] = 2.0f;
        Sigma2_RE_map[i] = 3.0f;  // ratio 2.5
    }
    testing::internal::CaptureStdout();
    regularize_random_effects();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nsmoothing variance ratio\n");
    double g = dc_factor(8, 2, 5) * dc_factor(8, 2, 5) * dc_factor(4, 2, 5);
    double expected = std::fabs(2.5 * g * 2.0 - 2.0);
    for (int i = 0; i < n; ++i) ASSERT_NEAR(Sigma2_RE_map[i], expected, 2e-5) << i;

    // Zero fixed variance everywhere: ratio 0, random variance 0.
    for (int i = 0; i < n; ++i) Sigma2_FE_map[i] = 0.0f;
    testing::internal::CaptureStdout();
    regularize_random_effects();
    testing::internal::GetCapturedStdout();
    for (int i = 0; i < n; ++i) ASSERT_EQ(Sigma2_RE_map[i], 0.0f) << i;
    free_float_vector(Sigma2_FE_map);
    free_float_vector(Sigma2_RE_map);
}

}  // namespace
