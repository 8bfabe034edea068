#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <unistd.h>

#include "io.h"
#include "io_test_util.h"
#include "test_support.h"

namespace {

using io_test::read_header;
using test_support::write_file;

const char dimensions[] = "cols: 64\nrows: 48\nnslices: 30\nn_time_points: 2\n";
const char axial_corners[] = "top_left_r: -120\ntop_left_a: 100\ntop_left_s: 0\n"
                             "top_right_r: 120\ntop_right_a: 100\ntop_right_s: 0\n"
                             "bottom_right_r: 120\nbottom_right_a: -80\nbottom_right_s: 0\n";

class FreeSurferRead : public io_test::ScratchDirTest {
protected:
    void write_study(const std::string &bhdr, const char *companion, bool bshort, bool bfloat)
    {
        write_file("subj.bhdr", bhdr);
        write_file("subj_000.hdr", companion);
        if (bshort)
            write_file("subj_000.bshort", "");
        if (bfloat)
            write_file("subj_000.bfloat", "");
    }
};

TEST_F(FreeSurferRead, VoxelSizesFromTheCorners)
{
    // Two planes: one along the axes, one rotated about the superior axis by
    // an angle whose cosine and sine are 0.6 and 0.8.
    const struct {
        const char *corners;
        float x, y;
    } cases[] = {
        {axial_corners, 3.75f, 3.75f},
        {"top_left_r: 0 # rotated\ntop_left_a: 0\ntop_left_s: 5\n"
         "top_right_r: 144\ntop_right_a: 192\ntop_right_s: 5\n"
         "\n"
         "bottom_right_r: 288\nbottom_right_a: 84\nbottom_right_s: 5\n",
         3.75f, 3.75f},
    };
    for (const auto &c : cases) {
        write_study(std::string(dimensions) + c.corners +
                        "slice_thick: 5\nnormal_r: 0\nnormal_a: 0\nnormal_s: 1\n"
                        "image_te: 30\nimage_tr: 2000\nimage_ti: 0\nflip_angle: 1.57\n",
                    "64 48 1 0\n", true, false);
        volume_header h;
        io_test::ReadResult r = read_header("subj_", &h);
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(h.storage_type, 8);
        EXPECT_EQ(h.header_storage_type, 1);
        EXPECT_EQ(h.byte_order, 0);
        EXPECT_EQ(h.nx, 64);
        EXPECT_EQ(h.nt, 2);
        EXPECT_FLOAT_EQ(h.resolution[0], c.x);
        EXPECT_FLOAT_EQ(h.resolution[1], c.y);
        EXPECT_FLOAT_EQ(h.resolution[2], 5.0f);
        EXPECT_FLOAT_EQ(h.origin[0], 0.0f);
        EXPECT_FLOAT_EQ(h.direction[1], 1.0f);
        EXPECT_FLOAT_EQ(h.voxel_to_space.m[0][0], 3.75f);
    }
}

TEST_F(FreeSurferRead, CompanionAndSliceProbe)
{
    const struct {
        const char *companion;
        bool bshort, bfloat;
        int byte_order, slice_type;
    } cases[] = {
        {"64 64 1 1\n", true, true, 1, 1},
        {"64 64 1 0\n", false, true, 0, 2},
        {"64 64 1\n", false, true, machine_byte_order(), 2},
    };
    for (const auto &c : cases) {
        remove("subj_000.bshort");
        remove("subj_000.bfloat");
        write_study(std::string(dimensions) + axial_corners, c.companion, c.bshort, c.bfloat);
        volume_header h;
        ASSERT_EQ(read_header("subj_", &h).status, 0) << c.companion;
        EXPECT_EQ(h.byte_order, c.byte_order) << c.companion;
        EXPECT_EQ(h.header_storage_type, c.slice_type) << c.companion;
        EXPECT_FLOAT_EQ(h.resolution[2], 1.0f);
    }
}

TEST_F(FreeSurferRead, Errors)
{
    const struct {
        const char *bhdr;
        bool companion, slices;
        const char *message;
    } cases[] = {
        {"cols: 64\nrows: 64\nnslices: 30\n", true, true,
         "Error: Value for t dimension not found in header file 'subj.bhdr'\n"},
        {"cols: 64\n\nrows: 64\nthickness: 5\n", true, true,
         "Error reading line 3 of file 'subj.bhdr'\n"},
        {dimensions, false, true, "Error: cannot open freesurfer file subj_000.hdr.\n"},
        {dimensions, true, false, "\nError: cannot open file subj_ as bshort or bfloat.\n"},
    };
    for (const auto &c : cases) {
        remove("subj_000.hdr");
        remove("subj_000.bfloat");
        write_study(c.bhdr, "64 64 1 1\n", false, c.slices);
        if (!c.companion)
            remove("subj_000.hdr");
        volume_header h;
        io_test::ReadResult r = read_header("subj_", &h);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, c.message);
    }
    volume_header h;
    EXPECT_EQ(read_header("other.d/none_", &h).out,
              "Error: cannot open freesurfer bhdr file other.d/none.bhdr.\n");
}

TEST(FreeSurferDeathTest, NameWithoutUnderscoreIsAProgrammingError)
{
    volume_header h;
    char name[] = "subj";
    EXPECT_EXIT(
        {
            dup2(2, 1);
            read_freesurfer_header(name, &h);
        },
        ::testing::ExitedWithCode(1),
        "Programming error: file name should end with '_' in read_freesurfer_header\n");
}

}  // namespace
