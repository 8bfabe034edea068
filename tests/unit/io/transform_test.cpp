#include <gtest/gtest.h>
#include <unistd.h>

#include "io.h"

namespace {

void expect_matrix(const mat44 &m, const float (&expected)[4][4]) {
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            EXPECT_FLOAT_EQ(m.m[i][j], expected[i][j]) << "[" << i << "][" << j << "]";
}

TEST(Transform, DiagonalExampleAndItsInverse) {
    mat44 m = scale_and_shift_to_mat44(2, 2, 3, 10, -5, 0, 1, -1, 1);
    expect_matrix(m, {{2, 0, 0, 10}, {0, -2, 0, -5}, {0, 0, 3, 0}, {0, 0, 0, 1}});
    const float third = static_cast<float>(1.0 / 3.0);
    expect_matrix(invert_mat44(m),
                  {{0.5f, 0, 0, -5}, {0, -0.5f, 0, -2.5f}, {0, 0, third, 0}, {0, 0, 0, 1}});
}

TEST(TransformDeathTest, SingularMatrixEndsTheProcessWithTheRowMessage) {
    mat44 singular = scale_and_shift_to_mat44(1, 0, 1, 0, 0, 0, 1, 1, 1);
    // The message goes to standard output, which the child joins to the
    // stream that the death test looks at.
    EXPECT_EXIT((dup2(2, 1), invert_mat44(singular)), ::testing::ExitedWithCode(1),
                "failed on row 1");
}

}  // namespace
