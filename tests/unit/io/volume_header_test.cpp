#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>

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
}

class ReadVolumeHeader : public io_test::ScratchDirTest {};

TEST_F(ReadVolumeHeader, DispatchDerivedFieldsAndFailures) {
    mkdir("run.d", 0755);
    write_file("s.hdr", "x 64\ny 48\nz 30\nt 2\nresolution 3.75 3.5 5\n");
    write_file("run.d/s.hdr", "x 4\ny 4\nz 4\nt 2\nstorage-type float\n");
    write_file("neg.hdr", "x -4\ny 4\nz 4\nt 2\n");
    write_file("big.hdr", "x 2048\ny 2048\nz 256\nt 2\n");
    const struct {
        std::string name;
        const char *message;  // complete output, or the start of an error message
        int storage = 0, nxyzt = 0;
        float field_of_view_y = 0;
    } cases[] = {
        {"s.bfloat", "", 2, 64 * 48 * 30 * 2, 168},
        {"s.BFLOAT", "", -1, 64 * 48 * 30 * 2, 168},
        {"run.d/s", "", 2, 4 * 4 * 4 * 2, 4},
        {"s",  // s.hdr declares no storage type
         "Error: the file type is not recognized,\n"
         "so it was assumed to be an vistra file without an extension.\n"
         "However, the storage type was not read from file s.hdr\n"
         "Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n"},
        {"neg.bfloat", "Error: "},
        {"big.bfloat", "Error: "},
        {std::string(1024, 'a') + ".bfloat", "Error: "},
        {std::string(1015, 'b') + ".bfloat", "Error: "},  // fits; its ".hdr" does not
    };
    for (const auto &c : cases) {
        volume_header h;
        io_test::ReadResult r = read_header(c.name, &h);
        EXPECT_EQ(r.status, *c.message ? 1 : 0) << c.name;
        EXPECT_EQ(*c.message ? r.out.substr(0, strlen(c.message)) : r.out, c.message) << r.out;
        if (r.status != 0) continue;
        EXPECT_STREQ(h.file_name, c.name.c_str());
        EXPECT_EQ(h.storage_type, c.storage) << c.name;
        EXPECT_EQ(h.byte_order, machine_byte_order());
        EXPECT_EQ(h.nxyzt, c.nxyzt);
        EXPECT_FLOAT_EQ(h.field_of_view[1], c.field_of_view_y);
        EXPECT_FLOAT_EQ(h.space_to_voxel.m[0][0], 1.0f / h.resolution[0]);
    }
}

}  // namespace
