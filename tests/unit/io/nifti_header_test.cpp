#include <gtest/gtest.h>
#include <nifti1_io.h>

#include <cstring>

#include "io_test_util.h"

namespace {

// A float volume of 4 x 5 x 6 voxels and 2 frames, sizes 2, 3, 4, TR 2.5.
// Its quaternion (0, 0, 1) turns x and y around; its affine exchanges y and
// z, leaving zeros on the diagonal.  Both are unused until the qform and
// sform codes (0 here) are set.
nifti_1_header basic_header() {
    nifti_1_header h = {};
    const short dims[5] = {4, 4, 5, 6, 2};
    const float pixdim[5] = {1, 2, 3, 4, 2.5f},
                srow[3][4] = {{2, 0, 0, -90}, {0, 0, 4, 126}, {0, 3, 0, -72}};
    for (int i = 0; i < 5; ++i) h.dim[i] = dims[i], h.pixdim[i] = pixdim[i];
    for (int j = 0; j < 4; ++j)
        h.srow_x[j] = srow[0][j], h.srow_y[j] = srow[1][j], h.srow_z[j] = srow[2][j];
    h.datatype = 16;
    h.vox_offset = 368;
    h.quatern_d = 1;
    h.qoffset_x = 10, h.qoffset_y = 20, h.qoffset_z = 30;
    return h;
}

// Writes the header (in the other byte order on request), then the first
// tail_bytes of an extender with its flag set and a dof extension of 12, and
// reads it back as name (whose header is v.hdr for v.img).
io_test::ReadResult write_and_read(nifti_1_header n, volume_header *h, const char *name = "v.nii",
                                   bool swapped = false, size_t tail_bytes = 0) {
    if (swapped) swap_nifti_header(&n, 1);  // the reference library's swap
    std::string bytes(reinterpret_cast<const char *>(&n), sizeof n);
    const int32_t tail[5] = {1, 16, 20, 12, 0};
    bytes.append(reinterpret_cast<const char *>(tail), tail_bytes);
    test_support::write_file(strcmp(name, "v.img") == 0 ? "v.hdr" : name, bytes);
    return io_test::read_header(name, h);
}

using Nifti = io_test::ScratchDirTest;

// Each case changes the basic header and reads it back: the method line and
// the summary of the fields (see io_test::summary), or the error message.
// With an sform but no qform the affine is ignored (method 1); a swapped file
// keeps its extension unswapped.
TEST_F(Nifti, ReadHeaders) {
    const std::string nii = "The NIFTI header for file v.nii uses Method ",
                      ext = "Error: A NIFTI1 extension was indicated, but ";
    const struct {
        const char *name;
        bool swapped;
        size_t tail_bytes;
        short dim0, datatype, dim2, qform, sform;
        std::string out;
        const char *summary = nullptr;  // null: an error
    } cases[] = {
        {"v.nii", false, 20, 4, 16, 5, 0, 2, nii + "1: the old analyze format\n",
         "4 5 6 2 | 6 2 0 | 12 | 2.5 | 2 3 4 | 2 3 4 | 0 0 0 | 1 1 1 | 0"},
        {"v.nii", true, 20, 4, 4, 5, 1, 0, nii + "2: quaternion rotations\n",
         "4 5 6 2 | 6 1 0 | 12 | 2.5 | 2 3 4 | -2 -3 4 | 10 20 30 | -1 -1 1 | 0"},
        {"v.img", true, 0, 4, 512, 5, 1, 2,
         "The NIFTI header for file v.img uses Method 3: affine transformation of voxel indices\n",
         "4 5 6 2 | 7 4 0 | 0 | 2.5 | 2 3 4 | 2 0 0 | -90 126 -72 | 1 -1 -1 | 1"},
        {"v.nii", false, 0, 3, 32, 5, 0, 0, nii + "1: the old analyze format\n",
         "4 5 6 1 | 6 2 1 | 0 | 2.5 | 2 3 4 | 2 3 4 | 0 0 0 | 1 1 1 | 0"},
        {"v.nii", false, 0, 5, 16, 5, 0, 0,
         "Error: tov does not currently handle data of dimensionality (5) > 4.\n"},
        {"v.nii", false, 0, 4, 64, 5, 0, 0,
         "Error: the Nifti data storage type 64 is not supported.\n"},
        {"v.nii", false, 0, 4, 16, -5, 0, 0,
         "Error: Value for y dimension not found in header file 'v.nii'\n"},
        // The extension flag is set, but the file ends at byte 352.
        {"v.nii", false, 4, 4, 16, 5, 0, 0, ext + "it is missing.\n"},
        {"v.nii", false, 8, 4, 16, 5, 0, 0, ext + "the ecode is missing.\n"},
        {"v.nii", false, 12, 4, 16, 5, 0, 0, "Error read degrees of freedom.\n"},
    };
    for (const auto &c : cases) {
        nifti_1_header n = basic_header();
        n.dim[0] = c.dim0;
        n.datatype = c.datatype;
        n.dim[2] = c.dim2;
        n.qform_code = c.qform;
        n.sform_code = c.sform;
        volume_header h;
        io_test::ReadResult r = write_and_read(n, &h, c.name, c.swapped, c.tail_bytes);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, c.summary ? 0 : 1) << c.out;
        if (!c.summary) continue;
        EXPECT_EQ(io_test::summary(h), c.summary);
        EXPECT_EQ(h.data_offset, 368.0f);
    }
    test_support::write_file("v.nii", std::string(200, '\0'));
    volume_header h;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(io_test::read_header("v.nii", &h).status, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "\nError reading header file v.nii\n");
    EXPECT_EQ(io_test::read_header("none.nii", &h).out,
              "Error: cannot open Nifti file none.nii.\n");
}

TEST_F(Nifti, WriteFieldsExtensionAndNiftiTool) {
    const float resolution[3] = {2, 3, 4}, origin[3] = {10, -5, 0}, direction[3] = {1, -1, 1};
    set_output_geometry(4, 5, 6, resolution, origin, direction, 1);
    for (int with_extension = 0; with_extension <= 1; ++with_extension) {
        FILE *stream = nullptr;
        ASSERT_EQ(open_output_file(with_extension, 2, 12, "S-a", &stream), 0);
        const std::vector<float> data(4 * 5 * 6 * 2, 1.0f);  // for nifti_tool
        fwrite(data.data(), sizeof(float), data.size(), stream);
        fclose(stream);
        std::string bytes = test_support::read_file("S-a.nii");
        ASSERT_EQ(bytes.size(), (with_extension ? 368 : 352) + 4 * data.size());
        nifti_1_header n;
        memcpy(&n, bytes.data(), sizeof n);
        EXPECT_EQ(std::vector<short>(n.dim, n.dim + 8),
                  std::vector<short>({4, 4, 5, 6, 2, 1, 1, 1}));
        // y runs backwards: qfac -1.
        EXPECT_EQ(std::vector<float>(n.pixdim, n.pixdim + 5), std::vector<float>({-1, 2, 3, 4, 0}));
        EXPECT_EQ(std::vector<float>(n.srow_y, n.srow_y + 4), std::vector<float>({0, -3, 0, -5}));
        EXPECT_EQ(n.sizeof_hdr + n.datatype + n.bitpix + n.xyzt_units, 348 + 16 + 32 + 2);
        EXPECT_EQ(n.vox_offset + n.qoffset_x * 10 + n.qoffset_y, 368.0f + 95.0f);
        EXPECT_EQ(n.regular + n.qform_code * 10 + n.sform_code, 'r' + 10);
        EXPECT_EQ(memcmp(n.magic, "n+1\0", 4), 0);
        // The extender, its flag byte first (a little-endian 1), then the
        // extension when asked for.
        const int32_t extension[5] = {with_extension, 16, 20, 12, 0};
        EXPECT_EQ(memcmp(bytes.data() + 348, extension, with_extension ? 20 : 4), 0);
    }

    if (test_support::run_command("command -v nifti_tool").status != 0)
        GTEST_SKIP() << "nifti_tool is not installed";
    test_support::CommandResult check =
        test_support::run_command("nifti_tool -check_hdr -check_nim -infiles S-a.nii", dir.path());
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    EXPECT_NE(check.out.find("header IS GOOD"), std::string::npos) << check.out << check.err;
    EXPECT_NE(check.out.find("nifti_image IS GOOD"), std::string::npos) << check.out;
}

}  // namespace
