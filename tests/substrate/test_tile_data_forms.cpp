// Every exported tile-data instantiation links and works: all element types and forms.
#include <gtest/gtest.h>

#include "support/element_sample.h"

#include <hexmold/substrate/tile_data.h>
#include <hexmold/substrate/type_lists.h>

using namespace TVL::TileTree3D;

using testsupport::sampleElement;

TEST(TileDataForms, EveryTileDataFormLinks)
{
    int checked = 0;
#define HEXMOLD_TEST_ONE(T, W, H)                                                                  \
    {                                                                                              \
        TileData<T, W, H, 0> a(ConstTileData<T, W, H, 0>::kVoxelCount, sampleElement<T>());        \
        TileData<T, W, H, 0> b(a);                                                                 \
        b.setHalo(T{});                                                                            \
        EXPECT_TRUE(a(0, 0, 0) == sampleElement<T>());                                             \
        ++checked;                                                                                 \
    }
#define HEXMOLD_TEST_FORMS(T) HEXMOLD_FOR_EACH_TILE_DATA_FORM(HEXMOLD_TEST_ONE, T)
    HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TEST_FORMS)
#undef HEXMOLD_TEST_FORMS
#undef HEXMOLD_TEST_ONE
    EXPECT_EQ(checked, 9 * 18);
}
