// The p values of the export and the report against closed forms of the t
// and F tails, in log space where p is below the range of double; z through
// an independent normal quantile; the corrected p against the published
// Euler-characteristic densities evaluated directly.
#include <gtest/gtest.h>

#include <cmath>

#include "bridge.h"
#include "bridge_test.h"

namespace {

const double kLn10 = std::log(10.0);

// log10 of the two-sided p of t: closed forms for 1 and 2 degrees of
// freedom, and for |t| so large that (1 + nu/t^2) is 1 in double the
// leading term of the tail, 2 c nu^((nu - 1)/2) |t|^-nu with c the density's
// constant.
double log10_t_p(double t, double nu) {
    t = std::fabs(t);
    if (nu == 1) return std::log10(2.0 / M_PI * std::atan2(1.0, t));
    if (nu == 2) {
        const double r = std::sqrt(2.0 + t * t);
        return std::log10(2.0 / (r * (r + t)));
    }
    const double log_c =
        std::lgamma(0.5 * (nu + 1)) - std::lgamma(0.5 * nu) - 0.5 * std::log(nu * M_PI);
    return (std::log(2.0) + log_c + 0.5 * (nu - 1) * std::log(nu) - nu * std::log(t)) / kLn10;
}

// log10 of the upper and lower tails of F: (2, nu) and (m, 2) in closed form.
double log10_f_upper(double f, int m, double nu) {
    if (m == 2) return -0.5 * nu * std::log1p(2 * f / nu) / kLn10;
    return std::log10(-std::expm1(0.5 * m * std::log1p(-2.0 / (2.0 + m * f))));
}
double log10_f_lower(double f, int m, double nu) {
    if (m == 2) return std::log10(-std::expm1(-0.5 * nu * std::log1p(2 * f / nu)));
    return 0.5 * m * std::log10(m * f / (2.0 + m * f));
}

TEST(PValues, RawPAndZAgainstClosedFormTails) {
    // Closed forms at 1 and 2 dof; p far below 1e-308 (T 1e30 at 20 dof, -1e10
    // at 200); F = 0, F = 1.2e-5, 3.32, 0.5 and F = 1e60 (the sign of T ignored).
    const struct {
        int m;
        double dof, t;  // t: T, the signed square root of F for m > 1
    } rows[] = {{1, 1, 0.0},        {1, 1, 0.5},   {1, 1, -12.7062}, {1, 1, 3e30},    {1, 2, 1.0},
                {1, 2, -4.3027},    {1, 2, 1e35},  {1, 20, 1e30},    {1, 200, -1e10}, {2, 30, 0.0},
                {2, 30, 3.4641e-3}, {2, 30, -1.0}, {2, 30, 1.82209}, {2, 40, 1e30},   {2, 1, 0.3},
                {3, 2, 0.707107},   {3, 2, 100.0}, {5, 2, 1e-20}};
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << r.m << " rows, dof " << r.dof << ", T " << r.t);
        const bridge::p_values pv(r.m, r.dof, 0);
        const double f = r.t * r.t;
        const double want = r.m == 1 ? log10_t_p(r.t, r.dof) : log10_f_upper(f, r.m, r.dof);
        const double got = pv.log10_raw(r.t);
        EXPECT_NEAR(got, want, 1e-12 * std::fabs(want) + 1e-15);
        EXPECT_NEAR(pv.signed_logp(r.t), r.m == 1 && r.t < 0 ? want : -want,
                    1e-12 * std::fabs(want) + 1e-15);
        double z;
        if (r.m == 1) {
            z = bridge_test::z_reference(-want) * (r.t < 0 ? -1 : 1);
        } else if (want <= std::log10(0.5)) {
            z = bridge_test::z_reference(-want - std::log10(2.0));
        } else {
            // p above 1/2: minus the z of the lower tail, which stops at 1e-300.
            const double lower = std::fmax(log10_f_lower(f, r.m, r.dof), -300.0);
            z = -bridge_test::z_reference(-lower - std::log10(2.0));
        }
        EXPECT_NEAR(pv.z(r.t), z, 1e-10 * std::fabs(z) + 1e-13);
    }
    EXPECT_TRUE(std::isnan(bridge::p_values(1, 10, 0).log10_raw(NAN)));
}

const double kUnit = std::pow(4 * std::log(2.0), 1.5);

// The expected Euler characteristic of a t field above |t| (both tails), and
// of an F field above f, per resolution element (Worsley et al. 1996), and
// of the chi-square field that F approaches as nu grows.
double ec_t(double t, double nu) {
    return 2 * kUnit / std::pow(2 * M_PI, 2) * ((nu - 1) / nu * t * t - 1) *
           std::pow(1 + t * t / nu, -(nu - 1) / 2);
}
double ec_f(double f, double k, double nu) {
    const double x = k * f / nu;
    return kUnit / std::pow(2 * M_PI, 1.5) * std::tgamma((nu + k - 3) / 2) / std::sqrt(2.0) /
           (std::tgamma(nu / 2) * std::tgamma(k / 2)) * std::pow(x, (k - 3) / 2) *
           std::pow(1 + x, -(nu + k - 2) / 2) *
           ((nu - 1) * (nu - 2) * x * x - (2 * nu * k - nu - k - 1) * x + (k - 1) * (k - 2));
}
double ec_chi2(double c, double k) {
    return kUnit / std::pow(2 * M_PI, 1.5) * std::pow(c, (k - 3) / 2) * std::exp(-c / 2) /
           (std::pow(2, (k - 2) / 2) * std::tgamma(k / 2)) *
           (c * c - (2 * k - 1) * c + (k - 1) * (k - 2));
}

TEST(PValues, CorrectedPIsTheEulerCharacteristicWhereItDecreasesAndOneElsewhere) {
    // t: the density is largest at t^2 = 3 nu / (nu - 3); below, p is 1.
    const struct {
        double dof, t;
        int resels;
    } rows[] = {
        {20, 1.004, 300},  {20, -1.03, 300}, {20, 1.87, 300}, {20, 1.88, 300}, {20, 3.0, 300},
        {20, -5.0, 300},   {20, 9.0, 300},   {4, 3.0, 10},    {4, 40.0, 10},   {100, 5.2, 5000},
        {20, 400.0, 1000}, {3, 100.0, 10},   {2, 1e6, 10},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(testing::Message() << "dof " << r.dof << ", T " << r.t);
        const bridge::p_values pv(1, r.dof, r.resels);
        const double from = r.dof > 3 ? std::sqrt(3 * r.dof / (r.dof - 3)) : INFINITY;
        EXPECT_TRUE(std::isinf(from) ? std::isinf(pv.corrected_from())
                                     : std::fabs(pv.corrected_from() - from) <= 1e-7 * from);
        double want = 0;  // log10 p
        if (std::fabs(r.t) >= from) {
            const double ec = r.resels * ec_t(r.t, r.dof);
            want = ec > 0 ? std::fmin(0.0, std::log10(ec))
                          : (std::log10(2 * r.resels * kUnit / std::pow(2 * M_PI, 2)) +
                             std::log10((r.dof - 1) / r.dof * r.t * r.t - 1) -
                             (r.dof - 1) / 2 * std::log10(1 + r.t * r.t / r.dof));
        }
        EXPECT_NEAR(pv.log10_corrected(r.t), want, 1e-11 * std::fabs(want) + 1e-14);
        EXPECT_EQ(pv.log10_p(r.t), pv.log10_corrected(r.t));
        EXPECT_EQ(pv.at(r.t).signed_logp, pv.signed_logp(r.t));  // the export's door
    }
    // F: the density of the F field at several points, and near the chi-square
    // field for large nu.
    for (double k : {2.0, 3.0, 5.0})
        for (double f : {4.0, 8.0, 20.0}) {
            SCOPED_TRACE(testing::Message() << k << " rows, F " << f);
            const bridge::p_values pv(static_cast<int>(k), 30, 100);
            if (std::sqrt(f) < pv.corrected_from()) continue;
            const double want = std::fmin(0.0, std::log10(100 * ec_f(f, k, 30)));
            EXPECT_NEAR(pv.log10_corrected(std::sqrt(f)), want, 1e-11 * std::fabs(want) + 1e-14);
            const bridge::p_values wide(static_cast<int>(k), 1e7, 1);
            EXPECT_NEAR(wide.log10_corrected(std::sqrt(f)), std::log10(ec_chi2(k * f, k)), 1e-3);
        }
    // Never increasing with |T|, and 1 (log10 0) at |T| near 1.
    for (int m : {1, 2, 3, 6})
        for (double dof : {4.0, 10.0, 40.0, 250.0}) {
            SCOPED_TRACE(testing::Message() << m << " rows, dof " << dof);
            const bridge::p_values pv(m, dof, 300);
            EXPECT_EQ(pv.log10_corrected(1.0), 0.0);
            double last = 0;
            for (double t = 0; t < 60; t += 0.01) {
                const double v = pv.log10_corrected(t);
                ASSERT_LE(v, last) << t;
                last = v;
            }
        }
}

TEST(AnalysisHeader, KeywordsFilesNamesAndLabels) {
    const bridge::analysis_header a = bridge::read_analysis_header(
        "# event p = patients\nsmoothing 6 8  # widths\nmultiple-comparisons 300\n"
        "conditions p c p-c p,c\nreml converged\n# condition p-c = patients-controls\n"
        "event p\nsignal/a.bfloat\nsmoothing 1 1\nevent c\nsignal/b.bfloat 2\n"
        "# event c = controls\n");
    EXPECT_TRUE(a.smoothing_given && a.converged);
    EXPECT_EQ(a.prior_smoothing, 6);
    EXPECT_EQ(a.ratio_smoothing, 8);
    EXPECT_EQ(a.multiple_comparisons, 300);
    EXPECT_EQ(a.conditions, (std::vector<std::string>{"p", "c", "p-c", "p,c"}));
    EXPECT_EQ(a.files,
              (std::vector<std::string>{"signal/a.bfloat", "smoothing", "signal/b.bfloat"}));
    EXPECT_EQ(a.event_name('c'), "controls");
    EXPECT_EQ(a.name_of("p-c"), "patients-controls");
    EXPECT_EQ(a.name_of("p,c"), "p,c");
    // A design matrix: the header ends at "measurements", the files follow it.
    const bridge::analysis_header d = bridge::read_analysis_header(
        "conditions a\ndesign p c a\nmeasurements\nsignal/1.bfloat 1 0 -3.25\n"
        "signal/2.bfloat 0 1 4.75\n");
    EXPECT_FALSE(d.converged);
    EXPECT_EQ(d.files, (std::vector<std::string>{"signal/1.bfloat", "signal/2.bfloat"}));
    EXPECT_EQ(bridge::condition_label("p-c,p:c"), "pMinuscAndpByc");
    EXPECT_EQ(bridge::condition_label("0.5*a+0.5*b"), "0p5TimesaPlus0p5Timesb");
    EXPECT_EQ(bridge::condition_label("a b/_c"), "abc");
}

}  // namespace
