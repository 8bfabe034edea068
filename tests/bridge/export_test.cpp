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
    const std::string header =
        "x 5\ny 5\nz 4\nt %T\nbyte-order 1\nresolution 2 3 4\n"
        "origin 10 -20 5\ndirection -1 1 1\ndegrees-of-freedom 17\n";
    auto write_volume = [&](const std::string &stem, int frames, const std::vector<float> &v) {
        std::string h = header;
        h.replace(h.find("%T"), 2, std::to_string(frames));
        write_file(tmp.file(stem + ".hdr"), h);
        write_floats(tmp.file(stem + ".bfloat"), v);
    };
    // Every tenth voxel was left out: its REML random variance is 0.
    std::vector<float> sigma2(2 * N, 1.0f), P(N), T(N), S(2 * N, 2.0f);
    for (int i = 0; i < N; ++i) {
        sigma2[N + i] = i % 10 == 0 ? 0.0f : 0.5f;
        P[i] = i % 2 ? -0.01f * i : 0.01f * i;
        T[i] = i % 2 ? -0.1f * i : 0.1f * i;
        S[i] = static_cast<float>(i);
    }
    T[1] = NAN;
    write_volume("sigma2", 3, sigma2);
    write_volume("P-a", 1, P);
    write_volume("T-a", 1, T);
    write_volume("S-a", 2, S);
    write_file(tmp.file("analysis.rem"), "smoothing 6 0\nconditions a\nevent a\nx.bfloat\n");
    write_file(tmp.file(".vistra"), "vt -r analysis.rem\n");

    CommandResult r = bridge_test::run_tool("fmri-rem-export", {"-o", "maps"}, tmp.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.compare(0, 31, "Warning: no geometry.json for ."), 0) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_FALSE(file_exists(tmp.file("maps/desc-betweensmoothed_stat-variance_statmap.nii.gz")));
    EXPECT_NE(
        read_file(tmp.file("maps/contrast-a_stat-t_statmap.json")).find("\"NonFiniteVoxels\": 1"),
        std::string::npos);

    const float affine[4][4] = {{-2, 0, 0, 10}, {0, 3, 0, -20}, {0, 0, 4, 5}, {0, 0, 0, 1}};
    for (const char *name :
         {"contrast-a_stat-t_statmap", "contrast-a_stat-effect_statmap",
          "contrast-a_stat-variance_statmap", "desc-within_stat-variance_statmap",
          "desc-between_stat-variance_statmap", "mask"}) {
        SCOPED_TRACE(name);
        nifti_image *nim =
            nifti_image_read(tmp.file(std::string("maps/") + name + ".nii.gz").c_str(), 1);
        ASSERT_NE(nim, nullptr);
        EXPECT_EQ(nim->qform_code, 2);
        EXPECT_EQ(nim->sform_code, 2);
        for (int row = 0; row < 4; ++row)
            for (int col = 0; col < 4; ++col) EXPECT_EQ(nim->sto_xyz.m[row][col], affine[row][col]);
        const std::string n = name;
        if (n == "contrast-a_stat-t_statmap") {
            EXPECT_EQ(nim->intent_p1, 17.0f);
        }
        for (int i = 0; i < N; ++i) {
            const bool kept = i % 10 != 0;
            float want = n == "contrast-a_stat-t_statmap"            ? (i == 1 ? 0.0f : T[i])
                         : n == "contrast-a_stat-effect_statmap"     ? S[i]
                         : n == "contrast-a_stat-variance_statmap"   ? 4.0f
                         : n == "desc-within_stat-variance_statmap"  ? 1.0f
                         : n == "desc-between_stat-variance_statmap" ? 0.5f
                                                                     : 1.0f;
            float got = nim->datatype == NIFTI_TYPE_UINT8
                            ? static_cast<unsigned char *>(nim->data)[i]
                            : static_cast<float *>(nim->data)[i];
            ASSERT_EQ(got, kept ? want : 0.0f) << i;
        }
        nifti_image_free(nim);
    }
}
