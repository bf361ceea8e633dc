/// @file  numerics/galerkin_laplacian.cpp
/// @brief Repeated Galerkin coarsening of the seven-point Laplacian, and the restriction stencil.
#include <hexmold/numerics/galerkin_laplacian.h>

#include <hexmold/numerics/detail/source_text.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace Numerics {

float const restrictionStencilOffsetCorner[3][3][3] = {
    {{0.015625f, 0.03125f, 0.015625f},
     {0.03125f, 0.0625f, 0.03125f},
     {0.015625f, 0.03125f, 0.015625f}},
    {{0.03125f, 0.0625f, 0.03125f}, {0.0625f, 0.125f, 0.0625f}, {0.03125f, 0.0625f, 0.03125f}},
    {{0.015625f, 0.03125f, 0.015625f},
     {0.03125f, 0.0625f, 0.03125f},
     {0.015625f, 0.03125f, 0.015625f}}};

namespace FD {

namespace {

using Stencil = double[3][3][3];

/// Dense local grid of the fine depth, fine offsets -3 to 3 from the coarse centre node.
constexpr int kLocalWidth = 7;
constexpr int kLocalCentre = 3;
using LocalGrid = double[kLocalWidth][kLocalWidth][kLocalWidth];

/// Coarse operator of @p fine: A_c = P^T A_f P / 2, evaluated as 4 R A_f P e on a dense local
/// grid, e being the coarse unit vector. P^T = 8 R; the division by 2 keeps the stencil divided by
/// the voxel size, which doubles from the fine depth to the coarse one.
void coarsen(Stencil const& fine, Stencil& coarse)
{
    auto const& R = restrictionStencilOffsetCorner;

    // Prolongation of the unit vector: trilinear weights 1, 1/2, 1/4, 1/8 = 8 R.
    LocalGrid prolonged = {};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                prolonged[kLocalCentre + i - 1][kLocalCentre + j - 1][kLocalCentre + k - 1] =
                    8.0 * double(R[i][j][k]);

    // Fine operator, on the nodes it can reach (offsets -2 to 2); the rest stays 0.
    LocalGrid applied = {};
    for (int x = 1; x < kLocalWidth - 1; ++x)
        for (int y = 1; y < kLocalWidth - 1; ++y)
            for (int z = 1; z < kLocalWidth - 1; ++z) {
                double sum = 0.0;
                for (int i = 0; i < 3; ++i)
                    for (int j = 0; j < 3; ++j)
                        for (int k = 0; k < 3; ++k)
                            sum += fine[i][j][k] * prolonged[x + i - 1][y + j - 1][z + k - 1];
                applied[x][y][z] = sum;
            }

    // Restriction to the coarse nodes at fine offsets -2, 0, 2.
    for (int ci = 0; ci < 3; ++ci)
        for (int cj = 0; cj < 3; ++cj)
            for (int ck = 0; ck < 3; ++ck) {
                int const x = kLocalCentre + 2 * (ci - 1);
                int const y = kLocalCentre + 2 * (cj - 1);
                int const z = kLocalCentre + 2 * (ck - 1);
                double sum = 0.0;
                for (int i = 0; i < 3; ++i)
                    for (int j = 0; j < 3; ++j)
                        for (int k = 0; k < 3; ++k)
                            sum += double(R[i][j][k]) * applied[x + i - 1][y + j - 1][z + k - 1];
                coarse[ci][cj][ck] = 4.0 * sum;
            }

    // The exact coarse operator keeps the symmetries of the cube and annihilates constants, as
    // the fine one does. Rounding breaks both, and the coarsening amplifies the broken parts (a
    // non-zero sum by 4 per depth, an odd part by 2), so every depth is projected back: the
    // entries of each class (faces, edges, corners) are averaged and the centre is set from them
    // to make the sum exactly 0.
    double classSum[4] = {};
    int classCount[4] = {};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) {
                int const offAxes = (i != 1) + (j != 1) + (k != 1);
                classSum[offAxes] += coarse[i][j][k];
                ++classCount[offAxes];
            }
    double neighbours = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) {
                int const offAxes = (i != 1) + (j != 1) + (k != 1);
                if (offAxes == 0)
                    continue;
                coarse[i][j][k] = classSum[offAxes] / classCount[offAxes];
                neighbours += coarse[i][j][k];
            }
    coarse[1][1][1] = -neighbours;
}

std::string numberText(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

} // namespace

template <typename Traits> void computeCoarseGridGalerkinLaplacian(std::ostream& out)
{
    static_assert(Traits::kRatio == 2, "the restriction stencil coarsens by a factor of 2");
    constexpr int kDepthCount = Traits::kMaxDepth;
    using FloatStencil = float[3][3][3];
    std::vector<FloatStencil> table(kDepthCount);

    // Seven-point finite-difference Laplacian of the finest depth, times h^3 / h^2 = h.
    Stencil fine = {};
    fine[1][1][1] = 6.0;
    fine[0][1][1] = fine[2][1][1] = fine[1][0][1] = fine[1][2][1] = fine[1][1][0] = fine[1][1][2] =
        -1.0;

    for (int depth = kDepthCount - 1; depth >= 0; --depth) {
        Stencil coarse;
        coarsen(fine, coarse);
        double absSum = 0.0;
        int numNonZeroEntries = 0;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k) {
                    float const entry = float(coarse[i][j][k]);
                    table[depth][i][j][k] = entry;
                    absSum += std::fabs(double(entry));
                    if (entry != 0.0f)
                        ++numNonZeroEntries;
                    fine[i][j][k] = coarse[i][j][k];
                }
        out << "absSum = " << numberText(absSum) << "\n";
        out << "numNonZeroEntries = " << numNonZeroEntries << "\n";
    }

    out << "float "
        << "galerkinLaplacianFDTraits" << Traits::kRatio << Traits::kTileWidth << "[" << kDepthCount
        << "][3][3][3] = {\n";
    for (int depth = 0; depth < kDepthCount; ++depth) {
        for (int i = 0; i < 3; ++i) {
            out << (i == 0 ? "{ { " : "  { ");
            for (int j = 0; j < 3; ++j) {
                out << "{ ";
                for (int k = 0; k < 3; ++k) {
                    out << Numerics::detail::floatLiteral(table[depth][i][j][k]);
                    if (k < 2)
                        out << ", ";
                }
                out << (j < 2 ? " }, " : " }");
            }
            out << (i < 2 ? " },\n" : " } }");
        }
        out << (depth + 1 < kDepthCount ? ",\n" : "\n");
    }
    out << "};\n";
}

template HEXMOLD_API decltype(computeCoarseGridGalerkinLaplacian<TVL::TileTree3D::Traits24>)
    computeCoarseGridGalerkinLaplacian<TVL::TileTree3D::Traits24>;

} // namespace FD

} // namespace Numerics
