// Tile tree container: geometry, growth, merge, removal, sort, lookups, concurrency.
#include <gtest/gtest.h>

#include <algorithm>
#include <hexmold/substrate/container.h>
#include <random>
#include <set>
#include <thread>
#include <vector>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class ContainerTest : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ContainerTest, TraitsTypes, TraitsNames);

template <typename Tr> std::int64_t lo()
{
    return -Tr::kCentreOffset;
}

/// Corner of the tile of @p depth holding coordinate @p c (independent of the library).
template <typename Tr> std::int64_t cornerOf(std::int64_t c, int depth)
{
    std::int64_t const w = Tr::tileVoxelWidth(depth);
    std::int64_t const u = c + Tr::kCentreOffset;
    return (u / w) * w - Tr::kCentreOffset;
}

template <typename Tr> VoxelCoord coordOf(std::int64_t i, std::int64_t j, std::int64_t k, int depth)
{
    return {int(cornerOf<Tr>(i, depth)), int(cornerOf<Tr>(j, depth)), int(cornerOf<Tr>(k, depth)),
            depth};
}

/// The reference model: a set of tiles named by corner and depth, closed under ancestors.
template <typename Tr> struct Model {
    std::set<VoxelCoord> tiles;
    void add(std::int64_t i, std::int64_t j, std::int64_t k, int depth)
    {
        for (int d = 0; d <= depth; ++d)
            tiles.insert(coordOf<Tr>(i, j, k, d));
    }
    /// Removes @p v and everything inside it at deeper depths.
    void remove(VoxelCoord const& v)
    {
        std::int64_t const w = Tr::tileVoxelWidth(v.depth);
        for (auto it = tiles.begin(); it != tiles.end();) {
            bool inside = it->depth >= v.depth && it->i >= v.i && it->i < v.i + w && it->j >= v.j &&
                          it->j < v.j + w && it->k >= v.k && it->k < v.k + w;
            it = inside ? tiles.erase(it) : std::next(it);
        }
    }
};

/// Checks every structural invariant of @p c and that its tiles are exactly the model's.
template <typename Tr> void expectConsistent(Container<Tr> const& c, Model<Tr> const& m)
{
    using TileT = typename Container<Tr>::TileType;
    std::set<VoxelCoord> seen;
    std::int64_t total = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            TileT const& tile = c.tile(t, d);
            ASSERT_TRUE(tile.valid());
            ASSERT_EQ(tile.index(), t);
            ASSERT_EQ(tile.depth(), d);
            ASSERT_TRUE(seen.insert(tile.voxelCoord()).second) << "duplicate tile";
            // Corner on the lattice of its depth.
            ASSERT_EQ(cornerOf<Tr>(tile.ti(), d), tile.ti());
            ASSERT_EQ(cornerOf<Tr>(tile.tk(), d), tile.tk());
            if (d == 0) {
                ASSERT_LT(tile.parent(), 0);
            } else {
                ASSERT_GE(tile.parent(), 0);
                ASSERT_LT(tile.parent(), c.tileCount(d - 1));
                TileT const& p = c.tile(tile.parent(), d - 1);
                ASSERT_TRUE(p.contains(tile.tijk()));
                int3 const s = p.childIJK(tile.tijk());
                ASSERT_EQ(p.childIndex(s), t);
            }
            for (int s = 0; s < Tr::kChildCount; ++s) {
                std::int64_t const ch = tile.childIndex(s);
                if (ch < 0)
                    continue;
                ASSERT_LT(ch, c.tileCount(d + 1));
                ASSERT_EQ(c.tile(ch, d + 1).parent(), t);
                int3 const sc = TileT::slotCoordinates(s);
                ASSERT_EQ(c.tile(ch, d + 1).tijk(), tile.childTIJK(sc));
            }
            ++total;
        }
    }
    EXPECT_EQ(total, c.tileCount(-1));
    EXPECT_EQ(seen, m.tiles);
    std::size_t roots = 0;
    for (auto it = c.cbeginRoots(); it != c.cendRoots(); ++it) {
        ++roots;
        EXPECT_EQ(c.tile(it->second).voxelCoord(), it->first);
        EXPECT_LT(c.tile(it->second).parent(), 0);
    }
    EXPECT_EQ(roots, m.tiles.empty() ? 0u : 1u);
}

} // namespace

TYPED_TEST(ContainerTest, EmptyContainerHasNoTilesNoRootsAndLookupsGiveTheSentinel)
{
    Container<TypeParam> c("tree", 0.1f);
    EXPECT_EQ(c.tileCount(-1), 0);
    EXPECT_EQ(c.cbeginRoots(), c.cendRoots());
    auto acc = c.tileAccessor();
    for (int d = 0; d <= TypeParam::kMaxDepth; ++d) {
        auto const& t = acc.tile(0, 0, 0, d);
        EXPECT_FALSE(t.valid());
        EXPECT_TRUE(t.depth() < 0 || t.depth() > TypeParam::kMaxDepth);
    }
    EXPECT_FALSE(acc.tile(12345, -77, 3, TypeParam::kMaxDepth).valid());
}

TYPED_TEST(ContainerTest, DeepestDepthWidths)
{
    using C = Container<TypeParam>;
    constexpr int dmax = TypeParam::kMaxDepth;
    EXPECT_EQ(C::tileVoxelWidth(dmax), TypeParam::kTileWidth);
    EXPECT_EQ(C::voxelDataWidth(dmax), 1);
    EXPECT_EQ(C::voxelWidth(dmax), 1);
    if constexpr (std::is_same_v<TypeParam, Traits24>) {
        EXPECT_EQ(dmax, 28);
        EXPECT_EQ(C::tileVoxelWidth(0), 1073741824);
        EXPECT_EQ(C::kCentreOffset, 536870912);
    } else {
        EXPECT_EQ(dmax, 12);
        EXPECT_EQ(C::tileVoxelWidth(0), 1220703125);
        EXPECT_EQ(C::kCentreOffset, 610351562);
    }
    for (int d = 0; d <= dmax; ++d) {
        EXPECT_EQ(C::tileVoxelWidth(d), C::voxelDataWidth(d) * TypeParam::kTileWidth);
        if (d > 0)
            EXPECT_EQ(C::tileVoxelWidth(d - 1), C::tileVoxelWidth(d) * TypeParam::kRatio);
    }
    C c("t", 1.0f);
    auto acc = c.tileAccessor();
    auto const& t = acc.addTile(0, 0, 0, dmax);
    EXPECT_EQ(t.tileVoxelWidth(), TypeParam::kTileWidth);
    EXPECT_EQ(t.voxelDataWidth(), 1);
}

TYPED_TEST(ContainerTest, AddTileInsideExistingTileReturnsItAndKeepsCount)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth - 1;
    auto const& t = acc.addTile(17, -40, 9, d);
    ASSERT_TRUE(t.valid());
    EXPECT_EQ(t.depth(), d);
    std::int64_t const n = c.tileCount(-1);
    EXPECT_EQ(n, d + 1); // the tile and one ancestor per coarser depth
    auto other = c.tileAccessor();
    auto const& u = other.addTile(t.ti() + 1, t.tj() + int(t.tileVoxelWidth()) - 1, t.tk(), d);
    EXPECT_EQ(&u, &t);
    EXPECT_EQ(c.tileCount(-1), n);
    // And a lookup finds it.
    auto const& f = other.tile(t.ti(), t.tj(), t.tk(), TypeParam::kMaxDepth);
    EXPECT_EQ(f.treeIndex(), t.treeIndex());
}

TYPED_TEST(ContainerTest, NeighborAtTheEdgeOfEverythingIsCoarserOrSentinel)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth;
    auto const& t = acc.addTile(0, 0, 0, d);
    auto const tcopy = t.treeIndex();
    for (int dir = 0; dir < 27; ++dir) {
        if (dir == kNeighborSelf)
            continue;
        auto const& n = acc.tileNeighbor(c.tile(tcopy), dir);
        EXPECT_NE(n.depth(), d) << "direction " << dir;
    }
    EXPECT_EQ(acc.tileNeighbor(c.tile(tcopy), kNeighborSelf).treeIndex(), tcopy);
    // The single root's neighbours lie outside the domain.
    auto const& root = c.tile(0, 0);
    EXPECT_FALSE(acc.tileNeighbor(root, kNeighborPosX).valid());
    EXPECT_EQ(acc.treeIndexNeighbor(root, kNeighborNegZ), kNoTile);
}

TYPED_TEST(ContainerTest, NeighborDirectionEncoding)
{
    EXPECT_EQ(neighborDirection(1, 0, 0), 22);
    EXPECT_EQ(neighborDirection(-1, 0, 0), 4);
    EXPECT_EQ(neighborDirection(0, 1, 0), 16);
    EXPECT_EQ(neighborDirection(0, -1, 0), 10);
    EXPECT_EQ(neighborDirection(0, 0, 1), 14);
    EXPECT_EQ(neighborDirection(0, 0, -1), 12);
    for (int dir = 0; dir < 27; ++dir)
        EXPECT_EQ(neighborDirection(neighborDx(dir), neighborDy(dir), neighborDz(dir)), dir);
}

TYPED_TEST(ContainerTest, SameDepthNeighborsAreFound)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth;
    std::int64_t const w = TypeParam::tileVoxelWidth(d);
    acc.addTiles(int3{0, 0, 0}, int3{int(3 * w - 1), int(3 * w - 1), int(3 * w - 1)}, d);
    auto cacc = std::as_const(c).tileAccessor();
    auto const& mid = cacc.tile(w, w, w, d);
    ASSERT_EQ(mid.depth(), d);
    for (int dir = 0; dir < 27; ++dir) {
        auto const& n = cacc.tileNeighbor(mid, dir);
        ASSERT_EQ(n.depth(), d);
        EXPECT_EQ(n.ti(), mid.ti() + neighborDx(dir) * w);
        EXPECT_EQ(n.tj(), mid.tj() + neighborDy(dir) * w);
        EXPECT_EQ(n.tk(), mid.tk() + neighborDz(dir) * w);
    }
    std::vector<typename Container<TypeParam>::TileType const*> around;
    cacc.tileNeighbors(mid, around, d, true);
    EXPECT_EQ(around.size(), 26u);
}

TYPED_TEST(ContainerTest, RemovePairsReproduceCompactedOrder)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth;
    std::int64_t const w = TypeParam::tileVoxelWidth(d);
    acc.addTiles(int3{0, 0, 0}, int3{int(6 * w - 1), int(2 * w - 1), int(w - 1)}, d);
    std::int64_t const n = c.tileCount(d);
    ASSERT_GE(n, 12);
    // A side array holding each tile's corner.
    std::vector<VoxelCoord> side;
    for (std::int64_t t = 0; t < n; ++t)
        side.push_back(c.tile(t, d).voxelCoord());
    TileIndexLists<TypeParam> rm;
    rm[d] = {1, 4, 5, n - 1};
    TileMoveLists<TypeParam> moved;
    EXPECT_EQ(c.removeTiles(rm, moved), 4);
    for (auto [from, to] : moved[d])
        side[to] = side[from];
    side.resize(static_cast<std::size_t>(c.tileCount(d)));
    for (std::int64_t t = 0; t < c.tileCount(d); ++t)
        EXPECT_EQ(side[t], c.tile(t, d).voxelCoord());
}

TYPED_TEST(ContainerTest, RemovingATileRemovesItsDescendantsAndClearsTheParentSlot)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth;
    auto const parentIndex = acc.addTile(0, 0, 0, d).parentTreeIndex();
    Model<TypeParam> m;
    m.add(0, 0, 0, d);
    TileIndexLists<TypeParam> rm;
    rm[d - 2] = {0};
    TileMoveLists<TypeParam> moved;
    c.removeTiles(rm, moved);
    m.remove(coordOf<TypeParam>(0, 0, 0, d - 2));
    expectConsistent(c, m);
    EXPECT_EQ(c.tileCount(d), 0);
    EXPECT_EQ(c.tileCount(d - 1), 0);
    EXPECT_TRUE(c.tile(0, d - 3).isLeaf());
    (void)parentIndex;
}

TYPED_TEST(ContainerTest, BadInputIsRejectedWithoutCorruption)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth;
    acc.addTile(0, 0, 0, d);
    Model<TypeParam> m;
    m.add(0, 0, 0, d);
    // Depths outside the tree and points outside the domain add nothing.
    EXPECT_FALSE(acc.addTile(0, 0, 0, d + 1).valid());
    EXPECT_FALSE(acc.addTile(0, 0, 0, -1).valid());
    EXPECT_FALSE(acc.addTile(std::numeric_limits<std::int32_t>::max(), 0, 0, d).valid());
    EXPECT_FALSE(acc.addTile(lo<TypeParam>() - 1, 0, 0, 3).valid());
    EXPECT_EQ(acc.addTiles(int3{1 << 30, 1 << 30, 1 << 30},
                           int3{(1 << 30) + 5, (1 << 30) + 5, (1 << 30) + 5}, 2),
              0);
    expectConsistent(c, m);
    // Removal lists with bad indices: the bad entries are ignored.
    TileIndexLists<TypeParam> rm;
    rm[d] = {-5, 7, 1 << 30};
    rm[0] = {99};
    TileMoveLists<TypeParam> moved;
    EXPECT_EQ(c.removeTiles(rm, moved), 0);
    expectConsistent(c, m);
    // Lookups with bad indices and depths.
    EXPECT_EQ(c.tileIndex(TreeIndex{5, 0}), -1);
    EXPECT_EQ(c.tileIndex(TreeIndex{0, 99}), -1);
    EXPECT_FALSE(c.tile(std::int64_t(1) << 40).valid());
    EXPECT_FALSE(c.tile(std::int64_t(-3)).valid());
    EXPECT_FALSE(std::as_const(c).tileAccessor().tile(0, 0, 0, -4).valid());
    EXPECT_EQ(std::as_const(c).tileAccessor().tile(0, 0, 0, 1000).depth(), d);
}

TYPED_TEST(ContainerTest, FlatIndexRoundTrips)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth;
    std::int64_t const w = TypeParam::tileVoxelWidth(d);
    acc.addTiles(int3{-int(w), 0, 0}, int3{int(3 * w), 0, 0}, d);
    for (std::int64_t f = 0; f < c.tileCount(-1); ++f) {
        auto const& t = c.tile(f);
        ASSERT_TRUE(t.valid());
        EXPECT_EQ(c.tileIndex(t.treeIndex()), f);
    }
}

TYPED_TEST(ContainerTest, WorldAndTileSpaceAreInverse)
{
    Container<TypeParam> c("t", 0.25f);
    double3 const w{1.5, -2.25, 100.0};
    double3 const t = c.toTileSpace(w);
    EXPECT_DOUBLE_EQ(t.x, 6.0 + double(TypeParam::kCentreOffset));
    double3 const back = c.toWorldSpace(t);
    EXPECT_DOUBLE_EQ(back.x, w.x);
    EXPECT_DOUBLE_EQ(back.y, w.y);
    EXPECT_DOUBLE_EQ(back.z, w.z);
    int3 const corner = Container<TypeParam>::tileCorner(t, TypeParam::kMaxDepth);
    std::int64_t const tw = TypeParam::tileVoxelWidth(TypeParam::kMaxDepth);
    EXPECT_EQ(corner.x, cornerOf<TypeParam>(6, TypeParam::kMaxDepth));
    EXPECT_EQ(corner.y, cornerOf<TypeParam>(-9, TypeParam::kMaxDepth));
    auto acc = c.tileAccessor();
    auto const& tile = acc.addTile(corner, TypeParam::kMaxDepth);
    EXPECT_TRUE(tile.contains(6, -9, 400));
    bbox<double3, double> wb;
    c.worldSpaceBounds(wb);
    EXPECT_LE(wb.min.x, 1.5);
    EXPECT_GE(wb.max.x, 1.5);
    EXPECT_DOUBLE_EQ(wb.max.x - wb.min.x, tw * 0.25);
}

TYPED_TEST(ContainerTest, MortonSortPermutesTilesAndLinks)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    std::mt19937 rng(7);
    int const d = TypeParam::kMaxDepth;
    Model<TypeParam> m;
    std::uniform_int_distribution<int> u(-2000, 2000);
    for (int n = 0; n < 300; ++n) {
        int i = u(rng), j = u(rng), k = u(rng);
        acc.addTile(i, j, k, d);
        m.add(i, j, k, d);
    }
    std::vector<VoxelCoord> before;
    for (std::int64_t t = 0; t < c.tileCount(d); ++t)
        before.push_back(c.tile(t, d).voxelCoord());
    auto perm = c.sortIntoMortonOrder();
    expectConsistent(c, m);
    ASSERT_EQ(perm[d].size(), before.size());
    for (std::size_t n = 0; n < before.size(); ++n)
        EXPECT_EQ(c.tile(std::int64_t(n), d).voxelCoord(), before[perm[d][n]]);
    // Morton order: increasing interleaved ordinals. Check with an independent comparison.
    auto lessMsb = [](std::uint64_t a, std::uint64_t b) { return a < b && a < (a ^ b); };
    auto key = [&](VoxelCoord const& v, int a) {
        std::int64_t const c0 = a == 0 ? v.i : (a == 1 ? v.j : v.k);
        return std::uint64_t((c0 + TypeParam::kCentreOffset) / TypeParam::tileVoxelWidth(d));
    };
    for (std::int64_t t = 1; t < c.tileCount(d); ++t) {
        VoxelCoord a = c.tile(t - 1, d).voxelCoord(), b = c.tile(t, d).voxelCoord();
        int msd = 0;
        std::uint64_t x = 0;
        // z holds the most significant bit of each level, then y, then x.
        for (int ax = 2; ax >= 0; --ax) {
            std::uint64_t y = key(a, ax) ^ key(b, ax);
            if (lessMsb(x, y)) {
                msd = ax;
                x = y;
            }
        }
        EXPECT_LT(key(a, msd), key(b, msd));
    }
}

TYPED_TEST(ContainerTest, LookupsAgreeWithBruteForceWithAndWithoutTables)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    std::mt19937 rng(11);
    int const dmax = TypeParam::kMaxDepth;
    std::uniform_int_distribution<int> u(-300, 300);
    std::uniform_int_distribution<int> ud(dmax - 4, dmax);
    Model<TypeParam> m;
    for (int n = 0; n < 400; ++n) {
        int i = u(rng), j = u(rng), k = u(rng), d = ud(rng);
        acc.addTile(i, j, k, d);
        m.add(i, j, k, d);
    }
    expectConsistent(c, m);
    auto brute = [&](int i, int j, int k, int d) -> VoxelCoord {
        for (int q = std::min(d, dmax); q >= 0; --q) {
            VoxelCoord v = coordOf<TypeParam>(i, j, k, q);
            if (m.tiles.count(v))
                return v;
        }
        return VoxelCoord{0, 0, 0, -1};
    };
    std::vector<std::array<int, 4>> queries;
    for (int n = 0; n < 3000; ++n)
        queries.push_back({u(rng), u(rng), u(rng), ud(rng)});
    for (int pass = 0; pass < 3; ++pass) {
        if (pass == 1)
            c.buildAccessorAccelerationStructure(-1);
        if (pass == 2)
            c.precomputeTileNeighbors();
        auto cacc = std::as_const(c).tileAccessor();
        for (auto const& q : queries) {
            auto const& t = cacc.tile(q[0], q[1], q[2], q[3]);
            VoxelCoord const e = brute(q[0], q[1], q[2], q[3]);
            ASSERT_TRUE(t.valid());
            ASSERT_EQ(t.voxelCoord(), e);
            // Neighbour queries agree with plain lookups.
            int dir = (q[0] & 0xffff) % 27;
            std::int64_t const w = t.tileVoxelWidth();
            auto const& n = cacc.tileNeighbor(t, dir);
            auto plain = Container<TypeParam>(c).tileAccessor();
            (void)plain;
            VoxelCoord const en =
                brute(int(t.ti() + neighborDx(dir) * w), int(t.tj() + neighborDy(dir) * w),
                      int(t.tk() + neighborDz(dir) * w), t.depth());
            ASSERT_EQ(n.voxelCoord(), en);
        }
    }
}

TYPED_TEST(ContainerTest, RandomizedSequencesMatchTheReferenceModel)
{
    std::mt19937 rng(12345);
    int const dmax = TypeParam::kMaxDepth;
    int const sequences = 60;
    for (int s = 0; s < sequences; ++s) {
        Container<TypeParam> c("t", 1.0f);
        Model<TypeParam> m;
        // A side array per depth holding each tile's corner: it must follow (from, to) pairs.
        std::vector<std::vector<VoxelCoord>> side(TypeParam::kDepthCount);
        auto syncSide = [&](TileCornerLists<TypeParam> const* created) {
            for (int d = 0; d <= dmax; ++d) {
                if (created)
                    for (auto const& p : (*created)[d])
                        side[d].push_back(VoxelCoord{p.x, p.y, p.z, d});
            }
        };
        auto refreshSideFromTree = [&]() {
            for (int d = 0; d <= dmax; ++d) {
                side[d].clear();
                for (std::int64_t t = 0; t < c.tileCount(d); ++t)
                    side[d].push_back(c.tile(t, d).voxelCoord());
            }
        };
        std::uniform_int_distribution<int> coord(-500, 500);
        std::uniform_int_distribution<int> depth(std::max(0, dmax - 6), dmax);
        std::uniform_int_distribution<int> op(0, 9);
        for (int step = 0; step < 25; ++step) {
            int const o = op(rng);
            if (o < 4) {
                auto acc = c.tileAccessor();
                int i = coord(rng), j = coord(rng), k = coord(rng), d = depth(rng);
                acc.addTile(i, j, k, d);
                m.add(i, j, k, d);
                refreshSideFromTree();
            } else if (o < 5) {
                auto acc = c.tileAccessor();
                int3 a{coord(rng), coord(rng), coord(rng)};
                int3 b = a + int3{coord(rng) / 8 + 70, 30, 20};
                int d = depth(rng);
                acc.addTiles(a, b, d);
                std::int64_t const w = TypeParam::tileVoxelWidth(d);
                for (std::int64_t k = cornerOf<TypeParam>(a.z, d); k <= b.z; k += w)
                    for (std::int64_t j = cornerOf<TypeParam>(a.y, d); j <= b.y; j += w)
                        for (std::int64_t i = cornerOf<TypeParam>(a.x, d); i <= b.x; i += w)
                            m.add(i, j, k, d);
                refreshSideFromTree();
            } else if (o < 8) {
                // Refine from a scratch tree filled with random tiles; created corners are
                // reported.
                Container<TypeParam>* scratch = c.threadLocalContainer(0);
                auto sacc = scratch->tileAccessor();
                for (int n = 0; n < 20; ++n) {
                    int i = coord(rng), j = coord(rng), k = coord(rng), d = depth(rng);
                    sacc.addTile(i, j, k, d);
                    m.add(i, j, k, d);
                }
                TileCornerLists<TypeParam> created;
                std::int64_t const before = c.tileCount(-1);
                c.refine(*scratch, &created, true);
                std::int64_t createdCount = 0;
                for (auto const& a : created)
                    createdCount += std::int64_t(a.size());
                ASSERT_EQ(createdCount, c.tileCount(-1) - before);
                syncSide(&created);
                // Created tiles are appended in order, so the side array equals the tree's order.
                for (int d = 0; d <= dmax; ++d) {
                    ASSERT_EQ(std::int64_t(side[d].size()), c.tileCount(d));
                    for (std::int64_t t = 0; t < c.tileCount(d); ++t)
                        ASSERT_EQ(side[d][t], c.tile(t, d).voxelCoord());
                }
                c.freeThreadLocalContainer(scratch);
            } else {
                TileIndexLists<TypeParam> rm;
                for (int d = 0; d <= dmax; ++d) {
                    std::int64_t const n = c.tileCount(d);
                    if (n == 0)
                        continue;
                    std::uniform_int_distribution<std::int64_t> pick(0, n - 1);
                    int const count = d >= dmax - 3 ? 3 : (op(rng) == 0 ? 1 : 0);
                    for (int q = 0; q < count; ++q) {
                        std::int64_t idx = pick(rng);
                        rm[d].push_back(idx);
                        m.remove(c.tile(idx, d).voxelCoord());
                    }
                }
                TileMoveLists<TypeParam> moved;
                c.removeTiles(rm, moved);
                for (int d = 0; d <= dmax; ++d) {
                    for (auto [from, to] : moved[d]) {
                        ASSERT_LT(to, from);
                        side[d][to] = side[d][from];
                    }
                    side[d].resize(std::size_t(c.tileCount(d)));
                    for (std::int64_t t = 0; t < c.tileCount(d); ++t)
                        ASSERT_EQ(side[d][t], c.tile(t, d).voxelCoord());
                }
            }
            expectConsistent(c, m);
            if (::testing::Test::HasFatalFailure())
                return;
        }
    }
}

TYPED_TEST(ContainerTest, ConcurrentAddTileLosesNothingAndDuplicatesNothing)
{
    Container<TypeParam> real("t", 1.0f);
    Container<TypeParam>* scratch = real.threadLocalContainer(0);
    int const threads = 8;
    int const perThread = 3000;
    int const dmax = TypeParam::kMaxDepth;
    std::vector<std::vector<std::array<int, 4>>> work(threads);
    Model<TypeParam> m;
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> coord(-400, 400);
    std::uniform_int_distribution<int> depth(dmax - 3, dmax);
    for (int t = 0; t < threads; ++t)
        for (int n = 0; n < perThread; ++n) {
            std::array<int, 4> q{coord(rng), coord(rng), coord(rng), depth(rng)};
            work[t].push_back(q);
            m.add(q[0], q[1], q[2], q[3]);
        }
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            auto acc = scratch->tileAccessor();
            for (auto const& q : work[t]) {
                auto const& tile = acc.addTile(q[0], q[1], q[2], q[3]);
                if (!tile.contains(q[0], q[1], q[2]) || tile.depth() != q[3])
                    std::abort();
            }
        });
    for (auto& th : pool)
        th.join();
    expectConsistent(*scratch, m);
    TileCornerLists<TypeParam> created;
    real.refine(*scratch, &created, true);
    expectConsistent(real, m);
    real.clearThreadLocalData(created);
    for (auto const& a : created)
        EXPECT_TRUE(a.empty());
}

TYPED_TEST(ContainerTest, CopyIsDeepAndIndependent)
{
    Container<TypeParam> c("t", 0.5f);
    auto acc = c.tileAccessor();
    acc.addTile(5, 5, 5, TypeParam::kMaxDepth);
    Container<TypeParam> d(c);
    EXPECT_EQ(d.tileCount(-1), c.tileCount(-1));
    EXPECT_EQ(d.voxelSize(), 0.5f);
    auto acc2 = d.tileAccessor();
    acc2.addTile(1000, 5, 5, TypeParam::kMaxDepth);
    EXPECT_GT(d.tileCount(-1), c.tileCount(-1));
    Quillon::Ptr<TVL::Component> copy;
    c.copyTo(copy);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->size(), c.size());
    EXPECT_EQ(copy->tileCount(-1), c.tileCount(-1));
}

TYPED_TEST(ContainerTest, CoarserAncestorIsReturnedWhenTheDepthIsMissing)
{
    Container<TypeParam> c("t", 1.0f);
    auto acc = c.tileAccessor();
    int const d = TypeParam::kMaxDepth - 2;
    acc.addTile(0, 0, 0, d);
    auto cacc = std::as_const(c).tileAccessor();
    auto const& t = cacc.tile(0, 0, 0, TypeParam::kMaxDepth);
    EXPECT_EQ(t.depth(), d);
    // A point in the root but beside the branch: the closest existing ancestor.
    std::int64_t const far = TypeParam::tileVoxelWidth(3);
    auto const& u = cacc.tile(far, far, far, TypeParam::kMaxDepth);
    EXPECT_TRUE(u.valid());
    EXPECT_LT(u.depth(), d);
    EXPECT_TRUE(u.contains(far, far, far));
}
