/// @file  substrate/channel_pool.h
/// @brief The process-wide pool behind temporary channels: `ChannelPool` hands out channels,
///        `ChannelMemoryPool` keeps the blocks of pooled channels that died for the next ones.
/// @details A pooled channel (made by `ChannelPool::allocate`, or constructed with `usePool`)
///          takes its first blocks from the memory pool and gives all its blocks back when it
///          dies, so repeated runs of an algorithm do not allocate their scratch fields again.
///          Blocks are kept per element type, up to a byte capacity (1 GiB unless set); beyond
///          it the oldest kept blocks are freed. All operations are thread-safe.
#pragma once
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/tile_data_allocator.h>
#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

namespace TVL::TileTree3D {

/// Keeps the blocks of dead pooled channels for reuse.
class HEXMOLD_API ChannelMemoryPool {
public:
    /// Whether pooled channels draw from and return to the pool (default: true).
    static bool enabled();
    static void setEnabled(bool enabled);
    /// Bytes the pool may hold (default 1 GiB).
    static std::size_t capacity();
    /// Sets the capacity, freeing the oldest kept blocks beyond it.
    static void setCapacity(std::size_t bytes);
    /// Bytes of block memory the pool holds now.
    static std::size_t heldBytes();
    /// Frees everything the pool holds.
    static void clear();

    /// Keeps @p blocks (those with memory) for later channels of element type T; frees them
    /// when the pool is disabled or the blocks alone exceed the capacity.
    template <typename T> static void give(std::vector<TileDataBlock<T>>&& blocks)
    {
        std::size_t bytes = blocks.capacity() * sizeof(TileDataBlock<T>);
        for (auto const& b : blocks)
            bytes += b.capacity() * sizeof(T);
        if (blocks.empty())
            return;
        giveErased(typeid(T), bytes,
                   std::make_shared<std::vector<TileDataBlock<T>>>(std::move(blocks)));
    }
    /// The most recently kept blocks of element type T (empty when there are none).
    template <typename T> static std::vector<TileDataBlock<T>> take()
    {
        std::shared_ptr<void> p = takeErased(typeid(T));
        if (!p)
            return {};
        return std::move(*static_cast<std::vector<TileDataBlock<T>>*>(p.get()));
    }

private:
    static void giveErased(std::type_info const& type, std::size_t bytes,
                           std::shared_ptr<void> blocks);
    static std::shared_ptr<void> takeErased(std::type_info const& type);
};

/// Hands out temporary channels whose blocks come from, and go back to, the memory pool.
class HEXMOLD_API ChannelPool {
public:
    /// Whether `allocate` gives channels (default: true).
    static bool enabled();
    static void setEnabled(bool enabled);

    /// @brief A new unnamed pooled channel of initialiser 0, bound and sized to @p topology when
    ///        it is given.
    /// @param defaultValue            the channel's default value
    /// @param reserved                unused; callers pass false
    /// @param callElementConstructor  value-initialise the elements of new blocks
    /// @param minDepth, depth         inclusive depth range
    /// @param tileCount               tiles expected over the range (a sizing hint)
    /// @param topology                the topology to bind to and size from; may be null
    /// @return the channel, or null while the pool is disabled.
    template <typename Traits, typename T, int W, int H>
    static Quillon::Ptr<Channel<Traits, T, W, H, 0>>
    allocate(T defaultValue, bool reserved, bool callElementConstructor, int minDepth, int depth,
             std::int64_t tileCount, Component const* topology)
    {
        (void)reserved;
        (void)tileCount;
        if (!enabled())
            return nullptr;
        auto c = Quillon::makePtr<Channel<Traits, T, W, H, 0>>(
            Quillon::String(), &defaultValue, kDataElementInitializerTemporary, true,
            callElementConstructor, minDepth, depth);
        if (topology) {
            c->setTargetName(topology->name());
            c->update(*topology);
        }
        return c;
    }

    /// Bytes of physical memory available plus what the memory pool holds.
    static std::uint64_t availableMemory();
    /// Bytes of physical memory available to the process (MemAvailable of /proc/meminfo, else
    /// free pages as the system reports them).
    static std::uint64_t availablePhysicalMemory();
};

} // namespace TVL::TileTree3D
