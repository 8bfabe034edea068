// Clusters and peaks of hand-made maps: connectivity, signs, the threshold,
// minimum size, peak separation, and positions through an affine.
#include <gtest/gtest.h>

#include <vector>

#include "report.h"

namespace {

struct voxel_value {
    int i, j, k;
    float logp;
};

struct expected_cluster {
    int sign;
    long voxels;
    std::vector<std::vector<int>> peaks;  // i, j, k of each peak, in order
};

struct clusters_case {
    const char *name;
    std::vector<voxel_value> voxels;
    long min_cluster;
    std::vector<expected_cluster> expected;
};

constexpr int kN = 9;

// Voxels of 2 x 2 x 3 mm on a flipped, shifted grid: x = 10 - 2i, y = -20 + 2j,
// z = 5 + 3k.  Peaks 8 mm apart along i are four voxels apart.
bridge::geometry flipped() {
    bridge::geometry g;
    g.affine[0][0] = -2, g.affine[1][1] = 2, g.affine[2][2] = 3;
    g.affine[0][3] = 10, g.affine[1][3] = -20, g.affine[2][3] = 5;
    return g;
}

TEST(Clusters, ConnectivitySignsThresholdSizeAndPeaks) {
    const std::vector<clusters_case> cases = {
        {"corners touch: one cluster; a lone voxel apart",
         {{1, 1, 1, 4}, {2, 2, 2, 5}, {6, 6, 6, 4}},
         1,
         {{1, 2, {{2, 2, 2}}}, {1, 1, {{6, 6, 6}}}}},
        {"the lone voxel is below the minimum size",
         {{1, 1, 1, 4}, {2, 2, 2, 5}, {6, 6, 6, 4}},
         2,
         {{1, 2, {{2, 2, 2}}}}},
        {"neighbours of opposite sign are two clusters; the stronger first",
         {{1, 1, 1, 4}, {2, 1, 1, -6}},
         1,
         {{-1, 1, {{2, 1, 1}}}, {1, 1, {{1, 1, 1}}}}},
        {"the threshold is inclusive",
         {{1, 1, 1, 3.0f}, {3, 1, 1, 2.99f}, {5, 1, 1, -3.0f}},
         1,
         {{1, 1, {{1, 1, 1}}}, {-1, 1, {{5, 1, 1}}}}},
        {"two maxima 8 mm apart are two peaks, the stronger first",
         {{0, 4, 4, 4},
          {1, 4, 4, 6},
          {2, 4, 4, 5},
          {3, 4, 4, 4},
          {4, 4, 4, 5},
          {5, 4, 4, 7},
          {6, 4, 4, 4}},
         1,
         {{1, 7, {{5, 4, 4}, {1, 4, 4}}}}},
        {"two maxima 6 mm apart are one peak",
         {{1, 4, 4, 6}, {2, 4, 4, 5}, {3, 4, 4, 4}, {4, 4, 4, 7}},
         1,
         {{1, 4, {{4, 4, 4}}}}},
    };
    for (const clusters_case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> logp(kN * kN * kN, 0.0f), t(kN * kN * kN, 0.0f);
        for (const voxel_value &v : c.voxels) {
            size_t i = (static_cast<size_t>(v.k) * kN + v.j) * kN + v.i;
            logp[i] = v.logp;
            t[i] = v.logp;  // T in the same order as P
        }
        const int dims[3] = {kN, kN, kN};
        std::vector<int> labels;
        std::vector<report::cluster> got = report::find_clusters(
            logp.data(), t.data(), dims, flipped(), 3.0, c.min_cluster, &labels);
        ASSERT_EQ(got.size(), c.expected.size());
        long labelled = 0;
        for (int l : labels) labelled += l != 0;
        long total = 0;
        for (size_t k = 0; k < got.size(); ++k) {
            EXPECT_EQ(got[k].sign, c.expected[k].sign) << "cluster " << k + 1;
            EXPECT_EQ(got[k].voxels, c.expected[k].voxels) << "cluster " << k + 1;
            EXPECT_DOUBLE_EQ(got[k].volume_mm3, 12.0 * c.expected[k].voxels);
            total += got[k].voxels;
            ASSERT_EQ(got[k].peaks.size(), c.expected[k].peaks.size()) << "cluster " << k + 1;
            for (size_t q = 0; q < got[k].peaks.size(); ++q) {
                const report::peak &p = got[k].peaks[q];
                const std::vector<int> &want = c.expected[k].peaks[q];
                EXPECT_EQ(std::vector<int>(p.ijk, p.ijk + 3), want);
                EXPECT_DOUBLE_EQ(p.mm[0], 10.0 - 2 * want[0]);
                EXPECT_DOUBLE_EQ(p.mm[1], -20.0 + 2 * want[1]);
                EXPECT_DOUBLE_EQ(p.mm[2], 5.0 + 3 * want[2]);
            }
        }
        EXPECT_EQ(labelled, total);
    }
}

}  // namespace
