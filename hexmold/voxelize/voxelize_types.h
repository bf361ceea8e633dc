/// @file  voxelize/voxelize_types.h
/// @brief Types shared by the mesh and point voxelizers: how a volume adapts its resolution,
///        and the boxes that ask for a resolution.
#pragma once
#include <cstdint>

namespace VolumeGL::TileTree3D {

/// How a voxelizer decides where the tree refines. The numbers are part of the interface.
enum Adaptivity : int {
    /// Refine where interpolation from the coarser depth misses the exact distance by more than
    /// the relative error.
    AdaptivityMaxRelativeError = 0,
    /// Refine to the depth that per-point detail sizes ask for.
    AdaptivityDetailSizes = 1,
    /// Refine to the depths that world boxes ask for; with no box at all, the volume is a
    /// uniform narrow band at the finest depth.
    AdaptivityResolutionFields = 2,
};

/// @brief A world-space box that asks for a resolution: seven 4-byte words.
/// @details The target depth is the deepest depth minus @p level.
struct ResolutionField {
    float min[3];       ///< world minimum corner
    float max[3];       ///< world maximum corner
    std::int32_t level; ///< depths above the deepest; 0 asks for the finest voxels
};
static_assert(sizeof(ResolutionField) == 28, "a resolution field is seven 4-byte words");

/// Which tiles a point voxelizer works on; the last but one argument of `voxelizePoints`.
enum TopologyType : int {
    TopologyTypeKeepTiles = 0,  ///< keep the tiles the container has
    TopologyTypeBuildTiles = 1, ///< build the tiles from the points
};

} // namespace VolumeGL::TileTree3D
