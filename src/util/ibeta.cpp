// Regularized incomplete beta function I_x(a, b) in double precision: a power
// series for small x, otherwise one of two continued fractions, with the
// reflection I_x(a, b) = 1 - I_(1-x)(b, a) above the mean a/(a + b).
#include "util.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <math.h>

namespace {

// The C library's log-gamma without its side effect on the global signgam,
// so that several threads may compute p values at once; same values.
double log_gamma(double x) {
    int sign = 0;
    return lgamma_r(x, &sign);
}

const double MACHEP = 1.1102230246251565e-16;  // 2^-53
const double MAXGAM = 171.6243769563027;
const double MAXLOG = 709.782712893384;
const double MINLOG = -745.1332191019412;
const double thresh = 3.3306690738754696e-16;  // 3 * MACHEP
const double big = 4503599627370496.0;         // 2^52
const double biginv = 2.220446049250313e-16;   // 2^-52
const int max_iterations = 300;

// The continued fraction of both expansions, evaluated two terms at a time
// from the start values k1 ... k8; after each step k2 and k6 move by their
// own steps (+1 or -1), k1 and k5 by 1 and the others by 2.
double continued_fraction(double x, double k1, double k2, double k3, double k4, double k5,
                          double k6, double k7, double k8, double k2_step, double k6_step) {
    double pkm2 = 0.0, qkm2 = 1.0, pkm1 = 1.0, qkm1 = 1.0;
    double ans = 1.0, r = 1.0;

    for (int n = 0; n < max_iterations; ++n) {
        double xk = -(x * k1 * k2) / (k3 * k4);
        double pk = pkm1 + pkm2 * xk;
        double qk = qkm1 + qkm2 * xk;
        pkm2 = pkm1;
        pkm1 = pk;
        qkm2 = qkm1;
        qkm1 = qk;

        xk = (x * k5 * k6) / (k7 * k8);
        pk = pkm1 + pkm2 * xk;
        qk = qkm1 + qkm2 * xk;
        pkm2 = pkm1;
        pkm1 = pk;
        qkm2 = qkm1;
        qkm1 = qk;

        if (qk != 0.0) r = pk / qk;
        double t;
        if (r != 0.0) {
            t = std::fabs((ans - r) / r);
            ans = r;
        } else {
            t = 1.0;
        }
        if (t < thresh) break;

        k1 += 1.0;
        k2 += k2_step;  // adding -1.0 rounds exactly as subtracting 1.0
        k3 += 2.0;
        k4 += 2.0;
        k5 += 1.0;
        k6 += k6_step;
        k7 += 2.0;
        k8 += 2.0;

        if (std::fabs(qk) + std::fabs(pk) > big) {
            pkm2 *= biginv;
            pkm1 *= biginv;
            qkm2 *= biginv;
            qkm1 *= biginv;
        }
        if (std::fabs(qk) < biginv || std::fabs(pk) < biginv) {
            pkm2 *= big;
            pkm1 *= big;
            qkm2 *= big;
            qkm1 *= big;
        }
    }
    return ans;
}

}  // namespace

extern "C" {

int ibeta_domain_error(double a, double b) {
    return a <= 0.0 || b <= 0.0;
}

void ibeta_domain_exit(double a, double b) {
    printf("ibeta: Domain error!, a = %g, b = %g\n", a, b);
    exit(1);
}

double ibeta(double a, double b, double x) {
    if (ibeta_domain_error(a, b)) ibeta_domain_exit(a, b);
    // x outside [0, 1] is not rejected: it runs through the formulas below.
    if (x <= 0.0 || x >= 1.0) {
        if (x == 0.0) return 0.0;
        if (x == 1.0) return 1.0;
    }
    if (b * x <= 1.0 && x <= 0.95) return pseries(a, b, x);

    int flag;
    double xc;
    double t;
    double w = a / (a + b);
    if (x > w) {
        flag = 1;
        const double swap = a;
        a = b;
        b = swap;
        xc = x;
        x = 1.0 - x;
    } else {
        flag = 0;
        xc = 1.0 - x;
    }

    if (flag == 1 && b * x <= 1.0 && x <= 0.95) {
        t = pseries(a, b, x);
    } else {
        double y = x * (a + b - 2.0) - (a - 1.0);
        if (y < 0.0)
            w = incbcf(a, b, x);
        else
            w = incbd(a, b, x) / xc;

        y = a * std::log(x);
        const double u = b * std::log(xc);
        if (a + b < MAXGAM && std::fabs(y) < MAXLOG && std::fabs(u) < MAXLOG) {
            t = (std::pow(x, a) * std::pow(xc, b) / a) * w * std::tgamma(a + b) /
                (std::tgamma(b) * std::tgamma(a));
        } else {
            // In logarithms, when the powers or the gamma functions would
            // overflow.
            const double s =
                log_gamma(a + b) + u - log_gamma(a) - log_gamma(b) + y + std::log(w / a);
            t = s < MINLOG ? 0.0 : std::exp(s);
        }
    }

    if (flag == 0) return t;
    // The reflected result never reaches exactly 1.
    if (t <= MACHEP) return 1.0 - MACHEP;
    return 1.0 - t;
}

// Continued fraction expansion for x below the mean.
double incbcf(double a, double b, double x) {
    return continued_fraction(x, a, a + b, a, a + 1.0, 1.0, b - 1.0, a + 1.0, a + 2.0, 1.0, -1.0);
}

// Continued fraction expansion in z = x / (1 - x).
double incbd(double a, double b, double x) {
    const double z = x / (1.0 - x);
    return continued_fraction(z, a, b - 1.0, a, a + 1.0, 1.0, a + b, a + 1.0, a + 2.0, -1.0, 1.0);
}

// Power series, valid for b·x <= 1 or x <= 0.95; returns I_x(a, b) itself.
double pseries(double a, double b, double x) {
    const double ai = 1.0 / a;
    double u = (1.0 - b) * x;
    double v = u / (a + 1.0);
    const double t1 = v;
    double t = u;
    double n = 2.0;
    double s = 0.0;
    const double z = MACHEP * ai;
    while (std::fabs(v) > z) {
        u = (n - b) * x / n;
        t = t * u;
        v = t / (a + n);
        s = s + v;
        n = n + 1.0;
        // For x outside [-1, 1] (never passed by the F test) the terms grow
        // without bound; stop once they overflow instead of looping forever.
        if (std::isinf(v)) break;
    }
    s = s + t1 + ai;

    u = a * std::log(x);
    if (a + b < MAXGAM && std::fabs(u) < MAXLOG)
        return s * std::tgamma(a + b) / (std::tgamma(a) * std::tgamma(b)) * std::pow(x, a);
    t = log_gamma(a + b) - log_gamma(a) - log_gamma(b) + u + std::log(s);
    return t < MINLOG ? 0.0 : std::exp(t);
}

}  // extern "C"
