#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "io.h"
#include "io_test_util.h"

namespace {

using io_test::read_header;
using test_support::write_file;

TEST(FileNames, ExtensionsAndTheirCodes) {
    const struct {
        const char *name;
        int status, code;
        const char *replaced;
    } cases[] = {
        {"s.bshort", 0, 1, "s.hdr"},    {"s.bfloat\n", 0, 2, "s.hdr"},
        {"a.b.blong", 0, 3, "a.b.hdr"}, {"s.ushort", 0, 4, "s.hdr"},
        {"s.nii", 0, 6, "s.hdr"},       {"s.img", 0, 7, "s.hdr"},
        {"s.BFLOAT", 0, -1, "s.hdr"},   {"s", 1, 99, ""},
    };
    for (const auto &c : cases) {
        char name[32], result[IO_NAME_LENGTH] = "";
        strcpy(name, c.name);
        int type = 99;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(replace_extension(name, &type, "hdr", result), c.status) << c.name;
        EXPECT_EQ(::testing::internal::GetCapturedStdout(),
                  c.status ? "The file name has no extension!\n" : "");
        EXPECT_EQ(type, c.code) << c.name;
        EXPECT_STREQ(result, c.replaced);
        EXPECT_EQ(strchr(name, '\n'), nullptr) << "the newline is stripped";
    }
    unsigned char bytes[4] = {1, 2, 3, 4};
    swap_32(bytes);
    swap_16(bytes);
    EXPECT_EQ(memcmp(bytes, "\3\4\2\1", 4), 0);
}

class ReadVolumeHeader : public io_test::ScratchDirTest {};

TEST_F(ReadVolumeHeader, DispatchAndDerivedFields) {
    mkdir("run.d", 0755);
    write_file("s.hdr", "x 64\ny 48\nz 30\nt 2\nresolution 3.75 3.5 5\n");
    write_file("run.d/s.hdr", "x 4\ny 4\nz 4\nt 2\nstorage-type float\n");
    const struct {
        const char *name;
        int storage, nxyzt;
        float field_of_view_y;
    } cases[] = {{"s.bfloat", 2, 64 * 48 * 30 * 2, 168}, {"s.BFLOAT", -1, 64 * 48 * 30 * 2, 168},
                 {"run.d/s", 2, 4 * 4 * 4 * 2, 4}};
    for (const auto &c : cases) {
        volume_header h;
        ASSERT_EQ(read_header(c.name, &h).status, 0) << c.name;
        EXPECT_STREQ(h.file_name, c.name);
        EXPECT_EQ(h.storage_type, c.storage) << c.name;
        EXPECT_EQ(h.byte_order, machine_byte_order());
        EXPECT_EQ(h.nxyzt, c.nxyzt);
        EXPECT_FLOAT_EQ(h.field_of_view[1], c.field_of_view_y);
        EXPECT_FLOAT_EQ(h.space_to_voxel.m[0][0], 1.0f / h.resolution[0]);
    }
}

TEST_F(ReadVolumeHeader, Failures) {
    write_file("plain.hdr", "x 4\ny 4\nz 4\nt 2\n");
    write_file("neg.hdr", "x -4\ny 4\nz 4\nt 2\n");
    write_file("big.hdr", "x 2048\ny 2048\nz 256\nt 2\n");
    write_file("elf.hdr",
               "\x7f"
               "ELF\x02\x01\x01\x03\x3e\n");
    const struct {
        std::string name;
        const char *message;  // complete output, or its first word
    } cases[] = {
        {"plain",
         "Error: the file type is not recognized,\n"
         "so it was assumed to be an vistra file without an extension.\n"
         "However, the storage type was not read from file plain.hdr\n"
         "Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n"},
        {"neg.bfloat", "Error: "},
        {"big.bfloat", "Error: "},
        {"elf.bfloat", "Error "},
        {std::string(1024, 'a') + ".bfloat", "Error: "},
        {std::string(1015, 'b') + ".bfloat", "Error: "},  // fits; its ".hdr" does not
    };
    for (const auto &c : cases) {
        volume_header h;
        io_test::ReadResult r = read_header(c.name, &h);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out.substr(0, strlen(c.message)), c.message) << r.out;
    }
}

}  // namespace
