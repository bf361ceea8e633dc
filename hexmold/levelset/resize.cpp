/// @file  levelset/resize.cpp
/// @brief Resize of the narrow band of a level set: dilate, initialise, erode, redistance.
#include <hexmold/levelset/resize.h>

#include <cfloat>
#include <cmath>
#include <hexmold/levelset/detail/zero_crossing.h>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/logging/logger.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/scratch_channel.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>
#include <iostream>
#include <span>
#include <utility>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace TVL::TileTree3D;

/// Timer names, built once.
struct Stages {
    Quillon::String dilate, initializeTiles, erode, redistance, redistanceName;
    Stages()
    {
        Quillon::String const prefix = "Volume::resize_level_set";
        dilate = prefix + ".dilate";
        initializeTiles = prefix + ".initialize_tiles";
        erode = prefix + ".erode";
        redistance = prefix + ".redistance";
        redistanceName = "Volume::LevelSet::redistance";
    }
};

/// The resize of one tree type; does nothing when the object holds no such tree.
template <typename Traits, typename Logger>
void resizeBody(float bandwidth, TVL::Object& object, Quillon::String const& tileTreeName,
                Quillon::String const& topologyName, Quillon::String const& distanceChannelName,
                Logger const& logger, Stages const& stages)
{
    using Distance = VoxelChannel<Traits, float>;
    // Taken in this order; whatever was taken returns when a later one is missing.
    TVL::ComponentGuard<Container<Traits>> container(object, tileTreeName);
    if (!container)
        return;
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(object, topologyName);
    if (!topology)
        return;
    auto distance = std::make_unique<TVL::ComponentGuard<Distance>>(object, distanceChannelName);
    if (!*distance)
        return;

    TileCornerLists<Traits> newTiles;
    {
        auto const timer = CoreGL::Logger::timer(stages.dilate, logger.services());
        dilate(bandwidth, *container, **distance, newTiles, logger, 0, Traits::kMaxDepth);
        topology->update(*container);
        (*distance)->update(*topology);
    }
    VoxelTopology<Traits> const& topologyInObject = *topology;
    topology.restore();
    // Back in the object, so that the initialisation reaches this channel with all others.
    distance->restore();
    {
        auto const timer = CoreGL::Logger::timer(stages.initializeTiles, logger.services());
        updateTilesAdded(topologyInObject, object);
        initializeTileData(*container, newTiles, object);
    }
    distance = std::make_unique<TVL::ComponentGuard<Distance>>(object, distanceChannelName);
    if (!*distance)
        return;
    {
        auto const timer = CoreGL::Logger::timer(stages.erode, logger.services());
        // Erosion hands back no pairs: they come from the layout before it.
        TileLayout<Traits> const layout = recordTileLayout(std::as_const(*container));
        erode(bandwidth, *container, **distance, logger);
        TileMoveLists<Traits> const moved = tileMovesSince(layout, std::as_const(*container));
        std::span<TileMoveList const> const pairs(moved.data(), moved.size());
        TVL::ComponentGuard<VoxelTopology<Traits>> again(object, topologyName);
        if (again) {
            again->update(*container);
            (*distance)->updateTilesRemoved(pairs, *again);
            updateTilesRemoved(pairs, *again, object);
        }
    }

    logger.info("Redistancing distance channel.");
    {
        auto const timer = CoreGL::Logger::timer(stages.redistance, logger.services());
        ResizePasses const passes = resizePasses(bandwidth, container->voxelSize());
        if (CoreGL::Logger::verboseLevel() > 1)
            std::cout << "maxNumPreSmoothingPasses = " << passes.maxNumPreSmoothingPasses << '\n'
                      << "maxNumPostSmoothingPasses = " << passes.maxNumPostSmoothingPasses << '\n'
                      << "performCoalescedRedistance = " << passes.performCoalescedRedistance
                      << '\n';
        auto const topologyPtr = object.component<VoxelTopology<Traits>>(topologyName);
        if (!topologyPtr)
            return;
        // The classical recursion runs here: a DOF channel in the object is not passed on.
        auto valueTypesPtr = scratchChannel<VoxelChannel<Traits, unsigned char>>(
            *topologyPtr, (unsigned char)kValueTypeUnknown, 0, Traits::kMaxDepth);
        auto& valueTypes = *valueTypesPtr;
        resizeValueTypes(*container, *topologyPtr, **distance, valueTypes);
        levelSetRedistance<Traits>(
            *container, *topologyPtr, **distance, true, true, false, 0, Traits::kMaxDepth, nullptr,
            &valueTypes, 0.01f, FLT_MAX, FLT_MAX, passes.maxNumPreSmoothingPasses,
            passes.maxNumPostSmoothingPasses, false, passes.performCoalescedRedistance, nullptr,
            stages.redistanceName, kRedistanceSweeping);
    }
    distance->restore();
}

} // namespace

// A parallel walk over all tiles, then the coarse copies of the non-leaf voxels.
template <typename Traits>
void resizeValueTypes(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                      VoxelChannel<Traits, float> const& distance,
                      VoxelChannel<Traits, unsigned char>& io_valueTypes)
{
    constexpr int W = Traits::kTileWidth;
    constexpr std::size_t kHaloCount = std::size_t(W + 2) * (W + 2) * (W + 2);
    float const voxelSize = container.voxelSize();
    TileData<float, W, 1, 0> halo(kHaloCount);
    auto accessor = container.tileAccessor();
    container.traverse(
        [] {}, [] {},
        [&distance, &io_valueTypes, voxelSize, halo, accessor](Tile<Traits> const& tile) mutable {
            if (TVL::bodyCancelled())
                return;
            TileData<unsigned char, W, 0, 0> types = io_valueTypes.tileData(tile.treeIndex());
            if (types.empty() || distance.tileData(tile.treeIndex()).empty())
                return;
            // The sign test reads the face rim only; the whole rim is fetched only for a tile with
            // a voxel near zero, whose test also reads the edges and corners.
            setHaloTile<Traits, float, 0, 1, 0, 0>(tile.treeIndex(), distance, kHaloModeGeneral,
                                                   kHaloTypeBase, accessor, halo, 0.0f, 1.0f,
                                                   kVoxelOffsetCenter);
            // 0.001 h, with h = width * voxel size rounded first, as in the adaptive sweep.
            float const tolerance = 0.001f * (float(tile.voxelDataWidth()) * voxelSize);
            bool nearZero = false;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        nearZero |= std::abs(halo(i, j, k)) <= tolerance;
            if (nearZero)
                setHaloTile<Traits, float, 0, 1, 0, 0>(tile.treeIndex(), distance, kHaloModeGeneral,
                                                       kHaloTypeAll, accessor, halo, 0.0f, 1.0f,
                                                       kVoxelOffsetCenter);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        if (detail::onZeroCrossing<W, true>(halo, i, j, k, tolerance,
                                                            detail::EveryNeighbour{}))
                            types(i, j, k) = kValueTypeKnown;
        },
        [](Tile<Traits> const&) {}, NoVoxelVisit{}, kTraversalUnordered, kNoTile, 0,
        Traits::kMaxDepth, 25, true, 0, Traits::kRatio, false, Traits::kMaxDepth - 3);
    setNonLeafValueToChildValue(io_valueTypes, container, topology.offsetType(), 0,
                                Traits::kMaxDepth);
}

int resizeCeiling(float x)
{
    if (x > 0.0f)
        return static_cast<int>(std::trunc(std::nextafter(x, -INFINITY))) + 1;
    return static_cast<int>(std::trunc(x));
}

ResizePasses resizePasses(float bandwidth, float voxelSize)
{
    float const x = bandwidth / (voxelSize * 4.0f);
    ResizePasses p;
    p.performCoalescedRedistance = resizeCeiling(x) >= 10;
    int const post = resizeCeiling(x * 0.5f);
    p.maxNumPostSmoothingPasses = post > 0 ? post + 1 : post;
    p.maxNumPreSmoothingPasses = 2;
    return p;
}

template <typename Logger>
void resize(float bandwidth, TVL::Object& io_object, Quillon::String const& tileTreeName,
            Quillon::String const& topologyName, Quillon::String const& distanceChannelName,
            Logger const& logger)
{
    static Stages const stages;
    if (kResizeMinimumBandwidth >= bandwidth || std::isnan(bandwidth)) {
        logger.warn("Bandwidth <= epsilon. Resize skipped.");
        return;
    }
    if (CoreGL::Logger::verboseLevel() > 0)
        std::cout << "levelset_resize.begin\n";
    // Each body finds only its own tree type: no dispatch on the object's contents.
    resizeBody<Traits24>(bandwidth, io_object, tileTreeName, topologyName, distanceChannelName,
                         logger, stages);
    resizeBody<Traits55>(bandwidth, io_object, tileTreeName, topologyName, distanceChannelName,
                         logger, stages);
    if (CoreGL::Logger::verboseLevel() > 0)
        std::cout << "levelset_resize.end\n";
}

#define HEXMOLD_INSTANTIATE_RESIZE_VALUE_TYPES(TR)                                                 \
    template HEXMOLD_API decltype(resizeValueTypes<TR>) resizeValueTypes<TR>;
HEXMOLD_FOR_EACH_TRAITS(HEXMOLD_INSTANTIATE_RESIZE_VALUE_TYPES)
#undef HEXMOLD_INSTANTIATE_RESIZE_VALUE_TYPES

template HEXMOLD_API decltype(resize<CoreGL::QuillonLogger>) resize<CoreGL::QuillonLogger>;
template HEXMOLD_API decltype(resize<CoreGL::ConsoleLogger>) resize<CoreGL::ConsoleLogger>;
template HEXMOLD_API decltype(resize<CoreGL::NOPLogger>) resize<CoreGL::NOPLogger>;

} // namespace VolumeGL::TileTree3D::LevelSet
