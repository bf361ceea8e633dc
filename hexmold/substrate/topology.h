/// @file  substrate/topology.h
/// @brief `VoxelTopology` and `PointTopology`: the components that say how the tiles of a tree
///        are used, voxels or points, and to which channels bind.
/// @details A topology targets its container by name and records the container's tile count per
///          depth in `update(container)`, so that a channel can size its block arrays from the
///          topology alone, even while the container is extracted from the object.
///
///          Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
#pragma once
#include <array>
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/platform/tavrel/math.h>
#include <hexmold/substrate/channel_base.h>
#include <hexmold/substrate/component.h>
#include <hexmold/substrate/traits.h>
#include <hexmold/substrate/tree_index.h>
#include <iosfwd>
#include <span>
#include <vector>

namespace TVL::TileTree3D {

namespace Const {
/// Name of the point topology component.
inline constexpr char TileTreePointTopologyName[] = "tile_tree_point_topology";
} // namespace Const

/// @brief Where a voxel's sample sits in the voxel, as a bit mask of half-voxel shifts: bit 0 in
///        x, bit 1 in y, bit 2 in z. 7 is the cell centre (the default), 0 the minimum corner;
///        1, 2 and 4 are the centres of the faces normal to x, y and z (staggered grids).
enum VoxelOffsetType : int {
    kVoxelOffsetCorner = 0,
    kVoxelOffsetFaceX = 1,
    kVoxelOffsetFaceY = 2,
    kVoxelOffsetFaceZ = 4,
    kVoxelOffsetCenter = 7,
};

/// The tiles of a container used as voxel grids: every tile has W^3 voxels.
template <typename TraitsT> class HEXMOLD_API VoxelTopology : public Component {
public:
    using Traits = TraitsT;
    static constexpr int kDepthCount = Traits::kDepthCount;
    static constexpr int kTileSize = Traits::kTileSize;

    VoxelTopology();
    /// @param name           the component's name
    /// @param containerName  name of the container it targets
    /// @param voxelSize      world size of a voxel of the deepest depth (> 0)
    /// @param offsetType     where samples sit in their voxels
    VoxelTopology(Quillon::String name, Quillon::String containerName, float voxelSize,
                  VoxelOffsetType offsetType = kVoxelOffsetCenter);
    ~VoxelTopology() override;

    VoxelOffsetType offsetType() const { return mOffsetType; }
    void setOffsetType(VoxelOffsetType type) { mOffsetType = type; }
    /// Position of the sample in its voxel, in voxels: 0.5 on each axis whose bit is set.
    Tavrel::Math::float3 offset() const;
    /// World size of a voxel of the deepest depth.
    float voxelSize() const { return mVoxelSize; }
    void setVoxelSize(float size) { mVoxelSize = size; }

    /// @brief World position to (non-negative) tile-space position, such that the sample of the
    ///        deepest-depth voxel with corner c maps to the integer c + centre offset:
    ///        world / voxelSize + centre offset - offset(). This is the container's transform
    ///        shifted by the offset. At depth d the sample of the voxel with corner c maps to
    ///        c + centre offset + offset() * (voxelDataWidth(d) - 1). The double forms keep
    ///        sub-voxel precision, which single precision loses this far from the origin.
    Tavrel::Math::float3 toTileSpace(Tavrel::Math::float3 const& world) const;
    /// The inverse of `toTileSpace`.
    Tavrel::Math::float3 toWorldSpace(Tavrel::Math::float3 const& tileSpace) const;
    Tavrel::Math::double3 toTileSpace(Tavrel::Math::double3 const& world) const;
    Tavrel::Math::double3 toWorldSpace(Tavrel::Math::double3 const& tileSpace) const;

    /// Records the tile count per depth of @p container (and its voxel size when it is a
    /// `Container<Traits>`).
    void update(Component const& container) override;
    /// Sets the tile count of one depth directly, for channels used without a tree.
    void setTileCount(int depth, std::int64_t count);

    void dump(std::ostream& out) const override;
    void memUse(std::size_t& used, std::size_t& reserved, bool recursive) const override;
    void copyTo(Quillon::Ptr<Component>& out) const override;
    /// Voxels over all depths.
    std::uint64_t size() const override { return elementCount(-1); }
    bool empty() const override { return tileCount(-1) == 0; }
    std::uint64_t elementCount(int depth) const override;
    /// W^3 for a tile that exists, 0 otherwise.
    std::uint64_t elementCount(TreeIndex const& tile) const override;
    std::int64_t tileCount(int depth) const override;
    /// Shallowest depth with tiles (0 when there are none).
    int minDepth() const override;

private:
    float mVoxelSize = 1.0f;
    VoxelOffsetType mOffsetType = kVoxelOffsetCenter;
    std::array<std::int64_t, kDepthCount> mTileCounts{};
};

/// The tiles of a container used as buckets of points: each tile has its own element count.
template <typename TraitsT> class HEXMOLD_API PointTopology : public Component {
public:
    using Traits = TraitsT;
    static constexpr int kDepthCount = Traits::kDepthCount;

    /// Named `Const::TileTreePointTopologyName`, targeting @p containerName.
    explicit PointTopology(Quillon::String containerName = {});
    ~PointTopology() override;

    /// Follows the container's tile counts; new tiles have no elements.
    void update(Component const& container) override;
    /// Sets the tile count of one depth directly (new tiles have no elements).
    void setTileCount(int depth, std::int64_t count);
    /// Sets the element count of a tile; ignored for a tile that does not exist.
    void setElementCount(TreeIndex const& tile, std::uint64_t count);
    /// Follows a removal of tiles as channels do: the (from, to) pairs, then truncation to the
    /// tile counts of @p container.
    void updateTilesRemoved(std::span<TileMoveList const> moved, Component const& container);
    /// Follows a reordering of tiles.
    void updateTilesPermuted(std::span<TilePermutation const> permutation);

    void dump(std::ostream& out) const override;
    void memUse(std::size_t& used, std::size_t& reserved, bool recursive) const override;
    void copyTo(Quillon::Ptr<Component>& out) const override;
    std::uint64_t size() const override { return elementCount(-1); }
    bool empty() const override { return elementCount(-1) == 0; }
    std::uint64_t elementCount(int depth) const override;
    std::uint64_t elementCount(TreeIndex const& tile) const override;
    std::int64_t tileCount(int depth) const override;
    int minDepth() const override;

private:
    std::array<std::vector<std::uint64_t>, kDepthCount> mCounts;
};

extern template class HEXMOLD_API VoxelTopology<Traits24>;
extern template class HEXMOLD_API VoxelTopology<Traits55>;
extern template class HEXMOLD_API PointTopology<Traits24>;
extern template class HEXMOLD_API PointTopology<Traits55>;

} // namespace TVL::TileTree3D
