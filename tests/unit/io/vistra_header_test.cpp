#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "io.h"
#include "io_test_util.h"
#include "test_support.h"

namespace {

using test_support::write_file;

volume_header fresh_header()
{
    volume_header h = {};
    for (int i = 0; i < 3; ++i)
        h.resolution[i] = h.direction[i] = 1.0f;
    h.time_resolution = 9.0f;
    h.data_type = 7;
    return h;
}

// Decodes one line into a fresh record; returns the result and the output.
int decode(const char *line, volume_header *h, std::string *out)
{
    ::testing::internal::CaptureStdout();
    int result = decode_vistra_header_keyword(line, h);
    *out = ::testing::internal::GetCapturedStdout();
    return result;
}

TEST(DecodeVistraKeyword, EveryKeyword)
{
    const struct {
        const char *line;
        int result;
        int volume_header::*field;
        int value;
    } integer_cases[] = {
        {"x 64", 0, &volume_header::nx, 64},
        {"  y\t48 extra", 0, &volume_header::ny, 48},
        {"z 30", 0, &volume_header::nz, 30},
        {"t 2", 0, &volume_header::nt, 2},
        {"t two", 1, &volume_header::nt, 0},
        {"byte-order 0", 0, &volume_header::byte_order, 0},
        {"degrees-of-freedom 12", 0, &volume_header::degrees_of_freedom, 12},
        {"matrix 32 32 10 2", 0, &volume_header::nt, 2},
        {"matrix 32 32 10", 0, &volume_header::nz, 10},
        {"matrix 32 32", 1, &volume_header::ny, 32},
        {"data-type magnitude", 0, &volume_header::data_type, 0},
        {"data-type complex", 0, &volume_header::data_type, 1},
        {"data-type real-imaginary", 0, &volume_header::data_type, 1},
        {"data-type magnitude-phase", 0, &volume_header::data_type, 2},
        {"storage-type short", 0, &volume_header::header_storage_type, 1},
        {"storage-type float", 0, &volume_header::header_storage_type, 2},
        {"storage-type long", 0, &volume_header::header_storage_type, 3},
        {"storage-type unsigned-short", 0, &volume_header::header_storage_type, 4},
        {"storage-type unsigned-char", 0, &volume_header::header_storage_type, 5},
        {"registration paxinos-rat", 0, &volume_header::registration, -1},
        {"registration PW-rat", 0, &volume_header::data_type, 0},
        {"registration PW-rat", 0, &volume_header::registration, 1},
        {"info anything at all", -1, &volume_header::nx, 0},
        {"info:", -1, &volume_header::nx, 0},
        {"information", -1, &volume_header::nx, 0},
        {"information: subject 3", -1, &volume_header::nx, 0},
        {"X 64", 1, &volume_header::nx, 0},
        {"xx 64", 1, &volume_header::nx, 0},
    };
    for (const auto &c : integer_cases) {
        volume_header h = fresh_header();
        std::string out;
        EXPECT_EQ(decode(c.line, &h, &out), c.result) << c.line;
        EXPECT_EQ(h.*c.field, c.value) << c.line;
        EXPECT_EQ(out, "") << c.line;
    }
}

TEST(DecodeVistraKeyword, NumbersResolutionOriginDirection)
{
    volume_header h = fresh_header();
    std::string out;
    EXPECT_EQ(decode("resolution 3.75 3.75 5 2", &h, &out), 0);
    EXPECT_FLOAT_EQ(h.resolution[0], 3.75f);
    EXPECT_FLOAT_EQ(h.resolution[2], 5.0f);
    EXPECT_FLOAT_EQ(h.time_resolution, 2.0f);
    EXPECT_EQ(decode("resolution 3.75 3.75 5e-1", &h, &out), 0);
    EXPECT_FLOAT_EQ(h.resolution[2], 0.5f);
    EXPECT_FLOAT_EQ(h.time_resolution, 0.0f);
    EXPECT_EQ(decode("resolution 3", &h, &out), 1);
    EXPECT_EQ(decode("origin -90 126 -72", &h, &out), 0);
    EXPECT_FLOAT_EQ(h.origin[1], 126.0f);
    EXPECT_EQ(decode("origin 1 2", &h, &out), 1);
    EXPECT_EQ(decode("direction 1 -1 1", &h, &out), 0);
    EXPECT_FLOAT_EQ(h.direction[1], -1.0f);
    EXPECT_EQ(out, "");
}

TEST(DecodeVistraKeyword, Messages)
{
    const struct {
        const char *line;
        const char *message;
    } cases[] = {
        {"direction 1 0.5 1", "Error: allowed values for direction (1,0.5,1) are 1 and -1.\n"},
        {"data-type phase",
         "Error: arguments for data-type are\n1) magnitude (this is the default),\n"
         "2) complex (or real-imaginary),\n3) magnitude-phase\n"},
        {"storage-type", "Error: arguments for storage-type are ...\n"
                         "    short, float, long, unsigned-short, unsigned-char\n"},
        {"storage-type double", "Error: arguments for storage-type are ...\n"
                                "    short, float, long, unsigned-short, unsigned-char\n"},
        {"registration human", "Error: arguments for registration are\n1) paxinos-rat, and\n"
                               "2) nothing else (paxinos-monkey later?)\n"},
    };
    for (const auto &c : cases) {
        volume_header h = fresh_header();
        std::string out;
        EXPECT_EQ(decode(c.line, &h, &out), 1) << c.line;
        EXPECT_EQ(out, c.message) << c.line;
    }
}

class ReadVistraHeader : public io_test::ScratchDirTest {
protected:
    io_test::ReadResult read(const std::string &text, volume_header *h)
    {
        write_file("v.hdr", text);
        return io_test::read_header("v.bfloat", h);
    }
};

TEST_F(ReadVistraHeader, ValidHeaders)
{
    const struct {
        const char *text;
        int nx, nt, dof;
    } cases[] = {
        {"64 64 30 2\nx 64\ny 64\nz 30\nt 2\n", 64, 2, 0},
        {"\n# comment only\nx 8 # eight\n\ny 8\nz 8\nmatrix 32 32 10 2\ninfo\nrubbish\n", 32, 2,
         0},
        {"x 64\nmatrix 32 32 10 2\ndegrees-of-freedom 7\ninformation: x 5\nt 9\n", 32, 2, 7},
        {"x 4\ny 4\nz 4\nt 2", 4, 2, 0},
    };
    for (const auto &c : cases) {
        volume_header h;
        io_test::ReadResult r = read(c.text, &h);
        EXPECT_EQ(r.status, 0) << c.text << r.out;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(h.nx, c.nx) << c.text;
        EXPECT_EQ(h.nt, c.nt) << c.text;
        EXPECT_EQ(h.degrees_of_freedom, c.dof) << c.text;
    }
}

TEST_F(ReadVistraHeader, ErrorsNameTheStatementCountedSinceTheFirstLine)
{
    const struct {
        const char *text;
        const char *message;
    } cases[] = {
        {"information: subject 3\nx 4\n",
         "Error reading the 1st line of the vst header file 'v.hdr'.\n"},
        {"64 64 30\nx 4\n", "Error reading the 1st line of the vst header file 'v.hdr'.\n"},
        {"x 4\nbogus 1\n", "Error reading line 1 of file 'v.hdr'\n"},
        {"x 4\n\ny 4\n   \n# note\nz 4\nbogus\n", "Error reading line 3 of file 'v.hdr'\n"},
        {"x 4\ny 4\nz 4\n", "Error: Value for t dimension not found in header file 'v.hdr'\n"},
        {"t 2\nz 4\ny 4\n", "Error: Value for x dimension not found in header file 'v.hdr'\n"},
        {"x 4\nt 2\nz 4\n", "Error: Value for y dimension not found in header file 'v.hdr'\n"},
        {"", "Error: Value for x dimension not found in header file 'v.hdr'\n"},
    };
    for (const auto &c : cases) {
        volume_header h;
        io_test::ReadResult r = read(c.text, &h);
        EXPECT_EQ(r.status, 1) << c.text;
        EXPECT_EQ(r.out, c.message) << c.text;
    }
}

TEST_F(ReadVistraHeader, MissingHeaderFile)
{
    volume_header h;
    io_test::ReadResult r = io_test::read_header("none.bshort", &h);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Error: cannot open vistra file none.hdr.\n");
}

TEST_F(ReadVistraHeader, TransformFromResolutionOriginDirection)
{
    volume_header h;
    ASSERT_EQ(read("x 4\ny 4\nz 4\nt 2\nresolution 2 2 3\norigin 10 -5 0\ndirection 1 -1 1\n",
                   &h)
                  .status,
              0);
    EXPECT_FLOAT_EQ(h.voxel_to_space.m[1][1], -2.0f);
    EXPECT_FLOAT_EQ(h.voxel_to_space.m[0][3], 10.0f);
    EXPECT_FLOAT_EQ(h.space_to_voxel.m[1][3], -2.5f);
}

}  // namespace
