/// @file  analysis/coarsen_refine.cpp
/// @brief Coarsen-refine of a tile tree against a level set, ending in grading.
#include <hexmold/analysis/coarsen_refine.h>

#include <algorithm>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/canonical_order.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>
#include <iostream>
#include <span>
#include <sstream>
#include <utility>

namespace CoreGL::TileTree3D {

namespace {

using namespace TVL::TileTree3D;

/// The refinement pass: per tile and child slot the criterion says whether the child exists.
/// Missing wanted children go to the shared scratch tree, unwanted existing children to the
/// worker's removal lists. Only tiles that exist are asked: a new tile's children wait for the
/// next call, which keeps the work bounded by the tree in hand (the sampled field is coarse
/// where the tree is, and may want far more than it should one level further down).
template <typename Traits> class RefineVisitor final : public Visitor<Container<Traits>> {
    using Base = Visitor<Container<Traits>>;

public:
    RefineVisitor(Container<Traits>& scratch, LevelSetSamplerReader<Traits> const& reader,
                  float band, float coarsenBand, int flags, bool collectRemovals, int deepestParent)
        : mScratch(scratch.tileAccessor()), mReader(reader), mBand(band), mCoarsenBand(coarsenBand),
          mFlags(flags), mCollectRemovals(collectRemovals), mDeepestParent(deepestParent)
    {
    }
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;

    void beginTile(Tile<Traits> const& tile) override
    {
        if (TVL::bodyCancelled())
            return;
        int const d = tile.depth();
        if (d > mDeepestParent)
            return;
        for (int s = 0; s < Traits::kChildCount; ++s) {
            int3 const corner = tile.childTIJK(Tile<Traits>::slotCoordinates(s));
            std::int64_t const child = tile.childIndex(s);
            if (mReader.wantsTile(corner, d + 1, mBand)) {
                if (child < 0)
                    mScratch.addTile(corner, d + 1);
                continue;
            }
            if (child < 0 || !mCollectRemovals || mReader.outsideBox(corner, d + 1))
                continue;
            // Hysteresis: a child goes only when it is not wanted under the wider band either.
            if (mReader.wantsTile(corner, d + 1, mBand + mCoarsenBand))
                continue;
            if ((mFlags & kCoarsenRefineLeavesOnly) && !isLeafChild(tile, child))
                continue;
            mRemovals[d + 1].push_back(child);
        }
    }
    void join(Base const& other) override
    {
        auto const& o = static_cast<RefineVisitor const&>(other);
        for (int d = 0; d <= Traits::kMaxDepth; ++d)
            mRemovals[d].insert(mRemovals[d].end(), o.mRemovals[d].begin(), o.mRemovals[d].end());
    }
    Base* copy() const override { return new RefineVisitor(*this); }

    void setContainer(Container<Traits> const& c) { mContainer = &c; }
    TileIndexLists<Traits>& removals() { return mRemovals; }

private:
    bool isLeafChild(Tile<Traits> const& tile, std::int64_t child) const
    {
        return mContainer->tile(child, tile.depth() + 1).isLeaf();
    }
    typename Container<Traits>::TileAccessor mScratch;
    LevelSetSamplerReader<Traits> mReader; ///< the worker's own sampler
    float mBand;
    float mCoarsenBand;
    int mFlags;
    bool mCollectRemovals;
    int mDeepestParent;
    Container<Traits> const* mContainer = nullptr;
    TileIndexLists<Traits> mRemovals;
};

template <typename Traits>
void printTileCounts(char const* what, Container<Traits> const& container)
{
    std::ostringstream out;
    for (int d = 0; d <= Traits::kMaxDepth; ++d)
        out << what << ": numTiles at depth " << d << " == " << container.tileCount(d) << '\n';
    std::cout << out.str();
}

/// Calls @p update on each channel of @p object named in @p names (space separated).
template <typename F>
void forChannels(Quillon::String const& names, TVL::Object& object, F const& update)
{
    std::istringstream in{std::string(names)};
    std::string name;
    while (in >> name) {
        Quillon::String const key(name);
        if (!object.hasComponentFromName<ChannelBase>(key))
            continue;
        update(*static_cast<ChannelBase*>(object.mutableComponent(key)));
    }
}

} // namespace

template <typename Traits>
void coarsenRefine(float band, float coarsenBand, int flags, LevelSetSampler const& sampler,
                   Quillon::String const& containerName, Quillon::String const& topologyName,
                   TVL::Object& io_object, Quillon::String const& channelNames,
                   bbox<float3, float> const* box, std::vector<TileColor>* io_colors)
{
    static Quillon::String const propagateName("Numerics::coarsenRefine.propagate_colored_tiles");
    int const verbose = Logger::verboseLevel();
    if (verbose > 0)
        std::cout << "coarsenRefine.start\n";
    TVL::ComponentGuard<Container<Traits>> container(io_object, containerName);
    if (!container) {
        if (Logger::errorVerboseLevel() > 0)
            std::cerr << "coarsenRefine: unable to retrieve container\n";
        if (verbose > 0)
            std::cout << "coarsenRefine.end\n";
        return;
    }
    constexpr int kMaxDepth = Traits::kMaxDepth;
    if (verbose > 2)
        std::cout << "Tile tree graded before coarsen refine = "
                  << checkGraded(*container, 0, kMaxDepth) << '\n';

    // Defaults of the two bands, in voxels of the finest depth.
    float const h = container->voxelSize();
    float const defaultBand = 3.0f * h;
    float const defaultCoarsenBand = 0.91349995f * h;
    if (band < 0.0f)
        band = defaultBand;
    if (coarsenBand < 0.0f)
        coarsenBand = defaultCoarsenBand;
    bool const collectRemovals = (flags & kCoarsenRefineCoarsen) && io_colors == nullptr;

    if (verbose > 1)
        printTileCounts("Before refine", *container);

    TVL::ComponentGuard<VoxelTopology<Traits>> topology(io_object, topologyName);
    TileIndexLists<Traits> removals;
    bool added = false;
    if ((flags & (kCoarsenRefineCoarsen | kCoarsenRefineLeavesOnly)) && topology) {
        auto channel = io_object.component<VoxelChannel<Traits, float>>(sampler.channelName);
        if (channel) {
            Container<Traits>* scratch = container->threadLocalContainer(0);
            Container<Traits> ordered("", container->voxelSize());
            try {
                LevelSetSamplerReader<Traits> reader(sampler, *container, *topology, *channel, box);
                int const deepestParent = std::min(kMaxDepth - 1, 27);
                RefineVisitor<Traits> visitor(*scratch, reader, band, coarsenBand, flags,
                                              collectRemovals, deepestParent);
                visitor.setContainer(*container);
                std::as_const(*container)
                    .reduceInternalNonInlined(&visitor, kTraversalUnordered, kNoTile, 0,
                                              deepestParent, 26, 0, Traits::kRatio,
                                              kVisitInteriorVoxelNone);
                removals = std::move(visitor.removals());
                for (auto& list : removals)
                    std::sort(list.begin(), list.end());
                added = scratch->tileCount(-1) > 1;
                if (added)
                    addTilesInCanonicalOrder(*scratch, ordered);
            } catch (...) {
                container->freeThreadLocalContainer(scratch);
                throw;
            }
            container->freeThreadLocalContainer(scratch);
            channel = nullptr; // the channels are updated below: no second owner may hold one
            if (added)
                container->refine(ordered, nullptr, true);
        }
    }

    if (io_colors) {
        for (int d = 0; d <= kMaxDepth; ++d)
            io_colors[d].resize(static_cast<std::size_t>(container->tileCount(d)), TileColor{1, 0});
        auto const timer = Logger::timer(propagateName, nullptr);
        // Children first: a tile is coloured when one of its children is.
        container->traverse([] {}, [] {},
                            [io_colors](Tile<Traits> const& tile) {
                                for (int s = 0; s < Traits::kChildCount; ++s) {
                                    std::int64_t const c = tile.childIndex(s);
                                    if (c >= 0 && io_colors[tile.depth() + 1][c].colored) {
                                        io_colors[tile.depth()][tile.index()].colored = 1;
                                        return;
                                    }
                                }
                            },
                            [](Tile<Traits> const&) {}, NoVoxelVisit{}, kTraversalChildrenFirst,
                            kNoTile, 0, std::min(kMaxDepth - 1, 27), 1, true, 0, Traits::kRatio,
                            false, kMaxDepth - 3);
    }

    auto keepInStep = [&](auto const& update) {
        if (!topology)
            return;
        if (channelNames.empty())
            update(io_object, nullptr);
        else
            forChannels(channelNames, io_object, [&](ChannelBase& c) { update(io_object, &c); });
    };
    // The topology and the channels follow tiles that were added.
    auto followAddedTiles = [&] {
        topology->update(*container);
        keepInStep([&](TVL::Object& object, ChannelBase* c) {
            if (c)
                c->updateTilesAdded(*topology);
            else
                updateTilesAdded(*topology, object);
        });
    };
    if (added && topology)
        followAddedTiles();
    if (verbose > 1)
        printTileCounts("After refine", *container);

    if (collectRemovals) {
        TileMoveLists<Traits> moved;
        container->removeTiles(removals, moved, true);
        if (topology) {
            topology->update(*container);
            std::span<TileMoveList const> const movedSpan(moved.data(), moved.size());
            keepInStep([&](TVL::Object& object, ChannelBase* c) {
                if (c)
                    c->updateTilesRemoved(movedSpan, *topology);
                else
                    updateTilesRemoved(movedSpan, *topology, object);
            });
        }
        if (verbose > 1)
            printTileCounts("After coarsen", *container);
        if (verbose > 2)
            std::cout << "Tile tree graded after coarsen refine = "
                      << checkGraded(*container, 0, kMaxDepth) << '\n';
    }

    int coarsestDepth = 0;
    if (box) {
        float3 const bounds[2] = {box->min, box->max};
        coarsestDepth = coarsestDepthFromDimensions(bounds, container->voxelSize());
    }
    if (verbose > 1)
        std::cout << "coarsenRefine.coarsestDepth = " << coarsestDepth << '\n';
    gradeTileTree(*container, nullptr, io_colors, coarsestDepth, 28);
    if (topology)
        followAddedTiles();
    if (verbose > 2)
        std::cout << "Tile tree graded after grade call = " << checkGraded(*container, 0, kMaxDepth)
                  << '\n';
    if (verbose > 0)
        std::cout << "coarsenRefine.end\n";
}

#define HEXMOLD_INSTANTIATE_COARSEN_REFINE(TR)                                                     \
    template HEXMOLD_API decltype(coarsenRefine<TR>) coarsenRefine<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_COARSEN_REFINE)
#undef HEXMOLD_INSTANTIATE_COARSEN_REFINE

} // namespace CoreGL::TileTree3D
