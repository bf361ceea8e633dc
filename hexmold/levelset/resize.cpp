/// @file  levelset/resize.cpp
/// @brief Resize of the narrow band of a level set: dilate, initialise, erode, redistance.
#include <hexmold/levelset/resize.h>

#include <cfloat>
#include <cmath>
#include <iostream>
#include <span>
#include <utility>
#include <hexmold/diagnostics/logger.h>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/platform/tavrel/geometry.h>
#include <hexmold/substrate/cancel.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/halo.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/substrate/type_lists.h>
#include <hexmold/substrate/visitor.h>

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

/// Value types of one tile from a halo copy of its distances: 1 at the voxels on the zero
/// crossing (a face neighbour of the other sign under the test 0 > value, or, within 0.001 voxel
/// of zero, a voxel of the 3 x 3 x 3 block around with a +x, +y or +z neighbour of the other sign
/// that is itself within 0.001 voxel of zero); the others keep 2.
template <int W> struct ZeroCrossing {
    template <typename Halo> static bool atSurface(Halo const& b, int i, int j, int k, float tolerance)
    {
        float const v = b(i, j, k);
        bool const inside = 0.0f > v;
        if ((0.0f > b(i + 1, j, k)) != inside || (0.0f > b(i - 1, j, k)) != inside ||
            (0.0f > b(i, j + 1, k)) != inside || (0.0f > b(i, j - 1, k)) != inside ||
            (0.0f > b(i, j, k + 1)) != inside || (0.0f > b(i, j, k - 1)) != inside)
            return true;
        if (!(std::abs(v) <= tolerance)) return false;
        for (int kk = k - 1; kk <= k + 1; ++kk)
            for (int jj = j - 1; jj <= j + 1; ++jj)
                for (int ii = i - 1; ii <= i + 1; ++ii) {
                    bool const s = 0.0f > b(ii, jj, kk);
                    auto crosses = [&](int a, int c, int d) {
                        if (a > W || c > W || d > W) return false; // beyond the halo
                        float const n = b(a, c, d);
                        return (0.0f > n) != s && std::abs(n) <= tolerance;
                    };
                    if (crosses(ii + 1, jj, kk) || crosses(ii, jj + 1, kk) || crosses(ii, jj, kk + 1)) return true;
                }
        return false;
    }
};

/// Builds the value types of a resize: a parallel walk over all tiles, then the coarse copies
/// of the non-leaf voxels.
template <typename Traits>
void buildValueTypes(Container<Traits> const& container, VoxelTopology<Traits> const& topology,
                     VoxelChannel<Traits, float> const& distance, VoxelChannel<Traits, unsigned char>& valueTypes)
{
    constexpr int W = Traits::kTileWidth;
    constexpr std::size_t kHaloCount = std::size_t(W + 2) * (W + 2) * (W + 2);
    float const voxelSize = container.voxelSize();
    TileData<float, W, 1, 0> halo(kHaloCount);
    auto accessor = container.tileAccessor();
    container.traverse(
        [] {}, [] {},
        [&distance, &valueTypes, voxelSize, halo, accessor](Tile<Traits> const& tile) mutable {
            if (TVL::bodyCancelled()) return;
            TileData<unsigned char, W, 0, 0> types = valueTypes.tileData(tile.treeIndex());
            if (types.empty() || distance.tileData(tile.treeIndex()).empty()) return;
            // The sign test reads the face rim only; the whole rim is fetched only for a tile with a
            // voxel near zero, whose test also reads the edges and corners.
            setHaloTile<Traits, float, 0, 1, 0, 0>(tile.treeIndex(), distance, kHaloModeGeneral, kHaloTypeBase,
                                                   accessor, halo, 0.0f, 1.0f, kVoxelOffsetCenter);
            float const tolerance = 0.001f * float(tile.voxelDataWidth()) * voxelSize;
            bool nearZero = false;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i) nearZero |= std::abs(halo(i, j, k)) <= tolerance;
            if (nearZero)
                setHaloTile<Traits, float, 0, 1, 0, 0>(tile.treeIndex(), distance, kHaloModeGeneral, kHaloTypeAll,
                                                       accessor, halo, 0.0f, 1.0f, kVoxelOffsetCenter);
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        if (ZeroCrossing<W>::atSurface(halo, i, j, k, tolerance)) types(i, j, k) = kValueTypeKnown;
        },
        [](Tile<Traits> const&) {}, NoVoxelVisit{}, kTraversalUnordered, kNoTile, 0, Traits::kMaxDepth, 25, true, 0,
        Traits::kRatio, false, Traits::kMaxDepth - 3);
    setNonLeafValueToChildValue(valueTypes, container, topology.offsetType(), 0, Traits::kMaxDepth);
}

/// The resize of one tree type; does nothing when the object holds no such tree.
template <typename Traits, typename Logger>
void resizeBody(float bandwidth, TVL::Object& object, Quillon::String const& tileTreeName,
                Quillon::String const& topologyName, Quillon::String const& distanceChannelName, Logger const& logger,
                Stages const& stages)
{
    using Distance = VoxelChannel<Traits, float>;
    // Taken in this order; whatever was taken returns when a later one is missing.
    TVL::ComponentGuard<Container<Traits>> container(object, tileTreeName);
    if (!container) return;
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(object, topologyName);
    if (!topology) return;
    auto distance = std::make_unique<TVL::ComponentGuard<Distance>>(object, distanceChannelName);
    if (!*distance) return;

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
    if (!*distance) return;
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
                      << "performCoalescedRedistance = " << passes.performCoalescedRedistance << '\n';
        auto const topologyPtr = object.component<VoxelTopology<Traits>>(topologyName);
        if (!topologyPtr) return;
        // The classical recursion runs here: a DOF channel in the object is not passed on.
        unsigned char const unknown = kValueTypeUnknown;
        VoxelChannel<Traits, unsigned char> valueTypes("", &unknown, kDataElementInitializerDefaultValue, false, true,
                                                       0, Traits::kMaxDepth);
        valueTypes.setTargetName(topologyPtr->name());
        valueTypes.update(*topologyPtr);
        buildValueTypes(*container, *topologyPtr, **distance, valueTypes);
        levelSetRedistance<Traits>(*container, *topologyPtr, **distance, true, true, false, 0, Traits::kMaxDepth, nullptr,
                           &valueTypes, 0.01f, FLT_MAX, FLT_MAX, passes.maxNumPreSmoothingPasses,
                           passes.maxNumPostSmoothingPasses, false, passes.performCoalescedRedistance, nullptr,
                           stages.redistanceName, kRedistanceSweeping);
    }
    distance->restore();
}

} // namespace

int resizeCeiling(float x)
{
    if (x > 0.0f) return static_cast<int>(std::trunc(std::nextafter(x, -INFINITY))) + 1;
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
            Quillon::String const& topologyName, Quillon::String const& distanceChannelName, Logger const& logger)
{
    static Stages const stages;
    if (kResizeMinimumBandwidth >= bandwidth || std::isnan(bandwidth)) {
        logger.warn("Bandwidth <= epsilon. Resize skipped.");
        return;
    }
    if (CoreGL::Logger::verboseLevel() > 0) std::cout << "levelset_resize.begin\n";
    // Each body finds only its own tree type: no dispatch on the object's contents.
    resizeBody<Traits24>(bandwidth, io_object, tileTreeName, topologyName, distanceChannelName, logger, stages);
    resizeBody<Traits55>(bandwidth, io_object, tileTreeName, topologyName, distanceChannelName, logger, stages);
    if (CoreGL::Logger::verboseLevel() > 0) std::cout << "levelset_resize.end\n";
}

template HEXMOLD_API decltype(resize<CoreGL::QuillonLogger>) resize<CoreGL::QuillonLogger>;
template HEXMOLD_API decltype(resize<CoreGL::ConsoleLogger>) resize<CoreGL::ConsoleLogger>;
template HEXMOLD_API decltype(resize<CoreGL::NOPLogger>) resize<CoreGL::NOPLogger>;

} // namespace VolumeGL::TileTree3D::LevelSet
