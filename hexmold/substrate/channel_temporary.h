/// @file  substrate/channel_temporary.h
/// @brief `channelTemporary`: a scratch channel of the same shape as a given one, drawn from the
///        channel pool when it may be.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/substrate/channel.h>

namespace TVL::TileTree3D {

/// @brief A temporary channel of the type of @p source, bound and sized to @p topology, holding a
///        copy of @p source's blocks where both have them.
/// @details The pool is used only when @p usePool is set and both `ChannelMemoryPool::enabled()`
///          and `ChannelPool::enabled()` hold; otherwise, or when the pool gives nothing, a new
///          unnamed channel of initialiser 0 is made. Elements of new blocks are value-initialised
///          only when @p callElementConstructor is set and [minDepth, depth] reaches beyond
///          @p source's range: inside it every element is overwritten by the copy anyway.
///          At verbose level 3 and above it reports the memory available before and after
///          drawing from the pool (in MB), and that elements are not constructed.
/// @param source                  the channel whose type, default value and data are copied
/// @param topology                the topology to bind to; usually @p source's
/// @param usePool                 draw from the channel pool when it is enabled
/// @param callElementConstructor  construct elements of blocks the copy does not fill
/// @param minDepth, depth         inclusive depth range of the result
/// @return the channel; never null.
template <typename Traits, typename T, int W, int H>
HEXMOLD_API Quillon::Ptr<Channel<Traits, T, W, H, 0>>
channelTemporary(Channel<Traits, T, W, H, 0> const& source, Component const& topology, bool usePool,
                 bool callElementConstructor, int minDepth, int depth);

} // namespace TVL::TileTree3D
