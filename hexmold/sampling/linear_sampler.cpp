/// @file  sampling/linear_sampler.cpp
/// @brief The sampler interface's instances and `ensureSamplerAssumptions`.
#include <hexmold/sampling/linear_sampler.h>

#include <cstdint>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/parallel.h>
#include <hexmold/substrate/scope_guard.h>
#include <hexmold/substrate/type_lists.h>

namespace Geometry::Volume {

template <typename T> Sampler<T>::~Sampler() = default;

#define HEXMOLD_SAMPLER_INTERFACE(T) template class Sampler<T>;
HEXMOLD_FOR_EACH_SAMPLER_VALUE(HEXMOLD_SAMPLER_INTERFACE)
#undef HEXMOLD_SAMPLER_INTERFACE

} // namespace Geometry::Volume

namespace CoreGL::TileTree3D {

namespace {

using namespace TVL::TileTree3D;

/// The body of the deterministic reduction that asks, for every tile with children in its range,
/// for the 3 x 3 x 3 block of tiles of its depth around it. Workers add to one scratch tree
/// through their own accessors; there is nothing to join.
template <typename Traits> class RefineReduction {
public:
    RefineReduction(Container<Traits> const& source, Container<Traits>& work, int depth)
        : mSource(&source), mWork(&work), mDepth(depth)
    {
    }
    RefineReduction(RefineReduction& other, TVL::Parallel::split)
        : mSource(other.mSource), mWork(other.mWork), mDepth(other.mDepth)
    {
    }

    void operator()(TVL::Parallel::blocked_range<std::int64_t> const& range)
    {
        if (TVL::bodyCancelled())
            return;
        auto accessor = mWork->tileAccessor();
        int const w = static_cast<int>(Container<Traits>::tileVoxelWidth(mDepth));
        for (std::int64_t t = range.begin(); t != range.end(); ++t) {
            Tile<Traits> const& tile = mSource->tile(t, mDepth);
            // The walk of a range stops at its first tile without children (with ranges of one
            // tile, as the grain of 1 gives, that tile is simply passed over).
            if (tile.isLeaf())
                break;
            int3 const o = tile.tijk();
            accessor.addTiles(o - w, o + w + 1, mDepth);
        }
    }
    void join(RefineReduction&) {}

private:
    Container<Traits> const* mSource;
    Container<Traits>* mWork;
    int mDepth;
};

} // namespace

template <typename Traits>
void ensureSamplerAssumptions(Container<Traits>& io_container,
                              TileCornerLists<Traits>* out_newTiles)
{
    using C = Container<Traits>;
    // From deep to shallow: a tile added at depth d gives its parent a child, seen at d - 1.
    for (int d = C::maxDepth() - 1; d >= 1; --d) {
        std::int64_t const count = io_container.tileCount(d);
        if (count == 0)
            continue;
        C* work = io_container.threadLocalContainer(0);
        auto release = TVL::onScopeExit([&] { io_container.freeThreadLocalContainer(work); });
        {
            auto accessor = work->tileAccessor();
            accessor.addTile(0, 0, 0, 0);
        }
        RefineReduction<Traits> body(io_container, *work, d);
        TVL::Parallel::task_group_context context;
        TVL::Parallel::isolate([&] {
            TVL::Parallel::parallel_deterministic_reduce(
                TVL::Parallel::blocked_range<std::int64_t>(0, count, 1), body,
                TVL::Parallel::simple_partitioner(), context);
        });
        TVL::throwIfJobCancelled();
        io_container.refine(*work, out_newTiles, true);
    }
}

template HEXMOLD_API void ensureSamplerAssumptions<Traits24>(Container<Traits24>&,
                                                             TileCornerLists<Traits24>*);
template HEXMOLD_API void ensureSamplerAssumptions<Traits55>(Container<Traits55>&,
                                                             TileCornerLists<Traits55>*);

} // namespace CoreGL::TileTree3D
