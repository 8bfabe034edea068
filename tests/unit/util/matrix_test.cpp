// Products, trace, inversion and pseudo-inverse of row-pointer matrices.
#include "util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

using Rows = std::vector<std::vector<double>>;

template <typename T>
T **make(const Rows &rows) {
    const uint32_t r = rows.size(), c = rows.empty() ? 0 : rows[0].size();
    T **m = static_cast<T **>(malloc(r * sizeof(T *)));
    for (uint32_t i = 0; i < r; ++i) {
        m[i] = static_cast<T *>(malloc(c * sizeof(T)));
        for (uint32_t j = 0; j < c; ++j) m[i][j] = static_cast<T>(rows[i][j]);
    }
    return m;
}

template <typename T>
void release(T **m, size_t rows) {
    for (size_t i = 0; i < rows; ++i) free(m[i]);
    free(m);
}

Rows transposed(const Rows &a) {
    Rows t(a[0].size(), std::vector<double>(a.size()));
    for (size_t i = 0; i < a.size(); ++i)
        for (size_t j = 0; j < a[0].size(); ++j) t[j][i] = a[i][j];
    return t;
}

// Largest deviation of a·b from the identity, in long double.
template <typename T>
long double identity_error(const Rows &a, T **b) {
    const size_t n = a.size();
    long double worst = 0;
    for (size_t i = 0; i < n; ++i)
        for (size_t j = 0; j < n; ++j) {
            long double s = 0;
            for (size_t k = 0; k < n; ++k) s += static_cast<long double>(a[i][k]) * b[k][j];
            worst = std::max(worst, std::fabs(s - (i == j ? 1.0L : 0.0L)));
        }
    return worst;
}

}  // namespace

TEST(MatrixProduct, EveryTransposeCombination) {
    const Rows a = {{1, 2, 3}, {4, 5, 6}}, b = {{7, 8}, {9, 10}, {11, 12}};
    const float expected[2][2] = {{58, 64}, {139, 154}};  // by hand
    for (int ta = 0; ta < 2; ++ta)
        for (int tb = 0; tb < 2; ++tb) {
            float **A = make<float>(ta ? transposed(a) : a), **B = make<float>(tb ? transposed(b) : b);
            float **C = make<float>(Rows(2, std::vector<double>(2, -1)));
            Matrix_Product(C, 2, 2, A, ta, 3, B, tb);
            for (int i = 0; i < 2; ++i)
                for (int j = 0; j < 2; ++j) EXPECT_EQ(C[i][j], expected[i][j]) << ta << tb << i << j;
            release(A, ta ? 3 : 2);
            release(B, tb ? 2 : 3);
            release(C, 2);
        }
}

TEST(MatrixProduct, SumsInFloatInIndexOrder) {
    // 1e8 + 1 rounds back to 1e8 in float32, so a float sum in index order
    // ends at exactly 0; a double accumulator or another order gives 1.
    float **A = make<float>({{1e8, 1, -1e8}}), **B = make<float>({{1}, {1}, {1}});
    float **C = make<float>({{42}});
    Matrix_Product(C, 1, 1, A, 0, 3, B, 0);
    EXPECT_EQ(C[0][0], 0.0f);
    float **D = make<float>({{1e8, 0, 0}, {0, 1, 0}, {0, 0, -1e8}});
    EXPECT_EQ(Trace_of_Matrix(3, D), 0.0f);
    EXPECT_EQ(Trace_of_Matrix(0, D), 0.0f);
    release(A, 1);
    release(B, 3);
    release(C, 1);
    release(D, 3);
}

TEST(InvertSquareMatrix, ExactInverses) {
    const std::pair<Rows, Rows> cases[] = {
        // First column [0, 3]: rows exchanged, undone by a column exchange.
        {{{0, 1}, {3, 2}}, {{-2.0 / 3.0, 1.0 / 3.0}, {1, 0}}},
        {{{2, 0}, {0, -8}}, {{0.5, 0}, {0, -0.125}}},
        // A permutation: the inverse is the transpose.
        {{{0, 1, 0, 0}, {0, 0, 0, 1}, {1, 0, 0, 0}, {0, 0, 1, 0}},
         {{0, 0, 1, 0}, {1, 0, 0, 0}, {0, 0, 0, 1}, {0, 1, 0, 0}}},
    };
    for (const auto &c : cases) {
        const int n = c.first.size();
        double **A = make<double>(c.first);
        int failed = 99;
        EXPECT_EQ(dInvertSquareMatrix(n, A, &failed), 0);
        EXPECT_EQ(failed, -1);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) EXPECT_NEAR(A[i][j], c.second[i][j], 1e-15) << n << i << j;
        release(A, n);
    }
    int failed = 99;
    EXPECT_EQ(dInvertSquareMatrix(0, nullptr, &failed), 0);
    EXPECT_EQ(failed, -1);
}

TEST(InvertSquareMatrix, RandomWellConditionedGiveIdentity) {
    std::mt19937 gen(12345);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int n : {1, 2, 3, 5, 8, 40}) {
        Rows a(n, std::vector<double>(n));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) a[i][j] = static_cast<float>(u(gen) + (i == j) * (i % 2 ? -n : n));
        // A strong diagonal keeps the condition number near 1: float64
        // rounding stays far below 1e-12, float32 results below 1e-5.
        double **A = make<double>(a);
        float **F = make<float>(a);
        int failed = 99;
        ASSERT_EQ(dInvertSquareMatrix(n, A, &failed), 0);
        ASSERT_EQ(rInvertSquareMatrix(n, F, &failed), 0);
        EXPECT_LT(identity_error(a, A), 1e-12L) << n;
        EXPECT_LT(identity_error(a, F), 1e-5L) << n;
        release(A, n);
        release(F, n);
    }
}

TEST(InvertSquareMatrix, ExactZeroPivotReportsColumn) {
    const std::pair<Rows, int> cases[] = {
        {{{0, 1}, {0, 2}}, 0},
        {{{1, 0, 2}, {3, 0, 4}, {5, 0, 6}}, 1},
        {{{1, 2}, {2, 4}}, 1},  // rank one: the second pivot comes out exactly 0
        {{{1, 2, 3}, {4, 5, 6}, {0, 0, 0}}, 2},
    };
    for (const auto &c : cases) {
        double **A = make<double>(c.first);
        int failed = 99;
        EXPECT_EQ(dInvertSquareMatrix(c.first.size(), A, &failed), 1);
        EXPECT_EQ(failed, c.second);
        release(A, c.first.size());
    }
}

TEST(InvertSquareMatrix, EqualPivotsTakeUpperRowAndFailureLeavesFactors) {
    // Column 0: rows 1 and 2 tie at magnitude 2 and row 1 must win; column 1
    // is zero, so the float32 entry point copies back the partly factorised
    // matrix (worked by hand).
    float **A = make<float>({{0, 0, 1}, {2, 0, 5}, {-2, 0, 7}});
    int failed = 99;
    EXPECT_EQ(rInvertSquareMatrix(3, A, &failed), 1);
    EXPECT_EQ(failed, 1);
    const float expected[3][3] = {{2, 0, 5}, {0, 0, 1}, {-1, 0, 12}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(A[i][j], expected[i][j]) << i << "," << j;
    release(A, 3);

    testing::internal::CaptureStdout();
    EXPECT_EQ(dInvertSquareMatrix(-3, nullptr, &failed), 1);
    EXPECT_EQ(rInvertSquareMatrix(-2, nullptr, &failed), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Error: the matrix order is -3\nError: the matrix order is -2\n");
    EXPECT_EQ(failed, -1);
}

TEST(MatrixPseudoInverse, SquareAndTall) {
    // Square: the inverse of [[2, 1], [5, 3]] is [[3, -1], [-5, 2]].
    float **A = make<float>({{2, 1}, {5, 3}}), **P = make<float>({{0, 0}, {0, 0}});
    Matrix_PseudoInverse(A, 2, 2, P);
    EXPECT_NEAR(P[0][0], 3, 1e-3);
    EXPECT_NEAR(P[0][1], -1, 1e-3);
    EXPECT_NEAR(P[1][0], -5, 1e-3);
    EXPECT_NEAR(P[1][1], 2, 1e-3);
    // Tall: columns 1 and 0..3, A^T A = [[4, 6], [6, 14]]; by hand the rows
    // of (A^T A)^-1 A^T are (7 - 3i)/10 and (-3 + 2i)/10.
    float **T = make<float>({{1, 0}, {1, 1}, {1, 2}, {1, 3}});
    float **Q = make<float>(Rows(2, std::vector<double>(4)));
    Matrix_PseudoInverse(T, 4, 2, Q);
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(Q[0][i], (7.0 - 3.0 * i) / 10.0, 1e-5) << i;
        EXPECT_NEAR(Q[1][i], (-3.0 + 2.0 * i) / 10.0, 1e-5) << i;
    }
    release(A, 2);
    release(P, 2);
    release(T, 4);
    release(Q, 2);
}
