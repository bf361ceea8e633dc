/// @file  numerics/fem_tables.h
/// @brief Element matrices and node stencils of trilinear finite elements on a cube of side h.
/// @details An element has 8 nodes, numbered 4*ix + 2*iy + iz with ix, iy, iz in {0, 1}; node n
///          has the shape function N_n = X(ix) Y(iy) Z(iz) with X(1) = x/h and X(0) = 1 - x/h.
///          Node stencils are indexed [dx + 1][dy + 1][dz + 1] by the offset of the other node
///          from the centre node and sum the element matrices of the 8 elements around the centre.
///          Each table leaves out a common factor, given per table. The tables are exported for
///          other libraries; nothing in Hexmold reads them. The generators that print them again
///          are declared in numerics/fem_generators.h.
#pragma once
#include <hexmold/export.h>

namespace Numerics::FEM {

/// Mass matrix, integral of N_a * N_b, in units of h^3: entry times 216 is 2^(3 - d), d being the
/// number of axes on which nodes a and b differ.
HEXMOLD_API extern float const massElementMatrix[8][8];

/// Lumped mass matrix, the row sums of massElementMatrix, in units of h^3: all 0.125.
HEXMOLD_API extern float const lumpedMassElementMatrix[8];

/// Lumped mass at a node, summed over its 8 elements, in units of h^3: 1.
HEXMOLD_API extern float const lumpedMassStencil;

/// Stiffness matrix, integral of grad N_a . grad N_b, stored as integers: the real value is
/// entry * h / 36. Diagonal 12; nodes differing on one axis 0, on two or three axes -3.
HEXMOLD_API extern float const stiffnessElementMatrix[8][8];

/// Stiffness node stencil, stored as integers like stiffnessElementMatrix (real value entry * h /
/// 36): 96 at the centre, 0 at the face, -6 at the edge and -3 at the corner neighbours.
HEXMOLD_API extern float const stiffnessStencil[3][3][3];

/// Gradient matrices, integral of N_a * dN_b/dx (and dy, dz), in units of h^2: entry times 72 is
/// an integer. Rows of nodes that differ only along the derivative's axis are equal.
HEXMOLD_API extern float const gradientXElementMatrix[8][8];
HEXMOLD_API extern float const gradientYElementMatrix[8][8]; ///< as gradientX, derivative d/dy
HEXMOLD_API extern float const gradientZElementMatrix[8][8]; ///< as gradientX, derivative d/dz

/// Gradient node stencils in units of h^2, entry times 72 an integer. The x stencil is
/// -1 -4 -1 / -4 -16 -4 / -1 -4 -1 (times 1/72) on the slab dx = -1, zero on dx = 0 and the
/// negative of the first slab on dx = 1; y and z follow by permuting the axes.
HEXMOLD_API extern float const gradientXStencil[3][3][3];
HEXMOLD_API extern float const gradientYStencil[3][3][3]; ///< as gradientXStencil along y
HEXMOLD_API extern float const gradientZStencil[3][3][3]; ///< as gradientXStencil along z

} // namespace Numerics::FEM
