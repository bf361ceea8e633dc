// levelSetRedistance at the edges of its input, one test each: both sides off, re-initialization
// without DOFs and with an odd pass count, masks (none negative, an interior pocket, a frozen
// half-space), the caller's value types (with both sides off, known and excluded voxels), a
// single depth, no passes, all one sign, hanging voxels at a coarse-fine border, a band in which
// every voxel is at the zero crossing, values exactly zero.
#include <gtest/gtest.h>

#include "fixtures/level_set_scenes.h"
#include <cmath>
#include <cstdio>
#include <cstring>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/logging/logger.h>
#include <sstream>
#include <string>

using namespace TVL::TileTree3D;
using namespace VolumeGL::TileTree3D::LevelSet;
using namespace testlevelset;

namespace {

template <typename Tr> class LevelSetRedistanceEdgeCases : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(LevelSetRedistanceEdgeCases, TraitsTypes, TraitsNames);

constexpr float kVoxel = 0.05f;
/// A sphere of 20 finest voxels on a band of 8 voxels: small enough for many runs.
constexpr double kRadiusVoxels = 20.0;
constexpr double kBandVoxels = 8.0;
Shape smallSphere()
{
    return sphere(kRadiusVoxels * kVoxel);
}

constexpr double kNearMeanTol = 0.05; ///< as for the accuracy tests, in h
constexpr double kNearMaxTol = 0.25;
/// Rounding of a mean or an interpolation of background values, relative.
constexpr double kBackgroundRelTol = 1e-6;

template <typename Tr> using Scene = LevelSetScene<Tr>;

template <typename Tr> bool atBackground(float v, float sign)
{
    double const bg = Scene<Tr>::kBackground;
    return std::abs(double(v) - sign * bg) <= kBackgroundRelTol * bg;
}

float signOf(float v)
{
    return 0.0f > v ? -1.0f : 1.0f;
}

/// The value of the deepest voxel that holds the finest-voxel point (x, y, z).
template <typename Tr>
float valueAt(Scene<Tr> const& s, VoxelChannel<Tr, float> const& ch, std::int64_t x, std::int64_t y,
              std::int64_t z)
{
    auto acc = s.tree.tileAccessor();
    auto const& t = acc.tile(x, y, z, Tr::kMaxDepth);
    std::int64_t const w = t.voxelDataWidth();
    return ch.tileData(t.index(), t.depth())(int((x - t.ti()) / w), int((y - t.tj()) / w),
                                             int((z - t.tk()) / w));
}

/// Whether a voxel of a deepest tile has a face neighbour of the other sign (0 counts as
/// positive); a neighbour outside the deepest tiles is the coarser voxel that holds it.
template <typename Tr>
bool atZeroCrossing(Scene<Tr> const& s, VoxelChannel<Tr, float> const& ch, Tile<Tr> const& tile,
                    int i, int j, int k)
{
    std::int64_t const x = tile.ti() + i, y = tile.tj() + j, z = tile.tk() + k;
    bool const negative = 0.0f > valueAt(s, ch, x, y, z);
    int const step[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (auto const& d : step)
        if ((0.0f > valueAt(s, ch, x + d[0], y + d[1], z + d[2])) != negative)
            return true;
    return false;
}

/// @p fn(tile, i, j, k, centre) for the voxels of the deepest tiles.
template <typename Tr, typename F> void forEachDeepestVoxel(Scene<Tr> const& s, F const& fn)
{
    int const d = Tr::kMaxDepth;
    constexpr int W = Tr::kTileWidth;
    for (std::int64_t t = 0; t < s.tree.tileCount(d); ++t) {
        Tile<Tr> const& tile = s.tree.tile(t, d);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    fn(tile, i, j, k, voxelCentre(tile, i, j, k, s.voxelSize()));
    }
}

template <typename Tr, typename T>
T at(VoxelChannel<Tr, T> const& ch, Tile<Tr> const& tile, int i, int j, int k)
{
    return ch.tileData(tile.index(), tile.depth())(i, j, k);
}

double radiusVoxels(std::array<double, 3> const& p)
{
    return std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]) / kVoxel;
}

/// Captures what the verbose lines of a call print, to the debug stream and to standard output.
class VerboseCapture {
public:
    explicit VerboseCapture(int level) : mLevel(CoreGL::Logger::verboseLevel())
    {
        CoreGL::Logger::setVerboseLevel(level);
        CoreGL::Logger::setDebugFileStream(&mStream);
        ::testing::internal::CaptureStdout();
    }
    /// Everything printed so far; ends the capture.
    std::string finish()
    {
        std::string out = ::testing::internal::GetCapturedStdout();
        CoreGL::Logger::setDebugFileStream(nullptr);
        CoreGL::Logger::setVerboseLevel(mLevel);
        mDone = true;
        return out + mStream.str();
    }
    ~VerboseCapture()
    {
        if (!mDone)
            finish();
    }

private:
    int mLevel;
    bool mDone = false;
    std::ostringstream mStream;
};

std::string sweepLine(int depth, int sweeps, int passes)
{
    return "Depth " + std::to_string(depth) + " completed in " + std::to_string(sweeps) + " of " +
           std::to_string(passes) + " sweeps";
}

} // namespace

// ---- Both sides off, re-initialization -----------------------------------------------------

TYPED_TEST(LevelSetRedistanceEdgeCases, BothSidesOffWithNothingElseLeavesTheChannelUntouched)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    s.buildUniformBand(smallSphere(), kBandVoxels);
    auto const in = s.makeChannel(smallSphere().field);
    VoxelChannel<Tr, float> out(*in);
    RedistanceCall<Tr> call;
    call.redistanceInterior = call.redistanceExterior = call.overwriteSurface = false;
    call.run(s, out);
    auto const a = channelValues(s, *in), b = channelValues(s, out);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
}

TYPED_TEST(LevelSetRedistanceEdgeCases, ReInitializationWithoutDOFChannelChangesNoValue)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    s.buildUniformBand(smallSphere(), kBandVoxels);
    auto const in = s.makeChannel(smallSphere().field);
    VoxelChannel<Tr, float> out(*in);
    RedistanceCall<Tr> call;
    call.scheme = kRedistanceReInitialize;
    call.run(s, out);
    auto const a = channelValues(s, *in), b = channelValues(s, out);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
}

TYPED_TEST(LevelSetRedistanceEdgeCases,
           OddReInitializationPassCountLeavesTheResultInTheCallersChannel)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    s.buildUniformBand(smallSphere(), kBandVoxels);
    auto const in = s.makeChannel(smallSphere().field);
    auto const dof = s.makeDOF();
    auto passes = [&](VoxelChannel<Tr, float>& ch, int pre, int post) {
        RedistanceCall<Tr> call;
        call.scheme = kRedistanceReInitialize;
        call.dof = dof.get();
        call.pre = pre;
        call.post = post;
        call.run(s, ch);
    };
    // One pass: the step lands in the caller's channel.
    VoxelChannel<Tr, float> one(*in);
    passes(one, 1, 0);
    long long changed = 0;
    forEachDeepestVoxel(
        s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
            changed += at(one, tile, i, j, k) != at(*in, tile, i, j, k);
        });
    EXPECT_GT(changed, 1000);
    // Three passes in one call equal two passes and then one.
    VoxelChannel<Tr, float> three(*in), twoThenOne(*in);
    passes(three, 2, 1);
    passes(twoThenOne, 1, 1);
    passes(twoThenOne, 0, 1);
    auto const a = channelValues(s, three), b = channelValues(s, twoThenOne);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
}

TYPED_TEST(LevelSetRedistanceEdgeCases, ReInitializationMovesTheFieldTowardsTheDistance)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    s.buildUniformBand(smallSphere(), kBandVoxels);
    Shape const shape = smallSphere();
    auto const in = s.makeChannel(shape.field);
    auto const dof = s.makeDOF();
    VoxelChannel<Tr, float> out(*in);
    RedistanceCall<Tr> call;
    call.scheme = kRedistanceReInitialize;
    call.dof = dof.get();
    call.pre = 20;
    call.post = 21;
    call.run(s, out);
    ErrorStats before, after;
    forEachDeepestVoxel(
        s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
            double const exact = shape.distance(p[0], p[1], p[2]);
            if (std::abs(exact) > 5 * kVoxel || (at(*dof, tile, i, j, k) & 1) == 0)
                return;
            before.add(std::abs(at(*in, tile, i, j, k) - exact) / kVoxel);
            after.add(std::abs(at(out, tile, i, j, k) - exact) / kVoxel);
        });
    std::printf(
        "  re-initialization, 41 passes, within 5 voxels: mean error %.4f h before, %.4f h after\n",
        before.mean(), after.mean());
    EXPECT_LT(after.mean(), before.mean());
}

// ---- Masks ---------------------------------------------------------------------------------

TYPED_TEST(LevelSetRedistanceEdgeCases, MaskWithNoNegativeVoxelSolvesNothing)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    s.buildUniformBand(smallSphere(), kBandVoxels);
    auto const in = s.makeChannel(smallSphere().field);
    auto const mask = s.makeChannel([](double, double, double) { return 1.0; }, "mask");
    auto const dof = s.makeDOF();
    for (bool useDOF : {false, true}) {
        SCOPED_TRACE(useDOF ? "DOF sweep" : "recursion");
        VoxelChannel<Tr, float> out(*in);
        RedistanceCall<Tr> call;
        call.mask = mask.get();
        call.dof = useDOF ? dof.get() : nullptr;
        call.run(s, out);
        // Every leaf voxel is excluded from the solve: it keeps its value or holds the background
        // of its sign; none is computed.
        long long kept = 0, background = 0, solved = 0;
        s.forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
                if (!Scene<Tr>::isLeafVoxel(tile, i, j, k))
                    return;
                float const v = at(out, tile, i, j, k), v0 = at(*in, tile, i, j, k);
                if (v == v0)
                    ++kept;
                else if (atBackground<Tr>(v, signOf(v0)))
                    ++background;
                else
                    ++solved;
            });
        std::printf("  %s: leaf voxels kept %lld, at the background %lld, solved %lld\n",
                    useDOF ? "DOF sweep" : "recursion", kept, background, solved);
        EXPECT_EQ(solved, 0);
    }
}

TYPED_TEST(LevelSetRedistanceEdgeCases, InteriorPocketBehindAMaskEndsAtMinusTheBackground)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildUniformBand(shape, kBandVoxels);
    auto const in = s.makeChannel(shape.field);
    // A frozen shell two voxels thick inside the sphere cuts the inner voxels off the surface.
    constexpr double kShellIn = 13.5, kShellOut = 15.5;
    auto const mask = s.makeChannel(
        [](double x, double y, double z) {
            double const r = std::sqrt(x * x + y * y + z * z) / kVoxel;
            return r >= kShellIn && r <= kShellOut ? 1.0 : -1.0;
        },
        "mask");
    // The classical recursion (no DOF channel) excludes such pockets by its component analysis.
    // The DOF sweep has none: its coarser depths, whose voxels straddle the shell, may carry
    // values into the pocket, so it is not held to this.
    {
        VoxelChannel<Tr, float> out(*in);
        RedistanceCall<Tr> call;
        call.mask = mask.get();
        call.run(s, out);
        long long pocket = 0, pocketWrong = 0, shellChanged = 0;
        ErrorStats outside;
        s.forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                if (!Scene<Tr>::isLeafVoxel(tile, i, j, k))
                    return;
                double const r = radiusVoxels(p);
                float const v = at(out, tile, i, j, k);
                if (r < kShellIn) {
                    ++pocket;
                    if (!atBackground<Tr>(v, -1.0f))
                        ++pocketWrong;
                } else if (r <= kShellOut) {
                    shellChanged += v != at(*in, tile, i, j, k);
                } else if (tile.depth() == Tr::kMaxDepth && r >= kShellOut + 2 &&
                           std::abs(r - kRadiusVoxels) <= 3) {
                    outside.add(std::abs(v - shape.distance(p[0], p[1], p[2])) / kVoxel);
                }
            });
        EXPECT_GT(pocket, 1000);
        EXPECT_EQ(pocketWrong, 0) << "of " << pocket << " pocket voxels";
        EXPECT_EQ(shellChanged, 0);
        EXPECT_GT(outside.n, 1000);
        EXPECT_LE(outside.mean(), kNearMeanTol);
        EXPECT_LE(outside.max, kNearMaxTol);
    }
}

TYPED_TEST(LevelSetRedistanceEdgeCases, MaskedVoxelsKeepTheirValuesAndTheOthersAreSolved)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildUniformBand(shape, kBandVoxels);
    auto const in = s.makeChannel(shape.field);
    constexpr double kMaskFrom = 4.0; ///< finest voxels: x above this is frozen
    auto const mask = s.makeChannel(
        [](double x, double, double) { return x / kVoxel > kMaskFrom ? 1.0 : -1.0; }, "mask");
    auto const dof = s.makeDOF();
    for (bool useDOF : {false, true}) {
        SCOPED_TRACE(useDOF ? "DOF sweep" : "recursion");
        VoxelChannel<Tr, float> out(*in);
        RedistanceCall<Tr> call;
        call.mask = mask.get();
        call.dof = useDOF ? dof.get() : nullptr;
        call.run(s, out);
        long long frozenChanged = 0, frozen = 0;
        ErrorStats free;
        forEachDeepestVoxel(
            s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                float const v = at(out, tile, i, j, k);
                if (p[0] / kVoxel > kMaskFrom) {
                    ++frozen;
                    frozenChanged += v != at(*in, tile, i, j, k);
                } else if (p[0] / kVoxel < kMaskFrom - 4) {
                    double const exact = shape.distance(p[0], p[1], p[2]);
                    if (std::abs(exact) <= 3 * kVoxel)
                        free.add(std::abs(v - exact) / kVoxel);
                }
            });
        EXPECT_GT(frozen, 1000);
        EXPECT_EQ(frozenChanged, 0);
        EXPECT_GT(free.n, 1000);
        EXPECT_LE(free.mean(), kNearMeanTol);
        EXPECT_LE(free.max, kNearMaxTol);
    }
}

// ---- Value types ---------------------------------------------------------------------------

TYPED_TEST(LevelSetRedistanceEdgeCases, BothSidesOffWithValueTypesChangeNoDOFVoxel)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildUniformBand(shape, kBandVoxels);
    auto const in = s.makeChannel(shape.field);
    auto const dof = s.makeDOF();
    // The caller knows the zero crossing; everything else is unknown.
    auto types = s.makeValueTypes();
    forEachDeepestVoxel(
        s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
            if (atZeroCrossing(s, *in, tile, i, j, k))
                types->tileData(tile.index(), tile.depth())(i, j, k) = kValueTypeKnown;
        });
    auto const typesBefore = channelValues(s, *types);
    for (bool useDOF : {false, true}) {
        SCOPED_TRACE(useDOF ? "DOF sweep" : "recursion");
        VoxelChannel<Tr, float> out(*in);
        VoxelChannel<Tr, unsigned char> callerTypes(*types);
        RedistanceCall<Tr> call;
        call.redistanceInterior = call.redistanceExterior = call.overwriteSurface = false;
        call.valueType = &callerTypes;
        call.dof = useDOF ? dof.get() : nullptr;
        call.run(s, out);
        if (!useDOF) {
            // Nothing to do at all: channel and types as they were.
            auto const a = channelValues(s, *in), b = channelValues(s, out);
            EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
            EXPECT_EQ(channelValues(s, callerTypes), typesBefore);
            continue;
        }
        // The sweeps run (useValues), driven by the types: no side is redistanced, so the unknown
        // voxels become known and no DOF voxel changes; the known ones stay known.
        long long dofChanged = 0, knownLost = 0, dofVoxels = 0;
        s.forEachVoxel(
            [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
                if ((at(*dof, tile, i, j, k) & 1) == 0)
                    return;
                ++dofVoxels;
                dofChanged += at(out, tile, i, j, k) != at(*in, tile, i, j, k);
                knownLost += at(*types, tile, i, j, k) == kValueTypeKnown &&
                             at(callerTypes, tile, i, j, k) != kValueTypeKnown;
            });
        EXPECT_GT(dofVoxels, 1000);
        EXPECT_EQ(dofChanged, 0);
        EXPECT_EQ(knownLost, 0);
    }
}

TYPED_TEST(LevelSetRedistanceEdgeCases,
           KnownVoxelsAreBoundaryConditionsAndExcludedOnesAreNeverTouched)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildUniformBand(shape, kBandVoxels);
    auto const field = s.makeChannel(shape.field);
    auto const dof = s.makeDOF();
    // Input: exact distances at the zero crossing (known), the field elsewhere (unknown), and the
    // background of their sign beyond x = 4 voxels (excluded).
    constexpr double kExcludedFrom = 4.0;
    VoxelChannel<Tr, float> in(*field);
    auto types = s.makeValueTypes();
    s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
        if (!Scene<Tr>::isLeafVoxel(tile, i, j, k))
            return;
        auto& v = in.tileData(tile.index(), tile.depth())(i, j, k);
        auto& t = types->tileData(tile.index(), tile.depth())(i, j, k);
        if (p[0] / kVoxel > kExcludedFrom) {
            t = kValueTypeExcluded;
            v = signOf(v) * Scene<Tr>::kBackground;
        } else if (tile.depth() == Tr::kMaxDepth && atZeroCrossing(s, *field, tile, i, j, k)) {
            t = kValueTypeKnown;
            v = float(shape.distance(p[0], p[1], p[2]));
        }
    });
    for (bool useDOF : {false, true}) {
        SCOPED_TRACE(useDOF ? "DOF sweep" : "recursion");
        VoxelChannel<Tr, float> out(in);
        VoxelChannel<Tr, unsigned char> callerTypes(*types);
        RedistanceCall<Tr> call;
        call.valueType = &callerTypes;
        call.dof = useDOF ? dof.get() : nullptr;
        call.run(s, out);
        long long knownChanged = 0, excludedChanged = 0, typesChanged = 0;
        ErrorStats unknown;
        forEachDeepestVoxel(
            s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                unsigned char const t = at(*types, tile, i, j, k);
                float const v = at(out, tile, i, j, k);
                if (t == kValueTypeKnown)
                    knownChanged += v != at(in, tile, i, j, k);
                if (t == kValueTypeExcluded)
                    excludedChanged += v != at(in, tile, i, j, k);
                if (t != kValueTypeUnknown)
                    typesChanged += at(callerTypes, tile, i, j, k) != t;
                if (t == kValueTypeUnknown && p[0] / kVoxel < kExcludedFrom - 4) {
                    double const exact = shape.distance(p[0], p[1], p[2]);
                    if (std::abs(exact) <= 3 * kVoxel)
                        unknown.add(std::abs(v - exact) / kVoxel);
                }
            });
        EXPECT_EQ(knownChanged, 0);
        EXPECT_EQ(excludedChanged, 0);
        EXPECT_EQ(typesChanged, 0);
        EXPECT_GT(unknown.n, 500);
        EXPECT_LE(unknown.mean(), kNearMeanTol);
        EXPECT_LE(unknown.max, kNearMaxTol);
    }
}

// ---- Depths and passes ---------------------------------------------------------------------

TYPED_TEST(LevelSetRedistanceEdgeCases, MinDepthEqualToMaxDepthSolvesOneDepth)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildUniformBand(shape, kBandVoxels);
    auto const in = s.makeChannel(shape.field);
    auto const dof = s.makeDOF();
    for (bool useDOF : {false, true}) {
        SCOPED_TRACE(useDOF ? "DOF sweep" : "recursion");
        VoxelChannel<Tr, float> out(*in);
        RedistanceCall<Tr> call;
        call.minDepth = call.maxDepth = Tr::kMaxDepth;
        call.dof = useDOF ? dof.get() : nullptr;
        call.run(s, out);
        // The deepest voxels that are solved (with DOFs: flag 1; hanging voxels would be set by
        // interpolation from a coarser depth, which is not treated) are reached and accurate.
        ErrorStats near, all;
        long long solved = 0, unreached = 0;
        forEachDeepestVoxel(
            s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                if (useDOF && (at(*dof, tile, i, j, k) & 1) == 0)
                    return;
                ++solved;
                float const v = at(out, tile, i, j, k);
                if (atBackground<Tr>(v, signOf(v))) {
                    ++unreached;
                    return;
                }
                double const exact = shape.distance(p[0], p[1], p[2]);
                double const e = std::abs(v - exact) / kVoxel;
                all.add(e);
                if (std::abs(exact) <= 3 * kVoxel)
                    near.add(e);
            });
        EXPECT_GT(solved, 1000);
        EXPECT_EQ(unreached, 0);
        EXPECT_LE(near.mean(), kNearMeanTol);
        EXPECT_LE(near.max, kNearMaxTol);
        EXPECT_LE(all.max, 1.0);
        if (useDOF) {
            // Restriction and interpolation have nothing to do: coarser depths as they were.
            long long coarseChanged = 0;
            s.forEachVoxel(
                [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
                    if (tile.depth() < Tr::kMaxDepth)
                        coarseChanged += at(out, tile, i, j, k) != at(*in, tile, i, j, k);
                });
            EXPECT_EQ(coarseChanged, 0);
        }
    }
}

TYPED_TEST(LevelSetRedistanceEdgeCases, NoPassesLeaveTheResetFieldWithOnlyTheZeroCrossingValues)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildUniformBand(shape, kBandVoxels);
    auto const in = s.makeChannel(shape.field);
    auto const dof = s.makeDOF();
    for (bool overwrite : {false, true}) {
        SCOPED_TRACE(overwrite ? "surface recomputed" : "surface kept");
        VoxelChannel<Tr, float> out(*in);
        RedistanceCall<Tr> call;
        call.pre = call.post = 0;
        call.overwriteSurface = overwrite;
        call.dof = dof.get();
        call.run(s, out);
        long long crossing = 0, crossingWrong = 0, others = 0, othersWrong = 0;
        forEachDeepestVoxel(
            s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                if ((at(*dof, tile, i, j, k) & 1) == 0)
                    return;
                float const v = at(out, tile, i, j, k), v0 = at(*in, tile, i, j, k);
                if (atZeroCrossing(s, *in, tile, i, j, k)) {
                    ++crossing;
                    bool const right = overwrite ? std::abs(v - shape.distance(p[0], p[1], p[2])) <=
                                                       kNearMaxTol * kVoxel
                                                 : v == v0;
                    crossingWrong += !right || signOf(v) != signOf(v0);
                } else {
                    ++others;
                    othersWrong += !atBackground<Tr>(v, signOf(v0));
                }
            });
        EXPECT_GT(crossing, 1000);
        EXPECT_EQ(crossingWrong, 0);
        EXPECT_GT(others, 1000);
        EXPECT_EQ(othersWrong, 0);
    }
}

TYPED_TEST(LevelSetRedistanceEdgeCases, AllOneSignPutsEveryVoxelAtTheBackground)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    s.buildUniformBand(smallSphere(), kBandVoxels);
    auto const dof = s.makeDOF();
    for (float sign : {-1.0f, 1.0f})
        for (bool useDOF : {false, true}) {
            SCOPED_TRACE(std::string(sign < 0 ? "all negative, " : "all positive, ") +
                         (useDOF ? "DOF sweep" : "recursion"));
            auto const in = s.makeChannel(
                [sign](double x, double, double) { return sign * (1.0 + std::abs(x)); });
            VoxelChannel<Tr, float> out(*in);
            RedistanceCall<Tr> call;
            call.dof = useDOF ? dof.get() : nullptr;
            VerboseCapture capture(3);
            call.run(s, out);
            std::string const printed = capture.finish();
            long long wrong = 0;
            std::string first;
            s.forEachVoxel([&](Tile<Tr> const& tile, int i, int j, int k,
                               std::array<double, 3> const&) {
                float const v = at(out, tile, i, j, k);
                if (!atBackground<Tr>(v, sign) && wrong++ == 0)
                    first =
                        "depth " + std::to_string(tile.depth()) + ", value " + std::to_string(v);
            });
            EXPECT_EQ(wrong, 0) << "first: " << first;
            if (useDOF) {
                // Nothing is ever reached: every depth runs up to twice the larger pass count.
                for (int d = 0; d <= Tr::kMaxDepth; ++d)
                    if (s.tree.tileCount(d) > 0) {
                        EXPECT_NE(printed.find(sweepLine(d, 20, 10)), std::string::npos)
                            << "printed: "
                            << printed.substr(
                                   std::min(printed.size(),
                                            printed.find("Depth " + std::to_string(d) + " ")),
                                   40);
                    }
            }
        }
}

// ---- Resolution jumps, thin bands, zeros ---------------------------------------------------

// A hanging voxel (a low face of a tile beside a coarser one) is solved with the degrees of
// freedom of its depth; the coarser lattice only fills in where those sweeps leave it unreached.
// Either way it ends accurate and within a coarse spacing of the coarse lattice's interpolation.
TYPED_TEST(LevelSetRedistanceEdgeCases, HangingVoxelsAtACoarseFineBorderAgreeWithTheCoarserDepth)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Scene<Tr> s(kVoxel);
    Shape const shape = smallSphere();
    s.buildGraded(shape, 2.0);
    auto const in = s.makeChannel(shape.field);
    auto const dof = s.makeDOF();
    VoxelChannel<Tr, float> out(*in);
    RedistanceCall<Tr> call;
    call.dof = dof.get();
    call.run(s, out);

    auto acc = s.tree.tileAccessor();
    // The coarse voxel holding a lattice point: its value, and whether it is restricted from a
    // finer voxel (flag 2), which the last restriction may change after the interpolation, or
    // lies outside the tree's domain; a voxel with such a point in its stencil is not compared.
    auto coarseValue = [&](std::int64_t x, std::int64_t y, std::int64_t z, int depth,
                           bool& restricted) {
        auto const& t = acc.tile(x, y, z, depth);
        if (!t.valid()) {
            restricted = true;
            return 0.0;
        }
        std::int64_t const w = t.voxelDataWidth();
        int const i = int((x - t.ti()) / w), j = int((y - t.tj()) / w), k = int((z - t.tk()) / w);
        restricted = restricted || (dof->tileData(t.index(), t.depth())(i, j, k) & 2) != 0;
        return double(out.tileData(t.index(), t.depth())(i, j, k));
    };
    long long hanging = 0, wrong = 0, skipped = 0;
    std::string first;
    for (int d = 1; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < s.tree.tileCount(d); ++t) {
            Tile<Tr> const& tile = s.tree.tile(t, d);
            std::int64_t const w = tile.voxelDataWidth(), pw = tile.parentVoxelDataWidth();
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) {
                        short const f = at(*dof, tile, i, j, k);
                        if ((f & 4) == 0 || (f & 32) != 0)
                            continue;
                        // The coarse lattice points around the voxel's corner, weighted by the
                        // voxel's offset in the coarse voxel; an axis on the lattice does not mix.
                        std::int64_t const p[3] = {tile.ti() + i * w, tile.tj() + j * w,
                                                   tile.tk() + k * w};
                        std::int64_t base[3];
                        double frac[3];
                        for (int a = 0; a < 3; ++a) {
                            std::int64_t const m = (p[a] + Tr::kCentreOffset) % pw;
                            base[a] = p[a] - m;
                            frac[a] = double(m) / double(pw);
                        }
                        double expected = 0;
                        bool restricted = false;
                        for (int c = 0; c < 8; ++c) {
                            double weight = 1;
                            std::int64_t q[3];
                            for (int a = 0; a < 3; ++a) {
                                bool const up = (c >> a) & 1;
                                if (up && frac[a] == 0)
                                    weight = 0;
                                weight *= up ? frac[a] : 1 - frac[a];
                                q[a] = base[a] + (up ? pw : 0);
                            }
                            if (weight != 0)
                                expected +=
                                    weight * coarseValue(q[0], q[1], q[2], d - 1, restricted);
                        }
                        if (restricted) {
                            ++skipped;
                            continue;
                        }
                        double const v = at(out, tile, i, j, k);
                        auto const c = voxelCentre(tile, i, j, k, s.voxelSize());
                        double const exact = shape.distance(c[0], c[1], c[2]);
                        ++hanging;
                        // Where the sphere spans fewer than 8 voxels of the depth, first-order
                        // sweeps from what is in effect a point source are held to 2 spacings.
                        double const tolerance =
                            (shape.featureSize >= 8.0 * s.spacing(d) ? 1.0 : 2.0) * s.spacing(d);
                        if (std::abs(v - exact) > tolerance ||
                            std::abs(v - expected) > s.spacing(d - 1)) {
                            if (wrong++ == 0)
                                first = "depth " + std::to_string(d) + " voxel (" +
                                        std::to_string(p[0]) + ", " + std::to_string(p[1]) + ", " +
                                        std::to_string(p[2]) + "): value " + std::to_string(v) +
                                        ", interpolated " + std::to_string(expected) + ", exact " +
                                        std::to_string(exact);
                        }
                    }
        }
    std::printf("  hanging voxels compared %lld, skipped %lld (a restricted coarse voxel or a "
                "point outside the domain in the stencil)\n",
                hanging, skipped);
    EXPECT_GT(hanging, 100);
    EXPECT_EQ(wrong, 0) << "of " << hanging << "; first: " << first;
}

TYPED_TEST(LevelSetRedistanceEdgeCases,
           BandWithEveryVoxelAtTheZeroCrossingEndsTheDepthAfterTwoSweeps)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Scene<Tr> s(kVoxel);
    // One layer of deepest tiles; the field changes sign from each voxel layer to the next, so
    // every voxel has a face neighbour of the other sign inside its own tile.
    s.build([](Container<Tr>& c) {
        testtrees::addBlock<Tr>(c, Tr::kMaxDepth, {-2, -2, 0}, {1, 1, 0});
    });
    auto const in = s.makeChannel([](double, double, double z) {
        long long const layer = (long long)std::floor(z / kVoxel);
        return (layer % 2 == 0 ? 0.5 : -0.5) * kVoxel;
    });
    auto const dof = s.makeDOF();
    VoxelChannel<Tr, float> out(*in);
    RedistanceCall<Tr> call;
    call.overwriteSurface = false;
    call.dof = dof.get();
    VerboseCapture capture(3);
    call.run(s, out);
    std::string const printed = capture.finish();
    EXPECT_NE(printed.find(sweepLine(Tr::kMaxDepth, 2, 10)), std::string::npos)
        << printed.substr(0, 2000);
    long long changed = 0, dofVoxels = 0;
    forEachDeepestVoxel(
        s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const&) {
            if ((at(*dof, tile, i, j, k) & 1) == 0)
                return;
            ++dofVoxels;
            changed += at(out, tile, i, j, k) != at(*in, tile, i, j, k);
        });
    EXPECT_GT(dofVoxels, 8 * W * W);
    EXPECT_EQ(changed, 0);
}

TYPED_TEST(LevelSetRedistanceEdgeCases, ValueExactlyZeroCountsAsPositive)
{
    using Tr = TypeParam;
    Scene<Tr> s(kVoxel);
    // A block of deepest tiles and the plane x = 2.5 voxels through a layer of voxel centres,
    // which hold exactly 0.
    s.build([](Container<Tr>& c) {
        testtrees::addBlock<Tr>(c, Tr::kMaxDepth, {-2, -2, -2}, {2, 1, 1});
    });
    double const x0 = 2.5 * kVoxel;
    auto const in = s.makeChannel([x0](double x, double, double) { return x - x0; });
    // The centres of the block's outermost voxels (world units).
    double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
    forEachDeepestVoxel(s, [&](Tile<Tr> const&, int, int, int, std::array<double, 3> const& p) {
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], p[a]);
            hi[a] = std::max(hi[a], p[a]);
        }
    });
    auto const dof = s.makeDOF();
    for (bool useDOF : {false, true})
        for (bool overwrite : {false, true}) {
            SCOPED_TRACE(std::string(useDOF ? "DOF sweep" : "recursion") +
                         (overwrite ? ", surface recomputed" : ""));
            VoxelChannel<Tr, float> out(*in);
            RedistanceCall<Tr> call;
            call.overwriteSurface = overwrite;
            call.dof = useDOF ? dof.get() : nullptr;
            call.run(s, out);
            long long zeros = 0, zeroWrong = 0, sideWrong = 0, inaccurate = 0;
            forEachDeepestVoxel(
                s, [&](Tile<Tr> const& tile, int i, int j, int k, std::array<double, 3> const& p) {
                    if ((at(*dof, tile, i, j, k) & 1) == 0)
                        return;
                    float const v = at(out, tile, i, j, k), v0 = at(*in, tile, i, j, k);
                    if (v0 == 0.0f) {
                        ++zeros;
                        // The surface distance returns a zero unchanged; the recursion keeps it on
                        // the positive side, within the floor of the eikonal update.
                        if (useDOF || !overwrite)
                            zeroWrong += v != 0.0f;
                        else
                            zeroWrong += 0.0f > v || v > 0.001f * kVoxel;
                    } else {
                        sideWrong += signOf(v) != signOf(v0);
                        // Next to the plane and off the block's sides: farther out, and at the
                        // sides, coarser voxels beside the block (sampled at their own centres)
                        // enter the sign tests and the halo across the resolution jump.
                        bool const offSides =
                            p[1] > lo[1] && p[1] < hi[1] && p[2] > lo[2] && p[2] < hi[2];
                        if (std::abs(p[0] - x0) <= 1.01 * kVoxel && offSides)
                            inaccurate += std::abs(v - (p[0] - x0)) > kNearMaxTol * kVoxel;
                    }
                });
            EXPECT_GT(zeros, 16);
            EXPECT_EQ(zeroWrong, 0);
            EXPECT_EQ(sideWrong, 0);
            EXPECT_EQ(inaccurate, 0);
        }
}
