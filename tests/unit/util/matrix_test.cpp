// Products, trace, inversion and pseudo-inverse of row-pointer matrices.
#include "util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

using Rows = std::vector<std::vector<double>>;

float **make_float(const Rows &rows) {
    const uint32_t r = rows.size(), c = rows.empty() ? 0 : rows[0].size();
    float **m = float_matrix(r, c);
    for (uint32_t i = 0; i < r; ++i)
        for (uint32_t j = 0; j < c; ++j) m[i][j] = static_cast<float>(rows[i][j]);
    return m;
}

double **make_double(const Rows &rows) {
    const uint32_t n = rows.size();
    double **m = double_matrix(n, n);
    for (uint32_t i = 0; i < n; ++i)
        for (uint32_t j = 0; j < n; ++j) m[i][j] = rows[i][j];
    return m;
}

Rows transposed(const Rows &a) {
    Rows t(a[0].size(), std::vector<double>(a.size()));
    for (size_t i = 0; i < a.size(); ++i)
        for (size_t j = 0; j < a[0].size(); ++j) t[j][i] = a[i][j];
    return t;
}

// Largest deviation of A·B from the identity, in long double.
long double identity_error(const Rows &a, double **b, int n) {
    long double worst = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            long double s = 0;
            for (int k = 0; k < n; ++k) s += static_cast<long double>(a[i][k]) * b[k][j];
            worst = std::max(worst, std::fabs(s - (i == j ? 1.0L : 0.0L)));
        }
    return worst;
}

Rows random_well_conditioned(int n, std::mt19937 &gen) {
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Rows a(n, std::vector<double>(n));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) a[i][j] = u(gen);
    // Strong diagonal of random sign: well conditioned, and the pivot
    // search still has work to do off the diagonal.
    for (int i = 0; i < n; ++i) a[i][i] += (i % 2 ? -1.0 : 1.0) * n;
    return a;
}

}  // namespace

TEST(MatrixProduct, EveryTransposeCombination) {
    const Rows a = {{1, 2, 3}, {4, 5, 6}};        // 2 x 3
    const Rows b = {{7, 8}, {9, 10}, {11, 12}};   // 3 x 2
    const Rows expected = {{58, 64}, {139, 154}}; // worked by hand
    for (int ta = 0; ta < 2; ++ta)
        for (int tb = 0; tb < 2; ++tb) {
            const Rows sa = ta ? transposed(a) : a;
            const Rows sb = tb ? transposed(b) : b;
            float **A = make_float(sa), **B = make_float(sb), **C = float_matrix(2, 2);
            Matrix_Product(C, 2, 2, A, ta, 3, B, tb);
            for (int i = 0; i < 2; ++i)
                for (int j = 0; j < 2; ++j)
                    EXPECT_EQ(C[i][j], static_cast<float>(expected[i][j]))
                        << "ta=" << ta << " tb=" << tb << " [" << i << "][" << j << "]";
            free_float_matrix(A, sa.size());
            free_float_matrix(B, sb.size());
            free_float_matrix(C, 2);
        }
}

TEST(MatrixProduct, SumsInFloatInIndexOrder) {
    // 1e8 + 1 rounds back to 1e8 in float32, so the running float sum ends
    // at exactly 0; a double accumulator or another order would give 1.
    float **A = make_float({{1e8, 1, -1e8}});
    float **B = make_float({{1}, {1}, {1}});
    float **C = float_matrix(1, 1);
    C[0][0] = 42.0f;
    Matrix_Product(C, 1, 1, A, 0, 3, B, 0);
    EXPECT_EQ(C[0][0], 0.0f);
    Matrix_Product(C, 1, 1, A, 0, 0, B, 0);  // empty sum
    EXPECT_EQ(C[0][0], 0.0f);
    free_float_matrix(A, 1);
    free_float_matrix(B, 3);
    free_float_matrix(C, 1);
}

TEST(TraceOfMatrix, FloatSumInIndexOrder) {
    float **A = make_float({{1e8, 0, 0}, {0, 1, 0}, {0, 0, -1e8}});
    EXPECT_EQ(Trace_of_Matrix(3, A), 0.0f);
    EXPECT_EQ(Trace_of_Matrix(2, A), 1e8f);
    EXPECT_EQ(Trace_of_Matrix(0, A), 0.0f);
    free_float_matrix(A, 3);
}

TEST(InvertSquareMatrix, ExactInverses) {
    struct Case {
        Rows a;
        Rows inverse;
    };
    const Case cases[] = {
        // First column [0, 3]: rows exchanged, undone by a column exchange.
        {{{0, 1}, {3, 2}}, {{-2.0 / 3.0, 1.0 / 3.0}, {1, 0}}},
        {{{4}}, {{0.25}}},
        {{{2, 0}, {0, -8}}, {{0.5, 0}, {0, -0.125}}},
        // Permutation matrices: the inverse is the transpose.
        {{{0, 1, 0, 0}, {0, 0, 0, 1}, {1, 0, 0, 0}, {0, 0, 1, 0}},
         {{0, 0, 1, 0}, {1, 0, 0, 0}, {0, 0, 0, 1}, {0, 1, 0, 0}}},
        {{{0, 0, 1}, {0, 1, 0}, {1, 0, 0}}, {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}}},
    };
    for (const Case &c : cases) {
        const int n = c.a.size();
        double **A = make_double(c.a);
        int failed = 99;
        EXPECT_EQ(dInvertSquareMatrix(n, A, &failed), 0);
        EXPECT_EQ(failed, -1);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                EXPECT_NEAR(A[i][j], c.inverse[i][j], 1e-15) << "n=" << n << " [" << i << "][" << j << "]";
        free_double_matrix(A, n);
    }
}

TEST(InvertSquareMatrix, RandomWellConditionedGiveIdentity) {
    std::mt19937 gen(12345);
    for (int n : {1, 2, 3, 5, 8, 13, 40}) {
        const Rows a = random_well_conditioned(n, gen);
        double **A = make_double(a);
        int failed = 99;
        ASSERT_EQ(dInvertSquareMatrix(n, A, &failed), 0);
        EXPECT_EQ(failed, -1);
        // float64 throughout with a condition number near 1: a few ulp per
        // term, far below 1e-12.
        EXPECT_LT(identity_error(a, A, n), 1e-12L) << "n=" << n;
        free_double_matrix(A, n);

        // The float32 entry point: inputs and results rounded to float32.
        float **F = make_float(a);
        Rows af(n, std::vector<double>(n));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) af[i][j] = F[i][j];
        ASSERT_EQ(rInvertSquareMatrix(n, F, &failed), 0);
        double **back = double_matrix(n, n);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) back[i][j] = F[i][j];
        EXPECT_LT(identity_error(af, back, n), 1e-5L) << "n=" << n;
        free_double_matrix(back, n);
        free_float_matrix(F, n);
    }
}

TEST(InvertSquareMatrix, ExactZeroPivotReportsColumn) {
    struct Case {
        Rows a;
        int column;
    };
    const Case cases[] = {
        {{{0, 1}, {0, 2}}, 0},
        {{{1, 0, 2}, {3, 0, 4}, {5, 0, 6}}, 1},
        {{{1, 2}, {2, 4}}, 1},  // rank one: the second pivot comes out exactly 0
        {{{1, 2, 3}, {4, 5, 6}, {0, 0, 0}}, 2},
    };
    for (const Case &c : cases) {
        const int n = c.a.size();
        double **A = make_double(c.a);
        int failed = 99;
        EXPECT_EQ(dInvertSquareMatrix(n, A, &failed), 1);
        EXPECT_EQ(failed, c.column);
        free_double_matrix(A, n);
    }
}

TEST(InvertSquareMatrix, EqualPivotsTakeUpperRowAndFailureLeavesFactors) {
    // Column 0: rows 1 and 2 tie at magnitude 2, row 1 must win.  Column 1 is
    // zero, so the factorisation stops there, and the float32 entry point
    // copies the partly factorised matrix back (worked by hand).
    float **A = make_float({{0, 0, 1}, {2, 0, 5}, {-2, 0, 7}});
    int failed = 99;
    EXPECT_EQ(rInvertSquareMatrix(3, A, &failed), 1);
    EXPECT_EQ(failed, 1);
    const float expected[3][3] = {{2, 0, 5}, {0, 0, 1}, {-1, 0, 12}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) EXPECT_EQ(A[i][j], expected[i][j]) << i << "," << j;
    free_float_matrix(A, 3);
}

TEST(InvertSquareMatrix, OrderZeroAndNegative) {
    int failed = 99;
    EXPECT_EQ(dInvertSquareMatrix(0, nullptr, &failed), 0);
    EXPECT_EQ(failed, -1);

    testing::internal::CaptureStdout();
    failed = 99;
    const int result = dInvertSquareMatrix(-3, nullptr, &failed);
    const int rresult = rInvertSquareMatrix(-2, nullptr, &failed);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(rresult, 1);
    EXPECT_EQ(failed, -1);
    EXPECT_EQ(out, "Error: the matrix order is -3\nError: the matrix order is -2\n");
}

TEST(MatrixPseudoInverse, SquareAndTall) {
    // Square: (A^T A)^-1 A^T = A^-1 = [[3, -1], [-5, 2]] for A = [[2, 1], [5, 3]].
    float **A = make_float({{2, 1}, {5, 3}});
    float **P = float_matrix(2, 2);
    Matrix_PseudoInverse(A, 2, 2, P);
    const float inverse[2][2] = {{3, -1}, {-5, 2}};
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2; ++j) EXPECT_NEAR(P[i][j], inverse[i][j], 1e-3) << i << "," << j;
    free_float_matrix(A, 2);
    free_float_matrix(P, 2);

    // Tall, full column rank: P·A = I, and P is n x m.  For the column of
    // ones and the column 0..3, A^T A = [[4, 6], [6, 14]].
    float **T = make_float({{1, 0}, {1, 1}, {1, 2}, {1, 3}});
    float **Q = float_matrix(2, 4);
    Matrix_PseudoInverse(T, 4, 2, Q);
    // Row 0 of (A^T A)^-1 A^T is (7 - 3i)/10, row 1 is (-3 + 2i)/10 (by hand).
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(Q[0][i], (7.0 - 3.0 * i) / 10.0, 1e-5) << i;
        EXPECT_NEAR(Q[1][i], (-3.0 + 2.0 * i) / 10.0, 1e-5) << i;
    }
    free_float_matrix(T, 4);
    free_float_matrix(Q, 2);
}
