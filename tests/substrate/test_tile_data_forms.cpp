// Every exported tile-data instantiation links and works: all element types and forms.
#include <gtest/gtest.h>

#include <hexmold/substrate/tile_data.h>
#include <hexmold/substrate/type_lists.h>

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

} // namespace

TEST(TileDataForms, EveryTileDataFormLinks)
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
