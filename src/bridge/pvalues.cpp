// p values of a condition from its statistic, in double precision: the tails
// of t and F through the regularised incomplete beta function, continued in
// log space where p is below the range of double; z from log p; and the
// corrected p from the expected Euler characteristic.
#include <boost/math/special_functions/beta.hpp>
#include <cmath>
#include <limits>

#include "bridge_internal.h"

namespace bridge {

namespace {

// Double precision throughout (no promotion to long double, which is several
// times slower and not needed for the 1e-14 that the maps can use).
using policy = boost::math::policies::policy<
    boost::math::policies::promote_double<false>,
    boost::math::policies::domain_error<boost::math::policies::ignore_error>,
    boost::math::policies::pole_error<boost::math::policies::ignore_error>,
    boost::math::policies::overflow_error<boost::math::policies::ignore_error>,
    boost::math::policies::underflow_error<boost::math::policies::ignore_error>,
    boost::math::policies::evaluation_error<boost::math::policies::ignore_error>>;

const double kInf = std::numeric_limits<double>::infinity();
const double kLn10 = std::log(10.0);

// log B(a, b), from the beta function itself where it stays in range (the
// difference of log-gammas loses digits when a is large).
double log_beta(double a, double b) {
    const double v = boost::math::beta(a, b, policy());
    if (v > 1e-280 && std::isfinite(v)) return std::log(v);
    return std::lgamma(a) + std::lgamma(b) - std::lgamma(a + b);
}

// log I_x(a, b), the regularised incomplete beta function, with y = 1 - x
// given apart so that neither loses digits.  Below 1e-280 the value is
// continued in log space: I_x(a, b) = x^a y^b / (a B(a, b)) times the series
// sum over n of (a + b)_n / (a + 1)_n x^n.
double log_ibeta(double a, double b, double x, double y) {
    if (!(x >= 0) || !(y >= 0)) return NAN;
    if (y == 0) return 0.0;
    if (x == 0) return -kInf;
    const double v =
        x < 0.5 ? boost::math::ibeta(a, b, x, policy()) : boost::math::ibetac(b, a, y, policy());
    if (v > 1e-280) return std::log(v);
    double sum = 1.0, term = 1.0;
    for (int n = 0; n < 1000000; ++n) {
        term *= (a + b + n) / (a + 1.0 + n) * x;
        sum += term;
        if (term < 1e-17 * sum) break;
    }
    return a * std::log(x) + b * std::log(y) - std::log(a) - log_beta(a, b) + std::log(sum);
}

// Two-sided p of t, or upper tail of F = t^2, in log10.
double log10_upper(int m, double dof, double t) {
    const double f = t * t;
    const double x = dof / (dof + m * f), y = m * f / (dof + m * f);
    if (std::isinf(f)) return -kInf;
    return log_ibeta(0.5 * dof, 0.5 * m, x, y) / kLn10;
}

// The lower tail of F = t^2 in log10.
double log10_lower(int m, double dof, double t) {
    const double f = t * t;
    const double x = dof / (dof + m * f), y = m * f / (dof + m * f);
    if (std::isinf(f)) return 0.0;
    return log_ibeta(0.5 * m, 0.5 * dof, y, x) / kLn10;
}

}  // namespace

p_values::p_values(int rows, double dof, int resels)
    : rows_(rows), dof_(dof), resels_(resels), corrected_from_(kInf) {
    if (resels_ <= 0 || !(dof_ > 0) || rows_ < 1) return;
    // The last local maximum of the density: searched on a fine grid of
    // log F from its top end down, then refined by golden sections; none
    // when the density still grows (or is not positive) at the grid's end.
    const double low = std::log(1e-4), step = 0.005;
    const int steps = 5000;  // up to F = 1e-4 e^25, about 7e6
    auto density = [&](int k) { return log_ec_density(std::exp(low + k * step)); };
    double above = density(steps), here = density(steps - 1);
    if (!(here > above)) return;
    int k = steps - 1;
    for (double below; k > 0 && (below = density(k - 1)) > here; --k) here = below;
    double a = low + (k - 1) * step, b = low + (k + 1) * step;
    const double g = 0.5 * (std::sqrt(5.0) - 1.0);
    for (int it = 0; it < 100 && b - a > 1e-13; ++it) {
        const double c = b - g * (b - a), d = a + g * (b - a);
        if (log_ec_density(std::exp(c)) > log_ec_density(std::exp(d)))
            b = d;
        else
            a = c;
    }
    corrected_from_ = std::sqrt(std::exp(0.5 * (a + b)));
}

// The three-dimensional Euler-characteristic density, per resolution
// element, of the field of the statistic above f (F units; t^2 for a t
// test, counting both tails, since the t test is two-sided):
//   t:  2 (4 ln 2)^(3/2) / (2 pi)^2 ((nu - 1)/nu t^2 - 1) (1 + t^2/nu)^(-(nu - 1)/2)
//   F (k rows, x = k f / nu):  (4 ln 2)^(3/2) / (2 pi)^(3/2) G((nu + k - 3)/2) 2^(-1/2)
//       / (G(nu/2) G(k/2)) x^((k - 3)/2) (1 + x)^(-(nu + k - 2)/2)
//       ((nu - 1)(nu - 2) x^2 - (2 nu k - nu - k - 1) x + (k - 1)(k - 2)),
// which for k = 1 is the t density.  In natural log; -inf where the
// density is not positive.
double p_values::log_ec_density(double f) const {
    const double nu = dof_, k = rows_;
    const double unit = 1.5 * std::log(4.0 * std::log(2.0));
    if (rows_ == 1) {
        const double poly = (nu - 1.0) / nu * f - 1.0;
        if (!(poly > 0)) return -kInf;
        return std::log(2.0) + unit - 2.0 * std::log(2.0 * M_PI) + std::log(poly) -
               0.5 * (nu - 1.0) * std::log1p(f / nu);
    }
    const double x = k * f / nu;
    const double poly =
        (nu - 1.0) * (nu - 2.0) * x * x - (2.0 * nu * k - nu - k - 1.0) * x + (k - 1.0) * (k - 2.0);
    if (!(poly > 0) || !(x > 0) || !(nu + k - 3.0 > 0)) return -kInf;
    return unit - 1.5 * std::log(2.0 * M_PI) + std::lgamma(0.5 * (nu + k - 3.0)) -
           0.5 * std::log(2.0) - std::lgamma(0.5 * nu) - std::lgamma(0.5 * k) +
           0.5 * (k - 3.0) * std::log(x) - 0.5 * (nu + k - 2.0) * std::log1p(x) + std::log(poly);
}

double p_values::log10_raw(double t) const {
    if (std::isnan(t) || !(dof_ > 0)) return NAN;
    return std::fmin(0.0, log10_upper(rows_, dof_, t));
}

double p_values::log10_corrected(double t) const {
    if (std::isnan(t) || !(dof_ > 0)) return NAN;
    if (!(std::fabs(t) >= corrected_from_)) return 0.0;
    const double v = (std::log(static_cast<double>(resels_)) + log_ec_density(t * t)) / kLn10;
    return std::isnan(v) ? NAN : std::fmin(0.0, v);
}

namespace {

double signed_minus(int rows, double t, double log10p) {
    if (log10p == 0) return 0.0;  // never -0
    return rows == 1 && t < 0 ? log10p : -log10p;
}

}  // namespace

double p_values::signed_logp(double t) const {
    return signed_minus(rows_, t, log10_p(t));
}

double p_values::z(double t) const {
    return at(t).z;
}

p_values::at_t p_values::at(double t) const {
    at_t v;
    v.log10_raw = log10_raw(t);
    v.signed_logp = signed_minus(rows_, t, corrected() ? log10_corrected(t) : v.log10_raw);
    const double lp = v.log10_raw;
    const double log10_2 = std::log10(2.0);
    if (std::isnan(lp)) {
        v.z = NAN;
    } else if (rows_ == 1) {
        const double z = z_from_log10p(lp);
        v.z = t < 0 ? -z : z;
    } else if (lp <= -log10_2) {
        // One-sided: the z of the upper tail where p <= 1/2, else minus that
        // of the lower tail.
        v.z = z_from_log10p(lp + log10_2);
    } else {
        const double lq = std::fmax(log10_lower(rows_, dof_, t), -300.0);
        v.z = -z_from_log10p(lq + log10_2);
    }
    return v;
}

}  // namespace bridge
