/// @file  levelset/eikonal.h
/// @brief One upwind update of the eikonal equation |grad phi| = 1 at one voxel of a regular grid.
/// @details The update takes one neighbour value per axis (the upwind one, chosen by the caller)
///          and returns the value that the Godunov discretisation gives the voxel, bounded by the
///          voxel's current value or bound. Everything is single precision, so that the result is
///          the same bits on every platform with IEEE float arithmetic. The tile sweeps carry an
///          inlined variant of the isotropic update (levelset/detail/eikonal_inline.h).
#pragma once
#include <hexmold/export.h>

namespace CoreGL {

/// @brief Eikonal update on an isotropic grid.
/// @param h      grid spacing (world units), > 0
/// @param a, b, c  chosen neighbour values along x, y and z (world units, signed)
/// @param limit  signed current value or bound of the voxel. 0 > limit solves the inside (the
///               result is negative); zero and NaN take the outside path.
/// @return       the updated value: never larger in magnitude than @p limit on the solved side,
///               except that a non-positive solution becomes the floor 0.001 * h (even when that
///               exceeds @p limit). A negative discriminant from rounding yields NaN, unclamped.
/// @details Pure; callable from any thread.
HEXMOLD_API float solveEikonal(float h, float a, float b, float c, float limit);

/// @brief Eikonal update on an anisotropic grid, one spacing per axis.
/// @param hx, hy, hz  spacings (world units), > 0; @p a lies at distance @p hx, @p b at @p hy,
///                    @p c at @p hz
/// @param a, b, c     chosen neighbour values (world units, signed)
/// @param limit       signed current value or bound; the sign selects the side as above
/// @return            the updated value, bounded by @p limit; a non-positive solution becomes
///                    0.001 times the spacing of the smallest neighbour. Exactly equal spacings
///                    give the isotropic result bit for bit.
/// @details Pure; callable from any thread.
HEXMOLD_API float solveEikonal(float hx, float hy, float hz, float a, float b, float c,
                               float limit);

} // namespace CoreGL
