/// @file  api/voxelize_mesh.cpp
/// @brief `hexmold::voxelizeMesh`: checks, the volume object, one call of the driver.
#include <hexmold/api/voxelize_mesh.h>

#include <algorithm>
#include <cmath>
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/voxelize_mesh.h>

namespace hexmold {

namespace {

using namespace TVL::TileTree3D;
namespace Geo = Tavrel::Geometry;

template <typename Traits>
Volume build(Tavrel::Object const& mesh, Quillon::Array<Tavrel::Math::float3> const& positions,
             Quillon::Array<unsigned int> const& faceVertex,
             Quillon::Array<unsigned int> const& faceOffset, VoxelizeMeshOptions const& o, double h)
{
    constexpr int W = Traits::kTileWidth;
    VolumeNames const names;
    Quillon::Ptr<TVL::Object> object =
        Command::createVoxelTVL<Traits>(names.tree, names.topology, float(h), kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<VoxelTopology<Traits>> topology(*object, names.topology);
        Command::createChannel<float, Traits::kRatio, W, W, 0>(
            o.channel, *topology, *object, o.background, kDataElementInitializerDefaultValue, 0,
            Traits::kMaxDepth);
    }
    hexmold::detail::CollectingServices services;
    {
        TVL::ComponentGuard<Container<Traits>> tree(*object, names.tree);
        TVL::ComponentGuard<VoxelTopology<Traits>> topology(*object, names.topology);
        TVL::ComponentGuard<VoxelChannel<Traits, float>> distance(*object, o.channel);
        VolumeGL::TileTree3D::voxelizeMesh<Traits>(
            mesh, positions, faceVertex, faceOffset, o.properties, nullptr, o.solid,
            o.sparse ? VolumeGL::TileTree3D::AdaptivityResolutionFields
                     : VolumeGL::TileTree3D::AdaptivityMaxRelativeError,
            float(o.maxRelativeError), float(o.holeRadius), float(o.thickenVoxels), nullptr, *tree,
            *topology, *distance, *object, services);
    }
    if (!services.error.empty())
        detail::fail("hexmold::voxelizeMesh", services.error);
    return Volume(*object, names);
}

} // namespace

Volume voxelizeMesh(Tavrel::Object const& mesh, VoxelizeMeshOptions const& o)
{
    constexpr std::string_view entry = "hexmold::voxelizeMesh";
    auto const* positions =
        Geo::getDataGeoPropertyValues<Tavrel::Math::float3>(mesh, Geo::sPointPosition);
    auto const* faceVertex = Geo::getMeshFaceVertices(mesh);
    auto const* faceOffset = Geo::getMeshFaceOffsets(mesh);
    if (!positions || !faceVertex || !faceOffset)
        detail::fail(entry, "the object is not a polygon mesh with point positions and faces");
    if (o.channel.empty())
        detail::fail(entry, "the distance channel's name is empty");
    detail::requireFinite(o.holeRadius, "the hole radius", entry);
    detail::requireFinite(o.thickenVoxels, "the thickening", entry);
    detail::requireFinite(o.maxRelativeError, "the error tolerance", entry);
    if (o.holeRadius < 0.0 || o.thickenVoxels < 0.0 || o.maxRelativeError < 0.0)
        detail::fail(entry, "the hole radius, thickening and error tolerance must not be negative");
    double h = o.voxelSize;
    if (h == 0.0) {
        if (o.resolution <= 0)
            detail::fail(entry,
                         "the resolution must be positive, not " + std::to_string(o.resolution));
        double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
        for (auto const& p : *positions)
            for (int a = 0; a < 3; ++a)
                lo[a] = std::min(lo[a], double(p[a])), hi[a] = std::max(hi[a], double(p[a]));
        double const side = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
        if (!(side > 0.0) || !std::isfinite(side))
            detail::fail(entry, "the mesh has no extent to divide into voxels");
        h = side / double(o.resolution);
    }
    detail::requirePositive(h, "the voxel size", entry);
    return detail::withTraits(o.traits, [&](auto tag) {
        using Traits = typename decltype(tag)::type;
        return build<Traits>(mesh, *positions, *faceVertex, *faceOffset, o, h);
    });
}

} // namespace hexmold
