// Coarsen-refine against a brute-force model (the same trilinear reading of the level set, the
// child rule applied tile by tile, removal of unwanted subtrees, then grading), on sphere level
// sets of both tree types; messages, the box, colours, channels in step, determinism.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include "support/analysis_scene.h"
#include <cmath>
#include <cstdint>
#include <hexmold/analysis/coarsen_refine.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <set>
#include <string>
#include <tuple>
#include <vector>

using namespace TVL::TileTree3D;
using namespace CoreGL::TileTree3D;

namespace {

template <typename Tr> class CoarsenRefine : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(CoarsenRefine, TraitsTypes, TraitsNames);

using Key = testtrees::TileKey;
constexpr float kVoxel = 0.25f; ///< finest voxel, world units
constexpr double kRadius = 9.0; ///< sphere radius, finest voxels

using testtrees::tileSet;

/// A sphere level set "phi" on a tree of two depths above the deepest: a block of tiles that
/// covers the sphere and reaches well away from it, so that there is something to coarsen.
template <typename Tr> testscene::Scene<Tr> makeScene()
{
    testscene::Scene<Tr> scene(kVoxel);
    // Tiles some tile widths across: coarsening then has tiles beyond twice their width to drop.
    bool const t24 = std::is_same_v<Tr, Traits24>;
    int const d = t24 ? Tr::kMaxDepth - 2 : Tr::kMaxDepth - 1;
    double const reach = t24 ? 3.0 * kRadius : 60.0;
    scene.build([&](Container<Tr>& c) {
        testtrees::refineWhere<Tr>(c, d, [&](int3 const& corner, int depth) {
            return testtrees::boxSphereDistance<Tr>(corner, depth, kRadius) <= reach;
        });
    });
    double const r = kRadius * kVoxel;
    scene.template addScalar<float>(
        "phi", [r](double x, double y, double z) { return std::sqrt(x * x + y * y + z * z) - r; },
        false);
    return scene;
}

/// The expected tree: the child rule on every tile of the tree, the removal of the unwanted
/// existing children with their subtrees, then grading.
template <typename Tr>
std::set<Key> expectedTiles(TVL::Object const& original, float band, float coarsenBand, int flags,
                            bbox<float3, float> const* box)
{
    auto const& tree = *original.component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
    auto const& topology = *original.component<VoxelTopology<Tr>>(Tavrel::Geometry::sVoxelComp);
    auto const& phi = *original.component<VoxelChannel<Tr, float>>("phi");
    VoxelSamplerLinear<Tr, float, Tr::kTileWidth, 2, double3> sampler(tree, topology, phi);
    double const h = tree.voxelSize();
    auto outside = [&](Key const& k) {
        if (!box)
            return false;
        int const d = std::get<0>(k);
        double const w = double(Tr::tileVoxelWidth(d));
        int const c[3] = {std::get<1>(k), std::get<2>(k), std::get<3>(k)};
        for (int a = 0; a < 3; ++a)
            if ((c[a] + w) * h < box->min[a] || c[a] * h > box->max[a])
                return true;
        return false;
    };
    auto wanted = [&](Key const& k, float offset) {
        if (outside(k))
            return false;
        int const d = std::get<0>(k);
        double const w = double(Tr::tileVoxelWidth(d));
        double3 const centre{(std::get<1>(k) + 0.5 * w) * h, (std::get<2>(k) + 0.5 * w) * h,
                             (std::get<3>(k) + 0.5 * w) * h};
        float const value = sampler.value(centre);
        return std::abs(value) <=
               float(w * h) * 2.0f + offset; // no local level: factor 2 at every depth
    };
    auto children = [](Key const& k) {
        std::vector<Key> out;
        int const d = std::get<0>(k);
        std::int64_t const w = Tr::tileVoxelWidth(d + 1);
        for (int s = 0; s < Tr::kChildCount; ++s) {
            int3 const slot = Tile<Tr>::slotCoordinates(s);
            out.emplace_back(d + 1, int(std::get<1>(k) + slot.x * w),
                             int(std::get<2>(k) + slot.y * w), int(std::get<3>(k) + slot.z * w));
        }
        return out;
    };
    std::set<Key> const before = tileSet(tree);
    std::set<Key> tiles = before, removed;

    int const deepestParent = std::min(Tr::kMaxDepth - 1, 27);
    for (Key const& k : before) {
        if (std::get<0>(k) > deepestParent)
            continue;
        for (Key const& c : children(k)) {
            bool const exists = before.count(c) > 0;
            if (wanted(c, band)) {
                if (!exists)
                    tiles.insert(c);
            } else if (exists && (flags & kCoarsenRefineCoarsen) && !outside(c) &&
                       !wanted(c, band + coarsenBand)) {
                removed.insert(c);
            }
        }
    }
    // Drop the removed tiles and everything under them.
    Container<Tr> model("model", tree.voxelSize());
    auto acc = model.tileAccessor();
    for (Key const& k : tiles) {
        bool dead = false;
        for (int d = std::get<0>(k); d > 0 && !dead; --d) {
            std::int64_t const w = Tr::tileVoxelWidth(d);
            auto snap = [w](std::int64_t v) {
                return int((v + Tr::kCentreOffset) / w * w - Tr::kCentreOffset);
            };
            dead = removed.count(Key{d, snap(std::get<1>(k)), snap(std::get<2>(k)),
                                     snap(std::get<3>(k))}) > 0;
        }
        if (!dead)
            acc.addTile(std::get<1>(k), std::get<2>(k), std::get<3>(k), std::get<0>(k));
    }
    int coarsest = 0;
    if (box) {
        float3 const bounds[2] = {box->min, box->max};
        coarsest = coarsestDepthFromDimensions(bounds, tree.voxelSize());
    }
    gradeTileTree(model, nullptr, nullptr, coarsest, Tr::kMaxDepth);
    return tileSet(model);
}

template <typename Tr> LevelSetSampler phiSampler()
{
    LevelSetSampler s;
    s.channelName = "phi";
    return s;
}

template <typename Tr> Container<Tr> const& treeOf(TVL::Object const& o)
{
    return *o.component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
}

TYPED_TEST(CoarsenRefine, RefinementMatchesTheBruteForceModel)
{
    using Tr = TypeParam;
    auto scene = makeScene<Tr>();
    TVL::Object const original = *scene.object;
    auto const expected =
        expectedTiles<Tr>(original, 0.0f, 0.0f, kCoarsenRefineLeavesOnly, nullptr);
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineLeavesOnly, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *scene.object,
                      "", nullptr, nullptr);
    auto const got = tileSet(treeOf<Tr>(*scene.object));
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
    int shown = 0;
    for (Key const& k : expected)
        if (!got.count(k) && shown++ < 5)
            ADD_FAILURE() << "missing " << std::get<0>(k) << " " << std::get<1>(k) << " "
                          << std::get<2>(k) << " " << std::get<3>(k);
    for (Key const& k : got)
        if (!expected.count(k) && shown++ < 10)
            ADD_FAILURE() << "extra " << std::get<0>(k) << " " << std::get<1>(k) << " "
                          << std::get<2>(k) << " " << std::get<3>(k);
    // Refinement goes one level below the tree in hand, and nothing is lost.
    EXPECT_GT(treeOf<Tr>(*scene.object).tileCount(treeOf<Tr>(original).deepestOccupiedDepth() + 1),
              0);
    for (Key const& k : tileSet(treeOf<Tr>(original)))
        EXPECT_EQ(got.count(k), 1u);
    EXPECT_TRUE(checkGraded(treeOf<Tr>(*scene.object), 0, Tr::kMaxDepth));
}

TYPED_TEST(CoarsenRefine, CoarseningMatchesTheBruteForceModel)
{
    using Tr = TypeParam;
    auto scene = makeScene<Tr>();
    TVL::Object const original = *scene.object;
    float const band = 0.5f * kVoxel, coarsenBand = 2.0f * kVoxel;
    auto const expected =
        expectedTiles<Tr>(original, band, coarsenBand, kCoarsenRefineCoarsen, nullptr);
    coarsenRefine<Tr>(band, coarsenBand, kCoarsenRefineCoarsen, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *scene.object,
                      "", nullptr, nullptr);
    auto const got = tileSet(treeOf<Tr>(*scene.object));
    EXPECT_TRUE(got == expected) << got.size() << " tiles, expected " << expected.size();
    int const initial = treeOf<Tr>(original).deepestOccupiedDepth();
    EXPECT_LT(treeOf<Tr>(*scene.object).tileCount(initial),
              treeOf<Tr>(original).tileCount(initial));
    // The channels follow the tree.
    auto const& phi = *scene.object->template component<VoxelChannel<Tr, float>>("phi");
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        EXPECT_EQ(phi.tileCount(d), treeOf<Tr>(*scene.object).tileCount(d));
}

TYPED_TEST(CoarsenRefine, BoxLimitsNewTilesAndSetsTheCoarsestDepth)
{
    using Tr = TypeParam;
    auto scene = makeScene<Tr>();
    TVL::Object const original = *scene.object;
    bbox<float3, float> box;
    box.min = {0.0f, -100.0f, -100.0f};
    box.max = {100.0f, 100.0f, 100.0f};
    auto const expected = expectedTiles<Tr>(original, 0.0f, 0.0f, kCoarsenRefineLeavesOnly, &box);
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(2);
    ::testing::internal::CaptureStdout();
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineLeavesOnly, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *scene.object,
                      "", &box, nullptr);
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    float3 const bounds[2] = {box.min, box.max};
    EXPECT_NE(out.find("coarsenRefine.coarsestDepth = " +
                       std::to_string(coarsestDepthFromDimensions(bounds, kVoxel))),
              std::string::npos)
        << out;
    auto const got = tileSet(treeOf<Tr>(*scene.object));
    EXPECT_TRUE(got == expected);
    // No tile of the deepest depth lies wholly on the negative x side: the box kept them away.
    for (Key const& k : got)
        if (std::get<0>(k) == Tr::kMaxDepth)
            EXPECT_GE(std::get<1>(k) + Tr::tileVoxelWidth(Tr::kMaxDepth), 0);
}

TYPED_TEST(CoarsenRefine, MissingContainerIsReportedAndNothingHappens)
{
    using Tr = TypeParam;
    auto empty = TVL::createEmptyTVL();
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(1);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineCoarsen, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *empty, "",
                      nullptr, nullptr);
    std::string const out = ::testing::internal::GetCapturedStdout();
    std::string const err = ::testing::internal::GetCapturedStderr();
    CoreGL::Logger::setVerboseLevel(saved);
    EXPECT_NE(err.find("coarsenRefine: unable to retrieve container"), std::string::npos) << err;
    EXPECT_NE(out.find("coarsenRefine.start"), std::string::npos);
    EXPECT_NE(out.find("coarsenRefine.end"), std::string::npos);
    EXPECT_EQ(empty->componentCount(), 0u);
}

TYPED_TEST(CoarsenRefine, PrintsTheStagesAtVerboseThree)
{
    using Tr = TypeParam;
    auto scene = makeScene<Tr>();
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(3);
    ::testing::internal::CaptureStdout();
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineCoarsen, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *scene.object,
                      "", nullptr, nullptr);
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    for (char const* line :
         {"coarsenRefine.start",
          "Tile tree graded before coarsen refine = ", "Before refine: numTiles at depth 0 == 1",
          "After refine: numTiles at depth 0 == 1", "After coarsen: numTiles at depth 0 == 1",
          "Tile tree graded after coarsen refine = ", "coarsenRefine.coarsestDepth = 0",
          "Tile tree graded after grade call = 1", "coarsenRefine.end"})
        EXPECT_NE(out.find(line), std::string::npos) << line;
}

TYPED_TEST(CoarsenRefine, WithColoursNothingIsRemovedAndParentsOfColouredTilesAreColoured)
{
    using Tr = TypeParam;
    auto scene = makeScene<Tr>();
    auto const before = tileSet(treeOf<Tr>(*scene.object));
    std::vector<std::vector<TileColor>> colors(Tr::kDepthCount);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        colors[d].assign(std::size_t(treeOf<Tr>(*scene.object).tileCount(d)), TileColor{0, 0});
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineCoarsen, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *scene.object,
                      "", nullptr, colors.data());
    auto const& tree = treeOf<Tr>(*scene.object);
    auto const after = tileSet(tree);
    for (Key const& k : before)
        EXPECT_EQ(after.count(k), 1u);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        ASSERT_EQ(colors[d].size(), std::size_t(tree.tileCount(d)));
    for (int d = 0; d < Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t)
            for (int s = 0; s < Tr::kChildCount; ++s) {
                std::int64_t const c = tree.tile(t, d).childIndex(s);
                if (c >= 0 && colors[d + 1][c].colored)
                    EXPECT_EQ(colors[d][t].colored, 1) << d << " " << t;
            }
}

TYPED_TEST(CoarsenRefine, NamedChannelsAloneFollowTheTree)
{
    using Tr = TypeParam;
    auto scene = makeScene<Tr>();
    scene.template addScalar<float>(
        "other", [](double, double, double) { return 1.0; }, false);
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineLeavesOnly, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *scene.object,
                      "phi", nullptr, nullptr);
    auto const& tree = treeOf<Tr>(*scene.object);
    auto const& phi = *scene.object->template component<VoxelChannel<Tr, float>>("phi");
    auto const& other = *scene.object->template component<VoxelChannel<Tr, float>>("other");
    EXPECT_EQ(phi.tileCount(Tr::kMaxDepth), tree.tileCount(Tr::kMaxDepth));
    EXPECT_EQ(other.tileCount(Tr::kMaxDepth), 0);
}

TYPED_TEST(CoarsenRefine, OneAndAllThreadsGiveTheSameTreeInTheSameOrder)
{
    using Tr = TypeParam;
    auto a = makeScene<Tr>();
    auto b = makeScene<Tr>();
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineCoarsen, phiSampler<Tr>(),
                          Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *a.object,
                          "", nullptr, nullptr);
    }
    coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineCoarsen, phiSampler<Tr>(),
                      Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, *b.object, "",
                      nullptr, nullptr);
    auto const& ta = treeOf<Tr>(*a.object);
    auto const& tb = treeOf<Tr>(*b.object);
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        ASSERT_EQ(ta.tileCount(d), tb.tileCount(d));
        for (std::int64_t t = 0; t < ta.tileCount(d); ++t)
            EXPECT_EQ(ta.tile(t, d).tijk(), tb.tile(t, d).tijk());
    }
}

} // namespace

TYPED_TEST(CoarsenRefine, NoTileIsWantedBelowTheSamplersDeepestDepth)
{
    using Tr = TypeParam;
    for (bool bounded : {false, true}) {
        auto scene = makeScene<Tr>();
        int const initial = treeOf<Tr>(*scene.object).deepestOccupiedDepth();
        LevelSetSampler sampler = phiSampler<Tr>();
        if (bounded)
            sampler.deepestDepth = initial;
        coarsenRefine<Tr>(0.0f, 0.0f, kCoarsenRefineLeavesOnly, sampler,
                          Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp,
                          *scene.object, "", nullptr, nullptr);
        auto const& tree = treeOf<Tr>(*scene.object);
        // Unbounded, the tiles crossing the sphere gain children one depth down.
        if (bounded)
            EXPECT_EQ(tree.deepestOccupiedDepth(), initial);
        else
            EXPECT_EQ(tree.deepestOccupiedDepth(), initial + 1);
        EXPECT_TRUE(checkGraded(tree, 0, Tr::kMaxDepth));
    }
}
