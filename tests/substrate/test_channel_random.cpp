// Randomized model test: channel blocks follow their tiles through growth, removal and sorting
// of the tree, with their values intact; new tiles take their parent's values.
#include <gtest/gtest.h>

#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>
#include <map>
#include <random>
#include <set>
#include <vector>

using namespace TVL::TileTree3D;

namespace {

template <typename Tr> class ChannelRandomTest : public ::testing::Test {
};
using TraitsTypes = ::testing::Types<Traits24, Traits55>;
struct TraitsNames {
    template <typename T> static std::string GetName(int)
    {
        return std::is_same_v<T, Traits24> ? "Traits24" : "Traits55";
    }
};
TYPED_TEST_SUITE(ChannelRandomTest, TraitsTypes, TraitsNames);

template <typename Tr> std::int64_t cornerOf(std::int64_t c, int depth)
{
    std::int64_t const w = Tr::tileVoxelWidth(depth);
    return ((c + Tr::kCentreOffset) / w) * w - Tr::kCentreOffset;
}

/// Per-tile values of a channel, named by tile corner: the reference the channel is checked
/// against.
using Model = std::map<VoxelCoord, std::vector<std::int64_t>>;

template <typename Tr> struct Scenario {
    static constexpr int kTW = Tr::kTileWidth;
    using InObject = Channel<Tr, int, kTW, 0, 0>;     // reached by the free functions
    using Extracted = Channel<Tr, UInt64, kTW, 1, 0>; // updated by hand
    static constexpr int kDeepest = std::is_same_v<Tr, Traits24> ? 5 : 2;
    static constexpr int kDefault = -1;

    explicit Scenario(unsigned seed) : rng(seed)
    {
        object = Command::createVoxelTVL<Tr>("", "", 1.0f, kVoxelOffsetCenter);
        container =
            object->template extractComponent<Container<Tr>>(Command::kDefaultContainerName);
        topology =
            object->template extractComponent<VoxelTopology<Tr>>(Command::kDefaultTopologyName);
        Command::createChannel<int, Tr::kRatio, kTW, kTW, 0>("a", *topology, *object, kDefault,
                                                             kDataElementInitializerDefaultValue, 0,
                                                             Tr::kMaxDepth);
        Command::createChannel<UInt64, Tr::kRatio, kTW, kTW, 1>(
            "b", *topology, *object, 5, kDataElementInitializerDefaultValue, 1, Tr::kMaxDepth);
        b = object->template extractComponent<Extracted>("b");
    }

    InObject& a() { return *object->template component<InObject>("a"); }

    /// Writes fresh values into the tile and records them.
    void stamp(typename Container<Tr>::TileType const& t)
    {
        ++signature;
        auto ta = a().tileData(t.treeIndex());
        auto& ma = modelA[t.voxelCoord()];
        ma.resize(ta.size());
        for (std::size_t n = 0; n < ta.size(); ++n)
            ma[n] = ta[n] = int(signature * 4096 + n);
        auto tb = b->tileData(t.treeIndex());
        auto& mb = modelB[t.voxelCoord()];
        mb.resize(tb.size());
        for (std::size_t n = 0; n < tb.size(); ++n)
            mb[n] = std::int64_t(tb[n] = UInt64(signature * 4096 + n));
    }

    void grow()
    {
        Container<Tr>* scratch = container->threadLocalContainer(0);
        auto acc = scratch->tileAccessor();
        int const count = std::uniform_int_distribution<int>(1, 6)(rng);
        std::int64_t const lo = -Tr::kCentreOffset;
        for (int n = 0; n < count; ++n) {
            int const depth = std::uniform_int_distribution<int>(0, kDeepest)(rng);
            std::int64_t i, j, k;
            if (container->tileCount(-1) > 0 && rng() % 2) {
                // Near what exists: inside a random existing tile.
                int d = 0;
                while (d < kDeepest && container->tileCount(d + 1) > 0 && rng() % 2)
                    ++d;
                auto const& t = container->tile(std::int64_t(rng() % container->tileCount(d)), d);
                std::uniform_int_distribution<std::int64_t> in(0, t.tileVoxelWidth() - 1);
                i = t.ti() + in(rng);
                j = t.tj() + in(rng);
                k = t.tk() + in(rng);
            } else {
                std::uniform_int_distribution<std::int64_t> any(lo, lo + Tr::tileVoxelWidth(0) - 1);
                i = any(rng);
                j = any(rng);
                k = any(rng);
            }
            acc.addTile(i, j, k, depth);
        }
        TileCornerLists<Tr> newTiles;
        container->refine(*scratch, &newTiles, true);
        container->freeThreadLocalContainer(scratch);
        topology->update(*container);
        b->update(*topology);
        updateTilesAdded(*topology, *object);
        initializeTileData(*container, newTiles, *object);

        // New tiles, coarse to fine: each reads its parent's voxel under each voxel centre in
        // `a` (a new parent's values being what it received itself), the default in `b`. Then
        // all get fresh values.
        auto acc2 = container->tileAccessor();
        for (int d = 0; d < Tr::kDepthCount; ++d)
            for (int3 const& c : newTiles[d]) {
                auto const& t = acc2.tile(c.x, c.y, c.z, d);
                ASSERT_EQ(t.depth(), d);
                auto ta = a().tileData(t.treeIndex());
                ASSERT_EQ(ta.size(), std::size_t(Tr::kTileSize));
                if (d == 0) {
                    for (int v : ta)
                        EXPECT_EQ(v, kDefault);
                } else {
                    VoxelCoord const p{int(cornerOf<Tr>(c.x, d - 1)), int(cornerOf<Tr>(c.y, d - 1)),
                                       int(cornerOf<Tr>(c.z, d - 1)), d - 1};
                    auto const& pv = modelA.at(p);
                    std::int64_t const cw = Tr::voxelDataWidth(d), pw = Tr::voxelDataWidth(d - 1);
                    for (int z = 0; z < kTW; ++z)
                        for (int y = 0; y < kTW; ++y)
                            for (int x = 0; x < kTW; ++x) {
                                // Twice the centre, to stay in integers.
                                auto idx = [&](int a, int pc, int cc) {
                                    return int((2 * (cc - pc) + (2 * a + 1) * cw) / (2 * pw));
                                };
                                int const px = idx(x, p.i, c.x), py = idx(y, p.j, c.y),
                                          pz = idx(z, p.k, c.z);
                                EXPECT_EQ(ta(x, y, z), pv[std::size_t(px + kTW * (py + kTW * pz))]);
                            }
                }
                if (d >= 1)
                    for (UInt64 v : b->tileData(t.treeIndex()))
                        EXPECT_EQ(v, 5u);
                // What the tile holds now is what its own new children were given.
                modelA[t.voxelCoord()].assign(ta.begin(), ta.end());
            }
        for (int d = 0; d < Tr::kDepthCount; ++d)
            for (int3 const& c : newTiles[d])
                stamp(acc2.tile(c.x, c.y, c.z, d));
    }

    void shrink()
    {
        TileIndexLists<Tr> toRemove;
        for (int d = 1; d < Tr::kDepthCount; ++d)
            for (std::int64_t t = 0; t < container->tileCount(d); ++t)
                if (rng() % 6 == 0)
                    toRemove[d].push_back(t);
        TileMoveLists<Tr> moved;
        container->removeTiles(toRemove, moved, true);
        topology->update(*container);
        b->updateTilesRemoved(moved, *topology);
        updateTilesRemoved(moved, *topology, *object);
        std::set<VoxelCoord> alive;
        for (int d = 0; d < Tr::kDepthCount; ++d)
            for (std::int64_t t = 0; t < container->tileCount(d); ++t)
                alive.insert(container->tile(t, d).voxelCoord());
        for (Model* m : {&modelA, &modelB})
            for (auto it = m->begin(); it != m->end();)
                it = alive.count(it->first) ? std::next(it) : m->erase(it);
    }

    void sort()
    {
        auto perm = container->sortIntoMortonOrder();
        b->updateTilesPermuted(perm);
        static_cast<ChannelBase*>(object->mutableComponent("a"))->updateTilesPermuted(perm);
    }

    void check()
    {
        EXPECT_EQ(a().tileCount(-1), container->tileCount(-1));
        EXPECT_EQ(b->tileCount(-1), container->tileCount(-1) - container->tileCount(0));
        EXPECT_EQ(modelA.size(), std::size_t(container->tileCount(-1)));
        for (int d = 0; d < Tr::kDepthCount; ++d)
            for (std::int64_t t = 0; t < container->tileCount(d); ++t) {
                auto const& tile = container->tile(t, d);
                auto ta = a().tileData(tile.treeIndex());
                auto const& ma = modelA.at(tile.voxelCoord());
                ASSERT_EQ(ta.size(), ma.size());
                for (std::size_t n = 0; n < ta.size(); ++n)
                    ASSERT_EQ(ta[n], ma[n]);
                if (d == 0)
                    continue;
                auto tb = b->tileData(tile.treeIndex());
                auto const& mb = modelB.at(tile.voxelCoord());
                ASSERT_EQ(tb.size(), mb.size());
                for (std::size_t n = 0; n < tb.size(); ++n)
                    ASSERT_EQ(std::int64_t(tb[n]), mb[n]);
            }
    }

    std::mt19937 rng;
    Quillon::Ptr<TVL::Object> object;
    Quillon::MutablePtr<Container<Tr>> container;
    Quillon::MutablePtr<VoxelTopology<Tr>> topology;
    Quillon::MutablePtr<Extracted> b;
    Model modelA, modelB;
    std::int64_t signature = 0;
};

} // namespace

TYPED_TEST(ChannelRandomTest, BlocksFollowTheirTilesWithValuesIntact)
{
    for (unsigned seed = 1; seed <= 6; ++seed) {
        Scenario<TypeParam> s(seed);
        for (int step = 0; step < 150; ++step) {
            unsigned const op = s.rng() % 10;
            if (op < 5)
                s.grow();
            else if (op < 8)
                s.shrink();
            else
                s.sort();
            s.check();
            if (::testing::Test::HasFatalFailure() || ::testing::Test::HasFailure()) {
                ADD_FAILURE() << "seed " << seed << " step " << step << " op " << op;
                return;
            }
        }
    }
}

TYPED_TEST(ChannelRandomTest, NewTilesOfAnEmptyTreeKeepTheDefault)
{
    Scenario<TypeParam> s(99);
    s.grow(); // every new tile's parent is new too: values flow down from the default root
    s.check();
}
