/// @file  levelset/dilate_erode.cpp
/// @brief Dilation and erosion of the tiles around a level set.
#include <hexmold/levelset/dilate_erode.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>
#include <hexmold/diagnostics/logger.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/canonical_order.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace TVL::TileTree3D;

constexpr float kSqrt3 = 1.7320508f; ///< diagonal of a unit cube, single precision
constexpr float kSafety = 1.01f;     ///< widens every radius and threshold by 1 %

/// Whether one of the @p n values, read in storage order (k outer, then j, i inner), has a
/// magnitude below @p threshold; stops at the first.
inline bool anyBelow(float const* values, std::size_t n, float threshold)
{
    for (std::size_t v = 0; v < n; ++v)
        if (std::abs(values[v]) < threshold) return true;
    return false;
}

/// Floor division remainder into [0, t) of a tile-space coordinate shifted by the centre offset.
template <typename Traits> inline std::int64_t snapDown(std::int64_t x, std::int64_t t)
{
    return x - (x + Traits::kCentreOffset) % t;
}

/// The dilation reduction: each worker grows a scratch tree of its own, and the scratch trees
/// are merged in the join.
template <typename Traits> class DilateVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    DilateVisitor(float bandwidth, float voxelSize, VoxelChannel<Traits, float> const& distance)
        : mBandwidth(bandwidth), mVoxelSize(voxelSize), mDistance(&distance), mScratch(freshTree(voxelSize)),
          mAccessor(mScratch->tileAccessor())
    {
    }
    DilateVisitor(DilateVisitor const& other)
        : Base(other), mBandwidth(other.mBandwidth), mVoxelSize(other.mVoxelSize), mDistance(other.mDistance),
          mScratch(freshTree(other.mVoxelSize)), mAccessor(mScratch->tileAccessor())
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        if (TVL::bodyCancelled()) return;
        auto const block = mDistance->tileData(tile.treeIndex());
        if (block.empty()) return;
        int const d = tile.depth();
        float const surface = float(tile.voxelDataWidth()) * mVoxelSize * kSqrt3 * kSafety;
        if (!anyBelow(block.data(), block.size(), surface)) return;

        std::int64_t const t = tile.tileVoxelWidth();
        // Corners, centre and diagonal in finest voxels; the centre in double precision, since
        // tile-space coordinates need up to 30 bits.
        double const c[3] = {tile.ti() + 0.5 * double(t - 1), tile.tj() + 0.5 * double(t - 1),
                             tile.tk() + 0.5 * double(t - 1)};
        float const e = float(t - 1);
        float const diagonal = std::sqrt(e * e + e * e + e * e);
        float const radius = diagonal * kSafety * 0.5f + mBandwidth / mVoxelSize;
        std::int64_t lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            lo[a] = snapDown<Traits>(static_cast<std::int64_t>(std::floor(c[a] - radius)), t);
            hi[a] = static_cast<std::int64_t>(std::ceil(c[a] + radius));
        }
        double const half = 0.5 * double(t);
        for (std::int64_t k = lo[2]; k <= hi[2]; k += t)
            for (std::int64_t j = lo[1]; j <= hi[1]; j += t)
                for (std::int64_t i = lo[0]; i <= hi[0]; i += t) {
                    if (!Container<Traits>::inDomain(i, j, k)) continue;
                    double const dx = c[0] - (i + half), dy = c[1] - (j + half), dz = c[2] - (k + half);
                    if (double(radius) > std::sqrt(dx * dx + dy * dy + dz * dz)) mAccessor.addTile(i, j, k, d);
                }
    }
    void join(Base const& other) override
    {
        auto const& o = static_cast<DilateVisitor const&>(other);
        if (o.mScratch->tileCount(-1) > 1) mScratch->refine(*o.mScratch, nullptr, true);
        mAccessor = mScratch->tileAccessor();
    }
    Base* copy() const override { return new DilateVisitor(*this); }

    Container<Traits> const& scratch() const { return *mScratch; }

private:
    static std::unique_ptr<Container<Traits>> freshTree(float voxelSize)
    {
        auto tree = std::make_unique<Container<Traits>>("", voxelSize);
        tree->tileAccessor().addTile(0, 0, 0, 0);
        return tree;
    }

    float mBandwidth;
    float mVoxelSize;
    VoxelChannel<Traits, float> const* mDistance;
    std::unique_ptr<Container<Traits>> mScratch;
    typename Container<Traits>::TileAccessor mAccessor;
};

/// The erosion reduction: per worker, per depth, the tiles that are far from the surface.
template <typename Traits> class ErodeVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    ErodeVisitor(float bandwidth, float voxelSize, VoxelChannel<Traits, float> const& distance)
        : mBandwidth(bandwidth), mVoxelSize(voxelSize), mDistance(&distance)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        if (TVL::bodyCancelled()) return;
        auto const block = mDistance->tileData(tile.treeIndex());
        if (block.empty()) return;
        // The tile's whole diagonal, not a voxel's: kept in this order of multiplication.
        float const threshold = mVoxelSize * kSafety * kSqrt3 * float(tile.tileVoxelWidth()) + mBandwidth;
        if (!anyBelow(block.data(), block.size(), threshold)) mFar[tile.depth()].push_back(tile.index());
    }
    void join(Base const& other) override
    {
        auto const& o = static_cast<ErodeVisitor const&>(other);
        for (int d = 0; d <= Traits::kMaxDepth; ++d) mFar[d].insert(mFar[d].end(), o.mFar[d].begin(), o.mFar[d].end());
    }
    Base* copy() const override { return new ErodeVisitor(*this); }

    TileIndexLists<Traits>& far() { return mFar; }

private:
    float mBandwidth;
    float mVoxelSize;
    VoxelChannel<Traits, float> const* mDistance;
    TileIndexLists<Traits> mFar;
};

} // namespace

template <typename Traits, typename Logger>
void dilate(float bandwidth, Container<Traits>& io_container, VoxelChannel<Traits, float>& distance,
            TileCornerLists<Traits>& out_newTiles, Logger const& logger, int minDepth, int maxDepth)
{
    static Quillon::String const reduceName("Volume::resize_level_set.dilate.reduce");
    static Quillon::String const refineName("Volume::resize_level_set.dilate.refine");
    static Quillon::String const neighborsName("Volume::resize_level_set.dilate.precompute_neighbors");
    if (CoreGL::Logger::verboseLevel() > 0) std::cout << "levelset_dilate.begin\n";
    minDepth = std::max(minDepth, 0);
    maxDepth = std::min(maxDepth, Traits::kMaxDepth);
    Container<Traits> ordered("", io_container.voxelSize());
    {
        auto const timer = CoreGL::Logger::timer(reduceName, logger.services());
        DilateVisitor<Traits> visitor(bandwidth, io_container.voxelSize(), distance);
        std::as_const(io_container).reduceInternalNonInlined(&visitor, kTraversalUnordered, kNoTile, minDepth, maxDepth, 50, 0,
                                              Traits::kRatio, kVisitInteriorVoxelNone);
        if (visitor.scratch().tileCount(-1) > 1) addTilesInCanonicalOrder(visitor.scratch(), ordered);
    }
    std::int64_t const before = io_container.tileCount(-1);
    {
        auto const timer = CoreGL::Logger::timer(refineName, logger.services());
        if (ordered.tileCount(-1) > 0) io_container.refine(ordered, &out_newTiles, true);
    }
    logger.info("Added " + std::to_string(io_container.tileCount(-1) - before) + " tiles.");
    {
        auto const timer = CoreGL::Logger::timer(neighborsName, logger.services());
        io_container.clearPrecomputedTileNeighbors();
        io_container.precomputeTileNeighbors();
    }
    if (CoreGL::Logger::verboseLevel() > 0) std::cout << "levelset_dilate.end\n";
}

template <typename Traits, typename Logger>
void erode(float bandwidth, Container<Traits>& io_container, VoxelChannel<Traits, float>& io_distance,
           Logger const& logger, TileMoveLists<Traits>* out_moved)
{
    ErodeVisitor<Traits> visitor(bandwidth, io_container.voxelSize(), io_distance);
    std::as_const(io_container).reduceInternalNonInlined(&visitor, kTraversalUnordered, kNoTile, 0, Traits::kMaxDepth, 50, 0,
                                          Traits::kRatio, kVisitInteriorVoxelNone);
    std::int64_t const before = io_container.tileCount(-1);
    TileMoveLists<Traits> moved;
    io_container.tileAccessor().removeTiles(visitor.far(), moved, true);
    io_distance.updateTilesRemoved(std::span<TileMoveList const>(moved.data(), moved.size()), io_container);
    logger.info("Removed " + std::to_string(before - io_container.tileCount(-1)) + " tiles.");
    io_container.clearPrecomputedTileNeighbors();
    io_container.precomputeTileNeighbors();
    if (out_moved) *out_moved = std::move(moved);
}

#define HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, LG)                                                   \
    template HEXMOLD_API decltype(dilate<TR, LG>) dilate<TR, LG>;                                  \
    template HEXMOLD_API decltype(erode<TR, LG>) erode<TR, LG>;
#define HEXMOLD_INSTANTIATE_DILATE_ERODE_LOGGERS(TR)                                               \
    HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, CoreGL::QuillonLogger)                                    \
    HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, CoreGL::ConsoleLogger)                                    \
    HEXMOLD_INSTANTIATE_DILATE_ERODE(TR, CoreGL::NOPLogger)
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_DILATE_ERODE_LOGGERS)
#undef HEXMOLD_INSTANTIATE_DILATE_ERODE_LOGGERS
#undef HEXMOLD_INSTANTIATE_DILATE_ERODE

} // namespace VolumeGL::TileTree3D::LevelSet
