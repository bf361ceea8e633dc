// The batched tile sweep and the batched red-black relaxation against the tile-by-tile sweep: the
// same bits for every lane, on random blocks that mix both sides, exact zeros of both signs, the
// background, huge values, NaN and all value types, for the block widths, for partly loaded
// batches, for lanes that end their relaxation at different iterations, and with excluded
// neighbours; once per instruction set.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <hexmold/levelset/detail/redistance_impl.h>
#include <hexmold/levelset/detail/sweep_batch.h>
#include <limits>
#include <random>
#include <vector>

namespace {

using namespace VolumeGL::TileTree3D::LevelSet::detail;
using TVL::TileTree3D::TileData;

template <int W> struct Case {
    TileData<float, W, 1, 0> block{TileData<float, W, 1, 0>::kVoxelCount, 0.0f};
    std::vector<unsigned char> types = std::vector<unsigned char>(std::size_t(W) * W * W);
};

/// A value of one of the kinds the solves meet, in units of the spacing @p h.
float randomValue(std::mt19937& rng, float h, float background)
{
    std::uniform_int_distribution<int> kind(0, 11);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    switch (kind(rng)) {
    case 0:
        return background;
    case 1:
        return -background;
    case 2:
        return 0.0f;
    case 3:
        return -0.0f;
    case 4:
        return unit(rng) * 0.001f * h;
    case 5:
        return std::numeric_limits<float>::quiet_NaN();
    case 6:
        return unit(rng) * 1e20f;
    case 7:
        return unit(rng) * 1e5f * h;
    default:
        return unit(rng) * 6.0f * h;
    }
}

template <int W> Case<W> randomCase(std::mt19937& rng, float h, float background, bool withNaN)
{
    Case<W> c;
    for (std::size_t n = 0; n < c.block.size(); ++n) {
        float v = randomValue(rng, h, background);
        while (!withNaN && std::isnan(v))
            v = randomValue(rng, h, background);
        c.block[n] = v;
    }
    // A smooth part too, so that the two- and three-neighbour solves are taken.
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    float const gx = unit(rng), gy = unit(rng), gz = unit(rng);
    for (int k = -1; k <= W; ++k)
        for (int j = -1; j <= W; ++j)
            for (int i = -1; i <= W; ++i)
                if ((i + j + k) % 3 == 0)
                    c.block(i, j, k) = (gx * float(i) + gy * float(j) + gz * float(k)) * h;
    std::uniform_int_distribution<int> type(0, 5);
    for (auto& t : c.types)
        t = (unsigned char)std::min(type(rng), 3);
    return c;
}

std::uint32_t bits(float v)
{
    return std::bit_cast<std::uint32_t>(v);
}

constexpr SweepIsa kIsas[] = {SweepIsa::kPortable, SweepIsa::kSse2, SweepIsa::kAvx2,
                              SweepIsa::kAvx512};

char const* isaName(SweepIsa isa)
{
    switch (isa) {
    case SweepIsa::kBest:
        return "Best";
    case SweepIsa::kPortable:
        return "Portable";
    case SweepIsa::kSse2:
        return "Sse2";
    case SweepIsa::kAvx2:
        return "Avx2";
    case SweepIsa::kAvx512:
        return "Avx512";
    }
    return "Unknown";
}

/// The batched sweep of one instruction set; skipped, with the reason, where this build has no
/// kernel for it or the processor does not run it.
class SweepBatchOnIsa : public ::testing::TestWithParam<SweepIsa> {
protected:
    void SetUp() override
    {
        if (!sweepIsaAvailable(GetParam()))
            GTEST_SKIP() << "no " << isaName(GetParam())
                         << " kernel: the build was not given the instruction set, or the "
                            "processor lacks it";
    }
};

/// How many interior voxels of @p lane differ, bit for bit, from the scalar result in @p c.
template <int W> int interiorMismatches(TileLanes<W> const& lanes, int lane, Case<W> const& c)
{
    std::vector<float> got(static_cast<std::size_t>(W * W * W));
    lanes.interior(lane, got.data());
    int mismatches = 0;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                mismatches += bits(got[std::size_t(i + W * (j + W * k))]) != bits(c.block(i, j, k));
    return mismatches;
}

template <int W>
void compareBatches(std::uint32_t seed, float h, float background, bool withNaN, SweepIsa isa)
{
    std::mt19937 rng(seed);
    DepthNumbers const numbers{h, CoreGL::detail::eikonalTwoHSquared(h),
                               CoreGL::detail::eikonalThreeHSquared(h), 0.0f};
    SweepBatch<W> batch;
    for (int round = 0; round < 48; ++round) {
        int const lanes = 1 + round % SweepBatch<W>::kLanes;
        std::vector<Case<W>> cases;
        for (int lane = 0; lane < lanes; ++lane) {
            cases.push_back(randomCase<W>(rng, h, background, withNaN));
            ASSERT_EQ(batch.add(cases.back().block.data(), cases.back().types.data()), lane);
        }
        float changes[SweepBatch<W>::kLanes];
        batch.sweep(numbers, changes, isa);
        for (int lane = 0; lane < lanes; ++lane) {
            Case<W>& c = cases[std::size_t(lane)];
            float const expectedChange =
                sweepTile<W>(FLT_MAX, FLT_MAX, numbers, c.types.data(), c.block,
                             kSweepEightDirections, false, W * W * W, PlainNeighbour{});
            EXPECT_EQ(bits(changes[lane]), bits(expectedChange))
                << "round " << round << " lane " << lane;
            EXPECT_EQ(interiorMismatches(batch, lane, c), 0)
                << "round " << round << " lane " << lane;
        }
        for (int lane = lanes; lane < SweepBatch<W>::kLanes; ++lane)
            EXPECT_EQ(changes[lane], 0.0f);
        batch.clear();
        EXPECT_EQ(batch.size(), 0);
    }
}

TEST_P(SweepBatchOnIsa, SameBitsAsTileSweepWidth4)
{
    compareBatches<4>(1, 0.25f, 1e30f, false, GetParam());
    compareBatches<4>(2, 1.0f / 512.0f, 3.0f / 512.0f, false, GetParam());
}

TEST_P(SweepBatchOnIsa, SameBitsAsTileSweepWidth5)
{
    compareBatches<5>(3, 0.5f, 1e30f, false, GetParam());
    compareBatches<5>(4, 3.0e-3f, 0.03f, false, GetParam());
}

TEST_P(SweepBatchOnIsa, SameBitsAsTileSweepCoalescedBlock)
{
    compareBatches<8>(5, 0.125f, 1e30f, false, GetParam());
}

TEST_P(SweepBatchOnIsa, NaNIsCarriedLikeTheTileSweep)
{
    compareBatches<4>(6, 0.25f, 1e30f, true, GetParam());
    compareBatches<5>(7, 0.25f, FLT_MAX, true, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Isa, SweepBatchOnIsa, ::testing::ValuesIn(kIsas),
                         [](::testing::TestParamInfo<SweepIsa> const& info) {
                             return isaName(info.param);
                         });

/// The batched red-black relaxation of one instruction set, skipped as above.
class RelaxBatchOnIsa : public SweepBatchOnIsa {};

/// Random value types with halo for a masked relaxation: excluded neighbours are common.
template <int W> std::vector<unsigned char> randomTypesWithHalo(std::mt19937& rng)
{
    std::vector<unsigned char> types(std::size_t(W + 2) * (W + 2) * (W + 2));
    std::uniform_int_distribution<int> type(0, 4);
    for (auto& t : types)
        t = (unsigned char)std::min(type(rng), 3);
    return types;
}

template <int W>
void compareRelaxations(std::uint32_t seed, float h, float background, bool withNaN, bool masked,
                        SweepIsa isa)
{
    std::mt19937 rng(seed);
    RelaxBatch<W> batch(masked);
    ASSERT_EQ(batch.masked(), masked);
    for (int round = 0; round < 48; ++round) {
        // Quiet thresholds that end every lane after seven iterations, after four, and after a
        // count of its own.
        float const tolerance = round % 3 == 0 ? 0.0f : round % 3 == 1 ? 1e30f : 0.5f * h;
        DepthNumbers const numbers{h, CoreGL::detail::eikonalTwoHSquared(h),
                                   CoreGL::detail::eikonalThreeHSquared(h), tolerance};
        int const lanes = 1 + (round * 7) % RelaxBatch<W>::kLanes;
        std::vector<Case<W>> cases;
        std::vector<std::vector<unsigned char>> halos;
        for (int lane = 0; lane < lanes; ++lane) {
            cases.push_back(randomCase<W>(rng, h, background, withNaN));
            halos.push_back(randomTypesWithHalo<W>(rng));
            ASSERT_EQ(batch.add(cases.back().block.data(), cases.back().types.data(),
                                masked ? halos.back().data() : nullptr),
                      lane);
        }
        float changes[RelaxBatch<W>::kLanes];
        batch.relax(numbers, changes, isa);
        for (int lane = 0; lane < lanes; ++lane) {
            Case<W>& c = cases[std::size_t(lane)];
            float const expectedChange =
                masked ? sweepTile<W>(FLT_MAX, FLT_MAX, numbers, c.types.data(), c.block,
                                      kSweepRedBlack, false, W * W * W,
                                      MaskedNeighbour{halos[std::size_t(lane)].data()})
                       : sweepTile<W>(FLT_MAX, FLT_MAX, numbers, c.types.data(), c.block,
                                      kSweepRedBlack, false, W * W * W, PlainNeighbour{});
            EXPECT_EQ(bits(changes[lane]), bits(expectedChange))
                << "round " << round << " lane " << lane;
            EXPECT_EQ(interiorMismatches(batch, lane, c), 0)
                << "round " << round << " lane " << lane;
        }
        for (int lane = lanes; lane < RelaxBatch<W>::kLanes; ++lane)
            EXPECT_EQ(changes[lane], 0.0f);
        batch.clear();
        EXPECT_EQ(batch.size(), 0);
    }
}

TEST_P(RelaxBatchOnIsa, SameBitsAsRedBlackTileSweepWidth4)
{
    compareRelaxations<4>(11, 0.25f, 1e30f, false, false, GetParam());
    compareRelaxations<4>(12, 1.0f / 512.0f, 3.0f / 512.0f, false, false, GetParam());
}

TEST_P(RelaxBatchOnIsa, SameBitsAsRedBlackTileSweepWidth5)
{
    compareRelaxations<5>(13, 0.5f, 1e30f, false, false, GetParam());
    compareRelaxations<5>(14, 3.0e-3f, 0.03f, false, false, GetParam());
}

TEST_P(RelaxBatchOnIsa, MaskedSameBitsAsRedBlackTileSweep)
{
    compareRelaxations<4>(15, 0.25f, 1e30f, false, true, GetParam());
    compareRelaxations<5>(16, 3.0e-3f, 0.03f, false, true, GetParam());
}

TEST_P(RelaxBatchOnIsa, NaNIsCarriedLikeTheRedBlackTileSweep)
{
    compareRelaxations<4>(17, 0.25f, 1e30f, true, false, GetParam());
    compareRelaxations<5>(18, 0.25f, FLT_MAX, true, true, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Isa, RelaxBatchOnIsa, ::testing::ValuesIn(kIsas),
                         [](::testing::TestParamInfo<SweepIsa> const& info) {
                             return isaName(info.param);
                         });

TEST(RelaxBatch, LanesWithoutUnknownVoxelsStayAsTheyAre)
{
    std::mt19937 rng(19);
    Case<5> c = randomCase<5>(rng, 0.5f, 1e30f, false);
    std::fill(c.types.begin(), c.types.end(), (unsigned char)1);
    RelaxBatch<5> batch(false);
    batch.add(c.block.data(), c.types.data());
    float changes[RelaxBatch<5>::kLanes];
    batch.relax(DepthNumbers{0.5f, 0.5f, 0.75f, 0.0f}, changes);
    std::vector<float> got(125);
    batch.interior(0, got.data());
    for (int k = 0; k < 5; ++k)
        for (int j = 0; j < 5; ++j)
            for (int i = 0; i < 5; ++i)
                EXPECT_EQ(bits(got[std::size_t(i + 5 * (j + 5 * k))]), bits(c.block(i, j, k)));
    EXPECT_EQ(changes[0], 0.0f);
}

TEST(SweepBatch, PortableAndSse2AreAlwaysThere)
{
    EXPECT_TRUE(sweepIsaAvailable(SweepIsa::kBest));
    EXPECT_TRUE(sweepIsaAvailable(SweepIsa::kPortable));
#if defined(__x86_64__)
    EXPECT_TRUE(sweepIsaAvailable(SweepIsa::kSse2));
#endif
}

TEST(SweepBatch, LanesWithoutUnknownVoxelsStayAsTheyAre)
{
    std::mt19937 rng(8);
    Case<4> c = randomCase<4>(rng, 0.5f, 1e30f, false);
    std::fill(c.types.begin(), c.types.end(), (unsigned char)1);
    SweepBatch<4> batch;
    batch.add(c.block.data(), c.types.data());
    float changes[SweepBatch<4>::kLanes];
    batch.sweep(DepthNumbers{0.5f, 0.5f, 0.75f, 0.0f}, changes);
    std::vector<float> got(64);
    batch.interior(0, got.data());
    for (int k = 0; k < 4; ++k)
        for (int j = 0; j < 4; ++j)
            for (int i = 0; i < 4; ++i)
                EXPECT_EQ(bits(got[std::size_t(i + 4 * (j + 4 * k))]), bits(c.block(i, j, k)));
    EXPECT_EQ(changes[0], 0.0f);
}

} // namespace
