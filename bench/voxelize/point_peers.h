// The OpenVDB tools the point benchmark compares voxelizePoints with, each in a source of its own
// so that their heavy headers compile in parallel.
#pragma once
#include <hexmold/platform/quillon/array.h>
#include <hexmold/platform/tavrel/math.h>

namespace pointpeers {

struct PeerResult {
    double ms = 0.0;
    unsigned long long voxels = 0; ///< active voxels
    double megabytes = 0.0;
};

/// tools::ParticlesToLevelSet of spheres of radius @p radius at @p p, voxel @p h, half-width 3.
PeerResult runParticlesToLevelSet(Quillon::Array<Tavrel::Math::float3> const& p, float h,
                                  float radius);
/// points::rasterizeSpheres of the same spheres (point grid built inside the timing).
PeerResult runRasterizeSpheres(Quillon::Array<Tavrel::Math::float3> const& p, float h,
                               float radius);

} // namespace pointpeers
