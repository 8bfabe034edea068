#include <gtest/gtest.h>
#include <nifti1_io.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "io.h"
#include "io_test_util.h"

namespace {

using io_test::read_header;

// A float volume of 4 x 5 x 6 voxels and 2 frames, sizes 2, 3, 4, TR 2.5.
nifti_1_header basic_header() {
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    h.sizeof_hdr = 348;
    const short dims[5] = {4, 4, 5, 6, 2};
    const float pixdim[5] = {1, 2, 3, 4, 2.5f};
    memcpy(h.dim, dims, sizeof dims);
    memcpy(h.pixdim, pixdim, sizeof pixdim);
    h.datatype = 16;
    h.bitpix = 32;
    h.vox_offset = 368;
    return h;
}

// The header (in the other byte order on request), then the first
// tail_bytes of an extender with its flag set and a dof extension of 12.
void write_nifti(const char *path, nifti_1_header h, bool swapped = false, size_t tail_bytes = 0) {
    if (swapped) swap_nifti_header(&h, 1);  // the reference library's swap
    std::string bytes(reinterpret_cast<const char *>(&h), sizeof h);
    const int32_t tail[5] = {1, 16, 20, 12, 0};
    bytes.append(reinterpret_cast<const char *>(tail), tail_bytes);
    test_support::write_file(path, bytes);
}

const char *const method_lines[3] = {
    "The NIFTI header for file v.nii uses Method 1: the old analyze format\n",
    "The NIFTI header for file v.nii uses Method 2: quaternion rotations\n",
    "The NIFTI header for file v.nii uses Method 3: affine transformation of voxel indices\n"};

class NiftiRead : public io_test::ScratchDirTest {};

TEST_F(NiftiRead, ByteOrdersExtensionAndDatatypes) {
    const struct {
        const char *name;
        bool swapped;
        size_t tail_bytes;
        short dim0, datatype;
        int dof, storage, data_type, nt;
    } cases[] = {
        {"v.nii", false, 0, 4, 16, 0, 6, 0, 2},
        {"v.nii", false, 20, 4, 16, 12, 6, 0, 2},
        {"v.nii", true, 20, 4, 16, 12, 6, 0, 2},  // the extension stays unswapped
        {"v.img", true, 0, 4, 16, 0, 7, 0, 2},    // header in v.hdr
        {"v.nii", false, 0, 3, 16, 0, 6, 0, 1},
        {"v.nii", false, 0, 4, 32, 0, 6, 1, 2},
    };
    for (const auto &c : cases) {
        nifti_1_header n = basic_header();
        n.dim[0] = c.dim0;
        n.datatype = c.datatype;
        const char *file = strcmp(c.name, "v.img") == 0 ? "v.hdr" : c.name;
        write_nifti(file, n, c.swapped, c.tail_bytes);
        volume_header h;
        io_test::ReadResult r = read_header(c.name, &h);
        SCOPED_TRACE(r.out);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "The NIFTI header for file " + std::string(c.name) +
                             " uses Method 1: the old analyze format\n");
        EXPECT_EQ(h.degrees_of_freedom, c.dof);
        EXPECT_EQ(h.storage_type, c.storage);
        EXPECT_EQ(h.header_storage_type * 10 + h.data_type, 20 + c.data_type);
        EXPECT_EQ(h.nxyzt, 120 * c.nt);
        EXPECT_EQ(h.resolution[2] * 10 + h.time_resolution, 42.5f);
        EXPECT_EQ(h.data_offset, 368.0f);
    }
}

TEST_F(NiftiRead, DamagedFiles) {
    const struct {
        size_t tail_bytes;
        short dim0, datatype, dim2;
        const char *message;
    } cases[] = {
        {0, 5, 16, 5, "Error: tov does not currently handle data of dimensionality (5) > 4.\n"},
        {0, 4, 64, 5, "Error: the Nifti data storage type 64 is not supported.\n"},
        {0, 4, 16, -5, "Error: Value for y dimension not found in header file 'v.nii'\n"},
        // The extension flag is set, but the file ends at byte 352.
        {4, 4, 16, 5, "Error: A NIFTI1 extension was indicated, but it is missing.\n"},
        // Only the flag byte of the extender is there.
        {1, 4, 16, 5, "Error: A NIFTI1 extension was indicated, but it is missing.\n"},
        {0, 4, 16, 32767, nullptr},  // 4 x 32767 x 6 x 32767 values
    };
    for (const auto &c : cases) {
        nifti_1_header n = basic_header();
        n.dim[0] = c.dim0;
        n.datatype = c.datatype;
        n.dim[2] = n.dim[4] = c.dim2;
        write_nifti("v.nii", n, false, c.tail_bytes);
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        EXPECT_EQ(r.status, 1);
        if (c.message) {
            EXPECT_EQ(r.out, c.message);
        } else {  // the reader succeeds; the value count is refused
            EXPECT_NE(r.out.find("\nError: "), std::string::npos) << r.out;
        }
    }
    test_support::write_file("v.nii", std::string(200, '\0'));
    volume_header h;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(read_header("v.nii", &h).status, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "\nError reading header file v.nii\n");
    EXPECT_EQ(read_header("none.nii", &h).out, "Error: cannot open Nifti file none.nii.\n");
}

TEST_F(NiftiRead, Methods) {
    // Method 2: the quaternion (0, 0, 1) turns x and y around.  Method 3:
    // an affine that exchanges y and z, leaving zeros on the diagonal.  An
    // sform without a qform is ignored.
    const struct {
        short qform, sform;
        int method;
        float diagonal[3], origin[3], direction[3];
        int oblique;
    } cases[] = {
        {0, 2, 1, {2, 3, 4}, {0, 0, 0}, {1, 1, 1}, 0},
        {1, 0, 2, {-2, -3, 4}, {10, 20, 30}, {-1, -1, 1}, 0},
        {1, 2, 3, {2, 0, 0}, {-90, 126, -72}, {1, -1, -1}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.method);
        nifti_1_header n = basic_header();
        n.qform_code = c.qform;
        n.sform_code = c.sform;
        n.quatern_d = 1;
        n.qoffset_x = 10;
        n.qoffset_y = 20;
        n.qoffset_z = 30;
        const float srow[3][4] = {{2, 0, 0, -90}, {0, 0, 4, 126}, {0, 3, 0, -72}};
        memcpy(n.srow_x, srow[0], 16);
        memcpy(n.srow_y, srow[1], 16);
        memcpy(n.srow_z, srow[2], 16);
        write_nifti("v.nii", n);
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.out, method_lines[c.method - 1]);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FLOAT_EQ(h.voxel_to_space.m[i][i], c.diagonal[i]) << i;
            EXPECT_FLOAT_EQ(h.origin[i], c.origin[i]) << i;
            EXPECT_EQ(h.direction[i], c.direction[i]) << i;
        }
        EXPECT_EQ(h.oblique, c.oblique);
    }
}

class NiftiWrite : public io_test::ScratchDirTest {};

TEST_F(NiftiWrite, FieldsExtensionAndNiftiTool) {
    const float resolution[3] = {2, 3, 4}, origin[3] = {10, -5, 0}, direction[3] = {1, -1, 1};
    set_output_geometry(4, 5, 6, resolution, origin, direction, 1);
    for (int with_extension = 0; with_extension <= 1; ++with_extension) {
        FILE *stream = nullptr;
        ASSERT_EQ(open_output_file(with_extension, 2, 12, "S-a", &stream), 0);
        const std::vector<float> data(4 * 5 * 6 * 2, 1.0f);  // for nifti_tool
        fwrite(data.data(), sizeof(float), data.size(), stream);
        fclose(stream);
        std::string bytes = test_support::read_file("S-a.nii");
        const size_t offset = with_extension ? 368 : 352;
        ASSERT_EQ(bytes.size(), offset + 4 * data.size());
        nifti_1_header n;
        memcpy(&n, bytes.data(), sizeof n);
        const short dims[8] = {4, 4, 5, 6, 2, 1, 1, 1};
        EXPECT_EQ(memcmp(n.dim, dims, sizeof dims), 0);
        const float pixdim[5] = {-1, 2, 3, 4, 0};  // y runs backwards: qfac -1
        EXPECT_EQ(memcmp(n.pixdim, pixdim, sizeof pixdim), 0);
        const float srow_y[4] = {0, -3, 0, -5};
        EXPECT_EQ(memcmp(n.srow_y, srow_y, sizeof srow_y), 0);
        EXPECT_EQ(n.sizeof_hdr + n.datatype + n.bitpix + n.xyzt_units, 348 + 16 + 32 + 2);
        EXPECT_EQ(n.vox_offset, 368.0f);
        EXPECT_EQ(n.regular, 'r');
        EXPECT_EQ(n.qform_code * 10 + n.sform_code, 10);
        EXPECT_EQ(n.qoffset_x * 10 + n.qoffset_y, 95.0f);
        EXPECT_EQ(memcmp(n.magic, "n+1\0", 4), 0);
        EXPECT_EQ(bytes[348], with_extension);
        const int32_t extension[4] = {16, 20, 12, 0};
        EXPECT_TRUE(!with_extension || memcmp(bytes.data() + 352, extension, 16) == 0);
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
