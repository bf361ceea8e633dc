/// @file  api/voxelize_mesh.h
/// @brief `hexmold::voxelizeMesh`: a polygon mesh object (as `hexmold::io::readMesh` returns it)
///        becomes a signed distance volume, with the mesh's point properties as voxel channels.
#pragma once
#include <cstdint>
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/object.h>
#include <string>

namespace hexmold {

/// Options of `voxelizeMesh`; the defaults make a solid `Traits<2,4,1>` volume 256 voxels across
/// the mesh's largest side, refined everywhere near the surface.
struct VoxelizeMeshOptions {
    TraitsKind traits = TraitsKind::kTraits24;
    /// World size of a voxel of the deepest depth; 0: the largest side of the mesh's box divided
    /// by `resolution`.
    double voxelSize = 0.0;
    int resolution = 256;
    /// A solid (signed, negative inside); false: an unsigned shell of `thickenVoxels`.
    bool solid = true;
    /// The sparse build: finest tiles in a narrow band around the surface, no refinement by error.
    bool sparse = false;
    /// Refine only where the parent's interpolation misses the exact distance by more than this
    /// fraction of the largest side (times the voxel size); 0: everywhere near the surface.
    double maxRelativeError = 0.0;
    /// World units; positive: holes narrower than about this radius are closed.
    double holeRadius = 0.0;
    /// Voxels the surface is offset outwards.
    double thickenVoxels = 0.0;
    /// Point properties to carry into voxel channels: "" none, "*" all, "Cd, N", "^point_position".
    std::string properties;
    /// Name of the distance channel.
    std::string channel = kDistanceChannel;
    /// Magnitude of the distance channel's default value, what voxels far from the surface hold.
    float background = 8589934592.0f;
};

/// @brief The signed distance volume of @p mesh.
/// @throws Error when @p mesh is not a polygon mesh with points and faces, for a voxel size or
///         resolution that is not positive, a mesh with no extent, negative hole radius or
///         thickening, or an empty channel name; cancellation arrives as the operators'
///         `std::runtime_error`.
HEXMOLD_API Volume voxelizeMesh(Tavrel::Object const& mesh,
                                VoxelizeMeshOptions const& options = {});

} // namespace hexmold
