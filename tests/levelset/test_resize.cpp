// Resize: the band of a sphere's level set widened and narrowed against the exact distance and
// the tile rules of dilation and erosion; the pass-count and coalescing rule; the refused width;
// one call serving either tree type; the value types of a voxel at zero whose partner of the
// other sign is a diagonal neighbour, against the adaptive sweep; log lines, timers, other
// channels, threads, cancellation.
#include <cstdlib>
#include <gtest/gtest.h>
#include <hexmold/analysis/grade_tile_tree.h>

#include "support/analysis_scene.h"
#include "support/linked.h"
#include "support/random_trees.h"
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/levelset/resize.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/testing/recording_services.h>
#include <hexmold/substrate/parallel.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;
using Tavrel::Geometry::sVoxelComp;
using Tavrel::Geometry::sVoxelTileTree;

namespace {

template <typename Tr> class Resize : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(Resize, TraitsTypes, TraitsNames);

constexpr float kVoxel = 0.125f; ///< finest voxel, world units
constexpr double kRadius = 40.0; ///< sphere radius in finest voxels
char const* const kPhi = "phi";

double exactDistance(double x, double y, double z)
{
    return std::sqrt(x * x + y * y + z * z) - kRadius * kVoxel;
}

/// Where the solves place voxel (i, j, k) of @p tile, at every depth: at the sample of the finest
/// voxel at its corner.
template <typename Tr>
Tavrel::Math::Vec3<double> samplePosition(testscene::Scene<Tr> const& scene, Tile<Tr> const& tile,
                                          int i, int j, int k)
{
    auto p = scene.position(tile, i, j, k, true);
    return {p.x + 0.5 * kVoxel, p.y + 0.5 * kVoxel, p.z + 0.5 * kVoxel};
}

/// A sphere band @p band finest voxels wide (deepest tiles, their ancestors, graded) with the exact
/// distance in every voxel of every tile.
template <typename Tr> testscene::Scene<Tr> sphereBand(double band)
{
    testscene::Scene<Tr> scene(kVoxel);
    scene.buildUniformBand(kRadius, band);
    // Graded, as the voxelizers leave their trees: every new tile of a dilation has a parent
    // voxel close by to take its first value from.
    scene.build([](Container<Tr>& c) {
        CoreGL::TileTree3D::gradeTileTree<Tr>(c, nullptr, nullptr, 0, Tr::kMaxDepth);
    });
    scene.template add<float>(kPhi, [&](Tile<Tr> const& t, int i, int j, int k) {
        auto const p = samplePosition(scene, t, i, j, k);
        return float(exactDistance(p.x, p.y, p.z));
    });
    // The default value's magnitude is the background that redistancing starts from.
    float const background = 1e30f;
    static_cast<VoxelChannel<Tr, float>*>(scene.object->mutableComponent(kPhi))
        ->setDefaultValue(&background);
    return scene;
}

template <typename Tr> Container<Tr> const& treeOf(TVL::Object const& o)
{
    return *o.component<Container<Tr>>(sVoxelTileTree);
}

/// Errors against the exact distance, in units of the voxel size of each voxel's depth.
struct Errors {
    double nearMean = 0, nearMax = 0; ///< finest leaf voxels within 3 voxels of the surface
    double bandMax = 0;               ///< leaf voxels of all depths within the bandwidth
    int bandMaxDepth = -1;            ///< depth of the voxel with the largest error in the band
    double bandMaxExact = 0;          ///< its exact distance, finest voxels
    long near = 0, band = 0;
};

template <typename Tr> Errors measure(testscene::Scene<Tr> const& scene, double bandwidth)
{
    Errors e;
    constexpr int W = Tr::kTileWidth;
    auto const& c = scene.tree();
    auto const& phi = scene.template channel<float>(kPhi);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            auto const td = phi.tileData(t, d);
            double const h = double(tile.voxelDataWidth()) * kVoxel;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        if (d < Tr::kMaxDepth && !tile.isLeaf(i, j, k))
                            continue;
                        auto const p = samplePosition(scene, tile, i, j, k);
                        double const exact = exactDistance(p.x, p.y, p.z);
                        double const err = std::abs(double(td(i, j, k)) - exact) / h;
                        if (std::abs(exact) <= bandwidth) {
                            if (err > e.bandMax) {
                                e.bandMaxDepth = d;
                                e.bandMaxExact = exact / kVoxel;
                            }
                            e.bandMax = std::max(e.bandMax, err);
                            ++e.band;
                        }
                        if (d == Tr::kMaxDepth && std::abs(exact) <= 3 * kVoxel) {
                            e.nearMean += err;
                            e.nearMax = std::max(e.nearMax, err);
                            ++e.near;
                        }
                    }
        }
    if (e.near)
        e.nearMean /= double(e.near);
    return e;
}

/// Finest voxels within @p bandwidth of the sphere that no deepest tile holds; @p nearest gets
/// the smallest |distance| (finest voxels) of such a voxel.
template <typename Tr>
int uncovered(Container<Tr> const& c, double bandwidth, double* nearest = nullptr)
{
    if (nearest)
        *nearest = 1e30;
    testtrees::TileSet<Tr> tiles(c);
    int missing = 0;
    int const reach = int(kRadius + bandwidth / kVoxel) + 2;
    for (int z = -reach; z < reach; ++z)
        for (int y = -reach; y < reach; ++y)
            for (int x = -reach; x < reach; ++x) {
                double const d =
                    exactDistance((x + 0.5) * kVoxel, (y + 0.5) * kVoxel, (z + 0.5) * kVoxel);
                if (std::abs(d) <= bandwidth && !tiles.at(x, y, z, Tr::kMaxDepth)) {
                    ++missing;
                    if (nearest)
                        *nearest = std::min(*nearest, std::abs(d) / kVoxel);
                }
            }
    return missing;
}

/// Tiles none of whose voxels lies within the bandwidth plus a tile diagonal of the sphere.
template <typename Tr> int farTiles(testscene::Scene<Tr> const& scene, double bandwidth)
{
    constexpr int W = Tr::kTileWidth;
    auto const& c = scene.tree();
    int far = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            // Erosion judges a tile by the values it holds before the redistance; beyond the band
            // of the previous call those are good to about a voxel of the tile's depth.
            double const limit = bandwidth +
                                 1.01 * std::sqrt(3.0) * double(tile.tileVoxelWidth()) * kVoxel +
                                 double(tile.voxelDataWidth()) * kVoxel;
            bool nearOne = false;
            for (int k = 0; k < W && !nearOne; ++k)
                for (int j = 0; j < W && !nearOne; ++j)
                    for (int i = 0; i < W && !nearOne; ++i) {
                        auto const p = samplePosition(scene, tile, i, j, k);
                        nearOne = std::abs(exactDistance(p.x, p.y, p.z)) < limit;
                    }
            far += !nearOne;
        }
    return far;
}

// Within 3 voxels of the surface: first-order sweeps from exact surface voxels stay well within
// a twentieth of a voxel on average and a quarter at worst; elsewhere in the band a voxel of any
// depth is within its own width.
constexpr double kNearMeanTol = 0.05;
constexpr double kNearMaxTol = 0.25;
constexpr double kBandMaxTol = 1.0;

TYPED_TEST(Resize, WidenThenNarrowASphereBandIsAccurateNearTheSurface)
{
    using Tr = TypeParam;
    auto scene = sphereBand<Tr>(3.0);
    for (double voxels : {12.0, 4.0}) {
        double const bandwidth = voxels * kVoxel;
        resize(float(bandwidth), *scene.object, sVoxelTileTree, sVoxelComp, kPhi,
               CoreGL::NOPLogger{});
        Errors const e = measure(scene, bandwidth);
        EXPECT_GT(e.near, 1000);
        EXPECT_LE(e.nearMean, kNearMeanTol) << voxels << " voxels";
        EXPECT_LE(e.nearMax, kNearMaxTol) << voxels << " voxels";
        auto const& phi = scene.template channel<float>(kPhi);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            EXPECT_EQ(phi.tileCount(d), scene.tree().tileCount(d));
    }
}

// Across the whole band every voxel of every depth is within its own width of the exact
// distance; dilation covered the band, and erosion left no tile beyond it.
TYPED_TEST(Resize, WidenThenNarrowASphereBandMeetsTheWholeBandBarAndTheTileRules)
{
    using Tr = TypeParam;
    auto scene = sphereBand<Tr>(3.0);
    for (double voxels : {12.0, 4.0}) {
        double const bandwidth = voxels * kVoxel;
        resize(float(bandwidth), *scene.object, sVoxelTileTree, sVoxelComp, kPhi,
               CoreGL::NOPLogger{});
        Errors const e = measure(scene, bandwidth);
        EXPECT_LE(e.bandMax, kBandMaxTol) << voxels << " voxels; worst at depth " << e.bandMaxDepth
                                          << ", " << e.bandMaxExact << " voxels from the surface";
        double nearest = 0;
        EXPECT_EQ(uncovered(scene.tree(), bandwidth, &nearest), 0)
            << voxels << " voxels; nearest uncovered " << nearest;
        EXPECT_EQ(farTiles(scene, bandwidth), 0) << voxels << " voxels";
    }
}

/// A block of deepest tiles around the origin with one voxel V within 0.001 h of zero whose only
/// neighbour of the other sign, Q, is a diagonal one: Q at the corner of the deepest tile at the
/// origin plus (1, 1, 1) holds -h/2, V = Q + (1, 1, 0) holds h/2000, and every other voxel the
/// distance from Q (world units), positive; so V's face neighbours all share its sign.
template <typename Tr> struct DiagonalPartner {
    static constexpr int D = Tr::kMaxDepth;
    static constexpr float kV = 0.0005f * kVoxel; ///< V's value: within 0.001 h of zero
    static constexpr float kQ = -0.5f * kVoxel;
    testscene::Scene<Tr> scene{kVoxel};
    int3 q{}, v{}, far{};

    DiagonalPartner()
    {
        scene.build([](Container<Tr>& c) {
            testtrees::addBlock<Tr>(c, D, {-2, -2, -2}, {1, 1, 1});
        });
        int3 const corner = scene.tree().tileAccessor().tile(0, 0, 0, D).tijk();
        q = {corner.x + 1, corner.y + 1, corner.z + 1};
        v = {q.x + 1, q.y + 1, q.z};
        far = {q.x + 3, q.y, q.z + 3};
        scene.template add<float>(kPhi, [&](Tile<Tr> const& t, int i, int j, int k) {
            std::int64_t const w = t.voxelDataWidth();
            int3 const p{int(t.ti() + i * w), int(t.tj() + j * w), int(t.tk() + k * w)};
            if (t.depth() == D && p == q)
                return kQ;
            if (t.depth() == D && p == v)
                return kV;
            double const dx = p.x - q.x, dy = p.y - q.y, dz = p.z - q.z;
            return float(std::sqrt(dx * dx + dy * dy + dz * dz) * kVoxel);
        });
        float const background = 1e30f;
        static_cast<VoxelChannel<Tr, float>*>(scene.object->mutableComponent(kPhi))
            ->setDefaultValue(&background);
    }
    VoxelChannel<Tr, float> const& phi() const { return scene.template channel<float>(kPhi); }
    /// The deepest voxel at finest-voxel corner @p p of @p channel.
    template <typename T> T at(VoxelChannel<Tr, T> const& channel, int3 const& p) const
    {
        auto accessor = scene.tree().tileAccessor();
        auto const& t = accessor.tile(p, D);
        EXPECT_EQ(t.depth(), D);
        return channel.tileData(t.index(), D)(int(p.x - t.ti()), int(p.y - t.tj()),
                                              int(p.z - t.tk()));
    }
    /// Whether the deepest voxel at @p p lies two voxels or more inside the block of tiles.
    bool inner(int3 const& p) const
    {
        auto accessor = scene.tree().tileAccessor();
        for (int dz = -2; dz <= 2; ++dz)
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx)
                    if (accessor.tile(p.x + dx, p.y + dy, p.z + dz, D).depth() != D)
                        return false;
        return true;
    }
    /// The value types a resize starts from, on the field as built.
    std::unique_ptr<VoxelChannel<Tr, unsigned char>> resizeTypes() const
    {
        unsigned char const unknown = kValueTypeUnknown;
        auto types = std::make_unique<VoxelChannel<Tr, unsigned char>>(
            "", &unknown, kDataElementInitializerDefaultValue, false, true, 0, D);
        types->update(scene.topology());
        resizeValueTypes(scene.tree(), scene.topology(), phi(), *types);
        return types;
    }
};

TYPED_TEST(Resize, AVoxelAtZeroWhoseOnlyOtherSignNeighbourIsDiagonalIsKnownAndKeepsItsValue)
{
    using Tr = TypeParam;
    DiagonalPartner<Tr> f;
    auto const types = f.resizeTypes();
    EXPECT_EQ(int(f.at(*types, f.v)), int(kValueTypeKnown));
    EXPECT_EQ(int(f.at(*types, f.q)), int(kValueTypeKnown));
    EXPECT_EQ(int(f.at(*types, f.far)), int(kValueTypeUnknown));
    // A known voxel is a boundary condition of the sweeps: the surface through V stays where it is.
    resize(4.0f * kVoxel, *f.scene.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::NOPLogger{});
    EXPECT_EQ(f.at(f.phi(), f.v), DiagonalPartner<Tr>::kV);
    EXPECT_EQ(f.at(f.phi(), f.q), DiagonalPartner<Tr>::kQ);
}

TYPED_TEST(Resize, ValueTypesAgreeWithTheAdaptiveSweepsZeroCrossingOnTheDiagonalPartnerCase)
{
    using Tr = TypeParam;
    constexpr int D = Tr::kMaxDepth;
    DiagonalPartner<Tr> f;
    auto const types = f.resizeTypes();
    // The adaptive sweep without passes and without the caller's value types keeps the values of
    // the voxels its zero-crossing test makes known and resets every other one to the background.
    auto const& tree = f.scene.tree();
    auto const& topology = f.scene.topology();
    VoxelChannel<Tr, float> out(f.phi());
    short const zero = 0;
    VoxelChannel<Tr, short> dof("dof", &zero, kDataElementInitializerDefaultValue, false, true, 0,
                                D);
    dof.update(topology);
    classifyDegreesOfFreedom<Tr>(tree, dof);
    levelSetRedistance<Tr>(tree, topology, out, true, true, false, 0, D, nullptr, nullptr, 0.01f,
                           FLT_MAX, FLT_MAX, 0, 0, false, false, &dof, "test", kRedistanceSweeping);
    EXPECT_EQ(f.at(out, f.v), DiagonalPartner<Tr>::kV);
    EXPECT_EQ(f.at(out, f.far), 1e30f);
    // Voxel by voxel, away from the block's faces (where the two read the rim in different modes).
    long compared = 0;
    for (std::int64_t t = 0; t < tree.tileCount(D); ++t) {
        auto const& tile = tree.tile(t, D);
        constexpr int W = Tr::kTileWidth;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    int3 const p{int(tile.ti() + i), int(tile.tj() + j), int(tile.tk() + k)};
                    if (!f.inner(p))
                        continue;
                    bool const keptByTheSweep = f.at(out, p) == f.at(f.phi(), p);
                    EXPECT_EQ(f.at(*types, p) == kValueTypeKnown, keptByTheSweep)
                        << "voxel " << p.x << ", " << p.y << ", " << p.z;
                    ++compared;
                }
    }
    EXPECT_GT(compared, 100);
}

TEST(Resize, BandwidthAtOrBelowEpsilonOnlyWarns)
{
    auto scene = sphereBand<Traits24>(2.0);
    auto const before = scene.template values<float>(kPhi);
    std::int64_t const tiles = scene.tree().tileCount(-1);
    Quillon::Testing::RecordingServices services;
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(2);
    ::testing::internal::CaptureStdout();
    resize(1e-8f, *scene.object, sVoxelTileTree, sVoxelComp, kPhi,
           CoreGL::QuillonLogger(&services));
    resize(kResizeMinimumBandwidth, *scene.object, sVoxelTileTree, sVoxelComp, kPhi,
           CoreGL::QuillonLogger(&services));
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    EXPECT_EQ(services.texts(Quillon::RuntimeMessageCategory::kWarning).size(), 2u);
    EXPECT_TRUE(services.contains(Quillon::RuntimeMessageCategory::kWarning,
                                  "Bandwidth <= epsilon. Resize skipped."));
    EXPECT_EQ(services.texts(Quillon::RuntimeMessageCategory::kInfo).size(), 0u);
    EXPECT_EQ(out.find("levelset_resize.begin"), std::string::npos);
    EXPECT_EQ(scene.tree().tileCount(-1), tiles);
    EXPECT_EQ(scene.template values<float>(kPhi), before);
}

TEST(ResizePasses, CeilingIsTheOrdinaryCeilingOfFloats)
{
    EXPECT_EQ(resizeCeiling(10.0f), 10);
    EXPECT_EQ(resizeCeiling(std::nextafter(10.0f, 0.0f)), 10);
    EXPECT_EQ(resizeCeiling(std::nextafter(10.0f, 20.0f)), 11);
    EXPECT_EQ(resizeCeiling(9.0f), 9);
    EXPECT_EQ(resizeCeiling(1e-30f), 1);
    EXPECT_EQ(resizeCeiling(0.0f), 0);
    EXPECT_EQ(resizeCeiling(-1.5f), -1);
    EXPECT_EQ(resizeCeiling(-0.5f), 0);
}

TEST(ResizePasses, FortyVoxelSizesTurnCoalescingOnAndLessThanThirtySixAndAHalfLeaveItOff)
{
    for (float h : {1.0f, 0.125f, 0.5f, 2.0f}) {
        EXPECT_TRUE(resizePasses(40.0f * h, h).performCoalescedRedistance) << h; // x = 10
        // The ceiling is compared, not x: coalescing stays on down to x just above 9.
        EXPECT_TRUE(resizePasses(std::nextafter(40.0f * h, 0.0f), h).performCoalescedRedistance)
            << h;
        EXPECT_TRUE(
            resizePasses(std::nextafter(36.0f * h, 100.0f * h), h).performCoalescedRedistance)
            << h;
        EXPECT_FALSE(resizePasses(36.0f * h, h).performCoalescedRedistance) << h; // x = 9
        EXPECT_FALSE(resizePasses(8.0f * h, h).performCoalescedRedistance) << h;
    }
}

TEST(ResizePasses, EightVoxelSizesGiveTwoPostPasses)
{
    for (float h : {1.0f, 0.125f, 0.5f}) {
        ResizePasses const p = resizePasses(8.0f * h, h); // x = 2: ceil(1) + 1
        EXPECT_EQ(p.maxNumPostSmoothingPasses, 2);
        EXPECT_EQ(p.maxNumPreSmoothingPasses, 2);
    }
    EXPECT_EQ(resizePasses(12.0f, 1.0f).maxNumPostSmoothingPasses, 3); // x = 3: ceil(1.5) + 1
    EXPECT_EQ(resizePasses(1.0f, 1.0f).maxNumPostSmoothingPasses, 2);  // x = 0.25: ceil(0.125) + 1
}

std::vector<std::string> gTimers;
void recordTimer(Quillon::StringView name, double)
{
    gTimers.emplace_back(name);
}
int countOf(std::string const& name)
{
    int n = 0;
    for (auto const& t : gTimers)
        n += t == name;
    return n;
}

TEST(Resize, ATraits55ObjectIsLeftToTheSecondBody)
{
    auto scene = sphereBand<Traits55>(2.0);
    std::int64_t const before = scene.tree().tileCount(-1);
    gTimers.clear();
    CoreGL::Logger::setTimerObserver(&recordTimer);
    Quillon::Testing::RecordingServices services;
    resize(6.0f * kVoxel, *scene.object, sVoxelTileTree, sVoxelComp, kPhi,
           CoreGL::QuillonLogger(&services));
    CoreGL::Logger::setTimerObserver(nullptr);
    // One body ran: each stage once.
    for (char const* stage :
         {"Volume::resize_level_set.dilate", "Volume::resize_level_set.initialize_tiles",
          "Volume::resize_level_set.erode", "Volume::resize_level_set.redistance"})
        EXPECT_EQ(countOf(stage), 1) << stage;
    EXPECT_EQ(services.texts(Quillon::RuntimeMessageCategory::kInfo).size() >= 3, true);
    EXPECT_TRUE(services.contains(Quillon::RuntimeMessageCategory::kInfo,
                                  "Redistancing distance channel."));
    EXPECT_GT(scene.tree().tileCount(-1), before);
    EXPECT_LE(measure(scene, 6.0 * kVoxel).nearMax, kNearMaxTol);
    // A Traits<2,4,1> object is the first body's alone.
    auto small = sphereBand<Traits24>(2.0);
    gTimers.clear();
    CoreGL::Logger::setTimerObserver(&recordTimer);
    resize(6.0f * kVoxel, *small.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::NOPLogger{});
    CoreGL::Logger::setTimerObserver(nullptr);
    EXPECT_EQ(countOf("Volume::resize_level_set.dilate"), 1);
}

TEST(Resize, MissingComponentsLeaveTheObjectAsItWas)
{
    auto scene = sphereBand<Traits24>(2.0);
    std::size_t const components = scene.object->componentCount();
    auto const before = scene.template values<float>(kPhi);
    resize(5.0f * kVoxel, *scene.object, sVoxelTileTree, sVoxelComp, "no_such_channel",
           CoreGL::NOPLogger{});
    resize(5.0f * kVoxel, *scene.object, sVoxelTileTree, "no_topology", kPhi, CoreGL::NOPLogger{});
    resize(5.0f * kVoxel, *scene.object, "no_tree", sVoxelComp, kPhi, CoreGL::NOPLogger{});
    EXPECT_EQ(scene.object->componentCount(), components);
    EXPECT_EQ(scene.template values<float>(kPhi), before);
    EXPECT_TRUE(scene.object->hasComponentFromName(sVoxelTileTree));
    EXPECT_TRUE(scene.object->hasComponentFromName(sVoxelComp));
}

TEST(Resize, PrintsItsLinesAndTimesItsStagesInOrder)
{
    auto scene = sphereBand<Traits24>(2.0);
    gTimers.clear();
    CoreGL::Logger::setTimerObserver(&recordTimer);
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(2);
    ::testing::internal::CaptureStdout();
    resize(8.0f * kVoxel, *scene.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::ConsoleLogger{});
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    CoreGL::Logger::setTimerObserver(nullptr);
    std::size_t at = 0;
    for (char const* line : {"levelset_resize.begin", "levelset_dilate.begin", "Added ",
                             "levelset_dilate.end", "Removed ", "Redistancing distance channel.",
                             "maxNumPreSmoothingPasses = 2", "maxNumPostSmoothingPasses = 2",
                             "performCoalescedRedistance = 0", "levelset_resize.end"}) {
        std::size_t const next = out.find(line, at);
        EXPECT_NE(next, std::string::npos) << line;
        if (next != std::string::npos)
            at = next;
    }
    std::vector<std::string> stages;
    for (auto const& t : gTimers)
        if (t.rfind("Volume::resize_level_set.", 0) == 0 && t.find('.', 25) == std::string::npos)
            stages.push_back(t);
    std::vector<std::string> const expected{
        "Volume::resize_level_set.dilate", "Volume::resize_level_set.initialize_tiles",
        "Volume::resize_level_set.erode", "Volume::resize_level_set.redistance"};
    EXPECT_EQ(stages, expected);
}

TEST(Resize, OtherChannelsFollowTheTilesAndInheritFromTheirParents)
{
    auto scene = sphereBand<Traits24>(2.0);
    scene.template addScalar<float>(
        "other", [](double, double, double) { return 7.0; }, false);
    resize(6.0f * kVoxel, *scene.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::NOPLogger{});
    auto const& other = scene.template channel<float>("other");
    for (int d = 0; d <= Traits24::kMaxDepth; ++d)
        EXPECT_EQ(other.tileCount(d), scene.tree().tileCount(d));
    for (float v : scene.template values<float>("other"))
        ASSERT_EQ(v, 7.0f);
}

TEST(Resize, OneAndAllThreadsGiveTheSameVolume)
{
    auto a = sphereBand<Traits24>(2.0);
    auto b = sphereBand<Traits24>(2.0);
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        resize(7.0f * kVoxel, *a.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::NOPLogger{});
    }
    resize(7.0f * kVoxel, *b.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::NOPLogger{});
    for (int d = 0; d <= Traits24::kMaxDepth; ++d) {
        ASSERT_EQ(a.tree().tileCount(d), b.tree().tileCount(d));
        for (std::int64_t t = 0; t < a.tree().tileCount(d); ++t)
            ASSERT_EQ(a.tree().tile(t, d).tijk(), b.tree().tile(t, d).tijk());
    }
    EXPECT_EQ(a.template values<float>(kPhi), b.template values<float>(kPhi));
}

TEST(Resize, CancellationThrowsAndTheComponentsReturn)
{
    auto scene = sphereBand<Traits24>(2.0);
    std::size_t const components = scene.object->componentCount();
    Quillon::requestJobCancellation();
    EXPECT_THROW(
        resize(6.0f * kVoxel, *scene.object, sVoxelTileTree, sVoxelComp, kPhi, CoreGL::NOPLogger{}),
        std::runtime_error);
    Quillon::clearJobCancellation();
    EXPECT_EQ(scene.object->componentCount(), components);
    EXPECT_TRUE(scene.object->hasComponentFromName(sVoxelTileTree));
    EXPECT_TRUE(scene.object->hasComponentFromName(kPhi));
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(Resize, EveryInstanceIsExported)
{
    testlinked::requireLinked(&resize<CoreGL::QuillonLogger>, &resize<CoreGL::ConsoleLogger>,
                              &resize<CoreGL::NOPLogger>);
}

} // namespace
