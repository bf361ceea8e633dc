// Tests of extrapolateChannel: the printed cases, the voxel update on hand-made fields, the
// extension of data that depends on the closest point of a sphere only, the layer wavefront,
// determinism, cancellation and bad input.
#include <gtest/gtest.h>

#include "fixtures/level_set_scenes.h"
#include "fixtures/trees.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <hexmold/levelset/extrapolate_channel.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/platform/tavrel/math_support.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/type_lists.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;
using namespace testlevelset;

namespace {

template <typename Tr> class ExtrapolateChannel : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ExtrapolateChannel, TraitsTypes, TraitsNames);

/// Sets the verbose levels for a scope and restores the defaults afterwards.
struct Verbosity {
    Verbosity(int level, int errorLevel)
    {
        CoreGL::Logger::setVerboseLevel(level);
        CoreGL::Logger::setErrorVerboseLevel(errorLevel);
    }
    ~Verbosity()
    {
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
        CoreGL::Logger::setErrorVerboseLevel(CoreGL::Logger::kDefaultErrorVerboseLevel);
    }
};

/// A channel of element type T over all depths, every element at @p fill.
template <typename Tr, typename T>
std::unique_ptr<VoxelChannel<Tr, T>> makeChannel(LevelSetScene<Tr> const& s, T fill,
                                                 char const* name)
{
    auto ch = std::make_unique<VoxelChannel<Tr, T>>(
        name, &fill, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
    ch->update(s.topology);
    return ch;
}

/// Corner, on each axis, of the deepest tile that holds the tile-space origin: the tile lattice
/// of `Traits<5,5,1>` is not aligned with the origin.
template <typename Tr>
constexpr int kBase = -int(Tr::kCentreOffset % Tr::tileVoxelWidth(Tr::kMaxDepth));

/// The element of @p ch at the deepest-depth voxel (x, y, z), counted in finest voxels from the
/// corner of the deepest tile that holds the origin.
template <typename Tr, typename Ch>
auto& finest(LevelSetScene<Tr> const& s, Ch& ch, int x, int y, int z)
{
    x += kBase<Tr>, y += kBase<Tr>, z += kBase<Tr>;
    auto acc = s.tree.tileAccessor();
    Tile<Tr> const& t = acc.tile(x, y, z, Tr::kMaxDepth);
    EXPECT_EQ(t.depth(), Tr::kMaxDepth);
    return ch.tileData(t.index(), t.depth())(x - t.ti(), y - t.tj(), z - t.tk());
}

/// A block of 2 x 2 x 2 deepest tiles at the tile-space origin, with their ancestors: the
/// finest voxels 0 .. 2W-1 on each axis.
template <typename Tr> void buildBlock(LevelSetScene<Tr>& s)
{
    s.build([](Container<Tr>& c) {
        testtrees::addBlock<Tr>(c, Tr::kMaxDepth, {0, 0, 0}, {1, 1, 1});
    });
}

/// Every element of a channel, tile after tile, depth after depth.
template <typename Tr, typename T>
std::vector<T> valuesOf(LevelSetScene<Tr> const& s, VoxelChannel<Tr, T> const& ch)
{
    std::vector<T> out;
    s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
        out.push_back(ch.tileData(tile.index(), tile.depth())(i, j, k));
    });
    return out;
}

/// The child voxel at the low corner of the region that voxel (i, j, k) of @p tile covers;
/// false for a leaf voxel.
template <typename Tr>
bool lowCornerChild(Tile<Tr> const& tile, int i, int j, int k, TreeIndex& child, int3& c)
{
    constexpr int P = Tr::kVoxelsPerSlot, W = Tr::kTileWidth;
    if (tile.depth() == Tr::kMaxDepth || tile.isLeaf(i, j, k))
        return false;
    child = tile.childTreeIndex(i / P, j / P, k / P);
    c = int3{(i % P) * W / P, (j % P) * W / P, (k % P) * W / P};
    return true;
}

template <typename T> bool sameBits(std::vector<T> const& a, std::vector<T> const& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

} // namespace

// ---- the printed cases ----------------------------------------------------------------------

TYPED_TEST(ExtrapolateChannel, TypeFMMLeavesTheChannelsUntouchedAndPrintsOneLine)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    auto known = makeChannel<Tr, unsigned char>(s, 0, "known");
    finest(s, *known, 1, 1, 1) = 1;
    auto value = makeChannel<Tr, float>(s, 0.0f, "value");
    finest(s, *value, 1, 1, 1) = 5.0f;
    auto distance = makeChannel<Tr, float>(s, 1.0f, "distance");
    auto const knownBefore = valuesOf(s, *known);
    auto const valueBefore = valuesOf(s, *value);

    Verbosity const v(1, 1);
    ::testing::internal::CaptureStdout();
    extrapolateChannel<Tr, float>(kExtrapolateFMM, s.tree, s.topology, *known, *value,
                                  distance.get(), nullptr, 0, Tr::kMaxDepth, true);
    std::string const out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "extrapolateChannel: kExtrapolateFMM not yet implemented (use kExtrapolateFSM)\n");
    EXPECT_TRUE(sameBits(valuesOf(s, *known), knownBefore));
    EXPECT_TRUE(sameBits(valuesOf(s, *value), valueBefore));
}

TYPED_TEST(ExtrapolateChannel, TypeFSMWithoutDistancePrintsTheErrorAndNoTimeLine)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    auto known = makeChannel<Tr, unsigned char>(s, 0, "known");
    auto value = makeChannel<Tr, float>(s, 2.0f, "value");
    auto const before = valuesOf(s, *value);

    Verbosity const v(1, 1);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    extrapolateChannel<Tr, float>(kExtrapolateFSM, s.tree, s.topology, *known, *value, nullptr,
                                  nullptr, 0, Tr::kMaxDepth, false);
    std::string const err = ::testing::internal::GetCapturedStderr();
    std::string const out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(err,
              "Error: extrapolateChannel.extrapolateFSM requires in_distanceChannel!=nullptr\n");
    EXPECT_EQ(out.find("Extrapolation time"), std::string::npos) << out;
    EXPECT_TRUE(sameBits(valuesOf(s, *value), before));
}

TYPED_TEST(ExtrapolateChannel, AnUnknownTypePrintsItsNumberAndDoesNothing)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    auto known = makeChannel<Tr, unsigned char>(s, 0, "known");
    auto value = makeChannel<Tr, float>(s, 2.0f, "value");
    auto distance = makeChannel<Tr, float>(s, 1.0f, "distance");
    auto const before = valuesOf(s, *value);

    Verbosity const v(1, 1);
    ::testing::internal::CaptureStdout();
    extrapolateChannel<Tr, float>(ExtrapolationType(7), s.tree, s.topology, *known, *value,
                                  distance.get(), nullptr, 0, Tr::kMaxDepth, false);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "extrapolateChannel: unknown extrapolation mode = 7\n");
    EXPECT_TRUE(sameBits(valuesOf(s, *value), before));
}

TYPED_TEST(ExtrapolateChannel, TheFastSweepPrintsItsLinesAndTheTime)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    auto known = makeChannel<Tr, unsigned char>(s, 1, "known");
    finest(s, *known, 3, 3, 3) = 0;
    auto value = makeChannel<Tr, float>(s, 1.0f, "value");
    auto distance = makeChannel<Tr, float>(s, 1.0f, "distance");

    Verbosity const v(1, 1);
    ::testing::internal::CaptureStdout();
    extrapolateChannel<Tr, float>(kExtrapolateFSM, s.tree, s.topology, *known, *value,
                                  distance.get(), nullptr, 0, Tr::kMaxDepth, false);
    std::string const out = ::testing::internal::GetCapturedStdout();
    for (char const* line :
         {"extrapolateChannel.extrapolateFSM.begin:\n",
          "extrapolateChannel.extrapolateFSM.iter 0, change(inf) = ",
          "extrapolateChannel.extrapolateFSM: depth = ", ", maxChange = ", ", numSweeps = ",
          "extrapolateChannel.extrapolateFSM.end:\n", "Extrapolation time = "})
        EXPECT_NE(out.find(line), std::string::npos) << line << " missing in:\n" << out;
    EXPECT_EQ(out.compare(out.size() - 9, 9, " seconds\n"), 0) << out;
}

// ---- the voxel update ---------------------------------------------------------------------

/// A voxel nearer the surface than all six of its neighbours (the apex of a cone of distances)
/// has no upwind neighbour: it takes the plain mean of the six. Its neighbours lie in three
/// tiles besides its own, so the values come through the halo.
TYPED_TEST(ExtrapolateChannel, AVoxelWithAllNeighboursFartherTakesTheMeanOfSix)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    float const h = 0.025f;
    LevelSetScene<Tr> s(h);
    buildBlock(s);
    int const c = W; // the first voxel of the upper tiles on every axis
    auto distance = makeChannel<Tr, float>(s, 1000.0f, "distance");
    for (int z = 0; z < 2 * W; ++z)
        for (int y = 0; y < 2 * W; ++y)
            for (int x = 0; x < 2 * W; ++x)
                finest(s, *distance, x, y, z) = float(
                    h *
                    std::sqrt(double((x - c) * (x - c) + (y - c) * (y - c) + (z - c) * (z - c))));
    auto known = makeChannel<Tr, unsigned char>(s, 1, "known");
    finest(s, *known, c, c, c) = 0;
    auto value = makeChannel<Tr, float>(s, 0.0f, "value");
    finest(s, *value, c + 1, c, c) = 1.0f;
    finest(s, *value, c - 1, c, c) = 2.0f;
    finest(s, *value, c, c + 1, c) = 3.0f;
    finest(s, *value, c, c - 1, c) = 4.0f;
    finest(s, *value, c, c, c + 1) = 5.0f;
    finest(s, *value, c, c, c - 1) = 6.0f;
    finest(s, *value, c, c, c) = -100.0f;

    extrapolateChannel<Tr, float>(kExtrapolateFSM, s.tree, s.topology, *known, *value,
                                  distance.get(), nullptr, 0, Tr::kMaxDepth, false);
    EXPECT_EQ(finest(s, *value, c, c, c), 3.5f);
    EXPECT_EQ(finest(s, *value, c - 1, c, c), 2.0f) << "a known voxel stays";
}

/// The weights are the distance differences to the upwind neighbours: with a plane x + y, the
/// neighbours at -x and -y count equally and the z neighbours not at all.
TYPED_TEST(ExtrapolateChannel, TheUpwindNeighboursAreWeightedByTheirDistanceDifference)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    int const c = W;
    auto distance = makeChannel<Tr, float>(s, 1000.0f, "distance");
    for (int z = 0; z < 2 * W; ++z)
        for (int y = 0; y < 2 * W; ++y)
            for (int x = 0; x < 2 * W; ++x)
                finest(s, *distance, x, y, z) = float(x + 2 * y);
    auto known = makeChannel<Tr, unsigned char>(s, 1, "known");
    finest(s, *known, c, c, c) = 0;
    auto value = makeChannel<Tr, double>(s, 0.0, "value");
    finest(s, *value, c - 1, c, c) = 3.0;
    finest(s, *value, c, c - 1, c) = 6.0;
    finest(s, *value, c + 1, c, c) = 1000.0;
    finest(s, *value, c, c + 1, c) = 1000.0;
    finest(s, *value, c, c, c + 1) = 1000.0;
    finest(s, *value, c, c, c - 1) = 1000.0;

    extrapolateChannel<Tr, double>(kExtrapolateFSM, s.tree, s.topology, *known, *value,
                                   distance.get(), nullptr, 0, Tr::kMaxDepth, false);
    // Weights 1 (x) and 2 (y): (1 * 3 + 2 * 6) / 3.
    EXPECT_EQ(finest(s, *value, c, c, c), 5.0);
}

namespace {

/// The x + y plane case with upwind values @p a and @p b of equal weight, in element type T.
template <typename Tr, typename T> T planeQuotient(T a, T b)
{
    constexpr int W = Tr::kTileWidth;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    int const c = W;
    auto distance = makeChannel<Tr, float>(s, 1000.0f, "distance");
    for (int z = 0; z < 2 * W; ++z)
        for (int y = 0; y < 2 * W; ++y)
            for (int x = 0; x < 2 * W; ++x)
                finest(s, *distance, x, y, z) = float(x + y);
    auto known = makeChannel<Tr, unsigned char>(s, 1, "known");
    finest(s, *known, c, c, c) = 0;
    auto value = makeChannel<Tr, T>(s, T{}, "value");
    finest(s, *value, c - 1, c, c) = a;
    finest(s, *value, c, c - 1, c) = b;
    extrapolateChannel<Tr, T>(kExtrapolateFSM, s.tree, s.topology, *known, *value, distance.get(),
                              nullptr, 0, Tr::kMaxDepth, false);
    return finest(s, *value, c, c, c);
}

} // namespace

TYPED_TEST(ExtrapolateChannel, AnIntegerQuotientTruncates)
{
    using Tr = TypeParam;
    // (1 + 2) / 2 = 1.5, and towards zero for negative sums.
    EXPECT_EQ((planeQuotient<Tr, Int8>(1, 2)), 1);
    EXPECT_EQ((planeQuotient<Tr, Int8>(-1, -2)), -1);
    EXPECT_EQ((planeQuotient<Tr, UInt8>(1, 2)), 1);
    EXPECT_EQ((planeQuotient<Tr, Int16>(-1, -2)), -1);
    EXPECT_EQ((planeQuotient<Tr, UInt16>(7, 8)), 7);
    EXPECT_EQ((planeQuotient<Tr, Int32>(-7, -8)), -7);
    EXPECT_EQ((planeQuotient<Tr, UInt32>(7, 8)), 7);
    EXPECT_EQ((planeQuotient<Tr, Int64>(-(1LL << 40) - 1, -(1LL << 40))), -(1LL << 40));
    EXPECT_EQ((planeQuotient<Tr, UInt64>(9, 10)), 9ULL);
    int3 const q = planeQuotient<Tr, int3>(int3{1, -1, 4}, int3{2, -2, 5});
    EXPECT_EQ(q.x, 1);
    EXPECT_EQ(q.y, -1);
    EXPECT_EQ(q.z, 4);
    // Floating types keep the half.
    EXPECT_EQ((planeQuotient<Tr, float>(1.0f, 2.0f)), 1.5f);
}

TYPED_TEST(ExtrapolateChannel, VectorAndMatrixTypesWorkByComponent)
{
    using Tr = TypeParam;
    float3 const v = planeQuotient<Tr, float3>(float3{1, 2, 3}, float3{3, 4, 5});
    EXPECT_EQ(v.x, 2.0f);
    EXPECT_EQ(v.y, 3.0f);
    EXPECT_EQ(v.z, 4.0f);
    float4x4 a = float4x4::identity(), b = float4x4::identity() * 3.0f;
    a.m[0][3] = -2.0f;
    float4x4 const m = planeQuotient<Tr, float4x4>(a, b);
    EXPECT_EQ(m.m[1][1], 2.0f);
    EXPECT_EQ(m.m[0][3], -1.0f);
    EXPECT_EQ(m.m[2][1], 0.0f);
    double3 const d = planeQuotient<Tr, double3>(double3{0.5, 1, 2}, double3{1, 1, 1});
    EXPECT_EQ(d.x, 0.75);
    EXPECT_EQ(d.z, 1.5);
}

/// Only tiles with an unknown voxel are swept: at verbose level 3 the colour lists are counted.
TYPED_TEST(ExtrapolateChannel, ATileWithAllVoxelsKnownIsInNeitherList)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f);
    buildBlock(s);
    auto known = makeChannel<Tr, unsigned char>(s, 1, "known");
    // One unknown voxel in the tile at the origin (red) and in the tile above it in x (black);
    // the six other deepest tiles are all known.
    finest(s, *known, 1, 1, 1) = 0;
    finest(s, *known, Tr::kTileWidth + 1, 1, 1) = 0;
    auto value = makeChannel<Tr, float>(s, 1.0f, "value");
    auto distance = makeChannel<Tr, float>(s, 1.0f, "distance");

    Verbosity const v(3, 1);
    ::testing::internal::CaptureStdout();
    extrapolateChannel<Tr, float>(kExtrapolateFSM, s.tree, s.topology, *known, *value,
                                  distance.get(), nullptr, 0, Tr::kMaxDepth, false);
    std::string const out = ::testing::internal::GetCapturedStdout();
    std::string const expected =
        "extrapolateChannel.extrapolateFSM: depth = " + std::to_string(Tr::kMaxDepth) +
        ", red tiles = 1, black tiles = 1, unknown voxels = 2\n";
    EXPECT_NE(out.find(expected), std::string::npos) << out;
    // The coarser depths are all known: both lists are empty.
    std::string const coarser =
        "extrapolateChannel.extrapolateFSM: depth = " + std::to_string(Tr::kMaxDepth - 1) +
        ", red tiles = 0, black tiles = 0, unknown voxels = 0\n";
    EXPECT_NE(out.find(coarser), std::string::npos) << out;
}

// ---- extension from the surface of a sphere ---------------------------------------------------

namespace {

/// Sphere of 40 finest voxels radius in a uniform band of 8 voxels.
constexpr double kSphereVoxels = 40.0;
constexpr double kBandVoxels = 8.0;
/// Voxels within this many finest voxels of the surface are compared with the analytic
/// extension (the outer voxels of the band border coarser tiles, which are not swept first).
constexpr double kCompareVoxels = 6.0;

/// The data on the sphere: a smooth function of the direction only, so that its exact extension
/// is constant along the normals. Its gradient on the unit sphere is at most about 3.
double direction(double x, double y, double z)
{
    double const r = std::sqrt(x * x + y * y + z * z);
    double const nx = x / r, ny = y / r, nz = z / r;
    return nx + 0.5 * ny * nz + 0.25 * nz;
}

template <typename T> T sample(double g, double scale);
template <> float sample<float>(double g, double)
{
    return float(g);
}
template <> int sample<int>(double g, double scale)
{
    return int(std::lround(g * scale));
}
template <> float3 sample<float3>(double g, double)
{
    return float3{float(g), float(-2.0 * g), 1.0f};
}
template <typename T> double componentError(T const& a, T const& b, double scale);
template <> double componentError<float>(float const& a, float const& b, double)
{
    return std::fabs(double(a) - b);
}
template <> double componentError<int>(int const& a, int const& b, double scale)
{
    return std::fabs(double(a) - double(b)) / scale;
}
template <> double componentError<float3>(float3 const& a, float3 const& b, double)
{
    return std::max({std::fabs(double(a.x) - b.x), std::fabs(double(a.y) - b.y) / 2.0,
                     std::fabs(double(a.z) - b.z)});
}

/// The sphere scene, its exact distance, the known shell (deepest leaf voxels within a voxel of
/// the surface) with the data there, and the errors of an extension within `kCompareVoxels`, in
/// units of the data (of the data divided by @p scale for integers).
template <typename Tr, typename T> struct SphereExtension {
    LevelSetScene<Tr> s;
    double scale;
    std::unique_ptr<VoxelChannel<Tr, float>> distance;
    std::unique_ptr<VoxelChannel<Tr, unsigned char>> known;
    std::unique_ptr<VoxelChannel<Tr, T>> value;

    SphereExtension(float voxelSize, double scale_) : s(voxelSize), scale(scale_)
    {
        Shape const shape = sphere(kSphereVoxels * voxelSize);
        s.buildUniformBand(shape, kBandVoxels);
        distance = s.makeChannel(shape.distance);
        known = makeChannel<Tr, unsigned char>(s, 0, "known");
        value = makeChannel<Tr, T>(s, T{}, "value");
        double const h = s.voxelSize();
        s.forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                if (tile.depth() != Tr::kMaxDepth)
                    return;
                if (std::fabs(shape.distance(p[0], p[1], p[2])) > h)
                    return;
                known->tileData(tile.index(), tile.depth())(i, j, k) = 1;
                value->tileData(tile.index(), tile.depth())(i, j, k) =
                    sample<T>(direction(p[0], p[1], p[2]), scale);
            });
    }

    void run(VoxelChannel<Tr, T>& out)
    {
        extrapolateChannel<Tr, T>(kExtrapolateFSM, s.tree, s.topology, *known, out, distance.get(),
                                  nullptr, 0, Tr::kMaxDepth, true);
    }

    ErrorStats errors(VoxelChannel<Tr, T> const& out) const
    {
        ErrorStats e;
        double const h = s.voxelSize();
        Shape const shape = sphere(kSphereVoxels * h);
        s.forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                if (tile.depth() != Tr::kMaxDepth)
                    return;
                if (std::fabs(shape.distance(p[0], p[1], p[2])) > kCompareVoxels * h)
                    return;
                T const exact = sample<T>(direction(p[0], p[1], p[2]), scale);
                e.add(componentError<T>(out.tileData(tile.index(), tile.depth())(i, j, k), exact,
                                        scale));
            });
        return e;
    }
};

/// A first-order upwind extension smears the data across the characteristics, by a fraction of
/// a voxel per voxel travelled times the data's gradient (at most about 3 / R, R = 40 h): 0.0038
/// at most and 0.0006 on average are measured within 6 voxels; the bounds leave a factor 5.
constexpr double kExtensionMaxTol = 0.02;
constexpr double kExtensionMeanTol = 0.003;
/// Integer sums truncate at each of up to three additions per update, by up to one unit of
/// 1 / 1000 each, and the truncations add up along a ray of up to 6 voxels: 0.017 at most and
/// 0.0055 on average are measured.
constexpr double kIntegerExtensionMaxTol = 0.05;
constexpr double kIntegerExtensionMeanTol = 0.01;

template <typename Tr, typename T>
void expectExtended(float voxelSize, double scale, char const* label, double maxTol, double meanTol)
{
    SphereExtension<Tr, T> x(voxelSize, scale);
    VoxelChannel<Tr, T> out(*x.value);
    auto const t0 = std::chrono::steady_clock::now();
    x.run(out);
    double const ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    ErrorStats const e = x.errors(out);
    std::printf("  %s %s: extension error within %.0f voxels of the sphere: max %.4f mean %.5f "
                "(%lld voxels, %.1f ms)\n",
                std::is_same_v<Tr, Traits24> ? "Traits24" : "Traits55", label, kCompareVoxels,
                e.max, e.mean(), e.n, ms);
    EXPECT_GT(e.n, 10000);
    EXPECT_LE(e.max, maxTol);
    EXPECT_LE(e.mean(), meanTol);
}

} // namespace

TYPED_TEST(ExtrapolateChannel, DataOfTheClosestPointStaysConstantAlongTheNormals)
{
    expectExtended<TypeParam, float>(0.025f, 1.0, "float", kExtensionMaxTol, kExtensionMeanTol);
}

TYPED_TEST(ExtrapolateChannel, VectorDataStaysConstantAlongTheNormals)
{
    expectExtended<TypeParam, float3>(0.025f, 1.0, "float3", kExtensionMaxTol, kExtensionMeanTol);
}

/// Integer sums truncate at every addition, so the weights must be of the order of 1: a voxel of
/// size 1, and data scaled by 1000.
TYPED_TEST(ExtrapolateChannel, IntegerDataStaysConstantAlongTheNormals)
{
    expectExtended<TypeParam, int>(1.0f, 1000.0, "int x 1000", kIntegerExtensionMaxTol,
                                   kIntegerExtensionMeanTol);
}

TYPED_TEST(ExtrapolateChannel, OneThreadAndAllThreadsGiveTheSameBits)
{
    using Tr = TypeParam;
    SphereExtension<Tr, float3> x(0.025f, 1.0);
    VoxelChannel<Tr, float3> one(*x.value), all(*x.value);
    {
        TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism,
                                            1);
        x.run(one);
    }
    x.run(all);
    EXPECT_TRUE(sameBits(valuesOf(x.s, one), valuesOf(x.s, all)));
    EXPECT_FALSE(sameBits(valuesOf(x.s, one), valuesOf(x.s, *x.value)))
        << "nothing was extrapolated";
}

// ---- the layer wavefront --------------------------------------------------------------------

namespace {

/// A row of deepest tiles, 3 x 1 x 1, with known voxels on the plane x = 0 holding y + 10 z, and
/// the value -1 everywhere else.
template <typename Tr> struct LayerRow {
    LevelSetScene<Tr> s{1.0f};
    std::unique_ptr<VoxelChannel<Tr, unsigned char>> known;
    std::unique_ptr<VoxelChannel<Tr, int>> value;

    LayerRow()
    {
        s.build([](Container<Tr>& c) {
            testtrees::addBlock<Tr>(c, Tr::kMaxDepth, {0, 0, 0}, {2, 0, 0});
        });
        known = makeChannel<Tr, unsigned char>(s, 0, "known");
        value = makeChannel<Tr, int>(s, -1, "value");
        for (int z = 0; z < Tr::kTileWidth; ++z)
            for (int y = 0; y < Tr::kTileWidth; ++y) {
                finest(s, *known, 0, y, z) = 1;
                finest(s, *value, 0, y, z) = y + 10 * z;
            }
    }
};

} // namespace

/// Every voxel n steps from the known plane is in layer n, whose only neighbour of layer n - 1
/// is the voxel before it in x: the plane's data reaches every layer unchanged, across tiles.
TYPED_TEST(ExtrapolateChannel, TheLayersReachEveryVoxelOfTheRequestedDepths)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    LayerRow<Tr> r;
    extrapolateChannel<Tr, int>(kExtrapolateLayers, r.s.tree, r.s.topology, *r.known, *r.value,
                                nullptr, nullptr, 0, Tr::kMaxDepth, false);
    for (int z = 0; z < W; ++z)
        for (int y = 0; y < W; ++y)
            for (int x = 0; x < 3 * W; ++x)
                EXPECT_EQ(finest(r.s, *r.value, x, y, z), y + 10 * z) << x << " " << y << " " << z;
    // The coarser depths hold no known voxel, so the wavefront leaves them alone; then the known
    // data climbs one depth, to the voxels whose low-corner child voxel is known.
    long long carried = 0;
    r.s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
        if (tile.depth() == Tr::kMaxDepth)
            return;
        int const got = r.value->tileData(tile.index(), tile.depth())(i, j, k);
        TreeIndex child;
        int3 c;
        if (tile.depth() == Tr::kMaxDepth - 1 && lowCornerChild(tile, i, j, k, child, c) &&
            r.known->tileData(child)(c) != 0) {
            ++carried;
            EXPECT_EQ(got, r.value->tileData(child)(c));
        } else {
            EXPECT_EQ(got, -1) << "depth " << tile.depth();
        }
    });
    EXPECT_GT(carried, 0);
}

TYPED_TEST(ExtrapolateChannel, TheLayersLeaveDepthsOutsideTheRequestedRangeAlone)
{
    using Tr = TypeParam;
    LayerRow<Tr> r;
    auto const before = valuesOf(r.s, *r.value);
    // The deepest depth is outside [0, deepest - 1]: nothing changes there.
    extrapolateChannel<Tr, int>(kExtrapolateLayers, r.s.tree, r.s.topology, *r.known, *r.value,
                                nullptr, nullptr, 0, Tr::kMaxDepth - 1, false);
    EXPECT_TRUE(sameBits(valuesOf(r.s, *r.value), before));
}

/// With minDepth > 0 the wavefront starts a depth below it, and the unknown voxels of minDepth
/// covered by children take the values of the child voxels at the low corners of their regions.
TYPED_TEST(ExtrapolateChannel, TheLayersRestrictToMinDepthFromBelow)
{
    using Tr = TypeParam;
    LayerRow<Tr> r;
    int const d = Tr::kMaxDepth - 1;
    extrapolateChannel<Tr, int>(kExtrapolateLayers, r.s.tree, r.s.topology, *r.known, *r.value,
                                nullptr, nullptr, d, Tr::kMaxDepth, false);
    long long covered = 0;
    r.s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
        if (tile.depth() != d)
            return;
        int const got = r.value->tileData(tile.index(), tile.depth())(i, j, k);
        if (tile.isLeaf(i, j, k)) {
            EXPECT_EQ(got, -1);
            return;
        }
        ++covered;
        // The child voxel at the region's low corner: finest voxel (corner + index * width).
        std::int64_t const w = tile.voxelDataWidth();
        int const y = int(tile.tj() + j * w) - kBase<Tr>, z = int(tile.tk() + k * w) - kBase<Tr>;
        EXPECT_EQ(got, y + 10 * z);
    });
    EXPECT_GT(covered, 0);
}

/// Across a coarse-fine border the unknown hanging voxels take the multilinear mix of the
/// coarser lattice: exact for data linear in the position, known on every coarser depth.
TYPED_TEST(ExtrapolateChannel, TheLayersInterpolateHangingVoxelsFromTheCoarserDepth)
{
    using Tr = TypeParam;
    LayerRow<Tr> r;
    auto const dof = r.s.makeDOF();
    auto value = makeChannel<Tr, double>(r.s, -1.0, "value");
    auto linear = [](std::int64_t x, std::int64_t y, std::int64_t z) {
        return double(x) + 2.0 * y - 3.0 * z;
    };
    r.s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
        std::int64_t const w = tile.voxelDataWidth();
        double const f = linear(tile.ti() + i * w, tile.tj() + j * w, tile.tk() + k * w);
        if (tile.depth() < Tr::kMaxDepth)
            r.known->tileData(tile.index(), tile.depth())(i, j, k) = 1;
        if (r.known->tileData(tile.index(), tile.depth())(i, j, k) != 0)
            value->tileData(tile.index(), tile.depth())(i, j, k) = f;
    });
    extrapolateChannel<Tr, double>(kExtrapolateLayers, r.s.tree, r.s.topology, *r.known, *value,
                                   nullptr, dof.get(), 0, Tr::kMaxDepth, false);
    long long hanging = 0;
    r.s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
        if (tile.depth() != Tr::kMaxDepth ||
            r.known->tileData(tile.index(), tile.depth())(i, j, k) != 0)
            return;
        short const flags = dof->tileData(tile.index(), tile.depth())(i, j, k);
        if (!(flags & 4) || (flags & 32))
            return;
        std::int64_t const w = tile.voxelDataWidth();
        // Exact where the coarser depth itself holds the whole lattice cell around the voxel;
        // elsewhere the deepest tile above stands in, whose voxels sit elsewhere.
        std::int64_t const pw = Container<Tr>::voxelDataWidth(Tr::kMaxDepth - 1);
        std::int64_t const p[3] = {tile.ti() + i * w, tile.tj() + j * w, tile.tk() + k * w};
        auto acc = r.s.tree.tileAccessor();
        for (int corner = 0; corner < 8; ++corner) {
            std::int64_t q[3];
            for (int a = 0; a < 3; ++a) {
                std::int64_t const rest = (p[a] + Tr::kCentreOffset) % pw;
                q[a] = p[a] - rest + (((corner >> a) & 1) && rest != 0 ? pw : 0);
            }
            if (acc.tile(q[0], q[1], q[2], Tr::kMaxDepth - 1).depth() != Tr::kMaxDepth - 1)
                return;
        }
        ++hanging;
        // Fractions of fifths are not exact in binary: the mix is exact up to rounding.
        constexpr double kRoundingTol = 1e-12;
        EXPECT_NEAR(value->tileData(tile.index(), tile.depth())(i, j, k),
                    linear(tile.ti() + i * w, tile.tj() + j * w, tile.tk() + k * w), kRoundingTol);
    });
    std::printf("  %lld unknown hanging voxels\n", hanging);
    EXPECT_GT(hanging, 0);
}

// ---- cancellation and bad input -------------------------------------------------------------

TYPED_TEST(ExtrapolateChannel, CancellationThrowsAndLeavesTheChannelsUsable)
{
    using Tr = TypeParam;
    SphereExtension<Tr, float> x(0.025f, 1.0);
    VoxelChannel<Tr, float> out(*x.value);
    auto const knownBefore = valuesOf(x.s, *x.known);

    Quillon::requestJobCancellation();
    auto const t0 = std::chrono::steady_clock::now();
    bool thrown = false;
    try {
        x.run(out);
    } catch (std::runtime_error const& e) {
        thrown = true;
        EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
    }
    double const seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    Quillon::clearJobCancellation();
    EXPECT_TRUE(thrown);
    EXPECT_LT(seconds, 1.0);
    EXPECT_TRUE(sameBits(valuesOf(x.s, *x.known), knownBefore));
    EXPECT_TRUE(sameBits(valuesOf(x.s, out), valuesOf(x.s, *x.value)))
        << "cancelled before any voxel was written";

    // The same channels run to the end afterwards, as fresh ones do.
    VoxelChannel<Tr, float> fresh(*x.value);
    x.run(out);
    x.run(fresh);
    EXPECT_TRUE(sameBits(valuesOf(x.s, out), valuesOf(x.s, fresh)));
}

/// Cancelled while the sweeps run: the exception comes out promptly, and the channels, partly
/// extrapolated, still take a full run whose result is as accurate as one from fresh channels.
TYPED_TEST(ExtrapolateChannel, CancellationDuringTheSweepsThrowsAndTheChannelsTakeAnotherRun)
{
    using Tr = TypeParam;
    SphereExtension<Tr, float3> x(0.025f, 1.0);
    VoxelChannel<Tr, float3> out(*x.value);
    auto const knownBefore = valuesOf(x.s, *x.known);

    Quillon::clearJobCancellation();
    std::thread canceller([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        Quillon::requestJobCancellation();
    });
    auto const t0 = std::chrono::steady_clock::now();
    bool thrown = false;
    try {
        x.run(out);
    } catch (std::runtime_error const& e) {
        thrown = true;
        EXPECT_EQ(std::string(e.what()), TVL::exceptionMessage);
    }
    double const seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    canceller.join();
    Quillon::clearJobCancellation();
    EXPECT_TRUE(thrown) << "the run ended before the cancellation, after " << seconds << " s";
    EXPECT_LT(seconds, 5.0);
    EXPECT_TRUE(sameBits(valuesOf(x.s, *x.known), knownBefore));

    x.run(out);
    ErrorStats const e = x.errors(out);
    EXPECT_LE(e.max, kExtensionMaxTol);
    EXPECT_LE(e.mean(), kExtensionMeanTol);
}

TYPED_TEST(ExtrapolateChannel, ChannelsOfAnotherTreeAreReportedAndLeftAlone)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f), other(1.0f);
    buildBlock(s);
    other.build([](Container<Tr>& c) {
        testtrees::addBlock<Tr>(c, Tr::kMaxDepth, {0, 0, 0}, {2, 2, 2});
    });
    auto known = makeChannel<Tr, unsigned char>(s, 0, "known");
    auto value = makeChannel<Tr, float>(other, 2.0f, "value");
    auto distance = makeChannel<Tr, float>(s, 1.0f, "distance");
    auto const before = valuesOf(other, *value);
    for (ExtrapolationType type : {kExtrapolateFSM, kExtrapolateLayers}) {
        Verbosity const v(0, 1);
        ::testing::internal::CaptureStderr();
        extrapolateChannel<Tr, float>(type, s.tree, s.topology, *known, *value, distance.get(),
                                      nullptr, 0, Tr::kMaxDepth, true);
        std::string const err = ::testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("Error: extrapolateChannel: channel tiles do not match the tree"),
                  std::string::npos)
            << err;
        EXPECT_TRUE(sameBits(valuesOf(other, *value), before));
    }
}

TYPED_TEST(ExtrapolateChannel, AnEmptyTreeIsANoOp)
{
    using Tr = TypeParam;
    LevelSetScene<Tr> s(1.0f);
    s.build([](Container<Tr>&) {});
    auto known = makeChannel<Tr, unsigned char>(s, 0, "known");
    auto value = makeChannel<Tr, float3>(s, float3{1, 2, 3}, "value");
    auto distance = makeChannel<Tr, float>(s, 1.0f, "distance");
    for (ExtrapolationType type : {kExtrapolateFSM, kExtrapolateLayers})
        extrapolateChannel<Tr, float3>(type, s.tree, s.topology, *known, *value, distance.get(),
                                       nullptr, 0, Tr::kMaxDepth, true);
    EXPECT_EQ(value->tileCount(-1), 0);
}

TEST(ExtrapolateChannelExports, EveryInstanceIsExported)
{
    std::vector<void const*> addresses;
#define HEXMOLD_TEST_TAKE_ADDRESS(TR, T)                                                           \
    addresses.push_back(reinterpret_cast<void const*>(&extrapolateChannel<TR, T>));
    HEXMOLD_FOR_EACH_TRAITS_ELEMENT(HEXMOLD_TEST_TAKE_ADDRESS)
#undef HEXMOLD_TEST_TAKE_ADDRESS
    EXPECT_EQ(addresses.size(), 36u);
    for (void const* a : addresses)
        EXPECT_NE(a, nullptr);
}
