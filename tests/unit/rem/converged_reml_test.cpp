// The converged REML estimate against the maximum of the REML
// log-likelihood found on ever finer grids, and against closed forms.
#include <gtest/gtest.h>

#include "reml_likelihood.h"

using namespace rem_test;

namespace {

struct Voxel {
    std::string name;
    Mat X;  // design, n x k
    Vec y, s;
};

// Indicator columns of consecutive groups of the given sizes.
Mat groups(const std::vector<int> &sizes) {
    Mat X;
    for (size_t g = 0; g < sizes.size(); ++g)
        for (int j = 0; j < sizes[g]; ++j) X.emplace_back(sizes.size(), 0.0), X.back()[g] = 1.0;
    return X;
}

// Effects: the design times beta plus noise of variance s_i^2 + tau2;
// errors uniform in (lo, hi).
Voxel simulate(const std::string &name, const Mat &X, const Vec &beta, double tau2, double lo,
               double hi, uint64_t seed) {
    Random r(seed);
    Voxel v{name, X, Vec(X.size()), Vec(X.size())};
    for (size_t i = 0; i < X.size(); ++i) {
        v.s[i] = static_cast<float>(r.uniform(lo, hi));
        const double mean = dot(X[i], beta);
        v.y[i] = static_cast<float>(mean + std::sqrt(v.s[i] * v.s[i] + tau2) * r.normal());
    }
    return v;
}

struct Result {
    int status, iterations;
    double tau2;
};

Result estimate(const Voxel &v) {
    const int n = static_cast<int>(v.X.size()), k = static_cast<int>(v.X[0].size());
    std::vector<float> x, y(v.y.begin(), v.y.end()), s(v.s.begin(), v.s.end());
    for (const Vec &row : v.X) x.insert(x.end(), row.begin(), row.end());
    std::vector<double> scratch(rem_converged_reml_scratch_size(n, k));
    Result r{7, 7, 7.0};
    r.status = rem_converged_reml(n, k, x.data(), y.data(), s.data(), scratch.data(), &r.tau2,
                                  &r.iterations);
    return r;
}

// Ordinary least-squares residual sum of squares.
double rss(const Mat &X, const Vec &y) {
    const Vec r = mat_vec(wls(X, Vec(y.size(), 0.0), 1.0).R, y);
    return dot(r, y);
}

}  // namespace

// Interior maxima agree with the grid search to 1e-6 relative (the grid's own
// precision: the likelihood is flat at its maximum); the estimate does not
// depend on the units of the data.  A maximiser below 0 (the grid over
// tau2 > -min s^2 finds it) gives exactly 0.  With one residual degree of
// freedom (files 1, 2 in one group, file 3 alone) the REML likelihood is that
// of y1 - y2 ~ N(0, s1^2 + s2^2 + 2 tau2): tau2 = ((y1 - y2)^2 - s1^2 - s2^2) / 2.
// With equal errors s: tau2 = RSS / (n - k) - s^2 (or 0).  A repeated column
// changes nothing (the likelihood above is not defined for it).
TEST(ConvergedReml, AgainstTheLikelihoodAndClosedForms) {
    Mat ramp(40, Vec(3, 0.0));
    for (int i = 0; i < 40; ++i)
        ramp[i][i < 20 ? 0 : 1] = 1.0, ramp[i][2] = -1.0 + 2.0 * (i % 20) / 19.0;
    Voxel two = simulate("two groups", groups({6, 6}), {1.0, -0.5}, 0.8, 0.5, 1.5, 1);
    Voxel small = two;
    small.name = "two groups in units of 1/1024";
    for (size_t i = 0; i < small.y.size(); ++i) small.y[i] /= 1024, small.s[i] /= 1024;
    Voxel repeated = two;
    repeated.name = "repeated column";
    for (Vec &row : repeated.X) row.push_back(row[0]);
    const Voxel voxels[] = {
        two,
        small,
        repeated,
        simulate("ramp, 40 files", ramp, {0.3, 0.1, 1.0}, 2.0, 0.2, 2.5, 2),
        simulate("one group, large tau2", groups({15}), {4.0}, 25.0, 0.5, 1.5, 3),
        simulate("negative maximiser", groups({10, 10}), {1.0, 1.0}, 0.0, 0.9, 1.1, 6),
        {"n - k = 1", groups({2, 1}), {0.0, 2.0, 5.0}, {0.5, 1.0, 0.7}},
        {"equal errors", groups({4, 4}), {1, 3, -1, 2, 0, 0.5, 2, 4}, Vec(8, 0.75)},
        {"equal errors, below 0",
         groups({4, 4}),
         {1, 1.5, 0.5, 1.2, 0, 0.5, 0.2, -0.3},
         Vec(8, 0.75)},
    };
    for (const Voxel &v : voxels) {
        SCOPED_TRACE(v.name);
        const Result r = estimate(v);
        EXPECT_EQ(r.status, 0);
        EXPECT_GE(r.iterations, 1);
        EXPECT_LE(r.iterations, 12);
        double s2_min = HUGE_VAL;
        for (double si : v.s) s2_min = std::min(s2_min, si * si);
        if (v.name == repeated.name) continue;  // the likelihood needs a full-rank design
        const double grid = reml_grid_maximum(v.X, v.y, v.s, -0.999 * s2_min, 100.0);
        if (grid < 0.0) {
            EXPECT_EQ(r.tau2, 0.0) << "grid maximiser " << grid;
        } else {
            EXPECT_NEAR(r.tau2, grid, 1e-6 * (1.0 + grid));
        }
    }
    EXPECT_NEAR(estimate(small).tau2 * 1024 * 1024, estimate(two).tau2, 1e-12);
    EXPECT_NEAR(estimate(repeated).tau2, estimate(two).tau2, 1e-9);
    // The expected values that the grid search was compared with above.
    EXPECT_NEAR(estimate(voxels[6]).tau2, (4.0 - 0.25 - 1.0) / 2, 1e-12);
    EXPECT_NEAR(estimate(voxels[7]).tau2, rss(voxels[7].X, voxels[7].y) / 6 - 0.5625, 1e-12);
    EXPECT_GT(rss(voxels[8].X, voxels[8].y) / 6, 0.0);
    EXPECT_LT(rss(voxels[8].X, voxels[8].y) / 6, 0.5625);
}

// An error value that is not > 0 (or infinite) or an effect that is not
// finite: -1 and 0.  The first pass with the converged estimate gives the
// classic fixed-effects variance, bit for bit, and the estimate as float.
TEST(ConvergedReml, RefusalsAndTheFirstPass) {
    const float x[4] = {1, 1, 1, 1};
    const std::vector<std::vector<float>> refused[] = {
        {{1, 2, 3, 4}, {1, 0, 1, 1}},    {{1, 2, 3, 4}, {1, 1, -1, 1}},
        {{1, 2, 3, 4}, {kNaN, 1, 1, 1}}, {{1, 2, 3, 4}, {1, 1, 1, kInf}},
        {{1, kNaN, 3, 4}, {1, 1, 1, 1}}, {{1, 2, -kInf, 4}, {1, 1, 1, 1}},
    };
    double scratch[32];
    ASSERT_LE(rem_converged_reml_scratch_size(4, 1), 32u);
    for (const auto &c : refused) {
        double tau2 = 7;
        int iterations = 7;
        EXPECT_EQ(
            rem_converged_reml(4, 1, x, c[0].data(), c[1].data(), scratch, &tau2, &iterations), -1);
        EXPECT_EQ(tau2, 0.0);
        EXPECT_EQ(iterations, 0);
    }

    build_model(6, {{0, {{0, 2}}}, {0, {{3, 5}}}});
    int count = 0;
    ASSERT_EQ(REM_define_conditions("1", &count), 0);
    const rem_model_view model = rem_current_model();
    rem_workspace *ws = rem_workspace_create(&model);
    const float y[6] = {1, 3.5f, -2, 4, 0.5f, 7}, s[6] = {1, 0.5f, 1.5f, 1, 2, 0.75f};
    const int dof[6] = {10, 20, 30, 10, 20, 31};
    float fe = 7, re = 7, classic_fe = 7, classic_re = 7;
    EXPECT_EQ(rem_converged_kernel.estimate(ws, y, s, dof, &fe, &re), REM_VOXEL_DONE);
    EXPECT_EQ(REM_REML_iterate(6, y, s, dof, &classic_fe, &classic_re), 0);
    EXPECT_EQ(fe, classic_fe);
    const Vec yd(y, y + 6), sd(s, s + 6);
    EXPECT_NEAR(re, reml_grid_maximum(design(), yd, sd, 0.0, 100.0), 1e-5 * re);
    const float zero[6] = {1, 1, 0, 1, 1, 1};
    EXPECT_EQ(rem_converged_kernel.estimate(ws, y, zero, dof, &fe, &re), REM_VOXEL_UNUSABLE);
    EXPECT_EQ(fe, 0.0f);
    EXPECT_EQ(re, 0.0f);
    rem_workspace_free(ws);
}

// Voxels estimated side by side get the bits, iterations and status that
// each gets on its own: on several designs (one column; a dependent and a
// zero column, which the factor leaves out; five columns, beyond the
// unrolled sizes), on groups whose voxels stop after different numbers of
// steps (maxima at 0 and inside, refused values among them), with the lanes
// of vector instructions and without.
TEST(ConvergedReml, SideBySideAsOneByOne) {
    Mat dependent = groups({7, 8});
    for (Vec &row : dependent) row.insert(row.end(), {row[1], 0.0});
    Mat five(30, Vec(5, 0.0));
    for (int i = 0; i < 30; ++i)
        five[i][i % 3] = 1.0, five[i][3] = std::sin(i * 0.7), five[i][4] = (i % 5) * 0.25 - 0.5;
    const Mat designs[] = {groups({9}), groups({6, 7}), dependent, five};
    for (const char *set : {"scalar", "avx2", "avx512"}) {
        const std::string previous = rem_fast_instruction_set();
        if (rem_fast_select_instruction_set(set) != 0) continue;  // not on this processor
        for (const Mat &X : designs) {
            const int n = static_cast<int>(X.size()), k = static_cast<int>(X[0].size());
            SCOPED_TRACE(std::string(set) + ", " + std::to_string(k) + " columns");
            std::vector<float> x;
            for (const Vec &row : X) x.insert(x.end(), row.begin(), row.end());
            std::vector<std::vector<float>> y, s;
            for (int v = 0; v < 11; ++v) {
                const Voxel d =
                    simulate("", X, Vec(k, 0.5), v % 3 == 0 ? 0.0 : 0.3 * v, 0.2, 1.0 + v, 10 + v);
                y.emplace_back(d.y.begin(), d.y.end());
                s.emplace_back(d.s.begin(), d.s.end());
            }
            s[4][n - 1] = 0.0f;  // refused
            y[7][0] = kNaN;      // refused
            std::vector<const float *> ey, es;
            for (int v = 0; v < 11; ++v) ey.push_back(y[v].data()), es.push_back(s[v].data());
            std::vector<double> scratch(rem_converged_reml_many_scratch_size(n, k));
            for (int count : {0, 1, 3, 11}) {
                double tau2[11];
                int iterations[11], status[11];
                rem_converged_reml_many(n, k, x.data(), count, ey.data(), es.data(), scratch.data(),
                                        tau2, iterations, status);
                for (int v = 0; v < count; ++v) {
                    double one = 7;
                    int steps = 7;
                    const int alone = rem_converged_reml(n, k, x.data(), ey[v], es[v],
                                                         scratch.data(), &one, &steps);
                    EXPECT_EQ(status[v], alone) << "voxel " << v;
                    EXPECT_EQ(iterations[v], steps) << "voxel " << v;
                    EXPECT_EQ(std::memcmp(&tau2[v], &one, sizeof one), 0)
                        << "voxel " << v << ": " << tau2[v] << " alone " << one;
                }
            }
        }
        ASSERT_EQ(rem_fast_select_instruction_set(previous.c_str()), 0);
    }
}
