/// @file  substrate/detail/channel_impl.h
/// @brief Bodies of `Channel` and `channelTemporary`, included only by the instantiation shards
///        (channel_t24_a.cpp ... channel_t55_b.cpp), each of which instantiates three forms for
///        all element types.
#pragma once
#include <algorithm>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/quillon/array.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/channel_pool.h>
#include <hexmold/substrate/channel_temporary.h>
#include <hexmold/substrate/detail/substrate_log.h>
#include <hexmold/substrate/topology.h>
#include <ostream>
#include <sstream>
#include <string>

namespace TVL::TileTree3D {

namespace detail {

/// Megabytes as the memory reports print them.
inline std::string megabytes(std::uint64_t bytes)
{
    std::ostringstream s;
    s << static_cast<double>(bytes) * 9.536743e-7 << " MB";
    return s.str();
}

} // namespace detail

template <typename TraitsT, typename T, int W, int H, int F>
detail::BlockShape Channel<TraitsT, T, W, H, F>::shape()
{
    return detail::BlockShape{kDepthCount, W, H, kBlockSize};
}

template <typename TraitsT, typename T, int W, int H, int F>
bool Channel<TraitsT, T, W, H, F>::isPointTopology(Component const& topology)
{
    return dynamic_cast<PointTopology<Traits> const*>(&topology) != nullptr;
}

template <typename TraitsT, typename T, int W, int H, int F>
Channel<TraitsT, T, W, H, F>::Channel()
    : mStorage(shape(), T{}, kDataElementInitializerDefaultValue, false, true, 0, kMaxDepth)
{
}

template <typename TraitsT, typename T, int W, int H, int F>
Channel<TraitsT, T, W, H, F>::Channel(Quillon::String name, T const* defaultValue,
                                      DataElementInitializerType initializer, bool usePool,
                                      bool callElementConstructor, int minDepth, int depth)
    : ChannelBase(std::move(name)),
      mStorage(shape(), defaultValue ? *defaultValue : T{}, initializer, usePool,
               callElementConstructor, minDepth, depth)
{
}

template <typename TraitsT, typename T, int W, int H, int F>
Channel<TraitsT, T, W, H, F>::Channel(Channel const& other) = default;

template <typename TraitsT, typename T, int W, int H, int F>
Channel<TraitsT, T, W, H, F>::~Channel() = default;

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::dump(std::ostream& out) const
{
    mStorage.dump(out, name(), targetName());
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    mStorage.memUse(used, reserved);
    used += sizeof(*this) - sizeof(mStorage);
    reserved += sizeof(*this) - sizeof(mStorage);
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::copyTo(Quillon::Ptr<Component>& out) const
{
    out = Quillon::Ptr<Component>(Quillon::makePtr<Channel>(*this));
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::update(Component const& topology)
{
    mStorage.update(topology, isPointTopology(topology), true);
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::setMinDepth(int minDepth, Component const& topology)
{
    mStorage.setRange(minDepth, mStorage.depth(), &topology, isPointTopology(topology));
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::setDepth(int depth, Component const& topology)
{
    mStorage.setRange(mStorage.minDepth(), depth, &topology, isPointTopology(topology));
}

template <typename TraitsT, typename T, int W, int H, int F>
std::shared_ptr<void const>
Channel<TraitsT, T, W, H, F>::channelData(unsigned depth, Quillon::Any const& type) const
{
    return hasElementType(type) ? mStorage.channelData(depth) : nullptr;
}

template <typename TraitsT, typename T, int W, int H, int F>
bool Channel<TraitsT, T, W, H, F>::setChannelData(unsigned depth, Quillon::Any const& type,
                                                  std::shared_ptr<void const> const& data)
{
    return hasElementType(type) && mStorage.setChannelData(depth, data);
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::updateTilesAdded(Component const& topology)
{
    mStorage.update(topology, isPointTopology(topology), false);
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::updateTilesRemoved(std::span<TileMoveList const> moved,
                                                      Component const& topology)
{
    mStorage.updateTilesRemoved(moved, topology, isPointTopology(topology), name());
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::updateTilesPermuted(std::span<TilePermutation const> permutation)
{
    mStorage.updateTilesPermuted(permutation, name());
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::updateElements(
    std::vector<std::vector<ElementToFrom>> const& moves)
{
    mStorage.updateElements(moves, name());
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::updateElementResize(Component const& topology)
{
    mStorage.updateElementResize(topology, isPointTopology(topology));
}

template <typename TraitsT, typename T, int W, int H, int F>
void Channel<TraitsT, T, W, H, F>::initializeFromParents(int depth,
                                                         std::span<TileParentLink const> links)
{
    constexpr int kSlots = Traits::kSlotsPerAxis;
    constexpr int kPerSlot = Traits::kVoxelsPerSlot;
    constexpr int kTW = Traits::kTileWidth;
    // The child in slot s spans parent voxels [s * kPerSlot, (s + 1) * kPerSlot), a run of
    // kPerSlot * W / kTW parent elements; its element i takes the parent element under its
    // centre: floor((s * kPerSlot + (i + 1/2) * kPerSlot / W) * W / kTW).
    int parentOf[kSlots * W];
    for (int s = 0; s < kSlots; ++s)
        for (int i = 0; i < W; ++i)
            parentOf[s * W + i] =
                std::min(W - 1, (2 * s * kPerSlot * W + (2 * i + 1) * kPerSlot) / (2 * kTW));
    mStorage.initializeFromParents(depth, links, std::span<int const>(parentOf, kSlots * W),
                                   kSlots);
}

// ---- temporaries
// ---------------------------------------------------------------------------------

template <typename Traits, typename T, int W, int H>
Quillon::Ptr<Channel<Traits, T, W, H, 0>>
channelTemporary(Channel<Traits, T, W, H, 0> const& source, Component const& topology, bool usePool,
                 bool callElementConstructor, int minDepth, int depth)
{
    using C = Channel<Traits, T, W, H, 0>;
    int const verbose = CoreGL::Logger::verboseLevel();
    bool const pool = usePool && ChannelMemoryPool::enabled() && ChannelPool::enabled();
    // Inside the source's range the copy below writes every element.
    bool const construct =
        callElementConstructor && (minDepth < source.minDepth() || depth > source.depth());
    if (!construct && verbose >= 3)
        detail::logDebug(
            std::string("Warning: callElementConstructor is false (in_callElementConstructor is ") +
            (callElementConstructor ? "true)" : "false)"));
    Quillon::Ptr<C> result;
    if (pool) {
        if (verbose > 2) {
            detail::logDebug("channelTemporary.availablePhysicalMemory.before = " +
                             detail::megabytes(ChannelPool::availablePhysicalMemory()));
            detail::logDebug("channelTemporary.availablePhysicalAndPoolMemory.before = " +
                             detail::megabytes(ChannelPool::availableMemory()));
        }
        result = ChannelPool::allocate<Traits, T, W, H>(source.defaultValue(), false, construct,
                                                        minDepth, depth, topology.tileCount(-1),
                                                        nullptr);
        if (verbose > 2) {
            detail::logDebug("channelTemporary.availablePhysicalMemory.after = " +
                             detail::megabytes(ChannelPool::availablePhysicalMemory()));
            detail::logDebug("channelTemporary.availablePhysicalAndPoolMemory.after = " +
                             detail::megabytes(ChannelPool::availableMemory()));
        }
    }
    if (!result) {
        result = Quillon::makePtr<C>(Quillon::String(), &source.defaultValue(),
                                     kDataElementInitializerTemporary, false, construct, minDepth,
                                     depth);
        if (verbose >= 3 && !callElementConstructor)
            detail::logDebug("Warning: in_callElementConstructor is false");
    }
    result->setTargetName(topology.name());
    result->update(topology);
    for (int d = 0; d < Traits::kDepthCount; ++d) {
        auto const& from = source.blocks(d);
        std::int64_t const n =
            std::min<std::int64_t>(static_cast<std::int64_t>(from.size()), result->tileCount(d));
        for (std::int64_t i = 0; i < n; ++i) {
            auto* to = result->block(i, d);
            auto const& b = from[static_cast<std::size_t>(i)];
            if (to->size() == b.size())
                std::copy(b.begin(), b.end(), to->begin());
            else
                to->assign(b.begin(), b.end());
        }
    }
    return result;
}

} // namespace TVL::TileTree3D

/// Instantiates one channel class and its `channelTemporary`. The function instantiation names
/// HEXMOLD_API itself: its template arguments (the hidden `Traits`) would otherwise hide it.
#define HEXMOLD_CHANNEL_INSTANTIATE(TR, T, W, H)                                                   \
    template class Channel<TR, T, W, H, 0>;                                                        \
    template HEXMOLD_API decltype(channelTemporary<TR, T, W, H>) channelTemporary<TR, T, W, H>;
