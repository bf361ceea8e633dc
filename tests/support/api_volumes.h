// Helpers of the hexmold:: layer's tests: the tree type of a typed test as a TraitsKind, typed
// reads of a Volume's components, bit-for-bit comparison of channels, voxel hashes on one thread,
// and a channel rewritten through extract and put.
#pragma once
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <hexmold/api/error.h>
#include <hexmold/api/volume.h>
#include <hexmold/diagnostics/voxel_hash.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/topology.h>
#include <string>
#include <type_traits>

namespace testapi {

using namespace TVL::TileTree3D;

template <typename Tr> constexpr hexmold::TraitsKind kindOf()
{
    return std::is_same_v<Tr, Traits24> ? hexmold::TraitsKind::kTraits24
                                        : hexmold::TraitsKind::kTraits55;
}

template <typename Tr> Container<Tr> const& treeOf(TVL::Object const& object)
{
    return *object.component<Container<Tr>>(Command::kDefaultContainerName);
}

template <typename Tr> VoxelTopology<Tr> const& topologyOf(TVL::Object const& object)
{
    return *object.component<VoxelTopology<Tr>>(Command::kDefaultTopologyName);
}

template <typename Tr, typename T = float>
VoxelChannel<Tr, T> const& channelOf(TVL::Object const& object,
                                     std::string const& name = hexmold::kDistanceChannel)
{
    auto ch = object.component<VoxelChannel<Tr, T>>(name);
    if (!ch)
        throw std::runtime_error("test: no channel " + name);
    return *ch;
}

/// The voxel hash of a channel with one thread, so that equal channels give equal hashes.
template <typename Tr, typename T = float>
double hashOnOneThread(TVL::Object const& object,
                       std::string const& name = hexmold::kDistanceChannel)
{
    TVL::Parallel::global_control limit(TVL::Parallel::global_control::max_allowed_parallelism, 1);
    return CoreGL::voxelHash(treeOf<Tr>(object), channelOf<Tr, T>(object, name));
}

/// Whether two objects hold the same tiles, in the same order, at every depth.
template <typename Tr>
::testing::AssertionResult sameTiles(TVL::Object const& a, TVL::Object const& b)
{
    auto const& ta = treeOf<Tr>(a);
    auto const& tb = treeOf<Tr>(b);
    for (int d = 0; d <= Tr::kMaxDepth; ++d) {
        if (ta.tileCount(d) != tb.tileCount(d))
            return ::testing::AssertionFailure() << "depth " << d << ": " << ta.tileCount(d)
                                                 << " tiles against " << tb.tileCount(d);
        for (std::int64_t t = 0; t < ta.tileCount(d); ++t) {
            auto const& x = ta.tile(t, d);
            auto const& y = tb.tile(t, d);
            if (x.ti() != y.ti() || x.tj() != y.tj() || x.tk() != y.tk())
                return ::testing::AssertionFailure()
                       << "depth " << d << ", tile " << t << " differs";
        }
    }
    return ::testing::AssertionSuccess();
}

/// Whether channel @p name holds the same bits in both objects (whose trees are the same).
template <typename Tr, typename T = float>
::testing::AssertionResult sameBits(TVL::Object const& a, TVL::Object const& b,
                                    std::string const& name = hexmold::kDistanceChannel)
{
    if (auto r = sameTiles<Tr>(a, b); !r)
        return r;
    auto const& ca = channelOf<Tr, T>(a, name);
    auto const& cb = channelOf<Tr, T>(b, name);
    auto const& tree = treeOf<Tr>(a);
    std::int64_t voxels = 0;
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto const x = ca.tileData(t, d);
            auto const y = cb.tileData(t, d);
            if (x.empty() != y.empty())
                return ::testing::AssertionFailure() << "depth " << d << ", tile " << t;
            if (x.empty())
                continue;
            if (std::memcmp(&x(0, 0, 0), &y(0, 0, 0), sizeof(T) * Tr::kTileSize) != 0)
                return ::testing::AssertionFailure()
                       << name << ": depth " << d << ", tile " << t << " differs";
            voxels += Tr::kTileSize;
        }
    if (voxels == 0)
        return ::testing::AssertionFailure() << name << " has no voxels";
    return ::testing::AssertionSuccess();
}

/// Replaces every voxel v of the float channel @p name of @p io_object by @p f(v), through
/// extract and put as a driver writes.
template <typename Tr, typename F>
void rewrite(TVL::Object& io_object, F const& f,
             std::string const& name = hexmold::kDistanceChannel)
{
    TVL::ComponentGuard<VoxelChannel<Tr, float>> ch(io_object, name);
    auto const& tree = treeOf<Tr>(io_object);
    for (int d = 0; d <= Tr::kMaxDepth; ++d)
        for (std::int64_t t = 0; t < tree.tileCount(d); ++t) {
            auto data = ch->tileData(t, d);
            if (data.empty())
                continue;
            for (int k = 0; k < Tr::kTileWidth; ++k)
                for (int j = 0; j < Tr::kTileWidth; ++j)
                    for (int i = 0; i < Tr::kTileWidth; ++i)
                        data(i, j, k) = f(data(i, j, k));
        }
}

/// The message of the `hexmold::Error` that @p f throws, or "" when it throws none.
template <typename F> std::string errorOf(F const& f)
{
    try {
        f();
    } catch (hexmold::Error const& e) {
        return e.what();
    }
    return "";
}

} // namespace testapi
