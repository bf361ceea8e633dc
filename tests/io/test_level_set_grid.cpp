// Tests of importLevelSet and writeLevelSetGrid against OpenVDB's own level sets and the exact
// distance of a sphere.
// Needs OpenVDB (test_volume_file.cpp checks the functions' errors without it).
#if HEXMOLD_HAVE_OPENVDB
#include "fixtures/trees.h"
#include "support/typed_traits.h"
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/io/level_set_grid.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <openvdb/io/File.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <string>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace TVL::TileTree3D;
using hexmold::io::IoError;
using Tavrel::Geometry::sVoxelComp;
using Tavrel::Geometry::sVoxelSignedDistance;
using Tavrel::Geometry::sVoxelTileTree;

class TempFolder {
public:
    TempFolder()
    {
        auto const* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = std::string(info->test_suite_name()) + "_" + info->name();
        std::replace(name.begin(), name.end(), '/', '_');
        mPath =
            fs::temp_directory_path() / ("hexmold_io_" + std::to_string(::getpid()) + "_" + name);
        fs::remove_all(mPath);
        fs::create_directories(mPath);
    }
    ~TempFolder() { fs::remove_all(mPath); }
    fs::path operator/(char const* name) const { return mPath / name; }

private:
    fs::path mPath;
};

std::string ioErrorOf(std::function<void()> const& fn)
{
    try {
        fn();
    } catch (IoError const& e) {
        return e.what();
    } catch (std::exception const& e) {
        return std::string("other exception: ") + e.what();
    }
    return "no IoError";
}

/// The sphere of the tests: radius 1, centred off the lattice, voxels of 1/16 (16 voxels across
/// the radius), OpenVDB's standard band of 3 voxels each side.
constexpr float kRadius = 1.0f;
constexpr float kVoxel = 0.0625f;
openvdb::Vec3f const kCentre(0.1f, -0.2f, 0.05f);

double sphereDistance(double x, double y, double z)
{
    double const dx = x - kCentre.x(), dy = y - kCentre.y(), dz = z - kCentre.z();
    return std::sqrt(dx * dx + dy * dy + dz * dz) - kRadius;
}

fs::path writeOpenVdbSphere(TempFolder const& folder)
{
    openvdb::initialize();
    auto sphere =
        openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(kRadius, kCentre, kVoxel);
    sphere->setName("sphere");
    fs::path const file = folder / "sphere.vdb";
    openvdb::io::File vdb(file.string());
    vdb.write({sphere});
    vdb.close();
    return file;
}

openvdb::FloatGrid::Ptr readFloatGrid(fs::path const& file, std::string const& name)
{
    openvdb::initialize();
    openvdb::io::File vdb(file.string());
    vdb.open();
    auto grid = openvdb::gridPtrCast<openvdb::FloatGrid>(vdb.readGrid(name));
    vdb.close();
    return grid;
}

template <typename Tr> class LevelSetGrid : public ::testing::Test {
};
TYPED_TEST_SUITE(LevelSetGrid, testtraits::TraitsTypes, testtraits::TraitsNames);

TYPED_TEST(LevelSetGrid, ImportedSphereKeepsTheBandAndIsATrueDistanceElsewhere)
{
    using Tr = TypeParam;
    TempFolder folder;
    fs::path const file = writeOpenVdbSphere(folder);
    auto const grid = readFloatGrid(file, "sphere");
    hexmold::io::ImportLevelSetOptions options;
    options.tree = std::is_same_v<Tr, Traits24> ? hexmold::io::TreeKind::kTraits24
                                                : hexmold::io::TreeKind::kTraits55;
    auto const volume = hexmold::io::importLevelSet(file, "", options);
    auto const tree = volume->template component<Container<Tr>>(sVoxelTileTree);
    auto const topology = volume->template component<VoxelTopology<Tr>>(sVoxelComp);
    auto const distance = volume->template component<VoxelChannel<Tr, float>>(sVoxelSignedDistance);
    ASSERT_TRUE(tree != nullptr);
    ASSERT_TRUE(topology != nullptr);
    ASSERT_TRUE(distance != nullptr);
    EXPECT_EQ(tree->voxelSize(), kVoxel);
    // OpenVDB's sphere has index (0, 0, 0) at the world origin: samples at voxel corners.
    EXPECT_EQ(topology->offsetType(), kVoxelOffsetCorner);
    EXPECT_TRUE(CoreGL::TileTree3D::checkGraded<Tr>(*tree, 0, Tr::kMaxDepth));

    // The band: every active voxel of the grid is a deepest voxel holding the grid's value.
    constexpr double kBandTol = 1e-6;
    auto acc = tree->tileAccessor();
    long long band = 0, outsideFinest = 0, bandOff = 0;
    for (auto it = grid->cbeginValueOn(); it; ++it, ++band) {
        openvdb::Coord const c = it.getCoord();
        auto const& tile = acc.tile(c.x(), c.y(), c.z(), Tr::kMaxDepth);
        if (tile.depth() != Tr::kMaxDepth) {
            ++outsideFinest;
            continue;
        }
        float const v = distance->tileData(tile.index(), tile.depth())(
            c.x() - tile.ti(), c.y() - tile.tj(), c.z() - tile.tk());
        bandOff += !(std::abs(double(v) - double(*it)) <= kBandTol);
    }
    EXPECT_GT(band, 10000);
    EXPECT_EQ(outsideFinest, 0);
    EXPECT_EQ(bandOff, 0);

    // Elsewhere: leaf voxels of every depth against the exact distance, at the sample the solves
    // give a voxel (the finest voxel at its corner), in spacings h of the voxel's depth. On depths
    // whose voxels resolve the sphere (its radius spans kResolvedVoxels) the first-order solve is
    // accurate to a voxel, as the redistance tests require. On coarser depths the sphere is in
    // effect a point source, from which first-order upwind values overestimate the distance
    // along the diagonals: the redistance tests see up to 1.8 h for shapes of a few voxels, and
    // here, where the whole sphere fits in one Traits<5,5,1> voxel, 2.7 h. The sign is exact
    // wherever the surface is farther than a voxel.
    constexpr double kResolvedVoxels = 8.0;
    constexpr double kResolvedTol = 1.0;
    constexpr double kUnresolvedTol = 3.0;
    long long checked = 0, tooFar = 0, wrongSign = 0;
    double worst = 0, worstUnresolved = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        double const h = double(Tr::voxelDataWidth(d)) * kVoxel;
        bool const resolved = kRadius >= kResolvedVoxels * h;
        for (std::int64_t t = 0; t < tree->tileCount(d); ++t) {
            auto const& tile = tree->tile(t, d);
            auto const data = distance->tileData(t, d);
            for (int k = 0; k < Tr::kTileWidth; ++k)
                for (int j = 0; j < Tr::kTileWidth; ++j)
                    for (int i = 0; i < Tr::kTileWidth; ++i) {
                        if (d < Tr::kMaxDepth && !tile.isLeaf(i, j, k))
                            continue;
                        double const w = double(tile.voxelDataWidth());
                        double const x = (tile.ti() + i * w) * kVoxel,
                                     y = (tile.tj() + j * w) * kVoxel,
                                     z = (tile.tk() + k * w) * kVoxel;
                        double const exact = sphereDistance(x, y, z);
                        if (d == Tr::kMaxDepth && std::abs(exact) < 3 * kVoxel)
                            continue; // the band
                        double const v = data(i, j, k);
                        ++checked;
                        double const e = std::abs(v - exact) / h;
                        (resolved ? worst : worstUnresolved) =
                            std::max(resolved ? worst : worstUnresolved, e);
                        tooFar += e > (resolved ? kResolvedTol : kUnresolvedTol);
                        wrongSign += std::abs(exact) > h && ((0.0 > v) != (0.0 > exact));
                    }
        }
    }
    EXPECT_GT(checked, 1000);
    EXPECT_EQ(tooFar, 0) << "worst error " << worst << " h where resolved, " << worstUnresolved
                         << " h elsewhere";
    EXPECT_LE(worst, kResolvedTol);
    EXPECT_EQ(wrongSign, 0);
}

TYPED_TEST(LevelSetGrid, WrittenGridIsALevelSetOfTheSameSurface)
{
    using Tr = TypeParam;
    TempFolder folder;
    fs::path const file = writeOpenVdbSphere(folder);
    auto const original = readFloatGrid(file, "sphere");
    hexmold::io::ImportLevelSetOptions options;
    options.tree = std::is_same_v<Tr, Traits24> ? hexmold::io::TreeKind::kTraits24
                                                : hexmold::io::TreeKind::kTraits55;
    auto const volume = hexmold::io::importLevelSet(file, "sphere", options);
    fs::path const out = folder / "written.vdb";
    hexmold::io::writeLevelSetGrid(out, *volume, sVoxelSignedDistance);

    auto const grid = readFloatGrid(out, sVoxelSignedDistance);
    ASSERT_TRUE(grid != nullptr);
    EXPECT_EQ(grid->getGridClass(), openvdb::GRID_LEVEL_SET);
    EXPECT_FLOAT_EQ(grid->background(), 3 * kVoxel);
    EXPECT_DOUBLE_EQ(grid->voxelSize()[0], double(kVoxel));
    EXPECT_EQ(grid->transform().indexToWorld(openvdb::Vec3d(2, 3, 4)),
              original->transform().indexToWorld(openvdb::Vec3d(2, 3, 4)));
    // The original band survives bit for bit where it is inside the new band.
    auto acc = grid->getConstAccessor();
    long long lost = 0;
    for (auto it = original->cbeginValueOn(); it; ++it) {
        if (!(std::abs(*it) < grid->background()))
            continue;
        float v = 0;
        lost += !acc.probeValue(it.getCoord(), v) || v != *it;
    }
    EXPECT_EQ(lost, 0);
    // Inside and outside are known away from the band.
    openvdb::Coord const centre =
        openvdb::Coord::round(grid->worldToIndex(openvdb::Vec3d(kCentre)));
    EXPECT_EQ(acc.getValue(centre), -grid->background());
    EXPECT_EQ(acc.getValue(centre.offsetBy(40, 0, 0)), grid->background());
}

/// A volume whose surface lies in tiles one depth coarser than the deepest: writeLevelSetGrid
/// samples them down to finest voxels, so the band has no holes.
TYPED_TEST(LevelSetGrid, CoarseSurfaceTilesAreSampledIntoTheBand)
{
    using Tr = TypeParam;
    TempFolder folder;
    constexpr float kVs = 0.05f;
    constexpr double kR = 1.0; // 20 finest voxels
    auto object = Command::createVoxelTVL<Tr>(sVoxelTileTree, sVoxelComp, kVs, kVoxelOffsetCenter);
    {
        auto tree = object->template extractComponent<Container<Tr>>(sVoxelTileTree);
        testtrees::buildGradedSphere<Tr>(*tree, kR / kVs, Tr::kMaxDepth - 1, 1.0);
        auto topology = object->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
        topology->update(*tree);
        object->putComponent(std::move(topology));
        object->putComponent(std::move(tree));
    }
    auto const tree = object->template component<Container<Tr>>(sVoxelTileTree);
    ASSERT_EQ(tree->tileCount(Tr::kMaxDepth), 0);
    auto exact = [&](double x, double y, double z) {
        return std::sqrt(x * x + y * y + z * z) - kR;
    };
    auto channel = Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
        sVoxelSignedDistance, *object->template component<VoxelTopology<Tr>>(sVoxelComp), *object,
        1e6f, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    // Each voxel holds the distance at its corner's finest voxel centre, where the sampler reads
    // it.
    for (int d = 0; d < Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree->tileCount(d); ++t) {
            auto const& tile = tree->tile(t, d);
            auto data = channel->tileData(t, d);
            double const w = double(tile.voxelDataWidth());
            for (int k = 0; k < Tr::kTileWidth; ++k)
                for (int j = 0; j < Tr::kTileWidth; ++j)
                    for (int i = 0; i < Tr::kTileWidth; ++i)
                        data(i, j, k) = float(exact((tile.ti() + i * w + 0.5) * kVs,
                                                    (tile.tj() + j * w + 0.5) * kVs,
                                                    (tile.tk() + k * w + 0.5) * kVs));
        }
    fs::path const out = folder / "coarse.vdb";
    hexmold::io::writeLevelSetGrid(out, *object, sVoxelSignedDistance);
    auto const grid = readFloatGrid(out, sVoxelSignedDistance);
    ASSERT_TRUE(grid != nullptr);
    float const bg = grid->background();
    // Trilinear interpolation of a sphere's distance at spacing H errs by at most about
    // 3 H^2 / (8 r); a finest voxel then counts as in the band within that of the band's edge.
    double const H = double(Tr::voxelDataWidth(Tr::kMaxDepth - 1)) * kVs;
    double const kInterpTol = 3 * H * H / (8 * kR) + 1e-6;
    auto acc = grid->getConstAccessor();
    long long missing = 0, extra = 0, wrong = 0, inBand = 0;
    int const n = int(std::ceil((kR + 4 * kVs) / kVs)) + 1;
    for (int z = -n; z <= n; ++z)
        for (int y = -n; y <= n; ++y)
            for (int x = -n; x <= n; ++x) {
                double const e = exact((x + 0.5) * kVs, (y + 0.5) * kVs, (z + 0.5) * kVs);
                float v = 0;
                bool const active = acc.probeValue(openvdb::Coord(x, y, z), v);
                inBand += std::abs(e) < bg;
                missing += !active && std::abs(e) < bg - kInterpTol;
                extra += active && std::abs(e) > bg + kInterpTol;
                wrong += active && std::abs(double(v) - e) > kInterpTol;
            }
    EXPECT_GT(inBand, 5000);
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(extra, 0);
    EXPECT_EQ(wrong, 0);
}

// ---- refusals ---------------------------------------------------------------------------------

TEST(LevelSetGridErrors, ImportRefusesWhatIsNoLevelSet)
{
    TempFolder folder;
    fs::path const sphere = writeOpenVdbSphere(folder);
    std::string const missing = ioErrorOf([&] { hexmold::io::importLevelSet(sphere, "nope"); });
    EXPECT_NE(missing.find("holds no grid named 'nope'"), std::string::npos) << missing;

    auto fog =
        openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(1.0f, openvdb::Vec3f(0), 0.1f);
    fog->setGridClass(openvdb::GRID_FOG_VOLUME);
    fog->setName("fog");
    auto stretched =
        openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(1.0f, openvdb::Vec3f(0), 0.1f);
    stretched->setTransform(openvdb::math::Transform::createLinearTransform(openvdb::Mat4R(
        0.1, 0.0, 0.0, 0.0, 0.0, 0.2, 0.0, 0.0, 0.0, 0.0, 0.1, 0.0, 0.0, 0.0, 0.0, 1.0)));
    stretched->setName("stretched");
    auto shifted =
        openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(1.0f, openvdb::Vec3f(0), 0.1f);
    shifted->transform().postTranslate(openvdb::Vec3d(0.03, 0, 0));
    shifted->setName("shifted");
    auto vector = openvdb::Vec3SGrid::create();
    vector->setName("vector");
    openvdb::io::File vdb((folder / "grids.vdb").string());
    vdb.write({fog, stretched, shifted, vector});
    vdb.close();
    auto error = [&](char const* name) {
        return ioErrorOf([&] { hexmold::io::importLevelSet(folder / "grids.vdb", name); });
    };
    EXPECT_NE(error("fog").find("not a level set"), std::string::npos) << error("fog");
    EXPECT_NE(error("stretched").find("scaled unequally"), std::string::npos) << error("stretched");
    EXPECT_NE(error("shifted").find("off the whole and half voxels"), std::string::npos)
        << error("shifted");
    EXPECT_NE(error("vector").find("not a float grid"), std::string::npos) << error("vector");
    openvdb::io::File fogOnly((folder / "fog.vdb").string());
    fogOnly.write({fog, vector});
    fogOnly.close();
    std::string const noLevelSet =
        ioErrorOf([&] { hexmold::io::importLevelSet(folder / "fog.vdb"); });
    EXPECT_NE(noLevelSet.find("holds no level-set float grid"), std::string::npos) << noLevelSet;

    std::string const absent =
        ioErrorOf([&] { hexmold::io::importLevelSet(folder / "absent.vdb"); });
    EXPECT_NE(absent.find("no such file"), std::string::npos) << absent;
}

TEST(LevelSetGridErrors, ImportSendsVolumeFilesToReadVolume)
{
    TempFolder folder;
    fs::path const sphere = writeOpenVdbSphere(folder);
    auto const volume = hexmold::io::importLevelSet(sphere);
    fs::path const file = folder / "volume.vdb";
    hexmold::io::writeVolume(file, *volume);
    std::string const message = ioErrorOf([&] { hexmold::io::importLevelSet(file); });
    EXPECT_NE(message.find("readVolume"), std::string::npos) << message;
}

TEST(LevelSetGridErrors, WriteNeedsAFloatChannel)
{
    TempFolder folder;
    auto object =
        Command::createVoxelTVL<Traits24>(sVoxelTileTree, sVoxelComp, 0.1f, kVoxelOffsetCenter);
    std::string const none =
        ioErrorOf([&] { hexmold::io::writeLevelSetGrid(folder / "x.vdb", *object, "phi"); });
    EXPECT_NE(none.find("no channel 'phi'"), std::string::npos) << none;
    Command::createChannel<int, 2, 4, 4, 0>(
        "phi", *object->component<VoxelTopology<Traits24>>(sVoxelComp), *object, 0,
        kDataElementInitializerDefaultValue, 0, Traits24::kMaxDepth);
    std::string const typed =
        ioErrorOf([&] { hexmold::io::writeLevelSetGrid(folder / "x.vdb", *object, "phi"); });
    EXPECT_NE(typed.find("not a float voxel channel"), std::string::npos) << typed;
}

} // namespace

#endif // HEXMOLD_HAVE_OPENVDB
