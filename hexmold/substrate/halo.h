/// @file  substrate/halo.h
/// @brief Halos: a tile's block with a rim taken from whatever lies around the tile, the copy of
///        a channel with one extra sample per axis, and coarse copies of finer data in non-leaf
///        voxels.
/// @details The rim rule, for a rim element at the resolution of the tile in hand:
///          1. find the tile that holds that place at the tile's depth, or else the closest
///             coarser tile holding it (from the tree's compressed halo table when built, else
///             from the neighbour table, else by lookup: all give the same tile);
///          2. same depth: the element at its local position, leaf or non-leaf alike (so a
///             non-leaf voxel must hold a coarse copy of its children, which
///             `setNonLeafValueToChildValue` provides);
///          3. coarser: the value of the coarse voxel that covers the rim element, or, when the
///             caller asks for it with `kHaloTypeTrilinearJumps`, the trilinear interpolation of
///             the coarse voxels at the rim element's centre (`kHaloTypeCubicJumps`: tricubic);
///          4. nothing there, or no block in the channel: the default value.
///          The rim of a block is therefore exact across same-depth borders, and across a
///          resolution jump piecewise constant, or with the trilinear rule exact for data linear
///          in position. The covering voxel can sit up to half a coarse voxel (2.5 voxels of the
///          tile in hand for a ratio of 5) from the rim element, which a central difference turns
///          into an O(1) error. The interpolation is off by O(H^2) for coarse voxels H wide, so
///          first differences across the jump are exact on linear data and O(H^2 / h) otherwise;
///          second differences keep an O(H^2 / h^2) error there, which the tricubic rule brings
///          down to O(H^4 / h^2). Callers
///          whose rim must stay a value that exists in the channel (sign tests, upwind sweeps
///          that must not see a new minimum) keep the covering voxel.
#pragma once
#include <hexmold/export.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/tile_data.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>

namespace TVL::TileTree3D {

/// How a halo is filled; the numbers are the callers'. All four currently fill by the rim rule
/// above.
enum HaloMode : int {
    kHaloModeTransfer = 1,            ///< channel transfer and extrapolation
    kHaloModeRedistance = 2,          ///< redistancing
    kHaloModeRedistanceFirstPass = 3, ///< redistancing, first pass
    kHaloModeGeneral = 4,             ///< the general case, any depth
};

/// Which parts of the rim are filled, as bits. The six face layers are always filled; bit 4 adds
/// the twelve edges (what stencils reaching in the coordinate planes need), bit 8 the eight
/// corners, bit 16 the trilinear rule at resolution jumps. Bits 1 and 2 are markers of the
/// caller. Parts not asked for hold the default value.
enum HaloType : int {
    kHaloTypeBase = 1,
    kHaloTypeCallerFlag = 2,
    kHaloTypePlanes = 4,
    kHaloTypeCorners = 8,
    kHaloTypeFacesAndEdges = 5, ///< 1 | 4: axis and in-plane stencils
    kHaloTypeSweep = 6,         ///< 5 plus the caller's flag
    kHaloTypeAll = 15,          ///< the whole rim, corners included
    /// At a resolution jump, each rim element is the trilinear interpolation of the coarse voxels
    /// (those of the coarser tile and of the one-voxel layer around it, at its depth) at the rim
    /// element's centre, instead of the covering coarse voxel. Applies to the element types of
    /// floating-point scalars; others keep the covering voxel. Where a bracketing coarse voxel is
    /// missing (edge of the tree, a tile without data) the element keeps the covering voxel.
    kHaloTypeTrilinearJumps = 16,
    /// As `kHaloTypeTrilinearJumps`, but each rim element at a jump of one depth is the
    /// tricubic Lagrange interpolation of the 4 x 4 x 4 coarse voxels around its centre (the
    /// bracketing pair and one more on each side, per axis; those in a tile one depth coarser
    /// still are that tile's own tricubic interpolation), so that on a graded tree data up to
    /// cubic in position are exact to rounding. Where one of them is missing, the element takes
    /// the trilinear blend, and where that too lacks a voxel, the covering one. Jumps of more
    /// than one depth keep the trilinear rule: there the coarse voxels are r^2 or more fine
    /// voxels wide, too wide for second differences to be consistent with any rim, and four
    /// such voxels per axis would cost a stencil's worth of tiles per rim element. For stencils
    /// of second differences, whose error across a jump is the rim's error divided by h^2.
    kHaloTypeCubicJumps = 32,
};

/// @brief Fills @p out with the block of @p tile from @p channel in its interior and the rim
///        rule of this file in its rim of width Hout.
/// @param tile       a tile of the accessor's container
/// @param channel    the source; a block stored with its own halo (Hin = 1) contributes its
///                   interior only, the rim is always read from the neighbours
/// @param mode, type see `HaloMode`, `HaloType`
/// @param accessor   the calling worker's own accessor on the channel's tree
/// @param out        (W + 2*Hout)^3 elements, allocated by the caller (per worker, not per tile)
/// @param defaultValue  where no tile or no data exists
/// @param scale, offset accepted for the callers; the nearest-voxel rim does not use them
/// Instantiated for both trees, all 18 element types, (Hin, Hout) = (0,1), (0,2), (1,1), and
/// F2 = 0 or 1 (the same filling). Reads only; safe from many workers at once.
template <typename Traits, typename T, int Hin, int Hout, int F1, int F2 = 0>
HEXMOLD_API void
setHaloTile(TreeIndex const& tile, Channel<Traits, T, Traits::kTileWidth, Hin, F1> const& channel,
            HaloMode mode, HaloType type, typename Container<Traits>::ConstTileAccessor& accessor,
            TileData<T, Traits::kTileWidth, Hout, F1>& out, T defaultValue, float scale,
            VoxelOffsetType offset);

/// @brief For each tile of depths [minDepth, maxDepth], fills its block of @p out: coordinates
///        0 to W-1 hold the tile's voxels, coordinate W on an axis the first layer of what lies
///        next on that axis, by the rim rule (the source's default value where nothing is).
/// @param out  bound to the same topology, blocks of (W+1)^3 elements
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for both trees and the nine types of `HEXMOLD_FOR_EACH_HALO_ELEMENT`.
template <typename Traits, typename T, int A = 0, int B = 0, int C = 1, int D = 0>
HEXMOLD_API void computeHalo(Channel<Traits, T, Traits::kTileWidth, 0, 0> const& source,
                             Container<Traits> const& container,
                             Channel<Traits, T, Traits::kTileWidth + 1, 0, 0>& out, int minDepth,
                             int maxDepth);

/// @brief Gives every non-leaf voxel of the tiles of depths [minDepth, maxDepth] the mean of the
///        child voxels under it (2 x 2 x 2 for `Traits<2,4,1>`, the child tile's 5 x 5 x 5 for
///        `Traits<5,5,1>`), from fine to coarse, so that values of the deepest depth reach the
///        coarsest. Integers are rounded to nearest; vectors and matrices by component.
/// @param offset  accepted for the callers; the mean does not depend on it
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for both trees and all 18 element types, W = the tile width, H = 0.
template <typename Traits, typename T, int W, int H>
HEXMOLD_API void setNonLeafValueToChildValue(Channel<Traits, T, W, H, 0>& channel,
                                             Container<Traits> const& container,
                                             VoxelOffsetType offset, int minDepth, int maxDepth);

} // namespace TVL::TileTree3D
