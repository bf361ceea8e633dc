// Every exported channel instantiation links and works: all element types, forms and traits.
#include <gtest/gtest.h>

#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/topology.h>

using namespace TVL::TileTree3D;

namespace {

/// A recognisable non-zero value of any element type.
template <typename T> T sample()
{
    T v{};
    auto* bytes = reinterpret_cast<unsigned char*>(&v);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = 0;
    if constexpr (std::is_arithmetic_v<T>)
        v = T(7);
    else if constexpr (requires { v.m; })
        v.m[0][0] = 7;
    else
        v[0] = 7;
    return v;
}

/// Builds one channel of the form over two depths and checks sizes, defaults and copies.
template <typename Tr, typename T, int W, int H> void exercise(int& checked)
{
    using C = Channel<Tr, T, W, H, 0>;
    VoxelTopology<Tr> topo("topology", "tree", 1.0f);
    topo.setTileCount(0, 1);
    topo.setTileCount(1, 2);
    T const d = sample<T>();
    C c("c", &d, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
    c.update(topo);
    constexpr std::size_t E = std::size_t(W + 2 * H);
    EXPECT_EQ(c.tileCount(-1), 3);
    EXPECT_EQ(c.elementCount(-1), 3 * E * E * E);
    auto td = c.tileData(1, 1);
    ASSERT_EQ(td.size(), E * E * E);
    EXPECT_TRUE(td(-H, -H, -H) == d);
    EXPECT_TRUE(td(W + H - 1, W + H - 1, W + H - 1) == d);
    EXPECT_TRUE(c.hasElementType(Quillon::Any(T{})));
    auto t = channelTemporary(c, topo, false, true, 0, 1);
    EXPECT_EQ(t->tileCount(-1), 3);
    EXPECT_TRUE(t->tileData(0, 0)[0] == d);
    ++checked;
}

} // namespace

TEST(ChannelTypes, EveryFormOfEveryElementTypeWorks)
{
    int checked = 0;
#define HEXMOLD_TEST_ONE(TR, T, W, H) exercise<TR, T, W, H>(checked);
#define HEXMOLD_TEST_FORMS(T) HEXMOLD_FOR_EACH_CHANNEL_FORM(HEXMOLD_TEST_ONE, T)
    HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TEST_FORMS)
#undef HEXMOLD_TEST_FORMS
#undef HEXMOLD_TEST_ONE
    EXPECT_EQ(checked, 2 * 6 * 18);
}

TEST(ChannelTypes, EveryTileDataFormLinks)
{
    int checked = 0;
#define HEXMOLD_TEST_ONE(T, W, H)                                                                  \
    {                                                                                              \
        TileData<T, W, H, 0> a(ConstTileData<T, W, H, 0>::kVoxelCount, sample<T>());               \
        TileData<T, W, H, 0> b(a);                                                                 \
        b.setHalo(T{});                                                                            \
        EXPECT_TRUE(a(0, 0, 0) == sample<T>());                                                    \
        ++checked;                                                                                 \
    }
#define HEXMOLD_TEST_FORMS(T) HEXMOLD_FOR_EACH_TILE_DATA_FORM(HEXMOLD_TEST_ONE, T)
    HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TEST_FORMS)
#undef HEXMOLD_TEST_FORMS
#undef HEXMOLD_TEST_ONE
    EXPECT_EQ(checked, 9 * 18);
}
