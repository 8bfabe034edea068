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
// tail_bytes of an extender with its flag set and a dof extension of ecode.
void write_nifti(const char *path, nifti_1_header h, bool swapped, size_t tail_bytes,
                 int32_t ecode = 20) {
    if (swapped) swap_nifti_header(&h, 1);  // the reference library's swap
    std::string bytes(reinterpret_cast<const char *>(&h), sizeof h);
    const int32_t tail[5] = {1, 16, ecode, 12, 0};
    bytes.append(reinterpret_cast<const char *>(tail), tail_bytes);
    test_support::write_file(path, bytes);
}

const char method1[] = "The NIFTI header for file v.nii uses Method 1: the old analyze format\n";

class NiftiRead : public io_test::ScratchDirTest {};

TEST_F(NiftiRead, ByteOrdersPairsAndTheDofExtension) {
    const struct {
        const char *name, *header_file;
        bool swapped;
        size_t tail_bytes;
        int32_t ecode;
        int dof, storage;
    } cases[] = {{"v.nii", "v.nii", false, 0, 20, 0, 6},
                 {"v.nii", "v.nii", false, 20, 20, 12, 6},
                 {"v.nii", "v.nii", true, 20, 20, 12, 6},
                 {"v.nii", "v.nii", false, 20, 4, 0, 6},
                 {"v.img", "v.hdr", true, 0, 20, 0, 7}};
    for (const auto &c : cases) {
        write_nifti(c.header_file, basic_header(), c.swapped, c.tail_bytes, c.ecode);
        volume_header h;
        io_test::ReadResult r = read_header(c.name, &h);
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_EQ(r.out, "The NIFTI header for file " + std::string(c.name) +
                             " uses Method 1: the old analyze format\n");
        EXPECT_EQ(h.degrees_of_freedom, c.dof);
        EXPECT_EQ(h.storage_type * 10 + h.header_storage_type, c.storage * 10 + 2);
        EXPECT_EQ(h.nxyzt, 240);
        EXPECT_EQ(h.resolution[2] * 10 + h.time_resolution, 42.5f);
        EXPECT_EQ(h.data_offset, 368.0f);
    }
}

TEST_F(NiftiRead, Methods) {
    // Method 2: the quaternion (0, 0, 1) turns x and y around.  Method 3:
    // an affine that exchanges y and z, leaving zeros on the diagonal.
    const struct {
        short qform, sform;
        const char *line;
        float diagonal[3], origin[3], direction[3];
        int oblique;
    } cases[] = {
        {0, 2, method1, {2, 3, 4}, {0, 0, 0}, {1, 1, 1}, 0},
        {1,
         0,
         "The NIFTI header for file v.nii uses Method 2: quaternion rotations\n",
         {-2, -3, 4},
         {10, 20, 30},
         {-1, -1, 1},
         0},
        {1,
         2,
         "The NIFTI header for file v.nii uses Method 3: affine transformation of voxel "
         "indices\n",
         {2, 0, 0},
         {-90, 126, -72},
         {1, -1, -1},
         1},
    };
    for (const auto &c : cases) {
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
        write_nifti("v.nii", n, false, 0);
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.out, c.line);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FLOAT_EQ(h.voxel_to_space.m[i][i], c.diagonal[i]) << c.line << i;
            EXPECT_FLOAT_EQ(h.origin[i], c.origin[i]) << c.line << i;
            EXPECT_EQ(h.direction[i], c.direction[i]) << c.line << i;
        }
        EXPECT_EQ(h.oblique, c.oblique) << c.line;
    }
}

TEST_F(NiftiRead, DimensionalityDatatypesAndDamagedFiles) {
    const struct {
        short dim0, datatype, dim2;
        size_t tail_bytes;
        int nt, storage, data_type;
        const char *message;
    } cases[] = {
        {3, 16, 5, 0, 1, 2, 0, method1},
        {4, 32, 5, 0, 2, 2, 1, method1},
        {4, 512, 5, 0, 2, 4, 0, method1},
        {5, 16, 5, 0, 0, 0, 0,
         "Error: tov does not currently handle data of dimensionality (5) > 4.\n"},
        {4, 64, 5, 0, 0, 0, 0, "Error: the Nifti data storage type 64 is not supported.\n"},
        {4, 16, -5, 0, 0, 0, 0, "Error: Value for y dimension not found in header file 'v.nii'\n"},
        {4, 16, 5, 4, 0, 0, 0, "Error: A NIFTI1 extension was indicated, but it is missing.\n"},
        {4, 16, 5, 8, 0, 0, 0,
         "Error: A NIFTI1 extension was indicated, but the ecode is missing.\n"},
        {4, 16, 5, 12, 0, 0, 0, "Error read degrees of freedom.\n"},
        {4, 16, 32767, 0, 0, 0, 0, ""},  // 4 x 32767 x 6 x 32767 values
    };
    for (const auto &c : cases) {
        nifti_1_header n = basic_header();
        n.dim[0] = c.dim0;
        n.datatype = c.datatype;
        n.dim[2] = c.dim2;
        if (c.dim2 == 32767) n.dim[4] = 32767;
        write_nifti("v.nii", n, false, c.tail_bytes);
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        EXPECT_EQ(r.status, c.nt ? 0 : 1) << c.message;
        if (c.dim2 == 32767)  // the reader succeeds; the value count is refused
            EXPECT_NE(r.out.find("\nError: "), std::string::npos) << r.out;
        else
            EXPECT_EQ(r.out, c.message);
        if (c.nt) {
            EXPECT_EQ(h.nt * 100 + h.header_storage_type * 10 + h.data_type,
                      c.nt * 100 + c.storage * 10 + c.data_type);
        }
    }
    test_support::write_file("v.nii", std::string(200, '\0'));
    volume_header h;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(read_header("v.nii", &h).status, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "\nError reading header file v.nii\n");
    EXPECT_EQ(read_header("none.nii", &h).out, "Error: cannot open Nifti file none.nii.\n");
}

class NiftiWrite : public io_test::ScratchDirTest {};

TEST_F(NiftiWrite, FieldsExtensionReadBackAndNiftiTool) {
    const float resolution[3] = {2, 3, 4}, origin[3] = {10, -5, 0}, direction[3] = {1, -1, 1};
    set_output_geometry(4, 5, 6, resolution, origin, direction, 1);
    for (int with_extension = 0; with_extension <= 1; ++with_extension) {
        FILE *stream = nullptr;
        ASSERT_EQ(open_output_file(with_extension, 2, 12, "S-a", &stream), 0);
        fclose(stream);
        std::string bytes = test_support::read_file("S-a.nii");
        ASSERT_EQ(bytes.size(), with_extension ? 368u : 352u);
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
        if (with_extension) {
            EXPECT_EQ(memcmp(bytes.data() + 352, extension, 16), 0);
        }
    }

    FILE *stream = nullptr;
    ASSERT_EQ(open_output_file(1, 2, 12, "S-a", &stream), 0);
    const std::vector<float> data(4 * 5 * 6 * 2, 1.0f);
    fwrite(data.data(), sizeof(float), data.size(), stream);
    fclose(stream);
    volume_header h;
    io_test::ReadResult r = read_header("S-a.nii", &h);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "The NIFTI header for file S-a.nii uses Method 2: quaternion rotations\n");
    EXPECT_EQ(h.degrees_of_freedom, 12);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(h.origin[i], origin[i], 1e-5);
        EXPECT_EQ(h.direction[i], direction[i]);
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
