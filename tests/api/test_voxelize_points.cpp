// hexmold::voxelizePoints: the sphere of one point read back, per-point radii from a property, a
// point property carried into a channel, both tree types, and refused input.
#include <cmath>
#include <gtest/gtest.h>
#include <hexmold/api/error.h>
#include <hexmold/api/sample.h>
#include <hexmold/api/voxelize_points.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <limits>
#include <string>

using hexmold::Volume;
using Tavrel::Math::double3;
using Tavrel::Math::float3;
namespace Geo = Tavrel::Geometry;

namespace {

/// Two points, radii 0.3 and 0.2, 0.8 apart along x, with a float3 velocity and a radius property.
Quillon::MutablePtr<Tavrel::Object> twoPoints()
{
    auto cloud =
        Geo::createPointCloud(Quillon::Array<float3>{{-0.4f, 0.0f, 0.0f}, {0.4f, 0.0f, 0.0f}});
    Geo::setDataGeoProperty<float>(*cloud, "radius", Geo::sPointComp,
                                   Quillon::Array<float>{0.3f, 0.2f}, 0.0f);
    Geo::setDataGeoProperty<float3>(*cloud, "v", Geo::sPointComp,
                                    Quillon::Array<float3>{{1, 0, 0}, {0, 2, 0}}, float3{0, 0, 0});
    return cloud;
}

} // namespace

TEST(VoxelizePointsApi, TheSpheresOfAPropertyOfRadiiOnBothTrees)
{
    auto cloud = twoPoints();
    for (auto traits : {hexmold::TraitsKind::kTraits24, hexmold::TraitsKind::kTraits55}) {
        for (bool sparse : {false, true}) {
            hexmold::VoxelizePointsOptions o;
            o.traits = traits;
            o.voxelSize = 1.0 / 64;
            o.radiusProperty = "radius";
            o.sparse = sparse;
            o.properties = "v";
            Volume const v = hexmold::voxelizePoints(*cloud, o);
            EXPECT_EQ(v.traits(), traits);
            // On the x axis: near the surface of each sphere, the distance; deep inside and far
            // outside (coarser voxels), the sign.
            double const xs[] = {-0.705, -0.69, 0.607, 0.595, -0.55, 0.5, 0.0};
            double const want[] = {0.005, -0.01, 0.007, -0.005, -0.15, -0.1, 0.2};
            for (int q = 0; q < 7; ++q) {
                double const got = hexmold::sample(v, double3{xs[q], 0.0, 0.0});
                if (q < 4)
                    EXPECT_NEAR(got, want[q], 0.5 / 64) << "x = " << xs[q];
                else
                    EXPECT_EQ(got < 0.0, want[q] < 0.0) << "x = " << xs[q];
            }
            // The velocity arrives as a channel of its own.
            bool found = false;
            for (auto const& c : v.channels())
                found = found || c.name == "voxel_v";
            EXPECT_TRUE(found);
        }
    }
}

TEST(VoxelizePointsApi, RefusedInput)
{
    auto cloud = twoPoints();
    auto expectError = [&](hexmold::VoxelizePointsOptions const& o, char const* what) {
        EXPECT_THROW(hexmold::voxelizePoints(*cloud, o), hexmold::Error) << what;
    };
    hexmold::VoxelizePointsOptions o;
    o.resolution = 0;
    expectError(o, "resolution 0");
    o = {};
    o.radiusProperty = "missing";
    expectError(o, "missing radius property");
    o = {};
    o.radius = -1.0;
    o.radiusVoxels = -1.0;
    expectError(o, "negative radius");
    o = {};
    o.channel = "";
    expectError(o, "empty channel name");
    o = {};
    o.voxelSize = std::numeric_limits<double>::quiet_NaN();
    expectError(o, "NaN voxel size");
    auto empty = Geo::createPointCloud(Quillon::Array<float3>{});
    EXPECT_THROW(hexmold::voxelizePoints(*empty, {}), hexmold::Error);
    auto mismatched = twoPoints();
    o = {};
    o.radiusProperty = "radius";
    o.resolution = 32;
    Geo::setDataGeoProperty<float>(*mismatched, "radius", Geo::sPointComp,
                                   Quillon::Array<float>{0.3f, 0.2f}, 0.0f);
    EXPECT_NO_THROW(hexmold::voxelizePoints(*mismatched, o));
}
