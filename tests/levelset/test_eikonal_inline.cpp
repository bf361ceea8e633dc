// Tests of the eikonal update in the form the tile sweeps inline.
#include <hexmold/levelset/detail/eikonal_inline.h>
#include <hexmold/levelset/eikonal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>

namespace {

using CoreGL::detail::eikonalThreeHSquared;
using CoreGL::detail::eikonalTwoHSquared;
using CoreGL::detail::solveEikonalInline;

std::uint32_t bitsOf(float value)
{
    return std::bit_cast<std::uint32_t>(value);
}

float inlineSolve(float h, float a, float b, float c, float v)
{
    return solveEikonalInline(h, eikonalTwoHSquared(h), eikonalThreeHSquared(h), a, b, c, v);
}

/// Distance in units in the last place between two finite floats of the same sign.
std::int64_t ulpDistance(float x, float y)
{
    return std::abs(std::int64_t(bitsOf(x)) - std::int64_t(bitsOf(y)));
}

} // namespace

TEST(SolveEikonalInline, PrecomputedSquaresAreCloseToExact)
{
    for (float h : {1e-3f, 0.1f, 0.7f, 1.0f, 3.3f, 1000.0f}) {
        EXPECT_EQ(eikonalTwoHSquared(h), (h + h) * h);
        EXPECT_NEAR(eikonalTwoHSquared(h), 2.0 * double(h) * h, 1e-7 * 2.0 * double(h) * h);
        EXPECT_NEAR(eikonalThreeHSquared(h), 3.0 * double(h) * h, 2e-7 * 3.0 * double(h) * h);
    }
}

TEST(SolveEikonalInline, AgreesWithExportedUpdateToOneUlp)
{
    // Same gating and formulas; only the three-neighbour division by 3 becomes a product with
    // the float nearest to 1/3, which moves the result by at most one unit in the last place.
    std::mt19937 rng(21);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int identical = 0, differing = 0;
    for (int n = 0; n < 200000; ++n) {
        double const scale = std::pow(10.0, -3.0 + 6.0 * unit(rng));
        float const h = float(scale * std::pow(1000.0, unit(rng)));
        float const a = float(scale * std::pow(1000.0, unit(rng)));
        float const b = a + float(1.5 * h * unit(rng));
        float const c = a + float(2.0 * h * unit(rng));
        float const v = FLT_MAX;
        float const fast = inlineSolve(h, a, b, c, v);
        float const exported = CoreGL::solveEikonal(h, a, b, c, v);
        ASSERT_LE(ulpDistance(fast, exported), 1) << "h " << h << " a " << a << " b " << b;
        (bitsOf(fast) == bitsOf(exported) ? identical : differing) += 1;
    }
    EXPECT_GT(identical, 0);
    EXPECT_GT(differing, 0);
}

TEST(SolveEikonalInline, ThreeNeighbourSumIsMultipliedByFloatOneThird)
{
    // a = b = c = 0: the result is sqrt(3 h^2) * 0.33333334f, which for some h differs from
    // sqrt(3 h^2) / 3.
    int distinguishing = 0;
    for (int n = 1; n <= 1000; ++n) {
        float const h = 0.001f * float(n);
        float const root = std::sqrt(eikonalThreeHSquared(h));
        float const expected = (0.0f + 0.0f + 0.0f + root) * 0.33333334f;
        if (bitsOf(expected) != bitsOf(root / 3.0f))
            ++distinguishing;
        ASSERT_EQ(bitsOf(inlineSolve(h, 0.0f, 0.0f, 0.0f, FLT_MAX)), bitsOf(expected));
    }
    EXPECT_GT(distinguishing, 0);
}

TEST(SolveEikonalInline, NegativeDiscriminantIsClampedInsteadOfNaN)
{
    // The case in which the exported update returns NaN: h + s0 rounds up to s1 = s0 + 8 > s0 + h.
    float const s0 = 1e8f, s1 = 1e8f + 8.0f;
    ASSERT_TRUE(std::isnan(CoreGL::solveEikonal(5.0f, s0, s1, FLT_MAX, FLT_MAX)));
    float const result = inlineSolve(5.0f, s0, s1, FLT_MAX, FLT_MAX);
    EXPECT_FALSE(std::isnan(result));
    EXPECT_EQ(result, 0.5f * (s0 + s1));
}

TEST(SolveEikonalInline, NeverRaisesTheMagnitude)
{
    std::mt19937 rng(22);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int n = 0; n < 200000; ++n) {
        float const h = float(std::pow(10.0, -3.0 + 6.0 * unit(rng)));
        float const a = float(std::pow(10.0, -4.0 + 8.0 * unit(rng)));
        float const b = float(std::pow(10.0, -4.0 + 8.0 * unit(rng)));
        float const c = float(std::pow(10.0, -4.0 + 8.0 * unit(rng)));
        float const v =
            float((unit(rng) < 0.5 ? -1.0 : 1.0) * std::pow(10.0, -6.0 + 10.0 * unit(rng)));
        float const result = inlineSolve(h, a, b, c, v);
        ASSERT_LE(result, std::fabs(v));
        ASSERT_GT(result, 0.0f);
        ASSERT_FALSE(std::isnan(result));
    }
}

TEST(SolveEikonalInline, BoundIsTheCurrentMagnitude)
{
    // Solution 3 against magnitudes above and below it, of either sign.
    EXPECT_EQ(inlineSolve(1.0f, 2.0f, 10.0f, 10.0f, 5.0f), 3.0f);
    EXPECT_EQ(inlineSolve(1.0f, 2.0f, 10.0f, 10.0f, -5.0f), 3.0f);
    EXPECT_EQ(inlineSolve(1.0f, 2.0f, 10.0f, 10.0f, 2.5f), 2.5f);
    EXPECT_EQ(inlineSolve(1.0f, 2.0f, 10.0f, 10.0f, -2.5f), 2.5f);
}

TEST(SolveEikonalInline, FloorIsBoundedByTheCurrentMagnitude)
{
    // x <= 0: the magnitude becomes min(0.001 h, |v|), never more than it was.
    float const floor = std::bit_cast<float>(std::uint32_t(0x3A83126F)) * 2.0f;
    EXPECT_EQ(inlineSolve(2.0f, -10.0f, -10.0f, -10.0f, 5.0f), floor);
    EXPECT_EQ(inlineSolve(2.0f, -10.0f, -10.0f, -10.0f, 1e-6f), 1e-6f);
    EXPECT_EQ(inlineSolve(2.0f, -10.0f, -10.0f, -10.0f, -1e-6f), 1e-6f);
    EXPECT_EQ(inlineSolve(2.0f, -10.0f, -10.0f, -10.0f, 0.0f), 0.0f);
    EXPECT_EQ(inlineSolve(2.0f, 1.0f, 1.0f, 1.0f, 0.0f), 0.0f);
}
