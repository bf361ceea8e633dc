// Tests of the exported eikonal update, CoreGL::solveEikonal, in both forms.
#include <hexmold/levelset/eikonal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

namespace {

using CoreGL::solveEikonal;

std::uint32_t bitsOf(float value)
{
    return std::bit_cast<std::uint32_t>(value);
}

/// The floor factor 0.001 as the float with bits 0x3A83126F, written independently of the library.
float const kFloor = std::bit_cast<float>(std::uint32_t(0x3A83126F));

/// Independent reference: the same upwind equation sum_i max(0, (u - s_i) / h_i)^2 = 1 solved in
/// double precision. Neighbours join in ascending order while the solution exceeds the next one;
/// the quadratic is written in u - s0 so that it stays well conditioned.
struct Reference {
    double value;
    int neighbours; ///< how many neighbours the solution used
};

Reference referenceSolve(double hx, double hy, double hz, double a, double b, double c,
                         double limit)
{
    if (limit < 0.0) {
        Reference r = referenceSolve(hx, hy, hz, -a, -b, -c, -limit);
        return {-r.value, r.neighbours};
    }
    struct Neighbour {
        double s, h;
    } n[3] = {{a, hx}, {b, hy}, {c, hz}};
    std::sort(n, n + 3, [](Neighbour const& l, Neighbour const& r) { return l.s < r.s; });
    double u = 0.0;
    int used = 0;
    for (int k = 1; k <= 3; ++k) {
        double qa = 0.0, qb = 0.0, qc = -1.0;
        for (int i = 0; i < k; ++i) {
            double const d = n[i].s - n[0].s;
            double const w = 1.0 / (n[i].h * n[i].h);
            qa += w;
            qb -= 2.0 * d * w;
            qc += d * d * w;
        }
        u = n[0].s + (-qb + std::sqrt(qb * qb - 4.0 * qa * qc)) / (2.0 * qa);
        used = k;
        if (k == 3 || u <= n[k].s)
            break;
    }
    if (u > limit)
        return {limit, used};
    if (u <= 0.0)
        return {0.001 * n[0].h, used};
    return {u, used};
}

/// Random float from random bits: every class of value, NaN and infinity included.
float anyFloat(std::mt19937& rng)
{
    return std::bit_cast<float>(std::uint32_t(rng()));
}

/// Random float of random sign, magnitude log-uniform over [1e-20, 1e20], with a share of zeros
/// and of FLT_MAX so that the special paths are met often.
float wideFloat(std::mt19937& rng)
{
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    double const pick = unit(rng);
    float const sign = unit(rng) < 0.5 ? -1.0f : 1.0f;
    if (pick < 0.02)
        return sign * 0.0f;
    if (pick < 0.04)
        return sign * FLT_MAX;
    return sign * float(std::pow(10.0, -20.0 + 40.0 * unit(rng)));
}

} // namespace

TEST(SolveEikonal, ZeroNeighboursWithUnitSpacingGiveSqrtThreeOverThree)
{
    // x = 1 >= 0, then x = sqrt(2) / 2 > 0, then x = sqrt(3) / 3.
    float const result = solveEikonal(1.0f, 0.0f, 0.0f, 0.0f, FLT_MAX);
    EXPECT_EQ(result, std::sqrt(3.0f) / 3.0f);
    EXPECT_NEAR(result, std::sqrt(3.0) / 3.0, 1e-7);
}

TEST(SolveEikonal, AnisotropicWithEqualSpacingsIsBitIdenticalToIsotropic)
{
    std::mt19937 rng(11);
    for (int n = 0; n < 200000; ++n) {
        float const h = n % 2 ? std::fabs(wideFloat(rng)) : anyFloat(rng);
        float const a = n % 3 ? wideFloat(rng) : anyFloat(rng);
        float const b = wideFloat(rng), c = wideFloat(rng);
        float const limit = n % 5 ? wideFloat(rng) : anyFloat(rng);
        float const iso = solveEikonal(h, a, b, c, limit);
        float const aniso = solveEikonal(h, h, h, a, b, c, limit);
        ASSERT_EQ(bitsOf(iso), bitsOf(aniso))
            << "h " << h << " a " << a << " b " << b << " c " << c << " limit " << limit;
    }
}

TEST(SolveEikonal, ZeroLimitTakesThePositivePath)
{
    // A positive solution is clamped to the limit 0.
    EXPECT_EQ(bitsOf(solveEikonal(1.0f, 2.0f, 3.0f, 4.0f, 0.0f)), bitsOf(0.0f));
    EXPECT_EQ(bitsOf(solveEikonal(1.0f, 2.0f, 3.0f, 5.0f, 4.0f, 3.0f, 0.0f)), bitsOf(0.0f));
    // A non-positive solution gets the floor, above the limit.
    EXPECT_EQ(solveEikonal(2.0f, -5.0f, -5.0f, -5.0f, 0.0f), kFloor * 2.0f);
    EXPECT_EQ(solveEikonal(2.0f, 3.0f, 4.0f, -5.0f, -5.0f, -5.0f, 0.0f), kFloor * 2.0f);
    // -0 is not below zero either: the outside path clamps to it and keeps its sign.
    EXPECT_EQ(bitsOf(solveEikonal(1.0f, 2.0f, 3.0f, 4.0f, -0.0f)), bitsOf(-0.0f));
    EXPECT_EQ(solveEikonal(1.0f, -5.0f, -5.0f, -5.0f, -0.0f), kFloor);
    // So does NaN: a positive solution passes (NaN bounds nothing), a negative one is floored.
    float const nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(solveEikonal(1.0f, 2.0f, 7.0f, 7.0f, nan), 3.0f);
    EXPECT_EQ(solveEikonal(1.0f, -5.0f, 7.0f, 7.0f, nan), kFloor);
}

TEST(SolveEikonal, NeighboursAtFltMaxAreClampedToLimit)
{
    // h + s0 rounds to FLT_MAX; the sums overflow to infinity, which the limit clamps.
    EXPECT_EQ(solveEikonal(1.0f, FLT_MAX, FLT_MAX, FLT_MAX, 5.0f), 5.0f);
    EXPECT_EQ(solveEikonal(1.0f, FLT_MAX, FLT_MAX, FLT_MAX, FLT_MAX), FLT_MAX);
    EXPECT_EQ(solveEikonal(0.5f, -FLT_MAX, -FLT_MAX, -FLT_MAX, -7.0f), -7.0f);
    EXPECT_EQ(solveEikonal(2.0f, 2.0f, 2.0f, FLT_MAX, FLT_MAX, FLT_MAX, 5.0f), 5.0f);
    // Two neighbours at FLT_MAX leave the third to decide.
    EXPECT_EQ(solveEikonal(1.0f, FLT_MAX, 2.0f, FLT_MAX, FLT_MAX), 3.0f);
    EXPECT_EQ(solveEikonal(1.0f, 2.0f, 3.0f, FLT_MAX, 2.0f, FLT_MAX, FLT_MAX), 4.0f);
}

TEST(SolveEikonal, AnisotropicQuadraticOverflowGivesNaN)
{
    // With unequal spacings the quadratic's coefficients hold s^2 / h^2, which overflow for
    // neighbours at FLT_MAX: the discriminant is inf - inf, and the NaN passes the bound and
    // floor tests like a NaN from the isotropic roots. Callers bound their neighbours.
    EXPECT_TRUE(std::isnan(solveEikonal(1.0f, 2.0f, 3.0f, FLT_MAX, FLT_MAX, FLT_MAX, 5.0f)));
    EXPECT_TRUE(std::isnan(solveEikonal(1.0f, 2.0f, 3.0f, -FLT_MAX, -FLT_MAX, -FLT_MAX, -5.0f)));
}

TEST(SolveEikonal, NegatingInputsNegatesResultBitExactly)
{
    // A million random inputs per form, from random bit patterns and from a wide range of
    // magnitudes. The limit must be non-zero: zero takes the positive path on both sides.
    std::mt19937 rng(7);
    int const kSamples = 1000000;
    for (int n = 0; n < kSamples; ++n) {
        bool const raw = n % 4 == 0;
        float const hx = raw ? anyFloat(rng) : std::fabs(wideFloat(rng));
        float const hy = n % 8 == 1 ? hx : (raw ? anyFloat(rng) : std::fabs(wideFloat(rng)));
        float const hz = raw ? anyFloat(rng) : std::fabs(wideFloat(rng));
        float const a = raw ? anyFloat(rng) : wideFloat(rng);
        float const b = raw ? anyFloat(rng) : wideFloat(rng);
        float const c = raw ? anyFloat(rng) : wideFloat(rng);
        float limit = raw ? anyFloat(rng) : wideFloat(rng);
        if (limit == 0.0f || std::isnan(limit))
            limit = 1.0f;

        float const iso = solveEikonal(hx, a, b, c, limit);
        float const isoNegated = solveEikonal(hx, -a, -b, -c, -limit);
        ASSERT_EQ(bitsOf(isoNegated), bitsOf(-iso))
            << "h " << hx << " a " << a << " b " << b << " c " << c << " limit " << limit;

        float const aniso = solveEikonal(hx, hy, hz, a, b, c, limit);
        float const anisoNegated = solveEikonal(hx, hy, hz, -a, -b, -c, -limit);
        ASSERT_EQ(bitsOf(anisoNegated), bitsOf(-aniso))
            << "h " << hx << ", " << hy << ", " << hz << " a " << a << " b " << b << " c " << c
            << " limit " << limit;
    }
}

TEST(SolveEikonal, NonPositiveSolutionReturnsFloorEvenAboveLimit)
{
    // Neighbours far inside: x = (-30 + sqrt(3)) / 3 < 0, floored to 0.001 although the limit
    // is smaller; the clamp to the limit is not applied again.
    EXPECT_EQ(solveEikonal(1.0f, -10.0f, -10.0f, -10.0f, 1e-6f), kFloor);
    EXPECT_EQ(solveEikonal(4.0f, -10.0f, -10.0f, -10.0f, 1e-6f), kFloor * 4.0f);
    // Inside, mirrored.
    EXPECT_EQ(solveEikonal(1.0f, 10.0f, 10.0f, 10.0f, -1e-6f), -kFloor);
    // Anisotropic: the floor uses the spacing of the smallest neighbour, here b's.
    EXPECT_EQ(solveEikonal(1.0f, 2.0f, 3.0f, -8.0f, -10.0f, -9.0f, 1e-6f), kFloor * 2.0f);
    EXPECT_EQ(solveEikonal(1.0f, 2.0f, 3.0f, -8.0f, -9.0f, -10.0f, 1e-6f), kFloor * 3.0f);
    // A solution of exactly zero is floored too.
    EXPECT_EQ(solveEikonal(1.0f, -1.0f, FLT_MAX, FLT_MAX, 1.0f), kFloor);
}

TEST(SolveEikonal, FloorConstantHasTheBitsOfOneThousandth)
{
    EXPECT_EQ(bitsOf(solveEikonal(1.0f, -3.0f, -3.0f, -3.0f, 1.0f)), 0x3A83126Fu);
    EXPECT_EQ(bitsOf(solveEikonal(1.0f, 2.0f, 3.0f, -3.0f, -2.5f, -2.0f, 1.0f)), 0x3A83126Fu);
    EXPECT_EQ(bitsOf(kFloor), bitsOf(0.001f));
}

TEST(SolveEikonal, ResultIsNeverZeroUnlessLimitIsZero)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int n = 0; n < 200000; ++n) {
        // Normal positive spacings, so that the floor 0.001 * h is itself not zero.
        float const hx = float(std::pow(10.0, -30.0 + 60.0 * unit(rng)));
        float const hy = float(std::pow(10.0, -30.0 + 60.0 * unit(rng)));
        float const hz = float(std::pow(10.0, -30.0 + 60.0 * unit(rng)));
        float const a = wideFloat(rng), b = wideFloat(rng), c = wideFloat(rng);
        float limit = wideFloat(rng);
        if (limit == 0.0f)
            limit = -1.0f;
        ASSERT_NE(solveEikonal(hx, a, b, c, limit), 0.0f);
        ASSERT_NE(solveEikonal(hx, hy, hz, a, b, c, limit), 0.0f);
    }
    EXPECT_EQ(solveEikonal(1.0f, 2.0f, 2.0f, 2.0f, 0.0f), 0.0f);
}

TEST(SolveEikonal, OneNeighbourValueStandsBelowTheSecondNeighbour)
{
    EXPECT_EQ(solveEikonal(1.0f, 2.0f, 10.0f, 10.0f, FLT_MAX), 3.0f);
    EXPECT_EQ(solveEikonal(1.0f, 10.0f, 10.0f, 2.0f, FLT_MAX), 3.0f);
    EXPECT_EQ(solveEikonal(0.5f, 1.0f, 3.0f, 2.0f, 10.0f, 10.0f, FLT_MAX), 2.5f);
    EXPECT_EQ(solveEikonal(0.5f, 1.0f, 3.0f, 10.0f, 2.0f, 10.0f, FLT_MAX), 3.0f);
}

TEST(SolveEikonal, TwoNeighbourValueStandsWhenEqualToTheThird)
{
    // With s2 equal to the two-neighbour solution the strict test keeps that solution. Among the
    // cases tried, some must give different bits from the three-neighbour formula, or the test
    // would show nothing.
    int distinguishing = 0;
    for (int n = 1; n <= 200; ++n) {
        float const h = 0.01f * float(n);
        float const s0 = 0.37f * float(n);
        float const s1 = s0 + 0.3f * h;
        float const d01 = s1 - s0;
        float const two = 0.5f * (s0 + s1 + std::sqrt((h + h) * h - d01 * d01));
        float const s2 = two;
        float const d02 = s2 - s0, d12 = s2 - s1;
        float const three =
            (s0 + s1 + s2 + std::sqrt(3.0f * h * h - d01 * d01 - d02 * d02 - d12 * d12)) / 3.0f;
        if (bitsOf(three) != bitsOf(two))
            ++distinguishing;
        ASSERT_EQ(bitsOf(solveEikonal(h, s2, s0, s1, FLT_MAX)), bitsOf(two)) << "h " << h;
    }
    EXPECT_GT(distinguishing, 0);
}

TEST(SolveEikonal, AnisotropicThirdNeighbourJoinsWhenEqual)
{
    // The anisotropic test is inclusive: with s2 equal to the two-neighbour solution the
    // three-neighbour quadratic is solved.
    int distinguishing = 0;
    for (int n = 1; n <= 200; ++n) {
        float const h0 = 0.01f * float(n), h1 = 1.7f * h0, h2 = 0.6f * h0;
        float const s0 = 0.37f * float(n) * h0;
        float const s1 = s0 + 0.4f * h0;
        float const A = 1.0f / (h1 * h1) + 1.0f / (h0 * h0);
        float const B = s0 * -2.0f / (h0 * h0) - 2.0f * s1 / (h1 * h1);
        float const C = s1 * s1 / (h1 * h1) + s0 * s0 / (h0 * h0);
        float const D = B * B - 4.0f * A * (C - 1.0f);
        ASSERT_GE(D, 0.0f);
        float const two = (std::sqrt(D) - B) / (A + A);
        float const s2 = two;
        float const A3 = 1.0f / (h2 * h2) + A;
        float const B3 = B - 2.0f * s2 / (h2 * h2);
        float const C3 = s2 * s2 / (h2 * h2) + C;
        float const D3 = B3 * B3 - 4.0f * A3 * (C3 - 1.0f);
        float const three = D3 < 0.0f ? two : (std::sqrt(D3) - B3) / (A3 + A3);
        if (bitsOf(three) != bitsOf(two))
            ++distinguishing;
        ASSERT_EQ(bitsOf(solveEikonal(h2, h0, h1, s2, s0, s1, FLT_MAX)), bitsOf(three))
            << "h0 " << h0;
    }
    EXPECT_GT(distinguishing, 0);
}

TEST(SolveEikonal, NegativeDiscriminantFromRoundingGivesNaN)
{
    // h + s0 rounds up to s1, so s1 - s0 = 8 exceeds h = 5 and 2 h^2 - 8^2 < 0. The root is not
    // clamped: the NaN passes the bound and floor tests.
    float const s0 = 1e8f, s1 = 1e8f + 8.0f;
    ASSERT_EQ(5.0f + s0, s1);
    EXPECT_TRUE(std::isnan(solveEikonal(5.0f, s0, s1, FLT_MAX, FLT_MAX)));
    EXPECT_TRUE(std::isnan(solveEikonal(5.0f, -s0, -s1, -FLT_MAX, -FLT_MAX)));
}

TEST(SolveEikonal, AgreesWithDoubleUpwindSolveWhenWellConditioned)
{
    // Neighbour values and spacing within a factor of 1000 of each other, at scales from 1e-3 to
    // 1e3, on both sides of the interface. Half of the samples cluster the neighbours within a
    // few spacings so that two- and three-neighbour solutions are common.
    constexpr double kRelativeTolerance = 1e-5;
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int used[4] = {};
    double worst = 0.0;
    for (int n = 0; n < 200000; ++n) {
        double const scale = std::pow(10.0, -3.0 + 6.0 * unit(rng));
        auto spread = [&] { return scale * std::pow(1000.0, unit(rng)); };
        float const h = float(spread());
        float const s = float(spread());
        bool const cluster = unit(rng) < 0.5;
        float const b = cluster ? s + float(1.5 * h * unit(rng)) : float(spread());
        float const c = cluster ? s + float(2.0 * h * unit(rng)) : float(spread());
        float const sign = unit(rng) < 0.5 ? -1.0f : 1.0f;
        float const limit = sign * FLT_MAX;
        float const result = solveEikonal(h, sign * s, sign * b, sign * c, limit);
        Reference const reference =
            referenceSolve(h, h, h, sign * s, sign * b, sign * c, double(limit));
        double const error = std::fabs(result - reference.value) / std::fabs(reference.value);
        worst = std::max(worst, error);
        ASSERT_LE(error, kRelativeTolerance)
            << "h " << h << " a " << s << " b " << b << " c " << c << " sign " << sign;
        ++used[reference.neighbours];
    }
    EXPECT_GT(used[1], 10000);
    EXPECT_GT(used[2], 10000);
    EXPECT_GT(used[3], 10000);
    RecordProperty("worstRelativeError", std::to_string(worst));
}

TEST(SolveEikonal, AnisotropicAgreesWithDoubleUpwindSolveWhenWellConditioned)
{
    // The anisotropic quadratic is formed from expanded sums (A u^2 + B u + C - 1 = 0 with
    // B ~ s / h^2, C ~ (s / h)^2), whose discriminant cancels: its float error grows with
    // (s / h)^2. Well conditioned here: spacings within a factor of 1000 of each other, neighbour
    // values no larger than 10 times the smallest spacing.
    constexpr double kRelativeTolerance = 1e-5;
    constexpr double kValueToSpacing = 10.0;
    std::mt19937 rng(4);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int used[4] = {};
    for (int n = 0; n < 200000; ++n) {
        double const scale = std::pow(10.0, -3.0 + 6.0 * unit(rng));
        float h[3];
        for (float& hi : h)
            hi = float(scale * std::pow(1000.0, unit(rng)));
        float const hMin = std::min({h[0], h[1], h[2]});
        float v[3];
        for (float& vi : v)
            vi = float(hMin * std::pow(kValueToSpacing, unit(rng)));
        if (unit(rng) < 0.7) {
            // Cluster within the smallest spacing so that several neighbours join.
            v[1] = std::min(v[0] + float(hMin * unit(rng)), float(kValueToSpacing * hMin));
            v[2] = std::min(v[0] + float(hMin * unit(rng)), float(kValueToSpacing * hMin));
        }
        float const sign = unit(rng) < 0.5 ? -1.0f : 1.0f;
        float const limit = sign * FLT_MAX;
        float const result =
            solveEikonal(h[0], h[1], h[2], sign * v[0], sign * v[1], sign * v[2], limit);
        Reference const reference =
            referenceSolve(h[0], h[1], h[2], sign * v[0], sign * v[1], sign * v[2], double(limit));
        double const error = std::fabs(result - reference.value) / std::fabs(reference.value);
        ASSERT_LE(error, kRelativeTolerance)
            << "h " << h[0] << ", " << h[1] << ", " << h[2] << " values " << v[0] << ", " << v[1]
            << ", " << v[2] << " sign " << sign;
        ++used[reference.neighbours];
    }
    EXPECT_GT(used[1], 10000);
    EXPECT_GT(used[2], 10000);
    EXPECT_GT(used[3], 10000);
}

TEST(SolveEikonal, AnisotropicErrorGrowsOnlyWithValueToSpacingRatio)
{
    // Beyond the well-conditioned range the error of the expanded quadratic stays within a
    // multiple of float epsilon times (largest value / smallest spacing)^2.
    std::mt19937 rng(8);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int n = 0; n < 100000; ++n) {
        double const scale = std::pow(10.0, -3.0 + 6.0 * unit(rng));
        float h[3];
        for (float& hi : h)
            hi = float(scale * std::pow(1000.0, unit(rng)));
        float const hMin = std::min({h[0], h[1], h[2]});
        float const hMax = std::max({h[0], h[1], h[2]});
        float v[3];
        v[0] = float(scale * std::pow(1000.0, unit(rng)));
        v[1] = v[0] + float(2.0 * hMax * unit(rng));
        v[2] = v[0] + float(2.0 * hMax * unit(rng));
        float const result = solveEikonal(h[0], h[1], h[2], v[0], v[1], v[2], FLT_MAX);
        double const reference = referenceSolve(h[0], h[1], h[2], v[0], v[1], v[2], DBL_MAX).value;
        double const ratio = std::max({v[0], v[1], v[2]}) / hMin;
        double const tolerance = 1e-5 + FLT_EPSILON * ratio * ratio;
        ASSERT_LE(std::fabs(result - reference) / reference, tolerance)
            << "h " << h[0] << ", " << h[1] << ", " << h[2] << " values " << v[0] << ", " << v[1]
            << ", " << v[2];
    }
}
