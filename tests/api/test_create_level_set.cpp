// The level-set factories: every voxel holds the exact signed distance at its sample, the linear
// sampler reads the analytic distance near the surface, the band is made of deepest tiles, the
// tree is graded; both tree types and both layouts; every refused input.
#include "support/api_volumes.h"
#include <algorithm>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/error.h>
#include <hexmold/api/sample.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace testapi;
using hexmold::LevelSetOptions;
using hexmold::TreeLayout;
using hexmold::Volume;
using Tavrel::Math::double3;

namespace {

template <typename Tr> class CreateLevelSet : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(CreateLevelSet, TraitsTypes, TraitsNames);

constexpr double kVoxel = 0.1; ///< finest voxel of the shapes below, world units

/// A shape as the tests know it: the factory call and the analytic distance, written here
/// independently of the library.
struct Case {
    std::string name;
    std::function<Volume(LevelSetOptions const&)> make;
    std::function<double(double3 const&)> distance;
    double3 lo, hi;  ///< a box holding the shape
    double feature;  ///< smallest radius of curvature of the smooth part, world units
    bool sharpEdges; ///< the box: the distance has kinks inside
};

std::vector<Case> cases()
{
    double3 const c{0.3, -0.2, 0.1};
    return {
        {"sphere",
         [c](LevelSetOptions const& o) { return hexmold::createLevelSetSphere(c, 1.0, o); },
         [c](double3 const& p) { return std::hypot(p.x - c.x, p.y - c.y, p.z - c.z) - 1.0; },
         {c.x - 1.0, c.y - 1.0, c.z - 1.0},
         {c.x + 1.0, c.y + 1.0, c.z + 1.0},
         1.0,
         false},
        {"box",
         [](LevelSetOptions const& o) {
             return hexmold::createLevelSetBox({-0.5, -0.7, -0.3}, {0.9, 0.6, 0.8}, o);
         },
         [](double3 const& p) {
             // Distance to the faces: outside, the length of the excess over the box; inside, the
             // nearest face.
             double const lo[3] = {-0.5, -0.7, -0.3}, hi[3] = {0.9, 0.6, 0.8},
                          q[3] = {p.x, p.y, p.z};
             double out2 = 0, in = -1e30;
             for (int a = 0; a < 3; ++a) {
                 double const e = std::max(lo[a] - q[a], q[a] - hi[a]);
                 if (e > 0)
                     out2 += e * e;
                 in = std::max(in, e);
             }
             return out2 > 0 ? std::sqrt(out2) : in;
         },
         {-0.5, -0.7, -0.3},
         {0.9, 0.6, 0.8},
         0.55,
         true},
        {"torus",
         [](LevelSetOptions const& o) {
             return hexmold::createLevelSetTorus({0.0, 0.1, 0.0}, 1.0, 0.4, o);
         },
         [](double3 const& p) {
             double const rho = std::hypot(p.x, p.y - 0.1) - 1.0;
             return std::hypot(rho, p.z) - 0.4;
         },
         {-1.4, -1.3, -0.4},
         {1.4, 1.5, 0.4},
         0.4,
         false},
    };
}

template <typename Tr> LevelSetOptions options(TreeLayout layout)
{
    LevelSetOptions o;
    o.traits = kindOf<Tr>();
    o.voxelSize = kVoxel;
    o.layout = layout;
    return o;
}

/// Points spread over the shape's box widened by @p margin, where |distance| <= @p band.
std::vector<double3> pointsNearSurface(Case const& c, double band, double margin, int wanted)
{
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> x(c.lo.x - margin, c.hi.x + margin),
        y(c.lo.y - margin, c.hi.y + margin), z(c.lo.z - margin, c.hi.z + margin);
    std::vector<double3> out;
    while (int(out.size()) < wanted) {
        double3 const p{x(rng), y(rng), z(rng)};
        if (std::abs(c.distance(p)) <= band)
            out.push_back(p);
    }
    return out;
}

} // namespace

TYPED_TEST(CreateLevelSet, EveryVoxelHoldsTheExactDistanceAtItsSample)
{
    using Tr = TypeParam;
    for (TreeLayout layout : {TreeLayout::kNarrowBand, TreeLayout::kAdaptive})
        for (Case const& c : cases()) {
            SCOPED_TRACE(c.name +
                         (layout == TreeLayout::kAdaptive ? ", adaptive" : ", narrow band"));
            Volume const v = c.make(options<Tr>(layout));
            auto const& tree = treeOf<Tr>(v.object());
            auto const& phi = channelOf<Tr>(v.object());
            double const h = tree.voxelSize();
            double worst = 0;
            for (int d = 0; d <= Tr::kMaxDepth; ++d)
                for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                    auto const& tile = tree.tile(t, d);
                    auto const data = phi.tileData(t, d);
                    double const w = double(tile.voxelDataWidth());
                    for (int k = 0; k < Tr::kTileWidth; ++k)
                        for (int j = 0; j < Tr::kTileWidth; ++j)
                            for (int i = 0; i < Tr::kTileWidth; ++i) {
                                // The centre of the finest voxel at the voxel's lowest corner.
                                double3 const p{(tile.ti() + i * w + 0.5) * h,
                                                (tile.tj() + j * w + 0.5) * h,
                                                (tile.tk() + k * w + 0.5) * h};
                                double const exact = c.distance(p);
                                // Float rounding of the value, relative.
                                worst = std::max(worst, std::abs(data(i, j, k) - exact) /
                                                            std::max(1.0, std::abs(exact)));
                            }
                }
            EXPECT_LE(worst, 1e-6);
        }
}

TYPED_TEST(CreateLevelSet, SamplerReadsTheAnalyticDistanceNearTheSurface)
{
    using Tr = TypeParam;
    for (TreeLayout layout : {TreeLayout::kNarrowBand, TreeLayout::kAdaptive})
        for (Case const& c : cases()) {
            SCOPED_TRACE(c.name +
                         (layout == TreeLayout::kAdaptive ? ", adaptive" : ", narrow band"));
            Volume const v = c.make(options<Tr>(layout));
            double const h = v.voxelSize();
            // Trilinear interpolation misses a function by at most 3/8 h^2 times the largest second
            // derivative, here the curvature 1 / (feature - 1.5 h) of the level sets within the
            // band; across the kinks inside a box, by up to half a voxel.
            double const tol = c.sharpEdges ? 0.5 * h : 0.375 * h * h / (c.feature - 1.5 * h);
            std::vector<double3> const points = pointsNearSurface(c, 1.5 * h, 0.2, 400);
            std::vector<float> const values = hexmold::sample(v, points);
            ASSERT_EQ(values.size(), points.size());
            double worst = 0;
            for (std::size_t n = 0; n < points.size(); ++n)
                worst = std::max(worst, std::abs(double(values[n]) - c.distance(points[n])));
            EXPECT_LE(worst, tol);
        }
}

TYPED_TEST(CreateLevelSet, BandLiesInDeepestTiles)
{
    using Tr = TypeParam;
    for (TreeLayout layout : {TreeLayout::kNarrowBand, TreeLayout::kAdaptive})
        for (Case const& c : cases()) {
            SCOPED_TRACE(c.name +
                         (layout == TreeLayout::kAdaptive ? ", adaptive" : ", narrow band"));
            LevelSetOptions const o = options<Tr>(layout);
            Volume const v = c.make(o);
            double const h = v.voxelSize();
            double const band =
                (layout == TreeLayout::kNarrowBand ? o.bandVoxels : o.bandTiles * Tr::kTileWidth) *
                h;
            auto acc = treeOf<Tr>(v.object()).tileAccessor();
            int shallower = 0;
            for (double3 const& p : pointsNearSurface(c, band, band, 400)) {
                auto const& tile =
                    acc.tile(std::int64_t(std::floor(p.x / h)), std::int64_t(std::floor(p.y / h)),
                             std::int64_t(std::floor(p.z / h)), Tr::kMaxDepth);
                shallower += tile.valid() && tile.depth() == Tr::kMaxDepth ? 0 : 1;
            }
            EXPECT_EQ(shallower, 0);
        }
}

TYPED_TEST(CreateLevelSet, TreeIsGraded)
{
    using Tr = TypeParam;
    for (TreeLayout layout : {TreeLayout::kNarrowBand, TreeLayout::kAdaptive})
        for (Case const& c : cases()) {
            SCOPED_TRACE(c.name +
                         (layout == TreeLayout::kAdaptive ? ", adaptive" : ", narrow band"));
            Volume const v = c.make(options<Tr>(layout));
            EXPECT_TRUE(CoreGL::TileTree3D::checkGraded(treeOf<Tr>(v.object()), 0, Tr::kMaxDepth));
        }
}

TYPED_TEST(CreateLevelSet, AWiderBandHoldsMoreDeepestTiles)
{
    using Tr = TypeParam;
    LevelSetOptions o = options<Tr>(TreeLayout::kNarrowBand);
    std::int64_t const narrow =
        hexmold::createLevelSetSphere({0, 0, 0}, 1.0, o).tilesPerDepth().back();
    o.bandVoxels = 8.0;
    std::int64_t const wide =
        hexmold::createLevelSetSphere({0, 0, 0}, 1.0, o).tilesPerDepth().back();
    EXPECT_GT(wide, narrow);
}

TEST(CreateLevelSet, DefaultVoxelIsATenthOfTheSmallestFeature)
{
    EXPECT_EQ(hexmold::createLevelSetSphere({0, 0, 0}, 2.0).voxelSize(), 0.2f);
    EXPECT_EQ(hexmold::createLevelSetBox({0, 0, 0}, {1.0, 2.0, 3.0}).voxelSize(), 0.05f);
    EXPECT_EQ(hexmold::createLevelSetTorus({0, 0, 0}, 2.0, 0.5).voxelSize(), 0.05f);
}

TEST(CreateLevelSet, ChannelTakesTheNameAndBackgroundAsked)
{
    LevelSetOptions o;
    o.channel = "phi";
    o.background = 4.0f;
    Volume const v = hexmold::createLevelSetSphere({0, 0, 0}, 1.0, o);
    EXPECT_EQ(channelOf<Traits24>(v.object(), "phi").defaultValue(), 4.0f);
    // Far from every tile, a sample reads the background.
    EXPECT_EQ(hexmold::sample(v, double3{1000.0, 0.0, 0.0}, {"phi"}), 4.0f);
}

TEST(CreateLevelSet, RefusesBadSizes)
{
    double const nan = std::nan("");
    LevelSetOptions tiny;
    tiny.voxelSize = 1e-4;
    LevelSetOptions negative;
    negative.voxelSize = -0.1;
    LevelSetOptions notANumber;
    notANumber.voxelSize = nan;
    auto sphere = [](double3 c, double r, LevelSetOptions const& o = {}) {
        return [=] { hexmold::createLevelSetSphere(c, r, o); };
    };
    EXPECT_EQ(errorOf(sphere({0, 0, 0}, 0.0)),
              "hexmold::createLevelSetSphere: the radius must be positive, not 0.000000");
    EXPECT_EQ(errorOf(sphere({0, 0, 0}, -1.0)),
              "hexmold::createLevelSetSphere: the radius must be positive, not -1.000000");
    EXPECT_EQ(errorOf(sphere({0, 0, 0}, nan)),
              "hexmold::createLevelSetSphere: the radius is nan, not a finite number");
    EXPECT_EQ(errorOf(sphere({nan, 0, 0}, 1.0)), "hexmold::createLevelSetSphere: the centre (nan, "
                                                 "0.000000, 0.000000) is not a finite point");
    EXPECT_EQ(errorOf(sphere({0, 0, 0}, 1.0, negative)),
              "hexmold::createLevelSetSphere: the voxel size must be positive, not -0.100000");
    EXPECT_EQ(errorOf(sphere({0, 0, 0}, 1.0, notANumber)),
              "hexmold::createLevelSetSphere: the voxel size is nan, not a finite number");
    EXPECT_NE(errorOf(sphere({0, 0, 0}, 1.0, tiny)).find("more than maxVoxels"), std::string::npos);
    EXPECT_NE(errorOf(sphere({1e9, 0, 0}, 1.0)).find("the shape reaches"), std::string::npos);
    EXPECT_EQ(errorOf([] {
                  hexmold::createLevelSetBox({0, 0, 0}, {1, -1, 1});
              }),
              "hexmold::createLevelSetBox: the box's size (1.000000, -1.000000, 1.000000) must be "
              "positive on every "
              "axis");
    EXPECT_EQ(errorOf([] {
                  hexmold::createLevelSetBox({0, 0, 0}, {1, 1, std::nan("")});
              }),
              "hexmold::createLevelSetBox: the maximum corner (1.000000, 1.000000, nan) is not a "
              "finite point");
    EXPECT_EQ(errorOf([] {
                  hexmold::createLevelSetTorus({0, 0, 0}, 1.0, 1.0);
              }),
              "hexmold::createLevelSetTorus: the minor radius 1.000000 must be below the major "
              "radius 1.000000 (a "
              "ring torus)");
    EXPECT_EQ(errorOf([] {
                  hexmold::createLevelSetTorus({0, 0, 0}, 1.0, 0.0);
              }),
              "hexmold::createLevelSetTorus: the minor radius must be positive, not 0.000000");
}

TEST(CreateLevelSet, RefusesBadOptions)
{
    auto with = [](std::function<void(LevelSetOptions&)> const& change) {
        LevelSetOptions o;
        change(o);
        return errorOf([&] { hexmold::createLevelSetSphere({0, 0, 0}, 1.0, o); });
    };
    EXPECT_EQ(with([](LevelSetOptions& o) { o.bandVoxels = 0.0; }),
              "hexmold::createLevelSetSphere: bandVoxels must be positive, not 0.000000");
    EXPECT_EQ(with([](LevelSetOptions& o) { o.bandTiles = std::nan(""); }),
              "hexmold::createLevelSetSphere: bandTiles is nan, not a finite number");
    EXPECT_EQ(with([](LevelSetOptions& o) { o.background = 0.0f; }),
              "hexmold::createLevelSetSphere: the background must be positive, not 0.000000");
    EXPECT_EQ(with([](LevelSetOptions& o) { o.channel.clear(); }),
              "hexmold::createLevelSetSphere: the channel name is empty");
    EXPECT_EQ(with([](LevelSetOptions& o) { o.traits = hexmold::TraitsKind(7); }),
              "hexmold::createLevelSetSphere: unknown tree type 7");
    EXPECT_EQ(with([](LevelSetOptions& o) { o.layout = TreeLayout(3); }),
              "hexmold::createLevelSetSphere: unknown tree layout 3");
    EXPECT_EQ(
        with([](LevelSetOptions& o) { o.voxelSize = 1e-300; }),
        "hexmold::createLevelSetSphere: the voxel size 0.000000 is out of single-precision range");
}

TYPED_TEST(CreateLevelSet, OneAndAllThreadsGiveTheSameBits)
{
    using Tr = TypeParam;
    LevelSetOptions const o = options<Tr>(TreeLayout::kAdaptive);
    Volume const all = hexmold::createLevelSetTorus({0, 0, 0}, 1.0, 0.4, o);
    Volume one;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        one = hexmold::createLevelSetTorus({0, 0, 0}, 1.0, 0.4, o);
    }
    EXPECT_TRUE(sameBits<Tr>(all.object(), one.object()));
}

TEST(CreateLevelSet, CancellationThrowsTheSharedMessage)
{
    Quillon::requestJobCancellation();
    std::string message;
    bool refusal = false;
    try {
        hexmold::createLevelSetSphere({0, 0, 0}, 1.0);
    } catch (hexmold::Error const&) {
        refusal = true;
    } catch (std::runtime_error const& e) {
        message = e.what();
    }
    Quillon::clearJobCancellation();
    EXPECT_FALSE(refusal) << "cancellation is not a refused input";
    EXPECT_EQ(message, TVL::exceptionMessage);
}
