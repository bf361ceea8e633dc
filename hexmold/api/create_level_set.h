/// @file  api/create_level_set.h
/// @brief Level sets of simple shapes: `createLevelSetSphere`, `createLevelSetBox`,
///        `createLevelSetTorus`, each a tile tree around the surface with the exact signed
///        distance in every voxel.
/// @details The tree is one of two layouts:
///          - narrow band: every tile of the deepest depth that comes within `bandVoxels` finest
///            voxels of the surface, and at each coarser depth the tiles within one of their own
///            widths of it;
///          - adaptive: at every depth the tiles within `bandTiles` of their own widths of the
///            surface, so the finest tiles hug the surface and tiles grow coarser away from it.
///          Either tree is then graded (no tile has a neighbour more than one depth coarser,
///          analysis/grade_tile_tree.h), as the redistancing and sampling operators expect.
///
///          Every voxel of every tile, leaf or not, holds the exact signed distance (world units,
///          negative inside) at its sample: the centre of the finest voxel at its lowest corner,
///          which is where the solves and samplers of the library place a voxel of any depth.
///          Values are clamped to plus or minus the channel's background, its default value.
#pragma once
#include <cstdint>
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <string>

namespace hexmold {

/// Which tiles a level-set factory makes (see the file comment).
enum class TreeLayout : int {
    kNarrowBand = 0, ///< a band of `bandVoxels` finest voxels on both sides of the surface
    kAdaptive = 1,   ///< `bandTiles` tile widths of every depth around the surface
};

/// Options of the level-set factories; the defaults make a narrow band of 3 voxels in a
/// `Traits<2,4,1>` tree with voxels a tenth of the shape's smallest feature.
struct LevelSetOptions {
    TraitsKind traits = TraitsKind::kTraits24;
    /// World size of a voxel of the deepest depth; 0 picks a tenth of the smallest feature (the
    /// sphere's radius, the box's smallest half size, the torus's tube radius).
    double voxelSize = 0.0;
    TreeLayout layout = TreeLayout::kNarrowBand;
    /// Narrow band: half-width of the band of deepest tiles, in finest voxels (> 0).
    double bandVoxels = 3.0;
    /// Adaptive: tiles within this many of their own widths of the surface are made (> 0).
    double bandTiles = 1.0;
    /// Name of the distance channel.
    std::string channel = kDistanceChannel;
    /// Magnitude of the channel's default value, the background that voxels beyond the tree's
    /// reach read as (world units, > 0). A power of two keeps means of background values exact.
    float background = 8589934592.0f;
    /// Refuse a volume estimated to need more voxels than this (a guard against a voxel size far
    /// too small for the shape).
    std::uint64_t maxVoxels = std::uint64_t(1) << 29;
};

/// @brief The level set of a sphere.
/// @param centre  world position of the centre
/// @param radius  world units, > 0
/// @throws Error for a radius or voxel size that is not positive and finite, a NaN centre, a
///         shape beyond the tree's reach at that voxel size, an estimated voxel count above
///         `maxVoxels`, an empty channel name, or bad band options.
HEXMOLD_API Volume createLevelSetSphere(Tavrel::Math::double3 const& centre, double radius,
                                        LevelSetOptions const& options = {});

/// @brief The level set of an axis-aligned box with sharp edges and corners.
/// @param min, max  world corners; each coordinate of @p max above that of @p min
/// @throws Error as `createLevelSetSphere`, and for a box with an extent that is not positive.
HEXMOLD_API Volume createLevelSetBox(Tavrel::Math::double3 const& min,
                                     Tavrel::Math::double3 const& max,
                                     LevelSetOptions const& options = {});

/// @brief The level set of a ring torus around the z axis through @p centre: a tube of radius
///        @p minorRadius around a circle of radius @p majorRadius.
/// @param majorRadius, minorRadius  world units, 0 < minorRadius < majorRadius
/// @throws Error as `createLevelSetSphere`, and for radii out of that order.
HEXMOLD_API Volume createLevelSetTorus(Tavrel::Math::double3 const& centre, double majorRadius,
                                       double minorRadius, LevelSetOptions const& options = {});

} // namespace hexmold
