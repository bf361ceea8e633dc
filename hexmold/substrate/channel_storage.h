/// @file  substrate/channel_storage.h
/// @brief `detail::ChannelStorage<T>`: the blocks of a channel and the bookkeeping that keeps
///        them in step with a topology, which depends on the element type only.
/// @details Every `Channel<Traits, T, W, H, F>` holds one and forwards to it, so the work is
///          compiled once per element type rather than once per channel form. Instantiated for
///          the 18 element types.
#pragma once
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/any.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel_base.h>
#include <hexmold/substrate/tile_data_allocator.h>
#include <hexmold/substrate/tree_index.h>
#include <hexmold/substrate/type_lists.h>
#include <iosfwd>
#include <memory>
#include <span>
#include <vector>

namespace TVL::TileTree3D::detail {

/// How the owning channel's blocks are shaped, as the storage needs to know it.
struct BlockShape {
    int depthCount = 0;         ///< depths of the tree instance
    int width = 0;              ///< elements across a block, halo not counted
    int halo = 0;               ///< halo width
    std::size_t voxelCount = 0; ///< elements of a voxel block, (width + 2 halo)^3
};

template <typename T> class HEXMOLD_API ChannelStorage {
public:
    using Block = TileDataBlock<T>;

    ChannelStorage(BlockShape shape, T const& defaultValue, DataElementInitializerType initializer,
                   bool usePool, bool callElementConstructor, int minDepth, int depth);
    /// Copies the blocks; the copy does not use the pool.
    ChannelStorage(ChannelStorage const& other);
    ChannelStorage& operator=(ChannelStorage const&) = delete;
    /// A pooled storage gives all its blocks to the memory pool.
    ~ChannelStorage();

    /// The block of tile @p index at @p depth, or null.
    Block* block(std::int64_t index, int depth)
    {
        if (depth < mMinDepth || depth > mDepth)
            return nullptr;
        auto& a = mBlocks[static_cast<std::size_t>(depth)];
        if (index < 0 || static_cast<std::uint64_t>(index) >= a.size())
            return nullptr;
        return &a[static_cast<std::size_t>(index)];
    }
    Block const* block(std::int64_t index, int depth) const
    {
        return const_cast<ChannelStorage*>(this)->block(index, depth);
    }
    std::vector<Block> const& blocks(int depth) const;

    T const& defaultValue() const { return mDefault; }
    void setDefaultValue(T const& value) { mDefault = value; }
    DataElementInitializerType initializer() const { return mInitializer; }
    bool callElementConstructor() const { return mCallElementConstructor; }
    bool usesPool() const { return mUsePool; }
    bool allocateEmpty() const { return mAllocateEmpty; }
    void setAllocateEmpty(bool on) { mAllocateEmpty = on; }
    int minDepth() const { return mMinDepth; }
    int depth() const { return mDepth; }

    /// @p point: the topology is a point topology (block sizes are its element counts).
    void update(Component const& topology, bool point, bool shrink);
    void setRange(int minDepth, int depth, Component const* topology, bool point);
    void updateTilesRemoved(std::span<TileMoveList const> moved, Component const& topology,
                            bool point, Quillon::String const& channelName);
    void updateTilesPermuted(std::span<TilePermutation const> permutation,
                             Quillon::String const& channelName);
    void updateElements(std::vector<std::vector<ElementToFrom>> const& moves,
                        Quillon::String const& channelName);
    void updateElementResize(Component const& topology, bool point);
    /// @p parentOf holds, per child slot s and element i along an axis, the parent element
    /// covering i: parentOf[s * width + i]; @p slots is the slot count per axis.
    void initializeFromParents(int depth, std::span<TileParentLink const> links,
                               std::span<int const> parentOf, int slots);

    std::uint64_t elementCount(int depth) const;
    std::int64_t tileCount(int depth) const;
    void memUse(std::size_t& used, std::size_t& reserved) const;
    std::shared_ptr<void const> channelData(unsigned depth) const;
    bool setChannelData(unsigned depth, std::shared_ptr<void const> const& data);
    void dump(std::ostream& out, Quillon::String const& name, Quillon::String const& target) const;

private:
    void resizeDepth(int depth, Component const& topology, bool point, bool shrink);
    void releaseDepth(int depth);
    void initBlock(Block& block, std::size_t count);
    std::size_t newBlockCount(Component const& topology, bool point, std::int64_t index,
                              int depth) const;

    BlockShape mShape;
    T mDefault;
    DataElementInitializerType mInitializer;
    bool mUsePool;
    bool mCallElementConstructor;
    bool mAllocateEmpty = false;
    int mMinDepth;
    int mDepth;
    std::vector<std::vector<Block>> mBlocks; ///< one array per depth of the tree instance
    std::vector<Block> mSpare;               ///< pool blocks awaiting reuse
};

#define HEXMOLD_CHANNEL_STORAGE_EXTERN(T) extern template class HEXMOLD_API ChannelStorage<T>;
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_CHANNEL_STORAGE_EXTERN)
#undef HEXMOLD_CHANNEL_STORAGE_EXTERN

} // namespace TVL::TileTree3D::detail
