// levelSetRedistance against OpenVDB's tools::sdfToSdf (an independent fast-sweeping solver) on
// the same voxels: the deepest voxels of a uniform band, holding a field that is right only at
// its zero set. Our mean error near the surface must be no worse. Skipped without OpenVDB.
#include <gtest/gtest.h>

#include "fixtures/level_set_scenes.h"
#include <cmath>
#include <cstdio>
#include <string>

#if HEXMOLD_HAVE_OPENVDB
#include <openvdb/openvdb.h>
#include <openvdb/tools/FastSweeping.h>
#endif

using namespace TVL::TileTree3D;
using namespace testlevelset;

namespace {

template <typename Tr> class LevelSetRedistanceOracle : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(LevelSetRedistanceOracle, TraitsTypes, TraitsNames);

constexpr float kVoxel = 0.025f;
constexpr double kBandVoxels = 8.0;
/// Our mean may exceed the peer's by float rounding only.
constexpr double kMeanSlack = 1e-4;

#if HEXMOLD_HAVE_OPENVDB
/// Redistances @p shape's field on a uniform band with both of our paths and with sdfToSdf, and
/// compares the mean errors of the deepest voxels within 3 voxels of the surface.
template <typename Tr> void compareWithOpenVDB(Shape const& shape)
{
    constexpr int W = Tr::kTileWidth;
    int const deepest = Tr::kMaxDepth;
    LevelSetScene<Tr> s(kVoxel);
    s.buildUniformBand(shape, kBandVoxels);
    auto const in = s.makeChannel(shape.field);

    openvdb::initialize();
    auto grid = openvdb::FloatGrid::create(float(kBandVoxels * kVoxel));
    grid->setTransform(openvdb::math::Transform::createLinearTransform(kVoxel));
    grid->setGridClass(openvdb::GRID_LEVEL_SET);
    {
        auto acc = grid->getAccessor();
        for (std::int64_t t = 0; t < s.tree.tileCount(deepest); ++t) {
            auto const& tile = s.tree.tile(t, deepest);
            auto const td = in->tileData(t, deepest);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        acc.setValueOn(openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k),
                                       td(i, j, k));
        }
    }
    auto const peer = openvdb::tools::sdfToSdf(*grid);
    auto peerAcc = peer->getConstAccessor();

    // Voxel (i, j, k) of a deepest tile has its centre at index-space coordinate ti + i + 0.5,
    // while OpenVDB puts voxel ti + i at world (ti + i) * h: both hold the same sample values,
    // so the exact distance is taken at our centre for both.
    ErrorStats peerNear;
    for (std::int64_t t = 0; t < s.tree.tileCount(deepest); ++t) {
        auto const& tile = s.tree.tile(t, deepest);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    auto const p = voxelCentre(tile, i, j, k, s.voxelSize());
                    double const exact = shape.distance(p[0], p[1], p[2]);
                    if (std::abs(exact) > Accuracy<Tr>::kNearSurface * kVoxel)
                        continue;
                    float const v = peerAcc.getValue(
                        openvdb::Coord(tile.ti() + i, tile.tj() + j, tile.tk() + k));
                    peerNear.add(std::abs(double(v) - exact) / kVoxel);
                }
    }

    auto const dof = s.makeDOF();
    for (bool useDOF : {false, true}) {
        VoxelChannel<Tr, float> out(*in);
        RedistanceCall<Tr> call;
        call.dof = useDOF ? dof.get() : nullptr;
        call.run(s, out);
        auto const ours = measure(s, out, *in, shape).allNearSurface();
        std::printf(
            "  %s %s, %s: mean error within 3 voxels: ours %.4f h (max %.4f h, %lld voxels), "
            "OpenVDB sdfToSdf %.4f h (max %.4f h, %lld voxels)\n",
            std::is_same_v<Tr, Traits24> ? "Traits24" : "Traits55", shape.name.c_str(),
            useDOF ? "DOF sweep" : "recursion", ours.mean(), ours.max, ours.n, peerNear.mean(),
            peerNear.max, peerNear.n);
        EXPECT_EQ(ours.n, peerNear.n);
        EXPECT_LE(ours.mean(), peerNear.mean() + kMeanSlack)
            << (useDOF ? "DOF sweep" : "recursion");
    }
}
#endif

} // namespace

TYPED_TEST(LevelSetRedistanceOracle, SphereNoWorseThanOpenVDBSdfToSdf)
{
#if !HEXMOLD_HAVE_OPENVDB
    GTEST_SKIP() << "OpenVDB not available";
#else
    compareWithOpenVDB<TypeParam>(sphere(40.0 * kVoxel));
#endif
}

TYPED_TEST(LevelSetRedistanceOracle, TorusNoWorseThanOpenVDBSdfToSdf)
{
#if !HEXMOLD_HAVE_OPENVDB
    GTEST_SKIP() << "OpenVDB not available";
#else
    compareWithOpenVDB<TypeParam>(torus(26.0 * kVoxel, 10.0 * kVoxel));
#endif
}

TYPED_TEST(LevelSetRedistanceOracle, BoxNoWorseThanOpenVDBSdfToSdf)
{
#if !HEXMOLD_HAVE_OPENVDB
    GTEST_SKIP() << "OpenVDB not available";
#else
    compareWithOpenVDB<TypeParam>(box(30.3 * kVoxel, 22.6 * kVoxel, 16.2 * kVoxel, 0.3 * kVoxel,
                                      -0.2 * kVoxel, 0.1 * kVoxel, kVoxel));
#endif
}
