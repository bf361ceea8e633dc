/// @file  numerics/gaussian_quadrature.h
/// @brief Gauss-Legendre quadrature rules on [-1, 1], nodes and weights in double precision.
#pragma once
#include <hexmold/export.h>

#include <array>

namespace Numerics {

/// Largest number of points of a tabulated rule.
inline constexpr int kGaussianQuadratureMaxOrder = 20;

/// Table of one quantity per rule: row n holds the n-point rule (n = 1 to
/// kGaussianQuadratureMaxOrder) in its first n entries; the rest of the row, and row 0, are 0.
using GaussianQuadratureTable =
    std::array<std::array<double, kGaussianQuadratureMaxOrder>, kGaussianQuadratureMaxOrder + 1>;

/// Nodes of the n-point Gauss-Legendre rule in row n, ascending from near -1 to near 1; the rule
/// integrates polynomials of degree up to 2n - 1 exactly. Computed when the library loads, to
/// within a few units in the last place (row 3: -0.7745966692414834, 0, 0.7745966692414834).
HEXMOLD_API extern GaussianQuadratureTable const gaussianQuadratureNode1D;

/// Weights of the n-point Gauss-Legendre rule in row n, in the order of the nodes; each row sums
/// to 2, the length of [-1, 1].
HEXMOLD_API extern GaussianQuadratureTable const gaussianQuadratureWeight1D;

} // namespace Numerics
