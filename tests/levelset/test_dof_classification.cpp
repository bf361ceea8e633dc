// DOF classification: against a classifier written from the flag definitions by explicit neighbour
// search, on random graded and ungraded trees of both tree types; a lone tile hanging on its three
// low faces, a uniform block of deepest tiles, a parent voxel over a hanging child voxel; the
// object form; determinism and cancellation.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include "support/linked.h"
#include "support/random_trees.h"
#include <cstdint>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;

namespace {

template <typename Tr> class DOFClassification : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(DOFClassification, TraitsTypes, TraitsNames);

/// The flags of every voxel from their definitions alone, looking tiles up by corner.
template <typename Tr> class BruteForceDOF {
public:
    static constexpr int W = Tr::kTileWidth;
    explicit BruteForceDOF(Container<Tr> const& c) : mTiles(c) {}

    /// A tile of depth d exists that holds the point.
    bool exists(std::int64_t x, std::int64_t y, std::int64_t z, int d) const
    {
        return mTiles.at(x, y, z, d) != nullptr;
    }

    /// The voxel of depth d at corner p lies on a low side of its tile (its index is 0 on the
    /// axes of some non-empty set A) and the tile one step down along A does not exist at d.
    bool hanging(std::int64_t x, std::int64_t y, std::int64_t z, int d) const
    {
        std::int64_t const tw = Tr::tileVoxelWidth(d);
        auto const* tile = mTiles.at(x, y, z, d);
        bool const low[3] = {x == tile->ti(), y == tile->tj(), z == tile->tk()};
        for (int s = 1; s < 8; ++s) {
            bool const a[3] = {(s & 1) != 0, (s & 2) != 0, (s & 4) != 0};
            if ((a[0] && !low[0]) || (a[1] && !low[1]) || (a[2] && !low[2]))
                continue;
            if (!exists(tile->ti() - (a[0] ? tw : 0), tile->tj() - (a[1] ? tw : 0),
                        tile->tk() - (a[2] ? tw : 0), d))
                return true;
        }
        return false;
    }

    /// The voxel of depth d at corner p is covered by a tile of depth d + 1.
    bool covered(std::int64_t x, std::int64_t y, std::int64_t z, int d) const
    {
        return d < Tr::kMaxDepth && exists(x, y, z, d + 1);
    }

    short flags(Tile<Tr> const& t, int i, int j, int k) const
    {
        int const d = t.depth();
        std::int64_t const w = Tr::voxelDataWidth(d);
        std::int64_t const x = t.ti() + i * w, y = t.tj() + j * w, z = t.tk() + k * w;
        bool const hangs = hanging(x, y, z, d);
        if (d == Tr::kMaxDepth || !covered(x, y, z, d)) {
            short f = hangs ? 4 : 1;
            bool refinedBelow = false;
            if (d < Tr::kMaxDepth)
                for (int s = 1; s < 8; ++s)
                    refinedBelow |= covered(x - ((s & 1) ? w : 0), y - ((s & 2) ? w : 0),
                                            z - ((s & 4) ? w : 0), d);
            if (!refinedBelow)
                f |= 8;
            return f;
        }
        if (hangs)
            return 4;
        // The finer voxel at the same corner hangs: this voxel is solved here.
        return hanging(x, y, z, d + 1) ? 1 : 2;
    }

private:
    testtrees::TileSet<Tr> mTiles;
};

template <typename Tr>
Quillon::Ptr<VoxelChannel<Tr, short>> dofChannel(Container<Tr> const& c, short fill = 77)
{
    auto ch = Quillon::makePtr<VoxelChannel<Tr, short>>(
        "dof", &fill, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
    ch->update(c);
    return ch;
}

/// Compares every voxel with the brute force; returns the number of voxels compared.
template <typename Tr>
std::int64_t expectMatchesBruteForce(Container<Tr> const& c, VoxelChannel<Tr, short> const& dof,
                                     std::string const& what)
{
    constexpr int W = Tr::kTileWidth;
    BruteForceDOF<Tr> const truth(c);
    std::int64_t n = 0, wrong = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const& tile = c.tile(t, d);
            auto const block = dof.tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i, ++n) {
                        short const expected = truth.flags(tile, i, j, k);
                        if (block(i, j, k) != expected && ++wrong <= 5)
                            ADD_FAILURE()
                                << what << ": depth " << d << " tile (" << tile.ti() << ", "
                                << tile.tj() << ", " << tile.tk() << ") voxel (" << i << ", " << j
                                << ", " << k << "): " << block(i, j, k) << " expected " << expected;
                    }
        }
    EXPECT_EQ(wrong, 0) << what;
    return n;
}

template <typename Tr>
std::vector<short> allFlags(Container<Tr> const& c, VoxelChannel<Tr, short> const& dof)
{
    std::vector<short> out;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto const b = dof.tileData(t, d);
            out.insert(out.end(), b.begin(), b.end());
        }
    return out;
}

} // namespace

TYPED_TEST(DOFClassification, MatchesBruteForceOnRandomUngradedTrees)
{
    using Tr = TypeParam;
    for (std::uint32_t seed : {1u, 2u, 3u}) {
        Container<Tr> c("tree", 1.0f);
        testtrees::growRandomTree(c, seed, 6, 80, Tr::kMaxDepth - 6, 0.4);
        auto dof = dofChannel(c);
        classifyDegreesOfFreedom(c, *dof);
        EXPECT_GT(expectMatchesBruteForce(c, *dof, "seed " + std::to_string(seed)), 1000);
    }
}

TYPED_TEST(DOFClassification, MatchesBruteForceOnRandomGradedTrees)
{
    using Tr = TypeParam;
    for (std::uint32_t seed : {4u, 5u}) {
        Container<Tr> c("tree", 1.0f);
        testtrees::growRandomTree(c, seed, 4, 60, Tr::kMaxDepth - 4, 0.3);
        CoreGL::TileTree3D::ensureSamplerAssumptions(c, nullptr);
        auto dof = dofChannel(c);
        classifyDegreesOfFreedom(c, *dof);
        EXPECT_GT(expectMatchesBruteForce(c, *dof, "graded seed " + std::to_string(seed)), 1000);
    }
    Container<Tr> sphere("tree", 1.0f);
    testtrees::buildGradedSphere(sphere, 10.0, Tr::kMaxDepth, 1.0);
    auto dof = dofChannel(sphere);
    classifyDegreesOfFreedom(sphere, *dof);
    expectMatchesBruteForce(sphere, *dof, "graded sphere");
}

TYPED_TEST(DOFClassification, LoneTileHangsOnItsThreeLowFaces)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    // The root alone, and a deepest tile with nothing but its ancestors.
    for (int depth : {0, Tr::kMaxDepth}) {
        Container<Tr> c("tree", 1.0f);
        auto acc = c.tileAccessor();
        auto const& tile = acc.addTile(0, 0, 0, depth);
        auto dof = dofChannel(c);
        classifyDegreesOfFreedom(c, *dof);
        auto const b = dof->tileData(tile.treeIndex());
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    bool const lowSide = i == 0 || j == 0 || k == 0;
                    // A leaf tile: every voxel also has no covered voxel below it.
                    EXPECT_EQ(b(i, j, k), lowSide ? 4 | 8 : 1 | 8)
                        << "depth " << depth << " (" << i << j << k << ")";
                }
    }
}

TYPED_TEST(DOFClassification, UniformBlockOfDeepestTilesHoldsNineInside)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Container<Tr> c("tree", 1.0f);
    testtrees::addBlock(c, Tr::kMaxDepth, {-1, -1, -1}, {1, 1, 1});
    auto dof = dofChannel(c);
    classifyDegreesOfFreedom(c, *dof);
    auto acc = c.tileAccessor();
    auto const& centre = acc.tile(0, 0, 0, Tr::kMaxDepth);
    ASSERT_EQ(centre.depth(), Tr::kMaxDepth);
    auto const b = dof->tileData(centre.treeIndex());
    for (int n = 0; n < W * W * W; ++n)
        EXPECT_EQ(b[n], 9) << n;
    // The block's low corner tile hangs on its low faces.
    std::int64_t const tw = Tr::tileVoxelWidth(Tr::kMaxDepth);
    auto const& low = acc.tile(-tw, -tw, -tw, Tr::kMaxDepth);
    EXPECT_EQ(dof->tileData(low.treeIndex())(0, 1, 1), 4 | 8);
    EXPECT_EQ(dof->tileData(low.treeIndex())(1, 1, 1), 9);
}

TYPED_TEST(DOFClassification, ParentVoxelOverAHangingChildVoxelIsSolved)
{
    using Tr = TypeParam;
    constexpr int S = Tr::kVoxelsPerSlot;
    int const d = Tr::kMaxDepth - 2;
    std::int64_t const cw = Tr::tileVoxelWidth(d + 1);
    {
        // One child in slot (1,1,1): all its low sides hang.
        Container<Tr> c("tree", 1.0f);
        testtrees::addBlock(c, d, {-1, -1, -1}, {0, 0, 0});
        auto acc = c.tileAccessor();
        int3 const pc =
            acc.tile(0, 0, 0, d).tijk(); // tile corners of Traits55 are not multiples of the width
        acc.addTile(pc.x + cw, pc.y + cw, pc.z + cw, d + 1);
        auto dof = dofChannel(c);
        classifyDegreesOfFreedom(c, *dof);
        auto const& parent = acc.tile(pc, d);
        auto const b = dof->tileData(parent.treeIndex());
        EXPECT_EQ(b(S, S, S), kDOFSolved) << "covers the child's hanging corner voxel";
        if (S == 2) {
            EXPECT_EQ(b(3, 3, 3), kDOFFromChild) << "covers an inner child voxel";
            EXPECT_EQ(b(2, 3, 3), kDOFSolved) << "covers a voxel of the child's low face";
        }
        EXPECT_EQ(b(0, 0, 0) & ~short(8), kDOFSolved) << "a leaf voxel";
    }
    {
        // Children in the slots (1..2)^3 (Traits55) or all eight slots (Traits24): the child at the
        // high corner has all its low neighbours, so the parent voxel over its corner voxel takes
        // the child's value.
        Container<Tr> c("tree", 1.0f);
        testtrees::addBlock(c, d, {-1, -1, -1}, {0, 0, 0});
        auto acc = c.tileAccessor();
        int3 const pc = acc.tile(0, 0, 0, d).tijk();
        int const lo = S == 2 ? 0 : 1, hi = S == 2 ? 1 : 2;
        for (int z = lo; z <= hi; ++z)
            for (int y = lo; y <= hi; ++y)
                for (int x = lo; x <= hi; ++x)
                    acc.addTile(pc.x + x * cw, pc.y + y * cw, pc.z + z * cw, d + 1);
        auto dof = dofChannel(c);
        classifyDegreesOfFreedom(c, *dof);
        auto const b = dof->tileData(acc.tile(pc, d).treeIndex());
        EXPECT_EQ(b(hi * S, hi * S, hi * S), kDOFFromChild);
        if (S == 1)
            EXPECT_EQ(b(1, 1, 1), kDOFSolved);
    }
}

TYPED_TEST(DOFClassification, RerunningGivesTheSameFlags)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 11, 5, 80, Tr::kMaxDepth - 5, 0.4);
    auto dof = dofChannel(c);
    classifyDegreesOfFreedom(c, *dof);
    auto const first = allFlags(c, *dof);
    classifyDegreesOfFreedom(c, *dof);
    EXPECT_EQ(allFlags(c, *dof), first);
}

TYPED_TEST(DOFClassification, OneAndAllThreadsGiveTheSameFlags)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 12, 8, 100, Tr::kMaxDepth - 6, 0.5);
    auto dof = dofChannel(c);
    std::vector<short> one;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        classifyDegreesOfFreedom(c, *dof);
        one = allFlags(c, *dof);
    }
    auto other = dofChannel(c, short(-1));
    classifyDegreesOfFreedom(c, *other);
    EXPECT_EQ(allFlags(c, *other), one);
}

TYPED_TEST(DOFClassification, PerTileFunctionMatchesTheWalk)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 13, 4, 60, Tr::kMaxDepth - 4, 0.4);
    auto walked = dofChannel(c);
    classifyDegreesOfFreedom(c, *walked);
    auto byTile = dofChannel(c);
    auto acc = c.tileAccessor();
    for (int d = Tr::kMaxDepth; d >= 0; --d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t)
            classifyTileDegreesOfFreedom(c.tile(t, d), acc, *byTile);
    EXPECT_EQ(allFlags(c, *byTile), allFlags(c, *walked));
}

TYPED_TEST(DOFClassification, ObjectFormCreatesTheChannelWhenAbsent)
{
    using Tr = TypeParam;
    auto object = Command::createVoxelTVL<Tr>(
        Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, 0.5f, kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<Container<Tr>> tree(*object, Tavrel::Geometry::sVoxelTileTree);
        TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, Tavrel::Geometry::sVoxelComp);
        testtrees::growRandomTree(*tree, 14, 3, 40, Tr::kMaxDepth - 3, 0.3);
        topology->update(*tree);
    }
    auto const names = object->componentRange();
    classifyDegreesOfFreedom<Tr>(Tavrel::Geometry::sVoxelDegreeOfFreedom, *object);
    auto const dof = object->template component<VoxelChannel<Tr, short>>(
        Tavrel::Geometry::sVoxelDegreeOfFreedom);
    ASSERT_TRUE(dof);
    EXPECT_EQ(dof->targetName(), Tavrel::Geometry::sVoxelComp);
    EXPECT_EQ(dof->minDepth(), 0);
    EXPECT_EQ(dof->depth(), Tr::kMaxDepth);
    EXPECT_EQ(object->componentRange().size(), names.size() + 1);
    auto const& tree = *object->template component<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree);
    expectMatchesBruteForce(tree, *dof, "object form");
    // A second call reuses the channel.
    classifyDegreesOfFreedom<Tr>(Tavrel::Geometry::sVoxelDegreeOfFreedom, *object);
    EXPECT_EQ(object->componentRange().size(), names.size() + 1);
}

TYPED_TEST(DOFClassification, ObjectFormWithoutTreeOrWithAnotherTypeDoesNothing)
{
    using Tr = TypeParam;
    using Other = std::conditional_t<std::is_same_v<Tr, Traits24>, Traits55, Traits24>;
    auto empty = TVL::createEmptyTVL();
    classifyDegreesOfFreedom<Tr>("dof", *empty);
    EXPECT_EQ(empty->componentCount(), 0u);
    // The other tree type: nothing is created.
    auto other = Command::createVoxelTVL<Other>(
        Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, 1.0f, kVoxelOffsetCenter);
    classifyDegreesOfFreedom<Tr>("dof", *other);
    EXPECT_FALSE(other->hasComponentFromName("dof"));
    EXPECT_EQ(other->componentCount(), 2u);
    // A component of that name of another element type is left as it is.
    auto object = Command::createVoxelTVL<Tr>(
        Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, 1.0f, kVoxelOffsetCenter);
    auto const& topology =
        *object->template component<VoxelTopology<Tr>>(Tavrel::Geometry::sVoxelComp);
    Command::createChannel<float, Tr::kRatio, Tr::kTileWidth, Tr::kTileWidth, 0>(
        "dof", topology, *object, 3.0f, kDataElementInitializerDefaultValue, 0, Tr::kMaxDepth);
    classifyDegreesOfFreedom<Tr>("dof", *object);
    EXPECT_TRUE((object->template hasComponentFromName<VoxelChannel<Tr, float>>("dof")));
    EXPECT_EQ(object->componentCount(), 3u);
}

TYPED_TEST(DOFClassification, CancellationThrowsAndLeavesTheObjectWhole)
{
    using Tr = TypeParam;
    auto object = Command::createVoxelTVL<Tr>(
        Tavrel::Geometry::sVoxelTileTree, Tavrel::Geometry::sVoxelComp, 1.0f, kVoxelOffsetCenter);
    {
        TVL::ComponentGuard<Container<Tr>> tree(*object, Tavrel::Geometry::sVoxelTileTree);
        TVL::ComponentGuard<VoxelTopology<Tr>> topology(*object, Tavrel::Geometry::sVoxelComp);
        testtrees::growRandomTree(*tree, 15, 3, 40, Tr::kMaxDepth - 3, 0.3);
        topology->update(*tree);
    }
    Quillon::requestJobCancellation();
    try {
        classifyDegreesOfFreedom<Tr>("dof", *object);
        ADD_FAILURE() << "no exception";
    } catch (std::runtime_error const& e) {
        EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
    }
    Quillon::clearJobCancellation();
    EXPECT_TRUE(
        object->template hasComponentFromName<Container<Tr>>(Tavrel::Geometry::sVoxelTileTree));
    EXPECT_TRUE(
        object->template hasComponentFromName<VoxelTopology<Tr>>(Tavrel::Geometry::sVoxelComp));
    EXPECT_TRUE((object->template hasComponentFromName<VoxelChannel<Tr, short>>("dof")));
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(DOFClassificationExports, EveryFormIsExported)
{
    void (*a24)(Container<Traits24> const&, VoxelChannel<Traits24, short>&) =
        &classifyDegreesOfFreedom<Traits24>;
    void (*a55)(Container<Traits55> const&, VoxelChannel<Traits55, short>&) =
        &classifyDegreesOfFreedom<Traits55>;
    void (*b24)(Quillon::String const&, TVL::Object&) = &classifyDegreesOfFreedom<Traits24>;
    void (*b55)(Quillon::String const&, TVL::Object&) = &classifyDegreesOfFreedom<Traits55>;
    testlinked::requireLinked(a24, a55, b24, b55, &classifyTileDegreesOfFreedom<Traits24>,
                              &classifyTileDegreesOfFreedom<Traits55>);
}
