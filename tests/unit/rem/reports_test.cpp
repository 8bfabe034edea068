#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>

#include "rem.h"
#include "test_support.h"

namespace {

// Four files: event p (square) over files 0 and 1, event P (ramp) over 0 to 3.
void define_model(int overlapping) {
    REM_input.overlapping_events = overlapping;
    REM.nfiles = REM_input.nfiles = 4;
    const float weights[] = {1.0f, 2.5f, 1.0f, 1.0f};
    for (int i = 0; i < 4; ++i) {
        std::snprintf(REM_input.file_name[i], REM_NAME_LENGTH, "s%d.bfloat", i);
        REM_input.file_weight[i] = weights[i];
    }
    REM.nevents = 2;
    REM.event_number[0] = REM_EventNumberFromChar('p');
    REM.event_shape[0] = 0;
    REM.event_nranges[0] = 1;
    REM.range_start[0][0] = 0;
    REM.range_stop[0][0] = 1;
    REM.event_nfiles[0] = 2;
    REM.event_number[1] = REM_EventNumberFromChar('P');
    REM.event_shape[1] = 1;
    REM.event_nranges[1] = 1;
    REM.range_start[1][0] = 0;
    REM.range_stop[1][0] = 3;
    REM.event_nfiles[1] = 4;
}

}  // namespace

TEST(Reports, BasisFileHoldsTheDesign) {
    define_model(1);
    for (int i = 0; i < 4; ++i) REM_input.file_weight[i] = 1.0f;
    REMInternal_define_design_matrix();
    test_support::TempDir dir;
    test_support::ScopedChdir in(dir.path());
    REM_describe_basis_functions();
    EXPECT_EQ(test_support::read_file(dir.file("basis.dat")),
              "x eventp eventP \n"
              "0 1.000000 -1.000000 \n"
              "1 1.000000 -0.333333 \n"
              "2 0.000000 0.333333 \n"
              "3 0.000000 1.000000 \n");

    // A directory in the way of the file: the report says so and returns.
    ASSERT_EQ(std::remove("basis.dat"), 0);
    ASSERT_EQ(mkdir("basis.dat", 0700), 0);
    testing::internal::CaptureStdout();
    REM_describe_basis_functions();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Cannot open basis function output file ...\n");
}

TEST(Reports, InputDescriptionInBothForms) {
    define_model(1);
    testing::internal::CaptureStdout();
    REM_describe_input();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nSQUARE event p has 2 samples:\n0 1   (ON, OFF)\n"
              "\nRAMP event P has 4 samples:\n0 3   (ON, OFF)\n"
              "measurement files:\n"
              "file[0] = s0.bfloat , magnitude = 1\n"
              "file[1] = s1.bfloat , magnitude = 2.5\n"
              "file[2] = s2.bfloat , magnitude = 1\n"
              "file[3] = s3.bfloat , magnitude = 1\n");

    // Files listed under their events: positions count within each event.
    define_model(0);
    REM.event_shape[1] = 0;
    REM.range_start[1][0] = 2;
    REM.event_nfiles[1] = 2;
    testing::internal::CaptureStdout();
    REM_describe_input();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nSQUARE event p has 2 samples:\n"
              "file[0] = s0.bfloat , magnitude = 1\n"
              "file[1] = s1.bfloat , magnitude = 2.5\n"
              "\nSQUARE event P has 2 samples:\n"
              "file[0] = s2.bfloat , magnitude = 1\n"
              "file[1] = s3.bfloat , magnitude = 1\n");
}
