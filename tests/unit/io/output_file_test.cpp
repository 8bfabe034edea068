#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>

#include "io_test_util.h"

namespace {

using test_support::read_file;

class OutputFile : public io_test::ScratchDirTest {};

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
