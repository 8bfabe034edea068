#include <gtest/gtest.h>
#include <unistd.h>

#include "io_test_util.h"

namespace {

using test_support::write_file;

const std::string dimensions = "cols: 64\nrows: 48\nnslices: 30\nn_time_points: 2\n";
// 240 mm across 64 columns and 180 mm across 48 rows: 3.75 mm each way.
const std::string axial =
    "top_left_r: -120\ntop_left_a: 100\ntop_left_s: 0\n"
    "top_right_r: 120\ntop_right_a: 100\ntop_right_s: 0\n"
    "bottom_right_r: 120\nbottom_right_a: -80\nbottom_right_s: 0\n";
// The same plane turned about the superior axis (cosine 0.6, sine 0.8).
const std::string rotated =
    "top_left_r: 0 # turned\ntop_left_a: 0\ntop_left_s: 5\n\n"
    "top_right_r: 144\ntop_right_a: 192\ntop_right_s: 5\n"
    "bottom_right_r: 288\nbottom_right_a: 84\nbottom_right_s: 5\n";
const std::string others =
    "slice_thick: 5\nnormal_r: 0\nnormal_a: 0\nnormal_s: 1\n"
    "image_te: 30\nimage_tr: 2000\nimage_ti: 0\nflip_angle: 1.57\n";

class FreeSurferRead : public io_test::ScratchDirTest {};

TEST_F(FreeSurferRead, HeadersAndTheirErrors) {
    const struct {
        std::string bhdr;
        const char *companion;  // nullptr: none
        int slices;             // 1: subj_000.bshort, 2: subj_000.bfloat, 3: both
        int byte_order, slice_type;
        float thickness;
        const char *message = "";
    } cases[] = {
        {dimensions + axial + others, "64 48 1 0\n", 1, 0, 1, 5},
        {dimensions + rotated, "64 48 1 1\n", 3, 1, 1, 1},
        {dimensions + axial, "64 48 1\n", 2, machine_byte_order(), 2, 1},
        {"cols: 64\nrows: 48\nnslices: 30\n" + axial, "64 48 1 1\n", 1, 0, 0, 0,
         "Error: Value for t dimension not found in header file 'subj.bhdr'\n"},
        {"cols: 64\n\nrows: 48\nthickness: 5\n", "0 0 0 1\n", 1, 0, 0, 0,
         "Error reading line 3 of file 'subj.bhdr'\n"},
        {dimensions, nullptr, 1, 0, 0, 0, "Error: cannot open freesurfer file subj_000.hdr.\n"},
        {dimensions, "64 48 1 1\n", 0, 0, 0, 0,
         "\nError: cannot open file subj_ as bshort or bfloat.\n"},
    };
    for (const auto &c : cases) {
        for (const char *f : {"subj_000.hdr", "subj_000.bshort", "subj_000.bfloat"}) remove(f);
        write_file("subj.bhdr", c.bhdr);
        if (c.companion) write_file("subj_000.hdr", c.companion);
        if (c.slices & 1) write_file("subj_000.bshort", "");
        if (c.slices & 2) write_file("subj_000.bfloat", "");
        volume_header h;
        io_test::ReadResult r = io_test::read_header("subj_", &h);
        EXPECT_EQ(r.status, *c.message ? 1 : 0) << c.bhdr;
        EXPECT_EQ(r.out, c.message);
        EXPECT_EQ(h.storage_type, 8);
        if (r.status != 0) continue;
        EXPECT_EQ(h.byte_order * 10 + h.header_storage_type, c.byte_order * 10 + c.slice_type);
        EXPECT_EQ(h.nx * h.ny * h.nz * h.nt, 64 * 48 * 30 * 2);
        EXPECT_FLOAT_EQ(h.resolution[0], 3.75f) << c.bhdr;
        EXPECT_FLOAT_EQ(h.resolution[1], 3.75f) << c.bhdr;
        EXPECT_EQ(h.resolution[2], c.thickness);
        EXPECT_FLOAT_EQ(h.voxel_to_space.m[1][1], 3.75f);
    }
    volume_header h;
    EXPECT_EQ(io_test::read_header("other.d/none_", &h).out,
              "Error: cannot open freesurfer bhdr file other.d/none.bhdr.\n");
}

TEST(FreeSurferDeathTest, NameWithoutUnderscoreIsAProgrammingError) {
    volume_header h;
    char name[] = "subj";
    EXPECT_EXIT((dup2(2, 1), read_freesurfer_header(name, &h)), ::testing::ExitedWithCode(1),
                "Programming error: file name should end with '_' in read_freesurfer_header");
}

}  // namespace
