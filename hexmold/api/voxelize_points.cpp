/// @file  api/voxelize_points.cpp
/// @brief `hexmold::voxelizePoints`: checks, the volume object, one call of the driver.
#include <hexmold/api/voxelize_points.h>

#include <algorithm>
#include <cmath>
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/points/voxelize_points.h>

namespace hexmold {

namespace {

using namespace TVL::TileTree3D;
namespace Geo = Tavrel::Geometry;

template <typename Traits>
Volume build(Tavrel::Object const& cloud, Quillon::Array<Tavrel::Math::float3> const& positions,
             Quillon::Array<float> const& radii, VoxelizePointsOptions const& o, double h)
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
    VolumeGL::TileTree3D::voxelizePoints<Traits>(
        cloud, positions, radii, nullptr,
        o.sparse ? VolumeGL::TileTree3D::AdaptivityResolutionFields
                 : VolumeGL::TileTree3D::AdaptivityMaxRelativeError,
        float(o.maxRelativeError), nullptr, float(o.grading), o.properties, names.tree,
        names.topology, o.channel, *object, VolumeGL::TileTree3D::TopologyTypeBuildTiles, services);
    if (!services.error.empty())
        detail::fail("hexmold::voxelizePoints", services.error);
    return Volume(*object, names);
}

} // namespace

Volume voxelizePoints(Tavrel::Object const& cloud, VoxelizePointsOptions const& o)
{
    constexpr std::string_view entry = "hexmold::voxelizePoints";
    auto const* positions =
        Geo::getDataGeoPropertyValues<Tavrel::Math::float3>(cloud, Geo::sPointPosition);
    if (!positions)
        detail::fail(entry, "the object has no point positions");
    if (positions->empty())
        detail::fail(entry, "the cloud has no points");
    if (o.channel.empty())
        detail::fail(entry, "the distance channel's name is empty");
    detail::requireFinite(o.maxRelativeError, "the error tolerance", entry);
    detail::requireFinite(o.grading, "the grading", entry);
    if (o.maxRelativeError < 0.0 || o.grading < 0.0)
        detail::fail(entry, "the error tolerance and the grading must not be negative");
    double h = o.voxelSize;
    if (h == 0.0) {
        if (o.resolution <= 0)
            detail::fail(entry,
                         "the resolution must be positive, not " + std::to_string(o.resolution));
        double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
        for (auto const& p : *positions)
            for (int a = 0; a < 3; ++a)
                if (std::isfinite(p[a]))
                    lo[a] = std::min(lo[a], double(p[a])), hi[a] = std::max(hi[a], double(p[a]));
        double const side = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
        if (!(side > 0.0) || !std::isfinite(side))
            detail::fail(entry, "the cloud has no extent to divide into voxels");
        h = side / double(o.resolution);
    }
    detail::requirePositive(h, "the voxel size", entry);
    Quillon::Array<float> radii;
    if (!o.radiusProperty.empty()) {
        auto const* r = Geo::getDataGeoPropertyValues<float>(cloud, o.radiusProperty);
        if (!r)
            detail::fail(entry, "the cloud has no float point property \"" + o.radiusProperty +
                                    "\" for the radii");
        if (r->size() != positions->size())
            detail::fail(entry, "the radius property \"" + o.radiusProperty + "\" has " +
                                    std::to_string(r->size()) + " values for " +
                                    std::to_string(positions->size()) + " points");
        radii = *r;
    } else {
        double const r = o.radius > 0.0 ? o.radius : o.radiusVoxels * h;
        detail::requireFinite(r, "the radius", entry);
        if (!(r >= 0.0))
            detail::fail(entry, "the radius must not be negative");
        radii.push_back(float(r));
    }
    return detail::withTraits(o.traits, [&](auto tag) {
        using Traits = typename decltype(tag)::type;
        return build<Traits>(cloud, *positions, radii, o, h);
    });
}

} // namespace hexmold
