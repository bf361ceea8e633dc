// The channel check: the line it prints, the starting values, vectors, the level gate.
#include <gtest/gtest.h>

#include "support/linked.h"
#include <hexmold/diagnostics/channel_check.h>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <sstream>
#include <string>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class ChannelCheck : public ::testing::Test {
protected:
    void TearDown() override
    {
        CoreGL::Logger::setVerboseLevel(CoreGL::Logger::kDefaultVerboseLevel);
    }
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ChannelCheck, TraitsTypes, TraitsNames);

} // namespace

TYPED_TEST(ChannelCheck, ReportsExtremesAndWhereTheyLie)
{
    using Tr = TypeParam;
    constexpr int W = Tr::kTileWidth;
    Container<Tr> c("tree", 1.0f);
    auto acc = c.tileAccessor();
    auto const& tile = acc.addTile(int3{0, 0, 0}, Tr::kMaxDepth);
    float fill = 0.5f;
    VoxelChannel<Tr, float> ch("density", &fill, kDataElementInitializerDefaultValue, false, true,
                               0, Tr::kMaxDepth);
    ch.update(c);
    auto b = ch.tileData(tile.treeIndex());
    b(1, 2, 3) = -4.0f;
    b(W - 1, 0, 0) = 7.5f;
    ::testing::internal::CaptureStdout();
    CoreGL::checkChannel(c, ch, 0, Tr::kMaxDepth, "after_splat", 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "") << "below level 4 with verbose level 0";
    ::testing::internal::CaptureStdout();
    CoreGL::checkChannel(c, ch, -3, 99, "after_splat", 4);
    std::string const line = ::testing::internal::GetCapturedStdout();
    std::ostringstream expected;
    expected << "after_splat: density[" << ch.size() << "] : 0, " << Tr::kMaxDepth
             << " : -4, 7.5 at (" << tile.ti() + 1 << ", " << tile.tj() + 2 << ", " << tile.tk() + 3
             << ", " << Tr::kMaxDepth << ") and (" << tile.ti() + W - 1 << ", " << tile.tj() << ", "
             << tile.tk() << ", " << Tr::kMaxDepth << ")\n";
    EXPECT_EQ(line, expected.str());
    // Voxels all between the default and its negation: those two are reported.
    VoxelChannel<Tr, int> ints("ids", nullptr, kDataElementInitializerDefaultValue, false, true, 0,
                               Tr::kMaxDepth);
    int const minusTen = -10;
    ints.setDefaultValue(&minusTen);
    ints.update(c);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < c.tileCount(d); ++t)
            ints.tileData(t, d).set(3);
    CoreGL::Logger::setVerboseLevel(4);
    ::testing::internal::CaptureStdout();
    CoreGL::checkChannel(c, ints, Tr::kMaxDepth, Tr::kMaxDepth, "property.1: ", 0);
    std::ostringstream none;
    none << "property.1: : ids[" << ints.size() << "] : " << Tr::kMaxDepth << ", " << Tr::kMaxDepth
         << " : -10, 10 at (0, 0, 0, -1) and (0, 0, 0, -1)\n";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), none.str());
    // Vectors are ordered by their component sum and printed by component.
    VoxelChannel<Tr, float3> vec("v", nullptr, kDataElementInitializerDefaultValue, false, true, 0,
                                 Tr::kMaxDepth);
    vec.update(c);
    vec.tileData(tile.treeIndex())(0, 0, 1) = float3{1, 2, 3};
    ::testing::internal::CaptureStdout();
    CoreGL::checkChannel(c, vec, Tr::kMaxDepth, Tr::kMaxDepth, "Resampling.source ", 0);
    std::string const v = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(v.find(" : (0, 0, 0), (1, 2, 3) at (0, 0, 0, -1) and ("), std::string::npos) << v;
}

// A link-time check (support/linked.h): a missing instantiation fails the link.
TEST(ChannelCheckExports, EveryElementTypeIsExported)
{
#define HEXMOLD_TAKE(TR, T) testlinked::requireLinked(&CoreGL::checkChannel<TR, T>);
    HEXMOLD_FOR_EACH_TRAITS_ELEMENT(HEXMOLD_TAKE)
#undef HEXMOLD_TAKE
}
