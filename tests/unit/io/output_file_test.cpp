#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "io.h"
#include "io_test_util.h"

namespace {

using test_support::read_file;

class OutputFile : public io_test::ScratchDirTest {};

TEST_F(OutputFile, NativeHeaderLinesAndTheDataStream) {
    const float size2[3] = {2, 2, 2}, zeros[3] = {0, 0, 0}, ones[3] = {1, 1, 1};
    set_output_geometry(64, 64, 30, size2, zeros, ones, 0);
    FILE *stream = nullptr;
    ASSERT_EQ(open_output_file(0, 1, 12, "P-a-b", &stream), 0);
    fclose(stream);
    EXPECT_EQ(read_file("P-a-b.hdr"),
              "x 64\ny 64\nz 30\nt 1\nbyte-order 1\nresolution 2 2 2\norigin 0 0 0\n"
              "direction 1 1 1\ndegrees-of-freedom 12\n");
    EXPECT_EQ(read_file("P-a-b.bfloat"), "");

    const float resolution[3] = {3.75f, 3.75f, 5.5f}, origin[3] = {-118.125f, 100, 1e-7f},
                direction[3] = {-1, 1, -1};
    set_output_geometry(4, 3, 2, resolution, origin, direction, 0);
    ASSERT_EQ(open_output_file(1, 3, 0, "sigma2", &stream), 0);
    const float values[2] = {1.5f, -2.0f};
    fwrite(values, sizeof(float), 2, stream);
    fclose(stream);
    EXPECT_EQ(read_file("sigma2.hdr"),
              "x 4\ny 3\nz 2\nt 3\nbyte-order 1\nresolution 3.75 3.75 5.5\n"
              "origin -118.125 100 1e-07\ndirection -1 1 -1\ndegrees-of-freedom 0\n");
    EXPECT_EQ(test_support::read_floats("sigma2.bfloat"), std::vector<float>({1.5f, -2.0f}));
}

TEST_F(OutputFile, FilesThatCannotBeOpened) {
    const float ones[3] = {1, 1, 1}, zeros[3] = {0, 0, 0};
    mkdir("data.bfloat", 0755);  // the header opens, the data file cannot
    const struct {
        int nifti;
        std::string stem;
        const char *message;
    } cases[] = {
        {0, "missing/sigma2", "Error: cannot open the output file missing/sigma2.hdr\n"},
        {1, "missing/sigma2", "Error: cannot open the header file missing/sigma2.nii.\n"},
        {0, "data", "Error: cannot open the output file data.bfloat\n"},
        {0, std::string(1020, 's'), "Error: "},
    };
    for (const auto &c : cases) {
        set_output_geometry(2, 2, 2, ones, zeros, ones, c.nifti);
        FILE *stream = nullptr;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(open_output_file(0, 1, 3, c.stem.c_str(), &stream), 1);
        EXPECT_EQ(::testing::internal::GetCapturedStdout().substr(0, strlen(c.message)), c.message);
    }
    EXPECT_TRUE(test_support::file_exists("data.hdr"));
    EXPECT_FALSE(test_support::file_exists("missing"));
}

}  // namespace
