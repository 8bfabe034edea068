#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "io.h"
#include "io_test_util.h"
#include "test_support.h"

namespace {

using io_test::read_header;
using test_support::write_file;

TEST(GetExtension, StorageCodesByExtension)
{
    const struct {
        const char *name;
        int status;
        int code;
    } cases[] = {
        {"subj1.bshort", 0, 1},  {"subj1.bfloat", 0, 2}, {"subj1.blong", 0, 3},
        {"subj1.ushort", 0, 4},  {"subj1.nii", 0, 6},    {"subj1.img", 0, 7},
        {"subj1.BFLOAT", 0, -1}, {"subj1.hdr", 0, -1},   {"a.b.bfloat", 0, 2},
        {"subj1", 1, 99},        {"subj1.", 0, -1},
    };
    for (const auto &c : cases) {
        char name[64];
        strcpy(name, c.name);
        int type = 99;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(get_extension(name, &type, nullptr), c.status) << c.name;
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(type, c.code) << c.name;
        EXPECT_EQ(out, c.status ? "The file name has no extension!\n" : "") << c.name;
    }
}

TEST(GetExtension, StripsTheNewlineOfANameReadFromALine)
{
    char name[] = "run/subj1.bfloat\n";
    int type = 0;
    EXPECT_EQ(get_extension(name, &type, nullptr), 0);
    EXPECT_EQ(type, 2);
    EXPECT_STREQ(name, "run/subj1.bfloat");
}

TEST(ReplaceExtension, ReplacesTheTextAfterTheLastDot)
{
    char name[] = "a.b.bfloat";
    char result[IO_NAME_LENGTH];
    int type = 0;
    EXPECT_EQ(replace_extension(name, &type, "hdr", result), 0);
    EXPECT_STREQ(result, "a.b.hdr");
    EXPECT_EQ(type, 2);

    char bare[] = "subj1";
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(replace_extension(bare, &type, "hdr", result), 1);
    ::testing::internal::GetCapturedStdout();
}

TEST(ByteOrder, MachineOrderAndSwaps)
{
    const uint16_t one = 1;
    EXPECT_EQ(machine_byte_order(), *reinterpret_cast<const unsigned char *>(&one) == 1);

    unsigned char two[2] = {0x12, 0x34};
    swap_16(two);
    EXPECT_EQ(two[0], 0x34);
    EXPECT_EQ(two[1], 0x12);
    unsigned char four[4] = {1, 2, 3, 4};
    swap_32(four);
    const unsigned char reversed[4] = {4, 3, 2, 1};
    EXPECT_EQ(memcmp(four, reversed, 4), 0);
}

class ReadVolumeHeader : public io_test::ScratchDirTest {};

TEST_F(ReadVolumeHeader, NativeVolumeWithExtensionAndDerivedFields)
{
    write_file("subj1.hdr", "x 64\ny 48\nz 30\nt 2\nresolution 3.75 3.5 5\n");
    volume_header h;
    h.space_to_voxel.m[0][0] = 7;
    ASSERT_EQ(read_header("subj1.bfloat", &h).status, 0);
    EXPECT_STREQ(h.file_name, "subj1.bfloat");
    EXPECT_EQ(h.storage_type, 2);
    EXPECT_EQ(h.header_storage_type, 2);
    EXPECT_EQ(h.nxy, 64 * 48);
    EXPECT_EQ(h.nxyz, 64 * 48 * 30);
    EXPECT_EQ(h.nxyzt, 64 * 48 * 30 * 2);
    EXPECT_FLOAT_EQ(h.field_of_view[0], 240.0f);
    EXPECT_FLOAT_EQ(h.field_of_view[1], 168.0f);
    EXPECT_FLOAT_EQ(h.field_of_view[2], 150.0f);
    EXPECT_EQ(h.byte_order, machine_byte_order());
    EXPECT_FLOAT_EQ(h.space_to_voxel.m[0][0], 1 / 3.75f);
    EXPECT_FLOAT_EQ(h.space_to_voxel.m[2][2], 0.2f);
}

TEST_F(ReadVolumeHeader, UnknownExtensionReadsTheNativeHeaderWithCodeMinusOne)
{
    write_file("subj1.hdr", "x 4\ny 4\nz 4\nt 2\n");
    volume_header h;
    ASSERT_EQ(read_header("subj1.BFLOAT", &h).status, 0);
    EXPECT_EQ(h.storage_type, -1);
}

TEST_F(ReadVolumeHeader, ExtensionLessNamesTakeTheDeclaredStorageType)
{
    mkdir("run.d", 0755);
    write_file("run.d/subj1.hdr", "x 4\ny 4\nz 4\nt 2\nstorage-type float\n");
    volume_header h;
    ASSERT_EQ(read_header("run.d/subj1", &h).status, 0);
    EXPECT_EQ(h.storage_type, 2);
    EXPECT_STREQ(h.file_name, "run.d/subj1");

    write_file("subj2.hdr", "x 4\ny 4\nz 4\nt 2\n");
    io_test::ReadResult r = read_header("subj2", &h);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out,
              "Error: the file type is not recognized,\n"
              "so it was assumed to be an vistra file without an extension.\n"
              "However, the storage type was not read from file subj2.hdr\n"
              "Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n");
}

TEST_F(ReadVolumeHeader, AbsurdInputFailsWithAnErrorLine)
{
    const struct {
        const char *header;
        const char *why;
    } cases[] = {
        {"x -4\ny 4\nz 4\nt 2\n", "negative dimension"},
        {"x 4096\ny 4096\nz 4096\nt 2\n", "voxel count overflows 32 bits"},
        {"x 2048\ny 2048\nz 256\nt 2\n", "value count overflows 32 bits"},
        {"\x7f" "ELF\x01\x02\x01\n\x03\x00\x3e\x00", "binary file"},
    };
    for (const auto &c : cases) {
        write_file("bad.hdr", c.header);
        volume_header h;
        io_test::ReadResult r = read_header("bad.bfloat", &h);
        EXPECT_EQ(r.status, 1) << c.why;
        EXPECT_EQ(r.out.rfind("Error", 0), 0u) << c.why << ": " << r.out;
    }

    std::string long_name(1024, 'a');
    volume_header h;
    io_test::ReadResult r = read_header(long_name + ".bfloat", &h);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.rfind("Error: ", 0), 0u);
    r = read_header(std::string(1015, 'b') + ".bfloat", &h);  // fits, its .hdr does not
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.rfind("Error: ", 0), 0u);
}

}  // namespace
