// A cohort study beyond the classic capacity of 200 files, with "reml
// converged": 3,000 files on a small grid.  The estimates and the T map
// agree with an independent float64 fit of sampled voxels, and the run gives
// the same bytes with one and with several threads and under a low limit of
// open files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "../unit/rem/reml_likelihood.h"
#include "study.h"
#include "test_support.h"

using test_support::read_floats;
using test_support::run_fmri_rem;
using test_support::TempDir;

namespace {

const int kPerGroup = 1500;

// REML for two groups of files (group g of file i), V = diag(s_i^2 + tau2),
// in double precision from its definition, in storage linear in the files:
// -1/2 (sum log v_i + sum_g log(sum_g w_i) + sum w_i (y_i - mean_g)^2) with
// w_i = 1 / v_i and mean_g the weighted group means.
struct two_groups {
    std::vector<double> y, s;
    std::vector<int> group;

    void fit(double tau2, double mean[2], double weight[2]) const {
        double wy[2] = {0, 0};
        weight[0] = weight[1] = 0;
        for (size_t i = 0; i < y.size(); ++i) {
            const double w = 1.0 / (s[i] * s[i] + tau2);
            weight[group[i]] += w;
            wy[group[i]] += w * y[i];
        }
        for (int g = 0; g < 2; ++g) mean[g] = wy[g] / weight[g];
    }
    double loglik(double tau2) const {
        double mean[2], weight[2];
        fit(tau2, mean, weight);
        double sum = std::log(weight[0]) + std::log(weight[1]);
        for (size_t i = 0; i < y.size(); ++i) {
            const double v = s[i] * s[i] + tau2;
            sum += std::log(v) + (y[i] - mean[group[i]]) * (y[i] - mean[group[i]]) / v;
        }
        return -0.5 * sum;
    }
};

}  // namespace

TEST(Cohort, ThousandsOfFilesAgreeWithAFloat64FitOnAnyThreadsAndDescriptorLimit) {
    TempDir dir;
    e2e::study s;
    s.g.nx = 6, s.g.ny = 6, s.g.nz = 4;
    s.conditions = "conditions p c p-c";
    s.extra_header = "reml converged\n";
    const int nv = s.g.voxels();
    rem_test::Random rng(24);
    for (int g = 0; g < 2; ++g)
        for (int k = 0; k < kPerGroup; ++k) {
            e2e::signal_file f{};
            f.event = "pc"[g], f.dof = 30;
            f.name = "../study/" + std::string(1, f.event) + std::to_string(k) + ".bfloat";
            for (int v = 0; v < nv; ++v) {
                const double tau2 = 0.02 * (v % 12), se = rng.uniform(0.3, 1.2);
                const double mean = g == 0 ? 0.05 * (v % 7) : 0.0;
                f.effect.push_back(
                    static_cast<float>(mean + std::sqrt(tau2) * rng.normal() + se * rng.normal()));
                f.error.push_back(static_cast<float>(se));
            }
            s.files.push_back(f);
        }
    std::filesystem::create_directory(dir.file("study"));
    s.write(dir.file("study"));

    const char *settings[] = {"OMP_NUM_THREADS=1", "OMP_NUM_THREADS=3",
                              "ulimit -n 40; OMP_NUM_THREADS=2"};
    std::string out[3];
    for (int r = 0; r < 3; ++r) {
        const std::string run = dir.file("run" + std::to_string(r));
        std::filesystem::create_directory(run);
        auto result = run_fmri_rem({"../study/study.rem"}, run, "", settings[r]);
        ASSERT_EQ(result.status, 0) << settings[r] << "\n" << result.out.substr(0, 2000);
        EXPECT_EQ(result.err, "");
        out[r] = result.out;
    }
    EXPECT_TRUE(holds(out[0], "Input files: 3000 samples of dimension (x,y,z) = (6,6,4)."));
    for (int r = 1; r < 3; ++r) {
        EXPECT_EQ(out[r], out[0]) << settings[r];
        EXPECT_EQ(
            test_support::run_command("diff -r run0 run" + std::to_string(r), dir.path()).status, 0)
            << settings[r];
    }

    const std::vector<float> sigma2 = read_floats(dir.file("run0/sigma2.bfloat"));
    const std::vector<float> t = read_floats(dir.file("run0/T-p-c.bfloat"));
    ASSERT_EQ(sigma2.size(), 3u * nv);
    for (int v = 0; v < nv; v += 7) {
        SCOPED_TRACE("voxel " + std::to_string(v));
        two_groups data;
        e2e::samples(s, v, &data.y, &data.s);
        for (const e2e::signal_file &f : s.files) data.group.push_back(f.event == 'c');
        const double tau2 =
            rem_test::grid_maximum([&](double x) { return data.loglik(x); }, 0.0, 1.0);
        EXPECT_NEAR(sigma2[nv + v], tau2, 1e-4 * tau2 + 1e-6);
        // The test of p-c with the smoothed estimate.
        double mean[2], weight[2];
        data.fit(sigma2[2 * nv + v], mean, weight);
        const double expected = (mean[0] - mean[1]) / std::sqrt(1 / weight[0] + 1 / weight[1]);
        EXPECT_NEAR(t[v], expected, 1e-3 * std::fabs(expected) + 1e-4);
    }
}
