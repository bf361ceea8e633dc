// hexmold::voxelizeMesh: the same tiles and bits as voxelizeMesh called directly on both tree
// types, a point property carried into a channel, and every refused input.
#include "support/api_volumes.h"
#include "support/meshes.h"
#include <cmath>
#include <gtest/gtest.h>
#include <hexmold/api/error.h>
#include <hexmold/api/voxelize_mesh.h>
#include <hexmold/platform/quillon/runtime_services.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/voxelize/mesh/voxelize_mesh.h>
#include <string>

using namespace testapi;
using hexmold::Volume;
namespace Geo = Tavrel::Geometry;

namespace {

template <typename Tr> class VoxelizeMeshApi : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(VoxelizeMeshApi, TraitsTypes, TraitsNames);

struct Mesh {
    Quillon::Array<float3> positions;
    Quillon::Array<unsigned int> faceVertex, faceOffset{0};
    Quillon::MutablePtr<Tavrel::Object> object;
};

Mesh sphere()
{
    Mesh m;
    testmeshes::TriangleMesh const t = testmeshes::icosphere({0.01f, -0.02f, 0.03f}, 1.0, 3);
    m.positions = t.positions;
    for (auto const& tri : t.triangles) {
        m.faceVertex.insert(m.faceVertex.end(),
                            {unsigned(tri.x), unsigned(tri.y), unsigned(tri.z)});
        m.faceOffset.push_back(unsigned(m.faceVertex.size()));
    }
    m.object = Geo::createMesh(m.positions, m.faceVertex, m.faceOffset);
    return m;
}

class Quiet : public Quillon::RuntimeServices {
public:
    bool isLogEnabled(Quillon::RuntimeMessageCategory) const override { return false; }
    void logImpl(Quillon::RuntimeMessageCategory, Quillon::StringView) const override {}
};

} // namespace

TYPED_TEST(VoxelizeMeshApi, SameTilesAndBitsAsTheDirectCall)
{
    using Tr = TypeParam;
    Mesh const m = sphere();
    hexmold::VoxelizeMeshOptions o;
    o.traits = kindOf<Tr>();
    o.resolution = 40;
    Volume const api = hexmold::voxelizeMesh(*m.object, o);

    // By hand: the same volume object, the driver called on its components.
    double const h = 2.0 / 40.0; // the icosphere's box is 2 across
    EXPECT_NEAR(api.voxelSize(), h, 1e-6);
    auto byHand = TVL::TileTree3D::Command::createVoxelTVL<Tr>("voxel_tile_tree", "voxel_topology",
                                                               float(api.voxelSize()),
                                                               TVL::TileTree3D::kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<TVL::TileTree3D::VoxelTopology<Tr>> topology(*byHand, "voxel_topology");
        TVL::TileTree3D::Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth,
                                                0>(
            hexmold::kDistanceChannel, *topology, *byHand, o.background,
            TVL::TileTree3D::kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    }
    {
        Quiet services;
        TVL::ComponentGuard<TVL::TileTree3D::Container<Tr>> tree(*byHand, "voxel_tile_tree");
        TVL::ComponentGuard<TVL::TileTree3D::VoxelTopology<Tr>> topology(*byHand, "voxel_topology");
        TVL::ComponentGuard<TVL::TileTree3D::VoxelChannel<Tr, float>> distance(
            *byHand, hexmold::kDistanceChannel);
        VolumeGL::TileTree3D::voxelizeMesh<Tr>(
            *m.object, m.positions, m.faceVertex, m.faceOffset, "", nullptr, true,
            VolumeGL::TileTree3D::AdaptivityMaxRelativeError, 0.0f, 0.0f, 0.0f, nullptr, *tree,
            *topology, *distance, *byHand, services);
    }
    EXPECT_TRUE(sameBits<Tr>(api.object(), *byHand));
    EXPECT_EQ(hashOnOneThread<Tr>(api.object()), hashOnOneThread<Tr>(*byHand));
    EXPECT_GT(api.voxelCount(), 0u);
}

TEST(VoxelizeMeshApi, CarriesAPointPropertyIntoAChannel)
{
    Mesh const m = sphere();
    Quillon::Array<float> t(m.positions.size());
    for (std::size_t p = 0; p < t.size(); ++p)
        t[p] = m.positions[p].z;
    ASSERT_TRUE(Geo::setDataGeoProperty<float>(*m.object, "temperature", Geo::sPointComp, t, 0.0f));
    hexmold::VoxelizeMeshOptions o;
    o.resolution = 32;
    o.properties = "temperature";
    Volume const v = hexmold::voxelizeMesh(*m.object, o);
    bool found = false;
    for (auto const& c : v.channels())
        found = found || (c.name == "voxel_temperature" && c.elementType == "float");
    EXPECT_TRUE(found);
    // A voxel next to the top of the sphere reads a temperature near 1.
    auto const& ch = channelOf<Traits24>(v.object(), "voxel_temperature");
    auto const& tree = treeOf<Traits24>(v.object());
    auto const& dist = channelOf<Traits24>(v.object());
    double best = -1.0;
    for (std::int64_t q = 0; q < tree.tileCount(Traits24::kMaxDepth); ++q)
        for (int n = 0; n < Traits24::kTileSize; ++n)
            if (std::abs(dist.tileData(q, Traits24::kMaxDepth)[std::size_t(n)]) <
                0.5f * float(v.voxelSize()))
                best = std::max(best, double(ch.tileData(q, Traits24::kMaxDepth)[std::size_t(n)]));
    EXPECT_GT(best, 0.95);
    EXPECT_LE(best, 1.05);
}

TEST(VoxelizeMeshApi, RefusesWhatIsNotAMeshAndBadOptions)
{
    auto const cloud = Geo::createPointCloud({{0, 0, 0}, {1, 0, 0}});
    EXPECT_EQ(
        errorOf([&] { hexmold::voxelizeMesh(*cloud); }),
        "hexmold::voxelizeMesh: the object is not a polygon mesh with point positions and faces");
    Mesh const m = sphere();
    hexmold::VoxelizeMeshOptions o;
    o.resolution = 0;
    EXPECT_EQ(errorOf([&] { hexmold::voxelizeMesh(*m.object, o); }),
              "hexmold::voxelizeMesh: the resolution must be positive, not 0");
    o = {};
    o.holeRadius = -1.0;
    EXPECT_EQ(errorOf([&] { hexmold::voxelizeMesh(*m.object, o); }),
              "hexmold::voxelizeMesh: the hole radius, thickening and error tolerance must not be "
              "negative");
    o = {};
    o.channel = "";
    EXPECT_EQ(errorOf([&] { hexmold::voxelizeMesh(*m.object, o); }),
              "hexmold::voxelizeMesh: the distance channel's name is empty");
    o = {};
    o.voxelSize = std::nan("");
    EXPECT_NE(errorOf([&] { hexmold::voxelizeMesh(*m.object, o); }).find("hexmold::voxelizeMesh"),
              std::string::npos);
    // A mesh of one point repeated has no extent.
    auto const dot = Geo::createMesh({{1, 1, 1}, {1, 1, 1}, {1, 1, 1}}, {0, 1, 2}, {0, 3});
    ASSERT_TRUE(dot);
    EXPECT_EQ(errorOf([&] { hexmold::voxelizeMesh(*dot); }),
              "hexmold::voxelizeMesh: the mesh has no extent to divide into voxels");
}
