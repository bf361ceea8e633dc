// Every exported channel instantiation links and works: all element types, forms and traits.
#include <gtest/gtest.h>

#include "support/element_sample.h"

#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/topology.h>
#include <string>

using namespace TVL::TileTree3D;

namespace {

using testsupport::sampleElement;

/// Builds one channel of the form over two depths and checks sizes, defaults and copies; gives
/// the first check that fails, or an empty string. (Plain checks, one assertion per form in the
/// test: 216 forms of gtest's assertion macros would make this file slow to compile.)
template <typename Tr, typename T, int W, int H> std::string exercise()
{
    using C = Channel<Tr, T, W, H, 0>;
    VoxelTopology<Tr> topo("topology", "tree", 1.0f);
    topo.setTileCount(0, 1);
    topo.setTileCount(1, 2);
    T const d = sampleElement<T>();
    C c("c", &d, kDataElementInitializerDefaultValue, false, true, 0, Tr::kMaxDepth);
    c.update(topo);
    constexpr std::size_t E = std::size_t(W + 2 * H);
    if (c.tileCount(-1) != 3)
        return "tile count";
    if (c.elementCount(-1) != 3 * E * E * E)
        return "element count";
    auto td = c.tileData(1, 1);
    if (td.size() != E * E * E)
        return "block size";
    if (!(td(-H, -H, -H) == d) || !(td(W + H - 1, W + H - 1, W + H - 1) == d))
        return "default value";
    if (!c.hasElementType(Quillon::Any(T{})))
        return "element type";
    auto t = channelTemporary(c, topo, false, true, 0, 1);
    if (t->tileCount(-1) != 3)
        return "copy's tile count";
    if (!(t->tileData(0, 0)[0] == d))
        return "copy's value";
    return {};
}

} // namespace

TEST(ChannelTypes, EveryFormOfEveryElementTypeWorks)
{
    int checked = 0;
#define HEXMOLD_TEST_ONE(TR, T, W, H)                                                              \
    EXPECT_EQ((exercise<TR, T, W, H>()), "") << #TR " " #T " " #W " " #H;                          \
    ++checked;
#define HEXMOLD_TEST_FORMS(T) HEXMOLD_FOR_EACH_CHANNEL_FORM(HEXMOLD_TEST_ONE, T)
    HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TEST_FORMS)
#undef HEXMOLD_TEST_FORMS
#undef HEXMOLD_TEST_ONE
    EXPECT_EQ(checked, 2 * 6 * 18);
}
