// Studies beyond the classic capacity of 200 files, which only "reml
// converged" allows: names and weights past the records' arrays, and a
// design without the n x n matrices of the classic arithmetic.
#include <gtest/gtest.h>

#include "rem_test_model.h"

using rem_test::read_text;

// 150 files of event p, then 150 of event c with a weight of 2 each (which
// the classic estimate refuses, a row of the analysis-file refusals): the
// design, weights divided by their mean, has no n x n matrices.  The design
// layout: names and values of every file, and the description of the input
// names the files past the records' arrays.
TEST(Capacity, ConvergedReadsMoreFilesThanTheClassicCapacity) {
    std::string files = "conditions p-c\nevent p\n";
    for (int i = 0; i < 300; ++i)
        files += (i == 150 ? "event c\nf" : "f") + std::to_string(i) +
                 (i < 150 ? ".bfloat\n" : ".bfloat 2\n");
    const auto [result, out] = read_text("reml converged\n" + files);
    ASSERT_EQ(result, 0) << out.substr(0, 300);
    EXPECT_EQ(REM_input.nfiles, 300);
    for (int i : {0, 199, 200, 299}) {
        EXPECT_EQ(std::string(REM_file_name(i)), "f" + std::to_string(i) + ".bfloat");
        EXPECT_EQ(REM_file_weight(i), i < 150 ? 1.0f : 2.0f);
    }
    EXPECT_NE(out.find("file[149] = f299.bfloat , magnitude = 2\n"), std::string::npos);
    EXPECT_EQ(REM.design[0][0], 1.0f);
    EXPECT_EQ(REM.design[299][1], 1.0f);
    EXPECT_EQ(REM.design[299][0], 0.0f);
    EXPECT_EQ(REM.identity, nullptr);
    EXPECT_EQ(REM.hat, nullptr);
    EXPECT_EQ(REM_check_design(), 0);

    std::string text = "reml converged\nconditions p a\ndesign p a\nmeasurements\n";
    for (int i = 0; i < 300; ++i)
        text += "f" + std::to_string(i) + ".bfloat 1 " + std::to_string(i - 150) + "\n";
    const rem_test::Outcome d = read_text(text);
    ASSERT_EQ(d.result, 0) << d.out.substr(0, 300);
    EXPECT_EQ(REM.nfiles, 300);
    EXPECT_EQ(std::string(REM_file_name(299)), "f299.bfloat");
    EXPECT_EQ(REM.design[299][1], 149.0f);
    EXPECT_EQ(REM.design[0][1], -150.0f);
    EXPECT_NE(d.out.find("file[299] = f299.bfloat , p = 1 , a = 149\n"), std::string::npos);
}
