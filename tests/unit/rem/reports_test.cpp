#include <gtest/gtest.h>
#include <sys/stat.h>

#include "rem_test_model.h"

TEST(Reports, BasisFileHoldsTheDesign) {
    // Four files: event p (square) over files 0 and 1, event P (ramp) over 0 to 3.
    rem_test::build_model(4, {{0, {{0, 1}}}, {1, {{0, 3}}}});
    REM.event_number[0] = REM_EventNumberFromChar('p');
    REM.event_number[1] = REM_EventNumberFromChar('P');
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
