// Voxel hash: recomputed here from its mixing steps on hand-made tiles, tiles without a block,
// changed or swapped voxels, tiles whose corners have equal sums, the debug line, tolerance between
// runs and thread counts, cancellation.
#include <gtest/gtest.h>

#include "support/linked.h"
#include "support/random_trees.h"
#include <bit>
#include <cmath>
#include <cstdint>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/parallel.h>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class VoxelHash : public ::testing::Test {
protected:
    void TearDown() override
    {
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
        CoreGL::Logger::setDebugFileStream(nullptr);
    }
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(VoxelHash, TraitsTypes, TraitsNames);

/// The weight of voxel @p c of a tile, written out from the definition with the standard
/// library's rotations.
double referenceWeight(std::int32_t ti, std::int32_t tj, std::int32_t tk, std::uint64_t c)
{
    std::int32_t const sum =
        static_cast<std::int32_t>(std::uint32_t(ti) + std::uint32_t(tj) + std::uint32_t(tk));
    std::uint64_t const seed = std::uint64_t(std::int64_t(sum));
    std::uint64_t const m = 0xb4ad5a69595ab2adull;
    std::uint64_t const a = (std::rotr(seed, 21) ^ c) * m;
    std::uint64_t const b = std::rotl(a ^ (a >> 28), 12);
    std::uint64_t const d = (b ^ (b >> 32) ^ seed) * m;
    std::uint64_t const e = d ^ (d >> 28);
    std::uint64_t const r = e ^ (e >> 23);
    return double(r) * 5.421010862427522e-20;
}

/// A tree of one tile at the deepest depth (with its ancestors) and a channel holding only that
/// depth, so that the hash is one tile's sums.
template <typename Tr, typename T> struct OneTile {
    Container<Tr> tree{"tree", 1.0f};
    Quillon::Ptr<VoxelChannel<Tr, T>> channel;
    Tile<Tr> const* tile = nullptr;

    explicit OneTile(int3 point)
    {
        auto acc = tree.tileAccessor();
        tile = &acc.addTile(point, Tr::kMaxDepth);
        T fill{};
        channel =
            Quillon::makePtr<VoxelChannel<Tr, T>>("c", &fill, kDataElementInitializerDefaultValue,
                                                  false, true, Tr::kMaxDepth, Tr::kMaxDepth);
        channel->update(tree);
    }
};

template <typename Tr, typename T, typename F>
Quillon::Ptr<VoxelChannel<Tr, T>> filled(Container<Tr> const& c, F const& f)
{
    T fill{};
    auto ch = Quillon::makePtr<VoxelChannel<Tr, T>>("c", &fill, kDataElementInitializerDefaultValue,
                                                    false, true, 0, Tr::kMaxDepth);
    ch->update(c);
    std::int64_t n = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t) {
            auto b = ch->tileData(t, d);
            for (auto& v : b)
                v = f(n++);
        }
    return ch;
}

bool agree(double a, double b)
{
    return std::abs(a - b) <= std::abs(a + b) * 2.220446049250313e-16 ||
           std::abs(a - b) < 2.2250738585072014e-308;
}

} // namespace

TEST(VoxelHashWeight, EqualsTheMixingStepsWrittenOut)
{
    for (std::int32_t ti : {0, -536870912, 536870908, 123, -7})
        for (std::int32_t tj : {0, 2147483647, -5})
            for (std::uint64_t c : {0ull, 1ull, 63ull, 124ull, 0xffffffffffffull}) {
                double const w = CoreGL::voxelHashWeight(ti, tj, 17, c);
                EXPECT_EQ(w, referenceWeight(ti, tj, 17, c));
                EXPECT_GE(w, 0.0);
                EXPECT_LT(w, 1.0);
            }
}

TYPED_TEST(VoxelHash, EqualsTheFormulaOnAHandMadeTile)
{
    using Tr = TypeParam;
    for (int3 point : {int3{0, 0, 0}, int3{-37, 91, 5}, int3{1000, -2000, 3}}) {
        OneTile<Tr, float> s(point);
        auto b = s.channel->tileData(s.tile->treeIndex());
        for (std::size_t n = 0; n < b.size(); ++n)
            b[n] = float(std::sin(double(n) * 0.7) * 10.0 + double(n));
        double sumW = 0, sumV = 0;
        for (std::size_t n = 0; n < b.size(); ++n) {
            double const w = referenceWeight(s.tile->ti(), s.tile->tj(), s.tile->tk(), n);
            sumW += w;
            sumV += double(b[n]) * w;
        }
        EXPECT_EQ(CoreGL::voxelHash(s.tree, *s.channel), sumV / sumW);
    }
    // Vectors: the component sum in storage order.
    OneTile<Tr, float3> v(int3{-3, 4, -5});
    auto b = v.channel->tileData(v.tile->treeIndex());
    double sumW = 0, sumV = 0;
    for (std::size_t n = 0; n < b.size(); ++n) {
        b[n] = float3{float(n) * 0.5f, -float(n), 1.25f};
        double const w = referenceWeight(v.tile->ti(), v.tile->tj(), v.tile->tk(), n);
        sumW += w;
        sumV += ((double(b[n].x) + double(b[n].y)) + double(b[n].z)) * w;
    }
    EXPECT_EQ(CoreGL::voxelHash(v.tree, *v.channel), sumV / sumW);
}

TYPED_TEST(VoxelHash, ATileWithoutBlockContributesNothing)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 51, 2, 40, Tr::kMaxDepth - 2, 0.2);
    auto const ch = filled<Tr, double>(c, [](std::int64_t n) { return double(n % 13) - 6.0; });
    double const before = CoreGL::voxelHash(c, *ch);
    // Tiles added after the channel was sized have no block in it.
    auto acc = c.tileAccessor();
    acc.addTile(int3{5000, 5000, 5000}, Tr::kMaxDepth);
    EXPECT_LT(ch->tileCount(Tr::kMaxDepth), c.tileCount(Tr::kMaxDepth));
    EXPECT_TRUE(agree(CoreGL::voxelHash(c, *ch), before));
    // A channel with no voxels: 0 / 0.
    float fill = 0;
    VoxelChannel<Tr, float> none("none", &fill, kDataElementInitializerDefaultValue, false, true, 0,
                                 Tr::kMaxDepth);
    EXPECT_TRUE(std::isnan(CoreGL::voxelHash(c, none)));
}

TYPED_TEST(VoxelHash, TwoCallsAndAnyThreadCountAgreeWithinTolerance)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 52, 10, 200, Tr::kMaxDepth - 6, 0.5);
    auto const ch =
        filled<Tr, float>(c, [](std::int64_t n) { return float(std::cos(double(n)) * 100.0); });
    double const a = CoreGL::voxelHash(c, *ch);
    double const b = CoreGL::voxelHash(c, *ch);
    double one;
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        one = CoreGL::voxelHash(c, *ch);
    }
    EXPECT_TRUE(std::isfinite(a));
    EXPECT_TRUE(agree(a, b)) << a << " " << b;
    EXPECT_TRUE(agree(a, one)) << a << " " << one;
}

TYPED_TEST(VoxelHash, ChangingOrSwappingVoxelsChangesTheHash)
{
    using Tr = TypeParam;
    OneTile<Tr, int> s(int3{12, -40, 9});
    auto b = s.channel->tileData(s.tile->treeIndex());
    for (std::size_t n = 0; n < b.size(); ++n)
        b[n] = int(n);
    double const original = CoreGL::voxelHash(s.tree, *s.channel);
    b[7] += 1;
    double const changed = CoreGL::voxelHash(s.tree, *s.channel);
    EXPECT_NE(changed, original);
    b[7] -= 1;
    std::swap(b[3], b[10]);
    double const swapped = CoreGL::voxelHash(s.tree, *s.channel);
    EXPECT_NE(swapped, original);
    std::swap(b[3], b[10]);
    EXPECT_EQ(CoreGL::voxelHash(s.tree, *s.channel), original);
}

TYPED_TEST(VoxelHash, TilesWithEqualCornerSumsShareTheirWeights)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    // Two deepest tiles whose corners have the same sum: (x, y, z) and (x + tw, y - tw, z).
    Container<Tr> c("tree", 1.0f);
    auto acc = c.tileAccessor();
    std::int64_t const tw = Tr::tileVoxelWidth(Tr::kMaxDepth);
    auto const& a = acc.addTile(int3{0, 0, 0}, Tr::kMaxDepth);
    int3 const ca = a.tijk();
    auto const& b = acc.addTile(int3{int(ca.x + tw), int(ca.y - tw), ca.z}, Tr::kMaxDepth);
    ASSERT_EQ(a.ti() + a.tj() + a.tk(), b.ti() + b.tj() + b.tk());
    for (std::uint64_t n = 0; n < std::uint64_t(W * W * W); ++n)
        EXPECT_EQ(CoreGL::voxelHashWeight(a.ti(), a.tj(), a.tk(), n),
                  CoreGL::voxelHashWeight(b.ti(), b.tj(), b.tk(), n));
    // So moving data from one of them to the other leaves the hash as it was, bit for bit (the
    // other tile holds zeros, whose terms add exactly).
    float fill = 0;
    VoxelChannel<Tr, float> ch("c", &fill, kDataElementInitializerDefaultValue, false, true,
                               Tr::kMaxDepth, Tr::kMaxDepth);
    ch.update(c);
    auto da = ch.tileData(a.treeIndex());
    auto db = ch.tileData(b.treeIndex());
    for (std::size_t n = 0; n < da.size(); ++n)
        da[n] = float(3 * n % 17) - 4.5f;
    double const before = CoreGL::voxelHash(c, ch);
    for (std::size_t n = 0; n < da.size(); ++n)
        std::swap(da[n], db[n]);
    EXPECT_EQ(CoreGL::voxelHash(c, ch), before);
    // Data moved to a tile of another corner sum changes it.
    auto const& other = acc.addTile(int3{int(ca.x + tw), ca.y, ca.z}, Tr::kMaxDepth);
    ch.update(c);
    auto dother = ch.tileData(other.treeIndex());
    db = ch.tileData(b.treeIndex());
    for (std::size_t n = 0; n < db.size(); ++n)
        std::swap(db[n], dother[n]);
    EXPECT_NE(CoreGL::voxelHash(c, ch), before);
}

TYPED_TEST(VoxelHash, TheDebugLineIsWrittenAboveItsLevel)
{
    using Tr = TypeParam;
    OneTile<Tr, float> s(int3{1, 2, 3});
    s.channel->tileData(s.tile->treeIndex()).set(2.5f);
    std::ostringstream out;
    CoreGL::Logger::setDebugFileStream(&out);
    CoreGL::Logger::setVerboseLevel(2);
    CoreGL::writeVoxelHashLine("frame 1: mesh", ".voxel_hash.after_pruning = ", s.tree, *s.channel);
    EXPECT_EQ(out.str(), "");
    CoreGL::writeVoxelHashLine("frame 1: mesh", ".voxel_hash.after_pruning = ", s.tree, *s.channel,
                               1);
    std::ostringstream expected;
    expected.precision(17);
    expected << "frame 1: mesh.voxel_hash.after_pruning = " << CoreGL::voxelHash(s.tree, *s.channel)
             << '\n';
    EXPECT_EQ(out.str(), expected.str());
    EXPECT_NEAR(std::stod(out.str().substr(out.str().find("= ") + 2)), 2.5, 1e-14);
    out.str("");
    CoreGL::Logger::setVerboseLevel(3);
    CoreGL::writeVoxelHashLine("x", ".voxel_hash.before_redistance = ", 0.1);
    EXPECT_EQ(out.str(), "x.voxel_hash.before_redistance = 0.10000000000000001\n");
}

TYPED_TEST(VoxelHash, CancellationThrows)
{
    using Tr = TypeParam;
    Container<Tr> c("tree", 1.0f);
    testtrees::growRandomTree(c, 53, 2, 40, Tr::kMaxDepth - 2, 0.2);
    auto const ch = filled<Tr, float>(c, [](std::int64_t n) { return float(n); });
    Quillon::requestJobCancellation();
    EXPECT_THROW(CoreGL::voxelHash(c, *ch), std::runtime_error);
    Quillon::clearJobCancellation();
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(VoxelHashExports, EveryElementTypeIsExported)
{
#define HEXMOLD_TAKE(TR, T)                                                                        \
    testlinked::requireLinked(&CoreGL::voxelHash<TR, T>, &CoreGL::writeVoxelHashLine<TR, T>);
    HEXMOLD_FOR_EACH_TRAITS_ELEMENT(HEXMOLD_TAKE)
#undef HEXMOLD_TAKE
}
