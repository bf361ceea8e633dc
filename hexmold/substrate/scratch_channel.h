/// @file  substrate/scratch_channel.h
/// @brief `scratchChannel`: the one way the library makes a fresh work channel that lives for one
///        call (value types, DOF flags, masks, closest-element indices, ids).
/// @details A scratch channel is bound and sized to a topology and holds one value everywhere
///          until written. A work copy of an existing channel is `channelTemporary`'s job.
#pragma once
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/component.h>

namespace TVL::TileTree3D {

/// Where a scratch channel's blocks come from.
enum class ScratchMemory {
    kHeap, ///< new blocks of their own
    kPool, ///< the channel memory pool, while `ChannelMemoryPool::enabled()` holds
};

/// @brief A new channel of type @p ChannelT over depths [minDepth, maxDepth], bound and sized
///        to @p topology, every element @p value.
/// @param topology  the topology to bind to; becomes the channel's target
/// @param value     the default value and the value of every element
/// @param name      a name for diagnostics (empty for most scratch channels)
/// @param memory    where the blocks come from
template <typename ChannelT>
Quillon::Ptr<ChannelT>
scratchChannel(Component const& topology, typename ChannelT::ValueType const& value, int minDepth,
               int maxDepth, Quillon::String name = {}, ScratchMemory memory = ScratchMemory::kHeap)
{
    auto channel =
        Quillon::makePtr<ChannelT>(std::move(name), &value, kDataElementInitializerDefaultValue,
                                   memory == ScratchMemory::kPool, false, minDepth, maxDepth);
    channel->setTargetName(topology.name());
    channel->update(topology);
    return channel;
}

} // namespace TVL::TileTree3D
