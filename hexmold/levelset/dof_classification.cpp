/// @file  levelset/dof_classification.cpp
/// @brief The DOF classification: the per-tile rule, the walk over the tree, and the form on an
///        object.
#include <hexmold/levelset/dof_classification.h>

#include <cstddef>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/visitor.h>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace TVL::TileTree3D;

/// The classification of one tile: `begin` clears the block and marks the hanging voxels, then
/// `voxel` classifies the voxels in the order k outer, j, i inner.
template <typename Traits> class TileClassifier {
public:
    static constexpr int W = Traits::kTileWidth;     ///< voxels across a tile
    static constexpr int S = Traits::kVoxelsPerSlot; ///< voxels per child slot along an axis
    static constexpr int C = Traits::kRatio;         ///< child voxels per voxel along an axis
    static constexpr std::size_t kBlockSize = std::size_t(W) * W * W;
    using Accessor = typename Container<Traits>::ConstTileAccessor;
    using DOFChannel = VoxelChannel<Traits, short>;

    explicit TileClassifier(DOFChannel& dof) : mDOF(&dof) {}

    /// Steps 1 and 2. @return false when the channel has no block for @p tile.
    bool begin(Tile<Traits> const& tile, Accessor& accessor)
    {
        mBlock = mDOF->tileData(tile.treeIndex());
        if (mBlock.size() != kBlockSize) {
            mBlock = TileData<short, W, 0, 0>();
            return false;
        }
        mBlock.set(0);
        // Only the low sides: the high sides of a tile are the low sides of its neighbours.
        auto hangs = [&](int direction) {
            return accessor.treeIndexNeighbor(tile, direction).depth < tile.depth();
        };
        if (hangs(4)) // -x: the face i = 0
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    mBlock(0, j, k) = kDOFHanging;
        if (hangs(10)) // -y: the face j = 0
            for (int k = 0; k < W; ++k)
                for (int i = 0; i < W; ++i)
                    mBlock(i, 0, k) = kDOFHanging;
        if (hangs(12)) // -z: the face k = 0
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i)
                    mBlock(i, j, 0) = kDOFHanging;
        if (hangs(1)) // (-x, -y): the edge i = 0, j = 0
            for (int k = 0; k < W; ++k)
                mBlock(0, 0, k) = kDOFHanging;
        if (hangs(3)) // (-x, -z): the edge i = 0, k = 0
            for (int j = 0; j < W; ++j)
                mBlock(0, j, 0) = kDOFHanging;
        if (hangs(9)) // (-y, -z): the edge j = 0, k = 0
            for (int i = 0; i < W; ++i)
                mBlock(i, 0, 0) = kDOFHanging;
        if (hangs(0)) // (-x, -y, -z): the corner voxel
            mBlock(0, 0, 0) = kDOFHanging;
        return true;
    }

    /// Steps 3 to 6 for the voxel (i, j, k) of the tile given to `begin`.
    void voxel(Tile<Traits> const& tile, Accessor& accessor, int i, int j, int k)
    {
        short& flags = mBlock(i, j, k);
        bool const hanging = (flags & kDOFHanging) != 0;
        bool const deepest = tile.depth() == Traits::kMaxDepth;
        bool const leaf = deepest || tile.isLeaf(i, j, k);
        if (leaf) {
            if (!hanging)
                flags = kDOFSolved;
            if (deepest || !refinedCellBelow(tile, accessor, i, j, k))
                flags = short(flags | kDOFUnrefinedBlock);
            return;
        }
        if (hanging)
            return;
        // The child voxel at the low corner of the region this voxel covers.
        std::int64_t const child = tile.childIndex(i / S, j / S, k / S);
        auto const childBlock = mDOF->tileData(child, tile.depth() + 1);
        bool childHangs = false;
        if (childBlock.size() == kBlockSize)
            childHangs = (childBlock((i % S) * C, (j % S) * C, (k % S) * C) & kDOFHanging) != 0;
        flags = childHangs ? kDOFSolved : kDOFFromChild;
    }

    void end() { mBlock = TileData<short, W, 0, 0>(); }

private:
    /// Whether one of the seven voxels of the block (i-1..i, j-1..j, k-1..k) other than (i, j, k)
    /// is covered by a child; searched k outer, j, i inner, up to the first hit.
    bool refinedCellBelow(Tile<Traits> const& tile, Accessor& accessor, int i, int j, int k) const
    {
        for (int kk = k - 1; kk <= k; ++kk)
            for (int jj = j - 1; jj <= j; ++jj)
                for (int ii = i - 1; ii <= i; ++ii) {
                    if (ii == i && jj == j && kk == k)
                        continue;
                    if (ii >= 0 && jj >= 0 && kk >= 0) {
                        if (!tile.isLeaf(ii, jj, kk))
                            return true;
                        continue;
                    }
                    int const direction = TVL::TileTree3D::neighborDirection(
                        -int(ii < 0), -int(jj < 0), -int(kk < 0));
                    Tile<Traits> const& neighbour = accessor.tileNeighbor(tile, direction);
                    if (!neighbour.valid() || neighbour.depth() != tile.depth())
                        continue;
                    // A tile-space point inside voxel (ii, jj, kk), which lies in the neighbour.
                    std::int64_t const w = tile.voxelDataWidth();
                    int3 const point{int((w - 1) * i + tile.ti() + ii),
                                     int((w - 1) * j + tile.tj() + jj),
                                     int((w - 1) * k + tile.tk() + kk)};
                    int3 const slot = neighbour.childIJK(point);
                    if (!neighbour.isLeaf(Tile<Traits>::slotNumber(slot.x, slot.y, slot.z)))
                        return true;
                }
        return false;
    }

    DOFChannel* mDOF;
    TileData<short, W, 0, 0> mBlock;
};

/// The walk's visitor: one classifier and one accessor per worker.
template <typename Traits> class ClassificationVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    ClassificationVisitor(Container<Traits> const& container, VoxelChannel<Traits, short>& dof)
        : mAccessor(container.tileAccessor()), mClassifier(dof)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        mActive = mClassifier.begin(tile, mAccessor);
    }
    bool visitInteriorVoxel(Tile<Traits> const& tile, int3 const& ijk) override
    {
        if (!mActive)
            return false;
        mClassifier.voxel(tile, mAccessor, ijk.x, ijk.y, ijk.z);
        return true;
    }
    void endTile(Tile<Traits> const&) override { mClassifier.end(); }
    Base* copy() const override { return new ClassificationVisitor(*this); }

private:
    typename Container<Traits>::ConstTileAccessor mAccessor;
    TileClassifier<Traits> mClassifier;
    bool mActive = false;
};

} // namespace

template <typename Traits>
void classifyTileDegreesOfFreedom(Tile<Traits> const& tile,
                                  typename Container<Traits>::ConstTileAccessor& accessor,
                                  VoxelChannel<Traits, short>& io_dof)
{
    constexpr int W = Traits::kTileWidth;
    TileClassifier<Traits> classifier(io_dof);
    if (!classifier.begin(tile, accessor))
        return;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                classifier.voxel(tile, accessor, i, j, k);
}

template <typename Traits>
void classifyDegreesOfFreedom(Container<Traits> const& container,
                              VoxelChannel<Traits, short>& io_dof)
{
    ClassificationVisitor<Traits> visitor(container, io_dof);
    // Children first: a covered voxel reads the finished flags of its child.
    container.traverseInternalNonInlined(&visitor, kTraversalChildrenFirst, kNoTile, 0,
                                         Traits::kMaxDepth, 1, true, 0, Traits::kRatio,
                                         kVisitInteriorVoxelAll, Traits::kMaxDepth - 3);
}

template <typename Traits>
void classifyDegreesOfFreedom(Quillon::String const& channelName, TVL::Object& io_object)
{
    // Put back in the reverse order, also while an exception unwinds.
    TVL::ComponentGuard<Container<Traits>> container(io_object, Tavrel::Geometry::sVoxelTileTree);
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(io_object, Tavrel::Geometry::sVoxelComp);
    if (!container || !topology)
        return;
    if (!io_object.hasComponentFromName(channelName))
        Command::createChannel<short, Traits::kRatio, Traits::kTileWidth, Traits::kTileWidth, 0>(
            channelName, *topology, io_object, short(0), kDataElementInitializerDefaultValue, 0,
            Traits::kMaxDepth);
    TVL::ComponentGuard<VoxelChannel<Traits, short>> dof(io_object, channelName);
    if (!dof)
        return;
    classifyDegreesOfFreedom(*container, *dof);
}

#define HEXMOLD_INSTANTIATE_DOF(TR)                                                                \
    template HEXMOLD_API void classifyDegreesOfFreedom<TR>(Container<TR> const&,                   \
                                                           VoxelChannel<TR, short>&);              \
    template HEXMOLD_API void classifyDegreesOfFreedom<TR>(Quillon::String const&, TVL::Object&);  \
    template HEXMOLD_API decltype(classifyTileDegreesOfFreedom<TR>)                                \
        classifyTileDegreesOfFreedom<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_DOF)
#undef HEXMOLD_INSTANTIATE_DOF

} // namespace VolumeGL::TileTree3D::LevelSet
