// Tests of the Gauss-Legendre tables against closed forms, published values and exactness.
#include <hexmold/numerics/gaussian_quadrature.h>

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using Numerics::gaussianQuadratureNode1D;
using Numerics::gaussianQuadratureWeight1D;
using Numerics::kGaussianQuadratureMaxOrder;

/// Nodes and weights are meant to be the doubles nearest to the exact values; closed forms
/// evaluated in double carry a few units of rounding of their own.
constexpr double kClosedFormTolerance = 4e-16;

struct Rule {
    std::vector<double> nodes, weights;
};

void expectRule(int n, Rule const& expected)
{
    for (int i = 0; i < n; ++i) {
        EXPECT_NEAR(gaussianQuadratureNode1D[n][i], expected.nodes[i], kClosedFormTolerance)
            << n << "-point node " << i;
        EXPECT_NEAR(gaussianQuadratureWeight1D[n][i], expected.weights[i], kClosedFormTolerance)
            << n << "-point weight " << i;
    }
}

} // namespace

TEST(GaussianQuadrature, LowOrderRulesMatchClosedForms)
{
    expectRule(1, {{0.0}, {2.0}});
    double const r2 = 1.0 / std::sqrt(3.0);
    expectRule(2, {{-r2, r2}, {1.0, 1.0}});
    double const r3 = std::sqrt(0.6);
    expectRule(3, {{-r3, 0.0, r3}, {5.0 / 9.0, 8.0 / 9.0, 5.0 / 9.0}});
    double const a4 = std::sqrt(3.0 / 7.0 - 2.0 / 7.0 * std::sqrt(1.2));
    double const b4 = std::sqrt(3.0 / 7.0 + 2.0 / 7.0 * std::sqrt(1.2));
    double const wa4 = (18.0 + std::sqrt(30.0)) / 36.0, wb4 = (18.0 - std::sqrt(30.0)) / 36.0;
    expectRule(4, {{-b4, -a4, a4, b4}, {wb4, wa4, wa4, wb4}});
    double const a5 = std::sqrt(5.0 - 2.0 * std::sqrt(10.0 / 7.0)) / 3.0;
    double const b5 = std::sqrt(5.0 + 2.0 * std::sqrt(10.0 / 7.0)) / 3.0;
    double const wa5 = (322.0 + 13.0 * std::sqrt(70.0)) / 900.0;
    double const wb5 = (322.0 - 13.0 * std::sqrt(70.0)) / 900.0;
    expectRule(5, {{-b5, -a5, 0.0, a5, b5}, {wb5, wa5, 128.0 / 225.0, wa5, wb5}});
}

TEST(GaussianQuadrature, StatedNodesAppearInTheirRows)
{
    EXPECT_NEAR(gaussianQuadratureNode1D[3][2], 0.7745966692414834, 1e-16);
    EXPECT_NEAR(gaussianQuadratureNode1D[5][4], 0.906179845938664, 1e-15);
}

TEST(GaussianQuadrature, TenPointRuleMatchesPublishedValues)
{
    // Abramowitz & Stegun, Table 25.4, n = 10, to 15 decimals.
    double const nodes[5] = {0.148874338981631, 0.433395394129247, 0.679409568299024,
                             0.865063366688985, 0.973906528517172};
    double const weights[5] = {0.295524224714753, 0.269266719309996, 0.219086362515982,
                               0.149451349150581, 0.066671344308688};
    for (int i = 0; i < 5; ++i) {
        EXPECT_NEAR(gaussianQuadratureNode1D[10][5 + i], nodes[i], 1e-15) << i;
        EXPECT_NEAR(gaussianQuadratureNode1D[10][4 - i], -nodes[i], 1e-15) << i;
        EXPECT_NEAR(gaussianQuadratureWeight1D[10][5 + i], weights[i], 1e-15) << i;
        EXPECT_NEAR(gaussianQuadratureWeight1D[10][4 - i], weights[i], 1e-15) << i;
    }
}

TEST(GaussianQuadrature, RulesIntegrateMonomialsUpToDegreeTwoNMinusOneExactly)
{
    ASSERT_GE(kGaussianQuadratureMaxOrder, 10);
    for (int n = 1; n <= kGaussianQuadratureMaxOrder; ++n)
        for (int k = 0; k <= 2 * n - 1; ++k) {
            double sum = 0.0;
            for (int i = 0; i < n; ++i)
                sum +=
                    gaussianQuadratureWeight1D[n][i] * std::pow(gaussianQuadratureNode1D[n][i], k);
            double const exact = k % 2 ? 0.0 : 2.0 / (k + 1);
            EXPECT_NEAR(sum, exact, 1e-14) << n << "-point rule, x^" << k;
        }
}

TEST(GaussianQuadrature, RulesAreNotExactBeyondTheirDegree)
{
    // x^(2n) is the first monomial an n-point rule misses; this pins each row to its order.
    for (int n = 1; n <= 10; ++n) {
        double sum = 0.0;
        for (int i = 0; i < n; ++i)
            sum +=
                gaussianQuadratureWeight1D[n][i] * std::pow(gaussianQuadratureNode1D[n][i], 2 * n);
        EXPECT_GT(std::fabs(sum - 2.0 / (2 * n + 1)), 1e-7) << n << "-point rule";
    }
}

TEST(GaussianQuadrature, NodesAscendSymmetricallyInsideTheInterval)
{
    for (int n = 1; n <= kGaussianQuadratureMaxOrder; ++n) {
        double weightSum = 0.0;
        for (int i = 0; i < n; ++i) {
            EXPECT_GT(gaussianQuadratureNode1D[n][i], -1.0);
            EXPECT_LT(gaussianQuadratureNode1D[n][i], 1.0);
            if (i > 0) {
                EXPECT_LT(gaussianQuadratureNode1D[n][i - 1], gaussianQuadratureNode1D[n][i]);
            }
            EXPECT_EQ(gaussianQuadratureNode1D[n][i], -gaussianQuadratureNode1D[n][n - 1 - i]);
            EXPECT_EQ(gaussianQuadratureWeight1D[n][i], gaussianQuadratureWeight1D[n][n - 1 - i]);
            EXPECT_GT(gaussianQuadratureWeight1D[n][i], 0.0);
            weightSum += gaussianQuadratureWeight1D[n][i];
        }
        EXPECT_NEAR(weightSum, 2.0, 1e-14) << n;
        for (int i = n; i < kGaussianQuadratureMaxOrder; ++i) {
            EXPECT_EQ(gaussianQuadratureNode1D[n][i], 0.0);
            EXPECT_EQ(gaussianQuadratureWeight1D[n][i], 0.0);
        }
    }
    for (int i = 0; i < kGaussianQuadratureMaxOrder; ++i) {
        EXPECT_EQ(gaussianQuadratureNode1D[0][i], 0.0);
        EXPECT_EQ(gaussianQuadratureWeight1D[0][i], 0.0);
    }
}
