/// @file  analysis/grade_tile_tree.cpp
/// @brief Grading of the tile tree, its check, and the coarsest depth of a domain box.
#include <hexmold/analysis/grade_tile_tree.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/canonical_order.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>
#include <iostream>
#include <sstream>
#include <utility>

namespace CoreGL::TileTree3D {

namespace {

using namespace TVL::TileTree3D;

/// The offset of each `NeighborDirection` in tile steps.
constexpr int3 directionOffset(int direction)
{
    return {neighborDx(direction), neighborDy(direction), neighborDz(direction)};
}

/// Marks a colour byte; concurrent writers all write 1, so relaxed stores suffice.
inline void setColored(TileColor& color)
{
    std::atomic_ref<unsigned char>(color.colored).store(1, std::memory_order_relaxed);
}

/// The per-depth grading pass: each worker adds the missing coarser tiles through its own
/// accessor on the shared scratch tree.
template <typename Traits> class GradingVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    GradingVisitor(Container<Traits>& scratch, Container<Traits> const& container,
                   std::vector<TileColor> const* localColors, std::vector<TileColor>* colors)
        : mScratch(&scratch), mContainer(&container), mScratchAccessor(scratch.tileAccessor()),
          mAccessor(container.tileAccessor()), mLocalColors(localColors), mColors(colors),
          mUseColors(colors != nullptr)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        int const d = tile.depth();
        if (mUseColors && (*mLocalColors)[tile.index()].colored == 0)
            return;
        std::int64_t const w = tile.tileVoxelWidth();
        for (int direction = 0; direction < 27; ++direction) {
            if (direction == 13)
                continue;
            Tile<Traits> const& n = mAccessor.tileNeighbor(tile, direction);
            if (!n.valid())
                continue;
            if (n.depth() < d - 1) {
                int3 const o = directionOffset(direction);
                mScratchAccessor.addTile(tile.ti() + o.x * w, tile.tj() + o.y * w,
                                         tile.tk() + o.z * w, d - 1);
            } else if (mUseColors) {
                // The tiles next to a coloured tile take part in grading the next depth up.
                if (n.depth() == d && (*mLocalColors)[n.index()].colored == 0 && n.parent() >= 0)
                    setColored(mColors[d - 1][n.parent()]);
                else if (n.depth() == d - 1)
                    setColored(mColors[d - 1][n.index()]);
            }
        }
    }
    Base* copy() const override { return new GradingVisitor(*this); }

private:
    Container<Traits>* mScratch;
    Container<Traits> const* mContainer;
    typename Container<Traits>::TileAccessor mScratchAccessor;
    typename Container<Traits>::ConstTileAccessor mAccessor;
    std::vector<TileColor> const* mLocalColors; ///< colours of the depth in hand, as it began
    std::vector<TileColor>* mColors;            ///< the caller's colours, one vector per depth
    bool mUseColors;
};

/// The check's reduction: the flag falls at the first offence, which is printed.
template <typename Traits> class GradedCheckVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    GradedCheckVisitor(Container<Traits> const& container, int minDepth)
        : mAccessor(container.tileAccessor()), mMinDepth(minDepth)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        for (int direction = 0; direction < 27 && mGraded; ++direction) {
            if (direction == 13)
                continue;
            Tile<Traits> const& n = mAccessor.tileNeighbor(tile, direction);
            if (!n.valid() || n.depth() >= tile.depth() - 1 || n.depth() < mMinDepth)
                continue;
            if (Logger::errorVerboseLevel() > 0) {
                std::ostringstream line;
                line << "tile " << tile.ti() << ", " << tile.tj() << ", " << tile.tk()
                     << " at depth " << tile.depth() << " is not graded in direction " << direction
                     << " - The neighbor " << n.ti() << ", " << n.tj() << ", " << n.tk()
                     << " is at depth " << n.depth() << '\n';
                std::cerr << line.str();
            }
            mGraded = false;
        }
    }
    void join(Base const& other) override
    {
        mGraded = mGraded && static_cast<GradedCheckVisitor const&>(other).mGraded;
    }
    Base* copy() const override { return new GradedCheckVisitor(*this); }
    bool graded() const { return mGraded; }

private:
    typename Container<Traits>::ConstTileAccessor mAccessor;
    int mMinDepth;
    bool mGraded = true;
};

} // namespace

template <typename Traits>
void gradeTileTree(Container<Traits>& io_container, TileCornerLists<Traits>* io_newTiles,
                   std::vector<TileColor>* io_colors, int coarsestDepth, int finestDepth)
{
    static Quillon::String const timerName("Fluids::coarsenRefine.grade_tile_tree");
    auto const timer = Logger::timer(timerName, nullptr);
    // Depths 0 and 1 are never graded.
    int const lowest = std::max(coarsestDepth + 1, 2);
    finestDepth = std::min(finestDepth, Traits::kMaxDepth);
    if (finestDepth < lowest)
        return;

    bool changed = false;
    std::vector<TileColor> localColors;
    for (int d = finestDepth; d >= lowest; --d) {
        if (io_container.tileCount(d) == 0)
            continue;
        Container<Traits>* scratch = io_container.threadLocalContainer(0);
        if (io_colors) {
            localColors = io_colors[d];
            localColors.resize(static_cast<std::size_t>(io_container.tileCount(d)));
            for (int q = 0; q <= Traits::kMaxDepth; ++q)
                io_colors[q].resize(static_cast<std::size_t>(io_container.tileCount(q)));
        }
        GradingVisitor<Traits> visitor(*scratch, io_container, io_colors ? &localColors : nullptr,
                                       io_colors);
        try {
            std::as_const(io_container)
                .reduceInternalNonInlined(&visitor, kTraversalClampedRange, kNoTile, d, d, 50, 0,
                                          Traits::kRatio, kVisitInteriorVoxelNone);
        } catch (...) {
            io_container.freeThreadLocalContainer(scratch);
            throw;
        }
        // The scratch tree's root does not count as an addition.
        if (scratch->tileCount(-1) > 1) {
            changed = true;
            Container<Traits> ordered("", io_container.voxelSize());
            addTilesInCanonicalOrder(*scratch, ordered);
            TileCornerLists<Traits> added;
            io_container.refine(ordered, io_newTiles ? &added : nullptr, true);
            if (io_newTiles)
                for (int q = 0; q <= Traits::kMaxDepth; ++q) {
                    auto& list = added[q];
                    std::sort(list.begin(), list.end(), [](int3 const& a, int3 const& b) {
                        return std::tie(a.z, a.y, a.x) < std::tie(b.z, b.y, b.x);
                    });
                    (*io_newTiles)[q].insert((*io_newTiles)[q].end(), list.begin(), list.end());
                }
            if (io_colors)
                for (int q = 0; q <= Traits::kMaxDepth; ++q)
                    io_colors[q].resize(static_cast<std::size_t>(io_container.tileCount(q)),
                                        TileColor{1, 0});
        }
        io_container.freeThreadLocalContainer(scratch);
    }
    // An empty merge leaves the indices rebuilt after the last change.
    if (changed) {
        Container<Traits> const empty("", io_container.voxelSize());
        io_container.refine(empty, nullptr, true);
    }
}

int coarsestDepthFromDimensions(Tavrel::Math::float3 const bounds[2], float voxelSize)
{
    double lo[3], hi[3];
    for (int a = 0; a < 3; ++a) {
        lo[a] = std::floor(bounds[0][a] / voxelSize);
        hi[a] = std::ceil(bounds[1][a] / voxelSize);
    }
    if (!(voxelSize > 0.0f) || lo[0] > hi[0] || lo[1] > hi[1] || lo[2] > hi[2] ||
        std::isnan(lo[0] + lo[1] + lo[2]) || std::isnan(hi[0] + hi[1] + hi[2])) {
        if (Logger::verboseLevel() > 0) {
            std::ostringstream line;
            line << "Invalid user-input tile domain dimensions: (" << lo[0] << ", " << lo[1] << ", "
                 << lo[2] << ") to (" << hi[0] << ", " << hi[1] << ", " << hi[2] << ")\n";
            std::cout << line.str();
        }
        return -1;
    }
    double const extent = std::min({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    // A flat box (extent 0) has no coarsest depth above the root: log2 would be minus infinity.
    if (!(extent >= 1.0))
        return 28;
    return std::max(0, 28 - static_cast<int>(std::floor(std::log2(extent))));
}

template <typename Traits>
bool checkGraded(Container<Traits> const& container, int minDepth, int maxDepth)
{
    GradedCheckVisitor<Traits> visitor(container, minDepth);
    container.reduceInternalNonInlined(&visitor, kTraversalUnordered, kNoTile,
                                       std::max(minDepth, 0), std::min(maxDepth, Traits::kMaxDepth),
                                       50, 0, Traits::kRatio, kVisitInteriorVoxelNone);
    return visitor.graded();
}

#define HEXMOLD_INSTANTIATE_GRADING(TR)                                                            \
    template HEXMOLD_API decltype(gradeTileTree<TR>) gradeTileTree<TR>;                            \
    template HEXMOLD_API decltype(checkGraded<TR>) checkGraded<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_GRADING)
#undef HEXMOLD_INSTANTIATE_GRADING

} // namespace CoreGL::TileTree3D
