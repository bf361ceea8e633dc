// redistanceTiles and tileColor: the chessboard colours of tiles; one colour sweeps only its own
// tiles and only unknown voxels, reports its largest change, and alternating colours converge to
// the exact distance of a plane; the rule
// that skips tiles under unknown parent voxels; the coalesced 8^3 block of Traits<2,4,1>; the
// same result on one thread and on all.
#include <gtest/gtest.h>

#include "fixtures/level_set_scenes.h"
#include <cfloat>
#include <cmath>
#include <cstring>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/levelset/redistance_tiles.h>
#include <hexmold/substrate/parallel.h>
#include <random>
#include <string>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;
using namespace testlevelset;

namespace {

template <typename Tr> class RedistanceTiles : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(RedistanceTiles, TraitsTypes, TraitsNames);

constexpr float kVoxel = 0.1f;
/// A first-order upwind solve is exact for a plane: only float rounding remains, in h.
constexpr double kPlaneTol = 1e-4;

/// A block of deepest tiles (4 x 4 x 4 for both trees; for Traits<2,4,1> the children of 2 x 2 x 2
/// tiles of the depth above) around the plane z = 0.3 voxels, whose distance the upwind solve
/// reproduces exactly everywhere in the block (an oblique plane would not be reproduced near the
/// faces of the block, where the solve lacks the values beyond them). The coarser voxels hold the
/// background of the plane's side at their centres, so that the halo of the block, which reads them
/// across the resolution jump, never offers a smaller magnitude than the block's own voxels. The
/// deepest voxels with a face neighbour of the other sign (outside the block: the coarser voxel
/// that holds the neighbour's point) hold the plane's distance and are known; all others hold the
/// background of their side and are unknown.
template <typename Tr> struct PlaneBlock {
    static constexpr int W = Tr::kTileWidth;
    LevelSetScene<Tr> s{kVoxel};
    double n[3];
    double offset = 0.3 * kVoxel;
    std::unique_ptr<VoxelChannel<Tr, float>> distance;
    std::unique_ptr<VoxelChannel<Tr, unsigned char>> types;

    PlaneBlock()
    {
        n[0] = 0.0;
        n[1] = 0.0;
        n[2] = 1.0;
        s.build([](Container<Tr>& c) {
            testtrees::addBlock<Tr>(c, Tr::kMaxDepth, {-2, -2, -2}, {1, 1, 1});
        });
        int const d = Tr::kMaxDepth;
        float const bg = LevelSetScene<Tr>::kBackground;
        distance = s.makeChannel([this](double x, double y, double z) { return exact(x, y, z); });
        s.forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
                auto& v = distance->tileData(tile.index(), tile.depth())(i, j, k);
                if (tile.depth() < d)
                    v = 0.0f > v ? -bg : bg;
            });
        VoxelChannel<Tr, float> const plane(*distance);
        types = s.makeValueTypes();
        auto acc = s.tree.tileAccessor();
        auto valueAt = [&](std::int64_t x, std::int64_t y, std::int64_t z) {
            auto const& t = acc.tile(x, y, z, d);
            std::int64_t const w = t.voxelDataWidth();
            return plane.tileData(t.index(), t.depth())(
                int((x - t.ti()) / w), int((y - t.tj()) / w), int((z - t.tk()) / w));
        };
        int const step[6][3] = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
        for (std::int64_t t = 0; t < s.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = s.tree.tile(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        std::int64_t const x = tile.ti() + i, y = tile.tj() + j, z = tile.tk() + k;
                        bool const negative = 0.0f > valueAt(x, y, z);
                        bool crossing = false;
                        for (auto const& e : step)
                            crossing |= (0.0f > valueAt(x + e[0], y + e[1], z + e[2])) != negative;
                        auto& value = distance->tileData(t, d)(i, j, k);
                        auto& type = types->tileData(t, d)(i, j, k);
                        if (crossing) {
                            type = kValueTypeKnown;
                        } else {
                            type = kValueTypeUnknown;
                            value = negative ? -bg : bg;
                        }
                    }
        }
    }

    double exact(double x, double y, double z) const
    {
        return n[0] * x + n[1] * y + n[2] * z - offset;
    }

    float sweep(RedBlackType colour, VoxelChannel<Tr, float>& ch, bool useBandAtTiles = true,
                bool coalesced = false, VoxelChannel<Tr, unsigned char> const* valueTypes = nullptr)
    {
        return redistanceTiles<Tr>(colour, ch, nullptr, s.tree,
                                   valueTypes ? valueTypes : types.get(), Tr::kMaxDepth, FLT_MAX,
                                   FLT_MAX, useBandAtTiles, false, coalesced);
    }

    /// Alternates the colours until neither changes anything; returns the number of pairs.
    int converge(VoxelChannel<Tr, float>& ch, bool coalesced = false)
    {
        for (int pair = 1; pair <= 64; ++pair) {
            float const red = sweep(kRed, ch, true, coalesced);
            float const black = sweep(kBlack, ch, true, coalesced);
            if (red == 0.0f && black == 0.0f)
                return pair;
        }
        return -1;
    }

    /// Largest error, in h, over the deepest voxels.
    double maxError(VoxelChannel<Tr, float> const& ch) const
    {
        int const d = Tr::kMaxDepth;
        double e = 0;
        for (std::int64_t t = 0; t < s.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = s.tree.tile(t, d);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        auto const p = voxelCentre(tile, i, j, k, s.voxelSize());
                        e = std::max(
                            e, std::abs(ch.tileData(t, d)(i, j, k) - exact(p[0], p[1], p[2])) /
                                   kVoxel);
                    }
        }
        return e;
    }
};

} // namespace

TYPED_TEST(RedistanceTiles, TileColorIsTheParityOfTheTileLatticeCoordinates)
{
    using Tr = TypeParam;
    std::mt19937 rng(3);
    std::int64_t const rootWidth = Container<Tr>::tileVoxelWidth(0);
    for (int d = 1; d <= Tr::kMaxDepth; ++d) {
        // Tile corners of depth d lie at m * w minus the centre offset, m in [0, rootWidth / w).
        std::int64_t const w = Container<Tr>::tileVoxelWidth(d);
        std::int64_t const count = rootWidth / w;
        std::uniform_int_distribution<std::int64_t> ordinal(0, count - 1);
        for (int n = 0; n < 50; ++n) {
            std::int64_t const m[3] = {ordinal(rng), ordinal(rng), ordinal(rng)};
            int3 const corner{int(m[0] * w - Tr::kCentreOffset), int(m[1] * w - Tr::kCentreOffset),
                              int(m[2] * w - Tr::kCentreOffset)};
            EXPECT_EQ(int(tileColor<Tr>(corner, d)), int((m[0] + m[1] + m[2]) % 2))
                << "depth " << d;
            // A face neighbour has the other colour.
            if (m[0] + 1 < count) {
                int3 const next{int((m[0] + 1) * w - Tr::kCentreOffset), corner.y, corner.z};
                EXPECT_NE(tileColor<Tr>(corner, d), tileColor<Tr>(next, d));
            }
        }
    }
}

TYPED_TEST(RedistanceTiles, OneColourChangesOnlyItsOwnTilesAndOnlyUnknownVoxels)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    PlaneBlock<Tr> b;
    VoxelChannel<Tr, float> ch(*b.distance);
    float const change = b.sweep(kRed, ch);
    int const d = Tr::kMaxDepth;
    double largest = 0;
    long long otherColourChanged = 0, knownChanged = 0, unknownChanged = 0;
    for (std::int64_t t = 0; t < b.s.tree.tileCount(d); ++t) {
        Tile<Tr> const& tile = b.s.tree.tile(t, d);
        bool const red = tileColor<Tr>(tile.tijk(), d) == kRed;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    float const before = b.distance->tileData(t, d)(i, j, k),
                                after = ch.tileData(t, d)(i, j, k);
                    if (before == after)
                        continue;
                    largest = std::max(largest, std::abs(double(before) - double(after)));
                    if (!red)
                        ++otherColourChanged;
                    else if (b.types->tileData(t, d)(i, j, k) != kValueTypeUnknown)
                        ++knownChanged;
                    else
                        ++unknownChanged;
                }
    }
    EXPECT_EQ(otherColourChanged, 0);
    EXPECT_EQ(knownChanged, 0);
    EXPECT_GT(unknownChanged, 100);
    // The reported change is the largest single update: no more than the largest net change, and
    // a background value brought down to a distance in the band.
    EXPECT_GT(change, 0.5 * LevelSetScene<Tr>::kBackground);
    EXPECT_LE(change, largest * (1 + 1e-6));
}

TYPED_TEST(RedistanceTiles, AlternatingColoursConvergeToThePlaneDistance)
{
    using Tr = TypeParam;
    PlaneBlock<Tr> b;
    VoxelChannel<Tr, float> ch(*b.distance);
    int const pairs = b.converge(ch);
    EXPECT_GT(pairs, 0) << "no convergence in 64 pairs of sweeps";
    EXPECT_LE(b.maxError(ch), kPlaneTol);
    // Converged: a further pair changes nothing.
    EXPECT_EQ(b.sweep(kRed, ch), 0.0f);
    EXPECT_EQ(b.sweep(kBlack, ch), 0.0f);
}

TYPED_TEST(RedistanceTiles, NothingUnknownMeansNoChange)
{
    using Tr = TypeParam;
    PlaneBlock<Tr> b;
    auto const known = b.s.makeValueTypes(kValueTypeKnown);
    VoxelChannel<Tr, float> ch(*b.distance);
    EXPECT_EQ(b.sweep(kRed, ch, true, false, known.get()), 0.0f);
    EXPECT_EQ(b.sweep(kBlack, ch, true, false, known.get()), 0.0f);
    auto const x = channelValues(b.s, *b.distance), y = channelValues(b.s, ch);
    EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0);
}

TYPED_TEST(RedistanceTiles, TilesUnderUnknownParentVoxelsWaitUnlessTheBandAtTilesIsUsed)
{
    using Tr = TypeParam;
    PlaneBlock<Tr> b;
    // The parent voxels are unknown (the default of the coarser depths): without the band at
    // tiles, every tile is skipped.
    VoxelChannel<Tr, float> ch(*b.distance);
    EXPECT_EQ(b.sweep(kRed, ch, false), 0.0f);
    EXPECT_EQ(b.sweep(kBlack, ch, false), 0.0f);
    auto const x = channelValues(b.s, *b.distance), y = channelValues(b.s, ch);
    EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0);
    // With known parent voxels they take part.
    VoxelChannel<Tr, unsigned char> types(*b.types);
    int const parentDepth = Tr::kMaxDepth - 1;
    for (std::int64_t t = 0; t < b.s.tree.tileCount(parentDepth); ++t) {
        auto td = types.tileData(t, parentDepth);
        for (int e = 0; e < Tr::kTileSize; ++e)
            td.data()[e] = kValueTypeKnown;
    }
    EXPECT_GT(b.sweep(kRed, ch, false, false, &types), 0.0f);
}

TYPED_TEST(RedistanceTiles, CoalescedBlocksReachTheSameDistances)
{
    using Tr = TypeParam;
    PlaneBlock<Tr> b;
    VoxelChannel<Tr, float> plain(*b.distance), coalesced(*b.distance);
    EXPECT_GT(b.converge(plain, false), 0);
    EXPECT_GT(b.converge(coalesced, true), 0);
    EXPECT_LE(b.maxError(coalesced), kPlaneTol);
    if constexpr (std::is_same_v<Tr, Traits55>) {
        // No coalesced form for this tree: the flag changes nothing.
        auto const x = channelValues(b.s, plain), y = channelValues(b.s, coalesced);
        EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0);
    }
}

TYPED_TEST(RedistanceTiles, OneThreadAndAllThreadsGiveTheSameBits)
{
    using Tr = TypeParam;
    PlaneBlock<Tr> b;
    VoxelChannel<Tr, float> one(*b.distance), all(*b.distance);
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        b.sweep(kRed, one);
        b.sweep(kBlack, one);
    }
    b.sweep(kRed, all);
    b.sweep(kBlack, all);
    auto const x = channelValues(b.s, one), y = channelValues(b.s, all);
    EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(float)), 0);
}
