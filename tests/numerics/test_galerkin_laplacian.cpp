// Tests of the Galerkin Laplacian table of Traits<2,4,1>, its generator and the restriction
// stencil, against the listed rows and an independent separable computation.
#include <hexmold/numerics/fem_tables.h>
#include <hexmold/numerics/galerkin_laplacian.h>

#include "printed_text.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <string>

namespace {

using Numerics::restrictionStencilOffsetCorner;
using Numerics::FD::computeCoarseGridGalerkinLaplacian;
using Numerics::FD::galerkinLaplacianFDTraits24;
using TVL::TileTree3D::Traits24;

constexpr int kDepthCount = 28;
using Stencil = std::array<std::array<std::array<double, 3>, 3>, 3>;

/// Tolerance of the listed rows, which are printed to about six digits.
constexpr double kListedRowTolerance = 1e-5;
/// Float rounding of entries up to 3.375, with room for the rounding of the computation.
constexpr double kFloatTolerance = 1e-6;

/// What the generator printed, read back: the two report lines per depth and the table.
struct Printed {
    std::vector<double> absSum;         ///< in printing order, depth 27 first
    std::vector<int> numNonZeroEntries; ///< in printing order
    std::vector<float> table;           ///< 28 * 27 entries, depth 0 first
    std::string head, tail;
};

Printed runGenerator()
{
    std::string const text = printed_text::capture(computeCoarseGridGalerkinLaplacian<Traits24>);
    Printed printed;
    std::vector<std::string> const lines = printed_text::lines(text);
    std::size_t line = 0;
    for (; line < lines.size() && lines[line].rfind("float ", 0) != 0; ++line) {
        std::string const& l = lines[line];
        if (l.rfind("absSum = ", 0) == 0)
            printed.absSum.push_back(std::strtod(l.c_str() + 9, nullptr));
        else if (l.rfind("numNonZeroEntries = ", 0) == 0)
            printed.numNonZeroEntries.push_back(std::atoi(l.c_str() + 20));
        else
            ADD_FAILURE() << "unexpected line: " << l;
    }
    if (line == lines.size())
        return printed;
    printed.head = lines[line];
    printed.tail = lines.back();
    std::string body;
    for (std::size_t i = line + 1; i + 1 < lines.size(); ++i)
        body += lines[i] + "\n";
    for (std::string const& entry : printed_text::braceEntries(body)) {
        EXPECT_EQ(entry.back(), 'f') << entry;
        printed.table.push_back(std::strtof(entry.c_str(), nullptr));
    }
    return printed;
}

/// 1D Galerkin coarsening of a symmetric three-point stencil: restriction (1, 2, 1) / 4 of the
/// stencil applied to the linear interpolation (1/2, 1, 1/2) of a coarse unit vector.
std::array<double, 3> coarsen1D(std::array<double, 3> const& s)
{
    double prolonged[9] = {};
    prolonged[3] = 0.5, prolonged[4] = 1.0, prolonged[5] = 0.5; // fine offsets -1..1 at 3..5
    double applied[9] = {};
    for (int p = 1; p < 8; ++p)
        applied[p] = s[0] * prolonged[p - 1] + s[1] * prolonged[p] + s[2] * prolonged[p + 1];
    std::array<double, 3> coarse;
    for (int c = -1; c <= 1; ++c) {
        int const p = 4 + 2 * c;
        coarse[c + 1] = 0.25 * applied[p - 1] + 0.5 * applied[p] + 0.25 * applied[p + 1];
    }
    return coarse;
}

/// The separable form of the coarse operators: the seven-point Laplacian is the sum over the
/// axes of (-1, 2, -1) along the axis times the identity along the others, and Galerkin
/// coarsening acts on each 1D factor alone. Each coarsening multiplies by 8 / 2 (P^T = 8 R, and
/// the voxel size doubles).
Stencil separableStencil(int depth)
{
    std::array<double, 3> l = {-1.0, 2.0, -1.0};
    std::array<double, 3> m = {0.0, 1.0, 0.0};
    double factor = 1.0;
    for (int d = Traits24::kMaxDepth; d > depth; --d) {
        l = coarsen1D(l);
        m = coarsen1D(m);
        factor *= 4.0;
    }
    Stencil s{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                s[i][j][k] =
                    factor * (l[i] * m[j] * m[k] + m[i] * l[j] * m[k] + m[i] * m[j] * l[k]);
    return s;
}

int offAxes(int i, int j, int k)
{
    return (i != 1) + (j != 1) + (k != 1);
}

} // namespace

TEST(GalerkinLaplacian, RestrictionStencilIsTheTensorProductOfOneTwoOne)
{
    float const w[3] = {0.25f, 0.5f, 0.25f};
    double sum = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) {
                EXPECT_EQ(restrictionStencilOffsetCorner[i][j][k], w[i] * w[j] * w[k]);
                sum += restrictionStencilOffsetCorner[i][j][k];
            }
    EXPECT_EQ(sum, 1.0);
    EXPECT_EQ(restrictionStencilOffsetCorner[0][0][0], 0.015625f);
    EXPECT_EQ(restrictionStencilOffsetCorner[0][0][1], 0.03125f);
    EXPECT_EQ(restrictionStencilOffsetCorner[0][1][1], 0.0625f);
    EXPECT_EQ(restrictionStencilOffsetCorner[1][1][1], 0.125f);
}

TEST(GalerkinLaplacian, GeneratorReproducesTheListedRows)
{
    Printed const printed = runGenerator();
    ASSERT_EQ(printed.table.size(), std::size_t(kDepthCount * 27));
    struct Row {
        int depth;
        double corner, edge, face, centre;
    };
    Row const rows[3] = {{27, -0.046875, -0.15625, -0.1875, 3.375},
                         {20, -0.083331, -0.166667, -0.00001, 2.66671},
                         {3, -0.083333, -0.166667, 0.0, 2.66667}};
    for (Row const& row : rows) {
        double const byClass[4] = {row.centre, row.face, row.edge, row.corner};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    EXPECT_NEAR(printed.table[row.depth * 27 + i * 9 + j * 3 + k],
                                byClass[offAxes(i, j, k)], kListedRowTolerance)
                        << "depth " << row.depth << " entry " << i << j << k;
    }
    // Depth 27 is exact in binary.
    EXPECT_EQ(printed.table[27 * 27 + 13], 3.375f);
    EXPECT_EQ(printed.table[27 * 27 + 0], -0.046875f);
}

TEST(GalerkinLaplacian, GeneratorPrintsTheStoredTable)
{
    Printed const printed = runGenerator();
    EXPECT_EQ(printed.head, "float galerkinLaplacianFDTraits24[28][3][3][3] = {");
    EXPECT_EQ(printed.tail, "};");
    ASSERT_EQ(printed.table.size(), std::size_t(kDepthCount * 27));
    for (int d = 0; d < kDepthCount; ++d)
        for (int n = 0; n < 27; ++n)
            EXPECT_EQ(printed.table[d * 27 + n],
                      galerkinLaplacianFDTraits24[d][n / 9][n / 3 % 3][n % 3])
                << "depth " << d << " entry " << n;
}

TEST(GalerkinLaplacian, GeneratorReportsAbsSumAndNonZeroCountPerDepth)
{
    Printed const printed = runGenerator();
    ASSERT_EQ(printed.absSum.size(), std::size_t(kDepthCount));
    ASSERT_EQ(printed.numNonZeroEntries.size(), std::size_t(kDepthCount));
    for (int n = 0; n < kDepthCount; ++n) {
        int const depth = kDepthCount - 1 - n; // printed from depth 27 down to 0
        double absSum = 0.0;
        int nonZero = 0;
        for (auto const& slab : galerkinLaplacianFDTraits24[depth])
            for (auto const& row : slab)
                for (float entry : row) {
                    absSum += std::fabs(entry);
                    nonZero += entry != 0.0f;
                }
        EXPECT_NEAR(printed.absSum[n], absSum, 1e-7 * absSum) << "depth " << depth;
        EXPECT_EQ(printed.numNonZeroEntries[n], nonZero) << "depth " << depth;
    }
    EXPECT_EQ(printed.absSum[0], 6.75);
}

TEST(GalerkinLaplacian, TableMatchesTheSeparableComputation)
{
    for (int depth = 0; depth < kDepthCount; ++depth) {
        Stencil const expected = separableStencil(depth);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    EXPECT_NEAR(galerkinLaplacianFDTraits24[depth][i][j][k], expected[i][j][k],
                                kFloatTolerance)
                        << "depth " << depth << " entry " << i << j << k;
    }
}

TEST(GalerkinLaplacian, EveryStencilSumsToZero)
{
    for (int depth = 0; depth < kDepthCount; ++depth) {
        double sum = 0.0, absSum = 0.0;
        for (auto const& slab : galerkinLaplacianFDTraits24[depth])
            for (auto const& row : slab)
                for (float entry : row) {
                    sum += entry;
                    absSum += std::fabs(entry);
                }
        // Each entry is rounded to float on its own, so the sum is zero to float precision.
        EXPECT_NEAR(sum, 0.0, 1e-7 * absSum) << "depth " << depth;
    }
}

TEST(GalerkinLaplacian, StencilsAreSymmetricUnderTheCubeSymmetries)
{
    for (int depth = 0; depth < kDepthCount; ++depth) {
        auto const& s = galerkinLaplacianFDTraits24[depth];
        float const face = s[0][1][1], edge = s[0][0][1], corner = s[0][0][0];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k) {
                    int const c = offAxes(i, j, k);
                    if (c == 0)
                        continue;
                    EXPECT_EQ(s[i][j][k], c == 1 ? face : (c == 2 ? edge : corner))
                        << "depth " << depth << " entry " << i << j << k;
                }
    }
}

TEST(GalerkinLaplacian, DeepStencilsConvergeToStiffnessOverThirtySix)
{
    double previousError = HUGE_VAL;
    for (int depth = kDepthCount - 1; depth >= 0; --depth) {
        double error = 0.0;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    error = std::fmax(error,
                                      std::fabs(galerkinLaplacianFDTraits24[depth][i][j][k] -
                                                Numerics::FEM::stiffnessStencil[i][j][k] / 36.0));
        if (depth >= 17) {
            // The distance shrinks by a factor of about 4 per depth until float rounding.
            EXPECT_LT(error, 0.3 * previousError) << "depth " << depth;
        }
        if (depth <= 3) {
            EXPECT_LT(error, kFloatTolerance) << "depth " << depth;
        }
        previousError = error;
    }
}

TEST(GalerkinLaplacian, GeneratorIsExportedForTraits24)
{
    void (*generator)(std::ostream&) = &computeCoarseGridGalerkinLaplacian<Traits24>;
    EXPECT_NE(generator, nullptr);
}
