// The export of a results folder written by hand: an unsmoothed ratio (sigma2
// holds two frames under a three-frame header), no geometry.json (the affine
// comes from the result header), and a value that is not finite.
#include <gtest/gtest.h>

#include <cmath>

#include "bridge_test.h"

using namespace test_support;

TEST(Bridge, ExportOfTwoFrameVariancesWithoutGeometry) {
    TempDir tmp;
    const int N = 100;
    // Every tenth voxel was left out: its REML random variance is 0.
    std::vector<float> sigma2(2 * N, 1.0f), P(N), T(N), S(2 * N, 2.0f);
    for (int i = 0; i < N; ++i) {
        sigma2[N + i] = i % 10 == 0 ? 0.0f : 0.5f;
        P[i] = i % 2 ? -0.01f * i : 0.01f * i;
        T[i] = i % 2 ? -0.1f * i : 0.1f * i;
    }
    T[1] = NAN;
    for (auto [stem, frames, v] :
         {std::make_tuple("sigma2", 3, &sigma2), {"P-a", 1, &P}, {"T-a", 1, &T}, {"S-a", 2, &S}}) {
        write_file(tmp.file(std::string(stem) + ".hdr"),
                   "x 5\ny 5\nz 4\nt " + std::to_string(frames) +
                       "\nbyte-order 1\nresolution 2 3 4\norigin 10 -20 5\ndirection -1 1 1\n"
                       "degrees-of-freedom 17\n");
        write_floats(tmp.file(std::string(stem) + ".bfloat"), *v);
    }
    write_file(tmp.file("analysis.rem"), "smoothing 6 0\nconditions a\nevent a\nx.bfloat\n");
    write_file(tmp.file(".vistra"), "vt -r analysis.rem\n");

    CommandResult r = bridge_test::run_tool("fmri-rem-export", {"-o", "maps"}, tmp.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.compare(0, 31, "Warning: no geometry.json for ."), 0) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_FALSE(file_exists(tmp.file("maps/desc-betweensmoothed_stat-variance_statmap.nii.gz")));
    EXPECT_TRUE(holds(read_file(tmp.file("maps/contrast-a_stat-t_statmap.json")),
                      "\"NonFiniteVoxels\": 1"));

    // The affine from voxel size, origin and direction, with codes 2; the t
    // value that is not a number and the voxels left out written as 0.
    const float affine[4][4] = {{-2, 0, 0, 10}, {0, 3, 0, -20}, {0, 0, 4, 5}, {0, 0, 0, 1}};
    for (const char *name :
         {"contrast-a_stat-t_statmap", "desc-between_stat-variance_statmap", "mask"}) {
        SCOPED_TRACE(name);
        bridge_test::nifti_ptr m =
            bridge_test::read_nifti(tmp.file(std::string("maps/") + name + ".nii.gz"));
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->qform_code, 2);
        EXPECT_EQ(m->sform_code, 2);
        for (int row = 0; row < 4; ++row)
            for (int col = 0; col < 4; ++col) EXPECT_EQ(m->sto_xyz.m[row][col], affine[row][col]);
        EXPECT_EQ(m->intent_p1, name[0] == 'c' ? 17.0f : 0.0f);
        for (int i = 0; i < N; ++i) {
            const float want = name[0] == 'c' ? (i == 1 ? 0.0f : T[i]) : name[0] == 'd' ? 0.5f : 1;
            const float got = m->datatype == NIFTI_TYPE_UINT8
                                  ? static_cast<unsigned char *>(m->data)[i]
                                  : static_cast<float *>(m->data)[i];
            ASSERT_EQ(got, i % 10 != 0 ? want : 0.0f) << i;
        }
    }
}
