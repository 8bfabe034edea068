#include <gtest/gtest.h>

#include <nifti1_io.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "io.h"
#include "io_test_util.h"
#include "test_support.h"

namespace {

using io_test::read_header;
using test_support::read_file;

// A float volume of 4 x 5 x 6 voxels and 2 frames, sizes 2, 3, 4, TR 2.5.
nifti_1_header basic_header()
{
    nifti_1_header h;
    memset(&h, 0, sizeof h);
    h.sizeof_hdr = 348;
    h.dim[0] = 4;
    h.dim[1] = 4;
    h.dim[2] = 5;
    h.dim[3] = 6;
    h.dim[4] = 2;
    h.datatype = 16;
    h.bitpix = 32;
    h.pixdim[0] = 1;
    h.pixdim[1] = 2;
    h.pixdim[2] = 3;
    h.pixdim[3] = 4;
    h.pixdim[4] = 2.5f;
    h.vox_offset = 368;
    h.scl_slope = 1.5f;
    memcpy(h.magic, "n+1\0", 4);
    return h;
}

// Writes the header, then `tail` (extender and extension bytes) as given.
void write_nifti(const std::string &path, nifti_1_header h, bool other_byte_order,
                 const std::vector<unsigned char> &tail)
{
    if (other_byte_order)
        swap_nifti_header(&h, 1);  // the reference library's swap
    std::string bytes(reinterpret_cast<const char *>(&h), sizeof h);
    bytes.append(tail.begin(), tail.end());
    test_support::write_file(path, bytes);
}

// The extender with its flag set, then esize 16, ecode, dof and padding.
std::vector<unsigned char> dof_extension(int32_t ecode, int32_t dof)
{
    std::vector<unsigned char> tail(20, 0);
    tail[0] = 1;
    const int32_t words[4] = {16, ecode, dof, 0};
    memcpy(tail.data() + 4, words, sizeof words);
    return tail;
}

const char method1[] = "The NIFTI header for file v.nii uses Method 1: the old analyze format\n";

class NiftiRead : public io_test::ScratchDirTest {};

TEST_F(NiftiRead, BothByteOrdersWithAndWithoutTheExtension)
{
    const struct {
        bool swapped;
        std::vector<unsigned char> tail;
        int dof;
    } cases[] = {
        {false, {0, 0, 0, 0}, 0},           {false, dof_extension(20, 12), 12},
        {true, dof_extension(20, 12), 12},  {true, {}, 0},
        {false, dof_extension(4, 12), 0},
    };
    for (const auto &c : cases) {
        write_nifti("v.nii", basic_header(), c.swapped, c.tail);
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_EQ(r.out, method1);
        EXPECT_EQ(h.storage_type, 6);
        EXPECT_EQ(h.header_storage_type, 2);
        EXPECT_EQ(h.degrees_of_freedom, c.dof);
        EXPECT_EQ(h.byte_order, machine_byte_order());
        EXPECT_EQ(h.nx, 4);
        EXPECT_EQ(h.ny, 5);
        EXPECT_EQ(h.nz, 6);
        EXPECT_EQ(h.nt, 2);
        EXPECT_EQ(h.nxyzt, 240);
        EXPECT_FLOAT_EQ(h.resolution[2], 4.0f);
        EXPECT_FLOAT_EQ(h.time_resolution, 2.5f);
        EXPECT_FLOAT_EQ(h.scale_slope, 1.5f);
        EXPECT_FLOAT_EQ(h.data_offset, 368.0f);
        EXPECT_FLOAT_EQ(h.voxel_to_space.m[1][1], 3.0f);
    }
}

TEST_F(NiftiRead, Methods)
{
    // Method 2: the quaternion (0, 0, 1) turns x and y around.
    // Method 3: an affine that exchanges y and z, with zeros on the diagonal.
    const struct {
        short qform, sform;
        const char *line;
        float diagonal[3], origin[3], direction[3];
        int oblique;
    } cases[] = {
        {0, 2, method1, {2, 3, 4}, {0, 0, 0}, {1, 1, 1}, 0},
        {1, 0, "The NIFTI header for file v.nii uses Method 2: quaternion rotations\n",
         {-2, -3, 4}, {10, 20, 30}, {-1, -1, 1}, 0},
        {1, 2,
         "The NIFTI header for file v.nii uses Method 3: affine transformation of voxel "
         "indices\n",
         {2, 0, 0}, {-90, 126, -72}, {1, -1, -1}, 1},
    };
    for (const auto &c : cases) {
        nifti_1_header n = basic_header();
        n.qform_code = c.qform;
        n.sform_code = c.sform;
        n.quatern_d = 1;
        n.qoffset_x = 10;
        n.qoffset_y = 20;
        n.qoffset_z = 30;
        const float sx[4] = {2, 0, 0, -90}, sy[4] = {0, 0, 4, 126}, sz[4] = {0, 3, 0, -72};
        memcpy(n.srow_x, sx, sizeof sx);
        memcpy(n.srow_y, sy, sizeof sy);
        memcpy(n.srow_z, sz, sizeof sz);
        write_nifti("v.nii", n, false, {0, 0, 0, 0});
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.out, c.line);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FLOAT_EQ(h.voxel_to_space.m[i][i], c.diagonal[i]) << c.line << i;
            EXPECT_FLOAT_EQ(h.origin[i], c.origin[i]) << c.line << i;
            EXPECT_FLOAT_EQ(h.direction[i], c.direction[i]) << c.line << i;
        }
        EXPECT_EQ(h.oblique, c.oblique) << c.line;
    }
}

TEST_F(NiftiRead, DimensionalityAndDatatypes)
{
    const struct {
        short dim0, datatype;
        int status, nt, storage, data_type;
        const char *message;
    } cases[] = {
        {3, 16, 0, 1, 2, 0, method1},
        {5, 16, 1, 0, 0, 0, "Error: tov does not currently handle data of dimensionality (5) > 4.\n"},
        {4, 2, 0, 2, 5, 0, method1},
        {4, 4, 0, 2, 1, 0, method1},
        {4, 512, 0, 2, 4, 0, method1},
        {4, 8, 0, 2, 3, 0, method1},
        {4, 32, 0, 2, 2, 1, method1},
        {4, 64, 1, 0, 0, 0, "Error: the Nifti data storage type 64 is not supported.\n"},
    };
    for (const auto &c : cases) {
        nifti_1_header n = basic_header();
        n.dim[0] = c.dim0;
        n.datatype = c.datatype;
        write_nifti("v.nii", n, false, {0, 0, 0, 0});
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        EXPECT_EQ(r.status, c.status) << c.datatype;
        EXPECT_EQ(r.out, c.message) << c.datatype;
        if (c.status == 0) {
            EXPECT_EQ(h.nt, c.nt);
            EXPECT_EQ(h.header_storage_type, c.storage);
            EXPECT_EQ(h.data_type, c.data_type);
        }
    }
}

TEST_F(NiftiRead, ImgPairReadsTheHdrOfTheSameStem)
{
    write_nifti("v.hdr", basic_header(), true, {});
    volume_header h;
    io_test::ReadResult r = read_header("v.img", &h);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, "The NIFTI header for file v.img uses Method 1: the old analyze format\n");
    EXPECT_EQ(h.storage_type, 7);
    EXPECT_EQ(h.nz, 6);
}

TEST_F(NiftiRead, TruncatedAndAbsurdFiles)
{
    nifti_1_header bad_dims = basic_header();
    bad_dims.dim[2] = -5;
    nifti_1_header huge = basic_header();
    huge.dim[1] = huge.dim[2] = huge.dim[3] = huge.dim[4] = 32767;
    const std::vector<unsigned char> extension = dof_extension(20, 12);
    const struct {
        nifti_1_header header;
        size_t tail_bytes;
        const char *message;
    } cases[] = {
        {basic_header(), 4, "Error: A NIFTI1 extension was indicated, but it is missing.\n"},
        {basic_header(), 8, "Error: A NIFTI1 extension was indicated, but the ecode is missing.\n"},
        {basic_header(), 12, "Error read degrees of freedom.\n"},
        {bad_dims, 0, "Error: Value for y dimension not found in header file 'v.nii'\n"},
        {huge, 0, nullptr},
    };
    for (const auto &c : cases) {
        write_nifti("v.nii", c.header, false,
                    std::vector<unsigned char>(extension.begin(),
                                               extension.begin() + c.tail_bytes));
        volume_header h;
        io_test::ReadResult r = read_header("v.nii", &h);
        EXPECT_EQ(r.status, 1);
        if (c.message)
            EXPECT_EQ(r.out, c.message);
        else
            EXPECT_NE(r.out.find("Error: "), std::string::npos) << r.out;
    }

    test_support::write_file("v.nii", std::string(200, '\0'));
    volume_header h;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(read_header("v.nii", &h).status, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "\nError reading header file v.nii\n");
    EXPECT_EQ(read_header("none.nii", &h).out, "Error: cannot open Nifti file none.nii.\n");
}

class NiftiWrite : public io_test::ScratchDirTest {
protected:
    void SetUp() override
    {
        const float resolution[3] = {2, 3, 4}, origin[3] = {10, -5, 0},
                    direction[3] = {1, -1, 1};
        set_output_geometry(4, 5, 6, resolution, origin, direction, 1);
    }
};

TEST_F(NiftiWrite, HeaderFieldsAndTheExtension)
{
    for (int with_extension = 0; with_extension <= 1; ++with_extension) {
        FILE *stream = nullptr;
        ASSERT_EQ(open_output_file(with_extension, 2, 12, "S-a", &stream), 0);
        ASSERT_NE(stream, nullptr);
        fclose(stream);
        std::string bytes = read_file("S-a.nii");
        ASSERT_EQ(bytes.size(), with_extension ? 368u : 352u);
        nifti_1_header n;
        memcpy(&n, bytes.data(), sizeof n);
        EXPECT_EQ(n.sizeof_hdr, 348);
        const short dims[8] = {4, 4, 5, 6, 2, 1, 1, 1};
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(n.dim[i], dims[i]);
        EXPECT_EQ(n.datatype, 16);
        EXPECT_EQ(n.bitpix, 32);
        EXPECT_FLOAT_EQ(n.pixdim[0], -1.0f);  // y runs backwards: left-handed
        EXPECT_FLOAT_EQ(n.pixdim[2], 3.0f);
        EXPECT_FLOAT_EQ(n.pixdim[4], 0.0f);
        EXPECT_FLOAT_EQ(n.vox_offset, 368.0f);
        EXPECT_EQ(n.xyzt_units, 2);
        EXPECT_EQ(n.regular, 'r');
        EXPECT_EQ(n.qform_code, 1);
        EXPECT_EQ(n.sform_code, 0);
        EXPECT_FLOAT_EQ(n.qoffset_x, 10.0f);
        EXPECT_FLOAT_EQ(n.qoffset_y, -5.0f);
        const float sy[4] = {0, -3, 0, -5};
        for (int i = 0; i < 4; ++i)
            EXPECT_FLOAT_EQ(n.srow_y[i], sy[i]);
        EXPECT_EQ(memcmp(n.magic, "n+1\0", 4), 0);
        EXPECT_EQ(n.descrip[0], '\0');
        EXPECT_EQ(bytes[348], with_extension);
        if (with_extension) {
            int32_t words[4];
            memcpy(words, bytes.data() + 352, sizeof words);
            EXPECT_EQ(words[0], 16);
            EXPECT_EQ(words[1], 20);
            EXPECT_EQ(words[2], 12);
            EXPECT_EQ(words[3], 0);
        }
    }
}

TEST_F(NiftiWrite, WrittenFileReadsBackAndIsValidNifti)
{
    FILE *stream = nullptr;
    ASSERT_EQ(open_output_file(1, 2, 12, "S-a", &stream), 0);
    const std::vector<float> data(4 * 5 * 6 * 2, 1.0f);
    ASSERT_EQ(fwrite(data.data(), sizeof(float), data.size(), stream), data.size());
    fclose(stream);

    volume_header h;
    io_test::ReadResult r = read_header("S-a.nii", &h);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "The NIFTI header for file S-a.nii uses Method 2: quaternion rotations\n");
    EXPECT_EQ(h.degrees_of_freedom, 12);
    const float origin[3] = {10, -5, 0}, direction[3] = {1, -1, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(h.origin[i], origin[i], 1e-5);
        EXPECT_EQ(h.direction[i], direction[i]);
    }
    EXPECT_EQ(h.oblique, 0);

    if (test_support::run_command("command -v nifti_tool").status != 0)
        GTEST_SKIP() << "nifti_tool is not installed";
    test_support::CommandResult check =
        test_support::run_command("nifti_tool -check_hdr -check_nim -infiles S-a.nii", dir.path());
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    EXPECT_NE(check.out.find("header IS GOOD"), std::string::npos) << check.out << check.err;
    EXPECT_NE(check.out.find("nifti_image IS GOOD"), std::string::npos) << check.out;
}

}  // namespace
