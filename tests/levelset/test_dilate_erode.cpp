// Dilation and erosion: on a sphere band against the exact distance (the band covered, nothing far
// kept); zero bandwidth, background-only tiles, coarse surface tiles and an empty volume, with the
// radii and thresholds worked out by hand; the log lines and timers, tiles without a channel block,
// the channel that is only read by erosion and follows it through the usual update, and determinism
// over thread counts.
#include <gtest/gtest.h>

#include "fixtures/trees.h"
#include "support/analysis_scene.h"
#include "support/linked.h"
#include "support/random_trees.h"
#include <cmath>
#include <cstdint>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/testing/recording_services.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/parallel.h>
#include <map>
#include <random>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;

namespace {

template <typename Tr> class DilateErode : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(DilateErode, TraitsTypes, TraitsNames);

using Key = testtrees::TileKey;
constexpr float kVoxel = 0.5f;   ///< finest voxel, world units
constexpr double kRadius = 20.0; ///< sphere radius in finest voxels

using testtrees::tileSet;

/// Exact signed distance (world units) of the sphere at the centre of a voxel.
template <typename Tr> float exactAt(Tile<Tr> const& t, int i, int j, int k)
{
    double const w = double(t.voxelDataWidth());
    double const x = (t.ti() + (i + 0.5) * w) * kVoxel, y = (t.tj() + (j + 0.5) * w) * kVoxel,
                 z = (t.tk() + (k + 0.5) * w) * kVoxel;
    return float(std::sqrt(x * x + y * y + z * z) - kRadius * kVoxel);
}

/// A tree with the deepest tiles within @p band finest voxels of the sphere (and their
/// ancestors), and a distance channel of the exact values over all its tiles.
template <typename Tr> struct Band {
    Container<Tr> tree{"tree", kVoxel};
    VoxelChannel<Tr, float> phi{
        "phi", nullptr, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth};

    explicit Band(double band)
    {
        testtrees::refineWhere<Tr>(tree, Tr::kMaxDepth, [&](int3 const& corner, int depth) {
            return testtrees::boxSphereDistance<Tr>(corner, depth, kRadius) <= band;
        });
        fill();
    }
    /// Exact values in every block (after a change of the tree, too).
    void fill()
    {
        phi.update(tree);
        constexpr int W = Tr::kTileWidth;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
                auto td = phi.tileData(t, d);
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            td(i, j, k) = exactAt(tree.tile(t, d), i, j, k);
            }
    }
};

/// Every finest voxel whose centre lies within @p bandwidth (world) of the sphere is in a tile.
template <typename Tr> int uncoveredVoxels(Container<Tr> const& c, double bandwidth)
{
    testtrees::TileSet<Tr> tiles(c);
    int missing = 0;
    int const reach = int(kRadius + bandwidth / kVoxel) + 2;
    for (int z = -reach; z < reach; ++z)
        for (int y = -reach; y < reach; ++y)
            for (int x = -reach; x < reach; ++x) {
                double const d = std::sqrt((x + 0.5) * (x + 0.5) + (y + 0.5) * (y + 0.5) +
                                           (z + 0.5) * (z + 0.5)) -
                                 kRadius;
                if (std::abs(d) * kVoxel > bandwidth)
                    continue;
                if (!tiles.at(x, y, z, Tr::kMaxDepth))
                    ++missing;
            }
    return missing;
}

TYPED_TEST(DilateErode, DilateThenErodeCoversTheBandAndKeepsNothingFar)
{
    using Tr = TypeParam;
    for (double voxels : {3.0, 6.5}) {
        Band<Tr> band(1.0);
        double const bandwidth = voxels * kVoxel;
        TileCornerLists<Tr> added;
        dilate(float(bandwidth), band.tree, band.phi, added, CoreGL::NOPLogger{}, 0, Tr::kMaxDepth);
        EXPECT_EQ(uncoveredVoxels(band.tree, bandwidth), 0) << voxels << " voxels, after dilate";
        band.fill();
        TileLayout<Tr> const layout = recordTileLayout(band.tree);
        erode(float(bandwidth), band.tree, band.phi, CoreGL::NOPLogger{});
        EXPECT_EQ(uncoveredVoxels(band.tree, bandwidth), 0) << voxels << " voxels, after erode";
        // The channel follows as after any removal.
        TileMoveLists<Tr> const moved = tileMovesSince(layout, band.tree);
        band.phi.updateTilesRemoved(std::span<TileMoveList const>(moved.data(), moved.size()),
                                    band.tree);
        // No tile whose voxels all lie farther than the bandwidth plus a tile diagonal.
        constexpr int W = Tr::kTileWidth;
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < band.tree.tileCount(d); ++t) {
                auto const& tile = band.tree.tile(t, d);
                double const diagonal = std::sqrt(3.0) * double(tile.tileVoxelWidth()) * kVoxel;
                double nearest = 1e30;
                for (int k = 0; k < W; ++k)
                    for (int j = 0; j < W; ++j)
                        for (int i = 0; i < W; ++i)
                            nearest = std::min(nearest, double(std::abs(exactAt(tile, i, j, k))));
                EXPECT_LT(nearest, bandwidth + 1.01 * diagonal) << "depth " << d;
                // The channel's blocks followed their tiles.
                auto const td = band.phi.tileData(t, d);
                EXPECT_EQ(td(1, 1, 1), exactAt(tile, 1, 1, 1));
            }
    }
}

/// R of a tile of width t with bandwidth 0, and the distances from its dilation centre (the mean
/// of its corners, corner + (t - 1) / 2) to the centres (corner + t / 2) of the face neighbours
/// below and above it on one axis, in finest voxels.
template <typename Tr> struct LoneTileGeometry {
    static constexpr double t = double(Tr::tileVoxelWidth(Tr::kMaxDepth));
    static double radius0()
    {
        float const e = float(t - 1);
        return double(std::sqrt(e * e + e * e + e * e) * 1.01f * 0.5f);
    }
    static double lowNeighbour() { return std::sqrt((t - 0.5) * (t - 0.5) + 0.5); }
    static double highNeighbour() { return std::sqrt((t + 0.5) * (t + 0.5) + 0.5); }
};

/// A single tile of @p depth at the origin holding the value @p value everywhere; its ancestors
/// hold 0, so that erosion keeps them (dilation is run on @p depth alone).
template <typename Tr> struct LoneTile {
    Container<Tr> tree{"tree", kVoxel};
    VoxelChannel<Tr, float> phi{
        "phi", nullptr, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth};
    LoneTile(float value, int depth = Tr::kMaxDepth)
    {
        tree.tileAccessor().addTile(0, 0, 0, depth);
        phi.update(tree);
        for (int d = 0; d <= Tr::kMaxDepth; ++d)
            for (std::int64_t t = 0; t < tree.tileCount(d); ++t)
                phi.tileData(t, d).set(d == depth ? value : 0.0f);
    }
};

TYPED_TEST(DilateErode, ZeroBandwidthDilatesWithinTheHalfDiagonalAndErodesBeyondOneTileDiagonal)
{
    using Tr = TypeParam;
    using G = LoneTileGeometry<Tr>;
    // Half a diagonal times 1.01 reaches no neighbour's centre: nothing is added.
    ASSERT_LT(G::radius0(), G::lowNeighbour());
    LoneTile<Tr> lone(0.0f);
    TileCornerLists<Tr> added;
    dilate(0.0f, lone.tree, lone.phi, added, CoreGL::NOPLogger{}, Tr::kMaxDepth, Tr::kMaxDepth);
    EXPECT_EQ(added[Tr::kMaxDepth].size(), 0u);
    // A radius between the two neighbour distances adds the three face neighbours below the
    // tile and none above it.
    LoneTile<Tr> grown(0.0f);
    double const between = 0.5 * (G::lowNeighbour() + G::highNeighbour()) - G::radius0();
    dilate(float(between * kVoxel), grown.tree, grown.phi, added, CoreGL::NOPLogger{},
           Tr::kMaxDepth, Tr::kMaxDepth);
    EXPECT_EQ(added[Tr::kMaxDepth].size(), 3u);
    int3 const own = grown.tree.tile(0, Tr::kMaxDepth).tijk();
    for (int3 const& p : added[Tr::kMaxDepth])
        EXPECT_EQ(p.x + p.y + p.z, own.x + own.y + own.z - int(G::t));

    // Erosion with bandwidth 0 keeps a tile whose nearest value is just inside one tile
    // diagonal and removes it just outside.
    float const diagonal = kVoxel * 1.01f * 1.7320508f * float(G::t);
    LoneTile<Tr> inside(std::nextafter(diagonal, 0.0f));
    erode(0.0f, inside.tree, inside.phi, CoreGL::NOPLogger{});
    EXPECT_EQ(inside.tree.tileCount(Tr::kMaxDepth), 1);
    LoneTile<Tr> outside(diagonal);
    erode(0.0f, outside.tree, outside.phi, CoreGL::NOPLogger{});
    EXPECT_EQ(outside.tree.tileCount(Tr::kMaxDepth), 0);
}

TYPED_TEST(DilateErode, BackgroundTilesNeverDilateAndAlwaysErode)
{
    using Tr = TypeParam;
    float const background = 1e3f;
    LoneTile<Tr> lone(background);
    TileCornerLists<Tr> added;
    dilate(10.0f * kVoxel, lone.tree, lone.phi, added, CoreGL::NOPLogger{}, Tr::kMaxDepth,
           Tr::kMaxDepth);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        EXPECT_EQ(added[d].size(), 0u);
    erode(10.0f * kVoxel, lone.tree, lone.phi, CoreGL::NOPLogger{});
    EXPECT_EQ(lone.tree.tileCount(Tr::kMaxDepth), 0);
}

TYPED_TEST(DilateErode, CoarseSurfaceTilesAddCoarseTilesOnTheirOwnLattice)
{
    using Tr = TypeParam;
    int const d = Tr::kMaxDepth - 2;
    LoneTile<Tr> lone(0.0f, d);
    std::int64_t const t = Tr::tileVoxelWidth(d);
    TileCornerLists<Tr> added;
    dilate(float(1.5 * double(t)) * kVoxel, lone.tree, lone.phi, added, CoreGL::NOPLogger{}, d, d);
    EXPECT_GT(added[d].size(), 6u);
    for (int q = d + 1; q <= Tr::kMaxDepth; ++q)
        EXPECT_EQ(added[q].size(), 0u);
    for (int3 const& p : added[d]) {
        EXPECT_EQ((p.x + Tr::kCentreOffset) % t, 0);
        EXPECT_EQ((p.y + Tr::kCentreOffset) % t, 0);
        EXPECT_EQ((p.z + Tr::kCentreOffset) % t, 0);
    }
}

TYPED_TEST(DilateErode, EmptyVolumeAddsAndRemovesNothingAndSaysSo)
{
    using Tr = TypeParam;
    Container<Tr> tree("tree", kVoxel);
    VoxelChannel<Tr, float> phi("phi", nullptr, kDataElementInitializerDefaultValue, false, true, 0,
                                Tr::kMaxDepth);
    phi.update(tree);
    Quillon::Testing::RecordingServices services;
    CoreGL::QuillonLogger const logger(&services);
    TileCornerLists<Tr> added;
    dilate(3.0f, tree, phi, added, logger, 0, Tr::kMaxDepth);
    erode(3.0f, tree, phi, logger);
    EXPECT_EQ(tree.tileCount(-1), 0);
    EXPECT_TRUE(services.contains(Quillon::RuntimeMessageCategory::kInfo, "Added 0 tiles."));
    EXPECT_TRUE(services.contains(Quillon::RuntimeMessageCategory::kInfo, "Removed 0 tiles."));
}

std::vector<std::string> gTimers;
void recordTimer(Quillon::StringView name, double)
{
    gTimers.emplace_back(name);
}

TYPED_TEST(DilateErode, LogLinesTimersAndCounts)
{
    using Tr = TypeParam;
    Band<Tr> band(1.0);
    std::int64_t const before = band.tree.tileCount(-1);
    gTimers.clear();
    CoreGL::Logger::setTimerObserver(&recordTimer);
    int const saved = CoreGL::Logger::verboseLevel();
    CoreGL::Logger::setVerboseLevel(1);
    ::testing::internal::CaptureStdout();
    TileCornerLists<Tr> added;
    dilate(4.0f * kVoxel, band.tree, band.phi, added, CoreGL::ConsoleLogger{}, 0, Tr::kMaxDepth);
    std::int64_t const grown = band.tree.tileCount(-1);
    band.fill();
    erode(1.0f * kVoxel, band.tree, band.phi, CoreGL::ConsoleLogger{});
    std::string const out = ::testing::internal::GetCapturedStdout();
    CoreGL::Logger::setVerboseLevel(saved);
    CoreGL::Logger::setTimerObserver(nullptr);
    std::size_t reported = 0;
    for (auto const& a : added)
        reported += a.size();
    EXPECT_EQ(std::int64_t(reported), grown - before);
    EXPECT_NE(out.find("levelset_dilate.begin"), std::string::npos);
    EXPECT_NE(out.find("levelset_dilate.end"), std::string::npos);
    EXPECT_NE(out.find("Added " + std::to_string(grown - before) + " tiles."), std::string::npos)
        << out;
    EXPECT_NE(out.find("Removed " + std::to_string(grown - band.tree.tileCount(-1)) + " tiles."),
              std::string::npos);
    std::vector<std::string> const expected{"Volume::resize_level_set.dilate.reduce",
                                            "Volume::resize_level_set.dilate.refine",
                                            "Volume::resize_level_set.dilate.precompute_neighbors"};
    EXPECT_EQ(gTimers, expected);
    EXPECT_TRUE(band.tree.hasPrecomputedTileNeighbors());
}

TYPED_TEST(DilateErode, OneAndAllThreadsGiveTheSameTilesInTheSameOrder)
{
    using Tr = TypeParam;
    Band<Tr> a(1.0), b(1.0);
    TileCornerLists<Tr> addedA, addedB;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        dilate(5.0f * kVoxel, a.tree, a.phi, addedA, CoreGL::NOPLogger{}, 0, Tr::kMaxDepth);
        a.fill();
        erode(2.0f * kVoxel, a.tree, a.phi, CoreGL::NOPLogger{});
    }
    dilate(5.0f * kVoxel, b.tree, b.phi, addedB, CoreGL::NOPLogger{}, 0, Tr::kMaxDepth);
    b.fill();
    erode(2.0f * kVoxel, b.tree, b.phi, CoreGL::NOPLogger{});
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        EXPECT_EQ(addedA[d], addedB[d]);
        ASSERT_EQ(a.tree.tileCount(d), b.tree.tileCount(d));
        for (std::int64_t t = 0; t < a.tree.tileCount(d); ++t)
            EXPECT_EQ(a.tree.tile(t, d).tijk(), b.tree.tile(t, d).tijk());
    }
}

/// The tiles that the dilation rule adds around the surface tiles of @p tree at depth @p d, the
/// way the rule states it for each surface tile on its own: the box around the tile's centre,
/// its low corners snapped to the lattice, and every lattice tile of the box whose centre lies
/// within the radius.
template <typename Tr>
std::set<Key> bruteForceDilation(Container<Tr> const& tree, VoxelChannel<Tr, float> const& phi,
                                 int d, float bandwidth)
{
    std::set<Key> out;
    std::int64_t const t = Tr::tileVoxelWidth(d);
    float const surface = float(Tr::voxelDataWidth(d)) * kVoxel * 1.7320508f * 1.01f;
    float const e = float(t - 1);
    float const radius = std::sqrt(e * e + e * e + e * e) * 1.01f * 0.5f + bandwidth / kVoxel;
    for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
        auto const& tile = tree.tile(n, d);
        bool any = false;
        for (float v : phi.tileData(n, d))
            any |= std::abs(v) < surface;
        if (!any)
            continue;
        double const c[3] = {tile.ti() + 0.5 * double(t - 1), tile.tj() + 0.5 * double(t - 1),
                             tile.tk() + 0.5 * double(t - 1)};
        std::int64_t lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            std::int64_t const x = std::int64_t(std::floor(c[a] - radius));
            lo[a] = x - (x + Tr::kCentreOffset) % t;
            hi[a] = std::int64_t(std::ceil(c[a] + radius));
        }
        for (std::int64_t k = lo[2]; k <= hi[2]; k += t)
            for (std::int64_t j = lo[1]; j <= hi[1]; j += t)
                for (std::int64_t i = lo[0]; i <= hi[0]; i += t) {
                    if (!Container<Tr>::inDomain(i, j, k))
                        continue;
                    double const dx = c[0] - (i + 0.5 * t), dy = c[1] - (j + 0.5 * t),
                                 dz = c[2] - (k + 0.5 * t);
                    if (double(radius) > std::sqrt(dx * dx + dy * dy + dz * dz))
                        out.emplace(d, int(i), int(j), int(k));
                }
    }
    return out;
}

TYPED_TEST(DilateErode, AddsExactlyTheTilesOfTheRuleAppliedToEachSurfaceTile)
{
    using Tr = TypeParam;
    std::mt19937 rng(11);
    for (int round = 0; round < 6; ++round) {
        int const d = Tr::kMaxDepth - round % 3;
        std::int64_t const t = Tr::tileVoxelWidth(d);
        Container<Tr> tree("tree", kVoxel);
        // Clumps of tiles (so that surface tiles have surface neighbours on every side), one
        // near the origin, one against the low end of the domain, one against the high end.
        std::int64_t const lowEnd = -Tr::kCentreOffset,
                           highEnd = lowEnd + Tr::tileVoxelWidth(0) - t;
        std::int64_t const centres[3] = {0, lowEnd + 2 * t, highEnd - 2 * t};
        std::uniform_int_distribution<int> step(-3, 3);
        auto accessor = tree.tileAccessor();
        for (std::int64_t centre : centres)
            for (int n = 0; n < 60; ++n) {
                std::int64_t const p[3] = {centre + step(rng) * t, centre + step(rng) * t,
                                           centre + step(rng) * t};
                accessor.addTile(p[0], p[1], p[2], d);
            }
        VoxelChannel<Tr, float> phi("phi", nullptr, kDataElementInitializerDefaultValue, false,
                                    true, 0, Tr::kMaxDepth);
        phi.update(tree);
        std::bernoulli_distribution surface(0.7);
        for (std::int64_t n = 0; n < tree.tileCount(d); ++n)
            phi.tileData(n, d).set(surface(rng) ? 0.0f : 1e3f);
        for (int q = 0; q < d; ++q)
            for (std::int64_t n = 0; n < tree.tileCount(q); ++n)
                phi.tileData(n, q).set(1e3f);
        float const bandwidth = float(round) * 2.5f * kVoxel;
        std::set<Key> expected = bruteForceDilation(tree, phi, d, bandwidth);
        for (std::int64_t n = 0; n < tree.tileCount(d); ++n) {
            auto const& tile = tree.tile(n, d);
            expected.emplace(d, int(tile.ti()), int(tile.tj()), int(tile.tk()));
        }
        TileCornerLists<Tr> added;
        dilate(bandwidth, tree, phi, added, CoreGL::NOPLogger{}, 0, Tr::kMaxDepth);
        std::set<Key> got;
        for (auto const& key : tileSet(tree))
            if (std::get<0>(key) == d)
                got.insert(key);
        EXPECT_EQ(got, expected) << "round " << round;
    }
}

/// The blocks of @p phi for the tiles of @p tree that it has a block for, by tile corner.
template <typename Tr>
std::map<Key, std::vector<float>> blocksByCorner(Container<Tr> const& tree,
                                                 VoxelChannel<Tr, float> const& phi)
{
    std::map<Key, std::vector<float>> out;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const block = phi.tileData(t, d);
            if (block.empty())
                continue;
            auto const& tile = tree.tile(t, d);
            out[Key(d, int(tile.ti()), int(tile.tj()), int(tile.tk()))] =
                std::vector<float>(block.begin(), block.end());
        }
    return out;
}

/// The tiles that erosion keeps by its rule, worked out tile by tile: a tile with a block holding
/// a voxel of |value| below s * 1.01 * 1.7320508 * t + bandwidth (single precision, in this
/// order), whose ancestors are kept too. A tile without a block has no such voxel.
template <typename Tr>
std::set<Key> erosionSurvivors(Container<Tr> const& tree, VoxelChannel<Tr, float> const& phi,
                               float bandwidth)
{
    std::set<Key> out;
    std::vector<std::vector<char>> kept(Tr::kMaxDepth + 1);
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        kept[d].assign(std::size_t(tree.tileCount(d)), 0);
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const& tile = tree.tile(t, d);
            float const threshold =
                kVoxel * 1.01f * 1.7320508f * float(tile.tileVoxelWidth()) + bandwidth;
            bool near = false;
            for (float v : phi.tileData(t, d))
                near |= std::abs(v) < threshold;
            bool const parentKept = tile.parent() < 0 || kept[d - 1][std::size_t(tile.parent())];
            kept[d][std::size_t(t)] = near && parentKept;
            if (kept[d][std::size_t(t)])
                out.emplace(d, int(tile.ti()), int(tile.tj()), int(tile.tk()));
        }
    }
    return out;
}

/// Adds to @p tree, without telling any channel, deepest tiles beside the band that lie within
/// three voxels of the sphere (their exact values would keep them) and one far tile two depths
/// up; returns their corners.
template <typename Tr> std::vector<Key> addUnfollowedTiles(Container<Tr>& tree)
{
    constexpr int D = Tr::kMaxDepth;
    std::int64_t const t = Tr::tileVoxelWidth(D);
    std::vector<Key> added;
    auto accessor = tree.tileAccessor();
    std::int64_t const n = tree.tileCount(D);
    for (std::int64_t i = 0; i < n && added.size() < 8; ++i) {
        int3 const c = tree.tile(i, D).tijk();
        for (int a = 0; a < 3 && added.size() < 8; ++a)
            for (int side = -1; side <= 1; side += 2) {
                int3 p = c;
                (a == 0 ? p.x : a == 1 ? p.y : p.z) += side * int(t);
                if (accessor.tile(p, D).depth() == D)
                    continue;
                if (testtrees::boxSphereDistance<Tr>(p, D, kRadius) > 3.0)
                    continue;
                auto const& made = accessor.addTile(p, D);
                added.emplace_back(D, int(made.ti()), int(made.tj()), int(made.tk()));
                break;
            }
    }
    // Three tile widths of its depth beyond the sphere: a tile the band's tree does not have.
    std::int64_t const far = std::int64_t(kRadius) + 3 * Tr::tileVoxelWidth(D - 2);
    if (accessor.tile(far, far, far, D - 2).depth() != D - 2) {
        auto const& made = accessor.addTile(far, far, far, D - 2);
        added.emplace_back(D - 2, int(made.ti()), int(made.tj()), int(made.tk()));
    }
    return added;
}

TYPED_TEST(DilateErode, TilesWithoutAChannelBlockAreRemovedAndTheChannelIsOnlyRead)
{
    using Tr = TypeParam;
    constexpr int D = Tr::kMaxDepth;
    float const bandwidth = 2.0f * kVoxel;
    // Three channels that lack blocks: one that has not followed tiles added after it, one
    // without the deepest depth, one without depth 0 (the root goes, and the whole tree with it).
    for (int form = 0; form < 3; ++form) {
        SCOPED_TRACE(form == 0   ? "tiles added after the channel"
                     : form == 1 ? "no deepest depth"
                                 : "no depth 0");
        Band<Tr> band(1.0);
        std::vector<Key> added;
        std::unique_ptr<VoxelChannel<Tr, float>> ranged;
        if (form == 0) {
            added = addUnfollowedTiles(band.tree);
            ASSERT_GT(added.size(), 8u);
        } else {
            ranged = std::make_unique<VoxelChannel<Tr, float>>(
                "phi", nullptr, kDataElementInitializerDefaultValue, false, true, form == 1 ? 0 : 1,
                form == 1 ? D - 1 : D);
            ranged->update(band.tree);
            for (int d = ranged->minDepth(); d <= ranged->depth(); ++d)
                for (std::int64_t t = 0; t < band.tree.tileCount(d); ++t) {
                    auto const from = std::as_const(band.phi).tileData(t, d);
                    std::copy(from.begin(), from.end(), ranged->tileData(t, d).begin());
                }
        }
        VoxelChannel<Tr, float>& phi = ranged ? *ranged : band.phi;
        std::set<Key> const expected = erosionSurvivors(band.tree, phi, bandwidth);
        auto const before = blocksByCorner(band.tree, phi);
        VoxelChannel<Tr, float> const untouched(phi);
        TileLayout<Tr> const layout = recordTileLayout(band.tree);

        erode(bandwidth, band.tree, phi, CoreGL::NOPLogger{});

        EXPECT_EQ(tileSet(band.tree), expected);
        for (Key const& key : added)
            EXPECT_EQ(expected.count(key), 0u);
        if (form == 0)
            EXPECT_GT(band.tree.tileCount(D), 0);
        if (form == 1) {
            EXPECT_EQ(band.tree.tileCount(D), 0);
            EXPECT_GT(band.tree.tileCount(D - 1), 0);
        }
        if (form == 2)
            EXPECT_EQ(band.tree.tileCount(-1), 0);
        // Only read: every block as it was, in its old place.
        for (int d = 0; d <= D; ++d) {
            ASSERT_EQ(phi.tileCount(d), untouched.tileCount(d)) << "depth " << d;
            for (std::int64_t t = 0; t < phi.tileCount(d); ++t) {
                auto const now = std::as_const(phi).tileData(t, d), then = untouched.tileData(t, d);
                ASSERT_TRUE(std::equal(now.begin(), now.end(), then.begin(), then.end()))
                    << "depth " << d << " tile " << t;
            }
        }
        // The usual update after a removal: the kept tiles hold what they held.
        TileMoveLists<Tr> const moved = tileMovesSince(layout, band.tree);
        phi.updateTilesRemoved(std::span<TileMoveList const>(moved.data(), moved.size()),
                               band.tree);
        for (int d = phi.minDepth(); d <= phi.depth(); ++d) {
            ASSERT_EQ(phi.tileCount(d), band.tree.tileCount(d)) << "depth " << d;
            for (std::int64_t t = 0; t < band.tree.tileCount(d); ++t) {
                auto const& tile = band.tree.tile(t, d);
                auto const block = std::as_const(phi).tileData(t, d);
                EXPECT_EQ(std::vector<float>(block.begin(), block.end()),
                          before.at(Key(d, int(tile.ti()), int(tile.tj()), int(tile.tk()))))
                    << "depth " << d << " tile " << t;
            }
        }
    }
}

/// The four-argument erosion: (bandwidth, tree, distance, logger).
template <typename Tr, typename Lg> auto erodeAddress()
{
    void (*f)(float, Container<Tr>&, VoxelChannel<Tr, float>&, Lg const&) = &erode<Tr, Lg>;
    return f;
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(DilateErode, EveryInstanceIsExported)
{
    using namespace CoreGL;
    testlinked::requireLinked(
        &dilate<Traits24, QuillonLogger>, &dilate<Traits24, ConsoleLogger>,
        &dilate<Traits24, NOPLogger>, &dilate<Traits55, QuillonLogger>,
        &dilate<Traits55, ConsoleLogger>, &dilate<Traits55, NOPLogger>,
        erodeAddress<Traits24, QuillonLogger>(), erodeAddress<Traits24, ConsoleLogger>(),
        erodeAddress<Traits24, NOPLogger>(), erodeAddress<Traits55, QuillonLogger>(),
        erodeAddress<Traits55, ConsoleLogger>(), erodeAddress<Traits55, NOPLogger>());
}

} // namespace
