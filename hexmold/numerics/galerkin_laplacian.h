/// @file  numerics/galerkin_laplacian.h
/// @brief Coarse-grid Galerkin Laplacian stencils of the Traits<2,4,1> tree, one per depth, and
///        the restriction stencil that makes them.
/// @details The operator of the finest depth is the seven-point finite-difference Laplacian.
///          Each coarser depth has the variational (Galerkin) operator P^T A P of the depth below,
///          P being trilinear prolongation. Stencils are indexed [dx + 1][dy + 1][dz + 1] and kept
///          divided by the voxel size h of their depth, so that all depths share one scale; with
///          depth they converge to the trilinear stiffness stencil / 36 (numerics/fem_tables.h).
#pragma once
#include <hexmold/export.h>
#include <hexmold/substrate/traits.h>

#include <iostream>

namespace Numerics {

/// Full-weighting restriction from a fine grid to the grid of twice its spacing whose nodes sit
/// on every other fine node: the tensor product of (1, 2, 1) / 4 along the three axes. Corners
/// 0.015625, edges 0.03125, faces 0.0625, centre 0.125; the entries sum to 1. Prolongation is
/// its transpose times 8.
HEXMOLD_API extern float const restrictionStencilOffsetCorner[3][3][3];

namespace FD {

/// Galerkin Laplacian stencils divided by h, indexed by depth 0 to 27 (depth 28, the finest of
/// Traits<2,4,1>, has the seven-point stencil 6 / -1). Depth 27: corner -0.046875, edge -0.15625,
/// face -0.1875, centre 3.375; depth 3 and coarser: -1/12, -1/6, 0, 8/3 to float precision.
/// Every stencil sums to 0 up to float rounding.
HEXMOLD_API extern float const galerkinLaplacianFDTraits24[28][3][3][3];

/// @brief Computes the Galerkin Laplacian of every depth below the finest by repeated coarsening
///        and prints it.
/// @details For each depth from the finest - 1 down to 0 the fine operator is applied to the
///          prolonged unit vector on a dense local grid and restricted with
///          restrictionStencilOffsetCorner; the line "absSum = " with the sum of the stencil's
///          absolute entries and the line "numNonZeroEntries = " with the count of its non-zero
///          entries follow. At the end the table is printed as source text, starting
///          "float galerkinLaplacianFDTraits24[28][3][3][3] = {" and ending "};".
///          Instantiated for Traits<2,4,1> only; arithmetic in double, printed as floats.
/// @param out  stream written to
template <typename Traits>
HEXMOLD_API void computeCoarseGridGalerkinLaplacian(std::ostream& out = std::cout);

} // namespace FD

} // namespace Numerics
