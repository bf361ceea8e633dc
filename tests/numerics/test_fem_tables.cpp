// Tests of the trilinear element matrices and node stencils, against integrals computed here.
#include <hexmold/numerics/fem_tables.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>

namespace {

using namespace Numerics::FEM;

/// Element side used for the integrals; not 1, so that the stated powers of h are checked too.
constexpr double kSide = 0.75;

/// Quadrature error is at rounding level; the tables hold floats.
constexpr double kFloatTolerance = 1e-7;

int coordinate(int node, int axis)
{
    return (node >> (2 - axis)) & 1;
}

/// Trilinear shape function of @p node at p, and its derivative along @p axis.
double shape(int node, std::array<double, 3> const& p)
{
    double value = 1.0;
    for (int axis = 0; axis < 3; ++axis)
        value *= coordinate(node, axis) ? p[axis] / kSide : 1.0 - p[axis] / kSide;
    return value;
}

double shapeDerivative(int node, int axis, std::array<double, 3> const& p)
{
    double value = coordinate(node, axis) ? 1.0 / kSide : -1.0 / kSide;
    for (int other = 0; other < 3; ++other)
        if (other != axis)
            value *= coordinate(node, other) ? p[other] / kSide : 1.0 - p[other] / kSide;
    return value;
}

/// Integral over the element [0, kSide]^3 by the 3 x 3 x 3 Gauss-Legendre rule, exact for the
/// products of two trilinear functions (degree 2 per axis).
double integrate(std::function<double(std::array<double, 3> const&)> const& f)
{
    double const r = std::sqrt(0.6);
    double const node[3] = {-r, 0.0, r};
    double const weight[3] = {5.0 / 9.0, 8.0 / 9.0, 5.0 / 9.0};
    double sum = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) {
                std::array<double, 3> const p = {0.5 * kSide * (node[i] + 1.0),
                                                 0.5 * kSide * (node[j] + 1.0),
                                                 0.5 * kSide * (node[k] + 1.0)};
                sum += weight[i] * weight[j] * weight[k] * f(p);
            }
    return sum * 0.125 * kSide * kSide * kSide;
}

/// Node stencil assembled from an element matrix, as a double array: the 8 elements around the
/// centre, each adding the centre node's row at its nodes' positions.
using Stencil = std::array<std::array<std::array<double, 3>, 3>, 3>;
Stencil assemble(float const (*matrix)[8])
{
    Stencil stencil{};
    for (int element = 0; element < 8; ++element) {
        // Element lower corner at offset -coordinate(element, axis) from the centre.
        int const centre = element;
        for (int node = 0; node < 8; ++node)
            stencil[coordinate(node, 0) - coordinate(centre, 0) + 1]
                   [coordinate(node, 1) - coordinate(centre, 1) + 1]
                   [coordinate(node, 2) - coordinate(centre, 2) + 1] += matrix[centre][node];
    }
    return stencil;
}

double stencilSum(float const (&stencil)[3][3][3])
{
    double sum = 0.0;
    for (auto const& slab : stencil)
        for (auto const& row : slab)
            for (float entry : row)
                sum += entry;
    return sum;
}

} // namespace

TEST(FemTables, MassMatrixIsTheIntegralOfShapeProducts)
{
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            double const exact =
                integrate([&](auto const& p) { return shape(a, p) * shape(b, p); });
            double const unitsOfH3 = exact / (kSide * kSide * kSide);
            EXPECT_NEAR(massElementMatrix[a][b], unitsOfH3, kFloatTolerance) << a << ", " << b;
            EXPECT_EQ(massElementMatrix[a][b], float(unitsOfH3)) << a << ", " << b;
        }
    // Row 0 times 216: 8 4 4 2 4 2 2 1.
    int const row0[8] = {8, 4, 4, 2, 4, 2, 2, 1};
    for (int b = 0; b < 8; ++b)
        EXPECT_NEAR(massElementMatrix[0][b] * 216.0, row0[b], 1e-5);
}

TEST(FemTables, StiffnessMatrixIsTheIntegralOfGradientProducts)
{
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            double const exact = integrate([&](auto const& p) {
                double dot = 0.0;
                for (int axis = 0; axis < 3; ++axis)
                    dot += shapeDerivative(a, axis, p) * shapeDerivative(b, axis, p);
                return dot;
            });
            // Stored as integers: real value = entry * h / 36.
            EXPECT_NEAR(stiffnessElementMatrix[a][b], exact * 36.0 / kSide, 1e-9) << a << ", " << b;
            EXPECT_EQ(stiffnessElementMatrix[a][b], std::round(stiffnessElementMatrix[a][b]));
        }
    float const row0[8] = {12, 0, 0, -3, 0, -3, -3, -3};
    for (int b = 0; b < 8; ++b)
        EXPECT_EQ(stiffnessElementMatrix[0][b], row0[b]);
}

TEST(FemTables, GradientMatricesAreIntegralsOfShapeTimesDerivative)
{
    float const(*tables[3])[8] = {gradientXElementMatrix, gradientYElementMatrix,
                                  gradientZElementMatrix};
    for (int axis = 0; axis < 3; ++axis)
        for (int a = 0; a < 8; ++a)
            for (int b = 0; b < 8; ++b) {
                double const exact = integrate(
                    [&](auto const& p) { return shape(a, p) * shapeDerivative(b, axis, p); });
                double const unitsOfH2 = exact / (kSide * kSide);
                EXPECT_NEAR(tables[axis][a][b], unitsOfH2, kFloatTolerance)
                    << "axis " << axis << ": " << a << ", " << b;
                EXPECT_EQ(tables[axis][a][b], float(unitsOfH2));
            }
    int const row0[8] = {-4, -2, -2, -1, 4, 2, 2, 1};
    for (int b = 0; b < 8; ++b)
        EXPECT_NEAR(gradientXElementMatrix[0][b] * 72.0, row0[b], 1e-5);
}

TEST(FemTables, GradientXRowsRepeatAcrossTheXAxis)
{
    for (int a = 0; a < 4; ++a)
        for (int b = 0; b < 8; ++b)
            EXPECT_EQ(gradientXElementMatrix[a + 4][b], gradientXElementMatrix[a][b]);
}

TEST(FemTables, GradientYAndZArePermutationsOfGradientX)
{
    // Swapping the bits of x and y (or x and z) in the node numbers maps one table on the other.
    auto swapBits = [](int node, int p, int q) {
        int const bp = (node >> p) & 1, bq = (node >> q) & 1;
        return (node & ~((1 << p) | (1 << q))) | (bp << q) | (bq << p);
    };
    for (int a = 0; a < 8; ++a)
        for (int b = 0; b < 8; ++b) {
            EXPECT_EQ(gradientYElementMatrix[a][b],
                      gradientXElementMatrix[swapBits(a, 2, 1)][swapBits(b, 2, 1)]);
            EXPECT_EQ(gradientZElementMatrix[a][b],
                      gradientXElementMatrix[swapBits(a, 2, 0)][swapBits(b, 2, 0)]);
        }
}

TEST(FemTables, StiffnessRowsSumToZero)
{
    for (int a = 0; a < 8; ++a) {
        double sum = 0.0;
        for (int b = 0; b < 8; ++b)
            sum += stiffnessElementMatrix[a][b];
        EXPECT_EQ(sum, 0.0) << "row " << a;
    }
}

TEST(FemTables, MassRowsSumToOneEighth)
{
    for (int a = 0; a < 8; ++a) {
        double sum = 0.0;
        for (int b = 0; b < 8; ++b)
            sum += massElementMatrix[a][b];
        EXPECT_NEAR(sum, 0.125, kFloatTolerance) << "row " << a;
        EXPECT_NEAR(sum * 216.0, 27.0, 1e-5) << "row " << a;
    }
}

TEST(FemTables, LumpedMassIsTheMassRowSum)
{
    for (int a = 0; a < 8; ++a)
        EXPECT_EQ(lumpedMassElementMatrix[a], 0.125f);
    EXPECT_EQ(lumpedMassStencil, 1.0f);
}

TEST(FemTables, StiffnessStencilIsAssembledFromTheElementMatrix)
{
    Stencil const assembled = assemble(stiffnessElementMatrix);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) {
                EXPECT_EQ(stiffnessStencil[i][j][k], assembled[i][j][k]) << i << j << k;
                int const offAxes = (i != 1) + (j != 1) + (k != 1);
                float const expected[4] = {96, 0, -6, -3};
                EXPECT_EQ(stiffnessStencil[i][j][k], expected[offAxes]) << i << j << k;
            }
}

TEST(FemTables, StiffnessStencilSumsToZero)
{
    EXPECT_EQ(stencilSum(stiffnessStencil), 0.0);
}

TEST(FemTables, GradientStencilsAreAssembledFromTheElementMatrices)
{
    float const(*matrices[3])[8] = {gradientXElementMatrix, gradientYElementMatrix,
                                    gradientZElementMatrix};
    float const(*stencils[3])[3][3] = {gradientXStencil, gradientYStencil, gradientZStencil};
    for (int axis = 0; axis < 3; ++axis) {
        Stencil const assembled = assemble(matrices[axis]);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    EXPECT_NEAR(stencils[axis][i][j][k], assembled[i][j][k], kFloatTolerance)
                        << "axis " << axis << ": " << i << j << k;
    }
}

TEST(FemTables, GradientXStencilHasTheStatedSlabs)
{
    int const slab[3][3] = {{-1, -4, -1}, {-4, -16, -4}, {-1, -4, -1}};
    for (int j = 0; j < 3; ++j)
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(gradientXStencil[0][j][k], float(slab[j][k]) / 72.0f);
            EXPECT_EQ(gradientXStencil[1][j][k], 0.0f);
            EXPECT_EQ(gradientXStencil[2][j][k], -float(slab[j][k]) / 72.0f);
            // y and z by permutation of the axes.
            EXPECT_EQ(gradientYStencil[j][0][k], gradientXStencil[0][j][k]);
            EXPECT_EQ(gradientYStencil[j][2][k], gradientXStencil[2][j][k]);
            EXPECT_EQ(gradientZStencil[j][k][0], gradientXStencil[0][j][k]);
            EXPECT_EQ(gradientZStencil[j][k][2], gradientXStencil[2][j][k]);
            EXPECT_EQ(gradientYStencil[j][1][k], 0.0f);
            EXPECT_EQ(gradientZStencil[j][k][1], 0.0f);
        }
}

TEST(FemTables, GradientStencilsSumToZero)
{
    EXPECT_EQ(stencilSum(gradientXStencil), 0.0);
    EXPECT_EQ(stencilSum(gradientYStencil), 0.0);
    EXPECT_EQ(stencilSum(gradientZStencil), 0.0);
}
