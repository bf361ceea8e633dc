/// @file  api/sample.h
/// @brief `hexmold::sample`: a float channel read at world positions by trilinear interpolation
///        across tiles and depths (`VoxelSamplerLinear` of sampling/linear_sampler.h).
#pragma once
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <span>
#include <string>
#include <vector>

namespace hexmold {

/// Options of `sample`.
struct SampleOptions {
    std::string channel = kDistanceChannel; ///< the float channel read
};

/// @brief The values of @p options.channel at the world positions @p positions.
/// @details A linear sampler at the deepest depth: the deepest tile holding a position is
///          interpolated, with neighbours across tile borders and resolution jumps; where no
///          tile exists the channel's default value is returned. Positions are read in parallel.
/// @return one value per position, in order.
/// @throws Error for an empty volume, a channel that is not a float voxel channel of the volume,
///         and a position that is not finite (the message gives its index).
HEXMOLD_API std::vector<float> sample(Volume const& volume,
                                      std::span<Tavrel::Math::double3 const> positions,
                                      SampleOptions const& options = {});

/// @brief The value of @p options.channel at one world position; as above.
HEXMOLD_API float sample(Volume const& volume, Tavrel::Math::double3 const& position,
                         SampleOptions const& options = {});

} // namespace hexmold
