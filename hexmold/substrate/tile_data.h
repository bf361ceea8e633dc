/// @file  substrate/tile_data.h
/// @brief `ConstTileData`, `TileData` and `DynamicTileData`: handles on one block of tile data.
/// @details A handle either refers to a block held elsewhere (a channel's block: writes through
///          it change the channel) or owns its block (a handle made with a size: a per-worker
///          scratch block; copying it copies the elements). Elements are stored x fastest, then
///          y, then z; a block of a W-wide form with halo H has edge E = W + 2H and the element
///          (i, j, k), each coordinate in [-H, W + H), sits at (i+H) + E*((j+H) + E*(k+H)).
///          The handle caches the block's data pointer and size, so element access is one
///          indexed load; a handle goes stale, as an iterator would, when the block it refers
///          to is reallocated by anything but the handle itself.
///
///          Instantiated for the 18 element types in the forms (W, H) = (4,0), (5,0), (6,0),
///          (4,1), (5,1), (4,2), (5,2), (8,1), (9,0); F is 0 everywhere.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/contract.h>
#include <hexmold/substrate/tile_data_allocator.h>
#include <hexmold/substrate/type_lists.h>
#include <utility>

namespace TVL::TileTree3D {

/// Read-only handle on a block. Empty when it refers to no block or to a block without elements.
template <typename T, int W, int H, int F> class HEXMOLD_API ConstTileData {
public:
    using ValueType = T;
    using Block = TileDataBlock<T>;
    static constexpr int kWidth = W; ///< elements across, halo not counted
    static constexpr int kHalo = H;  ///< halo width on each side
    static constexpr int kEdge = W + 2 * H;
    /// Element count of a voxel block of this form, (W + 2H)^3.
    static constexpr std::size_t kVoxelCount = std::size_t(kEdge) * kEdge * kEdge;

    /// Flat index of local coordinates (halo coordinates included: -H .. W+H-1).
    static constexpr std::size_t flatIndex(int i, int j, int k)
    {
        return std::size_t((i + H) + kEdge * ((j + H) + kEdge * (k + H)));
    }

    /// @p n, which must lie in the block.
    std::size_t checked(std::size_t n) const
    {
        HEXMOLD_EXPECTS(n < mSize);
        return n;
    }
    /// The flat index of (i, j, k), which must lie in the block, halo included.
    std::size_t checkedIndex(int i, int j, int k) const
    {
        HEXMOLD_EXPECTS(i >= -H && i < W + H && j >= -H && j < W + H && k >= -H && k < W + H);
        return checked(flatIndex(i, j, k));
    }

    /// An empty handle.
    ConstTileData() = default;
    /// Refers to @p block (not owned); null gives an empty handle.
    explicit ConstTileData(Block const* block) : mBlock(const_cast<Block*>(block)) { refresh(); }
    /// A referring handle copies the reference; an owning handle copies the elements.
    ConstTileData(ConstTileData const& other) { copyFrom(other); }
    ConstTileData(ConstTileData&& other) noexcept { takeFrom(other); }
    ConstTileData& operator=(ConstTileData const& other)
    {
        if (this != &other) {
            release();
            copyFrom(other);
        }
        return *this;
    }
    ConstTileData& operator=(ConstTileData&& other) noexcept
    {
        if (this != &other) {
            release();
            takeFrom(other);
        }
        return *this;
    }
    virtual ~ConstTileData() { release(); }

    T const& operator()(int i, int j, int k) const { return mData[checkedIndex(i, j, k)]; }
    T const& operator()(int3 const& p) const { return mData[checkedIndex(p.x, p.y, p.z)]; }
    T const& operator()(std::size_t n) const { return mData[checked(n)]; }
    T const& operator[](std::size_t n) const { return mData[checked(n)]; }

    /// Element count of the block (0 for an empty handle).
    std::size_t size() const { return mSize; }
    /// The handle refers to no data.
    bool empty() const { return mSize == 0; }
    explicit operator bool() const { return mSize != 0; }
    T const* data() const { return mData; }
    T const* begin() const { return mData; }
    T const* end() const { return mData + mSize; }
    /// The handle owns its block (it was made with a size).
    bool ownsBlock() const { return mOwns; }
    /// The block referred to or owned; null for a default handle.
    Block const* block() const { return mBlock; }

protected:
    /// Re-reads the data pointer and size of the block after it changed through this handle.
    void refresh()
    {
        if (mBlock) {
            mData = mBlock->data();
            mSize = mBlock->size();
        } else {
            mData = nullptr;
            mSize = 0;
        }
    }
    /// Makes the handle own a new block of @p count elements equal to @p value.
    void own(std::size_t count, T const& value)
    {
        release();
        mBlock = new Block(count, value);
        mOwns = true;
        refresh();
    }
    void release()
    {
        if (mOwns)
            delete mBlock;
        mBlock = nullptr;
        mOwns = false;
        mData = nullptr;
        mSize = 0;
    }
    void copyFrom(ConstTileData const& other)
    {
        if (other.mOwns) {
            mBlock = new Block(*other.mBlock);
            mOwns = true;
        } else {
            mBlock = other.mBlock;
            mOwns = false;
        }
        refresh();
    }
    void takeFrom(ConstTileData& other) noexcept
    {
        mBlock = other.mBlock;
        mOwns = other.mOwns;
        mData = other.mData;
        mSize = other.mSize;
        other.mBlock = nullptr;
        other.mOwns = false;
        other.mData = nullptr;
        other.mSize = 0;
    }

    Block* mBlock = nullptr; ///< block referred to or owned
    T* mData = nullptr;      ///< cached mBlock->data()
    std::size_t mSize = 0;   ///< cached mBlock->size()
    bool mOwns = false;      ///< mBlock was allocated by this handle
};

/// Read-write handle on a block; also the type of per-worker scratch blocks.
template <typename T, int W, int H, int F>
class HEXMOLD_API TileData : public ConstTileData<T, W, H, F> {
    using Base = ConstTileData<T, W, H, F>;

public:
    using Base::kEdge;
    using Base::kHalo;
    using Base::kWidth;
    using typename Base::Block;

    /// An empty handle.
    TileData() = default;
    /// Owns @p count value-initialised elements.
    explicit TileData(std::size_t count) { this->own(count, T{}); }
    /// Owns @p count elements equal to @p value.
    TileData(std::size_t count, T const& value) { this->own(count, value); }
    /// Refers to @p block (not owned); writes change it. Null gives an empty handle.
    explicit TileData(Block* block) : Base(block) {}
    TileData(TileData const&) = default;
    TileData(TileData&&) noexcept = default;
    TileData& operator=(TileData const&) = default;
    TileData& operator=(TileData&&) noexcept = default;
    ~TileData() override = default;

    using Base::operator();
    using Base::operator[];
    using Base::begin;
    using Base::data;
    using Base::end;
    T& operator()(int i, int j, int k) { return this->mData[Base::checkedIndex(i, j, k)]; }
    T& operator()(int3 const& p) { return this->mData[Base::checkedIndex(p.x, p.y, p.z)]; }
    T& operator()(std::size_t n) { return this->mData[Base::checked(n)]; }
    T& operator[](std::size_t n) { return this->mData[Base::checked(n)]; }
    T* data() { return this->mData; }
    T* begin() { return this->mData; }
    T* end() { return this->mData + this->mSize; }
    Block* block() { return this->mBlock; }

    /// Sets every element of the block to @p value.
    void set(T const& value) { std::fill_n(this->mData, this->mSize, value); }

    /// @brief Takes over the elements of @p other's block, without copying them.
    /// @details The block this handle refers to (a channel's block, say) receives @p other's
    ///          storage and @p other's block is left empty. A handle with no block becomes the
    ///          owner of the elements.
    void set(TileData&& other)
    {
        if (&other == this || !other.mBlock)
            return;
        if (this->mBlock) {
            *this->mBlock = std::move(*other.mBlock);
            other.mBlock->clear();
            other.refresh();
        } else {
            Block* taken = new Block(std::move(*other.mBlock));
            other.mBlock->clear();
            other.refresh();
            this->mBlock = taken;
            this->mOwns = true;
        }
        this->refresh();
    }

    /// Sets the halo elements (a coordinate outside [0, W)) to @p value; the interior is kept.
    /// A voxel block of this form is assumed; blocks of another size are left alone.
    void setHalo(T const& value) { fillOutside(value, 1); }

    /// Sets only the halo elements on the block's edges and corners (two or three coordinates
    /// outside [0, W)) to @p value, keeping the interior and the six face layers.
    void setHaloEdges(T const& value) { fillOutside(value, 2); }

private:
    void fillOutside(T const& value, int minOutside)
    {
        if constexpr (H == 0) {
            return;
        } else {
            if (this->mSize != Base::kVoxelCount)
                return;
            T* d = this->mData;
            for (int k = -H; k < W + H; ++k) {
                int const ok = (k < 0 || k >= W) ? 1 : 0;
                for (int j = -H; j < W + H; ++j) {
                    int const oj = ok + ((j < 0 || j >= W) ? 1 : 0);
                    T* row = d + Base::flatIndex(-H, j, k);
                    if (oj >= minOutside) {
                        std::fill_n(row, kEdge, value);
                    } else if (oj + 1 >= minOutside) {
                        // Only the H elements at each end of the row lie outside in x.
                        std::fill_n(row, H, value);
                        std::fill_n(row + H + W, H, value);
                    }
                }
            }
        }
    }
};

/// @brief A block whose element count varies by tile: the blocks of channels bound to a point
///        topology, where a tile's elements are points.
/// @details `resize` changes the block the handle refers to (or owns). Elements appended since
///          the last `clearElementsAdded` (or since the handle was made) are reported by
///          `beginElementsAdded` / `endElementsAdded` / `elementsAddedSize`.
template <typename TileDataT> class DynamicTileData : public TileDataT {
public:
    using T = typename TileDataT::ValueType;
    using typename TileDataT::Block;

    DynamicTileData() = default;
    /// Refers to @p block; what it holds now counts as already there.
    explicit DynamicTileData(Block* block) : TileDataT(block), mAddedBegin(this->mSize) {}
    /// Owns @p count elements equal to @p value.
    DynamicTileData(std::size_t count, T const& value) : TileDataT(count, value), mAddedBegin(count)
    {
    }

    /// Makes the block hold @p count elements; new ones are set to @p value.
    void resize(std::size_t count, T const& value)
    {
        if (!this->mBlock)
            this->own(0, value);
        this->mBlock->resize(count, value);
        this->refresh();
        if (mAddedBegin > count)
            mAddedBegin = count;
    }
    /// Appends one element.
    void push_back(T const& value)
    {
        if (!this->mBlock)
            this->own(0, value);
        this->mBlock->push_back(value);
        this->refresh();
    }

    T* beginElementsAdded() { return this->mData + mAddedBegin; }
    T* endElementsAdded() { return this->mData + this->mSize; }
    T const* beginElementsAdded() const { return this->mData + mAddedBegin; }
    T const* endElementsAdded() const { return this->mData + this->mSize; }
    /// Forgets what was appended so far.
    void clearElementsAdded() { mAddedBegin = this->mSize; }
    std::size_t elementsAddedSize() const { return this->mSize - mAddedBegin; }

private:
    std::size_t mAddedBegin = 0;
};

} // namespace TVL::TileTree3D

/// X(T, W, H) for the block forms in use with element type T: normal, halo 1 and 2, one sample
/// more than a tile, and the parent-refined scratch forms.
/// The list is cut in two halves so that the instantiations build in two translation units.
#define HEXMOLD_FOR_EACH_TILE_DATA_FORM_A(X, T)                                                    \
    X(T, 4, 0) X(T, 5, 0) X(T, 6, 0) X(T, 4, 1) X(T, 5, 1)
#define HEXMOLD_FOR_EACH_TILE_DATA_FORM_B(X, T) X(T, 4, 2) X(T, 5, 2) X(T, 8, 1) X(T, 9, 0)
#define HEXMOLD_FOR_EACH_TILE_DATA_FORM(X, T)                                                      \
    HEXMOLD_FOR_EACH_TILE_DATA_FORM_A(X, T) HEXMOLD_FOR_EACH_TILE_DATA_FORM_B(X, T)

namespace TVL::TileTree3D {
#define HEXMOLD_TILE_DATA_EXTERN(T, W, H)                                                          \
    extern template class HEXMOLD_API ConstTileData<T, W, H, 0>;                                   \
    extern template class HEXMOLD_API TileData<T, W, H, 0>;
#define HEXMOLD_TILE_DATA_EXTERN_FORMS(T)                                                          \
    HEXMOLD_FOR_EACH_TILE_DATA_FORM(HEXMOLD_TILE_DATA_EXTERN, T)
HEXMOLD_FOR_EACH_ELEMENT_TYPE(HEXMOLD_TILE_DATA_EXTERN_FORMS)
#undef HEXMOLD_TILE_DATA_EXTERN_FORMS
#undef HEXMOLD_TILE_DATA_EXTERN
} // namespace TVL::TileTree3D
