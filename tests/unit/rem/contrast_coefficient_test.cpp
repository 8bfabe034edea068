// Contrast coefficients are floats: for conditions written with signs only
// (+1, -1 and 0), the test must give the bits of integer coefficients, whose
// products C++ forms by converting the integer to float.  Checked on the
// whole test of both kernels after their fits, on random voxels of widely
// spread magnitudes and special values.
#include <gtest/gtest.h>

#include "rem_test_model.h"
#include "weighting.h"
#include "workspace.h"

using namespace rem_test;

namespace {

const float kSpecial[] = {0.0f, -0.0f, -2.5f, kNaN, kInf, -kInf, 3e38f, 1e-40f, -1e-45f, 1e20f};

// The contrast as integers, as the conditions held it before coefficients.
std::vector<std::vector<int>> integer_contrast(int c) {
    std::vector<std::vector<int>> L(static_cast<size_t>(REM.condition_nrows[c]));
    for (int r = 0; r < REM.condition_nrows[c]; ++r)
        for (int j = 0; j < REM.nbasis; ++j) {
            const float x = REM.condition_contrast[c][r][j];
            EXPECT_TRUE(x == 1.0f || x == -1.0f || (x == 0.0f && !std::signbit(x)));
            L[static_cast<size_t>(r)].push_back(static_cast<int>(x));
        }
    return L;
}

// The test of condition c with integer coefficients on beta and N: the
// arithmetic of the test, with int operands where the coefficients enter.
rem_test_result integer_test(rem_workspace *ws, int c, const float *beta, float *const *N,
                             int resels, int dof) {
    const std::vector<std::vector<int>> L = integer_contrast(c);
    const int m = static_cast<int>(L.size()), k = REM.nbasis;
    std::vector<float> values(static_cast<size_t>(m));
    float largest = 0.0f;
    for (int r = 0; r < m; ++r) {
        float v = 0.0f;
        for (int j = 0; j < k; ++j) v += L[r][j] * beta[j];
        values[r] = v;
        if (std::fabs(v) > std::fabs(largest)) largest = v;
    }
    float **M = float_matrix(static_cast<uint32_t>(m), static_cast<uint32_t>(m));
    for (int r = 0; r < m; ++r)
        for (int s = 0; s < m; ++s) {
            float sum = 0.0f;
            for (int i = 0; i < k; ++i)
                for (int j = 0; j < k; ++j) sum += L[r][i] * N[i][j] * L[s][j];
            M[r][s] = sum;
        }
    rem_workspace_reserve_test(ws, m);
    rem_workspace_invert(ws, m, M);
    const float F = rem_contrast_F(m, values.data(), [M](int r, int s) { return M[r][s]; });
    free_float_matrix(M, static_cast<uint32_t>(m));
    rem_test_result result{};
    result.effect_size = largest;
    double a = 0, b = 0;
    EXPECT_EQ(rem_f_test(F, m, dof, resels, &result.effect_size, &result.t_value, &result.p_raw,
                         &result.p_corrected, &result.effect_error, &a, &b),
              0);
    return result;
}

void expect_same(const rem_test_result &want, const rem_test_result &got, const std::string &at) {
    const float w[5] = {want.t_value, want.p_raw, want.p_corrected, want.effect_size,
                        want.effect_error};
    const float g[5] = {got.t_value, got.p_raw, got.p_corrected, got.effect_size, got.effect_error};
    for (int o = 0; o < 5; ++o) EXPECT_EQ(bits(w[o]), bits(g[o])) << at << " output " << o;
}

const char kConditions[] = "1 2 1-2 -3 1,2,3 12-3 2-13,3";

}  // namespace

// The whole test after each kernel's fit, on random voxels with special values.
TEST(ContrastCoefficients, SignsGiveTheIntegerTestsBitsInBothKernels) {
    for (const rem_kernel *kernel : {&rem_reference_kernel, &rem_fast_kernel}) {
        build_model(12, {{0, {{0, 5}}}, {0, {{6, 11}}}, {1, {{0, 11}}}});
        int count = 0;
        ASSERT_EQ(REM_define_conditions(kConditions, &count), 0);
        const rem_model_view model = rem_current_model();
        rem_workspace *ws = rem_workspace_create(&model);
        Random rng(17);
        for (int voxel = 0; voxel < 200; ++voxel) {
            std::vector<float> y(12), s(12), fitted(12), sums(12);
            for (int i = 0; i < 12; ++i) {
                y[i] = static_cast<float>(rng.normal() * std::exp(rng.uniform(-5.0, 5.0)));
                s[i] = static_cast<float>(std::exp(rng.uniform(-2.0, 1.0)));
            }
            if (voxel % 4 == 1) y[voxel % 12] = kSpecial[voxel % 10];
            if (voxel % 4 == 3) s[voxel % 12] = kSpecial[voxel % 10];
            const float sigma2 =
                voxel % 5 == 0 ? kSpecial[voxel % 10] : static_cast<float>(rng.uniform(0.0, 3.0));
            ASSERT_EQ(kernel->fit(ws, sigma2, y.data(), s.data(), fitted.data(), sums.data()),
                      REM_VOXEL_DONE);
            for (int c = 0; c < count; ++c) {
                const int resels = 1 + 13 * c, dof = 4 + 7 * c;
                rem_test_result got{};
                ASSERT_EQ(kernel->test(ws, c, resels, dof, &got), REM_VOXEL_DONE);
                const rem_test_result want = integer_test(
                    ws, c, rem_workspace_beta(ws), rem_workspace_normal_inverse(ws), resels, dof);
                expect_same(want, got,
                            std::string(kernel->name) + " voxel " + std::to_string(voxel) +
                                " condition " + std::to_string(c));
            }
        }
        rem_workspace_free(ws);
    }
}
