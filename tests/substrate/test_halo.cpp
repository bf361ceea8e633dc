// Halos: the rim of a tile's block across tile borders and resolution jumps, the copy with one
// extra sample per axis, and coarse copies of finer data in non-leaf voxels.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include <cstring>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/visitor.h>
#include <random>
#include <vector>

using namespace TVL::TileTree3D;

namespace {

// ---- element values ---------------------------------------------------------------------------

template <typename T, typename = void> struct Scalar {
    using Type = T;
    static constexpr int kCount = 1;
};
template <typename T> struct Scalar<T, std::void_t<typename T::ValueType>> {
    using Type = typename T::ValueType;
    static constexpr int kCount = int(sizeof(T) / sizeof(typename T::ValueType));
};

/// An element that names the integer @p n (distinct for distinct small n, in every type).
template <typename T> T element(int n)
{
    using S = typename Scalar<T>::Type;
    S s[Scalar<T>::kCount];
    for (int c = 0; c < Scalar<T>::kCount; ++c)
        s[c] = static_cast<S>((n + 3 * c) % 100);
    T v;
    std::memcpy(&v, s, sizeof(T));
    return v;
}
template <typename T> bool same(T const& a, T const& b)
{
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

template <typename Tr, typename T, int H = 0> using Ch = Channel<Tr, T, Tr::kTileWidth, H, 0>;

/// A tree, its topology and a channel over all depths.
template <typename Tr, typename T, int H = 0> struct Volume {
    Container<Tr> tree{"tree", 1.0f};
    VoxelTopology<Tr> topology{"topology", "tree", 1.0f};
    std::unique_ptr<Ch<Tr, T, H>> channel;

    void bind(T def = T{})
    {
        topology.update(tree);
        channel = std::make_unique<Ch<Tr, T, H>>(
            "values", &def, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
        channel->setTargetName("topology");
        channel->update(topology);
    }
    /// Every voxel of every tile gets element(code(tile, i, j, k)).
    template <typename F> void fill(F const& code)
    {
        constexpr int W = Tr::kTileWidth;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto td = channel->tileData(t, d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            td(i, j, k) = element<T>(code(tree.tile(t, d), i, j, k));
            }
    }
};

template <typename Tr> int3 finestOrdinal(int i, int j, int k)
{
    return {i, j, k};
}

template <typename Tr, typename T, int Hin, int Hout>
TileData<T, Tr::kTileWidth, Hout, 0> haloOf(Container<Tr> const& tree, Ch<Tr, T, Hin> const& ch,
                                            TreeIndex t, HaloType type, T def)
{
    constexpr int E = Tr::kTileWidth + 2 * Hout;
    TileData<T, Tr::kTileWidth, Hout, 0> out(std::size_t(E) * E * E);
    auto acc = tree.tileAccessor();
    setHaloTile<Tr, T, Hin, Hout, 0, 0>(t, ch, kHaloModeGeneral, type, acc, out, def, 1.0f,
                                        kVoxelOffsetCenter);
    return out;
}

template <typename Tr> class Halo : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(Halo, TraitsTypes, TraitsNames);

} // namespace

TYPED_TEST(Halo, SingleTileHasDefaultRimAndItsOwnInterior)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Volume<Tr, float> v;
    v.tree.tileAccessor().addTile(0, 0, 0, 0); // the root alone: nothing around it
    v.bind();
    v.fill([](Tile<Tr> const&, int i, int j, int k) { return 1 + i + W * (j + W * k); });
    for (HaloType type : {kHaloTypeFacesAndEdges, kHaloTypeAll}) {
        auto const out = haloOf<Tr, float, 0, 1>(v.tree, *v.channel, {0, 0}, type, -7.0f);
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j)
                for (int i = -1; i <= W; ++i) {
                    bool const inside = i >= 0 && i < W && j >= 0 && j < W && k >= 0 && k < W;
                    EXPECT_EQ(out(i, j, k),
                              inside ? float((1 + i + W * (j + W * k)) % 100) : -7.0f);
                }
    }
}

TYPED_TEST(Halo, SameDepthNeighborsGiveTheirFirstVoxelLayer)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    int const d = Tr::kMaxDepth;
    Volume<Tr, float> v;
    testtrees::addBlock(v.tree, d, {0, 0, 0}, {1, 0, 0}); // two tiles side by side along x
    v.bind();
    // A value that tells the tile (by its corner) and the voxel.
    v.fill([](Tile<Tr> const& t, int i, int j, int k) {
        return (t.ti() > 0 ? 50 : 0) + i + 2 * j + 4 * k;
    });
    auto acc = v.tree.tileAccessor();
    TreeIndex const a = acc.tile(0, 0, 0, d).treeIndex();
    TreeIndex const b = acc.tile(Tr::tileVoxelWidth(d), 0, 0, d).treeIndex();
    ASSERT_EQ(a.depth, d);
    ASSERT_EQ(b.depth, d);
    auto const ha = haloOf<Tr, float, 0, 1>(v.tree, *v.channel, a, kHaloTypeFacesAndEdges, -1.0f);
    auto const hb = haloOf<Tr, float, 0, 1>(v.tree, *v.channel, b, kHaloTypeFacesAndEdges, -1.0f);
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j) {
            EXPECT_EQ(ha(W, j, k), float(50 + 0 + 2 * j + 4 * k))
                << "first layer of the right tile";
            EXPECT_EQ(hb(-1, j, k), float(0 + (W - 1) + 2 * j + 4 * k))
                << "last layer of the left tile";
        }
}

TYPED_TEST(Halo, CoarserNeighborGivesTheCoveringVoxel)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    int const d = Tr::kMaxDepth;
    Volume<Tr, float> v;
    v.tree.tileAccessor().addTile(0, 0, 0, d); // one finest tile; everything else is coarser
    v.bind();
    // Coarse voxels carry their tile-space corner; the fine tile carries a marker.
    v.fill([](Tile<Tr> const& t, int i, int j, int k) {
        std::int64_t const w = t.voxelDataWidth();
        return t.depth() == Tr::kMaxDepth
                   ? 99
                   : int((t.ti() + i * w) * 7 + (t.tj() + j * w) * 3 + (t.tk() + k * w)) & 63;
    });
    auto acc = v.tree.tileAccessor();
    Tile<Tr> const& fine = acc.tile(0, 0, 0, d);
    ASSERT_EQ(fine.depth(), d);
    Tile<Tr> const& parent = v.tree.tile(fine.parentTreeIndex());
    auto const h =
        haloOf<Tr, float, 0, 1>(v.tree, *v.channel, fine.treeIndex(), kHaloTypeAll, -1.0f);
    std::int64_t const wp = parent.voxelDataWidth();
    for (int k = -1; k <= W; ++k)
        for (int j = -1; j <= W; ++j)
            for (int i = -1; i <= W; ++i) {
                if (i >= 0 && i < W && j >= 0 && j < W && k >= 0 && k < W)
                    continue;
                // The rim voxel's corner in tile space, snapped to the voxel of the tile that holds
                // it.
                std::int64_t const p[3] = {fine.ti() + i, fine.tj() + j, fine.tk() + k};
                Tile<Tr> const& holder = acc.tile(p[0], p[1], p[2], d);
                ASSERT_LT(holder.depth(), d);
                std::int64_t const w = holder.voxelDataWidth();
                std::int64_t c[3];
                int3 const hc = holder.tijk();
                for (int a = 0; a < 3; ++a)
                    c[a] = hc[a] + (p[a] - hc[a]) / w * w;
                float const expected = float(int(c[0] * 7 + c[1] * 3 + c[2]) & 63);
                EXPECT_EQ(h(i, j, k), expected) << i << " " << j << " " << k;
            }
    (void)wp;
}

/// Centre of voxel (i, j, k) of @p t, in finest voxels.
template <typename Tr> Tavrel::Math::double3 voxelCentre(Tile<Tr> const& t, int i, int j, int k)
{
    double const w = double(t.voxelDataWidth());
    return {t.ti() + (i + 0.5) * w, t.tj() + (j + 0.5) * w, t.tk() + (k + 0.5) * w};
}

/// Every voxel of every depth of @p v set to @p f at its centre.
template <typename Tr, typename F> void setAtCentres(Volume<Tr, double>& v, F const& f)
{
    constexpr int W = Tr::kTileWidth;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.tree.tileCount(d); ++t) {
            auto td = v.channel->tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        auto const p = voxelCentre(v.tree.tile(t, d), i, j, k);
                        td(i, j, k) = f(p.x, p.y, p.z);
                    }
        }
}

TYPED_TEST(Halo, TrilinearRimIsExactForLinearDataAcrossJumps)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Volume<Tr, double> v;
    testtrees::buildGradedSphere(v.tree, std::is_same_v<Tr, Traits24> ? 20.0 : 30.0, Tr::kMaxDepth,
                                 0.5);
    v.bind();
    // A linear function of the voxel centre, in finest voxels, at every voxel of every depth.
    auto f = [](double x, double y, double z) { return 0.5 * x - 0.25 * y + 0.125 * z + 3.0; };
    setAtCentres(v, f);
    v.tree.precomputeCompressedTileHalos();
    auto acc = v.tree.tileAccessor();
    std::int64_t atJumps = 0;
    // Tiles well inside the root, whose coarse neighbours have data all around them.
    for (int d = 4; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = v.tree.tile(t, d);
            auto const h =
                haloOf<Tr, double, 0, 2>(v.tree, *v.channel, tile.treeIndex(),
                                         HaloType(kHaloTypeAll | kHaloTypeTrilinearJumps), -1.0);
            std::int64_t const w = tile.voxelDataWidth();
            for (int k = -2; k < W + 2; ++k)
                for (int j = -2; j < W + 2; ++j)
                    for (int i = -2; i < W + 2; ++i) {
                        if (i >= 0 && i < W && j >= 0 && j < W && k >= 0 && k < W)
                            continue;
                        Tile<Tr> const& holder =
                            acc.tile(tile.ti() + i * w, tile.tj() + j * w, tile.tk() + k * w, d);
                        auto const p = voxelCentre(tile, i, j, k);
                        // Rounding of a few blends of values up to the coarse voxels' coordinates.
                        double const tol = 1e-12 * (std::abs(p.x) + std::abs(p.y) + std::abs(p.z) +
                                                    16.0 * double(holder.voxelDataWidth()) + 1.0);
                        EXPECT_NEAR(h(i, j, k), f(p.x, p.y, p.z), tol)
                            << i << " " << j << " " << k << " depth " << d;
                        atJumps += holder.depth() < d;
                    }
        }
    EXPECT_GT(atJumps, 1000);
}

/// The tricubic rim reproduces cubic data: a cubic polynomial of the voxel centre, set at every
/// voxel of every depth, comes back to rounding at every rim element of the tiles well inside
/// the root of a graded tree (no tile next to one more than a depth coarser), where a stencil's
/// coarse voxels come from the rim's coarse tile and tiles one depth coarser still (their own
/// tricubic interpolation). The trilinear rim misses it there by the curvature.
TYPED_TEST(Halo, TricubicRimIsExactForCubicDataAcrossGradedJumps)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Volume<Tr, double> v;
    testtrees::buildGradedSphere(v.tree, std::is_same_v<Tr, Traits24> ? 20.0 : 30.0, Tr::kMaxDepth,
                                 0.5);
    CoreGL::TileTree3D::gradeTileTree<Tr>(v.tree, nullptr, nullptr, 0, Tr::kMaxDepth);
    v.bind();
    // A cubic of the voxel centre, in finest voxels, with mixed terms.
    auto f = [](double x, double y, double z) {
        return 1e-4 * x * x * x - 2e-4 * y * y * z + 3e-4 * x * y * z + 0.01 * z * z - 0.5 * x +
               0.25 * y + 3.0;
    };
    setAtCentres(v, f);
    v.tree.precomputeCompressedTileHalos();
    auto acc = v.tree.tileAccessor();
    std::int64_t atJumps = 0, trilinearOff = 0;
    for (int d = 4; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = v.tree.tile(t, d);
            auto const h =
                haloOf<Tr, double, 0, 2>(v.tree, *v.channel, tile.treeIndex(),
                                         HaloType(kHaloTypeAll | kHaloTypeCubicJumps), -1.0);
            auto const lin =
                haloOf<Tr, double, 0, 2>(v.tree, *v.channel, tile.treeIndex(),
                                         HaloType(kHaloTypeAll | kHaloTypeTrilinearJumps), -1.0);
            std::int64_t const w = tile.voxelDataWidth();
            for (int k = -2; k < W + 2; ++k)
                for (int j = -2; j < W + 2; ++j)
                    for (int i = -2; i < W + 2; ++i) {
                        if (i >= 0 && i < W && j >= 0 && j < W && k >= 0 && k < W)
                            continue;
                        Tile<Tr> const& holder =
                            acc.tile(tile.ti() + i * w, tile.tj() + j * w, tile.tk() + k * w, d);
                        auto const p = voxelCentre(tile, i, j, k);
                        double const exact = f(p.x, p.y, p.z);
                        // Rounding of the blends of values of the size of the cubic's terms.
                        double const m = std::abs(p.x) + std::abs(p.y) + std::abs(p.z) +
                                         4.0 * double(holder.voxelDataWidth()) + 1.0;
                        double const tol = 1e-12 * (1e-3 * m * m * m + m + 1.0);
                        EXPECT_NEAR(h(i, j, k), exact, tol)
                            << i << " " << j << " " << k << " depth " << d;
                        if (holder.depth() < d) {
                            ++atJumps;
                            trilinearOff += std::abs(lin(i, j, k) - exact) > 1000.0 * tol;
                        }
                    }
        }
    EXPECT_GT(atJumps, 1000);
    EXPECT_GT(trilinearOff, atJumps / 4); // the test sees what the trilinear rule cannot do
}

TYPED_TEST(Halo, SameResultWithAndWithoutPrecomputedTables)
{
    using Tr = TypeParam;
    Volume<Tr, float> v;
    testtrees::buildGradedSphere(v.tree, std::is_same_v<Tr, Traits24> ? 20.0 : 30.0, Tr::kMaxDepth,
                                 0.5);
    v.bind();
    std::mt19937 rng(5);
    v.fill([&](Tile<Tr> const&, int, int, int) { return int(rng() % 90); });
    // The same data stored with a halo.
    Volume<Tr, float, 1> vh;
    vh.tree = v.tree;
    vh.bind();
    constexpr int W = Tr::kTileWidth;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < v.tree.tileCount(d); ++t) {
            auto src = std::as_const(*v.channel).tileData(t, d);
            auto dst = vh.channel->tileData(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        dst(i, j, k) = src(i, j, k);
        }
    auto collect = [&](Container<Tr>& tree) {
        std::vector<float> all;
        Container<Tr> const& c = tree;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
                for (HaloType type : {kHaloTypeFacesAndEdges, kHaloTypeAll,
                                      HaloType(kHaloTypeAll | kHaloTypeTrilinearJumps)}) {
                    auto const a = haloOf<Tr, float, 0, 1>(c, *v.channel, {t, d}, type, -1.0f);
                    all.insert(all.end(), a.begin(), a.end());
                    auto const b = haloOf<Tr, float, 0, 2>(c, *v.channel, {t, d}, type, -1.0f);
                    all.insert(all.end(), b.begin(), b.end());
                    auto const h =
                        haloOf<Tr, float, 1, 1>(vh.tree, *vh.channel, {t, d}, type, -1.0f);
                    EXPECT_TRUE(std::equal(a.begin(), a.end(), h.begin())) << "stored halo ignored";
                }
            }
        return all;
    };
    std::vector<float> const plain = collect(v.tree);
    v.tree.precomputeTileNeighbors();
    std::vector<float> const neighbors = collect(v.tree);
    v.tree.precomputeCompressedTileHalos();
    std::vector<float> const compressed = collect(v.tree);
    ASSERT_EQ(plain.size(), neighbors.size());
    EXPECT_TRUE(plain == neighbors);
    EXPECT_TRUE(plain == compressed);
}

TYPED_TEST(Halo, FacesAndEdgesLeaveCornersAtTheDefault)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    int const d = Tr::kMaxDepth;
    Volume<Tr, float> v;
    testtrees::addBlock(v.tree, d, {-1, -1, -1}, {1, 1, 1}); // a 3 x 3 x 3 block of tiles
    v.bind(5.0f);
    auto acc = v.tree.tileAccessor();
    TreeIndex const centre = acc.tile(0, 0, 0, d).treeIndex();
    auto const faces =
        haloOf<Tr, float, 0, 1>(v.tree, *v.channel, centre, kHaloTypeFacesAndEdges, -1.0f);
    auto const all = haloOf<Tr, float, 0, 1>(v.tree, *v.channel, centre, kHaloTypeAll, -1.0f);
    EXPECT_EQ(faces(-1, -1, -1), -1.0f);
    EXPECT_EQ(faces(W, W, W), -1.0f);
    EXPECT_EQ(all(-1, -1, -1), 5.0f);
    EXPECT_EQ(faces(-1, -1, 0), 5.0f) << "edges are filled";
    EXPECT_EQ(faces(-1, 0, 0), 5.0f);
}

TYPED_TEST(Halo, ComputeHaloHoldsTheNextLayer)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    int const d = Tr::kMaxDepth;
    Volume<Tr, float> v;
    testtrees::addBlock(v.tree, d, {0, 0, 0}, {1, 1, 1});
    v.bind(-3.0f);
    v.fill([](Tile<Tr> const& t, int i, int j, int k) {
        return int(((std::int64_t(t.ti()) + i) + 11 * (std::int64_t(t.tj()) + j) +
                    3 * (std::int64_t(t.tk()) + k)) %
                   97);
    });
    float const def = -3.0f;
    Channel<Tr, float, W + 1, 0, 0> out("copy", &def, kDataElementInitializerDefaultValue, false,
                                        true, 0, Tr::kMaxDepth);
    out.update(v.topology);
    computeHalo<Tr, float, 0, 0, 1, 0>(*v.channel, v.tree, out, 0, Tr::kMaxDepth);
    auto acc = v.tree.tileAccessor();
    Tile<Tr> const& t = acc.tile(0, 0, 0, d);
    auto const b = std::as_const(out).tileData(t.treeIndex());
    ASSERT_EQ(b.size(), std::size_t((W + 1) * (W + 1) * (W + 1)));
    for (int k = 0; k <= W; ++k)
        for (int j = 0; j <= W; ++j)
            for (int i = 0; i <= W; ++i)
                EXPECT_EQ(b[i + (W + 1) * (j + (W + 1) * k)],
                          float(int(((std::int64_t(t.ti()) + i) + 11 * (std::int64_t(t.tj()) + j) +
                                     3 * (std::int64_t(t.tk()) + k)) %
                                    97)));
}

TYPED_TEST(Halo, NonLeafVoxelsTakeTheMeanOfTheirChildren)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    int const d = Tr::kMaxDepth;
    Volume<Tr, float> v;
    v.tree.tileAccessor().addTile(0, 0, 0, d);
    v.bind(0.0f);
    // Finest tile constant 4.5, everything coarser 0: every non-leaf voxel above must become 4.5.
    v.fill([](Tile<Tr> const& t, int, int, int) { return t.depth() == Tr::kMaxDepth ? 1 : 0; });
    auto finest = v.channel->tileData(v.tree.tileAccessor().tile(0, 0, 0, d).treeIndex());
    finest.set(4.5f);
    setNonLeafValueToChildValue(*v.channel, std::as_const(v.tree), kVoxelOffsetCenter, 0, d - 1);
    // The voxels that lie wholly over the constant tile hold the constant; leaf voxels keep 0.
    Tile<Tr> const& fineTile = v.tree.tileAccessor().tile(0, 0, 0, d);
    std::int64_t const fw = fineTile.tileVoxelWidth();
    int over = 0;
    for (int e = 0; e < d; ++e)
        for (std::int64_t t = 0; t < v.tree.tileCount(e); ++t) {
            Tile<Tr> const& tile = v.tree.tile(t, e);
            auto const td = std::as_const(*v.channel).tileData(t, e);
            std::int64_t const w = tile.voxelDataWidth();
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        int3 const c = tile.childDataTIJK(i, j, k);
                        bool const inside = c.x >= fineTile.ti() && c.x + w <= fineTile.ti() + fw &&
                                            c.y >= fineTile.tj() && c.y + w <= fineTile.tj() + fw &&
                                            c.z >= fineTile.tk() && c.z + w <= fineTile.tk() + fw;
                        if (inside) {
                            ++over;
                            EXPECT_EQ(td(i, j, k), 4.5f) << "depth " << e;
                        } else if (tile.isLeaf(i, j, k)) {
                            EXPECT_EQ(td(i, j, k), 0.0f);
                        }
                    }
        }
    EXPECT_EQ(over, (std::is_same_v<Tr, Traits24> ? 9 : 1));
    // A mean of different children: the 2 x 2 x 2 (or 5 x 5 x 5) child voxels under one voxel.
    auto fine = v.channel->tileData(v.tree.tileAccessor().tile(0, 0, 0, d).treeIndex());
    double expected = 0;
    for (int k = 0; k < Tr::kRatio; ++k)
        for (int j = 0; j < Tr::kRatio; ++j)
            for (int i = 0; i < Tr::kRatio; ++i) {
                fine(i, j, k) = float(i + 2 * j + 4 * k);
                expected += i + 2 * j + 4 * k;
            }
    expected /= Tr::kRatio * Tr::kRatio * Tr::kRatio;
    setNonLeafValueToChildValue(*v.channel, std::as_const(v.tree), kVoxelOffsetCenter, d - 1,
                                d - 1);
    Tile<Tr> const& parent = v.tree.tile(v.tree.tileAccessor().tile(0, 0, 0, d).parentTreeIndex());
    int3 const slot = parent.childIJK(int3{0, 0, 0});
    int const r = Tr::kVoxelsPerSlot;
    EXPECT_FLOAT_EQ(
        std::as_const(*v.channel).tileData(parent.treeIndex())(slot.x * r, slot.y * r, slot.z * r),
        float(expected));
}

// ---- every element type ------------------------------------------------------------------------

namespace {

template <typename P> class HaloElement : public ::testing::Test {
};
template <typename Tr, typename T> struct Case {
    using Traits = Tr;
    using Type = T;
};
#define HEXMOLD_CASE(TR, T) Case<TR, T>,
using ElementCases = ::testing::Types<HEXMOLD_FOR_EACH_ELEMENT(
    HEXMOLD_CASE, Traits24) HEXMOLD_FOR_EACH_ELEMENT(HEXMOLD_CASE, Traits55) Case<Traits24, float>>;
#undef HEXMOLD_CASE
TYPED_TEST_SUITE(HaloElement, ElementCases);

} // namespace

TYPED_TEST(HaloElement, AllFormsCopyTheInteriorAndTheNeighborLayers)
{
    using Tr = typename TypeParam::Traits;
    using T = typename TypeParam::Type;
    constexpr int W = Tr::kTileWidth;
    int const d = Tr::kMaxDepth;
    Volume<Tr, T> v;
    testtrees::addBlock(v.tree, d, {0, 0, 0}, {1, 0, 0});
    v.bind();
    v.fill([](Tile<Tr> const& t, int i, int j, int k) {
        return (t.ti() > 0 ? 40 : 0) + i + 2 * j + 7 * k;
    });
    Volume<Tr, T, 1> vh;
    vh.tree = v.tree;
    vh.bind();
    vh.fill([](Tile<Tr> const& t, int i, int j, int k) {
        return (t.ti() > 0 ? 40 : 0) + i + 2 * j + 7 * k;
    });
    T const def = element<T>(77);
    TreeIndex const a = v.tree.tileAccessor().tile(0, 0, 0, d).treeIndex();
    auto const h1 = haloOf<Tr, T, 0, 1>(v.tree, *v.channel, a, kHaloTypeAll, def);
    auto const h2 = haloOf<Tr, T, 0, 2>(v.tree, *v.channel, a, kHaloTypeAll, def);
    auto const hh = haloOf<Tr, T, 1, 1>(vh.tree, *vh.channel, a, kHaloTypeAll, def);
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j) {
            for (int i = 0; i < W; ++i) {
                EXPECT_TRUE(same(h1(i, j, k), element<T>(i + 2 * j + 7 * k)));
                EXPECT_TRUE(same(h2(i, j, k), h1(i, j, k)));
            }
            EXPECT_TRUE(same(h1(W, j, k), element<T>(40 + 2 * j + 7 * k)));
            EXPECT_TRUE(same(h2(W + 1, j, k), element<T>(40 + 1 + 2 * j + 7 * k)));
            EXPECT_TRUE(same(hh(W, j, k), h1(W, j, k)));
        }
    // The F2 = 1 form fills alike.
    TileData<T, W, 1, 0> f(std::size_t(W + 2) * (W + 2) * (W + 2));
    auto acc = v.tree.tileAccessor();
    setHaloTile<Tr, T, 0, 1, 0, 1>(a, *v.channel, kHaloModeTransfer, kHaloTypeAll, acc, f, def,
                                   1.0f, kVoxelOffsetCenter);
    EXPECT_EQ(std::memcmp(f.data(), h1.data(), sizeof(T) * f.size()), 0);
    // Non-leaf voxels: the mean of constant children is that constant.
    auto child = v.channel->tileData(a);
    child.set(element<T>(9));
    setNonLeafValueToChildValue(*v.channel, std::as_const(v.tree), kVoxelOffsetCenter, d - 1,
                                d - 1);
    Tile<Tr> const& parent = v.tree.tile(v.tree.tile(a).parentTreeIndex());
    int3 const slot = parent.childIJK(v.tree.tile(a).tijk());
    int const r = Tr::kVoxelsPerSlot;
    EXPECT_TRUE(same(
        std::as_const(*v.channel).tileData(parent.treeIndex())(slot.x * r, slot.y * r, slot.z * r),
        element<T>(9)));
}
