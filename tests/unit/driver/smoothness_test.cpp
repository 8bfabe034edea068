// Smoothness estimated from neighbouring values: white noise smoothed with a
// Gaussian of known width along each axis must come back with that width,
// and the degrees-of-freedom factor must agree with the stated formula when
// the estimate equals the stated smoothness.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "smoothness.h"

namespace {

// Circular smoothing along one axis with a sampled Gaussian of standard
// deviation sigma voxels (kernel over +-4 sigma).
void smooth_axis(std::vector<float> &f, const int n[3], int axis, double sigma) {
    const int radius = static_cast<int>(std::ceil(4 * sigma));
    std::vector<double> k(2 * radius + 1);
    for (int d = -radius; d <= radius; ++d) k[d + radius] = std::exp(-0.5 * d * d / sigma / sigma);
    const int stride[3] = {1, n[0], n[0] * n[1]};
    std::vector<float> out(f.size());
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                const int at[3] = {x, y, z};
                const int i = x + stride[1] * y + stride[2] * z;
                double s = 0.0;
                for (int d = -radius; d <= radius; ++d) {
                    const int j = ((at[axis] + d) % n[axis] + n[axis]) % n[axis];
                    s += k[d + radius] * f[i + (j - at[axis]) * stride[axis]];
                }
                out[i] = static_cast<float>(s);
            }
    f = out;
}

}  // namespace

// Hand values: a correlation of 1/2 at 2 mm is a width of 2 sqrt(2) mm; no
// correlation is no width, a perfect one an unbounded width.
TEST(Smoothness, WidthFromCorrelation) {
    EXPECT_NEAR(fwhm_from_neighbour_correlation(0.5, 2.0), 2.0 * std::sqrt(2.0), 1e-12);
    EXPECT_EQ(fwhm_from_neighbour_correlation(0.0, 2.0), 0.0);
    EXPECT_EQ(fwhm_from_neighbour_correlation(-0.3, 2.0), 0.0);
    EXPECT_TRUE(std::isinf(fwhm_from_neighbour_correlation(1.0, 2.0)));
    EXPECT_EQ(fwhm_from_neighbour_correlation(std::nan(""), 2.0), 0.0);
}

// White noise smoothed with Gaussians of 2.5, 4 and 3 voxels FWHM along x, y
// and z (voxels of 2, 1.5 and 3 mm): the estimate is each width in mm within
// 4 %.  The values outside a ball are wild and must not enter.
TEST(Smoothness, GaussianNoiseOfKnownWidth) {
    const int n[3] = {40, 44, 36};
    const double width[3] = {2.5, 4.0, 3.0};  // voxels
    const float voxel[3] = {2.0f, 1.5f, 3.0f};
    const size_t size = static_cast<size_t>(n[0]) * n[1] * n[2];
    std::mt19937_64 rng(7);
    std::normal_distribution<double> normal;
    std::vector<std::vector<float>> maps(3, std::vector<float>(size));
    std::vector<unsigned char> inside(size);
    for (auto &m : maps) {
        for (float &v : m) v = static_cast<float>(normal(rng));
        for (int a = 0; a < 3; ++a) smooth_axis(m, n, a, width[a] / std::sqrt(8 * std::log(2.0)));
    }
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                const double dx = (x - 20) / 19.0, dy = (y - 22) / 21.0, dz = (z - 18) / 17.0;
                const size_t i = x + n[0] * (y + static_cast<size_t>(n[1]) * z);
                inside[i] = dx * dx + dy * dy + dz * dz <= 1.0;
                if (!inside[i])
                    for (auto &m : maps) m[i] = (x + y + z) % 2 ? 1e6f : -1e6f;
            }
    const float *pointers[3] = {maps[0].data(), maps[1].data(), maps[2].data()};
    double correlation[3];
    EXPECT_GT(neighbour_correlations(pointers, 3, inside.data(), n[0], n[1], n[2], correlation), 0);
    for (int a = 0; a < 3; ++a) {
        SCOPED_TRACE(a);
        const double fwhm = fwhm_from_neighbour_correlation(correlation[a], voxel[a]);
        EXPECT_NEAR(fwhm / (width[a] * voxel[a]), 1.0, 0.04);
    }
    // Nothing inside: no pairs, and an axis without pairs counts as smooth.
    std::vector<unsigned char> none(size, 0);
    EXPECT_EQ(neighbour_correlations(pointers, 3, none.data(), n[0], n[1], n[2], correlation), 0);
    for (double c : correlation) EXPECT_EQ(c, 1.0);
}

// With the estimate equal to the stated smoothing p on isotropic voxels d the
// factor is that of the stated formula, (2 f^2 / (p^2 + d^2) + 1)^1.5:
// p = 6, d = 8, f = 10 gives 3^1.5; anisotropic widths multiply per axis.
TEST(Smoothness, DegreesOfFreedomFactor) {
    const double six[3] = {6, 6, 6}, mixed[3] = {0, 3, 4};
    const float eight[3] = {8, 8, 8}, mm[3] = {2, 4, 3};
    EXPECT_NEAR(smoothed_dof_boost(six, eight, 10.0), std::pow(3.0, 1.5), 1e-12);
    EXPECT_NEAR(smoothed_dof_boost(six, eight, 0.0), 1.0, 1e-15);
    // r^2 = 4, 25, 25 with f = 5: sqrt(13.5 * 3 * 3).
    EXPECT_NEAR(smoothed_dof_boost(mixed, mm, 5.0), std::sqrt(13.5 * 3.0 * 3.0), 1e-12);
}
