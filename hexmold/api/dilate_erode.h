/// @file  api/dilate_erode.h
/// @brief `hexmold::dilate` and `hexmold::erode`: tiles added within a distance of a level set's
///        surface, or removed beyond one (`dilate`/`erode` of levelset/dilate_erode.h), with the
///        topology and every channel kept in step.
#pragma once
#include <cstdint>
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <string>

namespace hexmold {

/// Options of `dilate`.
struct DilateOptions {
    /// Distance in finest voxels (>= 0); the operator receives `float(bandVoxels * voxelSize())`
    /// world units.
    double bandVoxels = 1.0;
    std::string channel = kDistanceChannel; ///< the float level set that finds the surface
    int minDepth = 0;                       ///< shallowest depth of the surface tiles grown from
    int maxDepth = -1; ///< deepest such depth; -1: the deepest depth of the tree type
};

/// Options of `erode`.
struct ErodeOptions {
    /// Distance in finest voxels (>= 0), on top of the tile diagonal that erosion always keeps;
    /// the operator receives `float(bandVoxels * voxelSize())` world units.
    double bandVoxels = 1.0;
    std::string channel = kDistanceChannel; ///< the float level set that finds the surface
};

/// @brief Adds the tiles, at the depth of each surface tile, whose centres lie within the
///        surface tile's half diagonal and the distance of its centre.
/// @details After `dilate`, the topology follows the tree, and the new tiles of every channel
///          bound to it take the values of their parents' voxels (a piecewise-constant
///          prolongation, substrate/channel_update.h); the level set itself is not recomputed:
///          `redistance` does that. Copies of the volume are not changed.
/// @return the number of tiles added.
/// @throws Error for an empty volume or one without tiles, a channel that is not a float voxel
///         channel of the volume, a distance that is negative or not finite, a bad depth range;
///         std::runtime_error on job cancellation.
HEXMOLD_API std::int64_t dilate(Volume& io_volume, DilateOptions const& options = {});

/// @brief Removes every tile none of whose voxels comes within the distance and the tile's own
///        diagonal of the surface.
/// @details The topology and every channel follow the removal. Copies of the volume are not
///          changed.
/// @return the number of tiles removed (descendants of removed tiles included).
/// @throws Error as `dilate`; std::runtime_error on job cancellation.
HEXMOLD_API std::int64_t erode(Volume& io_volume, ErodeOptions const& options = {});

} // namespace hexmold
