// hexmold::redistance: the same bits as levelSetRedistance called directly (classical recursion,
// adaptive sweep on the degrees of freedom, re-initialization), the distance recovered from a
// field right only near the surface, copies left alone, and every refused input.
#include "support/api_volumes.h"
#include <cfloat>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/error.h>
#include <hexmold/api/redistance.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <memory>
#include <string>

using namespace testapi;
using namespace VolumeGL::TileTree3D::LevelSet;
using hexmold::RedistanceOptions;
using hexmold::Volume;

namespace {

template <typename Tr> class RedistanceApi : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(RedistanceApi, TraitsTypes, TraitsNames);

constexpr double kRadius = 1.0;
constexpr double kVoxel = 0.1;

/// A sphere's level set turned into a field with the same zero set that is right only at the
/// surface: d + d^2 / (2 r).
template <typename Tr>
Volume distortedSphere(hexmold::TreeLayout layout = hexmold::TreeLayout::kAdaptive)
{
    hexmold::LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = kVoxel;
    o.layout = layout;
    Volume v = hexmold::createLevelSetSphere({0, 0, 0}, kRadius, o);
    rewrite<Tr>(v.object(), [](float d) { return float(d + double(d) * d / (2 * kRadius)); });
    return v;
}

/// levelSetRedistance on the distance channel of @p io_object, with the arguments of @p o.
template <typename Tr> void direct(TVL::Object& io_object, RedistanceOptions const& o)
{
    auto const& tree = treeOf<Tr>(io_object);
    auto const& topology = topologyOf<Tr>(io_object);
    std::unique_ptr<VoxelChannel<Tr, short>> dof;
    if (o.degreesOfFreedom) {
        short const zero = 0;
        dof = std::make_unique<VoxelChannel<Tr, short>>(
            "", &zero, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
        dof->update(topology);
        classifyDegreesOfFreedom<Tr>(tree, *dof);
    }
    TVL::ComponentGuard<VoxelChannel<Tr, float>> phi(io_object, hexmold::kDistanceChannel);
    levelSetRedistance<Tr>(
        tree, topology, *phi, o.interior, o.exterior, o.overwriteSurface, o.minDepth,
        o.maxDepth < 0 ? Tr::kMaxDepth : o.maxDepth, nullptr, nullptr, o.tolerance, o.interiorBand,
        o.exteriorBand, o.preSmoothingPasses, o.postSmoothingPasses, o.haloByExtrapolation,
        o.coalesced, dof.get(), "direct",
        o.method == hexmold::RedistanceMethod::kReInitialize ? kRedistanceReInitialize
                                                             : kRedistanceSweeping);
}

template <typename Tr> void expectSameBits(RedistanceOptions const& o)
{
    Volume api = distortedSphere<Tr>();
    Volume const original = api;
    double const before = hashOnOneThread<Tr>(original.object());
    TVL::Object byHand = original.object();
    hexmold::redistance(api, o);
    direct<Tr>(byHand, o);
    EXPECT_EQ(hashOnOneThread<Tr>(api.object()), hashOnOneThread<Tr>(byHand));
    EXPECT_TRUE(sameBits<Tr>(api.object(), byHand));
    EXPECT_NE(hashOnOneThread<Tr>(api.object()), before) << "the field was redistanced";
    EXPECT_EQ(hashOnOneThread<Tr>(original.object()), before)
        << "a copy of the volume is left alone";
}

} // namespace

TYPED_TEST(RedistanceApi, SameBitsAsTheDirectCall)
{
    expectSameBits<TypeParam>(RedistanceOptions{});
}

TYPED_TEST(RedistanceApi, SameBitsAsTheDirectCallOnTheDegreesOfFreedom)
{
    RedistanceOptions o;
    o.degreesOfFreedom = true;
    o.preSmoothingPasses = 4;
    o.postSmoothingPasses = 4;
    expectSameBits<TypeParam>(o);
}

TYPED_TEST(RedistanceApi, SameBitsAsTheDirectCallReInitializing)
{
    RedistanceOptions o;
    o.method = hexmold::RedistanceMethod::kReInitialize;
    o.degreesOfFreedom = true;
    o.preSmoothingPasses = 3;
    o.postSmoothingPasses = 2;
    expectSameBits<TypeParam>(o);
}

TYPED_TEST(RedistanceApi, RecoversTheDistanceNearTheSurface)
{
    using Tr = TypeParam;
    Volume v = distortedSphere<Tr>(hexmold::TreeLayout::kNarrowBand);
    hexmold::redistance(v);
    auto const& tree = treeOf<Tr>(v.object());
    auto const& phi = channelOf<Tr>(v.object());
    double const h = tree.voxelSize();
    // First-order upwind sweeps from a surface placed to second order: within a fifth of a voxel
    // in the three voxels nearest the surface on either side.
    constexpr double kNearSurfaceTol = 0.2;
    double worst = 0;
    int const d = Tr::kMaxDepth;
    for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
        auto const& tile = tree.tile(t, d);
        auto const data = phi.tileData(t, d);
        for (int k = 0; k < Tr::kTileWidth; ++k)
            for (int j = 0; j < Tr::kTileWidth; ++j)
                for (int i = 0; i < Tr::kTileWidth; ++i) {
                    double const x = (tile.ti() + i + 0.5) * h, y = (tile.tj() + j + 0.5) * h,
                                 z = (tile.tk() + k + 0.5) * h;
                    double const exact = std::sqrt(x * x + y * y + z * z) - kRadius;
                    if (std::abs(exact) <= 3 * h)
                        worst = std::max(worst, std::abs(data(i, j, k) - exact) / h);
                }
    }
    EXPECT_LE(worst, kNearSurfaceTol);
}

TEST(RedistanceApi, RefusesAnEmptyVolume)
{
    Volume empty;
    EXPECT_EQ(errorOf([&] { hexmold::redistance(empty); }),
              "hexmold::redistance: the volume is empty (it holds no tile tree)");
    Volume noTiles =
        Volume::adopt(Command::createVoxelTVL<Traits24>("", "", 0.1f, kVoxelOffsetCenter));
    EXPECT_EQ(errorOf([&] { hexmold::redistance(noTiles); }),
              "hexmold::redistance: the volume's tree has no tiles");
}

TEST(RedistanceApi, RefusesAMissingChannel)
{
    Volume v = distortedSphere<Traits24>();
    RedistanceOptions o;
    o.channel = "phi";
    EXPECT_EQ(errorOf([&] { hexmold::redistance(v, o); }),
              "hexmold::redistance: channel \"phi\" is not in the volume (channels: "
              "voxel_signed_distance)");
    o = {};
    o.mask = "mask";
    EXPECT_EQ(errorOf([&] { hexmold::redistance(v, o); }),
              "hexmold::redistance: channel \"mask\" is not in the volume (channels: "
              "voxel_signed_distance)");
}

TEST(RedistanceApi, RefusesAChannelOfAnotherElementType)
{
    Volume v = distortedSphere<Traits55>();
    Command::createChannel<double, 5, 5, 5, 0>("phi", topologyOf<Traits55>(v.object()), v.object(),
                                               0.0, kDataElementInitializerDefaultValue, 0,
                                               Traits55::kMaxDepth);
    RedistanceOptions o;
    o.channel = "phi";
    EXPECT_EQ(errorOf([&] { hexmold::redistance(v, o); }),
              "hexmold::redistance: channel \"phi\" holds double elements; hexmold::redistance "
              "takes a float channel "
              "with one element per voxel");
    o = {};
    o.mask = "voxel_topology";
    EXPECT_EQ(errorOf([&] { hexmold::redistance(v, o); }),
              "hexmold::redistance: \"voxel_topology\" is not a channel; hexmold::redistance takes "
              "a float mask "
              "channel");
}

TEST(RedistanceApi, RefusesBadOptions)
{
    Volume v = distortedSphere<Traits24>();
    auto with = [&](std::function<void(RedistanceOptions&)> const& change) {
        RedistanceOptions o;
        change(o);
        return errorOf([&] { hexmold::redistance(v, o); });
    };
    EXPECT_EQ(with([](RedistanceOptions& o) {
                  o.minDepth = 5;
                  o.maxDepth = 4;
              }),
              "hexmold::redistance: depth range [5, 4] is not within [0, 28] of Traits24 with the "
              "minimum at most "
              "the maximum");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.maxDepth = 29; }),
              "hexmold::redistance: depth range [0, 29] is not within [0, 28] of Traits24 with the "
              "minimum at most "
              "the maximum");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.minDepth = -1; }),
              "hexmold::redistance: depth range [-1, -1] is not within [0, 28] of Traits24 with "
              "the minimum at most "
              "the maximum");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.tolerance = 0.0f; }),
              "hexmold::redistance: the tolerance must be positive, not 0.000000");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.tolerance = NAN; }),
              "hexmold::redistance: the tolerance is nan, not a finite number");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.interiorBand = -1.0f; }),
              "hexmold::redistance: the interior band must be positive, not -1.000000");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.exteriorBand = INFINITY; }),
              "hexmold::redistance: the exterior band is inf, not a finite number");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.postSmoothingPasses = -1; }),
              "hexmold::redistance: the pass counts (10, -1) must not be negative");
    EXPECT_EQ(with([](RedistanceOptions& o) { o.method = hexmold::RedistanceMethod(2); }),
              "hexmold::redistance: unknown method 2");
}
