/// @file  substrate/tile.h
/// @brief `Tile<Traits, N>`: one W x W x W voxel grid of the tile tree, with its links.
#pragma once
#include <cstdint>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/bbox.h>
#include <hexmold/substrate/traits.h>
#include <hexmold/substrate/tree_index.h>

namespace TVL::TileTree3D {

using Tavrel::Math::int3;

/// Storage of a tile. The layout is private to this build (it is not exchanged with others).
template <int N> struct TileBinaryNonCompatible {
    std::int32_t mTi = 0, mTj = 0, mTk = 0; ///< minimum corner in tile space
    std::int32_t mDepth = -1;               ///< depth of the tile
    std::int64_t mIndex = -1;               ///< place in the tile array of its depth
    std::int64_t mParent = -1;              ///< index at depth-1; negative for a root
    std::int64_t mChild[N];                 ///< index at depth+1 per slot; negative where none
    bool mValid = false;                    ///< true in every tile of a tree, false in the sentinel
};

/// A tile of the tree. Constant-time queries only; links are maintained by `Container`.
/// Local voxel (i, j, k) of a tile is covered by the child in slot (i, j, k) / kVoxelsPerSlot.
template <typename TraitsT, int N = TraitsT::kChildCount>
class Tile : public TileBinaryNonCompatible<N> {
public:
    using Traits = TraitsT;
    static constexpr int kW = Traits::kTileWidth;
    static constexpr int kS = Traits::kSlotsPerAxis;
    static constexpr int kVoxelsPerSlot = Traits::kVoxelsPerSlot;

    Tile()
    {
        for (int c = 0; c < N; ++c)
            this->mChild[c] = -1;
    }

    int3 tijk() const { return {this->mTi, this->mTj, this->mTk}; }
    std::int32_t ti() const { return this->mTi; }
    std::int32_t tj() const { return this->mTj; }
    std::int32_t tk() const { return this->mTk; }
    int depth() const { return this->mDepth; }
    std::int64_t index() const { return this->mIndex; }
    std::int64_t parent() const { return this->mParent; }
    bool valid() const { return this->mValid; }
    TreeIndex treeIndex() const { return {this->mIndex, this->mDepth}; }
    VoxelCoord voxelCoord() const { return {this->mTi, this->mTj, this->mTk, this->mDepth}; }

    static std::int64_t tileVoxelWidth(int depth) { return WidthTable<Traits>::kTile[depth]; }
    static std::int64_t voxelDataWidth(int depth) { return WidthTable<Traits>::kVoxel[depth]; }
    std::int64_t tileVoxelWidth() const { return tileVoxelWidth(this->mDepth); }
    std::int64_t voxelDataWidth() const { return voxelDataWidth(this->mDepth); }
    std::int64_t voxelWidth() const { return voxelDataWidth(this->mDepth); }
    std::int64_t childVoxelWidth() const { return voxelDataWidth(this->mDepth + 1); }
    std::int64_t childVoxelDataWidth() const { return voxelDataWidth(this->mDepth + 1); }
    std::int64_t parentVoxelDataWidth() const { return voxelDataWidth(this->mDepth - 1); }

    /// No child at all.
    bool isLeaf() const
    {
        for (int c = 0; c < N; ++c)
            if (this->mChild[c] >= 0)
                return false;
        return true;
    }
    /// The local voxel (i, j, k) is not covered by a child.
    bool isLeaf(int i, int j, int k) const
    {
        return this->mChild[slotNumber(i / kVoxelsPerSlot, j / kVoxelsPerSlot,
                                       k / kVoxelsPerSlot)] < 0;
    }
    bool isLeaf(int3 const& v) const { return isLeaf(v.x, v.y, v.z); }
    /// The child slot @p slot is empty.
    bool isLeaf(int slot) const { return this->mChild[slot] < 0; }

    /// The tile-space point lies inside the tile.
    bool contains(std::int64_t i, std::int64_t j, std::int64_t k) const
    {
        std::int64_t const w = tileVoxelWidth();
        return i >= this->mTi && i < this->mTi + w && j >= this->mTj && j < this->mTj + w &&
               k >= this->mTk && k < this->mTk + w;
    }
    bool contains(int3 const& p) const { return contains(p.x, p.y, p.z); }

    /// Slot number of slot coordinates (x fastest).
    static constexpr int slotNumber(int i, int j, int k) { return i + kS * (j + kS * k); }
    static constexpr int3 slotCoordinates(int slot)
    {
        return {slot % kS, (slot / kS) % kS, slot / (kS * kS)};
    }

    /// Child index in slot (i, j, k) (slot coordinates, i.e. local voxel / kVoxelsPerSlot).
    std::int64_t& childIndex(int i, int j, int k) { return this->mChild[slotNumber(i, j, k)]; }
    std::int64_t const& childIndex(int i, int j, int k) const
    {
        return this->mChild[slotNumber(i, j, k)];
    }
    std::int64_t& childIndex(int3 const& s) { return childIndex(s.x, s.y, s.z); }
    std::int64_t const& childIndex(int3 const& s) const { return childIndex(s.x, s.y, s.z); }
    std::int64_t& childIndex(int slot) { return this->mChild[slot]; }
    std::int64_t const& childIndex(int slot) const { return this->mChild[slot]; }

    TreeIndex childTreeIndex(int i, int j, int k) const
    {
        std::int64_t const c = childIndex(i, j, k);
        return c >= 0 ? TreeIndex{c, this->mDepth + 1} : kNoTile;
    }
    TreeIndex childTreeIndex(int3 const& s) const { return childTreeIndex(s.x, s.y, s.z); }

    TreeIndex parentTreeIndex() const
    {
        return this->mParent >= 0 ? TreeIndex{this->mParent, this->mDepth - 1} : kNoTile;
    }
    /// Corner of the parent tile (the corner snapped to the parent's tile lattice).
    int3 parentIJK() const
    {
        if (this->mDepth <= 0)
            return tijk();
        std::int64_t const w = tileVoxelWidth(this->mDepth - 1);
        auto snap = [&](std::int64_t c) {
            std::int64_t const u = c + Traits::kCentreOffset;
            return static_cast<int>(u - u % w - Traits::kCentreOffset);
        };
        return {snap(this->mTi), snap(this->mTj), snap(this->mTk)};
    }

    /// Slot coordinates of the child whose corner is @p childCorner.
    int3 childIJK(int3 const& childCorner) const
    {
        std::int64_t const w = tileVoxelWidth(this->mDepth + 1);
        return {static_cast<int>((childCorner.x - std::int64_t(this->mTi)) / w),
                static_cast<int>((childCorner.y - std::int64_t(this->mTj)) / w),
                static_cast<int>((childCorner.z - std::int64_t(this->mTk)) / w)};
    }
    /// Slot coordinates of @p child.
    template <typename TileT> int3 childIJK(TileT const& child) const
    {
        return childIJK(child.tijk());
    }
    /// Corner of the child in slot (i, j, k).
    int3 childTIJK(int i, int j, int k) const
    {
        std::int64_t const w = tileVoxelWidth(this->mDepth + 1);
        return {static_cast<int>(this->mTi + i * w), static_cast<int>(this->mTj + j * w),
                static_cast<int>(this->mTk + k * w)};
    }
    int3 childTIJK(int3 const& s) const { return childTIJK(s.x, s.y, s.z); }

    /// Tile-space coordinates to local data coordinates: (coordinate - corner) / voxelDataWidth.
    void childDataIJK(std::int64_t i, std::int64_t j, std::int64_t k, int& oi, int& oj,
                      int& ok) const
    {
        std::int64_t const w = voxelDataWidth();
        oi = static_cast<int>((i - this->mTi) / w);
        oj = static_cast<int>((j - this->mTj) / w);
        ok = static_cast<int>((k - this->mTk) / w);
    }
    int3 childDataIJK(int3 const& p) const
    {
        int3 r;
        childDataIJK(p.x, p.y, p.z, r.x, r.y, r.z);
        return r;
    }
    /// Local data coordinates to tile-space coordinates (the voxel's minimum corner).
    int3 childDataTIJK(int i, int j, int k) const
    {
        std::int64_t const w = voxelDataWidth();
        return {static_cast<int>(this->mTi + i * w), static_cast<int>(this->mTj + j * w),
                static_cast<int>(this->mTk + k * w)};
    }
    int3 childDataTIJK(int3 const& v) const { return childDataTIJK(v.x, v.y, v.z); }

    /// The tile's half-open box in tile space.
    void tileSpaceBounds(bbox<int3, int>& out) const
    {
        auto const w = static_cast<int>(tileVoxelWidth());
        out.min = tijk();
        out.max = {this->mTi + w, this->mTj + w, this->mTk + w};
    }
};

} // namespace TVL::TileTree3D
