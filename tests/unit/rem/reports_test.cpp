#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>

#include "rem.h"
#include "test_support.h"

TEST(Reports, BasisFileHoldsTheDesign) {
    // Four files: event p (square) over files 0 and 1, event P (ramp) over 0 to 3.
    REM.nfiles = 4;
    for (int i = 0; i < 4; ++i) REM_input.file_weight[i] = 1.0f;
    REM.nevents = 2;
    const char names[] = {'p', 'P'};
    const int shapes[] = {0, 1}, stops[] = {1, 3};
    for (int e = 0; e < 2; ++e) {
        REM.event_number[e] = REM_EventNumberFromChar(names[e]);
        REM.event_shape[e] = shapes[e];
        REM.event_nranges[e] = 1;
        REM.range_start[e][0] = 0;
        REM.range_stop[e][0] = stops[e];
    }
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
