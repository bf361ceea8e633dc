/// @file  api/dilate_erode.cpp
/// @brief `hexmold::dilate` and `hexmold::erode`: checks, the operator, then the topology and
///        channels brought in step with the tree in the order the substrate prescribes.
#include <hexmold/api/detail/volume_access.h>
#include <hexmold/api/dilate_erode.h>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/logging/logger.h>
#include <hexmold/substrate/channel_update.h>
#include <hexmold/substrate/object.h>
#include <span>
#include <utility>

namespace hexmold {

namespace {

using namespace TVL::TileTree3D;

float checkedBandwidth(Volume const& volume, double bandVoxels, std::string_view entry)
{
    detail::requireFinite(bandVoxels, "bandVoxels", entry);
    if (bandVoxels < 0.0)
        detail::fail(entry, "bandVoxels must not be negative, not " + std::to_string(bandVoxels));
    return float(bandVoxels * double(volume.voxelSize()));
}

template <typename Traits>
std::int64_t dilateIn(Volume& io_volume, DilateOptions const& o, float bandwidth, int minDepth,
                      int maxDepth)
{
    TVL::Object& object = io_volume.object();
    TVL::ComponentGuard<Container<Traits>> tree(object, io_volume.names().tree);
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(object, io_volume.names().topology);
    TVL::ComponentGuard<VoxelChannel<Traits, float>> distance(object, o.channel);
    std::int64_t const before = tree->tileCount(-1);
    TileCornerLists<Traits> newTiles;
    VolumeGL::TileTree3D::LevelSet::dilate(bandwidth, *tree, *distance, newTiles,
                                           CoreGL::NOPLogger{}, minDepth, maxDepth);
    topology->update(*tree);
    distance->update(*topology);
    VoxelTopology<Traits> const& topologyInObject = *topology;
    topology.restore();
    // Back in the object, so that the new tiles of this channel are initialised with all others.
    distance.restore();
    updateTilesAdded(topologyInObject, object);
    initializeTileData(*tree, newTiles, object);
    return tree->tileCount(-1) - before;
}

template <typename Traits>
std::int64_t erodeIn(Volume& io_volume, ErodeOptions const& o, float bandwidth)
{
    TVL::Object& object = io_volume.object();
    TVL::ComponentGuard<Container<Traits>> tree(object, io_volume.names().tree);
    TVL::ComponentGuard<VoxelTopology<Traits>> topology(object, io_volume.names().topology);
    TVL::ComponentGuard<VoxelChannel<Traits, float>> distance(object, o.channel);
    std::int64_t const before = tree->tileCount(-1);
    // Erosion hands back no (from, to) pairs: they come from the layout before it.
    TileLayout<Traits> const layout = recordTileLayout(std::as_const(*tree));
    VolumeGL::TileTree3D::LevelSet::erode(bandwidth, *tree, *distance, CoreGL::NOPLogger{});
    TileMoveLists<Traits> const moved = tileMovesSince(layout, std::as_const(*tree));
    std::span<TileMoveList const> const pairs(moved.data(), moved.size());
    topology->update(*tree);
    distance->updateTilesRemoved(pairs, *topology);
    updateTilesRemoved(pairs, *topology, object);
    return before - tree->tileCount(-1);
}

} // namespace

std::int64_t dilate(Volume& io_volume, DilateOptions const& options)
{
    constexpr std::string_view kEntry = "hexmold::dilate";
    detail::requireTiles(io_volume, kEntry);
    float const bandwidth = checkedBandwidth(io_volume, options.bandVoxels, kEntry);
    auto const [minDepth, maxDepth] =
        detail::depthRange(options.minDepth, options.maxDepth, io_volume.traits(), kEntry);
    return detail::withTraits(io_volume.traits(), [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        detail::requireChannel<Tr, float>(io_volume, options.channel, "a float channel", kEntry);
        return dilateIn<Tr>(io_volume, options, bandwidth, minDepth, maxDepth);
    });
}

std::int64_t erode(Volume& io_volume, ErodeOptions const& options)
{
    constexpr std::string_view kEntry = "hexmold::erode";
    detail::requireTiles(io_volume, kEntry);
    float const bandwidth = checkedBandwidth(io_volume, options.bandVoxels, kEntry);
    return detail::withTraits(io_volume.traits(), [&](auto tag) {
        using Tr = typename decltype(tag)::type;
        detail::requireChannel<Tr, float>(io_volume, options.channel, "a float channel", kEntry);
        return erodeIn<Tr>(io_volume, options, bandwidth);
    });
}

} // namespace hexmold
