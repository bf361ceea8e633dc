/// @file  api/voxelize_points.h
/// @brief `hexmold::voxelizePoints`: a point cloud object (as `hexmold::io::readPoints` returns it)
///        becomes the signed distance volume of the union of one sphere per point, with the
///        cloud's point properties as voxel channels.
#pragma once
#include <hexmold/api/volume.h>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/object.h>
#include <string>

namespace hexmold {

/// Options of `voxelizePoints`; the defaults make an adaptive `Traits<2,4,1>` volume 256 voxels
/// across the cloud's largest side, spheres of 1.5 voxels.
struct VoxelizePointsOptions {
    TraitsKind traits = TraitsKind::kTraits24;
    /// World size of a voxel of the deepest depth; 0: the largest side of the cloud's box divided
    /// by `resolution`.
    double voxelSize = 0.0;
    int resolution = 256;
    /// World radius shared by every point; 0: `radiusVoxels` voxels.
    double radius = 0.0;
    double radiusVoxels = 1.5;
    /// A float point property giving each point's world radius; "" none (then the shared radius).
    std::string radiusProperty;
    /// The non-adaptive route: finest tiles in a band around the spheres' surface.
    bool sparse = false;
    /// Refine only where the parent's interpolation misses the exact distance by more than this
    /// fraction of the largest side (times the voxel size); 0: everywhere near the surface.
    double maxRelativeError = 0.0;
    /// Band and grading parameter in voxels.
    double grading = 1.0;
    /// Point properties to carry into voxel channels: "" none, "*" all, "v, Cd".
    std::string properties;
    /// Name of the distance channel.
    std::string channel = kDistanceChannel;
    /// Magnitude of the distance channel's default value, what voxels far from the surface hold.
    float background = 8589934592.0f;
};

/// @brief The signed distance volume of the spheres of @p cloud.
/// @throws Error when @p cloud has no point positions, for a voxel size, resolution or radius
///         that is not positive or not finite, a cloud with no extent (and no voxel size), a
///         radius property that is missing, not float or not one per point, or an empty channel
///         name; cancellation arrives as the operators' `std::runtime_error`.
HEXMOLD_API Volume voxelizePoints(Tavrel::Object const& cloud,
                                  VoxelizePointsOptions const& options = {});

} // namespace hexmold
