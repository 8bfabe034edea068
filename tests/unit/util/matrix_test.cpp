// Products, trace, inversion and pseudo-inverse of row-pointer matrices.
#include "util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using Rows = std::vector<std::vector<double>>;

// A row-pointer matrix of T over rows of exactly the given sizes.
template <typename T>
struct Mat {
    std::vector<std::vector<T>> data;
    std::vector<T *> rows;
    explicit Mat(const Rows &r) {
        for (const auto &row : r) data.emplace_back(row.begin(), row.end());
        for (auto &row : data) rows.push_back(row.data());
    }
    operator T **() { return rows.data(); }
};

}  // namespace

TEST(MatrixProduct, EveryTransposeFlagAndFloatSumsInIndexOrder) {
    // A and B, each given as it is or transposed; A·B worked by hand.
    const Rows a[2] = {{{1, 2, 3}, {4, 5, 6}}, {{1, 4}, {2, 5}, {3, 6}}};
    const Rows b[2] = {{{7, 8}, {9, 10}, {11, 12}}, {{7, 9, 11}, {8, 10, 12}}};
    for (int ta = 0; ta < 2; ++ta)
        for (int tb = 0; tb < 2; ++tb) {
            Mat<float> A(a[ta]), B(b[tb]), C(Rows(2, {-1, -1}));
            Matrix_Product(C, 2, 2, A, ta, 3, B, tb);
            EXPECT_EQ(C.data, std::vector<std::vector<float>>({{58, 64}, {139, 154}})) << ta << tb;
        }
    // 1e8 + 1 rounds back to 1e8 in float32, so float sums in index order end
    // at exactly 0; a double accumulator or another order gives 1.
    Mat<float> A(Rows{{1e8, 1, -1e8}}), B({{1}, {1}, {1}}), C(Rows{{42}});
    Matrix_Product(C, 1, 1, A, 0, 3, B, 0);
    EXPECT_EQ(C[0][0], 0.0f);
    Mat<float> D({{1e8, 0, 0}, {0, 1, 0}, {0, 0, -1e8}});
    EXPECT_EQ(Trace_of_Matrix(3, D), 0.0f);
    EXPECT_EQ(Trace_of_Matrix(0, D), 0.0f);
}

// Each matrix goes through both entry points; the float32 one copies back
// whatever the float64 inversion left, the inverse or, after a zero pivot,
// the partly factorised matrix (worked by hand).
TEST(InvertSquareMatrix, PermutedAndSingularMatrices) {
    const struct {
        Rows a;
        int failed;  // -1: inverted
        Rows after;
    } cases[] = {
        // First column [0, 3]: rows exchanged, undone by a column exchange.
        {{{0, 1}, {3, 2}}, -1, {{-2.0 / 3.0, 1.0 / 3.0}, {1, 0}}},
        // A permutation: the inverse is the transpose.
        {{{0, 1, 0, 0}, {0, 0, 0, 1}, {1, 0, 0, 0}, {0, 0, 1, 0}},
         -1,
         {{0, 0, 1, 0}, {1, 0, 0, 0}, {0, 0, 0, 1}, {0, 1, 0, 0}}},
        {{}, -1, {}},  // order 0: nothing to do
        {{{0, 1}, {0, 2}}, 0, {{0, 1}, {0, 2}}},
        {{{1, 2}, {2, 4}}, 1, {{2, 4}, {0.5, 0}}},  // rank one: the second pivot is exactly 0
        {{{1, 2, 3}, {4, 5, 6}, {0, 0, 0}}, 2, {{4, 5, 6}, {0.25, 0.75, 1.5}, {0, 0, 0}}},
        // Rows 1 and 2 tie for the first pivot and row 1 must win.
        {{{0, 0, 1}, {2, 0, 5}, {-2, 0, 7}}, 1, {{2, 0, 5}, {0, 0, 1}, {-1, 0, 12}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.a.size() << " x " << c.a.size() << ", " << c.failed);
        const int n = static_cast<int>(c.a.size());
        Mat<double> A(c.a);
        Mat<float> F(c.a);
        int failed = 99, failed_float = 99;
        EXPECT_EQ(dInvertSquareMatrix(n, A, &failed), c.failed >= 0 ? 1 : 0);
        EXPECT_EQ(rInvertSquareMatrix(n, F, &failed_float), c.failed >= 0 ? 1 : 0);
        EXPECT_EQ(failed * 10 + failed_float, c.failed * 11);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                EXPECT_NEAR(A[i][j], c.after[i][j], 1e-15) << i << j;
                EXPECT_NEAR(F[i][j], c.after[i][j], 1e-7) << i << j;
            }
    }
    int failed = 99;
    testing::internal::CaptureStdout();
    EXPECT_EQ(dInvertSquareMatrix(-3, nullptr, &failed), 1);
    EXPECT_EQ(rInvertSquareMatrix(-2, nullptr, &failed), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: the matrix order is -3\nError: the matrix order is -2\n");
    EXPECT_EQ(failed, -1);
}

TEST(MatrixPseudoInverse, TallMatrix) {
    // Columns 1 and 0..3: A^T A = [[4, 6], [6, 14]]; by hand the rows of
    // (A^T A)^-1 A^T are (7 - 3i)/10 and (-3 + 2i)/10.
    Mat<float> A({{1, 0}, {1, 1}, {1, 2}, {1, 3}}), P(Rows(2, std::vector<double>(4)));
    Matrix_PseudoInverse(A, 4, 2, P);
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(P[0][i], (7.0 - 3.0 * i) / 10.0, 1e-5) << i;
        EXPECT_NEAR(P[1][i], (-3.0 + 2.0 * i) / 10.0, 1e-5) << i;
    }
}
