// The statistics of whole runs against an independent computation in double
// precision (REML by its EM iteration, weighted least squares, the t
// distribution in closed form), and the false-positive rate of a null study.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "study.h"
#include "test_support.h"

namespace {

using test_support::read_floats;
using test_support::run_command;
using test_support::run_fmri_rem;
using test_support::shell_quote;
using test_support::TempDir;

using matrix = std::vector<std::vector<double>>;

matrix inverse(matrix a) {
    const size_t n = a.size();
    matrix inv(n, std::vector<double>(n, 0.0));
    for (size_t i = 0; i < n; ++i) inv[i][i] = 1.0;
    for (size_t col = 0; col < n; ++col) {
        size_t pivot = col;
        for (size_t r = col + 1; r < n; ++r)
            if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
        std::swap(a[col], a[pivot]);
        std::swap(inv[col], inv[pivot]);
        double d = a[col][col];
        for (size_t j = 0; j < n; ++j) {
            a[col][j] /= d;
            inv[col][j] /= d;
        }
        for (size_t r = 0; r < n; ++r) {
            if (r == col) continue;
            double f = a[r][col];
            for (size_t j = 0; j < n; ++j) {
                a[r][j] -= f * a[col][j];
                inv[r][j] -= f * inv[col][j];
            }
        }
    }
    return inv;
}

// Two square events: files 0..na-1 and na..n-1.
struct model {
    int n, k = 2, na;
    double x(int i, int j) const { return (j == 0) == (i < na) ? 1.0 : 0.0; }

    // (X' W X)^-1 for a diagonal W.
    matrix normal_inverse(const std::vector<double> &w) const {
        matrix m(k, std::vector<double>(k, 0.0));
        for (int a = 0; a < k; ++a)
            for (int b = 0; b < k; ++b)
                for (int i = 0; i < n; ++i) m[a][b] += x(i, a) * w[i] * x(i, b);
        return inverse(m);
    }
    // R = W - W X (X'WX)^-1 X' W.
    matrix residue_forming(const std::vector<double> &w) const {
        matrix ni = normal_inverse(w);
        matrix r(n, std::vector<double>(n, 0.0));
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                double h = 0.0;
                for (int a = 0; a < k; ++a)
                    for (int b = 0; b < k; ++b) h += x(i, a) * ni[a][b] * x(j, b);
                r[i][j] = (i == j ? w[i] : 0.0) - w[i] * h * w[j];
            }
        return r;
    }

    // Restricted maximum likelihood by the EM update, starting from the
    // ordinary least-squares residual variance, until a step changes the
    // estimate by at most 5 %.
    double reml(const std::vector<double> &y, const std::vector<double> &s) const {
        matrix r = residue_forming(std::vector<double>(n, 1.0));
        double q = 0.0;
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) q += y[i] * r[i][j] * y[j];
        double sigma2 = q / (n - k);
        double change = 1.0;
        while (change > 0.05) {
            std::vector<double> w(n);
            for (int i = 0; i < n; ++i) w[i] = 1.0 / (s[i] * s[i] + sigma2);
            r = residue_forming(w);
            double trace = 0.0, b = 0.0;
            for (int i = 0; i < n; ++i) trace += s[i] * s[i] * r[i][i];
            for (int i = 0; i < n; ++i) {
                double ry = 0.0;
                for (int j = 0; j < n; ++j) ry += r[i][j] * y[j];
                b += ry * ry;  // y' R R y with R symmetric
            }
            double next = ((trace + k) * sigma2 + sigma2 * sigma2 * b) / n;
            change = std::fabs(1.0 - next / sigma2);
            sigma2 = next;
        }
        return sigma2;
    }
};

// P(|T| > t) for Student's t with an integer number of degrees of freedom.
double t_two_sided(double t, int nu) {
    double theta = std::atan(std::fabs(t) / std::sqrt(static_cast<double>(nu)));
    double s = std::sin(theta), c = std::cos(theta);
    double a;
    if (nu % 2 == 0) {
        double term = 1.0, sum = 1.0;
        for (int j = 2; j <= nu - 2; j += 2) {
            term *= (j - 1.0) / j * c * c;
            sum += term;
        }
        a = s * sum;
    } else {
        double sum = 0.0;
        if (nu > 1) {
            double term = c;
            sum = c;
            for (int j = 3; j <= nu - 2; j += 2) {
                term *= (j - 1.0) / j * c * c;
                sum += term;
            }
        }
        a = 2.0 / M_PI * (theta + s * sum);
    }
    return 1.0 - a;
}

// Eight files in two events with 20 degrees of freedom each, no ratio
// smoothing: the test's degrees of freedom are rint(1/(1/6 + 1/160)) = 6.
e2e::study statistics_study() {
    e2e::study s;
    s.g.nx = 10;
    s.g.ny = 10;
    s.g.nz = 1;
    s.smoothing = "smoothing 0 0";
    s.add_group('a', 4, 1.0f, 20, 21);
    s.add_group('b', 4, 0.2f, 20, 22);
    // The sign of an error value does not matter: the model squares it.
    for (int v = 0; v < s.g.voxels(); v += 2) s.files[2].error[v] = -s.files[2].error[v];
    return s;
}

void check_voxels(const e2e::study &s, const std::string &dir, int resels) {
    const int nvoxels = s.g.voxels(), n = 8, nu = 6;
    model m{n, 2, 4};
    std::vector<float> sigma2 = read_floats(dir + "/sigma2.bfloat");
    ASSERT_EQ(sigma2.size(), 2u * nvoxels);
    struct condition {
        const char *name;
        double l[2];
    };
    const condition conditions[] = {{"a", {1, 0}}, {"b", {0, 1}}, {"a-b", {1, -1}}};
    std::vector<float> maps[3][3];  // per condition: T, P, S
    for (int c = 0; c < 3; ++c) {
        int kind = 0;
        for (const char *prefix : {"/T-", "/P-", "/S-"}) {
            maps[c][kind++] = read_floats(dir + prefix + conditions[c].name + ".bfloat");
        }
        ASSERT_EQ(maps[c][2].size(), 2u * nvoxels);
    }
    int compared = 0;
    for (int v = 0; v < nvoxels; ++v) {
        std::vector<double> y(n), se(n);
        double fe = 0.0;
        for (int i = 0; i < n; ++i) {
            y[i] = s.files[i].effect[v];
            se[i] = s.files[i].error[v];
            fe += 20.0 / 160.0 * se[i] * se[i];
        }
        EXPECT_NEAR(sigma2[v], fe, 1e-5 * fe) << "voxel " << v;
        double re = m.reml(y, se);
        EXPECT_NEAR(sigma2[nvoxels + v], re, 1e-3 * std::fabs(re) + 1e-6) << "voxel " << v;

        // The final fit uses the program's own variance estimate.
        double re_used = sigma2[nvoxels + v];
        if (!(re_used > 0.0)) continue;
        ++compared;
        std::vector<double> w(n);
        for (int i = 0; i < n; ++i) w[i] = 1.0 / (se[i] * se[i] + re_used);
        matrix ni = m.normal_inverse(w);
        double beta[2] = {0, 0};
        for (int a = 0; a < 2; ++a)
            for (int b = 0; b < 2; ++b)
                for (int i = 0; i < n; ++i) beta[a] += ni[a][b] * m.x(i, b) * w[i] * y[i];
        for (int ci = 0; ci < 3; ++ci) {
            const condition &c = conditions[ci];
            double effect = c.l[0] * beta[0] + c.l[1] * beta[1];
            double variance = 0.0;
            for (int a = 0; a < 2; ++a)
                for (int b = 0; b < 2; ++b) variance += c.l[a] * ni[a][b] * c.l[b];
            double f = effect * effect / variance;
            double t = std::copysign(std::sqrt(f), effect);
            double p = t_two_sided(t, nu);
            if (resels > 0) {
                double rho = 0.1169 * ((nu - 1.0) / nu * f - 1.0) *
                             std::pow(1.0 + f / nu, -(nu - 1.0) / 2.0);
                p = resels * rho;
                if (p > 1.0 || p < 0.0) p = 1.0;
            }
            double code = std::copysign(-std::log10(p), t);
            float got_t = maps[ci][0][v];
            float got_p = maps[ci][1][v];
            const std::vector<float> &got_s = maps[ci][2];
            EXPECT_NEAR(got_t, t, 1e-3 * std::fabs(t) + 1e-5) << c.name << " voxel " << v;
            EXPECT_NEAR(got_p, code, 1e-3 * std::fabs(code) + 1e-4) << c.name << " voxel " << v;
            EXPECT_NEAR(got_s[v], effect, 1e-4 * std::fabs(effect) + 1e-5) << c.name << " voxel " << v;
            // The error is the effect divided by sqrt(F): it carries the effect's sign.
            double error = std::copysign(std::sqrt(variance), effect);
            EXPECT_NEAR(got_s[nvoxels + v], error, 1e-3 * std::sqrt(variance))
                << c.name << " voxel " << v;
        }
    }
    EXPECT_GT(compared, nvoxels / 2);
}

TEST(Statistics, RawPValuesAgainstDoublePrecision) {
    TempDir dir;
    e2e::study s = statistics_study();
    s.write(dir.path());
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.out;
    ASSERT_NE(r.out.find("Degrees of freedom: fixed = 160, random = 6, smoothed = 6\n"),
              std::string::npos);
    check_voxels(s, dir.path(), 0);
}

TEST(Statistics, CorrectedPValuesAgainstDoublePrecision) {
    TempDir dir;
    e2e::study s = statistics_study();
    s.extra_header = "multiple-comparisons 40\n";
    s.write(dir.path());
    auto r = run_fmri_rem({"study.rem"}, dir.path());
    ASSERT_EQ(r.status, 0) << r.out;
    ASSERT_NE(r.out.find("\nCalculate p values corrected for multiple comparisons (40).\n"),
              std::string::npos);
    check_voxels(s, dir.path(), 40);
}

// Without any group effect, about 5 % of the voxels reach p < 0.05.  With
// 6912 independent voxels per condition the binomial standard error is
// 0.26 %; the band allows for the approximate degrees of freedom of the
// smoothed variance.
TEST(Statistics, NullStudyFalsePositiveRate) {
    TempDir dir;
    std::string simulate = shell_quote(std::string(FMRI_REM_BUILD_DIR) + "/fmri-rem-simulate");
    ASSERT_EQ(run_command(simulate +
                              " -o study --prefix ../study/ --null --no-mask --uniform "
                              "--smoothing 0 8 --size 24 24 12 --seed 7 && mkdir results",
                          dir.path())
                  .status,
              0);
    auto r = run_fmri_rem({"../study/analysis.rem"}, dir.file("results"));
    ASSERT_EQ(r.status, 0) << r.out;
    for (const char *c : {"p", "c", "p-c"}) {
        std::vector<float> p = read_floats(dir.file(std::string("results/P-") + c + ".bfloat"));
        ASSERT_EQ(p.size(), 24u * 24 * 12);
        size_t hits = 0;
        for (float v : p) hits += std::fabs(v) > -std::log10(0.05);
        double rate = static_cast<double>(hits) / p.size();
        EXPECT_GT(rate, 0.035) << c;
        EXPECT_LT(rate, 0.065) << c;
    }
}

}  // namespace
