// Builds a small tile tree around a sphere and counts its tiles per depth.
#include <cstdio>
#include <hexmold/hexmold.h>

int main()
{
    using namespace TVL::TileTree3D;
    Container<Traits24> tree("tree", 0.01f);        // finest voxels of 1 cm
    auto acc = tree.tileAccessor();
    for (int k = -40; k <= 40; k += 4)               // tiles touching a sphere of radius 30 voxels
        for (int j = -40; j <= 40; j += 4)
            for (int i = -40; i <= 40; i += 4)
                if (i * i + j * j + k * k > 26 * 26 && i * i + j * j + k * k < 34 * 34)
                    acc.addTile(i, j, k, Traits24::kMaxDepth);
    std::printf("%lld tiles, %lld at the finest depth\n", (long long)tree.tileCount(-1),
                (long long)tree.tileCount(Traits24::kMaxDepth));
    return tree.tileCount(Traits24::kMaxDepth) > 0 ? 0 : 1;
}
