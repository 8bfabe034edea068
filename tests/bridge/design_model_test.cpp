// The import's designs (covariates, a text covariate, slopes per group,
// paired sessions, a design matrix of the user's) through
// fmri-rem-import and fmri-rem, each against a fit made here from the table:
// the design built in double, the REML variance as the maximum of the
// likelihood on a grid, weighted least squares, and the t distribution of
// Boost.Math.
#include <gtest/gtest.h>

#include <boost/math/distributions/students_t.hpp>
#include <cmath>
#include <map>
#include <random>
#include <sstream>

#include "../unit/rem/reml_likelihood.h"
#include "bridge_test.h"

using namespace test_support;
using bridge_test::nifti_layout;
using rem_test::Mat;
using rem_test::Vec;

namespace {

const int NX = 4, NY = 3, NZ = 2, NV = NX * NY * NZ, SUBJECTS = 14, DOF = 30;

// One participant of the study table; score is a column of the user's design matrix only.
struct participant {
    bool patient;
    double age;
    bool male;
    double score;
};

}  // namespace

TEST(Bridge, DesignsAgainstAnIndependentFit) {
    TempDir tmp;
    std::mt19937 rng(11);
    std::normal_distribution<double> normal(0, 1);
    std::uniform_real_distribution<double> uniform(0.02, 0.12);
    std::vector<participant> ps;
    double mean_age = 0, share_male = 0;
    for (int s = 0; s < SUBJECTS; ++s) {
        ps.push_back({s % 2 == 0, 20 + 3.5 * s - (s % 3) * 4.25, s % 3 == 1, 0.1 * s * s - s});
        mean_age += ps[s].age / SUBJECTS;
        share_male += ps[s].male / double(SUBJECTS);
    }
    nifti_layout grid = bridge_test::grid(NX, NY, NZ, 2, 1, 2);
    grid.affine[0][3] = -3, grid.affine[1][3] = -2, grid.affine[2][3] = -1;
    // Per participant and session (0 pre, 1 post): effect and variance as
    // the files hold them.
    std::vector<std::vector<double>> effect[2], variance[2];
    std::string full = "participant_id\tgroup\tsession\tage\tsex\teffect\tvariance\tdof\n",
                pre = full, dm = "subject_label\tintercept\tscore\n";  // as nilearn names it
    for (int s = 0; s < SUBJECTS; ++s) {
        const participant &p = ps[s];
        const std::string id = "sub-" + std::to_string(10 + s);
        dm += id + "\t1\t" + std::to_string(p.score) + "\n";
        for (int session = 0; session < 2; ++session) {
            std::vector<double> e(NV), v(NV);
            for (int i = 0; i < NV; ++i) {
                const double signal = (p.patient ? 0.8 : 0.3) + 0.03 * (p.age - 40) +
                                      (p.male ? 0.4 : 0) + session * (p.patient ? 0.6 : 0.2);
                v[i] = static_cast<float>(uniform(rng));
                e[i] =
                    static_cast<float>(signal + 0.5 * normal(rng) + std::sqrt(v[i]) * normal(rng));
            }
            effect[session].push_back(e);
            variance[session].push_back(v);
            const std::string stem = id + (session ? "_post" : "_pre");
            bridge_test::write_nifti(tmp.file(stem + "_effect.nii"), grid, e);
            bridge_test::write_nifti(tmp.file(stem + "_variance.nii"), grid, v);
            const std::string line = id + (p.patient ? "\tpatients\t" : "\tcontrols\t") +
                                     (session ? "post\t" : "pre\t") + std::to_string(p.age) +
                                     (p.male ? "\tM\t" : "\tF\t") + stem + "_effect.nii\t" + stem +
                                     "_variance.nii\t" + std::to_string(DOF) + "\n";
            full += line;
            if (!session) pre += line;
        }
    }
    // A participant with one session only, left out of the pairs.
    write_file(
        tmp.file("full.tsv"),
        full +
            "sub-99\tcontrols\tpre\t50\tF\tsub-10_pre_effect.nii\tsub-10_pre_variance.nii\t30\n");
    write_file(tmp.file("pre.tsv"), pre);
    // The same rows without a group column: one sample, the group `all'.
    std::string one_sample;
    std::istringstream lines(pre);
    for (std::string line; std::getline(lines, line);)
        one_sample += line.substr(0, line.find('\t')) +
                      line.substr(line.find('\t', line.find('\t') + 1)) + "\n";
    write_file(tmp.file("one-sample.tsv"), one_sample);
    write_file(tmp.file("dm.tsv"), dm);

    // A participant's row of the design of each case.
    auto row = [&](size_t c, const participant &p) {
        const double g = p.patient, age = p.age - mean_age;
        return std::vector<Vec>{{g, 1 - g, age, p.male - share_male},
                                {g, 1 - g, g * age, (1 - g) * age},
                                {g, 1 - g},
                                {1},
                                {1, p.score}}[c];
    };
    const struct {
        const char *table;  // full: both sessions; pre: pre only
        std::vector<std::string> options;
        // The conditions: by name, as the result files name them, and their contrast vectors.
        std::vector<std::tuple<std::string, std::string, Vec>> conditions;
    } cases[] = {
        {"pre",
         {"--covariates", "age,sex"},
         {{"patients-controls", "p-c", {1, -1, 0, 0}},
          {"age", "a", {0, 0, 1, 0}},
          {"0.5*patients+0.5*controls", "0.5*p+0.5*c", {0.5, 0.5, 0, 0}},
          {"sex[M]", "s", {0, 0, 0, 1}}}},
        {"pre",
         {"--by-group", "age"},
         {{"age:patients-age:controls", "a-b", {0, 0, 1, -1}}, {"controls", "c", {0, 1, 0, 0}}}},
        {"full",
         {"--paired", "post-pre"},
         {{"patients-controls", "p-c", {1, -1}}, {"patients", "p", {1, 0}}}},
        {"one-sample", {"--reml", "converged"}, {{"all", "a", {1}}}},
        {"pre",
         {"--design-matrix", "dm.tsv"},
         {{"score", "s", {0, 1}}, {"intercept-2*score", "i-2*s", {1, -2}}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.options[0]);
        run_command("rm -rf study", tmp.path());
        std::string conditions;
        for (const auto &k : c.conditions) conditions += std::get<0>(k) + " ";
        CommandResult r =
            bridge_test::import(tmp.path(), std::string(c.table) + ".tsv", conditions, c.options);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(holds(r.out, "REML: converged"));
        const bool paired = c.options[0] == "--paired";
        EXPECT_EQ(r.out.find("taken as independent") != std::string::npos, paired) << r.out;
        EXPECT_EQ(r.out.find("Left out, without both sessions: sub-99\n") != std::string::npos,
                  paired)
            << r.out;
        const std::string rem = read_file(tmp.file("study/analysis.rem"));
        for (const auto &[name, events, l] : c.conditions)  // every name differs from its events
            EXPECT_TRUE(holds(rem, "\n# condition " + events + " = " + name + "\n"));
        r = run_command(shell_quote(FMRI_REM_BIN) + " analysis.rem", tmp.file("study"));
        ASSERT_EQ(r.status, 0) << r.out;

        Mat X;
        for (const participant &p : ps) X.push_back(row(&c - cases, p));
        const size_t k = X[0].size();
        // Without ratio smoothing the test's dof join the design's and the files'.
        const double nu = std::rint(1 / (1.0 / (SUBJECTS - k) + 1.0 / (SUBJECTS * DOF)));
        const std::vector<float> sigma2 = read_floats(tmp.file("study/sigma2.bfloat"));
        ASSERT_EQ(sigma2.size(), 2u * NV);
        std::map<std::string, std::vector<float>> maps;
        for (const auto &[name, events, l] : c.conditions)
            for (std::string m : {"T-", "P-", "S-"})
                maps[m + events] = read_floats(tmp.file("study/" + m + events + ".bfloat"));
        for (int v = 0; v < NV; ++v) {
            Vec y(SUBJECTS), se(SUBJECTS);
            for (int s = 0; s < SUBJECTS; ++s) {
                y[s] = paired ? effect[1][s][v] - effect[0][s][v] : effect[0][s][v];
                se[s] =
                    std::sqrt(paired ? variance[1][s][v] + variance[0][s][v] : variance[0][s][v]);
            }
            const double tau2 = rem_test::reml_grid_maximum(X, y, se, 0.0, 10.0);
            EXPECT_NEAR(sigma2[NV + v], tau2, 1e-4 * tau2 + 1e-6) << "voxel " << v;
            const rem_test::Wls fit = rem_test::wls(X, se, tau2);
            const Vec beta = rem_test::mat_vec(fit.estimator, y);
            for (const auto &[name, events, l] : c.conditions) {
                SCOPED_TRACE(name + " voxel " + std::to_string(v));
                const double value = rem_test::dot(l, beta);
                const double sd =
                    std::sqrt(rem_test::dot(l, rem_test::mat_vec(fit.normal_inverse, l)));
                const double t = value / sd,
                             p = 2 * boost::math::cdf(boost::math::complement(
                                         boost::math::students_t(nu), std::fabs(t)));
                const double code = std::copysign(-std::log10(p), t);
                const std::vector<float> &T = maps.at("T-" + events), &P = maps.at("P-" + events),
                                         &S = maps.at("S-" + events);
                EXPECT_NEAR(T[v], t, 2e-3 * std::fabs(t) + 1e-4);
                EXPECT_NEAR(P[v], code, 2e-3 * std::fabs(code) + 1e-4);
                EXPECT_NEAR(S[v], value, 1e-3 * std::fabs(value) + 1e-5);
                EXPECT_NEAR(S[NV + v], std::copysign(sd, value), 1e-3 * sd);
            }
        }
    }
}
