// The channel pool, the memory pool behind it, temporary channels and scratch channels.
#include <gtest/gtest.h>

#include <hexmold/logging/logger.h>
#include <hexmold/substrate/channel_pool.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/topology.h>
#include <set>
#include <sstream>
#include <utility>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class ChannelPoolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ChannelPool::setEnabled(true);
        ChannelMemoryPool::setEnabled(true);
        ChannelMemoryPool::clear();
        mCapacity = ChannelMemoryPool::capacity();
    }
    void TearDown() override
    {
        ChannelPool::setEnabled(true);
        ChannelMemoryPool::setEnabled(true);
        ChannelMemoryPool::setCapacity(mCapacity);
        ChannelMemoryPool::clear();
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
        CoreGL::Logger::setDebugFileStream(nullptr);
    }
    std::size_t mCapacity = 0;
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ChannelPoolTest, TraitsTypes, TraitsNames);

template <typename Tr> VoxelTopology<Tr> topologyWith(std::vector<std::int64_t> const& counts)
{
    VoxelTopology<Tr> t("topology", "tree", 1.0f);
    for (std::size_t d = 0; d < counts.size(); ++d)
        t.setTileCount(int(d), counts[d]);
    return t;
}

template <typename Tr> using FloatChannel = Channel<Tr, float, Tr::kTileWidth, 0, 0>;

/// Captures the debug stream and the verbose level for one scope.
struct DebugCapture {
    explicit DebugCapture(int level)
    {
        CoreGL::Logger::setVerboseLevel(level);
        CoreGL::Logger::setDebugFileStream(&text);
    }
    ~DebugCapture()
    {
        CoreGL::Logger::setDebugFileStream(nullptr);
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
    }
    std::vector<std::string> lines() const
    {
        std::vector<std::string> out;
        std::istringstream in(text.str());
        for (std::string l; std::getline(in, l);)
            out.push_back(l);
        return out;
    }
    std::ostringstream text;
};

bool startsWith(std::string const& s, std::string const& p)
{
    return s.rfind(p, 0) == 0;
}

} // namespace

TYPED_TEST(ChannelPoolTest, DisabledPoolGivesNull)
{
    ChannelPool::setEnabled(false);
    auto c = ChannelPool::allocate<TypeParam, float, TypeParam::kTileWidth, 0>(0.0f, false, true, 0,
                                                                               1, 0, nullptr);
    EXPECT_FALSE(c);
}

TYPED_TEST(ChannelPoolTest, AllocateBindsAndSizesTheChannel)
{
    auto topo = topologyWith<TypeParam>({1, 3});
    auto c = ChannelPool::allocate<TypeParam, double, TypeParam::kTileWidth, 1>(
        2.0, false, true, 0, TypeParam::kMaxDepth, topo.tileCount(-1), &topo);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->targetName(), "topology");
    EXPECT_EQ(c->name(), "");
    EXPECT_EQ(c->tileCount(-1), 4);
    EXPECT_EQ(c->dataElementInitializerType(), kDataElementInitializerTemporary);
    EXPECT_TRUE(c->usesPool());
    constexpr int E = TypeParam::kTileWidth + 2;
    EXPECT_EQ(c->tileData(2, 1).size(), std::size_t(E * E * E));
    for (double v : c->tileData(2, 1))
        EXPECT_EQ(v, 0.0); // constructed, not defaulted
}

TYPED_TEST(ChannelPoolTest, BlocksOfADeadPooledChannelAreReused)
{
    auto topo = topologyWith<TypeParam>({1, 8, 64});
    std::set<float const*> first;
    {
        auto c = ChannelPool::allocate<TypeParam, float, TypeParam::kTileWidth, 0>(
            0.0f, false, false, 0, 2, 0, &topo);
        ASSERT_TRUE(c);
        for (int d = 0; d <= 2; ++d)
            for (auto const& b : c->blocks(d))
                first.insert(b.data());
    }
    EXPECT_GT(ChannelMemoryPool::heldBytes(), 73u * TypeParam::kTileSize * sizeof(float));
    auto again = ChannelPool::allocate<TypeParam, float, TypeParam::kTileWidth, 0>(
        0.0f, false, false, 0, 2, 0, &topo);
    EXPECT_EQ(ChannelMemoryPool::heldBytes(), 0u);
    for (int d = 0; d <= 2; ++d)
        for (auto const& b : again->blocks(d))
            EXPECT_TRUE(first.count(b.data()));
}

TYPED_TEST(ChannelPoolTest, ReusedBlocksOfInitializerTwoReadTheDefault)
{
    auto topo = topologyWith<TypeParam>({4});
    float const one = 1.0f, two = 2.0f;
    {
        FloatChannel<TypeParam> c("", &one, kDataElementInitializerDefaultValue, true, true, 0, 0);
        c.update(topo);
    }
    FloatChannel<TypeParam> c("", &two, kDataElementInitializerDefaultValue, true, true, 0, 0);
    c.update(topo);
    for (int i = 0; i < 4; ++i)
        for (float v : c.tileData(i, 0))
            EXPECT_EQ(v, 2.0f);
}

TYPED_TEST(ChannelPoolTest, CapacityBoundsWhatThePoolKeeps)
{
    ChannelMemoryPool::setCapacity(0);
    auto topo = topologyWith<TypeParam>({16});
    {
        auto c = ChannelPool::allocate<TypeParam, float, TypeParam::kTileWidth, 0>(
            0.0f, false, true, 0, 0, 0, &topo);
    }
    EXPECT_EQ(ChannelMemoryPool::heldBytes(), 0u);
    ChannelMemoryPool::setCapacity(std::size_t(1) << 30);
    ChannelMemoryPool::setEnabled(false);
    {
        auto c = ChannelPool::allocate<TypeParam, float, TypeParam::kTileWidth, 0>(
            0.0f, false, true, 0, 0, 0, &topo);
        EXPECT_FALSE(c->usesPool());
    }
    EXPECT_EQ(ChannelMemoryPool::heldBytes(), 0u);
}

TYPED_TEST(ChannelPoolTest, MemoryReports)
{
    EXPECT_GT(ChannelPool::availablePhysicalMemory(), 0u);
    EXPECT_GT(ChannelPool::availableMemory(), 0u);
}

TYPED_TEST(ChannelPoolTest, TemporaryCopiesTheSourceInsideItsRange)
{
    auto topo = topologyWith<TypeParam>({1, 2, 3});
    float const d = 5.0f;
    FloatChannel<TypeParam> source("src", &d, kDataElementInitializerDefaultValue, false, true, 0,
                                   1);
    source.setTargetName(topo.name());
    source.update(topo);
    source.tileData(1, 1)[3] = -4.0f;
    for (bool pool : {false, true}) {
        auto t = channelTemporary(source, topo, pool, true, 0, 2);
        ASSERT_TRUE(t);
        EXPECT_EQ(t->usesPool(), pool);
        EXPECT_EQ(t->defaultValue(), 5.0f);
        EXPECT_EQ(t->tileCount(-1), 6);
        EXPECT_EQ(t->tileData(1, 1)[3], -4.0f);
        EXPECT_EQ(t->tileData(0, 0)[0], 5.0f);
        // Depth 2 lies beyond the source: value-initialised.
        for (float v : t->tileData(2, 2))
            EXPECT_EQ(v, 0.0f);
        t->tileData(1, 1)[3] = 0.0f;
        EXPECT_EQ(source.tileData(1, 1)[3], -4.0f);
    }
}

TYPED_TEST(ChannelPoolTest, TemporaryFromThePoolReportsMemoryAtVerboseThree)
{
    auto topo = topologyWith<TypeParam>({1});
    FloatChannel<TypeParam> source("src", nullptr, kDataElementInitializerDefaultValue, false, true,
                                   0, 0);
    source.update(topo);
    DebugCapture capture(3);
    auto t = channelTemporary(source, topo, true, false, 0, 0);
    auto const lines = capture.lines();
    ASSERT_EQ(lines.size(), 5u) << capture.text.str();
    EXPECT_EQ(lines[0],
              "Warning: callElementConstructor is false (in_callElementConstructor is false)");
    EXPECT_TRUE(startsWith(lines[1], "channelTemporary.availablePhysicalMemory.before = "))
        << lines[1];
    EXPECT_TRUE(startsWith(lines[2], "channelTemporary.availablePhysicalAndPoolMemory.before = "))
        << lines[2];
    EXPECT_TRUE(startsWith(lines[3], "channelTemporary.availablePhysicalMemory.after = "))
        << lines[3];
    EXPECT_TRUE(startsWith(lines[4], "channelTemporary.availablePhysicalAndPoolMemory.after = "))
        << lines[4];
    for (std::size_t i = 1; i < 5; ++i)
        EXPECT_EQ(lines[i].substr(lines[i].size() - 3), " MB");
}

TYPED_TEST(ChannelPoolTest, TemporaryWithoutThePoolWarnsAboutTheConstructorFlag)
{
    auto topo = topologyWith<TypeParam>({1});
    FloatChannel<TypeParam> source("src", nullptr, kDataElementInitializerDefaultValue, false, true,
                                   0, 0);
    source.update(topo);
    {
        DebugCapture capture(3);
        auto t = channelTemporary(source, topo, false, false, 0, 0);
        auto const lines = capture.lines();
        ASSERT_EQ(lines.size(), 2u) << capture.text.str();
        EXPECT_EQ(lines[0],
                  "Warning: callElementConstructor is false (in_callElementConstructor is false)");
        EXPECT_EQ(lines[1], "Warning: in_callElementConstructor is false");
    }
    {
        // Asked for, but not needed inside the source's range.
        DebugCapture capture(3);
        auto t = channelTemporary(source, topo, false, true, 0, 0);
        auto const lines = capture.lines();
        ASSERT_EQ(lines.size(), 1u) << capture.text.str();
        EXPECT_EQ(lines[0],
                  "Warning: callElementConstructor is false (in_callElementConstructor is true)");
    }
    {
        DebugCapture capture(2);
        auto t = channelTemporary(source, topo, true, false, 0, 0);
        EXPECT_EQ(capture.text.str(), "");
    }
}

TYPED_TEST(ChannelPoolTest, ScratchChannelHoldsItsValueOverItsDepthRange)
{
    auto topo = topologyWith<TypeParam>({1, 3, 2});
    auto c = scratchChannel<Channel<TypeParam, short, TypeParam::kTileWidth, 0, 0>>(topo, 7, 1, 2,
                                                                                    "ids");
    ASSERT_TRUE(c);
    EXPECT_EQ(c->name(), "ids");
    EXPECT_EQ(c->targetName(), "topology");
    EXPECT_EQ(c->defaultValue(), 7);
    EXPECT_FALSE(c->usesPool());
    EXPECT_EQ(c->dataElementInitializerType(), kDataElementInitializerDefaultValue);
    constexpr std::size_t N =
        std::size_t(TypeParam::kTileWidth) * TypeParam::kTileWidth * TypeParam::kTileWidth;
    EXPECT_EQ(c->tileData(0, 0).size(), 0u); // below the range: no block
    for (int d = 1; d <= 2; ++d)
        for (std::int64_t t = 0; t < topo.tileCount(d); ++t) {
            auto const block = std::as_const(*c).tileData(t, d);
            ASSERT_EQ(block.size(), N);
            for (short v : block)
                EXPECT_EQ(v, 7);
        }
}

TYPED_TEST(ChannelPoolTest, ScratchChannelDrawsFromThePoolWhenAsked)
{
    auto topo = topologyWith<TypeParam>({1, 2});
    auto pooled = scratchChannel<FloatChannel<TypeParam>>(topo, -1.5f, 0, TypeParam::kMaxDepth, {},
                                                          ScratchMemory::kPool);
    EXPECT_TRUE(pooled->usesPool());
    for (float v : std::as_const(*pooled).tileData(1, 1))
        EXPECT_EQ(v, -1.5f);
    ChannelMemoryPool::setEnabled(false);
    auto own = scratchChannel<FloatChannel<TypeParam>>(topo, 2.0f, 0, TypeParam::kMaxDepth, {},
                                                       ScratchMemory::kPool);
    for (float v : std::as_const(*own).tileData(0, 0))
        EXPECT_EQ(v, 2.0f);
}
