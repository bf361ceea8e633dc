/// @file  api/resize.h
/// @brief `hexmold::resize`: the narrow band of a level set set to a width (`resize` of
///        levelset/resize.h with named options).
#pragma once
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <string>

namespace hexmold {

/// Options of `resize`.
struct ResizeOptions {
    /// Half-width of the band in finest voxels; the operator receives
    /// `float(bandVoxels * voxelSize())` world units, which must exceed 1.1920929e-7.
    double bandVoxels = 3.0;
    std::string channel = kDistanceChannel; ///< the float level set
};

/// @brief Sets the narrow band of the level set @p options.channel of @p io_volume: tiles are
///        added where the surface is nearer than the width and removed where it is farther, the
///        other channels follow, and the distance is recomputed outwards from the surface voxels.
/// @details One call of `resize`, with no log output. Copies of the volume are not changed.
/// @throws Error for an empty volume or one without tiles, a channel that is not a float voxel
///         channel of the volume, and a width that is not finite or too small to be told from
///         zero; std::runtime_error on job cancellation.
HEXMOLD_API void resize(Volume& io_volume, ResizeOptions const& options = {});

} // namespace hexmold
