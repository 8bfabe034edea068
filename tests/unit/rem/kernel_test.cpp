// Every voxel kernel against the model's own operations, bit for bit: REML
// estimates, final fits and F tests on random designs and random voxels,
// with special values (zeros, negatives, NaN, infinities, overflowing and
// underflowing squares, exactly fitting data) and degenerate designs; the
// reference kernel on a workspace of its own, and the fast kernel with every
// vector instruction set the processor has, whose ordinary voxels must take
// its own route, or the comparison proves little.
#include <gtest/gtest.h>

#include "rem_test_model.h"

using namespace rem_test;

namespace {

#define EXPECT_BITS(model, kernel, what) \
    EXPECT_EQ(bits(model), bits(kernel)) \
        << (what) << ": model " << (model) << ", kernel " << (kernel)

struct Design {
    const char *name;
    int n;
    std::vector<Event> events;
    const char *conditions;   // events named 1, 2, ...
    bool fast_route = false;  // ordinary voxels must not need the plain operations
    // With a rank-deficient design the iteration need not settle: the
    // estimate is compared only on data with a NaN effect, where it stops
    // after the start.
    bool reml_stops_only_on_nan = false;
    std::vector<float> weights = {};
};

// How the voxel values are drawn.
enum class Data { Normal, Special, ExactFit };

const float special_values[] = {0.0f,  -0.0f,  -1.5f, kNaN,   kInf,  -kInf,
                                1e20f, 1e-23f, 3e38f, 1e-40f, -2.0f, 1e-30f};

struct Voxel {
    std::vector<float> y, s;
    std::vector<int> dof;
};

Voxel draw_voxel(Random &rng, int n, Data data) {
    Voxel v{std::vector<float>(n), std::vector<float>(n), std::vector<int>(n)};
    const double level = rng.uniform(-3.0, 3.0), spread = std::exp(rng.uniform(-3.0, 2.0));
    for (int i = 0; i < n; ++i) {
        v.y[i] = static_cast<float>(level + spread * rng.normal());
        v.s[i] = static_cast<float>(std::exp(rng.uniform(-2.0, 1.0)));
        v.dof[i] = 5 + static_cast<int>(rng.uniform() * 40);
        // Small integer amplitudes on a design of small exact values: the
        // residue is exactly 0.
        if (data == Data::ExactFit) {
            v.y[i] = 0.0f;
            for (int a = 0; a < REM.nbasis; ++a)
                v.y[i] += REM.design[i][a] * static_cast<float>(a + 2 - 3 * (a % 2));
        }
    }
    for (int c = data == Data::Special ? 1 + static_cast<int>(rng.uniform() * 2) : 0; c > 0; --c) {
        const int i = static_cast<int>(rng.uniform() * n);
        const float value = special_values[static_cast<int>(rng.uniform() * 12)];
        (rng.uniform() < 0.5 ? v.y : v.s)[i] = value;
    }
    return v;
}

// The final fit at sigma2 of the model and of the kernel: fitted values,
// event sums, beta and normal_inverse, bit for bit; with nan_bits_open any
// not-a-number matches a not-a-number.
void compare_fit(const rem_kernel *kernel, rem_workspace *ws, const Voxel &v, float sigma2,
                 bool nan_bits_open, const std::string &at) {
    const int n = static_cast<int>(v.y.size()), k = REM.nbasis;
    auto same = [&](float a, float b) {
        return nan_bits_open && std::isnan(a) ? std::isnan(b) : bits(a) == bits(b);
    };
    std::vector<float> p(2 * n, 7.0f), f(2 * n, 8.0f);  // fitted, then event sums
    ASSERT_EQ(REM_fit_final(sigma2, n, v.y.data(), v.s.data(), p.data(), p.data() + n), 0) << at;
    ASSERT_EQ(kernel->fit(ws, sigma2, v.y.data(), v.s.data(), f.data(), f.data() + n),
              REM_VOXEL_DONE)
        << at;
    for (int i = 0; i < 2 * n; ++i)
        EXPECT_TRUE(same(p[i], f[i])) << at << " value " << i << ": " << p[i] << ", " << f[i];
    for (int a = 0; a < k; ++a) {
        EXPECT_TRUE(same(REM.beta[a], rem_workspace_beta(ws)[a])) << at << " beta " << a;
        for (int b = 0; b < k; ++b)
            EXPECT_TRUE(same(REM.normal_inverse[a][b], rem_workspace_normal_inverse(ws)[a][b]))
                << at << " normal_inverse " << a << b;
    }
}

// One voxel through the model's operations and the kernel: REML, then the
// final fit for several variances, each followed by every condition's test.
// Without `reml` the estimate is left out and the fit starts from a fixed
// variance.  An `ordinary` voxel must not need the reference kernel for the
// estimate and the fits at the first two variances.
void compare_voxel(const rem_kernel *kernel, rem_workspace *ws, Voxel v, bool reml, bool ordinary,
                   Random &rng, const std::string &where) {
    const int n = static_cast<int>(v.y.size());
    const long handed_on = rem_workspace_reference_count(ws);
    float fe_p = 7.0f, re_p = 0.7f, fe_f = 8.0f, re_f = 0.7f;
    if (reml) {
        const int rp = REM_REML_iterate(n, v.y.data(), v.s.data(), v.dof.data(), &fe_p, &re_p);
        const int rk = kernel->estimate(ws, v.y.data(), v.s.data(), v.dof.data(), &fe_f, &re_f);
        ASSERT_EQ(rp, rk == REM_VOXEL_UNUSABLE ? -1 : 0) << where;
        EXPECT_BITS(fe_p, fe_f, where + " sigma2_fe");
        EXPECT_BITS(re_p, re_f, where + " sigma2_re");
    }
    // The fit passes the error values as they are (not their magnitudes).
    const float s0 = v.s[0];
    for (float &e : v.s)
        if (rng.uniform() < 0.2) e = -e;
    // The REML value, rescaled, zero, negative, one that cancels a file's s^2
    // exactly, tiny and not finite.
    const float variances[] = {re_p,       re_p * static_cast<float>(rng.uniform(0.2, 3.0)),
                               0.0f,       -0.5f * re_p,
                               -(s0 * s0), 1e-41f - s0 * s0,
                               kNaN,       kInf};
    for (int vi = 0; vi < 8; ++vi) {
        const float sigma2 = variances[vi];
        const std::string at = where + " fit variance " + std::to_string(vi);
        compare_fit(kernel, ws, v, sigma2, false, at);
        for (int c = 0; c < REM.nconditions; ++c) {
            float q[5] = {7, 7, 7, 7, 7};
            rem_test_result g = {8, 8, 8, 8, 8};
            const int resels = 1 + c * 37, dof = 3 + c * 11;
            ASSERT_EQ(REM_calculate_F(n, resels, c, dof, &q[0], &q[1], &q[2], &q[3], &q[4]), 0);
            ASSERT_EQ(kernel->test(ws, c, resels, dof, &g), REM_VOXEL_DONE) << at;
            const float got[5] = {g.t_value, g.p_raw, g.p_corrected, g.effect_size, g.effect_error};
            const char *names[5] = {"t", "p_raw", "p_corrected", "effect_size", "effect_error"};
            for (int o = 0; o < 5; ++o)
                EXPECT_BITS(q[o], got[o], at + " condition " + std::to_string(c) + " " + names[o]);
        }
        if (ordinary && vi == 1) {
            EXPECT_EQ(rem_workspace_reference_count(ws), handed_on)
                << where << ": not the fast route";
        }
    }
}

const std::vector<float> mixed = {1, 2, .5f, 3, 1,  1.5f, 2.5f, .25f, 1,
                                  4, 1, 1,   2, -1, 1,    .75f, 1.25f};
const std::vector<Event> interleaved = {
    {0, {{0, 4}, {10, 14}, {20, 24}}}, {0, {{5, 9}, {15, 19}, {25, 29}}}, {1, {{0, 29}}}};
const std::vector<Event> overlapping = {{0, {{0, 16}}}, {1, {{3, 12}}}, {0, {{8, 16}}}};
const std::vector<Design> designs = {
    {"two groups", 24, {{0, {{0, 11}}}, {0, {{12, 23}}}}, "1 2 1-2 1,2", true},
    {"interleaved groups and a ramp", 30, interleaved, "1-2 3 1,2,3", true},
    {"weights and overlapping events", 17, overlapping, "1 2-3 123,2", true, false, mixed},
    {"single global mean", 9, {{0, {{0, 8}}}}, "1 -1"},
    {"singular design", 12, {{0, {{0, 5}}}, {0, {{0, 5}}}, {0, {{6, 11}}}}, "1-2 3", false, true},
    {"as many events as files", 3, {{0, {{0, 0}}}, {0, {{1, 1}}}, {0, {{2, 2}}}}, "1 1-2,2-3"},
    {"file in no event", 10, {{0, {{0, 3}}}, {0, {{6, 9}}}}, "1-2"},
    {"single-file ramp (not a number)", 8, {{0, {{0, 7}}}, {1, {{4, 4}}}}, "1"},
    {"zero mean weight", 6, {{0, {{0, 5}}}, {0, {{0, 1}}}}, "1", false, false, {1, -1, 1, 1, 1, 1}},
    {"large groups", 70, {{0, {{0, 34}}}, {0, {{35, 69}}}}, "1-2"},
};

// The design's model and conditions, and a workspace on them (which keeps
// the view: one at a time); without `square` the workspace has no n x n
// matrices (as beyond the capacity).
rem_workspace *open_design(const Design &d, bool square = true) {
    build_model(d.n, d.events, d.weights);
    int count = 0;
    EXPECT_EQ(REM_define_conditions(d.conditions, &count), 0);
    static rem_model_view model;
    model = rem_current_model();
    if (!square) model.identity = nullptr;
    return rem_workspace_create(&model);
}

void run_design(const rem_kernel *kernel, const Design &d, int voxels, uint64_t seed) {
    rem_workspace *ws = open_design(d);
    const bool fast = kernel == &rem_fast_kernel;
    Random rng(seed);
    const Data kinds[] = {Data::Normal, Data::Special, Data::ExactFit};
    for (int v = 0; v < voxels && !testing::Test::HasFatalFailure(); ++v) {
        Voxel voxel = draw_voxel(rng, d.n, kinds[v % 3]);
        if (d.reml_stops_only_on_nan && v % 2 == 0) voxel.y[0] = kNaN;
        compare_voxel(kernel, ws, voxel, v % 2 == 0 || !d.reml_stops_only_on_nan,
                      fast && d.fast_route && kinds[v % 3] == Data::Normal, rng,
                      std::string(d.name) + " voxel " + std::to_string(v) + " (" + kernel->name +
                          (fast ? std::string(", ") + rem_fast_instruction_set() : "") + ")");
    }
    rem_workspace_free(ws);
}

}  // namespace

TEST(VoxelKernels, MatchTheModelsOperationsBitForBit) {
    uint64_t seed = 11;
    for (const Design &d : designs) run_design(&rem_reference_kernel, d, d.n > 40 ? 4 : 30, seed++);
    const std::string best = rem_fast_instruction_set();
    for (const char *isa : {"scalar", "sse2", "avx2", "avx512"}) {
        if (rem_fast_select_instruction_set(isa) != 0) continue;  // the processor lacks it
        for (const Design &d : designs) run_design(&rem_fast_kernel, d, d.n > 40 ? 6 : 60, seed++);
    }
    rem_fast_select_instruction_set(best.c_str());
}

// Without n x n matrices (a model beyond the classic capacity), the fit of
// the converged kernels, whose voxels that the fast route cannot take are
// fitted in n k storage: the model's REM_fit_final value for value, bit for
// bit where it is a number, and not a number where it is not (the bits of a
// not-a-number are left open).
TEST(VoxelKernels, FitWithoutSquareMatricesMatchesTheModel) {
    uint64_t seed = 101;
    for (const rem_kernel *kernel : {&rem_converged_kernel, &rem_converged_reference_kernel}) {
        for (const Design &d : designs) {
            rem_workspace *ws = open_design(d, false);
            Random rng(seed++);
            for (int v = 0; v < 40; ++v) {
                Voxel x = draw_voxel(rng, d.n, v % 2 ? Data::Special : Data::Normal);
                for (float &e : x.s)
                    if (rng.uniform() < 0.2) e = -e;
                const float s0 = x.s[0];
                const float variances[] = {0.7f, 0.0f, -(s0 * s0), 1e-41f - s0 * s0, kNaN, kInf};
                for (float sigma2 : variances)
                    compare_fit(kernel, ws, x, sigma2, true,
                                std::string(d.name) + " voxel " + std::to_string(v) + " variance " +
                                    std::to_string(sigma2));
            }
            if (kernel == &rem_converged_kernel) {  // the special values took the n k fit
                EXPECT_GT(rem_workspace_reference_count(ws), 0) << d.name;
            }
            rem_workspace_free(ws);
        }
    }
}
