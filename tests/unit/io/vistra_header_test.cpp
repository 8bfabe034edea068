#include <gtest/gtest.h>

#include "io_test_util.h"

namespace {

TEST(DecodeVistraKeyword, EveryKeywordAndItsMessages) {
    const char *const storage =
        "Error: arguments for storage-type are ...\n"
        "    short, float, long, unsigned-short, unsigned-char\n";
    const struct {
        const char *line;
        int result;
        int volume_header::*field;
        int value;
        const char *message;
    } cases[] = {
        {"  y\t48 extra", 0, &volume_header::ny, 48, ""},
        {"degrees-of-freedom 12", 0, &volume_header::degrees_of_freedom, 12, ""},
        {"matrix 32 32 10 2", 0, &volume_header::nt, 2, ""},
        {"matrix 32 32", 1, &volume_header::ny, 32, ""},
        {"data-type real-imaginary", 0, &volume_header::data_type, 1, ""},
        {"data-type magnitude-phase", 0, &volume_header::data_type, 2, ""},
        {"data-type phase", 1, &volume_header::data_type, 0,
         "Error: arguments for data-type are\n1) magnitude (this is the default),\n"
         "2) complex (or real-imaginary),\n3) magnitude-phase\n"},
        {"storage-type short", 0, &volume_header::header_storage_type, 1, ""},
        {"storage-type", 1, &volume_header::header_storage_type, 0, storage},
        {"storage-type double", 1, &volume_header::header_storage_type, 0, storage},
        {"registration paxinos-rat", 0, &volume_header::registration, -1, ""},
        {"registration human", 1, &volume_header::data_type, 0,
         "Error: arguments for registration are\n1) paxinos-rat, and\n"
         "2) nothing else (paxinos-monkey later?)\n"},
        {"direction 1 0.5 1", 1, &volume_header::nx, 0,
         "Error: allowed values for direction (1,0.5,1) are 1 and -1.\n"},
        {"information: subject 3", -1, &volume_header::nx, 0, ""},
        {"X 64", 1, &volume_header::nx, 0, ""},
    };
    for (const auto &c : cases) {
        volume_header h = {};
        h.data_type = 7;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(decode_vistra_header_keyword(c.line, &h), c.result) << c.line;
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.message) << c.line;
        EXPECT_EQ(h.*c.field, c.value) << c.line;
    }

    volume_header h = {};
    EXPECT_EQ(decode_vistra_header_keyword("resolution 3.75 3.75 5e-1 2", &h), 0);
    EXPECT_EQ(h.resolution[2] * 10 + h.time_resolution, 7.0f);
    EXPECT_EQ(decode_vistra_header_keyword("origin -90 126", &h), 1);
}

class ReadVistraHeader : public io_test::ScratchDirTest {};

TEST_F(ReadVistraHeader, LinesAndTheirErrors) {
    const char *const ok = "";
    const struct {
        const char *text, *message;
        int nx;
    } cases[] = {
        {"64 64 30 2\nx 64\ny 64\nz 30\nt 2", ok, 64},  // no line end at the end
        {"\n# note\nx 8 # eight\n\ny 8\nz 8\nmatrix 32 32 10 2\ninfo\nrubbish\n", ok, 32},
        {"information: subject 3\nx 4\n",
         "Error reading the 1st line of the vst header file 'v.hdr'.\n", 0},
        // Neither the first line nor blank lines are counted.
        {"x 4\n\ny 4\n   \n# note\nz 4\nbogus\n", "Error reading line 3 of file 'v.hdr'\n", 4},
        {"x 4\ny 4\nz 4\n", "Error: Value for t dimension not found in header file 'v.hdr'\n", 4},
    };
    for (const auto &c : cases) {
        test_support::write_file("v.hdr", c.text);
        volume_header h;
        io_test::ReadResult r = io_test::read_header("v.bfloat", &h);
        EXPECT_EQ(r.status, c.message == ok ? 0 : 1) << c.text;
        EXPECT_EQ(r.out, c.message) << c.text;
        EXPECT_EQ(h.nx, c.nx) << c.text;
    }
}

}  // namespace
