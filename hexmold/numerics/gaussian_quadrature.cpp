/// @file  numerics/gaussian_quadrature.cpp
/// @brief Gauss-Legendre nodes and weights, computed at compile time by Newton's method on the
///        Legendre polynomials.
#include <hexmold/numerics/gaussian_quadrature.h>

namespace Numerics {

namespace {

/// Working precision: extended where the platform has it, so that the double results are
/// rounded once from more accurate values.
using Real = long double;

constexpr Real kPi = 3.14159265358979323846264338327950288L;

/// cos(t) for t in [0, pi] by its Taylor series; only a starting guess for Newton's method.
constexpr Real startCos(Real t)
{
    bool const flip = t > 0.5 * kPi;
    if (flip)
        t = kPi - t;
    Real const t2 = t * t;
    Real term = 1.0;
    Real sum = 1.0;
    for (int k = 1; k < 20; ++k) {
        term *= -t2 / Real((2 * k - 1) * (2 * k));
        sum += term;
    }
    return flip ? -sum : sum;
}

struct Legendre {
    Real value;      ///< P_n(x)
    Real derivative; ///< P_n'(x)
};

/// P_n and its derivative at x in (-1, 1) by the three-term recurrence.
constexpr Legendre legendre(int n, Real x)
{
    Real previous = 1.0;
    Real current = x;
    for (int k = 1; k < n; ++k) {
        Real const next = (Real(2 * k + 1) * x * current - Real(k) * previous) / Real(k + 1);
        previous = current;
        current = next;
    }
    return {current, Real(n) * (x * current - previous) / (x * x - 1.0)};
}

struct Rules {
    GaussianQuadratureTable node{};
    GaussianQuadratureTable weight{};
};

/// The positive roots of P_n are found from the asymptotic guess cos(pi (i + 3/4) / (n + 1/2))
/// and mirrored, so that each rule is exactly symmetric and has an exact 0 for odd n.
constexpr Rules computeRules()
{
    Rules rules;
    for (int n = 1; n <= kGaussianQuadratureMaxOrder; ++n) {
        for (int i = 0; i < n / 2; ++i) {
            Real x = startCos(kPi * (Real(i) + 0.75) / (Real(n) + 0.5));
            for (int iteration = 0; iteration < 100; ++iteration) {
                Legendre const p = legendre(n, x);
                Real const step = p.value / p.derivative;
                x -= step;
                if (!(step > 1e-19L || step < -1e-19L))
                    break;
            }
            Real const slope = legendre(n, x).derivative;
            Real const w = 2.0 / ((1.0 - x * x) * slope * slope);
            rules.node[n][n - 1 - i] = double(x);
            rules.node[n][i] = -double(x);
            rules.weight[n][n - 1 - i] = double(w);
            rules.weight[n][i] = double(w);
        }
        if (n % 2 == 1) {
            Real const slope = legendre(n, 0.0).derivative;
            rules.node[n][n / 2] = 0.0;
            rules.weight[n][n / 2] = double(2.0L / (slope * slope));
        }
    }
    return rules;
}

constexpr Rules kRules = computeRules();

} // namespace

constinit GaussianQuadratureTable const gaussianQuadratureNode1D = kRules.node;
constinit GaussianQuadratureTable const gaussianQuadratureWeight1D = kRules.weight;

} // namespace Numerics
